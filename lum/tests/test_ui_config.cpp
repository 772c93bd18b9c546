// Configuration commands of an overlay and of the whole device.
#include "control_test.h"

#include <cstring>

using namespace fake;
using namespace testing;

namespace
{

struct ConfigTest : ControlTest {
    // Runs a command that must be refused with this message, and shows that the overlay stays as it was.
    void expect_rejected(cli_handler handler, const command_arguments &arguments, bool no, const std::string &message,
                         const lum_overlay *overlay = nullptr)
    {
        const overlay_snapshot before = overlay != nullptr ? snapshot(*overlay) : overlay_snapshot{};
        const command_result result = platform.command(handler, arguments, no, overlay != nullptr ? overlay->iod : 0);
        EXPECT_EQ(result.status, -500);
        EXPECT_EQ(result.output, message);
        if (overlay != nullptr) {
            EXPECT_EQ(snapshot(*overlay), before);
        }
        EXPECT_THAT(told(), IsEmpty());
        EXPECT_THAT(group_calls(), IsEmpty());
        EXPECT_THAT(platform.syslog, IsEmpty());
    }
    // Runs a command that must be taken, without output.
    void expect_done(cli_handler handler, const command_arguments &arguments, bool no = false,
                     std::uint32_t iod = OVERLAY)
    {
        const command_result result = platform.command(handler, arguments, no, iod);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.output, "");
    }
};

struct LumOverlayCommands : ConfigTest {};

TEST_F(LumOverlayCommands, AreRefusedWhereThereIsNoOverlay)
{
    for (const cli_handler handler : {lum_vpn_name_cmd, lum_vpn_ext_if_cmd, lum_vpn_mgroup_addr_cmd,
                                      lum_vpn_encap_format_cmd, lum_vpn_vlan_cmd, lum_suppress_arp_cmd,
                                      lum_core_group_cmd}) {
        const command_result result = platform.command(handler, {}, false, 300);
        EXPECT_EQ(result.status, -500);
        EXPECT_EQ(result.output, "No such overlay\n");
    }
    EXPECT_THAT(told(), IsEmpty());
}

TEST_F(LumOverlayCommands, CreateTheOverlayTheyAreEnteredOnBeforeItIsKnown)
{
    expect_done(lum_vpn_name_cmd, {{"<vpn-name>", "blue"}});
    ASSERT_NE(lum_get_overlay(OVERLAY), nullptr);
    EXPECT_STREQ(lum_get_overlay(OVERLAY)->vpn_name, "blue");
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78851", "publish 2", "notify 78854"));
}

struct LumVpnName : ConfigTest {
    lum_overlay &overlay = make_overlay();
};

TEST_F(LumVpnName, IsStoredPublishedAndTold)
{
    expect_done(lum_vpn_name_cmd, {{"<vpn-name>", "blue"}});
    EXPECT_STREQ(overlay.vpn_name, "blue");
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78854"));
}

TEST_F(LumVpnName, TheSameNameHasNoFurtherEffect)
{
    std::strcpy(overlay.vpn_name, "blue");
    expect_done(lum_vpn_name_cmd, {{"<vpn-name>", "blue"}});
    EXPECT_THAT(told(), IsEmpty());
}

TEST_F(LumVpnName, IsCutToAHundredCharacters)
{
    expect_done(lum_vpn_name_cmd, {{"<vpn-name>", std::string(150, 'x')}});
    EXPECT_EQ(std::string(overlay.vpn_name), std::string(100, 'x'));
}

TEST_F(LumVpnName, IsRemovedByItsNameOrWithoutOne)
{
    std::strcpy(overlay.vpn_name, "blue");
    expect_done(lum_vpn_name_cmd, {{"<vpn-name>", "blue"}}, true);
    EXPECT_STREQ(overlay.vpn_name, "");
    std::strcpy(overlay.vpn_name, "red");
    platform.forget();
    expect_done(lum_vpn_name_cmd, {}, true);
    EXPECT_STREQ(overlay.vpn_name, "");
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78854"));
}

TEST_F(LumVpnName, IsNotRemovedByAnotherName)
{
    std::strcpy(overlay.vpn_name, "blue");
    expect_rejected(lum_vpn_name_cmd, {{"<vpn-name>", "blu"}}, true, "Invalid overlay name\n", &overlay);
}

struct LumVpnExtIf : ConfigTest {
    lum_overlay &overlay = make_overlay();
};

TEST_F(LumVpnExtIf, IsStoredAndResolved)
{
    expect_done(lum_vpn_ext_if_cmd, {{"<ext_if>", "eth5"}});
    EXPECT_STREQ(overlay.ext_if[0].name, "eth5");
    EXPECT_EQ(overlay.ext_if_count, 1u);
    EXPECT_EQ(overlay.ext_if[0].iod, CORE);
    EXPECT_EQ(overlay.ext_ipv4, CORE_IPV4);
}

TEST_F(LumVpnExtIf, NeedNotExistYet)
{
    expect_done(lum_vpn_ext_if_cmd, {{"<ext_if>", "eth77"}});
    EXPECT_STREQ(overlay.ext_if[0].name, "eth77");
    EXPECT_EQ(overlay.ext_if_count, 1u);
    EXPECT_EQ(overlay.ext_if[0].iod, 0u);
}

TEST_F(LumVpnExtIf, IsRemovedWithItsIodAndAddress)
{
    expect_done(lum_vpn_ext_if_cmd, {{"<ext_if>", "eth5"}});
    expect_done(lum_vpn_ext_if_cmd, {{"<ext_if>", "eth5"}}, true);
    EXPECT_STREQ(overlay.ext_if[0].name, "");
    EXPECT_EQ(overlay.ext_if_count, 0u);
    EXPECT_EQ(overlay.ext_if[0].iod, 0u);
    EXPECT_EQ(overlay.ext_ipv4, 0u);
}

TEST_F(LumVpnExtIf, IsCutToAHundredCharacters)
{
    expect_done(lum_vpn_ext_if_cmd, {{"<ext_if>", std::string(150, 'e')}});
    EXPECT_EQ(std::strlen(overlay.ext_if[0].name), 100u);
}

struct LumVpnMgroupAddr : ConfigTest {
    lum_overlay &overlay = make_up_overlay();
};

TEST_F(LumVpnMgroupAddr, TakesAnyIpv4GroupButLinkLocalOnesAndOneReserved)
{
    for (const char *group : {"239.1.1.2", "232.0.0.1", "224.0.1.0", "239.255.255.255", "231.255.255.255"}) {
        expect_done(lum_vpn_mgroup_addr_cmd, {{"<maddr>", group}});
        lum_text text;
        EXPECT_STREQ(lum_print_ipv4(lum_next_hop_ipv4(overlay.ipv4_group), text), group);
    }
}

TEST_F(LumVpnMgroupAddr, RefusesOtherIpv4AddressesEachWithItsReason)
{
    const auto refused = [&](const char *group, const char *message) {
        expect_rejected(lum_vpn_mgroup_addr_cmd, {{"<maddr>", group}}, false, message, &overlay);
        expect_rejected(lum_vpn_mgroup_addr_cmd, {{"<maddr>", group}}, true, message, &overlay);
    };
    refused("10.0.0.1", "Illegal group address\n");
    refused("223.255.255.255", "Illegal group address\n");
    refused("240.0.0.0", "Illegal group address\n");
    refused("224.0.0.5", "Cannot be link-local group address\n");
    refused("224.0.0.255", "Cannot be link-local group address\n");
    refused("232.0.0.0", "Cannot be SSM reserved group 232.0.0.0\n");
}

TEST_F(LumVpnMgroupAddr, JoinsTheGroupAndThenStoresPublishesAndTellsIt)
{
    expect_done(lum_vpn_mgroup_addr_cmd, {{"<maddr>", "239.1.1.2"}});
    EXPECT_THAT(group_calls(), ElementsAre("ip_group_leave(5, 4009820418)", "ip_group_join(5, 4009820418)"));
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78854"));
    EXPECT_EQ(overlay.ipv4_group.kind, 6u);
    EXPECT_EQ(lum_next_hop_iod(overlay.ipv4_group), OVERLAY);
    EXPECT_EQ(lum_next_hop_family(overlay.ipv4_group), 4u);
    EXPECT_EQ(lum_next_hop_ipv4(overlay.ipv4_group), ipv4(239, 1, 1, 2));
    std::vector<std::string> order;
    for (const call_record &call : platform.calls)
        order.push_back(call.name);
    EXPECT_THAT(order, ElementsAre("ip_group_leave", "ip_group_join", "hakit_sdb_update", "mbus_send"));
}

TEST_F(LumVpnMgroupAddr, TheConfiguredGroupAgainChangesAndSendsNothing)
{
    expect_done(lum_vpn_mgroup_addr_cmd, {{"<maddr>", "239.1.1.1"}});
    EXPECT_THAT(platform.calls, IsEmpty());
}

TEST_F(LumVpnMgroupAddr, IsRemovedByNameAndTakesTheOverlayDown)
{
    expect_done(lum_vpn_mgroup_addr_cmd, {{"<maddr>", "239.1.1.1"}}, true);
    EXPECT_EQ(lum_next_hop_ipv4(overlay.ipv4_group), 0u);
    EXPECT_EQ(lum_next_hop_family(overlay.ipv4_group), 4u);
    EXPECT_THAT(group_calls(), ElementsAre("ip_group_leave(5, 0)", "ip_group_join(5, 0)"));
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78854", "notify 78853"));
}

TEST_F(LumVpnMgroupAddr, IsNotRemovedByAnotherAddress)
{
    expect_rejected(lum_vpn_mgroup_addr_cmd, {{"<maddr>", "239.1.1.2"}}, true, "No such group\n", &overlay);
    expect_rejected(lum_vpn_mgroup_addr_cmd, {{"<maddr6>", "ff05::1"}}, true, "No such group\n", &overlay);
}

TEST_F(LumVpnMgroupAddr, TakesAnyIpv6Address)
{
    for (const char *group : {"ff05::1", "ff02::1", "2001:db8::1"}) {
        expect_done(lum_vpn_mgroup_addr_cmd, {{"<maddr6>", group}});
        EXPECT_EQ(lum_next_hop_ipv6(overlay.ipv6_group), ipv6(group));
        EXPECT_EQ(lum_next_hop_family(overlay.ipv6_group), 5u);
    }
}

TEST_F(LumVpnMgroupAddr, AnIpv6GroupIsJoinedStoredAndRemovedAgain)
{
    expect_done(lum_vpn_mgroup_addr_cmd, {{"<maddr6>", "ff05::1"}});
    EXPECT_THAT(group_calls(), ElementsAre("ipv6_group_join(5, ff050000000000000000000000000001)"));
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78854"));
    platform.forget();
    expect_done(lum_vpn_mgroup_addr_cmd, {{"<maddr6>", "ff05::1"}});
    EXPECT_THAT(platform.calls, IsEmpty());
    expect_done(lum_vpn_mgroup_addr_cmd, {{"<maddr6>", "ff05::1"}}, true);
    EXPECT_EQ(lum_next_hop_ipv6(overlay.ipv6_group), ipv6_address{});
    EXPECT_THAT(group_calls(), ElementsAre("ipv6_group_leave(5, 00000000000000000000000000000000)",
                                           "ipv6_group_join(5, 00000000000000000000000000000000)"));
}

TEST_F(LumVpnMgroupAddr, TheNoFormWithoutAddressPublishesAndTellsAndChangesNoGroup)
{
    expect_done(lum_vpn_mgroup_addr_cmd, {}, true);
    EXPECT_EQ(lum_next_hop_ipv4(overlay.ipv4_group), GROUP);
    EXPECT_THAT(group_calls(), IsEmpty());
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78854"));
}

struct LumVpnEncapFormat : ConfigTest {
    lum_overlay &overlay = make_overlay();
    std::pair<std::uint32_t, std::uint32_t> set(std::initializer_list<const char *> words, bool no = false)
    {
        platform.forget();
        command_arguments arguments;
        for (const char *word : words)
            arguments[word] = "";
        expect_done(lum_vpn_encap_format_cmd, arguments, no);
        return {overlay.encap_type, overlay.encap_family};
    }
    using format = std::pair<std::uint32_t, std::uint32_t>;
};

TEST_F(LumVpnEncapFormat, FollowsTheWordsGiven)
{
    EXPECT_EQ(set({"gre"}), format(1, 4));
    EXPECT_EQ(set({"gre", "ipv6"}), format(1, 5));
    EXPECT_EQ(set({"udp", "ipv6"}), format(2, 5));
    EXPECT_EQ(set({"udp", "ip"}), format(2, 4));
    EXPECT_EQ(set({"gre", "udp"}), format(2, 4));            // udp wins
    EXPECT_EQ(set({"gre", "ip", "ipv6"}), format(1, 5));     // ip is read and has no effect
    EXPECT_EQ(set({}), format(2, 4));
}

TEST_F(LumVpnEncapFormat, AChangeIsPublishedAndTold)
{
    set({"gre"});
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78854"));
    EXPECT_EQ(platform.sdb_writes.at(0).value.host32(280), 1u);
}

TEST_F(LumVpnEncapFormat, TheSameFormatAgainSendsNothing)
{
    set({"udp"});
    EXPECT_THAT(told(), IsEmpty());
    set({"gre", "ipv6"});
    set({"gre", "ipv6"});
    EXPECT_THAT(told(), IsEmpty());
}

TEST_F(LumVpnEncapFormat, TheNoFormIsUdpOverIpv4WhateverItNames)
{
    set({"gre", "ipv6"});
    EXPECT_EQ(set({"gre", "ipv6"}, true), format(2, 4));
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78854"));
    set({}, true);
    EXPECT_THAT(told(), IsEmpty());
}

struct LumFlagCommands : ConfigTest {};

TEST_F(LumFlagCommands, AuthElectionDoesNothingInEitherForm)
{
    lum_overlay &overlay = make_overlay();
    const overlay_snapshot before = snapshot(overlay);
    expect_done(lum_auth_election_cmd, {});
    expect_done(lum_auth_election_cmd, {}, true);
    EXPECT_EQ(snapshot(overlay), before);
    EXPECT_THAT(platform.calls, IsEmpty());
}

TEST_F(LumFlagCommands, FilterFhrpFollowsTheForm)
{
    expect_done(lum_filter_fhrp_cmd, {}, true, 0);
    EXPECT_EQ(lum_filter_fhrp, 0u);
    expect_done(lum_filter_fhrp_cmd, {}, false, 0);
    EXPECT_EQ(lum_filter_fhrp, 1u);
}

TEST_F(LumFlagCommands, SuppressArpFollowsTheFormAndPublishesNothing)
{
    lum_overlay &overlay = make_overlay();
    expect_done(lum_suppress_arp_cmd, {}, true);
    EXPECT_EQ(overlay.suppress_arp, 0u);
    expect_done(lum_suppress_arp_cmd, {});
    EXPECT_EQ(overlay.suppress_arp, 1u);
    EXPECT_THAT(told(), IsEmpty());
}

struct LumCoreGroup : ConfigTest {
    lum_overlay &overlay = make_overlay();
};

TEST_F(LumCoreGroup, TakesAnyIpv4RangeAndPublishesNothing)
{
    for (const char *range : {"239.192.0.0/16", "10.0.0.0/0", "232.1.2.3/32"})
        expect_done(lum_core_group_cmd, {{"<prefix>", range}});
    EXPECT_EQ(overlay.data_group.base, ipv4(232, 1, 2, 3));
    EXPECT_EQ(overlay.data_group.length, 32);
    EXPECT_THAT(told(), IsEmpty());
}

TEST_F(LumCoreGroup, RemovingTheIpv4RangeBringsTheDefaultBack)
{
    expect_done(lum_core_group_cmd, {{"<prefix>", "239.192.0.0/16"}});
    expect_done(lum_core_group_cmd, {{"<prefix>", "239.192.0.0/16"}}, true);
    EXPECT_EQ(overlay.data_group.base, 0xE8C00000u);
    EXPECT_EQ(overlay.data_group.length, 10);
}

TEST_F(LumCoreGroup, RemovalNeedsAddressAndLength)
{
    const char *message = "Group not configured, command rejected\n";
    expect_done(lum_core_group_cmd, {{"<prefix>", "239.192.0.0/16"}, {"<prefix6>", "ff15::/100"}});
    expect_rejected(lum_core_group_cmd, {{"<prefix>", "239.192.0.0/17"}}, true, message, &overlay);
    expect_rejected(lum_core_group_cmd, {{"<prefix>", "239.193.0.0/16"}}, true, message, &overlay);
    expect_rejected(lum_core_group_cmd, {{"<prefix6>", "ff15::/101"}}, true, message, &overlay);
    expect_rejected(lum_core_group_cmd, {{"<prefix6>", "ff15::1/100"}}, true, message, &overlay);
}

TEST_F(LumCoreGroup, AnIpv6RangeNeedsALengthOfNinetySixOrMore)
{
    expect_rejected(lum_core_group_cmd, {{"<prefix6>", "ff15::/95"}}, false,
                    "Mask-length can be >- 96, command rejected\n", &overlay);
    expect_done(lum_core_group_cmd, {{"<prefix6>", "ff15::/96"}});
    EXPECT_EQ(overlay.data_group6.base, ipv6("ff15::"));
    EXPECT_EQ(overlay.data_group6.length, 96);
    expect_done(lum_core_group_cmd, {{"<prefix6>", "ff15::/128"}});
    EXPECT_EQ(overlay.data_group6.length, 128);
}

TEST_F(LumCoreGroup, RemovingTheIpv6RangeBringsTheDefaultBack)
{
    expect_done(lum_core_group_cmd, {{"<prefix6>", "ff15::/128"}});
    expect_done(lum_core_group_cmd, {{"<prefix6>", "ff15::/128"}}, true);
    EXPECT_EQ(overlay.data_group6.base, ipv6("ff02::1:0:0"));
    EXPECT_EQ(overlay.data_group6.length, 96);
}

TEST_F(LumCoreGroup, ACommandWithOneRangeRefusedStoresNeither)
{
    expect_rejected(lum_core_group_cmd, {{"<prefix>", "239.192.0.0/16"}, {"<prefix6>", "ff15::/95"}}, false,
                    "Mask-length can be >- 96, command rejected\n", &overlay);
}

struct LumAnycastArp : ConfigTest {
    static std::vector<std::string> list()
    {
        std::vector<std::string> texts;
        for (const lum_addr &entry : lum_anycast_arp_addrs) {
            lum_text text;
            texts.emplace_back(lum_print_addr(entry, text));
        }
        return texts;
    }
    void add(const char *address) { expect_done(lum_anycast_arp_cmd, {{"<addr>", address}}, false, 0); }
    void expect_list_rejected(const command_arguments &arguments, bool no, const std::string &message)
    {
        const std::array<lum_addr, 8> before = lum_anycast_arp_addrs;
        const std::uint32_t any = lum_any_anycast_arp_addrs;
        expect_rejected(lum_anycast_arp_cmd, arguments, no, message);
        EXPECT_EQ(std::memcmp(&before, &lum_anycast_arp_addrs, sizeof before), 0);
        EXPECT_EQ(lum_any_anycast_arp_addrs, any);
    }
    static constexpr char NONE[] = "[None]";
};

TEST_F(LumAnycastArp, FillsTheLastFreeEntry)
{
    add("10.0.0.1");
    expect_done(lum_anycast_arp_cmd, {{"<addr6>", "2001:db8::1"}}, false, 0);
    EXPECT_THAT(list(), ElementsAre(NONE, NONE, NONE, NONE, NONE, NONE, "2001:db8::1", "10.0.0.1"));
    EXPECT_EQ(lum_anycast_arp_addrs[7].kind, 4u);
    EXPECT_EQ(lum_anycast_arp_addrs[6].kind, 5u);
    EXPECT_EQ(lum_any_anycast_arp_addrs, 1u);
}

TEST_F(LumAnycastArp, TheNinthAddressIsRefused)
{
    for (const char *address : {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4", "10.0.0.5", "10.0.0.6", "10.0.0.7",
                                "10.0.0.8"})
        add(address);
    expect_list_rejected({{"<addr>", "10.0.0.9"}}, false,
                         "Can only store 8 anycast-arp addresses, command rejected\n");
}

TEST_F(LumAnycastArp, TheSameAddressTwiceTakesTwoEntriesAndTheLastIsRemovedFirst)
{
    add("10.0.0.1");
    add("10.0.0.2");
    add("10.0.0.1");
    expect_done(lum_anycast_arp_cmd, {{"<addr>", "10.0.0.1"}}, true, 0);
    EXPECT_THAT(list(), ElementsAre(NONE, NONE, NONE, NONE, NONE, "10.0.0.1", "10.0.0.2", NONE));
    EXPECT_EQ(lum_any_anycast_arp_addrs, 1u);
}

TEST_F(LumAnycastArp, RemovingTheLastAddressClearsTheFlag)
{
    add("10.0.0.1");
    expect_done(lum_anycast_arp_cmd, {{"<addr>", "10.0.0.1"}}, true, 0);
    EXPECT_EQ(lum_any_anycast_arp_addrs, 0u);
    EXPECT_THAT(list(), Each(NONE));
}

TEST_F(LumAnycastArp, AnAddressThatIsNotThereIsNamed)
{
    add("10.0.0.1");
    expect_list_rejected({{"<addr>", "10.0.0.2"}}, true, "Anycast-ARP address 10.0.0.2 not found\n");
    expect_list_rejected({{"<addr6>", "2001:db8::1"}}, true, "Anycast-ARP address 2001:db8::1 not found\n");
}

} // namespace
