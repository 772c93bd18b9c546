// The running configuration: which line replaces which, what `no` takes away, and the order of it all.
#include "../cmdsrv_store.h"

#include "cmdsrv_installed.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace corvaned;
using corvaned_test::installed_grammar;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

struct Store : ::testing::Test {
    grammar g;
    config_store store;

    void SetUp() override
    {
        ASSERT_THAT(g.add_file(installed_grammar("platform.cli")), IsEmpty());
        ASSERT_THAT(g.add_file(installed_grammar("lum.cli")), IsEmpty());
    }

    static mode mode_of(const std::string &interface)
    {
        return interface.empty() ? mode::CONFIGURE : interface.starts_with("Overlay") ? mode::OVERLAY : mode::DEVICE;
    }
    void enter_into(config_store &into, const std::string &interface, const std::string &line)
    {
        const auto result = parse({&g, mode_of(interface), false, false, nullptr}, line);
        ASSERT_FALSE(result.error) << line << ": " << result.error.text;
        const auto &c = *result.command.command;
        if (c.enters_interface && result.command.no)
            into.remove_interface(result.command.interfaces.front());
        else if (c.enters_interface)
            into.make_interface(result.command.interfaces.front(), &c);
        else
            into.apply(interface, result.command);
    }
    void enter(const std::string &interface, const std::string &line) { enter_into(store, interface, line); }
};

} // namespace

TEST_F(Store, IsEmptyAtFirst)
{
    EXPECT_EQ(store.text(), "");
    EXPECT_EQ(store.size(), 0u);
}

TEST_F(Store, PrintsGlobalLinesAroundTheInterfaces)
{
    enter("", "lum route 10/02:00:00:00:00:01 interface eth1");
    enter("", "interface Overlay1");
    enter("Overlay1", "lum vpn-name blue");
    enter("eth1", "switchport");
    enter("", "chassis generic");
    EXPECT_EQ(store.text(), "chassis generic\n"
                            "interface Overlay1\n"
                            "  lum vpn-name blue\n"
                            "interface eth1\n"
                            "  switchport\n"
                            "lum route 10/02:00:00:00:00:01 interface eth1\n");
}

TEST_F(Store, ReplacesALineOfTheSameSlotInItsPlace)
{
    enter("Overlay1", "lum vpn-name blue");
    enter("Overlay1", "lum vpn-ext-if eth0");
    enter("Overlay1", "lum vpn-name red");
    EXPECT_EQ(store.text(), "interface Overlay1\n  lum vpn-name red\n  lum vpn-ext-if eth0\n");
}

TEST_F(Store, KeepsTheGroupsOfBothFamilies)
{
    enter("Overlay1", "lum vpn-mgroup-addr 239.1.1.1");
    enter("Overlay1", "lum vpn-mgroup-addr ff05::1");
    enter("Overlay1", "lum vpn-mgroup-addr 239.1.1.2");
    EXPECT_EQ(store.text(), "interface Overlay1\n  lum vpn-mgroup-addr 239.1.1.2\n  lum vpn-mgroup-addr ff05::1\n");
    enter("Overlay1", "no lum vpn-mgroup-addr ff05::1");
    EXPECT_EQ(store.text(), "interface Overlay1\n  lum vpn-mgroup-addr 239.1.1.2\n");
}

TEST_F(Store, MovesALineOfAnotherCommandOfTheSlotToTheEnd)
{
    enter("eth1", "switchport");
    enter("eth1", "switchport access vlan 10");
    enter("eth1", "join-group 239.1.1.1");
    enter("eth1", "switchport trunk allowed vlan 10,20");
    EXPECT_EQ(store.text(), "interface eth1\n  switchport\n  join-group 239.1.1.1\n  switchport trunk allowed vlan 10,20\n");
}

TEST_F(Store, TakesALineAwayWithoutItsArguments)
{
    enter("Overlay1", "lum vpn-name blue");
    enter("Overlay1", "no lum vpn-name");
    EXPECT_EQ(store.text(), "");
}

TEST_F(Store, TakesEveryVlanOfAnOverlayAwayWhateverListIsGiven)
{
    enter("Overlay1", "lum vpn-vlan 10,20");
    enter("Overlay1", "no lum vpn-vlan 10");
    EXPECT_EQ(store.text(), "");
}

TEST_F(Store, KeepsTheNoFormOfWhatIsOnByItself)
{
    enter("", "lum filter-fhrp");
    EXPECT_EQ(store.text(), "");
    enter("", "no lum filter-fhrp");
    EXPECT_EQ(store.text(), "no lum filter-fhrp\n");
    enter("", "no lum filter-fhrp");
    EXPECT_EQ(store.text(), "no lum filter-fhrp\n");
    enter("", "lum filter-fhrp");
    EXPECT_EQ(store.text(), "");
}

TEST_F(Store, KeepsTheLastOfTwoFormsThatAreBothSettings)
{
    enter("eth1", "no shutdown");
    EXPECT_EQ(store.text(), "interface eth1\n  no shutdown\n");
    enter("eth1", "shutdown");
    EXPECT_EQ(store.text(), "interface eth1\n  shutdown\n");
    enter("Overlay1", "shutdown");
    enter("Overlay1", "no shutdown");
    EXPECT_EQ(store.text(), "interface eth1\n  shutdown\n");
}

TEST_F(Store, KeepsALineThatIsEnteredTwiceTwiceWhereItCountsTwice)
{
    enter("", "lum anycast-arp 10.0.0.1");
    enter("", "lum anycast-arp 10.0.0.2");
    enter("", "lum anycast-arp 10.0.0.1");
    EXPECT_EQ(store.text(), "lum anycast-arp 10.0.0.1\nlum anycast-arp 10.0.0.2\nlum anycast-arp 10.0.0.1\n");
    enter("", "no lum anycast-arp 10.0.0.1");
    EXPECT_EQ(store.text(), "lum anycast-arp 10.0.0.2\nlum anycast-arp 10.0.0.1\n");
}

TEST_F(Store, MovesAListedLineToTheEndWhenItIsEnteredAgain)
{
    enter("eth1", "lum vlan 10");
    enter("eth1", "lum vlan 20");
    enter("eth1", "lum vlan 10");
    EXPECT_EQ(store.text(), "interface eth1\n  lum vlan 20\n  lum vlan 10\n");
}

TEST_F(Store, TakesBothKindsOfAPortVlanAwayByItsId)
{
    enter("eth1", "lum vlan 10");
    enter("eth1", "lum vlan 10 trunk-port");
    enter("eth1", "lum vlan 20");
    enter("eth1", "no lum vlan 10");
    EXPECT_EQ(store.text(), "interface eth1\n  lum vlan 20\n");
}

TEST_F(Store, TakesOnlyTheRouteWithThatNextHopAway)
{
    enter("", "lum route 10/02:00:00:00:00:01 interface eth1");
    enter("", "lum route 10/02:00:00:00:00:01 interface eth2");
    enter("", "no lum route 10/02:00:00:00:00:01");
    EXPECT_EQ(store.size(), 2u);
    enter("", "no lum route 10/02:00:00:00:00:01 interface eth1");
    EXPECT_EQ(store.text(), "lum route 10/02:00:00:00:00:01 interface eth2\n");
}

TEST_F(Store, TakesARouteAwayWhateverOrderItsOptionsHave)
{
    enter("", "lum route 10/02:00:00:00:00:01 interface Overlay1 next-hop 192.0.2.1");
    enter("", "no lum route 10/02:00:00:00:00:01 next-hop 192.0.2.1 interface Overlay1");
    EXPECT_EQ(store.text(), "");
}

TEST_F(Store, DropsAnInterfaceWithItsLines)
{
    enter("", "interface Overlay1");
    enter("Overlay1", "lum vpn-name blue");
    enter("", "interface Overlay2");
    enter("", "no interface Overlay1");
    EXPECT_EQ(store.text(), "interface Overlay2\n");
    EXPECT_EQ(store.size(), 1u);
}

TEST_F(Store, IgnoresANoLineThatTakesNothingAway)
{
    enter("Overlay1", "no lum vpn-name");
    enter("", "no lum anycast-arp 10.0.0.1");
    EXPECT_EQ(store.text(), "");
}

TEST_F(Store, FindsLinesBySlotLastFirst)
{
    enter("eth1", "switchport");
    enter("eth1", "lum vlan 10");
    enter("eth1", "lum vlan 20");
    const auto ids = store.in_slots("eth1", {"port-vlan"});
    ASSERT_THAT(ids, SizeIs(2));
    EXPECT_EQ(store.find(ids[0])->text, "lum vlan 20");
    EXPECT_EQ(store.find(ids[1])->text, "lum vlan 10");
}

TEST_F(Store, TellsOfEveryOperationAsItWasEntered)
{
    std::vector<std::string> told;
    store.done = [&](config_store::operation what, const std::string &interface, const std::string &text, line_state,
                     std::uint32_t) { told.push_back(static_cast<char>(what) + (" [" + interface + "] ") + text); };
    enter("", "interface Overlay1");
    enter("Overlay1", "lum vpn-name blue");
    enter("Overlay1", "no lum vpn-name");
    enter("Overlay1", "lum vpn-vlan 10");
    store.remove_text("Overlay1", "lum vpn-vlan 10");
    store.remove_text("Overlay1", "lum vpn-vlan 10");
    enter("", "no interface Overlay1");
    EXPECT_THAT(told, ElementsAre("M [Overlay1] ", "A [Overlay1] lum vpn-name blue", "A [Overlay1] no lum vpn-name",
                                  "A [Overlay1] lum vpn-vlan 10", "R [Overlay1] lum vpn-vlan 10", "X [Overlay1] "));
}

TEST_F(Store, ReadsBackWhatItPrints)
{
    enter("", "interface Overlay1");
    enter("Overlay1", "lum vpn-name \"two words\"");
    enter("Overlay1", "no lum suppress-arp");
    enter("Overlay1", "lum vpn-encap-format gre ipv6");
    enter("", "lum mroute 10 239.1.1.1 source 10.0.0.1 interface eth1");
    config_store again;
    std::string interface;
    const std::string text = store.text();
    for (std::size_t at = 0; at < text.size();) {
        const auto end = text.find('\n', at);
        const std::string line = text.substr(at, end - at);
        at = end + 1;
        if (line.front() != ' ')
            interface = line.starts_with("interface ") ? line.substr(10) : "";
        enter_into(again, line.front() == ' ' ? interface : "", line);
    }
    EXPECT_EQ(again.text(), text);
}

TEST_F(Store, TakesManyLinesWithoutSlowingDown)
{
    for (int i = 0; i < 20'000; ++i) {
        char line[80];
        std::snprintf(line, sizeof line, "lum route 10/02:00:00:%02x:%02x:%02x interface eth1", i >> 16, i >> 8 & 255, i & 255);
        const auto result = parse({&g, mode::CONFIGURE, false, false, nullptr}, line);
        store.apply("", result.command);
    }
    EXPECT_EQ(store.size(), 20'000u);
}

TEST_F(Store, FindsNoDifferenceBetweenEqualConfigurations)
{
    config_store other;
    for (const char *line : {"lum vpn-name blue", "lum vpn-vlan 10"}) {
        enter("Overlay1", line);
        enter_into(other, "Overlay1", line);
    }
    const auto d = difference(store, other);
    EXPECT_THAT(d.back, IsEmpty());
    EXPECT_THAT(d.enter, IsEmpty());
}

TEST_F(Store, TakesBackWhatIsGoneLastFirstAndEntersWhatIsNewInOrder)
{
    config_store wanted;
    enter("eth1", "switchport");
    enter("eth1", "lum vlan 10");
    enter("", "no lum filter-fhrp");
    enter_into(wanted, "eth2", "switchport");
    enter_into(wanted, "eth2", "lum vlan 20");
    const auto d = difference(store, wanted);
    std::vector<std::string> back, come;
    for (const auto &c : d.back)
        back.push_back(c.interface + ": " + c.line);
    for (const auto &c : d.enter)
        come.push_back(c.interface + ": " + c.line);
    EXPECT_THAT(back, ElementsAre(": lum filter-fhrp", "eth1: no lum vlan 10", "eth1: no switchport"));
    EXPECT_THAT(come, ElementsAre("eth2: switchport", "eth2: lum vlan 20"));
}

TEST_F(Store, EntersANewValueWithoutTakingTheOldOneBack)
{
    config_store wanted;
    enter("Overlay1", "lum vpn-name blue");
    enter_into(wanted, "Overlay1", "lum vpn-name red");
    const auto d = difference(store, wanted);
    EXPECT_THAT(d.back, IsEmpty());
    ASSERT_THAT(d.enter, SizeIs(1));
    EXPECT_EQ(d.enter[0].line, "lum vpn-name red");
}

TEST_F(Store, TakesAnOverlayBackAsAWhole)
{
    config_store wanted;
    enter("", "interface Overlay1");
    enter("Overlay1", "lum vpn-name blue");
    const auto d = difference(store, wanted);
    ASSERT_THAT(d.back, SizeIs(1));
    EXPECT_EQ(d.back[0].line, "no interface Overlay1");
    EXPECT_EQ(d.back[0].interface, "");
}

TEST_F(Store, OnlyForgetsASettingThatHasNoOpposite)
{
    config_store wanted;
    enter("eth1", "no shutdown");
    const auto d = difference(store, wanted);
    ASSERT_THAT(d.back, SizeIs(1));
    EXPECT_EQ(d.back[0].line, "");
    EXPECT_NE(d.back[0].id, 0u);
}

TEST_F(Store, CountsLinesThatStandSeveralTimes)
{
    config_store wanted;
    enter("", "lum anycast-arp 10.0.0.1");
    enter("", "lum anycast-arp 10.0.0.1");
    enter_into(wanted, "", "lum anycast-arp 10.0.0.1");
    EXPECT_THAT(difference(store, wanted).back, SizeIs(1));
    EXPECT_THAT(difference(wanted, store).enter, SizeIs(1));
}
