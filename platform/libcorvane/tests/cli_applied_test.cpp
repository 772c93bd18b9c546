// What the client remembers of the lines that are in effect, to tell the command server when that comes back.
#include "../cli_connection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace corvane;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

namespace {

struct AppliedLines : ::testing::Test {
    applied_lines applied;
    void change(applied_change what, const std::string &key, const std::string &line, const std::string &interface = "")
    {
        execute_record record;
        record.change = what;
        record.key = key;
        record.line = line;
        record.interface = interface;
        applied.change(record);
    }
    std::vector<std::string> lines() const
    {
        std::vector<std::string> all;
        applied.each([&](const std::string &interface, const std::string &line) {
            all.push_back(interface.empty() ? line : interface + ": " + line);
        });
        return all;
    }
};

} // namespace

TEST_F(AppliedLines, ForgetsCommandsThatConfigureNothing)
{
    change(applied_change::NOTHING, "", "");
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(AppliedLines, ReplacesALineOfTheSameKey)
{
    change(applied_change::REPLACE_KEY, "name", "lum vpn-name blue", "Overlay1");
    change(applied_change::REPLACE_KEY, "name", "lum vpn-name red", "Overlay1");
    change(applied_change::REPLACE_KEY, "name", "lum vpn-name blue", "Overlay2");
    EXPECT_THAT(lines(), UnorderedElementsAre("Overlay1: lum vpn-name red", "Overlay2: lum vpn-name blue"));
    change(applied_change::REMOVE_KEY, "name", "no lum vpn-name", "Overlay1");
    EXPECT_THAT(lines(), UnorderedElementsAre("Overlay2: lum vpn-name blue"));
}

TEST_F(AppliedLines, CountsALineThatStandsTwice)
{
    change(applied_change::APPEND, "", "lum anycast-arp 10.0.0.1");
    change(applied_change::APPEND, "", "lum anycast-arp 10.0.0.1");
    EXPECT_THAT(lines(), UnorderedElementsAre("lum anycast-arp 10.0.0.1", "lum anycast-arp 10.0.0.1"));
    change(applied_change::REMOVE_ONE, "", "no lum anycast-arp 10.0.0.1");
    EXPECT_THAT(lines(), UnorderedElementsAre("lum anycast-arp 10.0.0.1"));
    change(applied_change::REMOVE_ONE, "", "no lum anycast-arp 10.0.0.9");
    EXPECT_THAT(lines(), UnorderedElementsAre("lum anycast-arp 10.0.0.1"));
}

TEST_F(AppliedLines, KeepsAListedLineOnceAndTakesAllOfAKeyAway)
{
    change(applied_change::MOVE_TO_END, "port 10", "lum vlan 10", "eth1");
    change(applied_change::MOVE_TO_END, "port 10", "lum vlan 10", "eth1");
    change(applied_change::MOVE_TO_END, "port 10", "lum vlan 10 trunk-port", "eth1");
    EXPECT_THAT(lines(), UnorderedElementsAre("eth1: lum vlan 10", "eth1: lum vlan 10 trunk-port"));
    change(applied_change::REMOVE_KEY, "port 10", "no lum vlan 10", "eth1");
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(AppliedLines, KeepsANoFormThatIsASetting)
{
    change(applied_change::REPLACE_KEY, "fhrp", "no lum filter-fhrp");
    EXPECT_THAT(lines(), UnorderedElementsAre("no lum filter-fhrp"));
    change(applied_change::REMOVE_KEY, "fhrp", "no lum filter-fhrp");
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(AppliedLines, ForgetsAnInterfaceWithItsLines)
{
    change(applied_change::REPLACE_KEY, "name", "lum vpn-name blue", "Overlay1");
    change(applied_change::APPEND, "", "lum anycast-arp 10.0.0.1");
    applied.forget("Overlay1");
    EXPECT_THAT(lines(), UnorderedElementsAre("lum anycast-arp 10.0.0.1"));
}
