// Adjacencies and the election of the authoritative edge device.
#include "control_test.h"

#include <cstring>

using namespace fake;
using namespace testing;

namespace
{

constexpr lum_system_id ID1{0, 0, 0, 0, 0, 1}, ID2{0, 0, 0, 0, 0, 2}, ID3{0, 0, 0, 0, 0, 3};
constexpr lum_system_id REMOTE{0x02, 0, 0, 0, 0, 0xBB};
constexpr std::uint32_t REMOTE_IPV4 = 0xC6336409;                // 198.51.100.9

lum_addr address4() { return lum_addr_ipv4(REMOTE_IPV4); }
lum_addr address6() { return lum_addr_ipv6(ipv6("2001:db8::9")); }

struct LumOverlayAdj : ControlTest {
    static bytes adj_key4(std::uint32_t iod)
    {
        bytes k;
        k.add8(1).add_host32(iod).add_zeros(4).add_host32(REMOTE_IPV4);
        k.resize(33);
        return k;
    }
};

TEST_F(LumOverlayAdj, AnIpv4AdjacencyIsPublishedByteForByte)
{
    EXPECT_EQ(lum_add_overlay_adj_internal(OVERLAY, REMOTE, address4()), 1);
    ASSERT_THAT(platform.sdb_writes, SizeIs(1));
    EXPECT_EQ(platform.sdb_writes[0].key, adj_key4(OVERLAY));
    EXPECT_EQ(platform.sdb_writes[0].create, 1);
    bytes value;
    value.add_host32(OVERLAY).add_host32(4).add_host32(REMOTE_IPV4).add_zeros(12 + 8).add({2, 0, 0, 0, 0, 0xBB});
    value.add_zeros(2).add_host32(0);
    EXPECT_EQ(platform.sdb_writes[0].value, value);
    EXPECT_EQ(value.size(), 44u);
}

TEST_F(LumOverlayAdj, AnIpv6AdjacencyHasSixteenAddressBytesInItsKey)
{
    EXPECT_EQ(lum_add_overlay_adj_internal(OVERLAY, REMOTE, address6()), 1);
    bytes k;
    k.add8(1).add_host32(OVERLAY).add_zeros(4).add(ipv6("2001:db8::9")).add_zeros(8);
    EXPECT_EQ(platform.sdb_writes.at(0).key, k);
    EXPECT_EQ(platform.sdb_writes.at(0).value.host32(4), 5u);
    EXPECT_EQ(platform.sdb_writes.at(0).value.ipv6(8), ipv6("2001:db8::9"));
}

TEST_F(LumOverlayAdj, APublishedAdjacencyIsAnnouncedWithItsSystemId)
{
    lum_add_overlay_adj_internal(OVERLAY, REMOTE, address4());
    EXPECT_THAT(told(), ElementsAre("publish 1", "notify 78856"));
    EXPECT_EQ(platform.mbus_sent.at(0).payload.mac(36), REMOTE);
}

TEST_F(LumOverlayAdj, AnAdjacencyOfAnUnknownOverlayIsPublishedAllTheSame)
{
    EXPECT_EQ(lum_add_overlay_adj_internal(555, REMOTE, address4()), 1);
    EXPECT_EQ(platform.sdb_writes.at(0).key, adj_key4(555));
    EXPECT_THAT(told(), ElementsAre("publish 1", "notify 78856"));
}

TEST_F(LumOverlayAdj, CarriesTheInterfaceOfItsStaticTunnel)
{
    platform.add_interface(44, "Tunnel44", {.tunnel = true});
    lum_add_static_tunnel(address4(), "Tunnel44");
    lum_internal_debug_flag = 1;
    lum_add_overlay_adj_internal(OVERLAY, REMOTE, address4());
    EXPECT_EQ(platform.sdb_writes.at(0).value.host32(40), 44u);
    EXPECT_EQ(platform.mbus_sent.at(0).payload.host32(44), 44u);
    EXPECT_THAT(platform.trace_texts(),
                ElementsAre("Received add overlay_adj: Overlay1 sid 02:00:00:00:00:bb, addr 198.51.100.9",
                            "overlay_adj 198.51.100.9 tunnel 44 Tunnel44"));
}

TEST_F(LumOverlayAdj, ATunnelNameOfFortyCharactersIsReadWhole)
{
    const std::string name(40, 't');
    platform.add_interface(45, name, {.tunnel = true});
    lum_add_static_tunnel(address6(), name.c_str());
    lum_add_overlay_adj_internal(OVERLAY, REMOTE, address6());
    EXPECT_EQ(platform.sdb_writes.at(0).value.host32(40), 45u);
}

TEST_F(LumOverlayAdj, ATunnelToAnotherAddressIsNotItsTunnel)
{
    platform.add_interface(44, "Tunnel44", {.tunnel = true});
    lum_add_static_tunnel(address6(), "Tunnel44");
    lum_add_overlay_adj_internal(OVERLAY, REMOTE, address4());
    EXPECT_EQ(platform.sdb_writes.at(0).value.host32(40), 0u);
}

TEST_F(LumOverlayAdj, AnAdditionThatTheDatabaseRefusesIsNotAnnounced)
{
    platform.fail("hakit_sdb_update");
    lum_internal_debug_flag = 1;
    EXPECT_EQ(lum_add_overlay_adj_internal(OVERLAY, REMOTE, address4()), 0);
    EXPECT_THAT(platform.mbus_sent, IsEmpty());
    EXPECT_TRUE(platform.traced("Overlay-adj SDB update failed\n"));
}

TEST_F(LumOverlayAdj, ADeletionTakesTheKeyOutAndIsAnnouncedWithZeroIdAndTunnel)
{
    platform.add_interface(44, "Tunnel44", {.tunnel = true});
    lum_add_static_tunnel(address4(), "Tunnel44");
    lum_add_overlay_adj_internal(OVERLAY, REMOTE, address4());
    platform.forget();
    lum_internal_debug_flag = 1;
    EXPECT_EQ(lum_delete_overlay_adj_internal(OVERLAY, REMOTE, address4()), 1);
    EXPECT_THAT(told(), ElementsAre("unpublish 1", "notify 78856"));
    EXPECT_EQ(platform.sdb_value(adj_key4(OVERLAY)), nullptr);
    const bytes &payload = platform.mbus_sent.at(0).payload;
    EXPECT_EQ(payload.host32(0), OVERLAY);
    EXPECT_EQ(payload.host32(12), REMOTE_IPV4);
    EXPECT_EQ(payload.from(36), bytes(12));
    EXPECT_THAT(platform.trace_texts(),
                ElementsAre("Received delete overlay_adj: Overlay1 sid 02:00:00:00:00:bb, addr 198.51.100.9"));
}

TEST_F(LumOverlayAdj, ADeletionThatTheDatabaseRefusesIsNotAnnounced)
{
    platform.fail("hakit_sdb_delete");
    lum_internal_debug_flag = 1;
    EXPECT_EQ(lum_delete_overlay_adj_internal(OVERLAY, REMOTE, address4()), 0);
    EXPECT_THAT(platform.mbus_sent, IsEmpty());
    EXPECT_TRUE(platform.traced("Overlay-adj SDB delete failed\n"));
}

TEST_F(LumOverlayAdj, MulticastHooksDoNothingAndAnswerOne)
{
    EXPECT_EQ(lum_mcast_process_add_delete_adjacency(), 1);
    EXPECT_EQ(lum_mcast_process_rtab_notify(), 1);
    EXPECT_TRUE(platform.sent_nothing());
}

// ---- the list of site adjacencies

struct LumSiteAdjList : ControlTest {
    lum_overlay &overlay = make_overlay();

    void insert(const lum_system_id &id) { EXPECT_TRUE(lum_insert_site_adj(overlay, lum_create_site_adj(id))); }
    std::vector<int> ids() const
    {
        std::vector<int> list;
        const lum_site_adj *last = nullptr;
        for (const lum_site_adj *adj = overlay.adj_head; adj != nullptr; adj = adj->next) {
            list.push_back(adj->system_id[5]);
            EXPECT_EQ(adj->previous, last);
            last = adj;
        }
        EXPECT_EQ(overlay.adj_tail, last);
        EXPECT_EQ(overlay.adj_count, list.size());
        return list;
    }
    void remove(const lum_system_id &id)
    {
        lum_site_adj *adj = lum_get_site_adj(overlay, id, nullptr);
        ASSERT_NE(adj, nullptr);
        lum_remove_site_adj(overlay, adj);
        lum_destroy_site_adj(adj);
    }
};

TEST_F(LumSiteAdjList, IsKeptInTheOrderOfTheSystemIds)
{
    insert(ID2);
    EXPECT_THAT(ids(), ElementsAre(2));
    insert(ID3);
    EXPECT_THAT(ids(), ElementsAre(2, 3));
    insert(ID1);
    EXPECT_THAT(ids(), ElementsAre(1, 2, 3));
}

TEST_F(LumSiteAdjList, ComparesTheMostSignificantByteFirstAndUnsigned)
{
    insert({0x80, 0, 0, 0, 0, 1});
    insert({0x01, 0xFF, 0, 0, 0, 2});
    insert({0x80, 0, 0, 0, 0, 0});
    EXPECT_THAT(ids(), ElementsAre(2, 0, 1));
}

TEST_F(LumSiteAdjList, AnEqualIdIsNotLinkedAndCountsAsSuccess)
{
    insert(ID1);
    lum_site_adj *twin = lum_create_site_adj(ID1);
    EXPECT_TRUE(lum_insert_site_adj(overlay, twin));
    EXPECT_THAT(ids(), ElementsAre(1));
    lum_destroy_site_adj(twin);
}

TEST_F(LumSiteAdjList, RemovalKeepsHeadTailAndCount)
{
    insert(ID1);
    insert(ID2);
    insert(ID3);
    remove(ID2);
    EXPECT_THAT(ids(), ElementsAre(1, 3));
    remove(ID3);
    EXPECT_THAT(ids(), ElementsAre(1));
    remove(ID1);
    EXPECT_THAT(ids(), IsEmpty());
    EXPECT_EQ(overlay.adj_head, nullptr);
}

TEST_F(LumSiteAdjList, LookupStopsAtTheFirstGreaterIdAndNamesThePrevious)
{
    insert(ID1);
    insert(ID3);
    lum_site_adj *previous = nullptr;
    EXPECT_EQ(lum_get_site_adj(overlay, ID2, &previous), nullptr);
    EXPECT_EQ(previous, overlay.adj_head);
    EXPECT_EQ(lum_get_site_adj(overlay, ID3, &previous), overlay.adj_tail);
    EXPECT_EQ(previous, overlay.adj_head);
    EXPECT_EQ(lum_get_site_adj(overlay, {}, &previous), nullptr);
    EXPECT_EQ(previous, nullptr);
}

TEST_F(LumSiteAdjList, OrdinalsFollowTheListAndTheLocalOneIsKept)
{
    insert(ID1);
    insert(ID2);
    insert(ID3);
    overlay.adj_tail->local = 1;
    lum_reassign_ordinals(overlay);
    EXPECT_EQ(overlay.local_ordinal, 2u);
    EXPECT_EQ(overlay.adj_head->ordinal, 0u);
    EXPECT_EQ(overlay.adj_head->next->ordinal, 1u);
    remove(ID3);
    lum_reassign_ordinals(overlay);
    EXPECT_EQ(overlay.local_ordinal, 2u);        // nobody is local any more
}

// ---- site adjacencies and the election

struct LumSiteAdj : ControlTest {
    static std::vector<std::array<std::uint32_t, 3>> notified()
    {
        std::vector<std::array<std::uint32_t, 3>> triples;
        const std::vector<bus_message> sent = platform.sent_with(78857);
        EXPECT_THAT(sent, SizeIs(1));
        const bytes &payload = sent.at(0).payload;
        EXPECT_EQ(payload.host32(0), payload.size() - 8);
        EXPECT_EQ(payload.host32(4) * 12, payload.size() - 8);
        for (std::size_t at = 8; at < payload.size(); at += 12)
            triples.push_back({payload.host32(at), payload.host32(at + 4), payload.host32(at + 8)});
        return triples;
    }
    static std::array<std::uint32_t, 3> triple(std::uint32_t vlan, std::uint32_t iod, std::uint32_t aed)
    {
        return {vlan, iod, aed};
    }
};

TEST_F(LumSiteAdj, ASingleLocalDeviceIsAuthoritativeForEveryVlan)
{
    lum_overlay &overlay = make_overlay();
    carry_vlan(overlay, 100);
    carry_vlan(overlay, 101);
    carry_vlan(overlay, 4095);
    EXPECT_EQ(lum_add_site_adj_internal(OVERLAY, ID1, 0, 1), 1);
    EXPECT_EQ(lum_vlans[100].aed, 1);
    EXPECT_EQ(lum_vlans[101].aed, 1);
    EXPECT_EQ(lum_vlans[4095].aed, 1);
    EXPECT_THAT(told(), ElementsAre("publish 3", "publish 3", "publish 3", "notify 78857"));
    EXPECT_THAT(notified(), ElementsAre(triple(100, OVERLAY, 1), triple(101, OVERLAY, 1), triple(4095, OVERLAY, 1)));
}

TEST_F(LumSiteAdj, OfTwoDevicesTheSmallerIdTakesTheEvenHashes)
{
    lum_overlay &overlay = make_overlay();
    carry_vlan(overlay, 100);                    // 100
    carry_vlan(overlay, 101);                    // 101
    carry_vlan(overlay, 300);                    // 45
    carry_vlan(overlay, 4095);                   // 240
    lum_add_site_adj_internal(OVERLAY, ID1, 0, 1);
    platform.forget();
    lum_add_site_adj_internal(OVERLAY, ID2, 0, 0);
    EXPECT_EQ(overlay.local_ordinal, 0u);
    EXPECT_EQ(lum_vlans[100].aed, 1);
    EXPECT_EQ(lum_vlans[101].aed, 0);
    EXPECT_EQ(lum_vlans[300].aed, 0);
    EXPECT_EQ(lum_vlans[4095].aed, 1);
    EXPECT_THAT(notified(), ElementsAre(triple(101, OVERLAY, 0), triple(300, OVERLAY, 0)));
    EXPECT_THAT(told(), ElementsAre("publish 3", "publish 3", "notify 78857"));
}

TEST_F(LumSiteAdj, TheGreaterIdTakesTheOddHashes)
{
    lum_overlay &overlay = make_overlay();
    carry_vlan(overlay, 100);
    carry_vlan(overlay, 101);
    lum_add_site_adj_internal(OVERLAY, ID2, 0, 1);
    lum_add_site_adj_internal(OVERLAY, ID1, 0, 0);
    EXPECT_EQ(overlay.local_ordinal, 1u);
    EXPECT_EQ(lum_vlans[100].aed, 0);
    EXPECT_EQ(lum_vlans[101].aed, 1);
}

TEST_F(LumSiteAdj, EachVlanHasOneAuthorityAmongAnyNumberOfDevices)
{
    // What every device of a site would decide for itself, compared over all VLANs.
    for (std::uint32_t n = 1; n <= 7; ++n) {
        std::vector<int> authorities(LUM_VLANS);
        for (std::uint32_t local = 0; local < n; ++local) {
            lum_overlay *overlay = &make_overlay();
            for (std::uint32_t vlan = 1; vlan < LUM_VLANS; ++vlan)
                bitfield_set(*overlay->vlans, vlan);
            for (std::uint32_t i = 0; i < n; ++i) {
                lum_site_adj *adj = lum_create_site_adj({0, 0, 0, 0, 0, static_cast<std::uint8_t>(i)});
                adj->local = i == local ? 1 : 0;
                lum_insert_site_adj(*overlay, adj);
            }
            platform.counting_only = true;
            lum_recompute_aed(*overlay);
            platform.counting_only = false;
            for (std::uint32_t vlan = 1; vlan < LUM_VLANS; ++vlan) {
                authorities[vlan] += lum_vlans[vlan].aed;
                lum_vlans[vlan].aed = 0;
            }
            while (overlay->adj_head != nullptr) {
                lum_site_adj *adj = overlay->adj_head;
                lum_remove_site_adj(*overlay, adj);
                lum_destroy_site_adj(adj);
            }
            lum_destroy_overlay(&overlay);
        }
        EXPECT_TRUE(std::all_of(authorities.begin() + 1, authorities.end(), [](int k) { return k == 1; })) << n;
    }
}

TEST_F(LumSiteAdj, ReAddingAnIdWithAnotherLocalFlagChangesNothingButElectsAgain)
{
    lum_overlay &overlay = make_overlay();
    carry_vlan(overlay, 100);
    lum_add_site_adj_internal(OVERLAY, ID1, 0, 1);
    platform.forget();
    EXPECT_EQ(lum_add_site_adj_internal(OVERLAY, ID1, 9, 0), 1);
    EXPECT_EQ(overlay.adj_head->local, 1u);
    EXPECT_EQ(overlay.adj_head->adder_value, 0u);
    EXPECT_EQ(overlay.adj_count, 1u);
    EXPECT_THAT(told(), ElementsAre("notify 78857"));
    EXPECT_THAT(notified(), IsEmpty());
}

TEST_F(LumSiteAdj, KeepsTheAddersValue)
{
    lum_overlay &overlay = make_overlay();
    lum_add_site_adj_internal(OVERLAY, ID1, 77, 1);
    EXPECT_EQ(overlay.adj_head->adder_value, 77u);
}

TEST_F(LumSiteAdj, DeletingAnAbsentIdStillElectsAndNotifies)
{
    make_overlay();
    EXPECT_EQ(lum_delete_site_adj_internal(OVERLAY, ID1), 1);
    EXPECT_THAT(notified(), IsEmpty());
}

TEST_F(LumSiteAdj, AfterTheLastAdjacencyADeviceOfOrdinalOneIsAuthoritativeForNothing)
{
    lum_overlay &overlay = make_overlay();
    carry_vlan(overlay, 100);
    carry_vlan(overlay, 101);
    lum_add_site_adj_internal(OVERLAY, ID1, 0, 0);
    lum_add_site_adj_internal(OVERLAY, ID2, 0, 1);
    lum_delete_site_adj_internal(OVERLAY, ID2);
    lum_delete_site_adj_internal(OVERLAY, ID1);
    EXPECT_EQ(overlay.adj_count, 0u);
    EXPECT_EQ(overlay.local_ordinal, 1u);
    EXPECT_EQ(lum_vlans[100].aed, 0);
    EXPECT_EQ(lum_vlans[101].aed, 0);
}

TEST_F(LumSiteAdj, AfterTheLastAdjacencyADeviceOfOrdinalZeroKeepsAllItsVlans)
{
    lum_overlay &overlay = make_overlay();
    carry_vlan(overlay, 101);
    lum_add_site_adj_internal(OVERLAY, ID1, 0, 1);
    lum_delete_site_adj_internal(OVERLAY, ID1);
    EXPECT_EQ(lum_vlans[101].aed, 1);
    EXPECT_EQ(platform.memory_blocks(7), 0u);
}

TEST_F(LumSiteAdj, AnUnknownOverlayIsTracedAndDropped)
{
    lum_internal_debug_flag = 1;
    platform.add_interface(300, "Overlay30", {.overlay = true});
    EXPECT_EQ(lum_add_site_adj_internal(300, ID1, 0, 1), 0);
    EXPECT_EQ(lum_delete_site_adj_internal(300, ID1), 0);
    EXPECT_THAT(platform.trace_texts(),
                ElementsAre("Received add site_adj: Overlay30 sid 00:00:00:00:00:01",
                            "Site-adj update failed, no overlay for iod 300\n",
                            "Received delete site_adj: Overlay30 sid 00:00:00:00:00:01",
                            "Site-adj delete failed, no overlay for iod 300\n"));
    EXPECT_THAT(told(), IsEmpty());
}

TEST_F(LumSiteAdj, WithoutMemoryThereIsNoElection)
{
    lum_overlay &overlay = make_overlay();
    platform.fail("memacct_alloc");
    EXPECT_EQ(lum_add_site_adj_internal(OVERLAY, ID1, 0, 1), 0);
    EXPECT_EQ(overlay.adj_count, 0u);
    EXPECT_THAT(told(), IsEmpty());
}

TEST_F(LumSiteAdj, AVlanThatTheDatabaseRefusesKeepsItsNewFlagAndIsNotified)
{
    lum_overlay &overlay = make_overlay();
    carry_vlan(overlay, 100);
    platform.fail("hakit_sdb_update");
    lum_add_site_adj_internal(OVERLAY, ID1, 0, 1);
    EXPECT_EQ(lum_vlans[100].aed, 1);
    EXPECT_THAT(notified(), ElementsAre(triple(100, OVERLAY, 1)));
}

TEST_F(LumSiteAdj, ANotificationCarriesEveryVlanThatIsDueInAscendingOrderAndClearsTheMarks)
{
    lum_overlay &overlay = make_overlay();
    carry_vlan(overlay, 300);
    lum_vlans[300].notify = 1;
    lum_vlans[300].aed = 1;
    lum_vlans[7].notify = 1;                     // no overlay carries it
    lum_send_vlan_notification();
    EXPECT_THAT(notified(), ElementsAre(triple(7, 0, 0), triple(300, OVERLAY, 1)));
    EXPECT_EQ(lum_vlans[7].notify, 0);
    EXPECT_EQ(lum_vlans[300].notify, 0);
}

TEST_F(LumSiteAdj, AllVlansAtOnceFitOneNotification)
{
    for (lum_vlan &entry : lum_vlans)
        entry.notify = 1;
    lum_send_vlan_notification();
    EXPECT_THAT(notified(), SizeIs(4096));
}

} // namespace
