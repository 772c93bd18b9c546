// Fragmentation of packets beyond the MTU, put together again by code of the test's own.
#include "../core/fragment.h"

#include "packet_frames.h"

#include <gmock/gmock.h>

using namespace corvane;
using namespace frames;

namespace {

std::vector<bytes> all(fragmenter &cut, std::size_t mtu)
{
    std::vector<bytes> out;
    while (cut.more()) {
        bytes fragment(mtu, 0xEE);
        fragment.resize(cut.next(fragment.data()));
        out.push_back(fragment);
    }
    return out;
}

std::vector<bytes> cut4(const bytes &packet, std::size_t mtu, std::uint16_t id = 0xBEEF)
{
    fragmenter cut;
    return cut.begin_ipv4(packet.data(), packet.size(), mtu, id) ? all(cut, mtu) : std::vector<bytes>{};
}
std::vector<bytes> cut6(const bytes &packet, std::size_t mtu)
{
    fragmenter cut;
    return cut.begin_ipv6(packet.data(), packet.size(), mtu, 0xCAFE1234) ? all(cut, mtu) : std::vector<bytes>{};
}

} // namespace

TEST(FragmentIpv4, KeepsPayloadAndGivesFreshIdentification)
{
    const bytes payload = counting(3000);
    const auto fragments = cut4(ipv4(17, payload, 0), 1500);
    ASSERT_EQ(fragments.size(), 3u);
    bytes joined(3000);
    for (std::size_t i = 0; i < 3; ++i) {
        const bytes &f = fragments[i];
        EXPECT_LE(f.size(), 1500u);
        EXPECT_EQ(get16(f, 2), f.size());
        EXPECT_EQ(get16(f, 4), 0xBEEF);
        EXPECT_EQ(f[6] >> 5, i < 2 ? 1 : 0);                             // more fragments
        EXPECT_EQ(checksum(view(f).first(20)), 0);
        std::copy(f.begin() + 20, f.end(), joined.begin() + (get16(f, 6) & 0x1FFF) * 8);
    }
    EXPECT_EQ(joined, payload);
}

TEST(FragmentIpv4, CopiesOnlyOptionsThatSaySo)
{
    const bytes options = hex("94040000") + hex("0703 0401") + hex("01010100");   // router alert; record route; padding
    const auto fragments = cut4(ipv4(17, counting(100), 1, options), 84);
    ASSERT_GE(fragments.size(), 2u);
    EXPECT_EQ(bytes(fragments[0].begin() + 20, fragments[0].begin() + 32), options);
    EXPECT_EQ(bytes(fragments[1].begin() + 20, fragments[1].begin() + 32), hex("94040000 01010101 01010100"));
    EXPECT_EQ(checksum(view(fragments[1]).first(32)), 0);
}

TEST(FragmentIpv4, CutsAFragmentAgain)
{
    bytes packet = ipv4(17, counting(2000), 0x1111);
    packet[6] = 0x20;                                                    // more behind it
    packet[7] = 10;                                                      // 80 bytes before it
    const auto fragments = cut4(packet, 1500);
    ASSERT_EQ(fragments.size(), 2u);
    EXPECT_EQ(get16(fragments[0], 4), 0x1111);
    EXPECT_EQ(get16(fragments[0], 6), 0x2000 | 10);
    EXPECT_EQ(get16(fragments[1], 6), 0x2000 | (10 + 1480 / 8));
}

TEST(FragmentIpv4, RefusesDontFragmentAndBadHeaders)
{
    bytes packet = ipv4(17, counting(2000));
    packet[6] = 0x40;
    EXPECT_TRUE(cut4(packet, 1500).empty());
    packet[6] = 0;
    EXPECT_FALSE(cut4(packet, 28).empty());
    EXPECT_TRUE(cut4(packet, 27).empty());
    packet[0] = 0x44;
    EXPECT_TRUE(cut4(packet, 1500).empty());
    EXPECT_TRUE(cut4(bytes(19, 0x45), 1500).empty());
}

TEST(FragmentIpv6, KeepsPayloadBehindFragmentHeaders)
{
    const bytes payload = counting(2600);
    const auto fragments = cut6(ipv6(17, payload), 1500);
    ASSERT_EQ(fragments.size(), 2u);
    bytes joined(2600);
    for (std::size_t i = 0; i < 2; ++i) {
        const bytes &f = fragments[i];
        EXPECT_LE(f.size(), 1500u);
        EXPECT_EQ(get16(f, 4), f.size() - 40);
        EXPECT_EQ(f[6], 44);
        EXPECT_EQ(f[40], 17);
        EXPECT_EQ(f[43] & 1, i == 0 ? 1 : 0);
        EXPECT_EQ(get32(f, 44), 0xCAFE1234u);
        std::copy(f.begin() + 48, f.end(), joined.begin() + (get16(f, 42) & 0xFFF8));
    }
    EXPECT_EQ(joined, payload);
}

TEST(FragmentIpv6, RefusesHeadersThatMustStayWhole)
{
    for (const std::uint8_t next : {std::uint8_t{0}, std::uint8_t{43}, std::uint8_t{44}})
        EXPECT_TRUE(cut6(ipv6(next, counting(2000)), 1500).empty());
    EXPECT_TRUE(cut6(ipv6(17, counting(2000)), 55).empty());
    EXPECT_TRUE(cut6(bytes(39, 0x60), 1500).empty());
}
