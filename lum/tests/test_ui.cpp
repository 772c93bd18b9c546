// Registration of the commands, and the overlay that a mode stands for.
#include "control_test.h"

using namespace fake;
using namespace testing;

namespace
{

struct LumCliInit : ControlTest {
    LumCliInit() { platform.handlers.clear(); }
};

TEST_F(LumCliInit, RegistersTwentyNineHandlersInTheirOrder)
{
    EXPECT_EQ(lum_cli_init(), 1);
    std::vector<std::string> names;
    for (const auto &[name, handler] : platform.handlers)
        names.push_back(name);
    EXPECT_THAT(names, ElementsAre("lum_show_overlay_cmd", "lum_show_overlay_adj_cmd", "lum_show_interface_cmd",
                                   "lum_show_vlan_cmd", "lum_show_internal_sdb_cmd", "lum_show_arp_nd_cache_cmd",
                                   "lum_show_site_cmd", "launcher_show_process_version_cmd", "lum_vpn_name_cmd",
                                   "lum_vpn_ext_if_cmd", "lum_vpn_mgroup_addr_cmd", "lum_vpn_encap_format_cmd",
                                   "lum_vpn_vlan_cmd", "lum_vpn_site_vlan_cmd", "lum_vlan_cmd", "lum_auth_election_cmd",
                                   "lum_route_cmd", "lum_mroute_cmd", "lum_static_tunnel_cmd", "lum_anycast_arp_cmd",
                                   "lum_filter_fhrp_cmd", "lum_suppress_arp_cmd", "lum_core_group_cmd",
                                   "lum_debug_packet_command", "lum_debug_learn_command", "lum_debug_internal_command",
                                   "lum_debug_event_command", "lum_debug_arp_nd_command", "lum_rtab_command"));
}

TEST_F(LumCliInit, InitialisesThenIsReadyThenRegistersThenHandsTheSetOver)
{
    lum_internal_debug_flag = 1;
    lum_cli_init();
    const std::vector<std::string> calls = platform.call_texts();
    ASSERT_THAT(calls, SizeIs(32));
    EXPECT_EQ(calls[0], "cli_init(lum, 0, 0)");
    EXPECT_EQ(calls[1], "cli_ready(lum, 0)");
    EXPECT_EQ(calls[2], "cli_register_cmd(lum_show_overlay_cmd, 0)");
    EXPECT_EQ(calls[30], "cli_register_cmd(lum_rtab_command, 0)");
    EXPECT_EQ(calls[31], "cli_send_my_commands()");
    EXPECT_EQ(lum_cli_initialized, 1u);
    EXPECT_THAT(platform.trace_texts(), ElementsAre("Initialized with CMDSRV"));
    EXPECT_EQ(platform.events.at(0).site, 119u);
}

TEST_F(LumCliInit, TwiceRegistersOnce)
{
    EXPECT_EQ(lum_cli_init(), 1);
    platform.forget();
    EXPECT_EQ(lum_cli_init(), 1);
    EXPECT_THAT(platform.calls, IsEmpty());
    EXPECT_THAT(platform.handlers, SizeIs(29));
}

TEST_F(LumCliInit, ARefusedClientRegistersNothingAndMayTryAgain)
{
    platform.fail("cli_init");
    EXPECT_EQ(lum_cli_init(), 0);
    EXPECT_THAT(platform.handlers, IsEmpty());
    EXPECT_EQ(lum_cli_initialized, 0u);
    EXPECT_EQ(lum_cli_init(), 1);
    EXPECT_THAT(platform.handlers, SizeIs(29));
}

TEST_F(LumCliInit, OtherFailuresAreIgnored)
{
    platform.fail("cli_ready");
    platform.fail("cli_register_cmd");
    platform.fail("cli_send_my_commands");
    EXPECT_EQ(lum_cli_init(), 1);
    EXPECT_THAT(platform.handlers, SizeIs(28));
    EXPECT_EQ(lum_cli_initialized, 1u);
}

struct LumCliModeOverlay : ControlTest {
    static lum_overlay *mode_overlay(std::uint32_t iod)
    {
        static lum_overlay *found;
        platform.command([](cli_cmd *cmd) {
            plock_assert_held();
            found = lum_cli_mode_overlay(cmd);
            return 0;
        }, {}, false, iod);
        return found;
    }
};

TEST_F(LumCliModeOverlay, IsTheOverlayOfTheInterface)
{
    lum_overlay &overlay = make_overlay();
    EXPECT_EQ(mode_overlay(OVERLAY), &overlay);
    EXPECT_THAT(told(), IsEmpty());
}

TEST_F(LumCliModeOverlay, IsCreatedWhenTheInterfaceHasNoneYet)
{
    const lum_overlay *overlay = mode_overlay(OVERLAY);
    ASSERT_NE(overlay, nullptr);
    EXPECT_EQ(overlay->iod, OVERLAY);
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78851"));
}

TEST_F(LumCliModeOverlay, IsNoneForAnUnknownInterface)
{
    lum_internal_debug_flag = 1;
    EXPECT_EQ(mode_overlay(300), nullptr);
    EXPECT_TRUE(platform.traced("Unknown overlay, iod 300\n"));
    EXPECT_EQ(mode_overlay(0), nullptr);
    EXPECT_TRUE(platform.traced("Unknown overlay, iod 0\n"));
}

} // namespace
