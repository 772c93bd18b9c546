// ARP, neighbour discovery, PIM, checksums: every parser also against bytes that are cut or wrong.
#include "arp.h"
#include "icmpv6.h"
#include "ip.h"
#include "pim.h"
#include "support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>

using testing::ElementsAre;
using testing::ElementsAreArray;

namespace {

constexpr std::uint32_t SENDER_IP = 0x0A000001, TARGET_IP = 0x0A000002;

const bytes arp_request = from_hex("0001 0800 06 04 0001"        // Ethernet, IPv4, 6 and 4 bytes, request
                                   "020000000a01 0a000001"       // sender
                                   "000000000000 0a000002");     // target

// A view of exactly these bytes in memory of their own, so that a sanitizer sees any read past their end.
struct exact {
    explicit exact(const bytes &data, std::size_t length) : size(length), memory(new std::uint8_t[length])
    {
        std::copy_n(data.begin(), length, memory.get());
    }
    [[nodiscard]] std::span<const std::uint8_t> view() const { return {memory.get(), size}; }
    std::size_t size;
    std::unique_ptr<std::uint8_t[]> memory;
};

std::vector<std::uint8_t> mac_at(const std::uint8_t *mac) { return {mac, mac + 6}; }

TEST(ArpParse, FindsTheAddressesOfARequest)
{
    std::uint32_t ip = 0;
    const std::uint8_t *mac = nullptr;
    ASSERT_TRUE(arp_get_source_addresses(arp_request, ip, mac));
    EXPECT_EQ(ip, SENDER_IP);
    EXPECT_THAT(mac_at(mac), ElementsAre(2, 0, 0, 0, 0x0A, 1));
    ASSERT_TRUE(arp_get_request_target_address(arp_request, ip));
    EXPECT_EQ(ip, TARGET_IP);
}

TEST(ArpParse, TakesAReplysSenderAndNoTarget)
{
    bytes reply = arp_request;
    reply[7] = 2;
    std::uint32_t ip = 0;
    const std::uint8_t *mac = nullptr;
    EXPECT_TRUE(arp_get_source_addresses(reply, ip, mac));
    EXPECT_FALSE(arp_get_request_target_address(reply, ip));
}

TEST(ArpParse, RefusesOtherOperationsAndFormats)
{
    for (const std::size_t at : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u}) {
        bytes wrong = arp_request;
        wrong[at] = static_cast<std::uint8_t>(wrong[at] ^ 0x10);
        std::uint32_t ip = 0;
        const std::uint8_t *mac = nullptr;
        EXPECT_FALSE(arp_get_source_addresses(wrong, ip, mac)) << "byte " << at;
        EXPECT_FALSE(arp_get_request_target_address(wrong, ip)) << "byte " << at;
    }
}

TEST(ArpParse, RefusesEveryCutPacket)
{
    for (std::size_t length = 0; length < ARP_PACKET_SIZE; ++length) {
        const exact cut(arp_request, length);
        std::uint32_t ip = 0;
        const std::uint8_t *mac = nullptr;
        EXPECT_FALSE(arp_get_source_addresses(cut.view(), ip, mac)) << length;
        EXPECT_FALSE(arp_get_request_target_address(cut.view(), ip)) << length;
    }
}

TEST(ArpBuild, AnswersForTheTarget)
{
    const bytes target = from_hex("020000000b02"), requester = from_hex("020000000a01");
    bytes out(ARP_PACKET_SIZE);
    ASSERT_EQ(arp_build_arp_reply(out, TARGET_IP, SENDER_IP, target.data(), requester.data()), ARP_PACKET_SIZE);
    EXPECT_THAT(out, ElementsAreArray(from_hex("0001 0800 06 04 0002 020000000b02 0a000002 020000000a01 0a000001")));
    EXPECT_EQ(arp_build_arp_reply(std::span(out).first(27), 1, 2, target.data(), requester.data()), 0u);
}

// ---- neighbour discovery

const ipv6_address host{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
const ipv6_address other{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2};

std::uint16_t sum_of(const bytes &packet)                       // independent of the code under test
{
    std::uint32_t sum = 58 + static_cast<std::uint32_t>(packet.size()) - 40;
    for (std::size_t i = 8; i < packet.size(); ++i)
        sum += i % 2 == 0 ? packet[i] << 8 : packet[i];
    while (sum >> 16 != 0)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<std::uint16_t>(~sum);
}

void seal(bytes &packet)
{
    packet[42] = packet[43] = 0;
    packet[4] = static_cast<std::uint8_t>((packet.size() - 40) >> 8);
    packet[5] = static_cast<std::uint8_t>(packet.size() - 40);
    const std::uint16_t sum = sum_of(packet);
    packet[42] = static_cast<std::uint8_t>(sum >> 8);
    packet[43] = static_cast<std::uint8_t>(sum);
}

bytes nd(std::uint8_t type, const bytes &options)
{
    bytes packet = from_hex("60000000 0000 3a ff");
    packet.insert(packet.end(), host.begin(), host.end());
    packet.insert(packet.end(), other.begin(), other.end());
    packet.insert(packet.end(), {type, 0, 0, 0, 0, 0, 0, 0});
    packet.insert(packet.end(), other.begin(), other.end());
    packet.insert(packet.end(), options.begin(), options.end());
    seal(packet);
    return packet;
}

const bytes source_option = from_hex("01 01 020000000a01"), target_option = from_hex("02 01 020000000b02");

struct mapping {
    bool valid = false;
    ipv6_address address{};
    const std::uint8_t *mac = nullptr;
};
mapping map(std::span<const std::uint8_t> packet)
{
    mapping m;
    m.valid = icmpv6_get_nd_source_addresses(packet, m.address, m.mac);
    return m;
}

TEST(NdParse, MapsASolicitationsSourceToItsSourceOption)
{
    const bytes packet = nd(135, source_option);
    const mapping m = map(packet);
    ASSERT_TRUE(m.valid);
    EXPECT_EQ(m.address, host);
    EXPECT_THAT(mac_at(m.mac), ElementsAre(2, 0, 0, 0, 0x0A, 1));
    const std::uint8_t *target = icmpv6_get_ns_target_address(packet);
    ASSERT_NE(target, nullptr);
    EXPECT_EQ(std::memcmp(target, other.data(), 16), 0);
}

TEST(NdParse, MapsAnAdvertisementsTargetToItsTargetOption)
{
    const bytes packet = nd(136, target_option);
    const mapping m = map(packet);
    ASSERT_TRUE(m.valid);
    EXPECT_EQ(m.address, other);
    EXPECT_THAT(mac_at(m.mac), ElementsAre(2, 0, 0, 0, 0x0B, 2));
    EXPECT_EQ(icmpv6_get_ns_target_address(packet), nullptr);
}

TEST(NdParse, GivesNoMacWithoutTheOptionOfItsKind)
{
    EXPECT_EQ(map(nd(135, {})).mac, nullptr);
    EXPECT_TRUE(map(nd(135, {})).valid);
    EXPECT_EQ(map(nd(135, target_option)).mac, nullptr);
    EXPECT_EQ(map(nd(136, source_option)).mac, nullptr);
}

TEST(NdParse, FindsTheOptionBehindOthers)
{
    bytes options = from_hex("0e 02 00000000000000000000 00000000");
    options.insert(options.end(), source_option.begin(), source_option.end());
    const bytes packet = nd(135, options);
    ASSERT_NE(map(packet).mac, nullptr);
    EXPECT_EQ(mac_at(map(packet).mac)[4], 0x0A);
}

TEST(NdParse, MapsNothingForDuplicateAddressDetection)
{
    bytes packet = nd(135, {});
    std::fill_n(packet.begin() + 8, 16, std::uint8_t{0});
    seal(packet);
    EXPECT_FALSE(map(packet).valid);
    EXPECT_NE(icmpv6_get_ns_target_address(packet), nullptr);
}

TEST(NdParse, IgnoresWhatStandsBehindTheHeadersPayloadLength)
{
    bytes packet = nd(135, source_option);
    packet.insert(packet.end(), {0, 0, 0, 0xFF});               // padding of the frame
    EXPECT_TRUE(map(packet).valid);
}

TEST(NdParse, RefusesWrongHopLimitChecksumCodeTypeVersionAndNextHeader)
{
    for (const std::size_t at : {0u, 6u, 7u, 40u, 41u, 42u, 43u, 50u, 70u}) {
        bytes wrong = nd(135, source_option);
        wrong[at] = static_cast<std::uint8_t>(wrong[at] ^ 0x11);
        EXPECT_FALSE(map(wrong).valid) << "byte " << at;
        EXPECT_EQ(icmpv6_get_ns_target_address(wrong), nullptr) << "byte " << at;
    }
}

TEST(NdParse, RefusesAMulticastTarget)
{
    bytes packet = nd(135, source_option);
    packet[48] = 0xFF;
    seal(packet);
    EXPECT_FALSE(map(packet).valid);
}

TEST(NdParse, RefusesOptionsThatAreEmptyOrReachPastTheEnd)
{
    EXPECT_FALSE(map(nd(135, from_hex("01 00 020000000a01"))).valid);
    EXPECT_FALSE(map(nd(135, from_hex("01 02 020000000a01"))).valid);
    EXPECT_FALSE(map(nd(135, from_hex("01 01 0200"))).valid);
    EXPECT_FALSE(map(nd(135, from_hex("01"))).valid);
}

TEST(NdParse, RefusesEveryCutPacket)
{
    const bytes packet = nd(135, source_option);
    for (std::size_t length = 0; length < packet.size(); ++length) {
        const exact cut(packet, length);
        EXPECT_FALSE(map(cut.view()).valid) << length;
        EXPECT_EQ(icmpv6_get_ns_target_address(cut.view()), nullptr) << length;
    }
}

TEST(NdBuild, MakesAnAdvertisementThatTheParserTakes)
{
    const bytes mac = from_hex("020000000b02");
    bytes out(ICMPV6_NA_PACKET_SIZE);
    ASSERT_EQ(icmpv6_nd_build_na(out, other, host, mac.data(), mac.data()), ICMPV6_NA_PACKET_SIZE);
    EXPECT_EQ(bytes(out.begin(), out.begin() + 8), from_hex("60000000 0020 3a ff"));
    EXPECT_TRUE(std::equal(other.begin(), other.end(), out.begin() + 8));
    EXPECT_TRUE(std::equal(host.begin(), host.end(), out.begin() + 24));
    EXPECT_EQ(out[40], 136);
    EXPECT_EQ(out[44], 0x60);                                   // solicited, override; no router
    EXPECT_EQ(bytes(out.begin() + 64, out.end()), from_hex("02 01 020000000b02"));
    bytes again = out;
    seal(again);
    EXPECT_EQ(again, out) << "checksum";
    ASSERT_TRUE(map(out).valid);
    EXPECT_EQ(map(out).address, other);
    EXPECT_EQ(icmpv6_nd_build_na(std::span(out).first(71), other, host, mac.data(), mac.data()), 0u);
}

// ---- checksum, masks

TEST(IpChecksum, AgreesWithAHeaderFromTheTextbook)
{
    const bytes header = from_hex("4500 0073 0000 4000 4011 0000 c0a8 0001 c0a8 00c7");
    const std::uint16_t sum = ip_checksum(header.data(), header.size());
    std::uint8_t stored[2];
    std::memcpy(stored, &sum, 2);
    EXPECT_EQ(stored[0], 0xB8);
    EXPECT_EQ(stored[1], 0x61);
}

TEST(IpChecksum, SumsEveryLengthAsPlainArithmeticDoes)
{
    bytes data(300);
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<std::uint8_t>(251 * i + 7);
    for (std::size_t length = 0; length <= data.size(); ++length) {
        std::uint32_t sum = 0;
        for (std::size_t i = 0; i < length; ++i)
            sum += i % 2 == 0 ? data[i] << 8 : data[i];
        while (sum >> 16 != 0)
            sum = (sum & 0xFFFF) + (sum >> 16);
        const std::uint16_t got = ip_checksum(data.data(), length);
        std::uint8_t stored[2];
        std::memcpy(stored, &got, 2);
        EXPECT_EQ(stored[0] << 8 | stored[1], 0xFFFF & ~sum) << length;
    }
}

TEST(IpMask, ClampsToTheWordsWidth)
{
    EXPECT_EQ(ip_bits2mask(0), 0u);
    EXPECT_EQ(ip_bits2mask(1), 0x80000000u);
    EXPECT_EQ(ip_bits2mask(10), 0xFFC00000u);
    EXPECT_EQ(ip_bits2mask(32), 0xFFFFFFFFu);
    EXPECT_EQ(ip_bits2mask(33), 0xFFFFFFFFu);
}

// ---- PIM

TEST(PimHello, IsAWholePacketToAllRouters)
{
    mbuf *m = pim_api_create_hello_pkt(10, 0, 0, 0);
    ASSERT_NE(m, nullptr);
    const bytes packet(m_data(m), m_data(m) + m_length(m));
    m_freem(m);
    ASSERT_EQ(packet.size(), 46u);
    EXPECT_EQ(packet[0], 0x45);
    EXPECT_EQ(packet[2] << 8 | packet[3], 46);
    EXPECT_EQ(packet[8], 1);
    EXPECT_EQ(packet[9], 103);
    EXPECT_EQ(bytes(packet.begin() + 16, packet.begin() + 20), from_hex("e000000d"));
    EXPECT_EQ(ip_checksum(packet.data(), 20), 0);
    EXPECT_EQ(ip_checksum(packet.data() + 20, 26), 0);
    EXPECT_EQ(packet[20], 0x20);                                // version 2, hello
    EXPECT_EQ(bytes(packet.begin() + 24, packet.begin() + 38), from_hex("0001 0002 0069 0013 0004 00000000"));
    EXPECT_EQ(bytes(packet.begin() + 38, packet.begin() + 42), from_hex("0014 0004"));
}

TEST(PimHello, IsNotMadeWithoutABufferAndLeavesNoneBehind)
{
    const std::size_t before = support::buffers_out;
    support::no_buffers = true;
    EXPECT_EQ(pim_api_create_hello_pkt(10, 0, 0, 0), nullptr);
    support::no_buffers = false;
    support::copy_fails = true;
    EXPECT_EQ(pim_api_create_hello_pkt(10, 0, 0, 0), nullptr);
    support::reset();
    EXPECT_EQ(support::buffers_out, before);
}

} // namespace
