// TCP segments put back together.
#include "tcp_merge.h"

#include "sum.h"

#include <cstring>

namespace corvane {

namespace {

constexpr std::uint8_t PROTOCOL_TCP = 6;
constexpr std::size_t TYPE_AT = 12, IPV4_HEADER = 20, IPV6_HEADER = 40, TCP_HEADER = 20;
constexpr std::size_t IPV4_LENGTH = 2, IPV4_ID = 4, IPV4_FRAGMENT = 6, IPV4_PROTOCOL = 9, IPV4_CHECKSUM = 10, IPV4_SOURCE = 12;
constexpr std::size_t IPV6_LENGTH = 4, IPV6_NEXT = 6, IPV6_SOURCE = 8;
constexpr std::size_t TCP_SEQUENCE = 4, TCP_ACKNOWLEDGED = 8, TCP_OFFSET = 12, TCP_FLAGS = 13, TCP_WINDOW = 14, TCP_CHECKSUM = 16,
                      TCP_URGENT = 18;
constexpr std::uint8_t TCP_PSH = 0x08, TCP_ACK = 0x10, TCP_ECE = 0x40;
constexpr std::uint16_t MORE_FRAGMENTS_OR_OFFSET = 0x3FFF;
constexpr std::size_t IP_LENGTH_MAX = 65535;
constexpr std::size_t MAX_TAGS = 2;

std::uint16_t get_be16(const std::uint8_t *p)
{
    return static_cast<std::uint16_t>(p[0] << 8 | p[1]);
}
std::uint32_t get_be32(const std::uint8_t *p)
{
    return std::uint32_t{get_be16(p)} << 16 | get_be16(p + 2);
}
void put_be16(std::uint8_t *p, std::size_t value)
{
    p[0] = static_cast<std::uint8_t>(value >> 8);
    p[1] = static_cast<std::uint8_t>(value);
}
bool same(const std::uint8_t *a, const std::uint8_t *b, std::size_t at, std::size_t length)
{
    return std::memcmp(a + at, b + at, length) == 0;
}

// 0: no IP behind the tags.
std::size_t find_network(const std::uint8_t *frame, std::size_t length)
{
    std::size_t at = TYPE_AT;
    for (std::size_t tags = 0; tags <= MAX_TAGS && at + 2 <= length; ++tags, at += VLAN_TAG) {
        const std::uint16_t type = get_be16(frame + at);
        if (type == TYPE_IPV4 || type == TYPE_IPV6)
            return at + 2;
        if (type != TYPE_VLAN && type != TYPE_QINQ)
            break;
    }
    return 0;
}

// The length of the IP packet as its header says; 0: no plain TCP.
std::size_t packet_length(const std::uint8_t *ip, std::size_t there, bool ipv6)
{
    if (ipv6)
        return there >= IPV6_HEADER + TCP_HEADER && ip[0] >> 4 == 6 && ip[IPV6_NEXT] == PROTOCOL_TCP
                   ? IPV6_HEADER + get_be16(ip + IPV6_LENGTH)
                   : 0;
    const bool plain = there >= IPV4_HEADER + TCP_HEADER && ip[0] == 0x45 && ip[IPV4_PROTOCOL] == PROTOCOL_TCP &&
                       (get_be16(ip + IPV4_FRAGMENT) & MORE_FRAGMENTS_OR_OFFSET) == 0;
    return plain ? get_be16(ip + IPV4_LENGTH) : 0;
}

std::uint64_t pseudo_sum(const std::uint8_t *ip, bool ipv6, std::size_t transport_length)
{
    const std::uint64_t addresses = ipv6 ? native_sum(0, ip + IPV6_SOURCE, 32) : native_sum(0, ip + IPV4_SOURCE, 8);
    return native_sum_be16(native_sum_be16(addresses, PROTOCOL_TCP), static_cast<std::uint16_t>(transport_length));
}

std::size_t ip_header(const tcp_segment &s)
{
    return std::size_t{s.transport} - s.network;
}

// Everything of the IP header but length, identification and checksum.
bool same_ip(const std::uint8_t *a, const std::uint8_t *b, bool ipv6)
{
    if (ipv6)
        return same(a, b, 0, IPV6_LENGTH) && same(a, b, IPV6_NEXT, IPV6_HEADER - IPV6_NEXT);
    return same(a, b, 0, IPV4_LENGTH) && same(a, b, IPV4_FRAGMENT, IPV4_CHECKSUM - IPV4_FRAGMENT) &&
           same(a, b, IPV4_SOURCE, IPV4_HEADER - IPV4_SOURCE);
}

// Everything of the TCP header but sequence, PSH and checksum.
bool same_tcp(const std::uint8_t *a, const std::uint8_t *b, std::size_t header)
{
    return same(a, b, TCP_ACKNOWLEDGED, TCP_FLAGS - TCP_ACKNOWLEDGED) && ((a[TCP_FLAGS] ^ b[TCP_FLAGS]) & ~TCP_PSH) == 0 &&
           same(a, b, TCP_WINDOW, TCP_CHECKSUM - TCP_WINDOW) && same(a, b, TCP_URGENT, header - TCP_URGENT);
}

} // namespace

bool tcp_segment_read(const std::uint8_t *frame, std::size_t length, tcp_segment &out)
{
    const std::size_t network = find_network(frame, length);
    if (network == 0)
        return false;
    const std::uint8_t *ip = frame + network;
    const bool ipv6 = get_be16(ip - 2) == TYPE_IPV6;
    const std::size_t there = length - network, said = packet_length(ip, there, ipv6);
    if (said == 0)
        return false;
    const std::size_t header = ipv6 ? IPV6_HEADER : IPV4_HEADER;
    const std::uint8_t *tcp = ip + header;
    const std::size_t tcp_header = std::size_t{tcp[TCP_OFFSET]} / 16 * 4;
    out.network = static_cast<std::uint16_t>(network);
    out.transport = static_cast<std::uint16_t>(network + header);
    out.payload = static_cast<std::uint16_t>(out.transport + tcp_header);
    out.ipv6 = ipv6;
    out.sequence = get_be32(tcp + TCP_SEQUENCE);
    out.id = ipv6 ? std::uint16_t{0} : get_be16(ip + IPV4_ID);
    const std::uint8_t flags = tcp[TCP_FLAGS];
    out.pushes = (flags & TCP_PSH) != 0;
    out.mergeable = said == there && tcp_header >= TCP_HEADER && said > header + tcp_header && (flags & TCP_ACK) != 0 &&
                    (flags & ~(TCP_ACK | TCP_PSH | TCP_ECE)) == 0 && (tcp[TCP_OFFSET] & 0x0F) == 0;
    out.length = out.mergeable ? static_cast<std::uint16_t>(said - header - tcp_header) : std::uint16_t{0};
    return true;
}

bool tcp_same_flow(const std::uint8_t *a, const tcp_segment &in_a, const std::uint8_t *b, const tcp_segment &in_b)
{
    if (in_a.transport != in_b.transport || !same(a + in_a.transport, b + in_a.transport, 0, TCP_SEQUENCE) ||
        !same(a, b, 0, in_a.network))
        return false;
    const std::size_t addresses = in_a.network + (in_a.ipv6 ? IPV6_SOURCE : IPV4_SOURCE);
    return same(a, b, addresses, in_a.transport - addresses);
}

bool tcp_sums_are_right(const std::uint8_t *frame, const tcp_segment &s)
{
    const std::uint8_t *ip = frame + s.network;
    if (!s.ipv6 && native_fold(native_sum(0, ip, IPV4_HEADER)) != 0)
        return false;
    const std::size_t covered = std::size_t{s.payload} - s.transport + s.length;
    return native_fold(native_sum(pseudo_sum(ip, s.ipv6, covered), frame + s.transport, covered)) == 0;
}

void tcp_run::begin(const std::uint8_t *frame, const tcp_segment &segment)
{
    first_ = segment;
    frame_ = frame;
    count_ = 1;
    data_ = segment.length;
    next_sequence_ = segment.sequence + segment.length;
    pushes_ = segment.pushes;
    complete_ = !segment.mergeable || segment.pushes;
}

bool tcp_run::continues(const std::uint8_t *frame, const tcp_segment &segment) const
{
    const std::size_t headers = std::size_t{first_.payload} - first_.network;
    return !complete_ && segment.mergeable && segment.sequence == next_sequence_ && segment.payload == first_.payload &&
           segment.length <= first_.length && headers + data_ + segment.length <= IP_LENGTH_MAX &&
           (first_.ipv6 || segment.id == static_cast<std::uint16_t>(first_.id + count_)) &&
           same_ip(frame_ + first_.network, frame + first_.network, first_.ipv6) &&
           same_tcp(frame_ + first_.transport, frame + first_.transport, std::size_t{first_.payload} - first_.transport);
}

void tcp_run::append(const tcp_segment &segment)
{
    ++count_;
    data_ += segment.length;
    next_sequence_ += segment.length;
    pushes_ = segment.pushes;
    complete_ = segment.pushes || segment.length < first_.length;
}

offload_meta tcp_run::finish(std::uint8_t *frame) const
{
    std::uint8_t *ip = frame + first_.network, *tcp = frame + first_.transport;
    const std::size_t transport_length = std::size_t{first_.payload} - first_.transport + data_;
    if (first_.ipv6) {
        put_be16(ip + IPV6_LENGTH, transport_length);
    } else {
        put_be16(ip + IPV4_LENGTH, ip_header(first_) + transport_length);
        put_be16(ip + IPV4_CHECKSUM, 0);
        store_sum(ip + IPV4_CHECKSUM, native_fold(native_sum(0, ip, IPV4_HEADER)));
    }
    if (pushes_)
        tcp[TCP_FLAGS] |= TCP_PSH;
    // What a device wants to find in the field before it computes the sum: the pseudo header's, not complemented.
    store_sum(tcp + TCP_CHECKSUM, static_cast<std::uint16_t>(~native_fold(pseudo_sum(ip, first_.ipv6, transport_length))));
    offload_meta meta;
    meta.flags = OFFLOAD_NEEDS_CSUM;
    meta.gso_type = first_.ipv6 ? OFFLOAD_GSO_TCPV6 : OFFLOAD_GSO_TCPV4;
    meta.header_length = first_.payload;
    meta.gso_size = first_.length;
    meta.csum_start = first_.transport;
    meta.csum_offset = TCP_CHECKSUM;
    return meta;
}

} // namespace corvane
