// Show commands, whole outputs.
#include "control_test.h"

#include <cstring>

using namespace fake;
using namespace testing;

namespace
{

struct LumShowOverlay : ControlTest {};

TEST_F(LumShowOverlay, PrintsAnOverlayThatIsUpWithoutAReasonLine)
{
    lum_overlay &overlay = make_up_overlay();
    std::strcpy(overlay.vpn_name, "blue");
    overlay.ext_ipv6 = ipv6("2001:db8::5");
    lum_svr.site_vlan = 20;
    const command_result result = platform.command(lum_show_overlay_cmd);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "LUM Overlay Information\n"
                             "\n"
                             "Overlay Interface Overlay1\n"
                             " VPN Name                 : blue\n"
                             " VPN ID                   : 100\n"
                             " State                    : UP\n"
                             " IPv4 multicast group     : 239.1.1.1\n"
                             " IPv6 multicast group     : [None]\n"
                             " External interface(s)    : eth5\n"
                             " External IPv4 address    : 192.0.2.1\n"
                             " External IPv6 address    : 2001:db8::5\n"
                             " Encapsulation format     : UDP/IPv4\n"
                             " Site-vlan                : 20\n"
                             "\n");
    EXPECT_EQ(result.tty, "\n");
}

TEST_F(LumShowOverlay, PrintsAnEmptyOverlayWithItsReason)
{
    make_overlay();
    EXPECT_EQ(run(lum_show_overlay_cmd), "LUM Overlay Information\n"
                                         "\n"
                                         "Overlay Interface Overlay1\n"
                                         " VPN Name                 : [None]\n"
                                         " VPN ID                   : 100\n"
                                         " State                    : DOWN\n"
                                         "                          : Incomplete Parameters\n"
                                         " IPv4 multicast group     : [None]\n"
                                         " IPv6 multicast group     : [None]\n"
                                         " External interface(s)    : \n"
                                         " External IPv4 address    : 0.0.0.0\n"
                                         " External IPv6 address    : ::\n"
                                         " Encapsulation format     : UDP/IPv4\n"
                                         " Site-vlan                : 0\n"
                                         "\n");
}

TEST_F(LumShowOverlay, PrintsTwoLinesWithoutLabelWhileADeletionIsPending)
{
    lum_overlay &overlay = make_up_overlay();
    overlay.ipv6_group = lum_addr_next_hop(OVERLAY, ipv6("ff05::1"));
    overlay.encap_type = 1;
    overlay.encap_family = 5;
    lum_trigger_overlay_delete(overlay);
    EXPECT_EQ(run(lum_show_overlay_cmd), "LUM Overlay Information\n"
                                         "\n"
                                         "Overlay Interface Overlay1\n"
                                         " VPN Name                 : [None]\n"
                                         " VPN ID                   : 100\n"
                                         " State                    : DOWN\n"
                                         "                          : Delete Holddown\n"
                                         "                          : Notification pending\n"
                                         " IPv4 multicast group     : 239.1.1.1\n"
                                         " IPv6 multicast group     : ff05::1\n"
                                         " External interface(s)    : eth5\n"
                                         " External IPv4 address    : 192.0.2.1\n"
                                         " External IPv6 address    : ::\n"
                                         " Encapsulation format     : GRE/IPv6\n"
                                         " Site-vlan                : 0\n"
                                         "\n");
}

TEST_F(LumShowOverlay, ShowsAPendingNotificationOnlyWhileDown)
{
    make_up_overlay().notify_pending = 1;
    EXPECT_THAT(run(lum_show_overlay_cmd), Not(HasSubstr("Notification pending")));
}

TEST_F(LumShowOverlay, NamesEveryEncapsulationFormat)
{
    lum_overlay &overlay = make_overlay();
    const auto format = [&](std::uint32_t type, std::uint32_t family) {
        overlay.encap_type = type;
        overlay.encap_family = family;
        const std::string output = run(lum_show_overlay_cmd);
        const std::size_t at = output.find("format     : ") + 13;
        return output.substr(at, output.find('\n', at) - at);
    };
    EXPECT_EQ(format(1, 4), "GRE/IPv4");
    EXPECT_EQ(format(1, 5), "GRE/IPv6");
    EXPECT_EQ(format(2, 4), "UDP/IPv4");
    EXPECT_EQ(format(2, 5), "UDP/IPv6");
    EXPECT_EQ(format(0, 7), "UDP/IPv6");
}

TEST_F(LumShowOverlay, SummaryHasARowForEachOverlayInEveryState)
{
    std::strcpy(make_overlay(OVERLAY2).vpn_name, "red");
    std::strcpy(make_up_overlay(OVERLAY).vpn_name, "blue");
    platform.add_interface(102, "Overlay3", {.overlay = true});
    lum_trigger_overlay_delete(make_overlay(102));
    platform.add_interface(103, "Overlay4", {.overlay = true});
    lum_overlay &down = make_up_overlay(103);
    platform.interface(103).up = false;
    lum_update_overlay_state(down);

    const command_result result = platform.command(lum_show_overlay_cmd, {{"summary", ""}});
    EXPECT_EQ(result.output, "LUM Overlay Information\n"
                             "\n"
                             "Interface      Name                      IOD    State   Reason\n"
                             "Overlay1       blue                      100    UP      None\n"
                             "Overlay2       red                       101    DOWN    Incomplete Parameters\n"
                             "Overlay3                                 102    DOWN    Delete Holddown\n"
                             "Overlay4                                 103    DOWN    Admin Down\n");
    EXPECT_EQ(result.tty, "Interface      Name                      IOD    State   Reason\n");
}

TEST_F(LumShowOverlay, WithoutOverlaysPrintsTheHeadersOnly)
{
    EXPECT_EQ(run(lum_show_overlay_cmd), "LUM Overlay Information\n\n");
}

TEST_F(LumShowOverlay, OfANamedInterfacePrintsThatOverlay)
{
    make_overlay(OVERLAY);
    make_overlay(OVERLAY2);
    EXPECT_EQ(run(lum_show_overlay_cmd, {{"<if-name>", "Overlay2"}, {"summary", ""}}),
              "LUM Overlay Information\n\n"
              "Interface      Name                      IOD    State   Reason\n"
              "Overlay2                                 101    DOWN    Incomplete Parameters\n");
}

TEST_F(LumShowOverlay, OfAnUnknownInterfaceOrAnyVpnNamePrintsNone)
{
    std::strcpy(make_overlay(OVERLAY).vpn_name, "blue");
    EXPECT_EQ(run(lum_show_overlay_cmd, {{"<if-name>", "Overlay9"}}), "LUM Overlay Information\n\n");
    EXPECT_EQ(run(lum_show_overlay_cmd, {{"<overlay-name>", "blue"}}), "LUM Overlay Information\n\n");
}

TEST_F(LumShowOverlay, ARecordWithoutIodIsNeverPrinted)
{
    lum_overlay &overlay = make_overlay();
    overlay.iod = 0;
    EXPECT_EQ(run(lum_show_overlay_cmd), "LUM Overlay Information\n\n");
    EXPECT_EQ(run(lum_show_overlay_cmd, {{"summary", ""}}),
              "LUM Overlay Information\n\nInterface      Name                      IOD    State   Reason\n");
    overlay.iod = OVERLAY;
}

TEST_F(LumShowOverlay, StoppedOutputEndsTheWalkAtOnce)
{
    make_overlay(OVERLAY);
    make_overlay(OVERLAY2);
    platform.stop_output_after = 0;
    const std::string output = run(lum_show_overlay_cmd, {{"summary", ""}});
    EXPECT_THAT(output, HasSubstr("Overlay1"));
    EXPECT_THAT(output, Not(HasSubstr("Overlay2")));
}

TEST_F(LumShowOverlay, GivesTheLockUpBeforeEachOverlayAndPrintsNoneThatWentMeanwhile)
{
    make_overlay(OVERLAY);
    lum_overlay *second = &make_overlay(OVERLAY2);
    platform.add_interface(102, "Overlay3", {.overlay = true});
    make_overlay(102);
    int yields = 0;
    platform.on_yield = [&] {
        if (++yields == 2)
            lum_destroy_overlay(&second);
    };
    const std::string output = run(lum_show_overlay_cmd, {{"summary", ""}});
    EXPECT_GE(yields, 2);
    EXPECT_THAT(output, HasSubstr("Overlay1"));
    EXPECT_THAT(output, Not(HasSubstr("Overlay2")));
    EXPECT_THAT(output, HasSubstr("Overlay3"));
}

struct LumShowSite : ControlTest {
    lum_overlay &overlay = make_overlay();
    void add(std::uint8_t last, std::uint32_t value, std::uint32_t local)
    {
        lum_add_site_adj_internal(OVERLAY, {2, 0, 0, 0, 0, last}, value, local);
    }
};

TEST_F(LumShowSite, PrintsTheSiteVlanAndTheAdjacenciesOfEachOverlay)
{
    lum_svr.site_vlan = 300;
    add(9, 0xFFFFFFFF, 0);
    add(5, 0, 1);
    std::strcpy(make_overlay(OVERLAY2).vpn_name, "red");
    const command_result result = platform.command(lum_show_site_cmd);
    EXPECT_EQ(result.output, " Site-VLAN                : 300\n"
                             "\n"
                             "Site Adjacency database\n"
                             "Overlay: Overlay1, Adjacencies: 2\n"
                             "  System-ID                   Priority    Ordinal\n"
                             "* 02:00:00:00:00:05                  0          0\n"
                             "  02:00:00:00:00:09                 -1          1\n"
                             "Overlay: red, Adjacencies: 0\n"
                             "  System-ID                   Priority    Ordinal\n");
    EXPECT_EQ(result.tty, "\n");
}

TEST_F(LumShowSite, OfANameThatFindsNothingPrintsNoOverlay)
{
    EXPECT_EQ(run(lum_show_site_cmd, {{"<overlay-name>", "Overlay1"}}),
              " Site-VLAN                : 0\n"
              "\n"
              "Site Adjacency database\n"
              "Overlay: [No overlay], Adjacencies: 0\n"
              "  System-ID                   Priority    Ordinal\n");
}

TEST_F(LumShowSite, OfAnInterfacePrintsThatOverlayAlone)
{
    make_overlay(OVERLAY2);
    EXPECT_THAT(run(lum_show_site_cmd, {{"<if-name>", "Overlay1"}}),
                AllOf(HasSubstr("Overlay: Overlay1, Adjacencies: 0\n"), Not(HasSubstr("Overlay2"))));
}

TEST_F(LumShowSite, StoppedOutputEndsTheList)
{
    add(5, 0, 1);
    add(6, 0, 0);
    platform.stop_output_after = 0;
    EXPECT_THAT(run(lum_show_site_cmd), AllOf(HasSubstr("00:05"), Not(HasSubstr("00:06"))));
}

struct LumShowVersion : ControlTest {};

TEST_F(LumShowVersion, PrintsTheBuildInformationOfTheProcess)
{
    const std::string output = run(launcher_show_process_version_cmd);
    const std::vector<call_record> calls = platform.calls_of("cli_print_build_info");
    ASSERT_THAT(calls, SizeIs(1));
    EXPECT_EQ(calls[0].arguments[0], "lum");
    EXPECT_THAT(output, HasSubstr(lum_version_block.version));
    EXPECT_THAT(output, HasSubstr(lum_version_block.compiler));
}

} // namespace
