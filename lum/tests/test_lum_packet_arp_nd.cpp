#include "lum_test.h"

using namespace lum_test;

namespace {

const std::uint32_t IP_A = fake::ipv4(10, 0, 0, 1), IP_B = fake::ipv4(10, 0, 0, 2);
const ipv6_address IP6_A = fake::ipv6("2001:db8:10::a"), IP6_B = fake::ipv6("2001:db8:10::b");

class LumArpNd : public LumTest {
protected:
    LumArpNd() : overlay_(overlay())
    {
        site_port(PORT_A);
        site_port(PORT_B);
        platform.run_timers();
        platform.forget();
    }
    static fake::bytes arp_request(std::uint32_t target, std::uint32_t sender_ip = IP_A)
    {
        return fake::tagged(fake::BROADCAST, HOST_A, VLAN, 0x0806, fake::arp_request(HOST_A, sender_ip, target));
    }
    static fake::bytes arp_reply()
    {
        return fake::tagged(HOST_A, HOST_B, VLAN, 0x0806, fake::arp_reply(HOST_B, IP_B, HOST_A, IP_A));
    }
    static fake::bytes solicitation(const ipv6_address &target, const ipv6_address &source = IP6_A,
                                    const fake::mac_address *option = &HOST_A)
    {
        return fake::tagged(fake::group_mac(fake::solicited_node(target)), HOST_A, VLAN, 0x86DD,
                            fake::neighbour_solicitation(source, target, option));
    }
    void cache(std::uint32_t ip, const fake::mac_address &mac)
    {
        plock_assert_held();
        lum_cache_arp_nd(overlay_, ip, {}, VLAN, mac.data());
    }
    void cache(const ipv6_address &ip, const fake::mac_address &mac)
    {
        plock_assert_held();
        lum_cache_arp_nd(overlay_, 0, ip, VLAN, mac.data());
    }
    [[nodiscard]] const lum_arp_nd_entry *cached(const rtab_addr &ip, std::uint32_t vlan = VLAN) const
    {
        plock_assert_held();
        return lum_get_from_arp_nd_cache(overlay_.arp_nd_cache, ip, vlan);
    }
    static void anycast(const rtab_addr &address)
    {
        lum_anycast_arp_addrs[3] = address;
        lum_any_anycast_arp_addrs = 1;
    }
    lum_overlay &overlay_;
};

using LumSuppressArpNd = LumArpNd;

TEST_F(LumSuppressArpNd, AnswersASiteHostFromTheCacheAndForwardsNothing)
{
    input(arp_reply(), 0);                                   // seen from the core
    platform.forget();
    lum_arp_nd_debug_flag = 1;
    input(arp_request(IP_B), PORT_A);

    ASSERT_THAT(ports_sent_to(), ElementsAre(PORT_A));
    EXPECT_EQ(static_cast<const fake::bytes &>(platform.l2_sent.front()),
              fake::ethernet(HOST_A, HOST_B, 0x0806, fake::arp_reply(HOST_B, IP_B, HOST_A, IP_A)));
    EXPECT_THAT(platform.ip_sent, IsEmpty());
    EXPECT_THAT(platform.trace_texts(),
                Contains("Send proxy ARP-Reply to 10.0.0.1 (10/02:00:00:00:00:0a) for target IP 10.0.0.2 with target "
                         "MAC 02:00:00:00:00:0b\n"));
}

TEST_F(LumSuppressArpNd, AnswersAnUntaggedRequestAlike)
{
    cache(IP_B, HOST_B);
    input(fake::padded(fake::ethernet(fake::BROADCAST, HOST_A, 0x0806, fake::arp_request(HOST_A, IP_A, IP_B)), 60),
          PORT_A);
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_A));
    EXPECT_THAT(platform.ip_sent, IsEmpty());
}

TEST_F(LumSuppressArpNd, AnswersASolicitationFromTheCacheAndForwardsNothing)
{
    cache(IP6_B, HOST_B);
    platform.forget();
    lum_arp_nd_debug_flag = 1;
    input(solicitation(IP6_B), PORT_A);

    ASSERT_THAT(ports_sent_to(), ElementsAre(PORT_A));
    const fake::bytes &reply = platform.l2_sent.front();
    EXPECT_EQ(reply.range(0, 14), fake::ethernet(HOST_A, HOST_B, 0x86DD));
    EXPECT_THAT(reply.range(14 + 8, 16), ElementsAreArray(IP6_B));
    EXPECT_THAT(reply.range(14 + 24, 16), ElementsAreArray(IP6_A));
    EXPECT_EQ(reply.u8(14 + 40), 136);
    EXPECT_THAT(reply.range(14 + 48, 16), ElementsAreArray(IP6_B));
    EXPECT_THAT(platform.ip_sent, IsEmpty());
    EXPECT_THAT(platform.trace_texts(),
                Contains("Send proxy ND NA-message to 2001:db8:10::a (10/02:00:00:00:00:0a) for target IPv6 "
                         "2001:db8:10::b with target MAC 02:00:00:00:00:0b\n"));
}

TEST_F(LumSuppressArpNd, ForwardsARequestWhoseTargetIsNotCached)
{
    input(arp_request(IP_B), PORT_A);
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B));
    EXPECT_THAT(platform.ip_sent, SizeIs(1));
    platform.forget();
    input(solicitation(IP6_B), PORT_A);
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B));
    EXPECT_THAT(platform.ip_sent, SizeIs(1));
}

TEST_F(LumSuppressArpNd, GleansTheSenderOfEveryPacketFromEitherSide)
{
    input(arp_request(IP_B), PORT_A);
    ASSERT_NE(cached(fake::ip_addr(IP_A)), nullptr);
    EXPECT_EQ(cached(fake::ip_addr(IP_A))->mac, key(HOST_A));
    input(arp_reply(), 0);
    ASSERT_NE(cached(fake::ip_addr(IP_B)), nullptr);
    input(solicitation(IP6_B), PORT_A);
    ASSERT_NE(cached(fake::ip_addr(IP6_A)), nullptr);
    input(fake::tagged(HOST_A, HOST_B, VLAN, 0x86DD,
                       fake::neighbour_advertisement(IP6_B, IP6_A, IP6_B, &HOST_B)), 0);
    ASSERT_NE(cached(fake::ip_addr(IP6_B)), nullptr);
    EXPECT_EQ(cached(fake::ip_addr(IP6_B))->mac, key(HOST_B));
}

TEST_F(LumSuppressArpNd, CachesButNeverAnswersARequestFromTheCore)
{
    cache(IP_B, HOST_B);
    cache(IP6_B, HOST_B);
    platform.forget();
    input(arp_request(IP_B), 0);
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_A, PORT_B));   // the request itself
    EXPECT_NE(cached(fake::ip_addr(IP_A)), nullptr);
    platform.forget();
    input(solicitation(IP6_B), 0);
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_A, PORT_B));
    EXPECT_NE(cached(fake::ip_addr(IP6_A)), nullptr);
}

TEST_F(LumSuppressArpNd, DoesNothingWhileTheOverlaysFlagIsOff)
{
    cache(IP_B, HOST_B);
    overlay_.suppress_arp = 0;
    input(arp_request(IP_B), PORT_A);
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B));
    EXPECT_EQ(cached(fake::ip_addr(IP_A)), nullptr);
}

TEST_F(LumSuppressArpNd, DoesNothingOnAVlanWithoutOverlay)
{
    site_port(PORT_C, 20);
    input(fake::tagged(fake::BROADCAST, HOST_A, 20, 0x0806, fake::arp_request(HOST_A, IP_A, IP_B)), PORT_A);
    EXPECT_EQ(pt_count(overlay_.arp_nd_cache), 0u);
}

TEST_F(LumSuppressArpNd, NeitherCachesNorAnswersAProbe)
{
    cache(IP_B, HOST_B);
    cache(IP6_B, HOST_B);
    platform.forget();
    input(arp_request(IP_B, 0), PORT_A);
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B));
    EXPECT_THAT(platform.ip_sent, SizeIs(1));
    platform.forget();
    input(solicitation(IP6_B, {}, nullptr), PORT_A);
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B));
    EXPECT_THAT(platform.ip_sent, SizeIs(1));
    platform.forget();
    input(solicitation(IP6_B, {}, &HOST_A), PORT_A);         // an option that such a packet must not carry
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B));
    EXPECT_EQ(pt_count(overlay_.arp_nd_cache), 2u);
}

TEST_F(LumSuppressArpNd, AnswersWhoAsksForItsOwnAddressFromTheEntryJustMade)
{
    cache(IP_A, HOST_C);                                     // whose address it was
    cache(IP6_A, HOST_C);
    platform.forget();
    input(arp_request(IP_A, IP_A), PORT_A);
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_A));
    EXPECT_THAT(platform.ip_sent, IsEmpty());
    EXPECT_EQ(cached(fake::ip_addr(IP_A))->mac, key(HOST_A));
    platform.forget();
    input(solicitation(IP6_A, IP6_A), PORT_A);
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_A));
    EXPECT_THAT(platform.ip_sent, IsEmpty());
    EXPECT_EQ(cached(fake::ip_addr(IP6_A))->mac, key(HOST_A));
}

TEST_F(LumSuppressArpNd, IgnoresASolicitationWithoutLinkLayerAddress)
{
    cache(IP6_B, HOST_B);
    platform.forget();
    input(solicitation(IP6_B, IP6_A, nullptr), PORT_A);
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B));
    EXPECT_EQ(cached(fake::ip_addr(IP6_A)), nullptr);
}

TEST_F(LumSuppressArpNd, KeepsVlansApart)
{
    overlay(OVERLAY2, 20);
    cache(IP_B, HOST_B);
    platform.forget();
    input(fake::tagged(fake::BROADCAST, HOST_A, 20, 0x0806, fake::arp_request(HOST_A, IP_A, IP_B)), PORT_A);
    EXPECT_THAT(platform.l2_sent, IsEmpty());
    EXPECT_THAT(platform.ip_sent, SizeIs(1));
}

TEST_F(LumSuppressArpNd, SurvivesArpAndNdPacketsOfEveryLength)
{
    cache(IP_B, HOST_B);
    cache(IP6_B, HOST_B);
    for (const fake::bytes &whole : {arp_request(IP_B), solicitation(IP6_B)})
        for (std::size_t length = 18; length < whole.size(); ++length)
            input(whole.range(0, length), PORT_A);
    EXPECT_EQ(pt_count(overlay_.arp_nd_cache), 2u);
}

using LumFilterArpNd = LumArpNd;

TEST_F(LumFilterArpNd, DropsARequestForAnAnycastAddressAndForwardsItsNeighbour)
{
    anycast(fake::ip_addr(IP_B));
    lum_arp_nd_debug_flag = 1;
    trace_all_packets();
    input(arp_request(IP_B), PORT_A);
    EXPECT_TRUE(platform.sent_nothing());
    EXPECT_EQ(dropped(drop_reason::FWD_ANYCAST), 1u);
    EXPECT_TRUE(platform.traced("Doing Anycast-ARP/ND processing for ARP-Request message for target 10.0.0.2\n"));
    EXPECT_TRUE(platform.traced("10.0.0.2 found in configured anycast address list\n"));
    EXPECT_TRUE(platform.traced("Filter ARP packet due to anycast-ARP/NS configuration\n"));

    platform.forget();
    input(arp_request(IP_B + 1), PORT_A);
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B));
    EXPECT_TRUE(platform.traced("10.0.0.3 not found in configured anycast address list\n"));
}

TEST_F(LumFilterArpNd, DropsASolicitationForAnAnycastAddress)
{
    anycast(fake::ip_addr(IP6_B));
    lum_arp_nd_debug_flag = 1;
    trace_all_packets();
    input(solicitation(IP6_B), PORT_A);
    EXPECT_TRUE(platform.sent_nothing());
    EXPECT_TRUE(platform.traced("Doing Anycast-ARP/ND processing for ND NA message for target 2001:db8:10::b\n"));
    EXPECT_TRUE(platform.traced("2001:db8:10::b found in configured anycast address list\n"));
    EXPECT_TRUE(platform.traced("Filter NS packet due to anycast-ARP/NS configuration\n"));
    platform.forget();
    input(solicitation(fake::ipv6("2001:db8:10::c")), PORT_A);
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B));
}

TEST_F(LumFilterArpNd, AppliesAlsoWhileSuppressionIsOff)
{
    overlay_.suppress_arp = 0;
    anycast(fake::ip_addr(IP_B));
    input(arp_request(IP_B), PORT_A);
    EXPECT_TRUE(platform.sent_nothing());
}

TEST_F(LumFilterArpNd, LeavesTheAnswerToSuppressionWhereItHasOne)
{
    cache(IP_B, HOST_B);
    anycast(fake::ip_addr(IP_B));
    input(arp_request(IP_B), PORT_A);
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_A));
    EXPECT_EQ(dropped(drop_reason::FWD_ANYCAST), 0u);
}

TEST_F(LumFilterArpNd, LearnsTheSourceOfADroppedRequest)
{
    anycast(fake::ip_addr(IP_B));
    input(arp_request(IP_B), PORT_A);
    EXPECT_EQ(lum_rtab_buffer_count, 1u);
}

TEST_F(LumFilterArpNd, LetsRepliesAndAdvertisementsPass)
{
    anycast(fake::ip_addr(IP_A));
    platform.route(key(HOST_A), fake::local(PORT_A));
    input(arp_reply(), PORT_B);
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_A));
    platform.forget();
    anycast(fake::ip_addr(IP6_B));
    input(fake::tagged(HOST_A, HOST_B, VLAN, 0x86DD, fake::neighbour_advertisement(IP6_B, IP6_A, IP6_B, &HOST_B)),
          PORT_B);
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_A));
}

TEST_F(LumFilterArpNd, LooksAtNothingWhileNoAddressIsConfigured)
{
    anycast(fake::ip_addr(IP_B));
    lum_any_anycast_arp_addrs = 0;
    lum_arp_nd_debug_flag = 1;
    overlay_.suppress_arp = 0;
    input(arp_request(IP_B), PORT_A);
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B));
    EXPECT_THAT(platform.traces, IsEmpty());
}

using LumIsAddrAnycastArp = LumArpNd;

TEST_F(LumIsAddrAnycastArp, ComparesFamilyAndAddress)
{
    anycast(fake::ip_addr(IP_B));
    lum_anycast_arp_addrs[7] = fake::ip_addr(IP6_B);
    const ipv6_address looks_alike = lum_addr_ipv6_bytes(fake::ip_addr(IP_B));
    EXPECT_EQ(lum_is_addr_anycast_arp(&IP_B, nullptr), 1);
    EXPECT_EQ(lum_is_addr_anycast_arp(&IP_A, nullptr), 0);
    EXPECT_EQ(lum_is_addr_anycast_arp(nullptr, &IP6_B), 1);
    EXPECT_EQ(lum_is_addr_anycast_arp(nullptr, &IP6_A), 0);
    EXPECT_EQ(lum_is_addr_anycast_arp(nullptr, &looks_alike), 0);
    EXPECT_EQ(lum_is_addr_anycast_arp(nullptr, nullptr), 0);
}

class LumCacheArpNd : public LumArpNd {
protected:
    LumCacheArpNd() { lum_arp_nd_debug_flag = 1; }
};

TEST_F(LumCacheArpNd, CreatesAnEntryWithItsTimeAndTracesIt)
{
    platform.now = {5000, 7};
    cache(IP_A, HOST_A);
    const lum_arp_nd_entry *entry = cached(fake::ip_addr(IP_A));
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->mac, key(HOST_A));
    EXPECT_EQ(entry->created, (timestamp{5000, 7}));
    cache(IP6_A, HOST_A);
    EXPECT_THAT(platform.trace_texts(), ElementsAre("Caching 10.0.0.1 -> 10/02:00:00:00:00:0a ARP mapping\n",
                                                    "Caching 2001:db8:10::a -> 10/02:00:00:00:00:0a ND mapping\n"));
}

TEST_F(LumCacheArpNd, GivesAKnownEntryTheNewMacAndKeepsItsTime)
{
    cache(IP_A, HOST_A);
    const timestamp created = cached(fake::ip_addr(IP_A))->created;
    platform.advance(10);
    cache(IP_A, HOST_B);
    EXPECT_EQ(cached(fake::ip_addr(IP_A))->mac, key(HOST_B));
    EXPECT_EQ(cached(fake::ip_addr(IP_A))->created, created);
    EXPECT_EQ(pt_count(overlay_.arp_nd_cache), 1u);
}

TEST_F(LumCacheArpNd, KeepsTheSameAddressOfTwoVlansInTwoEntries)
{
    cache(IP_A, HOST_A);
    lum_cache_arp_nd(overlay_, IP_A, {}, 20, HOST_B.data());
    EXPECT_EQ(cached(fake::ip_addr(IP_A), VLAN)->mac, key(HOST_A, VLAN));
    EXPECT_EQ(cached(fake::ip_addr(IP_A), 20)->mac, key(HOST_B, 20));
    EXPECT_EQ(platform.memory_blocks(LUM_MEM_TYPE_ARP_ND_CACHE), 2u);
}

TEST_F(LumCacheArpNd, DropsTheUpdateAndCountsItWhenMemoryIsRefused)
{
    platform.fail("memacct_alloc");
    cache(IP_A, HOST_A);
    EXPECT_EQ(cached(fake::ip_addr(IP_A)), nullptr);
    EXPECT_EQ(dropped(drop_reason::CACHE_REFUSED), 1u);
    EXPECT_THAT(platform.traces, IsEmpty());
    cache(IP_A, HOST_A);
    EXPECT_NE(cached(fake::ip_addr(IP_A)), nullptr);
}

TEST_F(LumCacheArpNd, FreesTheEntryThatTheTreeRefuses)
{
    cache(IP_B, HOST_B);
    platform.fail("pt_insert");
    cache(IP_A, HOST_A);
    EXPECT_EQ(cached(fake::ip_addr(IP_A)), nullptr);
    EXPECT_EQ(platform.memory_blocks(LUM_MEM_TYPE_ARP_ND_CACHE), 1u);
    EXPECT_EQ(dropped(drop_reason::CACHE_REFUSED), 1u);
}

TEST_F(LumCacheArpNd, BuildsKeysOfVlanAndAddress)
{
    lum_arp_nd_key made;
    lum_build_key_for_arp_nd_cache(made, 0x0102, fake::ip_addr(fake::ipv4(10, 1, 2, 3)));
    EXPECT_EQ(fake::bytes(std::span<const std::uint8_t>(made)),
              fake::bytes().add_host32(0x0102).add({10, 1, 2, 3}).add_zeros(12));
    lum_build_key_for_arp_nd_cache(made, 0x0102, fake::ip_addr(IP6_A));
    EXPECT_EQ(fake::bytes(std::span<const std::uint8_t>(made)), fake::bytes().add_host32(0x0102).add(IP6_A));
}

TEST_F(LumCacheArpNd, RemovesAnEntryWithoutFreeingIt)
{
    cache(IP_A, HOST_A);
    auto *entry = const_cast<lum_arp_nd_entry *>(cached(fake::ip_addr(IP_A)));
    EXPECT_EQ(lum_delete_from_arp_nd_cache(overlay_.arp_nd_cache, entry), 0);
    EXPECT_EQ(cached(fake::ip_addr(IP_A)), nullptr);
    EXPECT_EQ(lum_delete_from_arp_nd_cache(overlay_.arp_nd_cache, entry), -1);
    EXPECT_TRUE(lum_add_to_arp_nd_cache(overlay_.arp_nd_cache, entry));
    EXPECT_EQ(cached(fake::ip_addr(IP_A)), entry);
}

TEST_F(LumCacheArpNd, FreesAllEntriesOfAnOverlay)
{
    for (std::uint32_t host = 1; host <= 500; ++host)
        cache(IP_A + host, HOST_A);
    cache(IP6_A, HOST_A);
    lum_free_arp_nd_cache(overlay_);
    EXPECT_EQ(platform.memory_blocks(LUM_MEM_TYPE_ARP_ND_CACHE), 0u);
    EXPECT_EQ(cached(fake::ip_addr(IP_A + 1)), nullptr);
    cache(IP_A, HOST_A);
    EXPECT_NE(cached(fake::ip_addr(IP_A)), nullptr);
}

class LumPortRecords : public LumTest {};

TEST_F(LumPortRecords, AreFoundByIodUntilTheyAreDeleted)
{
    lum_port *port = lum_add_to_pt(PORT_A);
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(port->iod, PORT_A);
    EXPECT_EQ(port->vlan, 0u);
    EXPECT_EQ(port->trunk, 0);
    EXPECT_EQ(lum_get_from_pt(PORT_A), port);
    EXPECT_EQ(lum_get_from_pt(PORT_B), nullptr);
    EXPECT_EQ(lum_delete_from_pt(port), 0);
    EXPECT_EQ(lum_get_from_pt(PORT_A), nullptr);
    EXPECT_EQ(platform.memory_blocks(LUM_MEM_TYPE_INTERFACE_PT), 0u);
}

TEST_F(LumPortRecords, AreNotMadeTwiceAndNotWithoutMemory)
{
    ASSERT_NE(lum_add_to_pt(PORT_A), nullptr);
    EXPECT_EQ(lum_add_to_pt(PORT_A), nullptr);
    platform.fail("memacct_alloc");
    EXPECT_EQ(lum_add_to_pt(PORT_B), nullptr);
    EXPECT_EQ(platform.memory_blocks(LUM_MEM_TYPE_INTERFACE_PT), 1u);
}

TEST_F(LumPortRecords, AreKeptWhenTheTreeDoesNotGiveThemUp)
{
    lum_port *port = lum_add_to_pt(PORT_A);
    ASSERT_NE(port, nullptr);
    port->iod = PORT_B;                                      // a key that is not there
    EXPECT_EQ(lum_delete_from_pt(port), -1);
    EXPECT_EQ(platform.memory_blocks(LUM_MEM_TYPE_INTERFACE_PT), 1u);
    port->iod = PORT_A;
}

TEST_F(LumPortRecords, AreWalkedInAscendingOrderOfTheirIods)
{
    for (const std::uint32_t iod : {300u, 2u, 767u, 1u, 255u})
        ASSERT_NE(lum_add_to_pt(iod), nullptr);
    std::vector<std::uint32_t> walked;
    for (auto *port = static_cast<lum_port *>(pt_first(lum_interface_pt)); port != nullptr;) {
        walked.push_back(port->iod);
        std::array<std::uint8_t, 4> at;
        wire_set_be32(at.data(), port->iod);
        port = static_cast<lum_port *>(pt_next(lum_interface_pt, at.data()));
    }
    EXPECT_THAT(walked, ElementsAre(1, 2, 255, 300, 767));
}

} // namespace
