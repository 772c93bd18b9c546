// Recognises merged TCP segments by their unfinished checksum: the kernel leaves the pseudo header's sum in its place.
#include "gre_merged.h"

#include "sum.h"

namespace corvane {

namespace {

constexpr std::size_t TYPE_AT = 16, NETWORK = ETHERNET_HEADER + VLAN_TAG, SEGMENT_PACKET = 1280, PACKET_MAX = 65535;
constexpr std::size_t IPV4_HEADER = 20, IPV6_HEADER = 40, TCP_HEADER = 20, TCP_OFFSET = 12, TCP_CHECKSUM = 16;
constexpr std::uint8_t PROTOCOL_TCP = 6;

std::uint16_t get_be16(const std::uint8_t *p)
{
    return static_cast<std::uint16_t>(p[0] << 8 | p[1]);
}

struct ip_header {
    std::uint8_t gso_type = OFFLOAD_GSO_NONE;                   // none: not TCP directly behind the header
    std::size_t size = 0;
    std::uint64_t addresses = 0;                                // their sum
};

ip_header read_ipv4(const std::uint8_t *ip, std::size_t length)
{
    constexpr std::size_t PROTOCOL = 9, SOURCE = 12;
    const std::size_t size = std::size_t{ip[0]} % 16 * 4;
    if (ip[0] >> 4 != 4 || size < IPV4_HEADER || get_be16(ip + 2) != length || ip[PROTOCOL] != PROTOCOL_TCP)
        return {};
    return {OFFLOAD_GSO_TCPV4, size, native_sum(0, ip + SOURCE, 8)};
}

ip_header read_ipv6(const std::uint8_t *ip, std::size_t length)
{
    constexpr std::size_t PAYLOAD_LENGTH = 4, NEXT_HEADER = 6, SOURCE = 8;
    if (ip[0] >> 4 != 6 || get_be16(ip + PAYLOAD_LENGTH) + IPV6_HEADER != length || ip[NEXT_HEADER] != PROTOCOL_TCP)
        return {};
    return {OFFLOAD_GSO_TCPV6, IPV6_HEADER, native_sum(0, ip + SOURCE, 32)};
}

ip_header read_ip(std::uint16_t type, const std::uint8_t *ip, std::size_t length)
{
    if (type == TYPE_IPV4)
        return read_ipv4(ip, length);
    return type == TYPE_IPV6 ? read_ipv6(ip, length) : ip_header{};
}

} // namespace

offload_meta merged_in_tunnel(const frame_ref &frame)
{
    if (frame.length <= NETWORK + SEGMENT_PACKET || frame.length > NETWORK + PACKET_MAX)
        return {};
    const std::uint8_t *ip = frame.data + NETWORK;
    const std::size_t length = frame.length - NETWORK;
    const ip_header header = read_ip(get_be16(frame.data + TYPE_AT), ip, length);
    if (header.gso_type == OFFLOAD_GSO_NONE)
        return {};

    const std::uint8_t *tcp = ip + header.size;
    const std::size_t headers = header.size + std::size_t{tcp[TCP_OFFSET]} / 16 * 4;
    std::uint16_t checksum = 0;
    std::memcpy(&checksum, tcp + TCP_CHECKSUM, sizeof checksum);
    const std::uint64_t pseudo = native_sum_be16(native_sum_be16(header.addresses, PROTOCOL_TCP),
                                                 static_cast<std::uint16_t>(length - header.size));
    if (headers < header.size + TCP_HEADER || checksum != static_cast<std::uint16_t>(~native_fold(pseudo)))
        return {};
    offload_meta meta;
    meta.gso_type = header.gso_type;
    meta.gso_size = static_cast<std::uint16_t>(SEGMENT_PACKET - headers);
    return meta;
}

} // namespace corvane
