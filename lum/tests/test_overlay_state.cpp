// Overlay state: its derivation, the three orders in which a change is checked, published and told, and deletion.
#include "control_test.h"

#include <cstring>

using namespace fake;
using namespace testing;

namespace
{

struct LumOverlayState : ControlTest {};

// One row a rule of the derivation and a combination of what it looks at.
struct state_row {
    const char *what;
    bool has_iod, holddown;
    std::uint32_t group4;
    const char *group6;
    std::uint32_t ext_count;
    std::uint32_t ext4;
    const char *ext6;
    bool if_up;
    std::uint32_t state, reason;
};

constexpr state_row state_rows[] = {
    // what                           iod    hold   group4      group6     n  ext4        ext6           up    state why
    {"nothing configured",             true,  false, 0,          "::",       0, 0,          "::",          true,  1, 1},
    {"no iod",                         false, false, 0xEF010101, "::",       1, 0xC0000201, "::",          true,  1, 0},
    {"no iod, held down",              false, true,  0xEF010101, "::",       1, 0xC0000201, "::",          true,  1, 0},
    {"held down, all else there",      true,  true,  0xEF010101, "::",       1, 0xC0000201, "::",          true,  1, 3},
    {"held down, nothing there",       true,  true,  0,          "::",       0, 0,          "::",          false, 1, 3},
    {"no group",                       true,  false, 0,          "::",       1, 0xC0000201, "2001:db8::1", true,  1, 1},
    {"no external interface",          true,  false, 0xEF010101, "ff05::1",  0, 0xC0000201, "2001:db8::1", true,  1, 1},
    {"no external address",            true,  false, 0xEF010101, "ff05::1",  1, 0,          "::",          true,  1, 1},
    {"no group and down",              true,  false, 0,          "::",       1, 0xC0000201, "::",          false, 1, 1},
    {"IPv4 all the way",               true,  false, 0xEF010101, "::",       1, 0xC0000201, "::",          true,  2, 0},
    {"IPv6 all the way",               true,  false, 0,          "ff05::1",  1, 0,          "2001:db8::1", true,  2, 0},
    {"IPv6 group, IPv4 address",       true,  false, 0,          "ff05::1",  1, 0xC0000201, "::",          true,  2, 0},
    {"IPv4 group, IPv6 address",       true,  false, 0xEF010101, "::",       1, 0,          "2001:db8::1", true,  2, 0},
    {"group with its last byte alone", true,  false, 0,          "::1",      1, 0xC0000201, "::",          true,  2, 0},
    {"address, its last byte alone",   true,  false, 0xEF010101, "::",       1, 0,          "::1",         true,  2, 0},
    {"overlay interface down",         true,  false, 0xEF010101, "::",       1, 0xC0000201, "::",          false, 1, 2},
    {"down, IPv6",                     true,  false, 0,          "ff05::1",  1, 0,          "2001:db8::1", false, 1, 2},
};

TEST_F(LumOverlayState, IsDerivedByTheFirstRuleThatMatches)
{
    for (const state_row &row : state_rows) {
        SCOPED_TRACE(row.what);
        lum_overlay &overlay = make_overlay();
        overlay.delete_holddown = row.holddown ? 1 : 0;
        overlay.ipv4_group = lum_addr_next_hop(OVERLAY, row.group4);
        overlay.ipv6_group = lum_addr_next_hop(OVERLAY, ipv6(row.group6));
        overlay.ext_if_count = row.ext_count;
        overlay.ext_ipv4 = row.ext4;
        overlay.ext_ipv6 = ipv6(row.ext6);
        platform.interface(OVERLAY).up = row.if_up;
        if (!row.has_iod)
            overlay.iod = 0;

        EXPECT_EQ(lum_update_overlay_state(overlay), row.state);
        EXPECT_EQ(overlay.state, row.state);
        EXPECT_EQ(overlay.reason, row.reason);

        overlay.iod = OVERLAY;
        lum_overlay *record = &overlay;
        lum_destroy_overlay(&record);
    }
}

TEST_F(LumOverlayState, FollowsTheOverlaysOwnInterfaceAndNotTheExternalOne)
{
    lum_overlay &overlay = make_up_overlay();
    platform.interface(CORE).up = false;
    EXPECT_EQ(lum_update_overlay_state(overlay), 2u);
    platform.interface(OVERLAY).up = false;
    EXPECT_EQ(lum_update_overlay_state(overlay), 1u);
}

TEST_F(LumOverlayState, TracesADownStateWithItsReasonAndAnUpStateAlone)
{
    lum_event_debug_flag = 1;
    lum_overlay &overlay = make_up_overlay();
    lum_update_overlay_state(overlay);
    overlay.ext_if_count = 0;
    lum_update_overlay_state(overlay);
    EXPECT_THAT(platform.trace_texts(),
                ElementsAre("Updating overlay state:\n", "  overlay state is UP\n", "Updating overlay state:\n",
                            "  overlay state is DOWN, Incomplete Parameters\n"));
}

TEST_F(LumOverlayState, CheckReportsOnlyAChangeBetweenUpAndNotUp)
{
    lum_overlay &overlay = make_up_overlay();
    EXPECT_EQ(lum_check_overlay_state_change(overlay), 0);           // UP, UP
    platform.interface(OVERLAY).up = false;
    EXPECT_EQ(lum_check_overlay_state_change(overlay), 1);           // UP, Admin Down
    overlay.ext_if_count = 0;
    EXPECT_EQ(lum_check_overlay_state_change(overlay), 0);           // Admin Down, Incomplete Parameters
    EXPECT_EQ(overlay.reason, 1u);
    overlay.state = 0;
    EXPECT_EQ(lum_check_overlay_state_change(overlay), 0);           // None, DOWN
    overlay.ext_if_count = 1;
    platform.interface(OVERLAY).up = true;
    overlay.state = 0;
    EXPECT_EQ(lum_check_overlay_state_change(overlay), 1);           // None, UP
}

TEST_F(LumOverlayState, CheckTracesOldAndNewWhenTheyDiffer)
{
    lum_overlay &overlay = make_up_overlay();
    overlay.state = 0;
    lum_event_debug_flag = 1;
    lum_check_overlay_state_change(overlay);
    EXPECT_TRUE(platform.traced("overlay state changed from DOWN to UP\n"));
    platform.forget();
    lum_check_overlay_state_change(overlay);
    EXPECT_FALSE(platform.traced("overlay state changed from UP to UP\n"));
    platform.interface(OVERLAY).up = false;
    lum_check_overlay_state_change(overlay);
    EXPECT_TRUE(platform.traced("overlay state changed from UP to DOWN\n"));
}

// ---- the three fixed orders

struct LumOverlayOrder : ControlTest {
    // State in the last published record.
    static std::uint32_t published_state()
    {
        return platform.sdb_writes.empty() ? 99 : platform.sdb_writes.back().value.host32(272);
    }
};

TEST_F(LumOverlayOrder, AGroupThatCompletesAnOverlayIsCheckedPublishedToldAndAnnounced)
{
    lum_overlay &overlay = make_up_overlay();
    overlay.ipv4_group = {};
    lum_update_overlay_state(overlay);
    platform.forget();
    lum_update_overlay_group(overlay, lum_addr_next_hop(OVERLAY, GROUP));
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78854", "notify 78853"));
    EXPECT_EQ(published_state(), 2u);            // the check came first
}

TEST_F(LumOverlayOrder, AGroupThatChangesNoStateIsPublishedAndToldOnly)
{
    lum_overlay &overlay = make_up_overlay();
    lum_update_overlay_group(overlay, lum_addr_next_hop(OVERLAY, GROUP + 1));
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78854"));
}

TEST_F(LumOverlayOrder, AnAddressChangeIsPublishedAndToldBeforeTheStateIsDerived)
{
    lum_overlay &overlay = make_up_overlay();
    overlay.ext_ipv4 = 0;
    lum_update_overlay_state(overlay);
    platform.forget();
    lum_process_ipv4_address_change({4, 13, CORE, 0, 1, 0, CORE_IPV4});
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78854", "notify 78853"));
    EXPECT_EQ(published_state(), 1u);            // still the state from before
    EXPECT_EQ(platform.sent_with(78854).at(0).payload.host32(240), 1u);
    EXPECT_EQ(platform.sent_with(78853).at(0).payload.host32(12), 2u);
    EXPECT_EQ(overlay.state, 2u);
}

TEST_F(LumOverlayOrder, AChangeOfTheReasonAloneSendsNoStatusNotification)
{
    lum_overlay &overlay = make_up_overlay();
    overlay.ipv4_group = {};
    platform.interface(OVERLAY).up = false;
    lum_update_overlay_state(overlay);
    EXPECT_EQ(overlay.reason, 1u);
    platform.forget();
    lum_update_overlay_group(overlay, lum_addr_next_hop(OVERLAY, GROUP));
    EXPECT_EQ(overlay.reason, 2u);
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78854"));
}

TEST_F(LumOverlayOrder, RemovingTheGroupOfAnUpOverlayAnnouncesItDown)
{
    lum_overlay &overlay = make_up_overlay();
    lum_update_overlay_group(overlay, lum_addr_next_hop(OVERLAY, std::uint32_t{0}));
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78854", "notify 78853"));
    EXPECT_EQ(overlay.state, 1u);
    EXPECT_EQ(overlay.reason, 1u);
}

// ---- deletion

struct LumOverlayDelete : ControlTest {
    // A held message that waits for these overlays.
    mbus_msg hold(std::initializer_list<lum_overlay *> overlays)
    {
        lum_pending_msg = platform.message(0xF404);
        lum_pending_msg_count = static_cast<std::uint32_t>(overlays.size());
        for (lum_overlay *overlay : overlays)
            overlay->delete_msg = lum_pending_msg;
        return lum_pending_msg;
    }
};

TEST_F(LumOverlayDelete, TriggeringHoldsTheOverlayDownPublishesAndAnnouncesIt)
{
    lum_overlay &overlay = make_up_overlay();
    EXPECT_EQ(lum_trigger_overlay_delete(overlay), 1);
    EXPECT_EQ(overlay.delete_holddown, 1u);
    EXPECT_EQ(overlay.state, 1u);
    EXPECT_EQ(overlay.reason, 3u);
    EXPECT_EQ(overlay.notify_pending, 1u);
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78852"));
    EXPECT_EQ(platform.sdb_writes.back().value.host32(272), 1u);
    EXPECT_EQ(platform.sdb_writes.back().value.host32(276), 3u);
    EXPECT_EQ(lum_get_overlay(OVERLAY), &overlay);
}

TEST_F(LumOverlayDelete, TriggeringTracesTheDisplayName)
{
    lum_overlay &overlay = make_up_overlay();
    std::strcpy(overlay.vpn_name, "blue");
    lum_event_debug_flag = 1;
    lum_trigger_overlay_delete(overlay);
    EXPECT_EQ(platform.trace_texts().front(), "Trigger deletion for overlay blue\n");
}

TEST_F(LumOverlayDelete, TriggeringGoesOnWhenTheInterfaceIsGone)
{
    lum_overlay &overlay = make_up_overlay();
    platform.remove_interface(OVERLAY);
    lum_internal_debug_flag = 1;
    EXPECT_EQ(lum_trigger_overlay_delete(overlay), 1);
    EXPECT_TRUE(platform.traced("Processing INTFMGR i/f delete, but IOD 100 is already invalid\n"));
    EXPECT_EQ(overlay.reason, 3u);
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78852"));
}

TEST_F(LumOverlayDelete, TriggeringReleasesTheVlansAndKeepsTheSet)
{
    lum_overlay &overlay = make_up_overlay();
    carry_vlan(overlay, 10);
    carry_vlan(overlay, 4095);
    lum_trigger_overlay_delete(overlay);
    EXPECT_EQ(lum_vlans[10].overlay, nullptr);
    EXPECT_EQ(lum_vlans[4095].overlay, nullptr);
    EXPECT_EQ(overlay.vlan_refcount, 0u);
    EXPECT_THAT(vlans_of(overlay), ElementsAre(10, 4095));
    EXPECT_THAT(platform.syslog_texts(), IsEmpty());
}

TEST_F(LumOverlayDelete, AVlanOfAnotherOverlayIsReportedAndSkippedAndBlocksTheFinalFree)
{
    lum_overlay &overlay = make_up_overlay();
    lum_overlay &other = make_overlay(OVERLAY2);
    carry_vlan(overlay, 10);
    carry_vlan(overlay, 20);
    lum_vlans[20].overlay = &other;
    lum_trigger_overlay_delete(overlay);
    EXPECT_EQ(lum_vlans[20].overlay, &other);
    EXPECT_EQ(overlay.vlan_refcount, 1u);
    EXPECT_THAT(platform.syslog_texts(),
                ElementsAre("<<%LUM-3-VLAN_OVLY_MISMATCH>> VLAN 20 doesn't match configured overlay Overlay1"));
    platform.forget();
    lum_delete_overlay_complete(&overlay);
    EXPECT_THAT(platform.syslog_texts(),
                ElementsAre("<<%LUM-3-OVLY_DEL>> Failed to delete overlay Overlay1: Refcount"));
    EXPECT_EQ(lum_get_overlay(OVERLAY), &overlay);
    EXPECT_THAT(told(), ElementsAre("unpublish 2"));
    overlay.vlan_refcount = 0;
}

TEST_F(LumOverlayDelete, TriggeringTwiceRaisesAStateMismatchAndStillTells)
{
    lum_overlay &overlay = make_up_overlay();
    lum_trigger_overlay_delete(overlay);
    platform.forget();
    lum_trigger_overlay_delete(overlay);
    EXPECT_THAT(platform.syslog_texts(),
                ElementsAre("<<%LUM-4-STATE_MISMATCH>> state mismatch - notify_pending - in "
                            "lum_send_overlay_state_msg()"));
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78852"));
}

TEST_F(LumOverlayDelete, AnOverlayThatIsHeldDownNeverComesUpAgain)
{
    lum_overlay &overlay = make_up_overlay();
    lum_trigger_overlay_delete(overlay);
    lum_update_overlay_group(overlay, lum_addr_next_hop(OVERLAY, GROUP));
    EXPECT_EQ(lum_check_overlay_state_change(overlay), 0);
    EXPECT_EQ(overlay.state, 1u);
    EXPECT_EQ(overlay.reason, 3u);
}

TEST_F(LumOverlayDelete, CompletionUnpublishesReleasesTheMessageAndFreesTheRecord)
{
    lum_overlay &overlay = make_up_overlay();
    const mbus_msg held = hold({&overlay});
    lum_trigger_overlay_delete(overlay);
    platform.forget();
    lum_delete_overlay_complete(&overlay);
    EXPECT_THAT(told(), ElementsAre("unpublish 2"));
    EXPECT_EQ(platform.sdb_writes.back().key, overlay_key());
    EXPECT_FALSE(platform.is_outstanding(held));
    EXPECT_EQ(lum_pending_msg_count, 0u);
    EXPECT_EQ(lum_get_overlay(OVERLAY), nullptr);
    EXPECT_EQ(platform.memory_blocks(1), 0u);
}

TEST_F(LumOverlayDelete, AMessageThatTwoOverlaysWaitOnIsReleasedByTheSecond)
{
    lum_overlay &first = make_up_overlay();
    lum_overlay &second = make_overlay(OVERLAY2);
    const mbus_msg held = hold({&first, &second});
    lum_delete_overlay_complete(&first);
    EXPECT_TRUE(platform.is_outstanding(held));
    EXPECT_EQ(lum_pending_msg_count, 1u);
    lum_delete_overlay_complete(&second);
    EXPECT_FALSE(platform.is_outstanding(held));
    EXPECT_EQ(platform.messages_dropped, 1u);
}

TEST_F(LumOverlayDelete, StopsWhereTheDatabaseRefusesAndARetryCompletes)
{
    lum_overlay &overlay = make_up_overlay();
    const mbus_msg held = hold({&overlay});
    platform.fail("hakit_sdb_delete");
    lum_delete_overlay_complete(&overlay);
    EXPECT_EQ(lum_get_overlay(OVERLAY), &overlay);
    EXPECT_TRUE(platform.is_outstanding(held));
    EXPECT_EQ(overlay.delete_msg, held);
    EXPECT_EQ(lum_pending_msg_count, 1u);
    EXPECT_THAT(platform.syslog_texts(), IsEmpty());

    lum_delete_overlay_complete(&overlay);
    EXPECT_FALSE(platform.is_outstanding(held));
    EXPECT_EQ(lum_get_overlay(OVERLAY), nullptr);
}

TEST_F(LumOverlayDelete, OneVlanStillOwnedKeepsTheRecordButReleasesTheMessage)
{
    lum_overlay &overlay = make_up_overlay();
    const mbus_msg held = hold({&overlay});
    overlay.vlan_refcount = 1;
    lum_delete_overlay_complete(&overlay);
    EXPECT_THAT(told(), ElementsAre("unpublish 2"));
    EXPECT_THAT(platform.syslog_texts(),
                ElementsAre("<<%LUM-3-OVLY_DEL>> Failed to delete overlay Overlay1: Refcount"));
    EXPECT_EQ(lum_get_overlay(OVERLAY), &overlay);
    EXPECT_FALSE(platform.is_outstanding(held));
    EXPECT_EQ(overlay.delete_msg, mbus_msg{});
    overlay.vlan_refcount = 0;
}

TEST_F(LumOverlayDelete, ASiteAdjacencyKeepsTheRecord)
{
    lum_overlay &overlay = make_up_overlay();
    std::strcpy(overlay.vpn_name, "blue");
    lum_insert_site_adj(overlay, lum_create_site_adj({2, 0, 0, 0, 0, 1}));
    lum_delete_overlay_complete(&overlay);
    EXPECT_THAT(platform.syslog_texts(),
                ElementsAre("<<%LUM-3-OVLY_DEL>> Failed to delete overlay blue: Site-adj"));
    EXPECT_EQ(lum_get_overlay(OVERLAY), &overlay);
}

TEST_F(LumOverlayDelete, ARetryAfterARefusedFreeReleasesNoMessageTwice)
{
    lum_overlay &overlay = make_up_overlay();
    hold({&overlay});
    overlay.vlan_refcount = 1;
    lum_delete_overlay_complete(&overlay);
    lum_delete_overlay_complete(&overlay);
    EXPECT_EQ(lum_pending_msg_count, 0u);
    EXPECT_EQ(platform.messages_dropped, 1u);
    EXPECT_EQ(platform.empty_drops, 0u);
    overlay.vlan_refcount = 0;
}

TEST_F(LumOverlayDelete, AnOverlayThatWaitsOnAnotherMessageLeavesTheHeldOneAlone)
{
    lum_overlay &overlay = make_up_overlay();
    const mbus_msg held = hold({});
    lum_pending_msg_count = 1;
    overlay.delete_msg = platform.message(0xF404);
    lum_delete_overlay_complete(&overlay);
    EXPECT_TRUE(platform.is_outstanding(held));
    EXPECT_EQ(lum_pending_msg_count, 1u);
    EXPECT_EQ(lum_get_overlay(OVERLAY), nullptr);
}

} // namespace
