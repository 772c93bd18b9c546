// Configuration commands of VLANs.
#include "control_test.h"

using namespace fake;
using namespace testing;

namespace
{

using triple = std::array<std::uint32_t, 3>;

struct LumVpnVlan : ControlTest {
    lum_overlay &overlay = make_overlay();

    command_result set(const std::string &ranges, bool no = false, std::uint32_t iod = OVERLAY)
    {
        platform.forget();
        return platform.command(lum_vpn_vlan_cmd, {{"<vlan-range>", ranges}}, no, iod);
    }
    static std::vector<triple> changes()
    {
        const std::vector<bus_message> sent = platform.sent_with(78857);
        EXPECT_THAT(sent, SizeIs(1));
        const bytes &payload = sent.at(0).payload;
        std::vector<triple> list;
        for (std::size_t at = 8; at < payload.size(); at += 12)
            list.push_back({payload.host32(at), payload.host32(at + 4), payload.host32(at + 8)});
        EXPECT_EQ(payload.host32(4), list.size());
        return list;
    }
    static std::string ranges(int count)
    {
        std::string text;
        for (int i = 0; i < count; ++i)
            text += (i == 0 ? "" : ",") + std::to_string(10 * (i + 1)) + "-" + std::to_string(10 * (i + 1) + 1);
        return text;
    }
};

TEST_F(LumVpnVlan, CarriesTheVlansGiven)
{
    const command_result result = set("10,20-21");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(vlans_of(overlay), ElementsAre(10, 20, 21));
    EXPECT_EQ(overlay.vlan_refcount, 3u);
    for (const std::uint32_t vlan : {10u, 20u, 21u}) {
        EXPECT_EQ(lum_vlans[vlan].overlay, &overlay);
        EXPECT_EQ(lum_vlans[vlan].in_use, 1);
        EXPECT_EQ(lum_vlans[vlan].vlan, vlan);
    }
    EXPECT_EQ(overlay.vlan_ranges.count, 2);
    EXPECT_THAT(changes(), ElementsAre(triple{10, OVERLAY, 0}, triple{20, OVERLAY, 0}, triple{21, OVERLAY, 0}));
}

TEST_F(LumVpnVlan, PublishesEachVlanQueriesItsPortsAndThenTellsTheOverlayAndTheVlans)
{
    set("10,20");
    std::vector<std::string> order;
    for (const call_record &call : platform.calls)
        if (call.name == "hakit_sdb_update" || call.name == "mbus_send")
            order.push_back(call.name + " " + call.arguments[call.name == "mbus_send" ? 0 : 2]);
    EXPECT_THAT(order, ElementsAre("hakit_sdb_update 16", "mbus_send 167", "hakit_sdb_update 16", "mbus_send 167",
                                   "hakit_sdb_update 312", "mbus_send notify", "mbus_send notify"));
    EXPECT_EQ(platform.sdb_writes.at(0).key, key(3, 10));
    EXPECT_EQ(platform.sdb_writes.at(0).value, bytes().add_host32(10).add_host32(OVERLAY).add_zeros(8));
    EXPECT_THAT(told(), ElementsAre("publish 3", "publish 3", "publish 2", "notify 78854", "notify 78857"));
}

TEST_F(LumVpnVlan, ReplacesTheWholeSet)
{
    set("10,20");
    set("20,30");
    EXPECT_THAT(vlans_of(overlay), ElementsAre(20, 30));
    EXPECT_EQ(overlay.vlan_refcount, 2u);
    EXPECT_THAT(changes(), ElementsAre(triple{10, 0, 0}, triple{30, OVERLAY, 0}));
    EXPECT_EQ(lum_vlans[10].overlay, nullptr);
    EXPECT_EQ(platform.sdb_value(key(3, 10)), nullptr);
    EXPECT_NE(platform.sdb_value(key(3, 20)), nullptr);
}

TEST_F(LumVpnVlan, TheNoFormRemovesEveryVlanWhateverItNames)
{
    set("10,20-22");
    const command_result result = set("20", true);
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(vlans_of(overlay), IsEmpty());
    EXPECT_EQ(overlay.vlan_refcount, 0u);
    EXPECT_THAT(changes(), ElementsAre(triple{10, 0, 0}, triple{20, 0, 0}, triple{21, 0, 0}, triple{22, 0, 0}));
}

TEST_F(LumVpnVlan, AVlanThatGoesIsRetiredUnlessItHasPorts)
{
    set("10,20");
    lum_vlan_add_port(lum_vlans[20], PORT);
    set("10,20", true);
    EXPECT_EQ(lum_vlans[10].in_use, 0);
    EXPECT_EQ(lum_vlans[20].in_use, 1);
    EXPECT_EQ(lum_vlans[20].overlay, nullptr);
}

TEST_F(LumVpnVlan, AVlanThatPortsUseAlreadyKeepsItsEntry)
{
    lum_vlan_vlandb_init(lum_vlans[10], 10);
    lum_vlan_add_port(lum_vlans[10], PORT);
    const std::vector<timer_record> timers = platform.timers();
    set("10");
    EXPECT_TRUE(bitfield_test(*lum_vlans[10].ports, PORT));
    EXPECT_EQ(platform.timers().size(), timers.size());
}

TEST_F(LumVpnVlan, TheSameSetAgainIsPublishedAndTellsNoVlan)
{
    set("10");
    set("10");
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78854", "notify 78857"));
    EXPECT_THAT(changes(), IsEmpty());
    EXPECT_EQ(overlay.vlan_ranges.count, 2);     // grows with each rebuild
}

TEST_F(LumVpnVlan, SixteenRangesAreTakenAndSeventeenRefused)
{
    EXPECT_EQ(set(ranges(16)).status, 0);
    EXPECT_EQ(overlay.vlan_refcount, 32u);
    const overlay_snapshot before = snapshot(overlay);
    for (const bool no : {false, true}) {
        const command_result result = set(ranges(17), no);
        EXPECT_EQ(result.status, -500);
        EXPECT_EQ(result.output, "Too many vlan ranges\n");
        EXPECT_EQ(snapshot(overlay), before);
        EXPECT_THAT(platform.calls, IsEmpty());
    }
}

TEST_F(LumVpnVlan, RangesThatCannotBeReadAreRefused)
{
    const command_result result = platform.command(lum_vpn_vlan_cmd, {}, false, OVERLAY);
    EXPECT_EQ(result.status, -500);
    EXPECT_EQ(result.output, "Error in getting vlan range\n");
    EXPECT_THAT(platform.calls, IsEmpty());
}

TEST_F(LumVpnVlan, AllVlansAtOnceAreCarriedAndGivenUp)
{
    set("0-4095");
    EXPECT_EQ(overlay.vlan_refcount, 4096u);
    EXPECT_THAT(changes(), SizeIs(4096));
    EXPECT_EQ(overlay.vlan_ranges.range[0].first, 1);        // VLAN 0 is in no range
    set("1", true);
    EXPECT_EQ(overlay.vlan_refcount, 0u);
}

TEST_F(LumVpnVlan, AVlanOfAnotherOverlayIsTakenOver)
{
    lum_overlay &other = make_overlay(OVERLAY2);
    set("10", false, OVERLAY2);
    set("10");
    EXPECT_EQ(lum_vlans[10].overlay, &overlay);
    EXPECT_THAT(vlans_of(other), ElementsAre(10));           // the other one learns of it at its deletion
    other.vlan_refcount = 0;
}

TEST_F(LumVpnVlan, AVlanWhoseEntryCannotBeMadeIsCarriedWithItsNumber)
{
    platform.fail("active_timer_create");
    EXPECT_EQ(set("10").status, 0);
    EXPECT_EQ(lum_vlans[10].in_use, 0);
    EXPECT_EQ(platform.sdb_writes.at(0).key, key(3, 10));
    set("10", true);
    EXPECT_EQ(platform.sdb_value(key(3, 10)), nullptr);
}

TEST_F(LumVpnVlan, AVlanThatIsAuthoritativeAlreadyIsToldSo)
{
    lum_vlans[10].aed = 1;
    set("10");
    EXPECT_THAT(changes(), ElementsAre(triple{10, OVERLAY, 1}));
}

struct LumVpnSiteVlan : ControlTest {
    static int set(const std::string &vlan, bool no = false)
    {
        command_arguments arguments;
        if (!vlan.empty())
            arguments["<vlan-id>"] = vlan;
        const command_result result = platform.command(lum_vpn_site_vlan_cmd, arguments, no);
        EXPECT_EQ(result.output, "");
        return result.status;
    }
};

TEST_F(LumVpnSiteVlan, OfAVlanNotInUseIsKeptAndPublishesNothing)
{
    EXPECT_EQ(set("300"), 0);
    EXPECT_EQ(lum_svr.site_vlan, 300u);
    EXPECT_THAT(told(), IsEmpty());
}

TEST_F(LumVpnSiteVlan, OfAVlanInUseMarksItAndPublishesBoth)
{
    carry_vlan(make_overlay(), 300);
    platform.forget();
    EXPECT_EQ(set("300"), 0);
    EXPECT_EQ(lum_vlans[300].site_vlan, 1);
    EXPECT_THAT(told(), ElementsAre("publish 4", "publish 3"));
    EXPECT_EQ(*platform.sdb_value(key(4)), bytes().add_host32(300));
    EXPECT_EQ(platform.sdb_value(key(3, 300))->host32(12), 1u);
}

TEST_F(LumVpnSiteVlan, OfAVlanWithPortsAndNoOverlayIsPublishedWithoutOne)
{
    lum_vlan_vlandb_init(lum_vlans[300], 300);
    EXPECT_EQ(set("300"), 0);
    EXPECT_EQ(platform.sdb_value(key(3, 300))->host32(4), 0u);
}

TEST_F(LumVpnSiteVlan, RemovalClearsTheMarkAndPublishesZero)
{
    carry_vlan(make_overlay(), 300);
    set("300");
    platform.forget();
    EXPECT_EQ(set("", true), 0);
    EXPECT_EQ(lum_svr.site_vlan, 0u);
    EXPECT_EQ(lum_vlans[300].site_vlan, 0);
    EXPECT_THAT(told(), ElementsAre("publish 4", "publish 3"));
    EXPECT_EQ(*platform.sdb_value(key(4)), bytes().add_host32(0));
}

TEST_F(LumVpnSiteVlan, RemovalTakesTheCurrentOneWhateverItNames)
{
    lum_overlay &overlay = make_overlay();
    carry_vlan(overlay, 300);
    carry_vlan(overlay, 301);
    set("300");
    EXPECT_EQ(set("301", true), 0);
    EXPECT_EQ(lum_vlans[300].site_vlan, 0);
    EXPECT_EQ(lum_svr.site_vlan, 0u);
}

TEST_F(LumVpnSiteVlan, ANewOneLeavesTheMarkOfTheOld)
{
    lum_overlay &overlay = make_overlay();
    carry_vlan(overlay, 300);
    carry_vlan(overlay, 301);
    set("300");
    set("301");
    EXPECT_EQ(lum_vlans[300].site_vlan, 1);
    EXPECT_EQ(lum_vlans[301].site_vlan, 1);
}

TEST_F(LumVpnSiteVlan, BeyondTheTableIsKeptAndTouchesNoEntry)
{
    EXPECT_EQ(set("4096"), 0);
    EXPECT_EQ(lum_svr.site_vlan, 4096u);
    EXPECT_EQ(set("", true), 0);
    EXPECT_THAT(told(), IsEmpty());
}

// The device behind a port is the host's, and no device is called "ethX": reception cannot be switched there, which is
// what these tests need; that it works on a real device is tested with one.
struct LumVlanCommand : ControlTest {
    static constexpr std::uint32_t NO_DEVICE = 30;
    LumVlanCommand() { platform.add_interface(NO_DEVICE, "portX", {.switchport = true}); }
    static command_result run_on(std::uint32_t iod, const command_arguments &arguments, bool no = false)
    {
        return platform.command(lum_vlan_cmd, arguments, no, iod);
    }
};

TEST_F(LumVlanCommand, IsForSwitchportsAndOverlaysOnly)
{
    const command_result result = run_on(CORE, {{"<vlan-id>", "10"}});
    EXPECT_EQ(result.status, -500);
    EXPECT_EQ(result.output, "LUM can be configured on switchports only\n");
    EXPECT_EQ(lum_get_from_pt(CORE), nullptr);
    EXPECT_EQ(lum_vlans[10].in_use, 0);
}

TEST_F(LumVlanCommand, TheNoFormElsewhereIsSilent)
{
    const command_result result = run_on(CORE, {{"<vlan-id>", "10"}}, true);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "");
}

TEST_F(LumVlanCommand, IsRejectedWithoutAMessageAndWithoutATraceWhenReceptionCannotBeSwitched)
{
    const command_result result = run_on(NO_DEVICE, {{"<vlan-id>", "10"}});
    EXPECT_EQ(result.status, -500);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(lum_get_from_pt(NO_DEVICE), nullptr);
    EXPECT_EQ(lum_vlans[10].in_use, 0);
}

TEST_F(LumVlanCommand, ARejectionLeavesAnEarlierRecordAndMembershipAsTheyWere)
{
    lum_vlan_vlandb_init(lum_vlans[10], 10);
    lum_vlan_add_port(lum_vlans[10], NO_DEVICE);
    lum_port *port = lum_add_to_pt(NO_DEVICE);
    port->vlan = 10;
    EXPECT_EQ(run_on(NO_DEVICE, {{"<vlan-id>", "10"}}).status, -500);
    EXPECT_EQ(run_on(NO_DEVICE, {{"<vlan-id>", "20"}}).status, -500);
    EXPECT_EQ(run_on(NO_DEVICE, {{"<vlan-id>", "20"}, {"trunk-port", ""}}).status, -500);
    EXPECT_EQ(lum_get_from_pt(NO_DEVICE), port);
    EXPECT_EQ(port->vlan, 10u);
    EXPECT_EQ(port->trunk, 0);
    EXPECT_TRUE(bitfield_test(*lum_vlans[10].ports, NO_DEVICE));
    EXPECT_EQ(lum_vlans[20].in_use, 0);
}

TEST_F(LumVlanCommand, WithoutMemoryForTheRecordAnswersMinusOneAndChangesNothing)
{
    platform.fail("memacct_alloc");
    const command_result result = run_on(NO_DEVICE, {{"<vlan-id>", "10"}});
    EXPECT_EQ(result.status, -1);
    EXPECT_EQ(lum_vlans[10].in_use, 0);
}

TEST_F(LumVlanCommand, BeyondTheTableIsRejected)
{
    EXPECT_EQ(run_on(NO_DEVICE, {{"<vlan-id>", "4096"}}).status, -500);
    EXPECT_EQ(lum_get_from_pt(NO_DEVICE), nullptr);
}

TEST_F(LumVlanCommand, RemovalDeletesRecordAndMembershipAndRetiresAnEmptyVlan)
{
    lum_vlan_vlandb_init(lum_vlans[10], 10);
    lum_vlan_add_port(lum_vlans[10], NO_DEVICE);
    ASSERT_NE(lum_add_to_pt(NO_DEVICE), nullptr);
    EXPECT_EQ(run_on(NO_DEVICE, {{"<vlan-id>", "10"}}, true).status, 0);
    EXPECT_EQ(lum_get_from_pt(NO_DEVICE), nullptr);
    EXPECT_EQ(lum_vlans[10].in_use, 0);
}

TEST_F(LumVlanCommand, RemovalKeepsAVlanThatHasOtherPorts)
{
    lum_vlan_vlandb_init(lum_vlans[10], 10);
    lum_vlan_add_port(lum_vlans[10], NO_DEVICE);
    lum_vlan_add_port(lum_vlans[10], PORT);
    EXPECT_EQ(run_on(NO_DEVICE, {{"<vlan-id>", "10"}}, true).status, 0);
    EXPECT_EQ(lum_vlans[10].in_use, 1);
    EXPECT_FALSE(bitfield_test(*lum_vlans[10].ports, NO_DEVICE));
}

TEST_F(LumVlanCommand, RemovalAsATrunkTouchesNoVlan)
{
    lum_vlan_vlandb_init(lum_vlans[10], 10);
    lum_vlan_add_port(lum_vlans[10], NO_DEVICE);
    ASSERT_NE(lum_add_to_pt(NO_DEVICE), nullptr);
    EXPECT_EQ(run_on(NO_DEVICE, {{"<vlan-id>", "10"}, {"trunk-port", ""}}, true).status, 0);
    EXPECT_TRUE(bitfield_test(*lum_vlans[10].ports, NO_DEVICE));
    EXPECT_EQ(lum_get_from_pt(NO_DEVICE), nullptr);
}

} // namespace
