// Input that is cut, padded, tagged twice or says nonsense about itself: over lum_input from a site port and from the
// core, and over both decapsulators. Every frame is sent, or dropped under a reason; nothing is read past its end.
#include "lum_test.h"

#include <memory>

using namespace lum_test;

namespace {

const std::uint32_t IP_A = fake::ipv4(10, 0, 0, 1), IP_B = fake::ipv4(10, 0, 0, 2),
                    IP_ANYCAST = fake::ipv4(10, 0, 0, 3);
const ipv6_address IP6_A = fake::ipv6("2001:db8:10::a"), IP6_B = fake::ipv6("2001:db8:10::b");
const std::uint32_t GROUP = fake::ipv4(239, 1, 1, 9), LOCAL_GROUP = fake::ipv4(224, 0, 0, 5);
const ipv6_address GROUP6 = fake::ipv6("ff05::9"), LOCAL_GROUP6 = fake::ipv6("ff02::5");
constexpr std::uint16_t ARP = 0x0806, IPV4 = 0x0800, IPV6 = 0x86DD;
constexpr std::uint8_t PROTOCOL_UDP = 17, PROTOCOL_VRRP = 112, PROTOCOL_ICMPV6 = 58;

struct content {
    const char *name;
    fake::mac_address to;
    std::uint16_t type;
    fake::bytes payload;
};

// One of each kind of frame that some part of the way looks into. HOST_B is behind a port, HOST_C behind another edge.
std::vector<content> contents()
{
    const fake::bytes udp = fake::udp(4000, 4001, fake::filler(24));
    const fake::mac_address solicited = fake::group_mac(fake::solicited_node(IP6_B));
    return {
        {"unicast to a port", HOST_B, IPV4, fake::ip_packet_of(PROTOCOL_UDP, IP_A, IP_B, udp)},
        {"unicast to an edge", HOST_C, IPV4, fake::ip_packet_of(PROTOCOL_UDP, IP_A, IP_B, udp)},
        {"IPv6 unicast to an edge", HOST_C, IPV6, fake::ipv6_packet_of(PROTOCOL_UDP, IP6_A, IP6_B, udp)},
        {"unknown unicast", fake::mac("02:00:00:00:77:77"), IPV4, fake::ip_packet_of(PROTOCOL_UDP, IP_A, IP_B, udp)},
        {"VRRP hello", fake::group_mac(LOCAL_GROUP), IPV4, fake::vrrp_hello(IP_A)},
        {"HSRP hello", HOST_C, IPV4, fake::hsrp_hello(IP_A)},
        {"GLBP hello", HOST_C, IPV4, fake::glbp_hello(IP_A)},
        {"IPv6 VRRP hello", HOST_C, IPV6, fake::vrrp_hello(IP6_A)},
        {"IPv6 HSRP hello", HOST_C, IPV6, fake::hsrp_hello(IP6_A)},
        {"IPv6 GLBP hello", HOST_C, IPV6, fake::glbp_hello(IP6_A)},
        {"discovery", fake::mac("01:00:0c:cc:cc:cc"), 0x2000, fake::filler(46)},
        {"spanning tree", fake::mac("01:80:c2:00:00:10"), 0x4242, fake::filler(46)},
        {"IS-IS", fake::mac("01:80:c2:00:00:14"), 0xFEFE, fake::filler(46)},
        {"ARP request", fake::BROADCAST, ARP, fake::arp_request(HOST_A, IP_A, IP_B)},
        {"ARP request for an anycast address", fake::BROADCAST, ARP, fake::arp_request(HOST_A, IP_A, IP_ANYCAST)},
        {"ARP reply", HOST_B, ARP, fake::arp_reply(HOST_A, IP_A, HOST_B, IP_B)},
        {"solicitation", solicited, IPV6, fake::neighbour_solicitation(IP6_A, IP6_B, &HOST_A)},
        {"advertisement", HOST_C, IPV6, fake::neighbour_advertisement(IP6_A, IP6_B, IP6_A, &HOST_A)},
        {"group", fake::group_mac(GROUP), IPV4, fake::ip_packet_of(PROTOCOL_UDP, IP_A, GROUP, udp)},
        {"group of the local network", fake::group_mac(LOCAL_GROUP), IPV4,
         fake::ip_packet_of(PROTOCOL_UDP, IP_A, LOCAL_GROUP, udp)},
        {"IPv6 group", fake::group_mac(GROUP6), IPV6, fake::ipv6_packet_of(PROTOCOL_UDP, IP6_A, GROUP6, udp)},
        {"IPv6 group of the local network", fake::group_mac(LOCAL_GROUP6), IPV6,
         fake::ipv6_packet_of(PROTOCOL_UDP, IP6_A, LOCAL_GROUP6, udp)},
        {"broadcast", fake::BROADCAST, 0x88B5, fake::filler(46)},
        {"second tag", HOST_C, 0x8100, fake::bytes().add_be16(0x0700).add_be16(IPV4).add(fake::filler(46))},
        {"service tag", HOST_C, 0x88A8, fake::bytes().add_be16(0x0007).add_be16(IPV4).add(fake::filler(46))},
    };
}

struct form {
    const char *name;
    bool tagged;
    std::size_t headers;                                     // less is no frame
    fake::bytes (*make)(const content &);
};

constexpr form FORMS[] = {
    {"Ethernet II", false, 14, [](const content &c) { return fake::ethernet(c.to, HOST_A, c.type, c.payload); }},
    {"tagged", true, 18, [](const content &c) { return fake::tagged(c.to, HOST_A, VLAN, c.type, c.payload); }},
    {"SNAP", false, 22, [](const content &c) { return fake::snap(c.to, HOST_A, c.type, c.payload); }},
    {"tagged SNAP", true, 26,
     [](const content &c) { return fake::tagged_snap(c.to, HOST_A, VLAN, c.type, c.payload); }},
};
constexpr std::size_t TAG = 4, IPV4_OUTER = 32, IPV6_OUTER = 52;

// A site with two access ports and a trunk, an overlay with both families, everything switched on that reads frames.
class LumBadInput : public LumTest {
protected:
    LumBadInput() : overlay_(overlay())
    {
        plock_assert_held();
        site_port(PORT_A);
        site_port(PORT_B);
        site_port(PORT_C, VLAN, true);
        platform.route(key(HOST_B), fake::local(PORT_B));
        platform.route(key(HOST_C), fake::remote(OVERLAY, REMOTE_EDGE));
        for (const fake::mac_address &group : {fake::group_mac(GROUP), fake::group_mac(GROUP6)})
            platform.mroute(key(group), {PORT_A, PORT_B, OVERLAY});
        lum_cache_arp_nd(overlay_, IP_B, {}, VLAN, HOST_B.data());
        lum_cache_arp_nd(overlay_, 0, IP6_B, VLAN, HOST_B.data());
        lum_anycast_arp_addrs[7] = fake::ip_addr(IP_ANYCAST);
        lum_any_anycast_arp_addrs = 1;
        trace_all_packets();
        lum_arp_nd_debug_flag = lum_learn_debug_flag = 1;
        clear();
    }
    static void clear()
    {
        plock_assert_held();
        platform.run_timers();
        platform.forget();
        lum_clear_learn_buffer();
    }
    static std::size_t copies()
    {
        return platform.l2_sent.size() + platform.ip_sent.size() + platform.ipv6_sent.size();
    }
    // A suffix of the frame as it came in is the payload; what left has exactly that behind its own headers.
    static void expect_whole(const fake::bytes &sent, std::size_t headers, const fake::bytes &payload)
    {
        ASSERT_GE(sent.size(), headers);
        EXPECT_EQ(sent.from(headers), payload);
    }
    lum_overlay &overlay_;
};

using LumInputPrefix = LumBadInput;

// What is no whole frame is dropped under one reason and teaches nothing; anything longer is answered, forwarded or
// dropped under a reason, and is learnt.
TEST_F(LumInputPrefix, FromASitePortIsSentOrCountedAndLearntOnceItIsAFrame)
{
    for (const form &f : FORMS)
        for (const content &c : contents()) {
            // Where a tag stands behind the header of an untagged form, the frame is a tagged one.
            const std::size_t headers = c.type == 0x8100 && !f.tagged ? f.headers + TAG : f.headers;
            const fake::bytes whole = f.make(c);
            for (std::size_t length = 0; length <= whole.size(); ++length) {
                SCOPED_TRACE(std::string(f.name) + ", " + c.name + ", " + std::to_string(length));
                clear();
                const std::uint64_t before = dropped_in_all(), truncated = dropped(drop_reason::L2_TRUNCATED);
                input(whole.range(0, length), PORT_A);
                const bool is_frame = length >= headers;
                ASSERT_EQ(dropped(drop_reason::L2_TRUNCATED) - truncated, is_frame ? 0u : 1u);
                ASSERT_EQ(lum_rtab_buffer_count, is_frame ? 1u : 0u);
                ASSERT_TRUE(is_frame ? copies() + dropped_in_all() > before : copies() == 0);
                ASSERT_THAT(ports_sent_to(), ::testing::Each(::testing::AnyOf(PORT_A, PORT_B, PORT_C)));
            }
        }
}

// No reply to the core, no copy back into it, nothing learnt.
TEST_F(LumInputPrefix, FromTheCoreReachesSitePortsOrIsCounted)
{
    for (const form &f : FORMS)
        for (const content &c : contents()) {
            const fake::bytes whole = f.make(c);
            for (std::size_t length = 0; length <= whole.size(); ++length) {
                SCOPED_TRACE(std::string(f.name) + ", " + c.name + ", " + std::to_string(length));
                clear();
                const std::uint64_t before = dropped_in_all();
                input(whole.range(0, length), 0);
                ASSERT_TRUE(platform.ip_sent.empty() && platform.ipv6_sent.empty());
                ASSERT_EQ(lum_rtab_buffer_count, 0u);
                ASSERT_GT(copies() + dropped_in_all(), before);
                // Untagged it belongs to no VLAN that an overlay carries.
                ASSERT_TRUE((f.tagged && length >= f.headers) || copies() == 0);
            }
        }
}

TEST_F(LumInputPrefix, LeavesAsLongAsItCame)
{
    for (const form &f : FORMS)
        for (const fake::mac_address &to : {HOST_B, HOST_C}) {
            const content c{"", to, 0x88B5, fake::filler(100)};
            const fake::bytes whole = f.make(c);
            for (std::size_t length = f.headers; length <= whole.size(); ++length) {
                SCOPED_TRACE(std::string(f.name) + ", " + std::to_string(length));
                clear();
                input(whole.range(0, length), PORT_A);
                const fake::bytes payload = whole.range(f.headers, length - f.headers);
                const std::size_t tagged_headers = f.tagged ? f.headers : f.headers + TAG;
                ASSERT_EQ(copies(), 1u);
                if (to == HOST_B)
                    expect_whole(platform.l2_sent.front(), tagged_headers - TAG, payload);
                else
                    expect_whole(platform.ip_sent.front(), IPV4_OUTER + tagged_headers, payload);
            }
        }
}

using LumInputProtocol = LumBadInput;

// A hello by its port when it is UDP, by its number when it is VRRP; every other protocol crosses whole.
TEST_F(LumInputProtocol, OfAll256CrossesUnlessItIsAHellos)
{
    for (const form &f : FORMS)
        for (unsigned protocol = 0; protocol < 256; ++protocol) {
            const auto number = static_cast<std::uint8_t>(protocol);
            const fake::bytes hsrp = fake::udp(1985, 1985, fake::filler(20));
            const content packets[] = {{"IPv4", HOST_C, IPV4, fake::ip_packet_of(number, IP_A, IP_B, hsrp)},
                                       {"IPv6", HOST_C, IPV6, fake::ipv6_packet_of(number, IP6_A, IP6_B, hsrp)}};
            for (const content &c : packets) {
                SCOPED_TRACE(std::string(f.name) + ", " + c.name + ", " + std::to_string(protocol));
                clear();
                input(f.make(c), PORT_A);
                const bool hello = number == PROTOCOL_UDP || number == PROTOCOL_VRRP;
                ASSERT_EQ(copies(), hello ? 0u : 1u);
                if (!hello)
                    expect_whole(platform.ip_sent.front(), IPV4_OUTER + f.headers + (f.tagged ? 0 : TAG), c.payload);
            }
        }
}

TEST_F(LumInputProtocol, OfAll256IsSuppressedOnlyAsNeighbourDiscovery)
{
    for (unsigned protocol = 0; protocol < 256; ++protocol) {
        fake::bytes solicitation = fake::neighbour_solicitation(IP6_A, IP6_B, &HOST_A);
        solicitation[6] = static_cast<std::uint8_t>(protocol);
        clear();
        input(fake::tagged(fake::group_mac(fake::solicited_node(IP6_B)), HOST_A, VLAN, IPV6, solicitation), PORT_A);
        if (protocol == PROTOCOL_ICMPV6)
            ASSERT_THAT(ports_sent_to(), ElementsAre(PORT_A));
        else
            ASSERT_THAT(ports_sent_to(), ElementsAre(PORT_B, PORT_C)) << protocol;
        const bool stays = protocol == PROTOCOL_ICMPV6 || protocol == PROTOCOL_VRRP;
        ASSERT_EQ(platform.ip_sent.size(), stays ? 0u : 1u) << protocol;
    }
}

TEST_F(LumInputProtocol, OfAllUdpPortsFiltersTheTwoOfHellos)
{
    std::vector<unsigned> filtered;
    for (unsigned port = 0; port < 65536; ++port) {
        fake::bytes frame = fake::tagged(HOST_C, HOST_A, VLAN, IPV4,
                                         fake::ip_packet_of(PROTOCOL_UDP, IP_A, IP_B, fake::udp(1985, 0)));
        frame.set_be16(18 + 22, port);
        plock_assert_held();
        if (lum_filter({frame.data(), static_cast<std::uint32_t>(frame.size())}, key(HOST_A), key(HOST_C)) != 0)
            filtered.push_back(port);
    }
    EXPECT_THAT(filtered, ElementsAre(1985, 3222));
}

using LumInputIpHeader = LumBadInput;

// The header's own length is never read: lengths below 20 change nothing, options only move what a hello is known by.
TEST_F(LumInputIpHeader, OfAnyClaimedLengthIsForwardedWhole)
{
    for (unsigned words = 0; words < 16; ++words) {
        const std::size_t options = words > 5 ? 4 * (words - 5) : 0;
        fake::bytes packet = fake::ip_packet_of(PROTOCOL_UDP, IP_A, IP_B, fake::udp(7, 7, fake::filler(30)));
        packet.insert(packet.begin() + 20, options, std::uint8_t{1});
        packet[0] = static_cast<std::uint8_t>(0x40 | words);
        for (const fake::mac_address &to : {HOST_B, HOST_C}) {
            clear();
            input(fake::tagged(to, HOST_A, VLAN, IPV4, packet), PORT_A);
            ASSERT_EQ(copies(), 1u) << words;
            if (to == HOST_B)
                expect_whole(platform.l2_sent.front(), 14, packet);
            else
                expect_whole(platform.ip_sent.front(), IPV4_OUTER + 18, packet);
        }
    }
}

TEST_F(LumInputIpHeader, OfAnyClaimedLengthLeavesAGroupItsRoute)
{
    for (unsigned words = 0; words < 16; ++words)
        for (const std::uint32_t group : {GROUP, LOCAL_GROUP}) {
            fake::bytes packet = fake::ip_packet_of(PROTOCOL_UDP, IP_A, group, fake::filler(60));
            packet[0] = static_cast<std::uint8_t>(0x40 | words);
            clear();
            input(fake::tagged(fake::group_mac(group), HOST_A, VLAN, IPV4, packet), PORT_A);
            // The route names one port; a flood reaches both.
            ASSERT_EQ(platform.l2_sent.size(), group == GROUP ? 1u : 2u) << words;
            ASSERT_EQ(platform.ip_sent.size(), 1u) << words;
        }
}

TEST_F(LumInputIpHeader, WithAnyVersionIsStillTakenByItsType)
{
    for (unsigned version = 0; version < 16; ++version) {
        fake::bytes packet = fake::hsrp_hello(IP_A);
        packet[0] = static_cast<std::uint8_t>(version << 4 | 5);
        clear();
        input(fake::tagged(HOST_C, HOST_A, VLAN, IPV4, packet), PORT_A);
        ASSERT_EQ(copies(), 0u) << version;
    }
}

using LumInputPadding = LumBadInput;

TEST_F(LumInputPadding, TravelsWithItsFrame)
{
    const fake::bytes tiny = fake::ip_packet_of(PROTOCOL_UDP, IP_A, IP_B, fake::udp(7, 7));
    for (std::size_t size = 14 + tiny.size(); size <= 70; ++size) {
        const fake::bytes frame = fake::padded(fake::ethernet(HOST_B, HOST_A, IPV4, tiny), size);
        clear();
        input(frame, PORT_A);
        ASSERT_EQ(copies(), 1u);
        EXPECT_EQ(static_cast<const fake::bytes &>(platform.l2_sent.front()), frame);
    }
}

TEST_F(LumInputPadding, OfAnyLengthHidesNoRequest)
{
    const fake::bytes requests[] = {
        fake::tagged(fake::BROADCAST, HOST_A, VLAN, ARP, fake::arp_request(HOST_A, IP_A, IP_B)),
        fake::tagged(HOST_B, HOST_A, VLAN, IPV6, fake::neighbour_solicitation(IP6_A, IP6_B, &HOST_A)),
        fake::tagged(fake::BROADCAST, HOST_A, VLAN, ARP, fake::arp_request(HOST_A, IP_A, IP_ANYCAST))};
    const std::size_t answers[] = {1, 1, 0};
    for (std::size_t kind = 0; kind < std::size(requests); ++kind)
        for (std::size_t size = requests[kind].size(); size <= 1518; size += 7) {
            clear();
            input(fake::padded(requests[kind], size), PORT_A);
            ASSERT_EQ(copies(), answers[kind]) << kind << ' ' << size;
            ASSERT_THAT(ports_sent_to(), ::testing::Each(PORT_A)) << kind << ' ' << size;
        }
}

using LumInputTagStack = LumBadInput;

// The outer tag names the VLAN and is the only one that an access port takes off; what is inside is nobody's business,
// requests and hellos behind a second tag included.
TEST_F(LumInputTagStack, OfAnyHeightCrossesWithOnlyItsOuterTagLookedAt)
{
    const content inside[] = {{"data", HOST_C, 0x88B5, fake::filler(46)},
                              {"HSRP", HOST_C, IPV4, fake::hsrp_hello(IP_A)},
                              {"ARP", HOST_C, ARP, fake::arp_request(HOST_A, IP_A, IP_B)}};
    for (const content &c : inside)
        for (std::size_t height = 2; height <= 40; ++height) {
            fake::bytes frame = FORMS[0].make(c);
            for (std::size_t i = 1; i < height; ++i)
                frame = fake::with_tag(frame, static_cast<std::uint16_t>(100 + i));
            frame = fake::with_tag(frame, VLAN);
            SCOPED_TRACE(std::string(c.name) + ", " + std::to_string(height));
            clear();
            input(frame, PORT_A);
            ASSERT_EQ(copies(), 1u);
            expect_whole(platform.ip_sent.front(), IPV4_OUTER, frame);
        }
}

TEST_F(LumInputTagStack, LosesItsOuterTagOnAnAccessPortAndKeepsAllOnATrunk)
{
    const fake::bytes inner = fake::with_tag(fake::ethernet(HOST_B, HOST_A, IPV4, fake::filler(46)), 77);
    const fake::bytes frame = fake::with_tag(inner, VLAN);
    input(frame, PORT_A);
    ASSERT_EQ(copies(), 1u);
    EXPECT_EQ(static_cast<const fake::bytes &>(platform.l2_sent.front()), inner);
    clear();
    platform.route(key(HOST_B), fake::local(PORT_C));
    input(frame, PORT_A);
    ASSERT_EQ(copies(), 1u);
    EXPECT_EQ(static_cast<const fake::bytes &>(platform.l2_sent.front()), frame);
}

TEST_F(LumInputTagStack, OfTagsAndNothingElseIsAFrameToo)
{
    for (std::size_t height = 1; height <= 379; ++height) {                          // 12 + 4 * 376 + 2 is 1518
        fake::bytes frame;
        frame.add(HOST_C).add(HOST_A).add_be16(0x8100).add8(VLAN).add8(0);
        for (std::size_t i = 1; i < height; ++i)
            frame.add_be16(0x8100).add_be16(0);
        clear();
        const std::uint64_t before = dropped_in_all();
        input(frame, PORT_A);
        ASSERT_EQ(copies() + dropped_in_all() - before, 1u) << height;
    }
}

using LumDecapsulatePrefix = LumBadInput;

// Prefixes of outer packets around every kind of frame: too short for its own headers, for the frame's, or delivered.
TEST_F(LumDecapsulatePrefix, IsCountedUntilItHoldsAFrame)
{
    plock_assert_held();
    for (const content &c : contents())
        for (const form &f : FORMS) {
            const fake::bytes packets[] = {fake::core_packet(REMOTE_EDGE, OUR_ADDRESS, f.make(c)),
                                           fake::core_packet(REMOTE_EDGE6, OUR_ADDRESS6, f.make(c))};
            for (std::size_t kind = 0; kind < 2; ++kind)
                for (std::size_t length = 0; length <= packets[kind].size(); ++length) {
                    SCOPED_TRACE(std::string(f.name) + ", " + c.name + ", " + std::to_string(length));
                    clear();
                    const std::uint64_t all = dropped_in_all(), cut = dropped(drop_reason::DECAP_SHORT);
                    const auto copy = std::make_unique<std::uint8_t[]>(length);
                    std::copy_n(packets[kind].begin(), length, copy.get());
                    const auto decapsulate = kind == 0 ? lum_ip_decapsulate : lum_ipv6_decapsulate;
                    decapsulate(copy.get(), static_cast<std::uint32_t>(length));
                    const std::size_t outer = kind == 0 ? IPV4_OUTER : IPV6_OUTER;
                    ASSERT_EQ(dropped(drop_reason::DECAP_SHORT) - cut, length < outer ? 1u : 0u);
                    ASSERT_TRUE(platform.ip_sent.empty() && platform.ipv6_sent.empty());
                    ASSERT_GT(copies() + dropped_in_all(), all);
                    ASSERT_TRUE((f.tagged && length >= outer + f.headers) || copies() == 0);
                }
        }
}

// Neither the claimed header length nor the protocol of an outer packet is read: the socket has seen to both.
TEST_F(LumDecapsulatePrefix, OfAnyClaimedHeaderLengthAndProtocolHoldsItsFrameWhereItAlwaysIs)
{
    plock_assert_held();
    const fake::bytes inner = fake::tagged(HOST_B, HOST_A, VLAN, IPV4, fake::filler(46));
    for (unsigned value = 0; value < 256; ++value) {
        fake::bytes packet = fake::core_packet(REMOTE_EDGE, OUR_ADDRESS, inner);
        fake::bytes packet6 = fake::core_packet(REMOTE_EDGE6, OUR_ADDRESS6, inner);
        packet[0] = packet[9] = packet6[0] = packet6[6] = static_cast<std::uint8_t>(value);
        clear();
        lum_ip_decapsulate(packet.data(), static_cast<std::uint32_t>(packet.size()));
        lum_ipv6_decapsulate(packet6.data(), static_cast<std::uint32_t>(packet6.size()));
        ASSERT_THAT(ports_sent_to(), ElementsAre(PORT_B, PORT_B)) << value;
    }
}

} // namespace
