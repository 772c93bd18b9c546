// PIM version 2 hello (RFC 7761, 4.9.2): hold time, designated-router priority and generation id.
#include "pim.h"

#include "checksum.h"
#include "ip.h"

#include <array>

using namespace corvane;

namespace {

constexpr std::size_t IP_SIZE = 20, HELLO_SIZE = 4 + 6 + 8 + 8;
constexpr std::uint8_t PROTOCOL_PIM = 103, VERSION_HELLO = 0x20;
constexpr std::uint32_t ALL_PIM_ROUTERS = 0xE000000D;        // 224.0.0.13
constexpr std::uint16_t OPTION_HOLD_TIME = 1, OPTION_PRIORITY = 19, OPTION_GENERATION = 20;
constexpr std::uint16_t HOLD_TIME_S = 105;                   // 3.5 hellos, one each 30 s
constexpr std::uint32_t PRIORITY = 0;                        // never the designated router: this is discovery only

void put_ip_header(std::span<std::uint8_t> packet)
{
    packet[0] = 0x45;
    packet[1] = 0xC0;                                        // internetwork control
    put_be16(packet, 2, static_cast<std::uint32_t>(packet.size()));
    packet[8] = 1;                                           // stays on the link
    packet[9] = PROTOCOL_PIM;
    put_be32(packet, 16, ALL_PIM_ROUTERS);
    put_be16(packet, 10, checksum_fold(checksum_add(0, packet.first(IP_SIZE))));
}

void put_hello(std::span<std::uint8_t> hello, std::uint32_t generation)
{
    hello[0] = VERSION_HELLO;
    put_be16(hello, 4, OPTION_HOLD_TIME);
    put_be16(hello, 6, 2);
    put_be16(hello, 8, HOLD_TIME_S);
    put_be16(hello, 10, OPTION_PRIORITY);
    put_be16(hello, 12, 4);
    put_be32(hello, 14, PRIORITY);
    put_be16(hello, 18, OPTION_GENERATION);
    put_be16(hello, 20, 4);
    put_be32(hello, 22, generation);
    put_be16(hello, 2, checksum_fold(checksum_add(0, hello)));
}

} // namespace

mbuf *pim_api_create_hello_pkt(std::uint32_t vlan, std::uint32_t /*a*/, std::uint32_t /*b*/, std::uint32_t /*c*/)
{
    std::array<std::uint8_t, IP_SIZE + HELLO_SIZE> packet{};
    const std::span<std::uint8_t> bytes(packet);
    put_ip_header(bytes);
    put_hello(bytes.subspan(IP_SIZE), 0x4C554D00u ^ vlan);   // the same from hello to hello: neighbours see no restart
    mbuf *m = m_get(packet.size());
    if (m == nullptr)
        return nullptr;
    if (!m_copyback(m, 0, packet.size(), packet.data())) {
        m_freem(m);
        return nullptr;
    }
    return m;
}
