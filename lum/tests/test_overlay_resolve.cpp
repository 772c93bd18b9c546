// External interface and core groups: resolution of names, group membership, address changes.
#include "control_test.h"

#include <cstring>

using namespace fake;
using namespace testing;

namespace
{

const std::string GROUP_NUMBER = std::to_string(0xEF010101u);
const ipv6_address GROUP6 = ipv6("ff05::1");
const std::string GROUP6_TEXT = to_hex(GROUP6);
const std::string ZERO6(32, '0');

struct LumJoinLeaveGroup : ControlTest {
    lum_overlay &overlay = make_overlay();
    LumJoinLeaveGroup() { set_external(overlay, "eth5", CORE); }
};

TEST_F(LumJoinLeaveGroup, DoesNothingWithoutAResolvedExternalInterface)
{
    overlay.ext_if[0].iod = 0;
    const std::uint32_t group = GROUP;
    lum_join_leave_group(overlay, &group, nullptr, 1);
    lum_join_leave_group(overlay, nullptr, &GROUP6, 0);
    EXPECT_THAT(group_calls(), IsEmpty());
}

TEST_F(LumJoinLeaveGroup, DoesNothingWithoutAnAddressOfTheSelectedFamily)
{
    const std::uint32_t group = GROUP;
    lum_join_leave_group(overlay, nullptr, &GROUP6, 1);
    lum_join_leave_group(overlay, &group, nullptr, 0);
    EXPECT_THAT(group_calls(), IsEmpty());
}

TEST_F(LumJoinLeaveGroup, JoinsTheFirstGroup)
{
    const std::uint32_t group = GROUP;
    lum_join_leave_group(overlay, &group, nullptr, 1);
    lum_join_leave_group(overlay, nullptr, &GROUP6, 0);
    EXPECT_THAT(group_calls(), ElementsAre("ip_group_join(5, " + GROUP_NUMBER + ")",
                                           "ipv6_group_join(5, " + GROUP6_TEXT + ")"));
}

TEST_F(LumJoinLeaveGroup, ChangingTheIpv4GroupLeavesAndJoinsTheNewOneAndKeepsTheOld)
{
    overlay.ipv4_group = lum_addr_next_hop(OVERLAY, GROUP);
    platform.groups.insert({CORE, GROUP});
    const std::uint32_t other = GROUP + 1;
    lum_join_leave_group(overlay, &other, nullptr, 1);
    EXPECT_THAT(group_calls(), ElementsAre("ip_group_leave(5, " + std::to_string(other) + ")",
                                           "ip_group_join(5, " + std::to_string(other) + ")"));
    EXPECT_TRUE(platform.groups.contains({CORE, GROUP}));
}

TEST_F(LumJoinLeaveGroup, ChangingTheIpv6GroupLeavesAndJoinsTheNewOne)
{
    overlay.ipv6_group = lum_addr_next_hop(OVERLAY, ipv6("ff05::9"));
    lum_join_leave_group(overlay, nullptr, &GROUP6, 0);
    EXPECT_THAT(group_calls(), ElementsAre("ipv6_group_leave(5, " + GROUP6_TEXT + ")",
                                           "ipv6_group_join(5, " + GROUP6_TEXT + ")"));
}

TEST_F(LumJoinLeaveGroup, TheSameGroupIsOnlyJoined)
{
    overlay.ipv4_group = lum_addr_next_hop(OVERLAY, GROUP);
    overlay.ipv6_group = lum_addr_next_hop(OVERLAY, GROUP6);
    const std::uint32_t group = GROUP;
    lum_join_leave_group(overlay, &group, nullptr, 1);
    lum_join_leave_group(overlay, nullptr, &GROUP6, 0);
    EXPECT_THAT(group_calls(), ElementsAre("ip_group_join(5, " + GROUP_NUMBER + ")",
                                           "ipv6_group_join(5, " + GROUP6_TEXT + ")"));
}

TEST_F(LumJoinLeaveGroup, AGroupOfZeroIsJoinedToo)
{
    const std::uint32_t none = 0;
    const ipv6_address none6{};
    lum_join_leave_group(overlay, &none, nullptr, 1);
    lum_join_leave_group(overlay, nullptr, &none6, 0);
    EXPECT_THAT(group_calls(), ElementsAre("ip_group_join(5, 0)", "ipv6_group_join(5, " + ZERO6 + ")"));
}

struct LumUpdateOverlayGroup : ControlTest {};

TEST_F(LumUpdateOverlayGroup, CopiesTheRecordToTheGroupOfItsFamily)
{
    lum_overlay &overlay = make_overlay();
    const lum_addr group4 = lum_addr_next_hop(OVERLAY, GROUP), group6 = lum_addr_next_hop(OVERLAY, GROUP6);
    EXPECT_EQ(lum_update_overlay_group(overlay, group4), 1);
    EXPECT_EQ(std::memcmp(&overlay.ipv4_group, &group4, 28), 0);
    EXPECT_EQ(overlay.ipv6_group.kind, 0u);
    EXPECT_EQ(lum_update_overlay_group(overlay, group6), 1);
    EXPECT_EQ(std::memcmp(&overlay.ipv6_group, &group6, 28), 0);
    EXPECT_EQ(std::memcmp(&overlay.ipv4_group, &group4, 28), 0);
}

TEST_F(LumUpdateOverlayGroup, ARecordOfNoFamilyCopiesNothingButPublishesAndTells)
{
    lum_overlay &overlay = make_up_overlay();
    lum_addr bare{};
    bare.kind = 6;
    EXPECT_EQ(lum_update_overlay_group(overlay, bare), 1);
    EXPECT_EQ(lum_next_hop_ipv4(overlay.ipv4_group), GROUP);
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78854"));
}

struct LumResolveExtIf : ControlTest {};

TEST_F(LumResolveExtIf, ReadsAddressesAndContextOfANewInterfaceAndBringsTheOverlayUp)
{
    lum_overlay &overlay = make_overlay();
    overlay.ipv4_group = lum_addr_next_hop(OVERLAY, GROUP);
    platform.interface(CORE).ipv6 = ipv6("2001:db8::5");
    set_external(overlay, "eth5", 0);
    lum_internal_debug_flag = 1;
    lum_resolve_ext_if(overlay);
    EXPECT_EQ(overlay.ext_if[0].iod, CORE);
    EXPECT_EQ(overlay.ext_ipv4, CORE_IPV4);
    EXPECT_EQ(overlay.ext_ipv6, ipv6("2001:db8::5"));
    EXPECT_EQ(overlay.context_id, 7u);
    EXPECT_EQ(overlay.state, 2u);
    EXPECT_THAT(group_calls(),
                ElementsAre("ip_group_join(5, " + GROUP_NUMBER + ")", "ipv6_group_join(5, " + ZERO6 + ")"));
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78854", "notify 78853"));
    EXPECT_THAT(platform.trace_texts(),
                IsSupersetOf({"Overlay1 external interface eth5 resolved to iod 5\n",
                              "Overlay1 external addrs 192.0.2.1 2001:db8::5 context-id 7\n"}));
}

TEST_F(LumResolveExtIf, TheSameInterfaceAgainRemainsAndIsNotReadAgain)
{
    lum_overlay &overlay = make_up_overlay();
    platform.interface(CORE).ipv4 = ipv4(192, 0, 2, 99);
    lum_internal_debug_flag = 1;
    lum_resolve_ext_if(overlay);
    EXPECT_EQ(overlay.ext_ipv4, CORE_IPV4);
    EXPECT_EQ(platform.called("ip_if_address_get"), 0u);
    EXPECT_THAT(told(), IsEmpty());
    EXPECT_THAT(platform.trace_texts(), ElementsAre("Overlay1 external interface eth5 resolved, remained iod 5\n"));
    EXPECT_THAT(group_calls(),
                ElementsAre("ip_group_join(5, " + GROUP_NUMBER + ")", "ipv6_group_join(5, " + ZERO6 + ")"));
}

TEST_F(LumResolveExtIf, AnUnknownNameStaysUnresolvedAndTheOverlayDown)
{
    lum_overlay &overlay = make_overlay();
    overlay.ipv4_group = lum_addr_next_hop(OVERLAY, GROUP);
    set_external(overlay, "eth77", 0);
    lum_resolve_ext_if(overlay);
    EXPECT_EQ(overlay.ext_if[0].iod, 0u);
    EXPECT_EQ(overlay.state, 1u);
    EXPECT_EQ(overlay.reason, 1u);
    EXPECT_THAT(group_calls(), IsEmpty());
    EXPECT_THAT(told(), IsEmpty());
}

TEST_F(LumResolveExtIf, RemovingTheInterfaceClearsIodAndAddressesLeavesNoGroupAndTakesTheOverlayDown)
{
    lum_overlay &overlay = make_up_overlay();
    platform.groups.insert({CORE, GROUP});
    overlay.ext_if[0].name[0] = '\0';
    overlay.ext_if_count = 0;
    lum_resolve_ext_if(overlay);
    EXPECT_EQ(overlay.ext_if[0].iod, 0u);
    EXPECT_EQ(overlay.ext_ipv4, 0u);
    EXPECT_THAT(group_calls(), IsEmpty());
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78854", "notify 78853"));
    EXPECT_EQ(overlay.reason, 1u);
}

struct LumResolveByName : ControlTest {};

TEST_F(LumResolveByName, AnInterfaceThatAppearsLaterResolvesAndBringsTheOverlayUp)
{
    lum_overlay &overlay = make_overlay();
    overlay.ipv4_group = lum_addr_next_hop(OVERLAY, GROUP);
    set_external(overlay, "eth6", 0);
    platform.add_interface(6, "eth6", {.ipv4 = ipv4(192, 0, 2, 6), .ipv6 = ipv6("2001:db8::6"), .context = 3});
    lum_internal_debug_flag = 1;
    lum_resolve_overlay_external_if_name(6);
    EXPECT_EQ(overlay.ext_if[0].iod, 6u);
    EXPECT_EQ(overlay.ext_ipv4, ipv4(192, 0, 2, 6));
    EXPECT_EQ(overlay.ext_ipv6, ipv6("2001:db8::6"));
    EXPECT_EQ(overlay.context_id, 3u);
    EXPECT_THAT(group_calls(),
                ElementsAre("ip_group_join(6, " + GROUP_NUMBER + ")", "ipv6_group_join(6, " + ZERO6 + ")"));
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78854", "notify 78853"));
    // It writes no trace of its own: the only line is the publication's.
    EXPECT_THAT(platform.trace_texts(), ElementsAre("Updating overlay Overlay1 to SDB\n"));
}

TEST_F(LumResolveByName, AnInterfaceThatComesBackUnderAnotherIodIsTaken)
{
    lum_overlay &overlay = make_up_overlay();
    platform.remove_interface(CORE);
    platform.add_interface(9, "eth5", {.ipv4 = CORE_IPV4});
    lum_resolve_overlay_external_if_name(9);
    EXPECT_EQ(overlay.ext_if[0].iod, 9u);
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78854"));
}

TEST_F(LumResolveByName, TheSameIodIsPublishedAgainWithoutComparison)
{
    make_up_overlay();
    lum_resolve_overlay_external_if_name(CORE);
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78854"));
}

TEST_F(LumResolveByName, ComparesWholeNamesWithCase)
{
    lum_overlay &overlay = make_overlay();
    set_external(overlay, "ETH5", 0);
    lum_resolve_overlay_external_if_name(CORE);
    set_external(overlay, "eth55", 0);
    lum_resolve_overlay_external_if_name(CORE);
    EXPECT_EQ(overlay.ext_if[0].iod, 0u);
    EXPECT_THAT(told(), IsEmpty());
}

TEST_F(LumResolveByName, AnUnknownInterfaceMatchesNoOverlayWithoutAName)
{
    const lum_overlay &overlay = make_overlay();
    lum_resolve_overlay_external_if_name(300);
    EXPECT_EQ(overlay.ext_if[0].iod, 0u);
    EXPECT_THAT(told(), IsEmpty());
}

TEST_F(LumResolveByName, GoesThroughAllOverlaysInAscendingOrder)
{
    set_external(make_overlay(OVERLAY2), "eth5", 0);
    set_external(make_overlay(OVERLAY), "eth5", 0);
    lum_resolve_overlay_external_if_name(CORE);
    ASSERT_THAT(platform.sdb_writes, SizeIs(2));
    EXPECT_EQ(platform.sdb_writes[0].key, overlay_key(OVERLAY));
    EXPECT_EQ(platform.sdb_writes[1].key, overlay_key(OVERLAY2));
}

TEST_F(LumResolveByName, YieldsBetweenOverlaysWhenOneIsDueAndSurvivesTheirRemoval)
{
    set_external(make_overlay(OVERLAY), "eth5", 0);
    lum_overlay *second = &make_overlay(OVERLAY2);
    set_external(*second, "eth5", 0);
    platform.should_yield = true;
    platform.on_yield = [&] { lum_destroy_overlay(&second); };
    lum_resolve_overlay_external_if_name(CORE);
    EXPECT_EQ(lum_get_overlay(OVERLAY)->ext_if[0].iod, CORE);
    EXPECT_EQ(second, nullptr);                  // the yield came between the two
    EXPECT_THAT(platform.sdb_writes, SizeIs(1));
}

struct LumIpv6AddressChange : ControlTest {
    const ipv6_address before = ipv6("2001:db8::1"), after = ipv6("2001:db8::2");
};

TEST_F(LumIpv6AddressChange, StoresTheNewAddressPublishesAndTells)
{
    lum_overlay &overlay = make_up_overlay();
    overlay.ext_ipv6 = before;
    lum_event_debug_flag = 1;
    lum_process_ipv6_address_change(CORE, before, after);
    EXPECT_EQ(overlay.ext_ipv6, after);
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78854"));
    EXPECT_EQ(platform.trace_texts().front(), "IPv6 address change, old 2001:db8::1 new 2001:db8::2\n");
}

TEST_F(LumIpv6AddressChange, ALinkLocalAddressOnEitherSideIsIgnored)
{
    lum_overlay &overlay = make_up_overlay();
    lum_process_ipv6_address_change(CORE, ipv6("fe80::1"), after);
    lum_process_ipv6_address_change(CORE, before, ipv6("febf::1"));
    EXPECT_EQ(overlay.ext_ipv6, ipv6_address{});
    EXPECT_THAT(told(), IsEmpty());
}

TEST_F(LumIpv6AddressChange, SiteLocalAndMulticastAddressesAreNotLinkLocal)
{
    lum_overlay &overlay = make_up_overlay();
    lum_process_ipv6_address_change(CORE, {}, ipv6("fec0::1"));
    EXPECT_EQ(overlay.ext_ipv6, ipv6("fec0::1"));
    lum_process_ipv6_address_change(CORE, {}, ipv6("fe40::1"));
    EXPECT_EQ(overlay.ext_ipv6, ipv6("fe40::1"));
}

TEST_F(LumIpv6AddressChange, TheSameAddressIsNotPublished)
{
    make_up_overlay().ext_ipv6 = after;
    lum_process_ipv6_address_change(CORE, before, after);
    EXPECT_THAT(told(), IsEmpty());
}

TEST_F(LumIpv6AddressChange, TheFirstAddressBringsTheOverlayUpAfterItWasPublishedDown)
{
    lum_overlay &overlay = make_up_overlay();
    overlay.ext_ipv4 = 0;
    lum_update_overlay_state(overlay);
    platform.forget();
    lum_process_ipv6_address_change(CORE, {}, after);
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78854", "notify 78853"));
    EXPECT_EQ(platform.sdb_writes.back().value.host32(272), 1u);
    EXPECT_EQ(overlay.state, 2u);
}

TEST_F(LumIpv6AddressChange, ConcernsOnlyOverlaysOverThatInterface)
{
    lum_overlay &overlay = make_up_overlay();
    lum_process_ipv6_address_change(PORT, before, after);
    EXPECT_EQ(overlay.ext_ipv6, ipv6_address{});
}

struct LumIpv4AddressChange : ControlTest {
    static constexpr std::uint32_t NEW = 0xC6336407;
    static ip_address_change change(std::uint32_t type, std::uint32_t address, std::uint32_t reference = 0,
                                    std::uint32_t secondary = 0, std::uint32_t iod = CORE)
    {
        return {4, 13, iod, secondary, type, reference, address};
    }
};

TEST_F(LumIpv4AddressChange, AnAddedAddressIsStoredPublishedAndTold)
{
    lum_overlay &overlay = make_up_overlay();
    lum_process_ipv4_address_change(change(1, NEW));
    EXPECT_EQ(overlay.ext_ipv4, NEW);
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78854"));
    EXPECT_EQ(platform.sdb_writes.back().value.host32(288), NEW);
}

TEST_F(LumIpv4AddressChange, AddingTheAddressThatIsThereTellsNobody)
{
    make_up_overlay();
    lum_process_ipv4_address_change(change(1, CORE_IPV4));
    EXPECT_THAT(told(), IsEmpty());
}

TEST_F(LumIpv4AddressChange, RemovingTheAddressInUseClearsTheFieldSilently)
{
    lum_overlay &overlay = make_up_overlay();
    lum_process_ipv4_address_change(change(0, CORE_IPV4));
    EXPECT_EQ(overlay.ext_ipv4, 0u);
    EXPECT_EQ(overlay.state, 2u);                // not derived again
    EXPECT_THAT(told(), IsEmpty());
}

TEST_F(LumIpv4AddressChange, RemovingAnotherAddressClearsPublishesAndTakesTheOverlayDown)
{
    lum_overlay &overlay = make_up_overlay();
    lum_process_ipv4_address_change(change(0, NEW));
    EXPECT_EQ(overlay.ext_ipv4, 0u);
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78854", "notify 78853"));
    EXPECT_EQ(platform.sdb_writes.back().value.host32(272), 2u);     // published before the state was derived
    EXPECT_EQ(overlay.state, 1u);
}

TEST_F(LumIpv4AddressChange, TypesTwoAndThreeKeepTheAddressAndComparesTheReference)
{
    lum_overlay &overlay = make_up_overlay();
    lum_process_ipv4_address_change(change(2, NEW, NEW));
    EXPECT_THAT(told(), IsEmpty());
    lum_process_ipv4_address_change(change(3, NEW, CORE_IPV4));
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78854"));
    EXPECT_EQ(overlay.ext_ipv4, CORE_IPV4);
    EXPECT_THAT(platform.syslog_texts(), IsEmpty());
}

TEST_F(LumIpv4AddressChange, AnUnknownTypeIsReportedAndLeavesTheAddress)
{
    lum_overlay &overlay = make_up_overlay();
    lum_process_ipv4_address_change(change(4, NEW, NEW));
    EXPECT_EQ(overlay.ext_ipv4, CORE_IPV4);
    EXPECT_THAT(platform.syslog_texts(),
                ElementsAre("<<%LUM-3-UNK_IP_NOTIF>> Unrecognized IP address change notification type 4"));
    EXPECT_THAT(told(), IsEmpty());
}

TEST_F(LumIpv4AddressChange, ASecondaryAddressIsIgnored)
{
    lum_overlay &overlay = make_up_overlay();
    lum_process_ipv4_address_change(change(1, NEW, 0, 1));
    EXPECT_EQ(overlay.ext_ipv4, CORE_IPV4);
    EXPECT_THAT(told(), IsEmpty());
}

TEST_F(LumIpv4AddressChange, ConcernsOnlyOverlaysOverThatInterface)
{
    lum_overlay &overlay = make_up_overlay();
    lum_overlay &unresolved = make_overlay(OVERLAY2);
    lum_process_ipv4_address_change(change(1, NEW, 0, 0, PORT));
    lum_process_ipv4_address_change(change(1, NEW, 0, 0, 0));
    EXPECT_EQ(overlay.ext_ipv4, CORE_IPV4);
    EXPECT_EQ(unresolved.ext_ipv4, 0u);
}

TEST_F(LumIpv4AddressChange, YieldsBetweenOverlaysWhenOneIsDue)
{
    make_up_overlay();
    lum_overlay *second = &make_up_overlay(OVERLAY2);
    platform.should_yield = true;
    platform.on_yield = [&] { lum_destroy_overlay(&second); };
    lum_process_ipv4_address_change(change(1, NEW));
    EXPECT_EQ(second, nullptr);
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78854"));
}

} // namespace
