// Every transition of an overlay's state, a row each: what happened, the state and reason before and after, and what
// left for other processes, in order. Events come as they do in the daemon: commands, interface messages, answers.
#include "control_test.h"

#include <functional>

using namespace fake;
using namespace testing;

namespace
{

constexpr std::uint32_t REMOVED = 0xF404, L3_STATE = 0xF408, ACKNOWLEDGED = 0x13404, ADDRESS = 0x14C01;

struct LumOverlayTransition : ControlTest {
    // ---- events

    static int deliver(std::uint32_t opcode, const bytes &payload)
    {
        mbus_msg msg = platform.message(opcode, payload);
        return lum_dispatch(msg);
    }
    static void link(bool up)
    {
        platform.interface(OVERLAY).up = up;
        deliver(L3_STATE, platform.changes({{OVERLAY, std::uint64_t{1} << 35}}));
    }
    static void configure(cli_handler handler, const command_arguments &arguments, bool no = false)
    {
        const command_result result = platform.command(handler, arguments, no, OVERLAY);
        ASSERT_EQ(result.status, 0) << result.output;
    }
    static void group(bool no) { configure(lum_vpn_mgroup_addr_cmd, {{"<maddr>", "239.1.1.1"}}, no); }
    static void external(bool no) { configure(lum_vpn_ext_if_cmd, {{"<ext_if>", "eth5"}}, no); }
    // Added when there was none; removed is another one than that in use, since the removal of that tells nobody.
    static void address(bool added)
    {
        bytes payload;
        payload.add_host16(4).add_host16(13).add_host32(CORE).add_host32(0).add_host32(added ? 1 : 0);
        deliver(ADDRESS, payload.add_host32(0).add_host32(added ? CORE_IPV4 : CORE_IPV4 + 1));
    }
    static void removed() { deliver(REMOVED, platform.changes({{OVERLAY, 0}})); }
    static void acknowledged() { deliver(ACKNOWLEDGED, bytes().add_host32(OVERLAY)); }

    // ---- what an overlay is like before

    lum_overlay &complete() { return make_up_overlay(); }
    lum_overlay &interface_down()
    {
        lum_overlay &overlay = complete();
        platform.interface(OVERLAY).up = false;
        lum_update_overlay_state(overlay);
        return overlay;
    }
    lum_overlay &without_group(bool up = true)
    {
        platform.interface(OVERLAY).up = up;
        lum_overlay &overlay = make_overlay();
        set_external(overlay, "eth5", CORE);
        overlay.ext_ipv4 = CORE_IPV4;
        return overlay;
    }
    lum_overlay &without_external()
    {
        lum_overlay &overlay = make_overlay();
        overlay.ipv4_group = lum_addr_next_hop(OVERLAY, GROUP);
        return overlay;
    }
    lum_overlay &without_address()
    {
        lum_overlay &overlay = without_external();
        set_external(overlay, "eth5", CORE);
        return overlay;
    }
    lum_overlay &removed_before()
    {
        lum_overlay &overlay = complete();
        removed();
        return overlay;
    }
};

using texts = std::vector<std::string>;
constexpr std::uint32_t DOWN = 1, UP = 2, NO_REASON = 0, INCOMPLETE = 1, ADMIN_DOWN = 2, HOLDDOWN = 3, GONE = 99;

struct transition {
    const char *what;
    std::function<void()> before, event;
    std::uint32_t state, reason;                 // before
    std::uint32_t to, to_reason;                 // after; GONE: the record is freed
    texts told, logged = {};
};

TEST_F(LumOverlayTransition, HasItsStateItsMessagesAndTheirOrder)
{
    const texts full{"publish 2", "notify 78854", "notify 78853"}, quiet{"publish 2", "notify 78854"},
        brief{"publish 2", "notify 78853"}, held{"publish 2", "notify 78852"};
    const transition rows[] = {
        {"the group was missing", [&] { without_group(); }, [] { group(false); }, DOWN, INCOMPLETE, UP, NO_REASON,
         full},
        {"the external interface was missing", [&] { without_external(); }, [] { external(false); }, DOWN, INCOMPLETE,
         UP, NO_REASON, full},
        {"the address was missing", [&] { without_address(); }, [] { address(true); }, DOWN, INCOMPLETE, UP, NO_REASON,
         full},
        {"all is there and the interface is down", [&] { without_group(false); }, [] { group(false); }, DOWN,
         INCOMPLETE, DOWN, ADMIN_DOWN, quiet},
        {"the interface comes up", [&] { interface_down(); }, [] { link(true); }, DOWN, ADMIN_DOWN, UP, NO_REASON,
         brief},
        {"the interface comes up, the group is missing", [&] { without_group(false); }, [] { link(true); }, DOWN,
         INCOMPLETE, DOWN, INCOMPLETE, {}},
        {"the group is removed", [&] { complete(); }, [] { group(true); }, UP, NO_REASON, DOWN, INCOMPLETE, full},
        {"the external interface is removed", [&] { complete(); }, [] { external(true); }, UP, NO_REASON, DOWN,
         INCOMPLETE, full},
        {"the address is removed", [&] { complete(); }, [] { address(false); }, UP, NO_REASON, DOWN, INCOMPLETE, full},
        {"the interface goes down", [&] { complete(); }, [] { link(false); }, UP, NO_REASON, DOWN, ADMIN_DOWN, brief},
        {"an overlay that is up is removed", [&] { complete(); }, [] { removed(); }, UP, NO_REASON, DOWN, HOLDDOWN,
         held},
        {"one without parameters is removed", [&] { make_overlay(); }, [] { removed(); }, DOWN, INCOMPLETE, DOWN,
         HOLDDOWN, held},
        {"one that is shut down is removed", [&] { interface_down(); }, [] { removed(); }, DOWN, ADMIN_DOWN, DOWN,
         HOLDDOWN, held},
        {"the interface of one that is held comes up", [&] { removed_before(); }, [] { link(true); }, DOWN, HOLDDOWN,
         DOWN, HOLDDOWN, {}},
        {"the removal is acknowledged", [&] { removed_before(); }, [] { acknowledged(); }, DOWN, HOLDDOWN, GONE, 0,
         {"unpublish 2"}},
        {"it is acknowledged while a VLAN is owned", [&] { removed_before().vlan_refcount = 1; },
         [] { acknowledged(); }, DOWN, HOLDDOWN, DOWN, HOLDDOWN, {"unpublish 2"},
         {"<<%LUM-3-OVLY_DEL>> Failed to delete overlay Overlay1: Refcount"}},
        {"it is acknowledged while a device of the site is there",
         [&] { lum_insert_site_adj(removed_before(), lum_create_site_adj({2, 0, 0, 0, 0, 1})); },
         [] { acknowledged(); }, DOWN, HOLDDOWN, DOWN, HOLDDOWN, {"unpublish 2"},
         {"<<%LUM-3-OVLY_DEL>> Failed to delete overlay Overlay1: Site-adj"}},
    };
    for (const transition &row : rows) {
        SCOPED_TRACE(row.what);
        platform.interface(OVERLAY).up = true;
        row.before();
        lum_overlay *overlay = lum_get_overlay(OVERLAY);
        ASSERT_NE(overlay, nullptr);
        EXPECT_EQ(overlay->state, row.state);
        EXPECT_EQ(overlay->reason, row.reason);
        platform.forget();

        row.event();
        EXPECT_THAT(told(), ElementsAreArray(row.told));
        EXPECT_THAT(platform.syslog_texts(), ElementsAreArray(row.logged));
        overlay = lum_get_overlay(OVERLAY);
        ASSERT_EQ(overlay != nullptr, row.to != GONE);
        if (overlay == nullptr)
            continue;
        EXPECT_EQ(overlay->state, row.to);
        EXPECT_EQ(overlay->reason, row.to_reason);
        while (overlay->adj_head != nullptr) {
            lum_site_adj *adj = overlay->adj_head;
            lum_remove_site_adj(*overlay, adj);
            lum_destroy_site_adj(adj);
        }
        lum_destroy_overlay(&overlay);
    }
}

TEST_F(LumOverlayTransition, OfANewOverlayIsPublishedAndAnnounced)
{
    deliver(0xF403, platform.changes({{OVERLAY, 0}}));
    const lum_overlay *overlay = lum_get_overlay(OVERLAY);
    ASSERT_NE(overlay, nullptr);
    EXPECT_EQ(overlay->state, DOWN);
    EXPECT_EQ(overlay->reason, INCOMPLETE);
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78851"));
}

} // namespace
