// Static routes, static tunnels and the route-table client.
#include "control_test.h"

#include <cstring>

using namespace fake;
using namespace testing;

namespace
{

constexpr char HOST[] = "10/02:00:00:00:0b:10";
const lum_mac_info HOST_INFO{10, mac("02:00:00:00:0b:10")};
constexpr char GROUP_MAC[] = "10/01:00:5e:01:01:01";
const lum_mac_info GROUP_INFO{10, mac("01:00:5e:01:01:01")};

struct StaticTest : ControlTest {
    static command_result route(const command_arguments &arguments, bool no = false)
    {
        platform.forget();
        return platform.command(lum_route_cmd, arguments, no);
    }
    static std::vector<const lum_static_entry *> entries(const rqueue &queue)
    {
        std::vector<const lum_static_entry *> list;
        for (const rqueue_link *link = queue.head; link != nullptr; link = link->next)
            list.push_back(reinterpret_cast<const lum_static_entry *>(link));
        EXPECT_EQ(list.size(), queue.count);
        return list;
    }
    // Next hops of the update that was sent, in its order.
    static std::vector<rtab_addr> sent_next_hops()
    {
        EXPECT_THAT(platform.route_updates, SizeIs(1));
        std::vector<rtab_addr> list;
        for (std::size_t i = 0; i < platform.route_updates.at(0).count; ++i)
            list.push_back(platform.route_updates[0].element(i).host<rtab_addr>(24));
        return list;
    }
    static std::vector<std::string> next_hop_texts()
    {
        std::vector<std::string> texts;
        for (const rtab_addr &next_hop : sent_next_hops()) {
            lum_text text;
            texts.emplace_back(std::to_string(next_hop.kind) + " " + lum_print_addr(next_hop, text));
        }
        return texts;
    }
    static void expect_rejected(const command_result &result, const std::string &message)
    {
        EXPECT_EQ(result.status, -500);
        EXPECT_EQ(result.output, message);
        EXPECT_THAT(platform.route_updates, IsEmpty());
    }
};

// ---- the queue

struct LumStaticQueue : StaticTest {};

TEST_F(LumStaticQueue, FindsTheFirstEntryOfMacAndNextHop)
{
    const lum_addr first = lum_addr_iod(1), second = lum_addr_iod(2);
    const lum_static_entry *a = lum_add_static_route(HOST_INFO, first, "eth1");
    const lum_static_entry *b = lum_add_static_route(HOST_INFO, second, nullptr);
    lum_add_static_route(HOST_INFO, first, "eth1");
    EXPECT_EQ(lum_get_static_route(HOST_INFO, first), a);
    EXPECT_EQ(lum_get_static_route(HOST_INFO, second), b);
    EXPECT_EQ(lum_get_static_route({11, HOST_INFO.mac}, first), nullptr);
    EXPECT_EQ(lum_get_static_route({10, mac("02:00:00:00:0b:11")}, first), nullptr);
    EXPECT_EQ(lum_get_static_route(HOST_INFO, lum_addr_iod(3)), nullptr);
    EXPECT_EQ(lum_get_static_ecmp(HOST_INFO), 3u);
    EXPECT_EQ(lum_get_static_ecmp({11, HOST_INFO.mac}), 0u);
}

TEST_F(LumStaticQueue, ANameOfFortyCharactersHasNoTerminator)
{
    const std::string name(60, 'n');
    const lum_static_entry *entry = lum_add_static_route(HOST_INFO, lum_addr_iod(1), name.c_str());
    EXPECT_EQ(std::string(entry->if_name, 40), std::string(40, 'n'));
    const lum_static_entry *unnamed = lum_add_static_route(HOST_INFO, lum_addr_iod(1), nullptr);
    EXPECT_EQ(unnamed->if_name[0], '\0');
}

TEST_F(LumStaticQueue, DeletesOneEntryAndKeepsTheOrderOfTheOthers)
{
    for (std::uint32_t iod = 1; iod <= 4; ++iod)
        lum_add_static_route(HOST_INFO, lum_addr_iod(iod), nullptr);
    lum_delete_static_route(HOST_INFO, lum_addr_iod(2));
    lum_delete_static_route(HOST_INFO, lum_addr_iod(4));
    lum_delete_static_route(HOST_INFO, lum_addr_iod(9));
    const auto left = entries(lum_staticQ);
    ASSERT_THAT(left, SizeIs(2));
    EXPECT_EQ(lum_addr_word(left[0]->next_hop, 0), 1u);
    EXPECT_EQ(lum_addr_word(left[1]->next_hop, 0), 3u);
    EXPECT_EQ(platform.memory_blocks(3), 2u);
    EXPECT_EQ(lum_get_static_ecmp(HOST_INFO), 2u);
}

TEST_F(LumStaticQueue, ManyMacsAreFoundEachWithItsOwnRoutesInQueueOrder)
{
    const auto nth = [](std::uint32_t i) {
        return lum_mac_info{i % 7, {2, 0, 0, 0, static_cast<std::uint8_t>(i >> 8), static_cast<std::uint8_t>(i)}};
    };
    constexpr std::uint32_t COUNT = 12000;       // several to a place of the index
    for (const std::uint32_t iod : {1u, 2u, 3u})
        for (std::uint32_t i = 0; i < COUNT; ++i)
            lum_add_static_route(nth(i), lum_addr_iod(iod), nullptr);
    for (std::uint32_t i = 0; i < COUNT; i += 2)
        lum_delete_static_route(nth(i), lum_addr_iod(i % 4 == 0 ? 1 : 3));
    for (std::uint32_t i = 0; i < COUNT; ++i) {
        std::vector<std::uint32_t> iods;
        for (const lum_static_entry *e = lum_first_static_route(nth(i)); e != nullptr; e = lum_next_static_route(e))
            iods.push_back(lum_addr_word(e->next_hop, 0));
        const std::vector<std::uint32_t> expected = i % 2 != 0   ? std::vector<std::uint32_t>{1, 2, 3}
                                                    : i % 4 == 0 ? std::vector<std::uint32_t>{2, 3}
                                                                 : std::vector<std::uint32_t>{1, 2};
        ASSERT_EQ(iods, expected) << i;
    }
    EXPECT_EQ(lum_staticQ.count, COUNT * 5 / 2);
}

TEST_F(LumStaticQueue, StaysAsItIsWithoutMemory)
{
    platform.fail("memacct_alloc");
    EXPECT_EQ(lum_add_static_route(HOST_INFO, lum_addr_iod(1), nullptr), nullptr);
    EXPECT_EQ(lum_staticQ.count, 0u);
    EXPECT_EQ(lum_get_static_ecmp(HOST_INFO), 0u);
}

// ---- MAC routes

struct LumRouteCommand : StaticTest {};

TEST_F(LumRouteCommand, ThroughAnInterfaceIsKeptAndSent)
{
    const command_result result = route({{"<mac-info>", HOST}, {"<if-name>", "eth1"}});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "");
    const auto list = entries(lum_staticQ);
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_EQ(list[0]->mac, HOST_INFO);
    EXPECT_TRUE(lum_addr_equal(list[0]->next_hop, lum_addr_iod(PORT)));
    EXPECT_STREQ(list[0]->if_name, "eth1");
    EXPECT_THAT(next_hop_texts(), ElementsAre("1 eth1"));
    const rtab_route *found = platform.find_route(HOST_INFO);
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->is_static, 1);
}

TEST_F(LumRouteCommand, ALaterArgumentOverridesAnEarlierOne)
{
    route({{"<mac-info>", HOST}, {"<if-name>", "Overlay1"}, {"<nh>", "198.51.100.9"}});
    EXPECT_TRUE(lum_addr_equal(entries(lum_staticQ).at(0)->next_hop, remote(OVERLAY, ipv4(198, 51, 100, 9))));
    route({{"<mac-info>", HOST}, {"<if-name>", "Overlay1"}, {"<nh>", "198.51.100.9"}, {"<nh6>", "2001:db8::9"}});
    EXPECT_TRUE(lum_addr_equal(entries(lum_staticQ).at(1)->next_hop, remote(OVERLAY, ipv6("2001:db8::9"))));
}

TEST_F(LumRouteCommand, ANextHopWithoutInterfaceHasIodZeroAndIsSent)
{
    route({{"<mac-info>", HOST}, {"<nh>", "198.51.100.9"}});
    EXPECT_EQ(lum_next_hop_iod(entries(lum_staticQ).at(0)->next_hop), 0u);
    EXPECT_THAT(next_hop_texts(), ElementsAre("6 198.51.100.9"));
}

TEST_F(LumRouteCommand, AnAddedRouteCarriesAllNextHopsTheNewestLast)
{
    route({{"<mac-info>", HOST}, {"<nh>", "198.51.100.1"}});
    route({{"<mac-info>", "11/02:00:00:00:0b:10"}, {"<nh>", "198.51.100.77"}});
    route({{"<mac-info>", HOST}, {"<nh>", "198.51.100.2"}});
    EXPECT_THAT(next_hop_texts(), ElementsAre("6 198.51.100.1", "6 198.51.100.2"));
    route({{"<mac-info>", HOST}, {"<nh>", "198.51.100.3"}});
    EXPECT_THAT(next_hop_texts(), ElementsAre("6 198.51.100.1", "6 198.51.100.2", "6 198.51.100.3"));
    EXPECT_EQ(platform.find_route(HOST_INFO)->nexthop_count, 3u);
}

TEST_F(LumRouteCommand, ARepeatedNextHopIsSentOnceAndCountsTwice)
{
    route({{"<mac-info>", HOST}, {"<nh>", "198.51.100.1"}});
    route({{"<mac-info>", HOST}, {"<nh>", "198.51.100.2"}});
    route({{"<mac-info>", HOST}, {"<nh>", "198.51.100.1"}});
    EXPECT_THAT(next_hop_texts(), ElementsAre("6 198.51.100.2", "6 198.51.100.1"));
    EXPECT_EQ(lum_get_static_ecmp(HOST_INFO), 3u);
}

TEST_F(LumRouteCommand, AFifthNextHopIsRefused)
{
    for (const char *next_hop : {"198.51.100.1", "198.51.100.2", "198.51.100.3", "198.51.100.3"})
        EXPECT_EQ(route({{"<mac-info>", HOST}, {"<nh>", next_hop}}).status, 0);
    expect_rejected(route({{"<mac-info>", HOST}, {"<nh>", "198.51.100.5"}}),
                    "Maximum supported next-hops for static entries is 4\n");
    EXPECT_EQ(lum_staticQ.count, 4u);
    EXPECT_EQ(route({{"<mac-info>", "11/02:00:00:00:0b:10"}, {"<nh>", "198.51.100.5"}}).status, 0);
}

TEST_F(LumRouteCommand, AMalformedMacIsRefusedInBothForms)
{
    expect_rejected(route({{"<mac-info>", "4096/02:00:00:00:0b:10"}, {"<if-name>", "eth1"}}), "Illegal VLAN-id\n");
    expect_rejected(route({{"<mac-info>", "x"}, {"<if-name>", "eth1"}}, true), "Illegal VLAN-id\n");
    EXPECT_EQ(lum_staticQ.count, 0u);
}

TEST_F(LumRouteCommand, ThroughADownInterfaceIsKeptAndNotSent)
{
    platform.interface(PORT).up = false;
    EXPECT_EQ(route({{"<mac-info>", HOST}, {"<if-name>", "eth1"}}).status, 0);
    EXPECT_EQ(lum_staticQ.count, 1u);
    EXPECT_THAT(platform.route_updates, IsEmpty());
}

TEST_F(LumRouteCommand, ThroughAnUnknownInterfaceIsKeptWithItsNameAndNotSent)
{
    EXPECT_EQ(route({{"<mac-info>", HOST}, {"<if-name>", "eth77"}}).status, 0);
    EXPECT_EQ(route({{"<mac-info>", HOST}, {"<if-name>", "eth77"}, {"<nh>", "198.51.100.9"}}).status, 0);
    EXPECT_THAT(platform.route_updates, IsEmpty());
    EXPECT_STREQ(entries(lum_staticQ).at(0)->if_name, "eth77");
}

TEST_F(LumRouteCommand, IsDeletedWithTheNextHopThatGoes)
{
    route({{"<mac-info>", HOST}, {"<nh>", "198.51.100.1"}});
    route({{"<mac-info>", HOST}, {"<nh>", "198.51.100.2"}});
    EXPECT_EQ(route({{"<mac-info>", HOST}, {"<nh>", "198.51.100.1"}}, true).status, 0);
    EXPECT_THAT(next_hop_texts(), ElementsAre("6 198.51.100.1"));
    EXPECT_EQ(lum_staticQ.count, 1u);
    EXPECT_EQ(platform.find_route(HOST_INFO)->nexthop_count, 1u);
}

TEST_F(LumRouteCommand, DeletingARouteThatNeverWasStillTellsTheTable)
{
    EXPECT_EQ(route({{"<mac-info>", HOST}, {"<if-name>", "eth1"}}, true).status, 0);
    EXPECT_THAT(next_hop_texts(), ElementsAre("1 eth1"));
}

TEST_F(LumRouteCommand, DeletingThroughADownInterfaceForgetsTheEntryAndTellsNobody)
{
    route({{"<mac-info>", HOST}, {"<if-name>", "eth1"}});
    platform.interface(PORT).up = false;
    EXPECT_EQ(route({{"<mac-info>", HOST}, {"<if-name>", "eth1"}}, true).status, 0);
    EXPECT_EQ(lum_staticQ.count, 0u);
    EXPECT_THAT(platform.route_updates, IsEmpty());
}

TEST_F(LumRouteCommand, AMulticastMacNeedsAnInterface)
{
    const char *message = "Invalid next-hop for multicast MAC address\n";
    for (const bool no : {false, true}) {
        expect_rejected(route({{"<mac-info>", GROUP_MAC}, {"<nh>", "198.51.100.9"}}, no), message);
        expect_rejected(route({{"<mac-info>", GROUP_MAC}, {"<if-name>", "eth1"}, {"<nh>", "198.51.100.9"}}, no),
                        message);
        expect_rejected(route({{"<mac-info>", GROUP_MAC}}, no), message);
    }
    EXPECT_EQ(lum_staticQ.count, 0u);
    EXPECT_EQ(route({{"<mac-info>", GROUP_MAC}, {"<if-name>", "eth1"}}).status, 0);
    EXPECT_THAT(platform.mroute_iods(GROUP_INFO), ElementsAre(PORT));
}

TEST_F(LumRouteCommand, AMulticastMacTakesAnyNumberEachSentAlone)
{
    for (std::uint32_t iod = 11; iod < 17; ++iod) {
        platform.add_interface(iod, "eth" + std::to_string(iod), {.switchport = true});
        EXPECT_EQ(route({{"<mac-info>", GROUP_MAC}, {"<if-name>", "eth" + std::to_string(iod)}}).status, 0);
        EXPECT_THAT(sent_next_hops(), SizeIs(1));
    }
    EXPECT_THAT(platform.mroute_iods(GROUP_INFO), ElementsAre(11, 12, 13, 14, 15, 16));
}

TEST_F(LumRouteCommand, AMulticastMacDoesNotWaitForItsInterface)
{
    platform.interface(PORT).up = false;
    route({{"<mac-info>", GROUP_MAC}, {"<if-name>", "eth1"}});
    EXPECT_THAT(platform.route_updates, SizeIs(1));
}

TEST_F(LumRouteCommand, BroadcastCountsAsUnicast)
{
    EXPECT_EQ(route({{"<mac-info>", "10/ff:ff:ff:ff:ff:ff"}, {"<nh>", "198.51.100.9"}}).status, 0);
    EXPECT_THAT(next_hop_texts(), ElementsAre("6 198.51.100.9"));
}

TEST_F(LumRouteCommand, IsSentAlsoWhenThereIsNoMemoryToKeepIt)
{
    platform.fail("memacct_alloc");
    const command_result result = platform.command(lum_route_cmd, {{"<mac-info>", HOST}, {"<if-name>", "eth1"}});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(lum_staticQ.count, 0u);
    EXPECT_THAT(next_hop_texts(), ElementsAre("1 eth1"));
}

// ---- multicast IP routes

struct LumMrouteCommand : StaticTest {
    static command_result mroute(const command_arguments &arguments, bool no = false)
    {
        platform.forget();
        return platform.command(lum_mroute_cmd, arguments, no);
    }
};

TEST_F(LumMrouteCommand, MapsTheGroupToItsMacAndAddsTheInterface)
{
    const command_result result = mroute({{"<vlan-id>", "10"}, {"<ga>", "239.129.1.1"}, {"<if-name>", "eth1"}});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(platform.mroute_iods(GROUP_INFO), ElementsAre(PORT));        // the ninth bit is not mapped
    EXPECT_EQ(lum_staticQ.count, 0u);
    EXPECT_EQ(mroute({{"<vlan-id>", "10"}, {"<ga>", "239.129.1.1"}, {"<if-name>", "eth1"}}, true).status, 0);
    EXPECT_THAT(platform.mroute_iods(GROUP_INFO), IsEmpty());
}

TEST_F(LumMrouteCommand, SourcesAreKeptApart)
{
    mroute({{"<vlan-id>", "10"}, {"<ga>", "239.1.1.1"}, {"<sa>", "10.0.0.1"}, {"<if-name>", "eth1"}});
    mroute({{"<vlan-id>", "10"}, {"<ga>", "239.1.1.1"}, {"<if-name>", "Overlay1"}});
    EXPECT_THAT(platform.mroute_iods(GROUP_INFO), ElementsAre(PORT, OVERLAY));
    mroute({{"<vlan-id>", "10"}, {"<ga>", "239.1.1.1"}, {"<if-name>", "eth1"}}, true);   // of no source
    EXPECT_THAT(platform.mroute_iods(GROUP_INFO), ElementsAre(PORT, OVERLAY));
    mroute({{"<vlan-id>", "10"}, {"<ga>", "239.1.1.1"}, {"<sa>", "10.0.0.1"}, {"<if-name>", "eth1"}}, true);
    EXPECT_THAT(platform.mroute_iods(GROUP_INFO), ElementsAre(OVERLAY));
}

TEST_F(LumMrouteCommand, AnIpv6GroupIsAlwaysRefused)
{
    for (const bool no : {false, true})
        expect_rejected(mroute({{"<vlan-id>", "10"}, {"<ga6>", "ff05::1"}, {"<if-name>", "eth1"}}, no),
                        "To be implemented\n");
}

TEST_F(LumMrouteCommand, ADownOrUnknownInterfaceIsRefused)
{
    platform.interface(PORT).up = false;
    for (const bool no : {false, true}) {
        expect_rejected(mroute({{"<vlan-id>", "10"}, {"<ga>", "239.1.1.1"}, {"<if-name>", "eth1"}}, no),
                        "Interface down\n");
        expect_rejected(mroute({{"<vlan-id>", "10"}, {"<ga>", "239.1.1.1"}, {"<if-name>", "eth77"}}, no),
                        "Interface down\n");
    }
}

TEST_F(LumMrouteCommand, AnAddressThatIsNoGroupKeepsAZeroMac)
{
    mroute({{"<vlan-id>", "10"}, {"<ga>", "10.1.1.1"}, {"<if-name>", "eth1"}});
    EXPECT_EQ(platform.route_updates.at(0).element(0).mac(4), mac("00:00:00:00:00:00"));
    EXPECT_EQ(platform.route_updates.at(0).element(0).host32(0), 10u);
}

// ---- tunnels

struct LumStaticTunnelCommand : StaticTest {
    static int tunnel(const command_arguments &arguments, bool no = false)
    {
        const command_result result = platform.command(lum_static_tunnel_cmd, arguments, no);
        EXPECT_EQ(result.output, "");
        EXPECT_THAT(platform.route_updates, IsEmpty());
        return result.status;
    }
};

TEST_F(LumStaticTunnelCommand, KeepsAddressAndNameWithoutValidation)
{
    EXPECT_EQ(tunnel({{"<nh>", "198.51.100.9"}, {"<if-name>", "Tunnel9"}}), 0);
    EXPECT_EQ(tunnel({{"<nh>", "198.51.100.9"}, {"<if-name>", "Tunnel9"}}), 0);
    EXPECT_EQ(tunnel({{"<nh6>", "2001:db8::9"}, {"<if-name>", "Tunnel6"}}), 0);
    const auto list = entries(lum_static_tunnelQ);
    ASSERT_THAT(list, SizeIs(3));
    EXPECT_EQ(list[0]->mac, lum_mac_info{});
    EXPECT_EQ(list[0]->next_hop.kind, 4u);
    EXPECT_EQ(list[2]->next_hop.kind, 5u);
    EXPECT_STREQ(list[2]->if_name, "Tunnel6");
    EXPECT_EQ(lum_get_static_tunnel(lum_addr_ipv4(ipv4(198, 51, 100, 9))), list[0]);
    EXPECT_EQ(lum_get_static_tunnel(lum_addr_ipv6(ipv6("2001:db8::9"))), list[2]);
    EXPECT_EQ(lum_get_static_tunnel(lum_addr_ipv4(ipv4(198, 51, 100, 8))), nullptr);
}

TEST_F(LumStaticTunnelCommand, AnIpv6AddressOverridesAnIpv4One)
{
    tunnel({{"<nh>", "198.51.100.9"}, {"<nh6>", "2001:db8::9"}, {"<if-name>", "Tunnel6"}});
    EXPECT_EQ(entries(lum_static_tunnelQ).at(0)->next_hop.kind, 5u);
}

TEST_F(LumStaticTunnelCommand, RemovalTakesOneEntryAndAnAbsentOneIsNoError)
{
    tunnel({{"<nh>", "198.51.100.9"}, {"<if-name>", "Tunnel9"}});
    tunnel({{"<nh>", "198.51.100.9"}, {"<if-name>", "Tunnel8"}});
    EXPECT_EQ(tunnel({{"<nh>", "198.51.100.9"}}, true), 0);
    EXPECT_STREQ(entries(lum_static_tunnelQ).at(0)->if_name, "Tunnel8");
    EXPECT_EQ(tunnel({{"<nh>", "198.51.100.1"}}, true), 0);
    EXPECT_EQ(lum_static_tunnelQ.count, 1u);
}

// ---- re-resolution

struct LumResolveStaticRoutes : StaticTest {};

TEST_F(LumResolveStaticRoutes, WithoutEntriesOrMatchesNothingIsSent)
{
    lum_resolve_static_routes(PORT);
    lum_add_static_route(HOST_INFO, lum_addr_iod(CORE), "eth5");
    lum_add_static_route(GROUP_INFO, lum_addr_iod(PORT), "eth1");    // multicast is left out
    lum_add_static_route(HOST_INFO, lum_addr_next_hop(0, 1u), nullptr);
    lum_resolve_static_routes(PORT);
    lum_resolve_static_routes(300);              // an unknown interface has no name to match
    EXPECT_THAT(platform.route_updates, IsEmpty());
}

TEST_F(LumResolveStaticRoutes, AnInterfaceThatComesUpSendsItsRoutesWithTheirIodFilledIn)
{
    lum_add_static_route(HOST_INFO, lum_addr_iod(0), "eth1");
    lum_add_static_route(HOST_INFO, lum_addr_iod(CORE), "eth5");
    lum_add_static_route({11, HOST_INFO.mac}, lum_addr_next_hop(0, ipv4(198, 51, 100, 9)), "eth1");
    lum_resolve_static_routes(PORT);

    ASSERT_THAT(platform.route_updates, SizeIs(1));
    const route_update &update = platform.route_updates[0];
    EXPECT_EQ(update.count, 2);
    EXPECT_EQ(update.length, 68u + 2 * 52);
    EXPECT_EQ(update.flags, 0u);
    bytes first;
    first.add_host32(10).add({2, 0, 0, 0, 0x0B, 0x10}).add8(0).add8(1).add8(0).add8(1).add_zeros(2 + 4);
    first.add_host16(52).add_zeros(2).add_host32(1).add_host32(PORT).add_zeros(20);
    EXPECT_EQ(to_hex(update.element(0)), to_hex(first));
    bytes second;
    second.add_host32(11).add({2, 0, 0, 0, 0x0B, 0x10}).add8(0).add8(1).add8(0).add8(1).add_zeros(2 + 4);
    second.add_host16(52).add_zeros(2).add_host32(6).add_host32(PORT).add_host32(4);
    second.add_host32(ipv4(198, 51, 100, 9)).add_zeros(12);
    EXPECT_EQ(to_hex(update.element(1)), to_hex(second));
    EXPECT_EQ(lum_addr_word(entries(lum_staticQ).at(0)->next_hop, 0), PORT);
    EXPECT_EQ(platform.memory_blocks(2), 0u);
}

TEST_F(LumResolveStaticRoutes, AnInterfaceThatGoesDownSendsItsRoutesAsAbsentAndKeepsTheirIod)
{
    lum_add_static_route(HOST_INFO, lum_addr_iod(PORT), "eth1");
    platform.interface(PORT).up = false;
    lum_resolve_static_routes(PORT);
    const bytes element = platform.route_updates.at(0).element(0);
    EXPECT_EQ(element.u8(11), 0);
    EXPECT_EQ(element.u8(12), 0);
    EXPECT_EQ(element.u8(13), 1);
    EXPECT_EQ(element.host32(28), PORT);
}

TEST_F(LumResolveStaticRoutes, ARouteConfiguredWhileDownReachesTheTableWhenTheInterfaceComesUp)
{
    platform.interface(PORT).up = false;
    route({{"<mac-info>", HOST}, {"<if-name>", "eth1"}});
    EXPECT_EQ(platform.find_route(HOST_INFO), nullptr);
    platform.interface(PORT).up = true;
    lum_resolve_static_routes(PORT);
    ASSERT_NE(platform.find_route(HOST_INFO), nullptr);
    platform.interface(PORT).up = false;
    lum_resolve_static_routes(PORT);
    EXPECT_EQ(platform.find_route(HOST_INFO), nullptr);
}

TEST_F(LumResolveStaticRoutes, MoreRoutesThanAnUpdateCanCountAreSentInTwo)
{
    for (std::uint32_t i = 0; i < 65535 + 2; ++i)
        lum_add_static_route({10, {2, 0, 0, static_cast<std::uint8_t>(i >> 16), static_cast<std::uint8_t>(i >> 8),
                                   static_cast<std::uint8_t>(i)}}, lum_addr_iod(0), "eth1");
    lum_resolve_static_routes(PORT);
    ASSERT_THAT(platform.route_updates, SizeIs(2));
    EXPECT_EQ(platform.route_updates[0].count, 65535);
    const route_update &rest = platform.route_updates[1];
    EXPECT_EQ(rest.count, 2);
    EXPECT_EQ(rest.length, 68u + 2 * 52);
    EXPECT_EQ(rest.buffer.range(0, 68), bytes(68));
    EXPECT_EQ(rest.element(0).mac(4), mac("02:00:00:00:ff:ff"));
    EXPECT_EQ(rest.element(1).mac(4), mac("02:00:00:01:00:00"));
}

TEST_F(LumResolveStaticRoutes, ANameOfFortyCharactersIsComparedAsFarAsItIsKept)
{
    const std::string name(40, 'n');
    platform.add_interface(50, name, {.switchport = true});
    lum_add_static_route(HOST_INFO, lum_addr_iod(0), name.c_str());
    lum_resolve_static_routes(50);
    EXPECT_THAT(platform.route_updates, SizeIs(1));
}

TEST_F(LumResolveStaticRoutes, WithoutMemoryNothingIsSent)
{
    lum_add_static_route(HOST_INFO, lum_addr_iod(0), "eth1");
    platform.fail("memacct_alloc");
    lum_resolve_static_routes(PORT);
    EXPECT_THAT(platform.route_updates, IsEmpty());
    EXPECT_EQ(lum_addr_word(entries(lum_staticQ).at(0)->next_hop, 0), 0u);
}

// ---- the maintenance command

struct LumRtabCommand : StaticTest {
    ~LumRtabCommand() override { rtab({{"rtab_api_close", ""}}); }           // gives its queue back
    static command_result rtab(const command_arguments &arguments)
    {
        platform.forget();
        return platform.command(lum_rtab_command, arguments);
    }
    static constexpr char SUCCEEDED[] = "API succeeded\n", FAILED[] = "API failed\n";
};

TEST_F(LumRtabCommand, InitBindsAQueueOfItsOwnAndOpensTheClientUnderTheGivenName)
{
    const command_result result = rtab({{"rtab_api_init", ""}, {"<client-name>", "probe"}});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, SUCCEEDED);
    const auto binds = platform.calls_of("mbus_bind");
    ASSERT_THAT(binds, SizeIs(1));
    EXPECT_EQ(binds[0].arguments[1], "LUM MBUS queue");
    EXPECT_EQ(binds[0].arguments[0], "0");       // a SAP that nobody else has
    const auto inits = platform.calls_of("rtab_api_init");
    ASSERT_THAT(inits, SizeIs(1));
    EXPECT_EQ(inits[0].arguments[1], "probe");
    EXPECT_NE(inits[0].number(0), lum_mbus_q);
}

TEST_F(LumRtabCommand, InitTwiceWorks)
{
    rtab({{"rtab_api_init", ""}, {"<client-name>", "probe"}});
    EXPECT_EQ(rtab({{"rtab_api_init", ""}, {"<client-name>", "probe"}}).output, SUCCEEDED);
}

TEST_F(LumRtabCommand, GivesItsQueueBackWhenItIsClosedOrOpenedAnew)
{
    rtab({{"rtab_api_init", ""}, {"<client-name>", "probe"}});
    const std::uint64_t first = platform.calls_of("rtab_api_init").at(0).number(0);
    rtab({{"rtab_api_init", ""}, {"<client-name>", "probe"}});
    const std::uint64_t second = platform.calls_of("rtab_api_init").at(0).number(0);
    ASSERT_THAT(platform.calls_of("mbus_unbind"), SizeIs(1));
    EXPECT_EQ(platform.calls_of("mbus_unbind")[0].number(0), first);
    rtab({{"rtab_api_close", ""}});
    ASSERT_THAT(platform.calls_of("mbus_unbind"), SizeIs(1));
    EXPECT_EQ(platform.calls_of("mbus_unbind")[0].number(0), second);
    rtab({{"rtab_api_close", ""}});
    EXPECT_THAT(platform.calls_of("mbus_unbind"), IsEmpty());
}

TEST_F(LumRtabCommand, AQueueThatCannotBeBoundIsReportedWithoutOutput)
{
    platform.fail("mbus_bind", 1, EMFILE);
    const command_result result = platform.command(lum_rtab_command, {{"rtab_api_init", ""}, {"<client-name>", "p"}});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(platform.syslog_texts(),
                ElementsAre("<<%LUM-3-MBUS_BIND>> Error returned from mbus_bind() for main mbus-q mbus queue, errno: "
                            "Too many open files"));
    EXPECT_EQ(platform.called("rtab_api_init"), 0u);
}

TEST_F(LumRtabCommand, SaysWhetherTheLastCallSucceeded)
{
    platform.fail("rtab_api_init");
    EXPECT_EQ(platform.command(lum_rtab_command, {{"rtab_api_init", ""}, {"<client-name>", "p"}}).output, FAILED);
    rtab({{"rtab_api_init", ""}, {"<client-name>", "p"}});
    EXPECT_EQ(rtab({{"rtab_api_close", ""}}).output, SUCCEEDED);
    EXPECT_EQ(rtab({{"rtab_api_close", ""}}).output, FAILED);        // it is not open any more
}

TEST_F(LumRtabCommand, AddSendsOneElementAndALengthThatLeavesTheHeaderOut)
{
    const command_result result = rtab({{"rtab_add_route", ""}, {"<mac>", HOST}, {"<if-name>", "eth1"}});
    EXPECT_EQ(result.output, SUCCEEDED);
    ASSERT_THAT(platform.route_updates, SizeIs(1));
    const route_update &update = platform.route_updates[0];
    EXPECT_EQ(update.count, 1);
    EXPECT_EQ(update.length, 52u);
    EXPECT_EQ(update.buffer.range(0, 68), bytes(68));
    bytes element;
    element.add_host32(10).add({2, 0, 0, 0, 0x0B, 0x10}).add8(0).add8(0).add8(1).add8(1).add_zeros(2);
    element.add_host32(10).add_host16(52).add_zeros(2).add_host32(1).add_host32(PORT).add_zeros(20);
    EXPECT_EQ(to_hex(update.element(0)), to_hex(element));
}

TEST_F(LumRtabCommand, DeleteHasOperationTwoAndNoWordAndNeedsNoNextHop)
{
    rtab({{"rtab_delete_route", ""}, {"<mac>", HOST}});
    bytes element;
    element.add_host32(10).add({2, 0, 0, 0, 0x0B, 0x10}).add8(0).add8(0).add8(2).add8(0).add_zeros(2);
    element.add_host32(0).add_host16(24).add_zeros(2 + 28);
    EXPECT_EQ(to_hex(platform.route_updates.at(0).element(0)), to_hex(element));
    EXPECT_EQ(platform.route_updates.at(0).length, 52u);
}

TEST_F(LumRtabCommand, TakesRemoteNextHopsOfBothFamilies)
{
    rtab({{"rtab_add_route", ""}, {"<mac>", HOST}, {"<if-name>", "Overlay1"}, {"<nh>", "198.51.100.9"}});
    EXPECT_TRUE(lum_addr_equal(sent_next_hops().at(0), remote(OVERLAY, ipv4(198, 51, 100, 9))));
    rtab({{"rtab_delete_route", ""}, {"<mac>", HOST}, {"<if-name>", "Overlay1"}, {"<nh6>", "2001:db8::9"}});
    EXPECT_TRUE(lum_addr_equal(sent_next_hops().at(0), remote(OVERLAY, ipv6("2001:db8::9"))));
}

TEST_F(LumRtabCommand, AnUpdateThatTheServiceRefusesFailed)
{
    platform.fail("rtab_update_route");
    EXPECT_EQ(platform.command(lum_rtab_command, {{"rtab_add_route", ""}, {"<mac>", HOST}}).output, FAILED);
}

TEST_F(LumRtabCommand, AMalformedMacIsRefused)
{
    expect_rejected(rtab({{"rtab_add_route", ""}, {"<mac>", "nonsense"}}), "Illegal VLAN-id\n");
}

} // namespace
