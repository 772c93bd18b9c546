// Checksums and segments that senders leave to the device.
#include "../packet/offload.h"

#include "../packet/crc32c.h"
#include "packet_frames.h"

#include <gmock/gmock.h>

using namespace corvane;
using namespace frames;
using testing::ElementsAreArray;

namespace {

constexpr std::size_t ROOM = 128;
const bytes ETHERNET4 = ethernet(HOST_A, HOST_B, 0x0800), ETHERNET6 = ethernet(HOST_A, HOST_B, 0x86DD);

offload_meta csum(std::size_t start, std::size_t offset)
{
    return {OFFLOAD_NEEDS_CSUM, OFFLOAD_GSO_NONE, 0, 0, static_cast<std::uint16_t>(start), static_cast<std::uint16_t>(offset)};
}

offload_meta gso(std::uint8_t type, std::size_t size, std::size_t start, std::size_t offset)
{
    offload_meta meta = csum(start, offset);
    meta.gso_type = type;
    meta.gso_size = static_cast<std::uint16_t>(size);
    return meta;
}

// Every segment of `frame`, each copied before the next is asked for.
std::vector<bytes> cut(const bytes &frame, const offload_meta &meta)
{
    bytes memory(ROOM + frame.size(), 0xEE);
    std::copy(frame.begin(), frame.end(), memory.begin() + ROOM);
    super_frame super;
    std::vector<bytes> out;
    const std::uint32_t total = super.begin(memory.data() + ROOM, frame.size(), meta);
    EXPECT_EQ(super.left(), total);
    while (super.left() != 0) {
        const frame_ref segment = super.next();
        out.emplace_back(segment.data, segment.data + segment.length);
    }
    EXPECT_EQ(out.size(), total);
    return out;
}

bytes tcp4_frame(const bytes &payload, const tcp_fields &fields = {}, const bytes &ip_options = {})
{
    bytes ip = ipv4(6, tcp(fields, payload), 0xFFFE, ip_options);
    leave_to_device(ip, TCP_SUM);
    return ETHERNET4 + ip;
}

view ip_of(const bytes &frame, std::size_t at = 14) { return view(frame).subspan(at); }

} // namespace

TEST(FinishChecksum, LeavesFinishedFrameAlone)
{
    bytes frame = ETHERNET4 + ipv4(17, udp(counting(33)));
    const bytes before = frame;
    EXPECT_TRUE(finish_checksum(frame.data(), frame.size(), {}));
    EXPECT_EQ(frame, before);
}

TEST(FinishChecksum, CompletesTcpAndUdpOfBothFamiliesAndAnyLength)
{
    for (std::size_t size = 0; size < 70; ++size) {
        for (const std::uint8_t protocol : {std::uint8_t{6}, std::uint8_t{17}}) {
            const std::size_t field = protocol == 6 ? TCP_SUM : UDP_SUM;
            const bytes transport = protocol == 6 ? tcp({}, counting(size, 9)) : udp(counting(size, 9));
            bytes four = ipv4(protocol, transport), six = ipv6(protocol, transport);
            leave_to_device(four, field);
            leave_to_device(six, field);
            bytes frame4 = ETHERNET4 + four, frame6 = ETHERNET6 + six;
            ASSERT_TRUE(finish_checksum(frame4.data(), frame4.size(), csum(34, field)));
            ASSERT_TRUE(finish_checksum(frame6.data(), frame6.size(), csum(54, field)));
            EXPECT_TRUE(sums_are_right(ip_of(frame4))) << size;
            EXPECT_TRUE(sums_are_right(ip_of(frame6))) << size;
        }
    }
}

TEST(FinishChecksum, SendsUdpSumOfZeroAsAllOnes)
{
    bytes ip = ipv4(17, udp({0, 0}));
    // Payload that makes the sum come out as zero.
    finish(ip, UDP_SUM);
    const std::uint16_t sum = get16(ip, 20 + 6);
    put16(ip, 28, sum);
    leave_to_device(ip, UDP_SUM);
    bytes frame = ETHERNET4 + ip;
    ASSERT_TRUE(finish_checksum(frame.data(), frame.size(), csum(34, UDP_SUM)));
    EXPECT_EQ(get16(frame, 40), 0xFFFF);
}

TEST(FinishChecksum, GivesSctpItsCrc)
{
    bytes frame = ETHERNET4 + ipv4(132, hex("0b590b59 00000e50 00000000") + hex("0b00 0004"));
    ASSERT_TRUE(finish_checksum(frame.data(), frame.size(), csum(34, 8)));
    bytes covered(frame.begin() + 34, frame.end());
    std::fill(covered.begin() + 8, covered.begin() + 12, std::uint8_t{0});
    const std::uint32_t crc = crc32c(covered.data(), covered.size());
    EXPECT_EQ(frame[42] | frame[43] << 8 | frame[44] << 16 | std::uint32_t{frame[45]} << 24, crc);
}

TEST(FinishChecksum, RefusesPlacesOutsideTheFrame)
{
    bytes frame = ETHERNET4 + ipv4(17, udp(counting(4)));
    const std::size_t n = frame.size();
    EXPECT_TRUE(finish_checksum(frame.data(), n, csum(34, n - 34 - 2)));
    EXPECT_FALSE(finish_checksum(frame.data(), n, csum(34, n - 34 - 1)));
    EXPECT_FALSE(finish_checksum(frame.data(), n, csum(n, 0)));
    EXPECT_FALSE(finish_checksum(frame.data(), n, csum(0xFFFF, 0xFFFF)));
    EXPECT_FALSE(finish_checksum(frame.data(), n, csum(4, 6)));
    EXPECT_FALSE(finish_checksum(frame.data(), 44, csum(34, 8)));   // a CRC takes four bytes
}

TEST(Crc32c, MatchesItsCheckValue)
{
    const std::string digits = "123456789";
    EXPECT_EQ(crc32c(reinterpret_cast<const std::uint8_t *>(digits.data()), digits.size()), 0xE3069283u);
}

TEST(SuperFrame, CutsTcpOverIpv4IntoValidSegments)
{
    const bytes payload = counting(3500);
    const auto segments = cut(tcp4_frame(payload, {1000, 0x98, hex("0101080a0000000100000002")}),
                              gso(OFFLOAD_GSO_TCPV4, 1448, 34, TCP_SUM));
    ASSERT_EQ(segments.size(), 3u);
    bytes joined;
    for (std::size_t i = 0; i < 3; ++i) {
        const bytes &s = segments[i];
        const std::size_t share = i < 2 ? 1448 : 3500 - 2 * 1448;
        ASSERT_EQ(s.size(), 14 + 20 + 32 + share);
        EXPECT_EQ(get16(s, 16), s.size() - 14);                          // total length
        EXPECT_EQ(get16(s, 18), static_cast<std::uint16_t>(0xFFFE + i)); // identification, wrapping
        EXPECT_EQ(get32(s, 38), 1000 + 1448 * i);                        // sequence number
        EXPECT_EQ(s[47], i == 0 ? 0x90 : i == 2 ? 0x18 : 0x10);          // CWR first, PSH last
        EXPECT_TRUE(sums_are_right(ip_of(s)));
        joined.insert(joined.end(), s.begin() + 66, s.end());
    }
    EXPECT_EQ(joined, payload);
}

TEST(SuperFrame, CutsTcpOverIpv6)
{
    const bytes payload = counting(2857);
    bytes ip = ipv6(6, tcp({0xFFFFFF00, 0x11, {}}, payload));
    leave_to_device(ip, TCP_SUM);
    const auto segments = cut(ETHERNET6 + ip, gso(OFFLOAD_GSO_TCPV6, 1428, 54, TCP_SUM));
    ASSERT_EQ(segments.size(), 3u);
    for (const bytes &s : segments) {
        EXPECT_EQ(get16(s, 18), s.size() - 54);
        EXPECT_TRUE(sums_are_right(ip_of(s)));
    }
    EXPECT_EQ(segments[2].size(), 54 + 20 + 1u);
    EXPECT_EQ(get32(segments[1], 58), 0xFFFFFF00u + 1428);               // wraps
    EXPECT_EQ(segments[0][67], 0x10);
    EXPECT_EQ(segments[2][67], 0x11);                                    // FIN on the last only
}

TEST(SuperFrame, CutsUdpSegments)
{
    const bytes payload = counting(2500);
    bytes ip = ipv4(17, udp(payload));
    leave_to_device(ip, UDP_SUM);
    const auto segments = cut(ETHERNET4 + ip, gso(OFFLOAD_GSO_UDP, 1000, 34, UDP_SUM));
    ASSERT_EQ(segments.size(), 3u);
    for (const bytes &s : segments) {
        EXPECT_EQ(get16(s, 38), s.size() - 34);
        EXPECT_TRUE(sums_are_right(ip_of(s)));
    }
    EXPECT_EQ(segments[2].size(), 42 + 500u);
}

TEST(SuperFrame, CutsBehindTagsAndIpOptions)
{
    const bytes inner = tcp4_frame(counting(700), {}, hex("01010100"));
    const bytes tagged(inner.begin() + 14, inner.end());
    const bytes frame = hex(HOST_A + HOST_B + "88a8 0005 8100 0064 0800") + tagged;
    const auto segments = cut(frame, gso(OFFLOAD_GSO_TCPV4, 300, 46, TCP_SUM));
    ASSERT_EQ(segments.size(), 3u);
    for (const bytes &s : segments) {
        EXPECT_THAT(bytes(s.begin(), s.begin() + 22), ElementsAreArray(hex(HOST_A + HOST_B + "88a8 0005 8100 0064 0800")));
        EXPECT_TRUE(sums_are_right(ip_of(s, 22)));
    }
}

TEST(SuperFrame, CutsBehindIpv6ExtensionHeader)
{
    bytes ip = ipv6(0, hex("06 00 0104 00000000") + tcp({}, counting(500)));
    const auto segments = cut(ETHERNET6 + ip, gso(OFFLOAD_GSO_TCPV6, 400, 62, TCP_SUM));
    ASSERT_EQ(segments.size(), 2u);
    for (const bytes &s : segments) {
        const view transport = view(s).subspan(62);
        EXPECT_EQ(checksum(transport, pseudo(ip_of(s), 6, transport.size())), 0);
        EXPECT_EQ(get16(s, 18), s.size() - 54);
    }
}

TEST(SuperFrame, TakesFramesThatTheReceiverMergedAndVerified)
{
    // No unfinished checksum: a device checked the segments before they were merged.
    bytes ip = ipv4(6, tcp({}, counting(900)));
    finish(ip, TCP_SUM);
    const offload_meta merged{0, OFFLOAD_GSO_TCPV4 | OFFLOAD_GSO_ECN, 54, 500, 0, 0};
    const auto segments = cut(ETHERNET4 + ip, merged);
    ASSERT_EQ(segments.size(), 2u);
    EXPECT_TRUE(sums_are_right(ip_of(segments[0])) && sums_are_right(ip_of(segments[1])));
}

TEST(SuperFrame, TakesSegmentsSmallerThanTheirHeaders)
{
    const bytes payload = counting(40);
    const auto segments = cut(tcp4_frame(payload), gso(OFFLOAD_GSO_TCPV4, 1, 34, TCP_SUM));
    ASSERT_EQ(segments.size(), 40u);
    for (std::size_t i = 0; i < 40; ++i) {
        EXPECT_EQ(segments[i].back(), payload[i]);
        EXPECT_TRUE(sums_are_right(ip_of(segments[i])));
    }
}

TEST(SuperFrame, RefusesMetadataThatDoesNotFit)
{
    const bytes four = tcp4_frame(counting(100));
    const offload_meta good = gso(OFFLOAD_GSO_TCPV4, 50, 34, TCP_SUM);
    EXPECT_EQ(cut(four, good).size(), 2u);
    const auto refused = [](const bytes &frame, const offload_meta &meta) { return cut(frame, meta).empty(); };

    EXPECT_TRUE(refused(four, gso(OFFLOAD_GSO_TCPV6, 50, 34, TCP_SUM)));   // another family
    EXPECT_TRUE(refused(four, gso(OFFLOAD_GSO_UDP, 50, 34, UDP_SUM)));     // another protocol
    EXPECT_TRUE(refused(four, gso(3, 50, 34, TCP_SUM)));                   // fragments of UDP: not made any more
    EXPECT_TRUE(refused(four, gso(OFFLOAD_GSO_TCPV4, 0, 34, TCP_SUM)));
    EXPECT_TRUE(refused(four, gso(OFFLOAD_GSO_TCPV4, 50, 38, TCP_SUM)));   // the transport is elsewhere
    bytes fragment = four;
    fragment[20] = 0x20;
    EXPECT_TRUE(refused(fragment, good));
    bytes short_ip_header = four;
    short_ip_header[14] = 0x44;
    EXPECT_TRUE(refused(short_ip_header, good));
    bytes short_tcp_header = four;
    short_tcp_header[46] = 0x40;
    EXPECT_TRUE(refused(short_tcp_header, good));
    EXPECT_TRUE(refused(hex(HOST_A + HOST_B) + hex("0806") + counting(60), good));
    EXPECT_TRUE(refused(ETHERNET6 + ipv6(43, hex("06 00 00 01 00000000") + tcp({}, counting(90))),
                        gso(OFFLOAD_GSO_TCPV6, 50, 62, TCP_SUM)));         // the destination is not the last one
}

TEST(SuperFrame, RefusesEveryTruncation)
{
    const bytes frame = tcp4_frame(counting(1));
    for (std::size_t n = 0; n < frame.size(); ++n)
        EXPECT_TRUE(cut(bytes(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(n)),
                        gso(OFFLOAD_GSO_TCPV4, 1448, 34, TCP_SUM)).empty()) << n;
}
