// VLANs of switchports: lists, membership queries, and the L2 state that is announced.
#include "../vlan_ports.h"

#include "../../api/intfmgr.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace corvane;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace corvaned {
namespace {

std::string text_of(const vlan_ports::state &s)
{
    return std::to_string(s.iod) + (s.mode == port_mode::TRUNK ? " trunk" : " access") + (s.up ? " up" : " down") +
           " +" + vlan_list_text(s.ups) + " -" + vlan_list_text(s.downs);
}

vlan_set vlans(const char *text)
{
    vlan_set set;
    EXPECT_TRUE(vlan_list_parse(text, set)) << text;
    return set;
}

class VlanList : public testing::Test {};

class VlanPorts : public testing::Test {
protected:
    std::vector<std::vector<std::uint32_t>> query(std::vector<std::uint32_t> asked)
    {
        byte_writer request;
        request.put(static_cast<std::uint32_t>(asked.size()));
        for (const std::uint32_t vlan : asked)
            request.put(vlan);
        std::vector<std::vector<std::uint32_t>> replies;
        EXPECT_TRUE(ports.query(request.view(), [&](byte_view reply) {
            byte_reader in(reply);
            replies.emplace_back();
            while (!in.rest().empty())
                replies.back().push_back(in.get<std::uint32_t>());
            EXPECT_TRUE(in.ok());
        }));
        return replies;
    }
    void link(const std::string &name, bool usable)
    {
        links[name].usable = usable;
        ports.refresh(name);
    }

    std::map<std::string, vlan_ports::link> links{{"eth1", {1, 11, true}}, {"eth2", {2, 12, true}}};
    std::vector<std::string> announced;
    vlan_ports ports{{[this](const std::string &name) { return links[name]; },
                      [this](const std::vector<vlan_ports::state> &states) {
                          for (const auto &s : states)
                              announced.push_back(text_of(s));
                      }}};
};

TEST_F(VlanList, TakesIdsAndRanges)
{
    EXPECT_EQ(vlan_list_text(vlans("10")), "10");
    EXPECT_EQ(vlan_list_text(vlans("10,20-23,1,4094")), "1,10,20-23,4094");
    EXPECT_EQ(vlan_list_text(vlans("1-4094")), "1-4094");
    EXPECT_EQ(vlan_list_text(vlans("5,6,7,7-9")), "5-9");
    EXPECT_EQ(vlan_list_text(vlan_set{}), "");
}

TEST_F(VlanList, RefusesWhatIsNone)
{
    vlan_set unchanged = vlans("7");
    for (const char *text : {"", "0", "4095", "10,", ",10", "10-", "20-10", "1-5000", "ten", "10 20", "10;20", "-5",
                             "99999999999", "10,20x"})
        EXPECT_FALSE(vlan_list_parse(text, unchanged)) << text;
    EXPECT_EQ(vlan_list_text(unchanged), "7");
}

TEST_F(VlanPorts, AnnounceTheVlanOfAnAccessPortThatHasItsLink)
{
    ports.configure("eth1", port_mode::ACCESS, vlans("10"));

    EXPECT_THAT(announced, ElementsAre("1 access up +10 -"));
    EXPECT_EQ(ports.mode_text("eth1"), "access 10");
}

TEST_F(VlanPorts, WaitForTheLink)
{
    links["eth1"].usable = false;
    ports.configure("eth1", port_mode::TRUNK, vlans("10,20"));
    EXPECT_THAT(announced, IsEmpty());
    link("eth1", true);

    EXPECT_THAT(announced, ElementsAre("1 trunk up +10,20 -"));
}

TEST_F(VlanPorts, NeverReportVlansUpOnAPortThatIsNot)
{
    ports.configure("eth1", port_mode::TRUNK, vlans("10,20"));
    announced.clear();
    link("eth1", false);
    link("eth1", false);
    link("eth1", true);

    EXPECT_THAT(announced, ElementsAre("1 trunk down + -10,20", "1 trunk up +10,20 -"));
}

TEST_F(VlanPorts, AnnounceTheVlansThatStayBehindThoseThatGo)
{
    ports.configure("eth1", port_mode::TRUNK, vlans("10,20,30"));
    announced.clear();
    ports.configure("eth1", port_mode::TRUNK, vlans("20,30,40"));

    EXPECT_THAT(announced, ElementsAre("1 trunk up + -10", "1 trunk up +20,30,40 -"));
}

TEST_F(VlanPorts, AnnounceAllVlansWhenSomeCome)
{
    ports.configure("eth1", port_mode::TRUNK, vlans("10"));
    announced.clear();
    ports.configure("eth1", port_mode::TRUNK, vlans("10,20"));

    EXPECT_THAT(announced, ElementsAre("1 trunk up +10,20 -"));
}

TEST_F(VlanPorts, GoAsWhatTheyWereWhenTheirKindChanges)
{
    ports.configure("eth1", port_mode::TRUNK, vlans("10,20"));
    announced.clear();
    ports.configure("eth1", port_mode::ACCESS, vlans("10"));

    EXPECT_THAT(announced, ElementsAre("1 trunk up + -10,20", "1 access up +10 -"));
}

TEST_F(VlanPorts, SayNothingOfASwitchportWithoutVlans)
{
    link("eth1", false);
    link("eth1", true);

    EXPECT_THAT(announced, IsEmpty());
    EXPECT_FALSE(ports.clear("eth1"));
    EXPECT_EQ(ports.mode_text("eth1"), "");
}

TEST_F(VlanPorts, TellWhetherClearingWasAnnounced)
{
    ports.configure("eth1", port_mode::ACCESS, vlans("10"));
    announced.clear();
    EXPECT_TRUE(ports.clear("eth1"));
    EXPECT_THAT(announced, ElementsAre("1 access up + -10"));

    links["eth1"].usable = false;
    ports.configure("eth1", port_mode::ACCESS, vlans("10"));
    EXPECT_FALSE(ports.clear("eth1"));
}

TEST_F(VlanPorts, AnswerAQueryWithTheirDevicesAndThenTheirState)
{
    ports.configure("eth1", port_mode::TRUNK, vlans("10,20"));
    ports.configure("eth2", port_mode::ACCESS, vlans("10"));
    announced.clear();

    EXPECT_THAT(query({10}), ElementsAre(ElementsAre(10, 2, 10, 11, 10, 12)));
    EXPECT_THAT(announced, ElementsAre("1 trunk up +10,20 -", "2 access up +10 -"));
}

TEST_F(VlanPorts, AnswerForAVlanWithoutPorts)
{
    ports.configure("eth1", port_mode::ACCESS, vlans("10"));
    announced.clear();

    EXPECT_THAT(query({30, 10, 5000}), ElementsAre(ElementsAre(30, 0), ElementsAre(10, 1, 10, 11), ElementsAre(5000, 0)));
    EXPECT_THAT(announced, SizeIs(1));
    announced.clear();
    EXPECT_THAT(query({30}), ElementsAre(ElementsAre(30, 0)));
    EXPECT_THAT(announced, IsEmpty());
}

TEST_F(VlanPorts, AreNoMembersWithoutTheirLink)
{
    ports.configure("eth1", port_mode::ACCESS, vlans("10"));
    link("eth1", false);

    EXPECT_THAT(query({10}), ElementsAre(ElementsAre(10, 0)));
}

TEST_F(VlanPorts, RefuseMalformedQueries)
{
    const auto no_reply = [](byte_view) { FAIL(); };
    for (const auto &bytes : std::vector<std::vector<std::uint8_t>>{
             {}, {1, 0, 0}, {1, 0, 0, 0}, {1, 0, 0, 0, 10, 0, 0}, {1, 0, 0, 0, 10, 0, 0, 0, 0}, {0xFF, 0xFF, 0xFF, 0xFF}})
        EXPECT_FALSE(ports.query(bytes, no_reply));
}

TEST_F(VlanPorts, AreWrittenAsTheNotificationHasIt)
{
    const auto payloads = l2_state_payloads({{7, port_mode::TRUNK, true, vlans("10,20"), vlans("30")}});
    ASSERT_THAT(payloads, SizeIs(1));
    byte_reader in(payloads[0]);
    EXPECT_EQ(in.get<std::uint32_t>(), 1u);
    EXPECT_EQ(in.get<std::uint32_t>(), 7u);
    EXPECT_EQ(in.get<std::uint32_t>(), INTFMGR_MODE_TRUNK);
    EXPECT_EQ(in.get<std::uint32_t>(), 1u);
    EXPECT_EQ(in.get<std::uint16_t>(), 2u);
    EXPECT_EQ(in.get<std::uint16_t>(), 1u);
    EXPECT_EQ(in.get<std::uint16_t>(), 10u);
    EXPECT_EQ(in.get<std::uint16_t>(), 20u);
    EXPECT_EQ(in.get<std::uint16_t>(), 30u);
    EXPECT_TRUE(in.done());
}

TEST_F(VlanPorts, AreSpreadOverMessagesThatAreNotTooLong)
{
    const std::vector<vlan_ports::state> many(100, {1, port_mode::TRUNK, true, vlans("1-4094"), {}});
    const auto payloads = l2_state_payloads(many);
    std::uint32_t states = 0;
    for (const auto &payload : payloads) {
        EXPECT_LT(payload.size(), 64u * 1024);
        states += byte_reader(payload).get<std::uint32_t>();
    }
    EXPECT_EQ(states, 100u);
    EXPECT_THAT(l2_state_payloads({}), IsEmpty());
}

} // namespace
} // namespace corvaned
