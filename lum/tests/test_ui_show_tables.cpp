// Show commands of ports, VLANs, caches and published records, whole outputs.
#include "control_test.h"

#include <cstring>

using namespace fake;
using namespace testing;

namespace
{

struct LumShowInterface : ControlTest {
    void port(std::uint32_t iod, std::uint32_t vlan, bool trunk)
    {
        platform.add_interface(iod, "eth" + std::to_string(iod), {.switchport = true});
        lum_port *record = lum_add_to_pt(iod);
        record->vlan = vlan;
        record->trunk = trunk ? 1 : 0;
    }
};

TEST_F(LumShowInterface, WithoutPortsPrintsTheHeaders)
{
    EXPECT_EQ(run(lum_show_interface_cmd), "LUM Switchport Information\n"
                                           "Interface      VLAN ID\n");
}

TEST_F(LumShowInterface, PrintsPortsInAscendingOrderOfTheirIods)
{
    port(300, 4095, false);
    port(2, 10, false);
    port(255, 7, true);
    port(256, 20, true);
    EXPECT_EQ(run(lum_show_interface_cmd), "LUM Switchport Information\n"
                                           "Interface      VLAN ID\n"
                                           "eth2           10  \n"
                                           "eth255         trunk-port\n"
                                           "eth256         trunk-port\n"
                                           "eth300         4095\n");
}

TEST_F(LumShowInterface, StoppedOutputEndsWithOne)
{
    port(2, 10, false);
    port(3, 10, false);
    platform.stop_output_after = 0;
    platform.slice_used_up = true;
    const command_result result = platform.command(lum_show_interface_cmd);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "LUM Switchport Information\nInterface      VLAN ID\neth2           10  \n");
}

TEST_F(LumShowInterface, ResumesBehindTheLastPortAfterAYieldInWhichItWent)
{
    port(2, 10, false);
    port(3, 20, false);
    port(4, 30, false);
    platform.slice_used_up = true;
    bool once = false;
    platform.on_yield = [&] {
        if (!std::exchange(once, true)) {
            lum_delete_from_pt(lum_get_from_pt(2));
            lum_delete_from_pt(lum_get_from_pt(3));
        }
    };
    EXPECT_EQ(run(lum_show_interface_cmd), "LUM Switchport Information\n"
                                           "Interface      VLAN ID\n"
                                           "eth2           10  \n"
                                           "eth4           30  \n");
    EXPECT_TRUE(once);
}

struct LumShowVlan : ControlTest {
    static constexpr char HEADERS[] = "LUM VLAN Configuration Information\n"
                                      "VLAN-ID  Switchport/    VPN Name  Overlay    External       Overlay\n"
                                      "         Blocked Count            Interface  Interface      Group\n";

    // Ports eth11, eth12 ... as members of a VLAN.
    void members(std::uint32_t vlan, std::uint32_t count)
    {
        for (std::uint32_t iod = 11; iod < 11 + count; ++iod) {
            platform.add_interface(iod, "eth" + std::to_string(iod), {.switchport = true});
            lum_vlan_add_port(lum_vlans[vlan], iod);
        }
    }
    static std::string ports_of(const std::string &output) { return output.substr(output.find("239.1.1.1\n") + 10); }
};

TEST_F(LumShowVlan, WithoutVlansPrintsTheHeaders)
{
    EXPECT_EQ(run(lum_show_vlan_cmd), HEADERS);
}

TEST_F(LumShowVlan, PrintsEachVlanInUseWithItsOverlayOrWithNone)
{
    lum_overlay &overlay = make_up_overlay();
    std::strcpy(overlay.vpn_name, "blue");
    carry_vlan(overlay, 10);
    members(10, 2);
    lum_vlan_block_port(lum_vlans[10], 12);
    lum_vlan_vlandb_init(lum_vlans[0], 0);
    lum_vlan_vlandb_init(lum_vlans[4095], 4095);
    EXPECT_EQ(run(lum_show_vlan_cmd), std::string(HEADERS) +
                                          "0        0/0            \n"
                                          "10       2/1            blue      Overlay1   eth5           239.1.1.1\n"
                                          "4095     0/0            \n");
}

TEST_F(LumShowVlan, TheGroupIsThatOfTheEncapsulationFamily)
{
    lum_overlay &overlay = make_up_overlay();
    overlay.ipv6_group = lum_addr_next_hop(OVERLAY, ipv6("ff05::1"));
    overlay.encap_family = 5;
    carry_vlan(overlay, 10);
    EXPECT_EQ(run(lum_show_vlan_cmd), std::string(HEADERS) +
                                          "10       0/0                      Overlay1   eth5           ff05::1\n");
    overlay.ipv6_group = {};
    EXPECT_THAT(run(lum_show_vlan_cmd), EndsWith("eth5           ::\n"));
    overlay.encap_family = 4;
    overlay.ipv4_group = {};
    EXPECT_THAT(run(lum_show_vlan_cmd), EndsWith("eth5           0.0.0.0\n"));
}

TEST_F(LumShowVlan, AuthoritativeLeavesOutTheVlansOfOtherDevices)
{
    lum_overlay &overlay = make_up_overlay();
    carry_vlan(overlay, 10);
    carry_vlan(overlay, 20);
    lum_vlans[20].aed = 1;
    EXPECT_EQ(run(lum_show_vlan_cmd, {{"authoritative", ""}}),
              std::string(HEADERS) + "20       0/0                      Overlay1   eth5           239.1.1.1\n");
}

TEST_F(LumShowVlan, DetailOfSevenPortsEndsWithoutANewline)
{
    carry_vlan(make_up_overlay(), 10);
    members(10, 7);
    EXPECT_EQ(ports_of(run(lum_show_vlan_cmd, {{"detail", ""}})),
              "    eth11  eth12  eth13  eth14  eth15  eth16  \n"
              "eth17  ");
}

TEST_F(LumShowVlan, DetailOfSixPortsEndsWithOneMoreNewline)
{
    carry_vlan(make_up_overlay(), 10);
    members(10, 6);
    EXPECT_EQ(ports_of(run(lum_show_vlan_cmd, {{"detail", ""}})),
              "    eth11  eth12  eth13  eth14  eth15  eth16  \n\n");
}

TEST_F(LumShowVlan, DetailWithoutPortsIsAnIndentedEmptyLine)
{
    carry_vlan(make_up_overlay(), 10);
    EXPECT_EQ(ports_of(run(lum_show_vlan_cmd, {{"detail", ""}})), "    \n");
}

TEST_F(LumShowVlan, DetailOfAVlanWithoutOverlayIsANewlineOnly)
{
    lum_vlan_vlandb_init(lum_vlans[10], 10);
    members(10, 2);
    EXPECT_EQ(run(lum_show_vlan_cmd, {{"detail", ""}}), std::string(HEADERS) + "10       2/0            \n");
}

TEST_F(LumShowVlan, StoppedOutputEndsTheWalk)
{
    lum_vlan_vlandb_init(lum_vlans[10], 10);
    lum_vlan_vlandb_init(lum_vlans[11], 11);
    platform.stop_output_after = 0;
    EXPECT_EQ(run(lum_show_vlan_cmd), std::string(HEADERS) + "10       0/0            \n");
}

struct LumShowArpNdCache : ControlTest {
    static constexpr char TITLE[] = "LUM ARP/ND L3->L2 Address Mapping Cache\n";
    static constexpr char HEADER[] = "VLAN/MAC Address      Uptime    Layer-3 Address\n";
    static void cache(lum_overlay &overlay, std::uint32_t vlan, std::uint32_t ip, std::string_view host)
    {
        lum_cache_arp_nd(overlay, ip, {}, vlan, mac(host).data());
    }
};

TEST_F(LumShowArpNdCache, WithoutOverlaysPrintsItsTitle)
{
    EXPECT_EQ(run(lum_show_arp_nd_cache_cmd), TITLE);
}

TEST_F(LumShowArpNdCache, PrintsTheHeaderForAnEmptyCacheToo)
{
    make_overlay(OVERLAY);
    lum_overlay &second = make_overlay(OVERLAY2);
    cache(second, 10, ipv4(10, 0, 0, 2), "02:00:00:00:00:02");
    lum_cache_arp_nd(second, 0, ipv6("2001:db8::3"), 10, mac("02:00:00:00:00:03").data());
    platform.advance(83);
    cache(second, 10, ipv4(10, 0, 0, 1), "02:00:00:00:00:01");
    EXPECT_EQ(run(lum_show_arp_nd_cache_cmd), std::string(TITLE) + HEADER + HEADER +
                                                  "10/02:00:00:00:00:01  00:00:00  10.0.0.1\n"
                                                  "10/02:00:00:00:00:02  00:01:23  10.0.0.2\n"
                                                  "10/02:00:00:00:00:03  00:01:23  2001:db8::3\n");
}

TEST_F(LumShowArpNdCache, StoppedOutputEndsTheCommand)
{
    cache(make_overlay(OVERLAY), 10, ipv4(10, 0, 0, 1), "02:00:00:00:00:01");
    cache(*lum_get_overlay(OVERLAY), 10, ipv4(10, 0, 0, 2), "02:00:00:00:00:02");
    make_overlay(OVERLAY2);
    platform.stop_output_after = 0;
    EXPECT_EQ(run(lum_show_arp_nd_cache_cmd),
              std::string(TITLE) + HEADER + "10/02:00:00:00:00:01  00:00:00  10.0.0.1\n");
}

TEST_F(LumShowArpNdCache, GivesTheLockUpBeforeEachOverlayAndPrintsNoneThatWentMeanwhile)
{
    cache(make_overlay(OVERLAY), 10, ipv4(10, 0, 0, 1), "02:00:00:00:00:01");
    lum_overlay *second = &make_overlay(OVERLAY2);
    int yields = 0;
    platform.on_yield = [&] {
        if (++yields == 2)
            lum_destroy_overlay(&second);
    };
    EXPECT_EQ(run(lum_show_arp_nd_cache_cmd),
              std::string(TITLE) + HEADER + "10/02:00:00:00:00:01  00:00:00  10.0.0.1\n");
    EXPECT_GE(yields, 2);
}

TEST_F(LumShowArpNdCache, YieldsBetweenEntriesAndResumesBehindTheLast)
{
    lum_overlay &overlay = make_overlay();
    cache(overlay, 10, ipv4(10, 0, 0, 1), "02:00:00:00:00:01");
    cache(overlay, 10, ipv4(10, 0, 0, 3), "02:00:00:00:00:03");
    platform.slice_used_up = true;
    bool once = false;
    platform.on_yield = [&] {
        if (platform.may_yields != 0 && !std::exchange(once, true))
            cache(overlay, 10, ipv4(10, 0, 0, 2), "02:00:00:00:00:02");
    };
    EXPECT_EQ(run(lum_show_arp_nd_cache_cmd), std::string(TITLE) + HEADER +
                                                  "10/02:00:00:00:00:01  00:00:00  10.0.0.1\n"
                                                  "10/02:00:00:00:00:02  00:00:00  10.0.0.2\n"
                                                  "10/02:00:00:00:00:03  00:00:00  10.0.0.3\n");
}

TEST_F(LumShowArpNdCache, AnOverlayThatGoesDuringAYieldEndsItsWalk)
{
    lum_overlay *overlay = &make_overlay();
    cache(*overlay, 10, ipv4(10, 0, 0, 1), "02:00:00:00:00:01");
    cache(*overlay, 10, ipv4(10, 0, 0, 3), "02:00:00:00:00:03");
    platform.slice_used_up = true;
    platform.on_yield = [&] {
        if (platform.may_yields != 0)
            lum_destroy_overlay(&overlay);
    };
    EXPECT_EQ(run(lum_show_arp_nd_cache_cmd),
              std::string(TITLE) + HEADER + "10/02:00:00:00:00:01  00:00:00  10.0.0.1\n");
    EXPECT_EQ(overlay, nullptr);
}

struct LumShowOverlayAdj : ControlTest {
    static constexpr char TITLE[] = "Overlay Adjacency database\n";
};

TEST_F(LumShowOverlayAdj, WithoutRecordsPrintsItsTitle)
{
    EXPECT_EQ(run(lum_show_overlay_adj_cmd), TITLE);
}

TEST_F(LumShowOverlayAdj, PrintsAHeaderWheneverTheOverlayChanges)
{
    platform.add_interface(44, "Tunnel44", {.tunnel = true});
    lum_add_static_tunnel(lum_addr_ipv4(ipv4(198, 51, 100, 9)), "Tunnel44");
    lum_add_overlay_adj_internal(OVERLAY2, {2, 0, 0, 0, 0, 3}, lum_addr_ipv6(ipv6("2001:db8::9")));
    lum_add_overlay_adj_internal(OVERLAY, {2, 0, 0, 0, 0, 1}, lum_addr_ipv4(ipv4(198, 51, 100, 9)));
    lum_add_overlay_adj_internal(OVERLAY, {2, 0, 0, 0, 0, 2}, lum_addr_ipv4(ipv4(198, 51, 100, 10)));
    EXPECT_EQ(run(lum_show_overlay_adj_cmd),
              std::string(TITLE) +
                  "\n"
                  "Overlay-Interface Overlay1 :\n"
                  "System-ID            Address                                  Tunnel-IOD\n"
                  "02:00:00:00:00:01    198.51.100.9                                     44\n"
                  "02:00:00:00:00:02    198.51.100.10                                     0\n"
                  "\n"
                  "Overlay-Interface Overlay2 :\n"
                  "System-ID            Address                                  Tunnel-IOD\n"
                  "02:00:00:00:00:03    2001:db8::9                                       0\n");
}

TEST_F(LumShowOverlayAdj, FollowsTheOrderOfTheDatabaseAndNotOfTheIods)
{
    // Keys are in byte order, so iod 256 stands before iod 1 on a machine with the low byte first.
    lum_add_overlay_adj_internal(1, {2, 0, 0, 0, 0, 1}, lum_addr_ipv4(1));
    lum_add_overlay_adj_internal(256, {2, 0, 0, 0, 0, 2}, lum_addr_ipv4(1));
    const std::string output = run(lum_show_overlay_adj_cmd);
    EXPECT_EQ(output, std::string(TITLE) +
                          "\nOverlay-Interface  :\n"
                          "System-ID            Address                                  Tunnel-IOD\n"
                          "02:00:00:00:00:02    0.0.0.1                                           0\n"
                          "\nOverlay-Interface eth1 :\n"
                          "System-ID            Address                                  Tunnel-IOD\n"
                          "02:00:00:00:00:01    0.0.0.1                                           0\n");
}

TEST_F(LumShowOverlayAdj, LeavesOutRecordsOfAnotherSize)
{
    ASSERT_NE(hakit_sdb_update(lum_sdb_handle, key(1, OVERLAY).data(), 33, "short", 5, 1), 0);
    EXPECT_EQ(run(lum_show_overlay_adj_cmd), TITLE);
}

TEST_F(LumShowOverlayAdj, StoppedOutputEndsTheWalk)
{
    lum_add_overlay_adj_internal(OVERLAY, {2, 0, 0, 0, 0, 1}, lum_addr_ipv4(1));
    lum_add_overlay_adj_internal(OVERLAY, {2, 0, 0, 0, 0, 2}, lum_addr_ipv4(2));
    platform.stop_output_after = 0;
    EXPECT_THAT(run(lum_show_overlay_adj_cmd), AllOf(HasSubstr("00:01"), Not(HasSubstr("00:02"))));
}

struct LumShowInternalSdb : ControlTest {};

TEST_F(LumShowInternalSdb, DumpsTheOverlayRecords)
{
    lum_overlay &overlay = make_up_overlay();
    std::strcpy(overlay.vpn_name, "blue");
    lum_sdb_update_overlay(overlay);
    lum_sdb_update_overlay(make_overlay(OVERLAY2));
    EXPECT_EQ(run(lum_show_internal_sdb_cmd, {{"overlay", ""}}),
              "Overlay iod: 100, name: blue, state: 2, Reason: 0\n"
              "External iod: 5\n"
              "IPv4 group: 239.1.1.1, IPv6 group: ::\n"
              "Overlay iod: 101, name: , state: 1, Reason: 1\n"
              "External iod: 0\n"
              "IPv4 group: 0.0.0.0, IPv6 group: ::\n");
}

TEST_F(LumShowInternalSdb, DumpsTheRawIpv6GroupFieldAsItIsPublished)
{
    lum_overlay &overlay = make_overlay();
    overlay.ipv6_group = lum_addr_next_hop(OVERLAY, ipv6("ff05:1:2:3::"));
    lum_sdb_update_overlay(overlay);
    EXPECT_THAT(run(lum_show_internal_sdb_cmd, {{"overlay", ""}}),
                HasSubstr("IPv6 group: 6400:0:500:0:ff05:1:2:3\n"));
}

TEST_F(LumShowInternalSdb, DumpsTheAdjacencyRecords)
{
    lum_add_overlay_adj_internal(OVERLAY, {2, 0, 0, 0, 0, 1}, lum_addr_ipv4(ipv4(198, 51, 100, 9)));
    lum_add_overlay_adj_internal(OVERLAY, {2, 0, 0, 0, 0, 2}, lum_addr_ipv6(ipv6("2001:db8::9")));
    EXPECT_THAT(run(lum_show_internal_sdb_cmd, {{"adjacency", ""}}),
                AllOf(HasSubstr("iod: 100, mac: 02:00:00:00:00:01, 198.51.100.9\n"),
                      HasSubstr("iod: 100, mac: 02:00:00:00:00:02, 2001:db8::9\n")));
}

TEST_F(LumShowInternalSdb, PrintsNothingForNeither)
{
    lum_sdb_update_overlay(make_overlay());
    EXPECT_EQ(run(lum_show_internal_sdb_cmd), "");
}

TEST_F(LumShowInternalSdb, PrintsNothingWhenTheDatabaseCannotBeRead)
{
    lum_sdb_update_overlay(make_overlay());
    platform.fail("sdb_iterator_create");
    EXPECT_EQ(run(lum_show_internal_sdb_cmd, {{"overlay", ""}}), "");
}

} // namespace
