// Whole outputs of the show commands where they are easily wrong by a character: every state, rows that are wider than
// their columns, lists that run into each other, and output that the user stops.
#include "control_test.h"

#include <cstring>

using namespace fake;
using namespace testing;

namespace
{

constexpr std::uint32_t OVERLAY3 = 102;

// ---- overlays

struct LumShowOverlayWhole : ControlTest {
    static std::string detail(const std::string &name, const std::string &iod, const std::string &state_lines)
    {
        return "Overlay Interface " + name + "\n" +
               " VPN Name                 : [None]\n"
               " VPN ID                   : " + iod + "\n" + state_lines +
               " IPv4 multicast group     : [None]\n"
               " IPv6 multicast group     : [None]\n"
               " External interface(s)    : \n"
               " External IPv4 address    : 0.0.0.0\n"
               " External IPv6 address    : ::\n"
               " Encapsulation format     : UDP/IPv4\n"
               " Site-vlan                : 0\n"
               "\n";
    }
    std::string in_state(std::uint32_t state, std::uint32_t reason, std::uint32_t pending = 0)
    {
        lum_overlay *overlay = lum_get_overlay(OVERLAY);
        if (overlay == nullptr)
            overlay = &make_overlay();
        overlay->state = state;
        overlay->reason = reason;
        overlay->notify_pending = pending;
        return run(lum_show_overlay_cmd);
    }
    static std::string with_state(const std::string &lines)
    {
        return "LUM Overlay Information\n\n" + detail("Overlay1", "100", lines);
    }
};

TEST_F(LumShowOverlayWhole, EveryStateAndReasonHasItsLines)
{
    EXPECT_EQ(in_state(0, 0), with_state(" State                    : None\n"));
    EXPECT_EQ(in_state(0, 2, 1), with_state(" State                    : None\n"));
    EXPECT_EQ(in_state(2, 0), with_state(" State                    : UP\n"));
    EXPECT_EQ(in_state(2, 3, 1), with_state(" State                    : UP\n"));
    EXPECT_EQ(in_state(1, 0), with_state(" State                    : DOWN\n"
                                         "                          : None\n"));
    EXPECT_EQ(in_state(1, 1), with_state(" State                    : DOWN\n"
                                         "                          : Incomplete Parameters\n"));
    EXPECT_EQ(in_state(1, 2), with_state(" State                    : DOWN\n"
                                         "                          : Admin Down\n"));
    EXPECT_EQ(in_state(1, 3), with_state(" State                    : DOWN\n"
                                         "                          : Delete Holddown\n"));
    EXPECT_EQ(in_state(1, 4), with_state(" State                    : DOWN\n"
                                         "                          : Invalid\n"));
    EXPECT_EQ(in_state(1, 2, 1), with_state(" State                    : DOWN\n"
                                            "                          : Admin Down\n"
                                            "                          : Notification pending\n"));
}

TEST_F(LumShowOverlayWhole, SeveralOverlaysStandInTheOrderOfTheirIods)
{
    make_overlay(OVERLAY2);
    make_overlay(OVERLAY);
    const std::string state = " State                    : DOWN\n"
                              "                          : Incomplete Parameters\n";
    EXPECT_EQ(run(lum_show_overlay_cmd),
              "LUM Overlay Information\n\n" + detail("Overlay1", "100", state) + detail("Overlay2", "101", state));
    EXPECT_EQ(run(lum_show_overlay_cmd, {{"<if-name>", "Overlay2"}}),
              "LUM Overlay Information\n\n" + detail("Overlay2", "101", state));
}

TEST_F(LumShowOverlayWhole, AnInterfaceTakesPrecedenceOverAName)
{
    make_overlay(OVERLAY);
    EXPECT_THAT(run(lum_show_overlay_cmd, {{"<if-name>", "Overlay1"}, {"<overlay-name>", "x"}, {"summary", ""}}),
                EndsWith("Overlay1                                 100    DOWN    Incomplete Parameters\n"));
}

TEST_F(LumShowOverlayWhole, SummaryRowsWiderThanTheirColumnsArePushedOut)
{
    lum_overlay &overlay = make_overlay();
    std::strcpy(overlay.if_name, "Overlay123456789");
    std::strcpy(overlay.vpn_name, "a-name-of-24-characters-");
    overlay.state = 0;
    overlay.reason = 9;
    EXPECT_EQ(run(lum_show_overlay_cmd, {{"summary", ""}}),
              "LUM Overlay Information\n\n"
              "Interface      Name                      IOD    State   Reason\n"
              "Overlay123456789a-name-of-24-characters-      100    None    Invalid\n");
}

TEST_F(LumShowOverlayWhole, ANameOfAHundredCharactersIsPrintedWhole)
{
    const std::string name(100, 'n');
    std::strcpy(make_up_overlay().vpn_name, name.c_str());
    EXPECT_THAT(run(lum_show_overlay_cmd), HasSubstr(" VPN Name                 : " + name + "\n"));
    EXPECT_THAT(run(lum_show_overlay_cmd, {{"summary", ""}}),
                HasSubstr("\nOverlay1       " + name + "      100    UP      None\n"));
    EXPECT_THAT(run(lum_show_site_cmd), HasSubstr("\nOverlay: " + name + ", Adjacencies: 0\n"));
    lum_sdb_update_overlay(*lum_get_overlay(OVERLAY));
    EXPECT_THAT(run(lum_show_internal_sdb_cmd, {{"overlay", ""}}),
                StartsWith("Overlay iod: 100, name: " + name + ", state: 2, Reason: 0\n"));
}

TEST_F(LumShowOverlayWhole, StoppedOutputEndsBehindTheOverlayThatWasPrinted)
{
    make_overlay(OVERLAY);
    make_overlay(OVERLAY2);
    platform.add_interface(OVERLAY3, "Overlay3", {.overlay = true});
    make_overlay(OVERLAY3);
    const std::string state = " State                    : DOWN\n"
                              "                          : Incomplete Parameters\n";
    platform.stop_output_after = 0;
    EXPECT_EQ(run(lum_show_overlay_cmd), "LUM Overlay Information\n\n" + detail("Overlay1", "100", state));
    platform.stop_output_after = 1;
    EXPECT_EQ(run(lum_show_overlay_cmd, {{"summary", ""}}),
              "LUM Overlay Information\n\n"
              "Interface      Name                      IOD    State   Reason\n"
              "Overlay1                                 100    DOWN    Incomplete Parameters\n"
              "Overlay2                                 101    DOWN    Incomplete Parameters\n");
}

// ---- site

struct LumShowSiteWhole : ControlTest {
    LumShowSiteWhole()
    {
        make_overlay(OVERLAY);
        make_overlay(OVERLAY2);
        for (const std::uint8_t last : {std::uint8_t{9}, std::uint8_t{1}, std::uint8_t{5}})
            lum_add_site_adj_internal(OVERLAY, {0xFE, 0xDC, 0xBA, 0x98, 0x76, last}, last * 1000u, last == 5 ? 1 : 0);
        lum_add_site_adj_internal(OVERLAY2, {2, 0, 0, 0, 0, 1}, 0x80000000, 1);
    }
};

TEST_F(LumShowSiteWhole, EntriesStandInTheOrderOfTheirSystemIds)
{
    EXPECT_EQ(run(lum_show_site_cmd), " Site-VLAN                : 0\n"
                                      "\n"
                                      "Site Adjacency database\n"
                                      "Overlay: Overlay1, Adjacencies: 3\n"
                                      "  System-ID                   Priority    Ordinal\n"
                                      "  fe:dc:ba:98:76:01               1000          0\n"
                                      "* fe:dc:ba:98:76:05               5000          1\n"
                                      "  fe:dc:ba:98:76:09               9000          2\n"
                                      "Overlay: Overlay2, Adjacencies: 1\n"
                                      "  System-ID                   Priority    Ordinal\n"
                                      "* 02:00:00:00:00:01        -2147483648          0\n");
}

TEST_F(LumShowSiteWhole, OfOneInterfaceHasThatOverlayAlone)
{
    EXPECT_EQ(run(lum_show_site_cmd, {{"<if-name>", "Overlay2"}}),
              " Site-VLAN                : 0\n"
              "\n"
              "Site Adjacency database\n"
              "Overlay: Overlay2, Adjacencies: 1\n"
              "  System-ID                   Priority    Ordinal\n"
              "* 02:00:00:00:00:01        -2147483648          0\n");
}

TEST_F(LumShowSiteWhole, StoppedOutputEndsTheCommandBehindTheEntryThatWasPrinted)
{
    platform.stop_output_after = 1;
    EXPECT_EQ(run(lum_show_site_cmd), " Site-VLAN                : 0\n"
                                      "\n"
                                      "Site Adjacency database\n"
                                      "Overlay: Overlay1, Adjacencies: 3\n"
                                      "  System-ID                   Priority    Ordinal\n"
                                      "  fe:dc:ba:98:76:01               1000          0\n"
                                      "* fe:dc:ba:98:76:05               5000          1\n");
}

// ---- VLANs

struct LumShowVlanWhole : ControlTest {
    static constexpr char HEADERS[] = "LUM VLAN Configuration Information\n"
                                      "VLAN-ID  Switchport/    VPN Name  Overlay    External       Overlay\n"
                                      "         Blocked Count            Interface  Interface      Group\n";
    static constexpr char SIX[] = "    eth11  eth12  eth13  eth14  eth15  eth16  \n";

    void members(std::uint32_t vlan, std::uint32_t count)
    {
        for (std::uint32_t iod = 11; iod < 11 + count; ++iod) {
            platform.add_interface(iod, "eth" + std::to_string(iod), {.switchport = true});
            lum_vlan_add_port(lum_vlans[vlan], iod);
        }
    }
};

TEST_F(LumShowVlanWhole, ListsOfManyLengthsRunIntoTheNextRowUnlessTheyFillTheirLines)
{
    lum_overlay &overlay = make_up_overlay();
    std::strcpy(overlay.vpn_name, "blue");
    for (const std::uint32_t count : {1u, 7u, 12u, 13u, 0u, 6u}) {
        const std::uint32_t vlan = 100 + count;
        carry_vlan(overlay, vlan);
        members(vlan, count);
    }
    lum_vlan_block_port(lum_vlans[107], 12);
    lum_vlan_block_port(lum_vlans[107], 17);
    const std::string row = "blue      Overlay1   eth5           239.1.1.1\n";
    EXPECT_EQ(run(lum_show_vlan_cmd, {{"detail", ""}}),
              std::string(HEADERS) +
                  "100      0/0            " + row + "    \n"
                  "101      1/0            " + row + "    eth11  "
                  "106      6/0            " + row + SIX + "\n"
                  "107      7/2            " + row + SIX + "eth17  "
                  "112      12/0           " + row + SIX + "eth17  eth18  eth19  eth20  eth21  eth22  \n\n" +
                  "113      13/0           " + row + SIX + "eth17  eth18  eth19  eth20  eth21  eth22  \neth23  ");
}

TEST_F(LumShowVlanWhole, DetailAndAuthoritativeGoTogether)
{
    lum_overlay &overlay = make_up_overlay();
    carry_vlan(overlay, 10);
    carry_vlan(overlay, 20);
    lum_vlan_vlandb_init(lum_vlans[30], 30);
    members(20, 2);
    lum_vlans[20].aed = 1;
    EXPECT_EQ(run(lum_show_vlan_cmd, {{"detail", ""}, {"authoritative", ""}}),
              std::string(HEADERS) + "20       2/0                      Overlay1   eth5           239.1.1.1\n"
                                     "    eth11  eth12  ");
}

TEST_F(LumShowVlanWhole, ColumnsThatAreTooNarrowPushTheRestOut)
{
    lum_overlay &overlay = make_up_overlay();
    std::strcpy(overlay.vpn_name, "eleven-long");
    std::strcpy(overlay.if_name, "Overlay65535");
    set_external(overlay, "a-name-of-16-xyz", CORE);
    overlay.ipv6_group = lum_addr_next_hop(OVERLAY, ipv6("ff3e:40:2001:db8:cafe:ffff:1234:5678"));
    overlay.encap_family = 5;
    carry_vlan(overlay, 4095);
    EXPECT_EQ(run(lum_show_vlan_cmd),
              std::string(HEADERS) + "4095     0/0            eleven-longOverlay65535a-name-of-16-xyz"
                                     "ff3e:40:2001:db8:cafe:ffff:1234:5678\n");
}

// ---- ports, caches, adjacencies, records

struct LumShowTablesWhole : ControlTest {
    void port(std::uint32_t iod, const std::string &name, std::uint32_t vlan, bool trunk)
    {
        platform.add_interface(iod, name, {.switchport = true});
        lum_port *record = lum_add_to_pt(iod);
        record->vlan = vlan;
        record->trunk = trunk ? 1 : 0;
    }
};

TEST_F(LumShowTablesWhole, PortsHaveLeftAlignedVlansAndNamesPushThemOut)
{
    port(7, "eth7", 0, false);
    port(8, "eth8", 100, false);
    port(9, "fifteen-chars--", 1, false);
    port(10, "sixteen-chars---", 10, true);
    EXPECT_EQ(run(lum_show_interface_cmd), "LUM Switchport Information\n"
                                           "Interface      VLAN ID\n"
                                           "eth7           0   \n"
                                           "eth8           100 \n"
                                           "fifteen-chars--1   \n"
                                           "sixteen-chars---trunk-port\n");
}

TEST_F(LumShowTablesWhole, CachesOfTwoOverlaysStandBehindEachOther)
{
    lum_overlay &first = make_overlay(OVERLAY), &second = make_overlay(OVERLAY2);
    lum_cache_arp_nd(first, ipv4(255, 255, 255, 254), {}, 4095, mac("fe:dc:ba:98:76:54").data());
    lum_cache_arp_nd(second, 0, ipv6("2001:db8:1111:2222:3333:4444:5555:6666"), 1, mac("02:00:00:00:00:03").data());
    platform.advance(3661);
    EXPECT_EQ(run(lum_show_arp_nd_cache_cmd),
              "LUM ARP/ND L3->L2 Address Mapping Cache\n"
              "VLAN/MAC Address      Uptime    Layer-3 Address\n"
              "4095/fe:dc:ba:98:76:5401:01:01  255.255.255.254\n"
              "VLAN/MAC Address      Uptime    Layer-3 Address\n"
              "1/02:00:00:00:00:03   01:01:01  2001:db8:1111:2222:3333:4444:5555:6666\n");
}

TEST_F(LumShowTablesWhole, AdjacenciesWithLongAddressesKeepTheirColumns)
{
    lum_add_overlay_adj_internal(OVERLAY, {2, 0, 0, 0, 0, 1},
                                 lum_addr_ipv6(ipv6("2001:db8:1111:2222:3333:4444:5555:6666")));
    lum_add_overlay_adj_internal(OVERLAY, {2, 0, 0, 0, 0, 2}, lum_addr_ipv4(ipv4(198, 51, 100, 10)));
    const std::string head = "Overlay Adjacency database\n"
                             "\n"
                             "Overlay-Interface Overlay1 :\n"
                             "System-ID            Address                                  Tunnel-IOD\n";
    const std::string ipv4_row = "02:00:00:00:00:02    198.51.100.10                                     0\n",
                      ipv6_row = "02:00:00:00:00:01    2001:db8:1111:2222:3333:4444:5555:6666            0\n";
    EXPECT_THAT(run(lum_show_overlay_adj_cmd), AnyOf(head + ipv4_row + ipv6_row, head + ipv6_row + ipv4_row));
    platform.stop_output_after = 0;
    EXPECT_THAT(run(lum_show_overlay_adj_cmd), AnyOf(head + ipv4_row, head + ipv6_row));
}

TEST_F(LumShowTablesWhole, DumpsEndBehindTheRecordAtWhichTheUserStops)
{
    lum_sdb_update_overlay(make_overlay(OVERLAY));
    lum_sdb_update_overlay(make_overlay(OVERLAY2));
    lum_add_overlay_adj_internal(OVERLAY, {2, 0, 0, 0, 0, 1}, lum_addr_ipv4(ipv4(198, 51, 100, 9)));
    lum_add_overlay_adj_internal(OVERLAY2, {2, 0, 0, 0, 0, 2}, lum_addr_ipv6(ipv6("2001:db8::9")));
    const std::string first = "iod: 100, mac: 02:00:00:00:00:01, 198.51.100.9\n";
    EXPECT_EQ(run(lum_show_internal_sdb_cmd, {{"adjacency", ""}}),
              first + "iod: 101, mac: 02:00:00:00:00:02, 2001:db8::9\n");
    platform.stop_output_after = 0;
    EXPECT_EQ(run(lum_show_internal_sdb_cmd, {{"adjacency", ""}}), first);
    EXPECT_EQ(run(lum_show_internal_sdb_cmd, {{"overlay", ""}}), "Overlay iod: 100, name: , state: 1, Reason: 1\n"
                                                                 "External iod: 0\n"
                                                                 "IPv4 group: 0.0.0.0, IPv6 group: ::\n");
}

TEST_F(LumShowTablesWhole, NoCommandThatShowsChangesOrSendsAnything)
{
    lum_overlay &overlay = make_up_overlay();
    carry_vlan(overlay, 10);
    port(7, "eth7", 10, false);
    lum_vlan_add_port(lum_vlans[10], 7);
    lum_cache_arp_nd(overlay, ipv4(10, 0, 0, 1), {}, 10, mac("02:00:00:00:00:01").data());
    lum_add_site_adj_internal(OVERLAY, {2, 0, 0, 0, 0, 1}, 1, 1);
    lum_add_overlay_adj_internal(OVERLAY, {2, 0, 0, 0, 0, 1}, lum_addr_ipv4(ipv4(198, 51, 100, 9)));
    const overlay_snapshot before = snapshot(overlay);
    const lum_vlan vlan_before = lum_vlans[10];
    const lum_svr_record svr_before = lum_svr;
    platform.forget();
    for (const cli_handler handler :
         {lum_show_overlay_cmd, lum_show_overlay_adj_cmd, lum_show_interface_cmd, lum_show_vlan_cmd,
          lum_show_internal_sdb_cmd, lum_show_arp_nd_cache_cmd, lum_show_site_cmd, launcher_show_process_version_cmd})
        for (const char *word : {"summary", "detail", "overlay", "adjacency", "authoritative"})
            run(handler, {{word, ""}});
    EXPECT_EQ(snapshot(overlay), before);
    EXPECT_EQ(std::memcmp(&lum_vlans[10], &vlan_before, sizeof vlan_before), 0);
    EXPECT_EQ(std::memcmp(&lum_svr, &svr_before, sizeof svr_before), 0);
    EXPECT_THAT(told(), IsEmpty());
    EXPECT_THAT(platform.mbus_sent, IsEmpty());
    EXPECT_THAT(platform.route_updates, IsEmpty());
    EXPECT_THAT(platform.syslog, IsEmpty());
}

} // namespace
