// Checksums and segments that senders leave to the device.
#include "offload.h"

#include "crc32c.h"
#include "sum.h"

#include <algorithm>
#include <cstring>

namespace corvane {

namespace {

constexpr std::uint8_t PROTOCOL_TCP = 6, PROTOCOL_UDP = 17;
constexpr std::size_t IPV4_HEADER = 20, IPV6_HEADER = 40, TCP_HEADER = 20, UDP_HEADER = 8;
constexpr std::size_t IPV4_LENGTH = 2, IPV4_ID = 4, IPV4_FRAGMENT = 6, IPV4_PROTOCOL = 9, IPV4_CHECKSUM = 10, IPV4_SOURCE = 12;
constexpr std::size_t IPV6_LENGTH = 4, IPV6_NEXT = 6, IPV6_SOURCE = 8;
constexpr std::size_t TCP_SEQUENCE = 4, TCP_OFFSET = 12, TCP_FLAGS = 13, TCP_CHECKSUM = 16;
constexpr std::size_t UDP_LENGTH = 4, UDP_CHECKSUM = 6;
constexpr std::uint8_t TCP_FIN = 0x01, TCP_PSH = 0x08, TCP_CWR = 0x80;
constexpr std::size_t SCTP_CHECKSUM = 8;     // its place tells a CRC32c from an Internet checksum
constexpr std::size_t MAX_TAGS = 3;

std::uint16_t get_be16(const std::uint8_t *p)
{
    return static_cast<std::uint16_t>(p[0] << 8 | p[1]);
}
void put_be16(std::uint8_t *p, std::size_t value)
{
    p[0] = static_cast<std::uint8_t>(value >> 8);
    p[1] = static_cast<std::uint8_t>(value);
}
std::uint32_t get_be32(const std::uint8_t *p)
{
    return std::uint32_t{get_be16(p)} << 16 | get_be16(p + 2);
}
void put_be32(std::uint8_t *p, std::uint32_t value)
{
    put_be16(p, value >> 16);
    put_be16(p + 2, value & 0xFFFF);
}

void finish_sctp(std::uint8_t *from, std::size_t length)
{
    std::memset(from + SCTP_CHECKSUM, 0, 4);
    const std::uint32_t crc = crc32c(from, length);
    for (std::size_t i = 0; i < 4; ++i)                        // least significant byte first (RFC 9260)
        from[SCTP_CHECKSUM + i] = static_cast<std::uint8_t>(crc >> 8 * i);
}

} // namespace

bool finish_checksum(std::uint8_t *frame, std::size_t length, const offload_meta &meta)
{
    if ((meta.flags & OFFLOAD_NEEDS_CSUM) == 0)
        return true;
    const std::size_t start = meta.csum_start, field = start + meta.csum_offset;
    if (start < ETHERNET_HEADER || field + 2 > length)
        return false;
    if (meta.csum_offset == SCTP_CHECKSUM) {
        if (field + 4 > length)
            return false;
        finish_sctp(frame + start, length - start);
        return true;
    }
    store_sum(frame + field, native_fold_nonzero(native_sum(0, frame + start, length - start)));
    return true;
}

bool super_frame::parse_ipv4(const std::uint8_t *frame, std::size_t length, std::uint8_t &protocol)
{
    const std::uint8_t *ip = frame + network_;
    if (length < network_ + IPV4_HEADER || ip[0] >> 4 != 4)
        return false;
    const std::size_t header = std::size_t{ip[0]} % 16 * 4;
    constexpr std::uint16_t MORE_FRAGMENTS_OR_OFFSET = 0x3FFF;
    if (header < IPV4_HEADER || length < network_ + header || (get_be16(ip + IPV4_FRAGMENT) & MORE_FRAGMENTS_OR_OFFSET) != 0)
        return false;
    protocol = ip[IPV4_PROTOCOL];
    transport_ = static_cast<std::uint16_t>(network_ + header);
    pseudo_sum_ = native_sum_be16(native_sum(0, ip + IPV4_SOURCE, 8), protocol);
    return true;
}

bool super_frame::parse_ipv6(const std::uint8_t *frame, std::size_t length, std::uint8_t &protocol)
{
    const std::uint8_t *ip = frame + network_;
    if (length < network_ + IPV6_HEADER || ip[0] >> 4 != 6)
        return false;
    protocol = ip[IPV6_NEXT];
    std::size_t at = network_ + IPV6_HEADER;
    constexpr std::uint8_t HOP_BY_HOP = 0, ROUTING = 43, DESTINATION = 60;
    while (protocol == HOP_BY_HOP || protocol == ROUTING || protocol == DESTINATION) {
        if (length < at + 8)
            return false;
        // Segments left: the address that the checksum covers is not the one in the header.
        if (protocol == ROUTING && frame[at + 3] != 0)
            return false;
        protocol = frame[at];
        at += 8 + std::size_t{frame[at + 1]} * 8;
        if (at > SUPER_HEADERS_MAX)
            return false;
    }
    transport_ = static_cast<std::uint16_t>(at);
    pseudo_sum_ = native_sum_be16(native_sum(0, ip + IPV6_SOURCE, 32), protocol);
    return true;
}

bool super_frame::parse_network(const std::uint8_t *frame, std::size_t length, std::uint8_t &protocol)
{
    std::size_t type_at = 12;
    for (std::size_t tags = 0; tags <= MAX_TAGS; ++tags, type_at += VLAN_TAG) {
        if (length < type_at + 2)
            return false;
        network_ = static_cast<std::uint16_t>(type_at + 2);
        switch (get_be16(frame + type_at)) {
        case TYPE_VLAN:
        case TYPE_QINQ:
            continue;
        case TYPE_IPV4:
            ipv6_ = false;
            return parse_ipv4(frame, length, protocol);
        case TYPE_IPV6:
            ipv6_ = true;
            return parse_ipv6(frame, length, protocol);
        default:
            return false;
        }
    }
    return false;
}

bool super_frame::parse_transport(const std::uint8_t *frame, std::size_t length, std::uint8_t protocol, std::uint8_t gso)
{
    switch (gso) {
    case OFFLOAD_GSO_TCPV4:
    case OFFLOAD_GSO_TCPV6: {
        if (protocol != PROTOCOL_TCP || ipv6_ != (gso == OFFLOAD_GSO_TCPV6) || length < transport_ + TCP_HEADER)
            return false;
        const std::size_t header = std::size_t{frame[transport_ + TCP_OFFSET]} / 16 * 4;
        header_length_ = static_cast<std::uint16_t>(transport_ + header);
        tcp_ = true;
        return header >= TCP_HEADER;
    }
    case OFFLOAD_GSO_UDP:
        header_length_ = static_cast<std::uint16_t>(transport_ + UDP_HEADER);
        tcp_ = false;
        return protocol == PROTOCOL_UDP;
    default:
        return false;
    }
}

bool super_frame::parse(const std::uint8_t *frame, std::size_t length, const offload_meta &meta)
{
    std::uint8_t protocol = 0;
    const auto gso = static_cast<std::uint8_t>(meta.gso_type & ~OFFLOAD_GSO_ECN);
    segment_size_ = meta.gso_size;
    if (segment_size_ == 0 || !parse_network(frame, length, protocol) || !parse_transport(frame, length, protocol, gso))
        return false;
    if ((meta.flags & OFFLOAD_NEEDS_CSUM) != 0 && meta.csum_start != transport_)
        return false;
    if (header_length_ > SUPER_HEADERS_MAX || header_length_ >= length)
        return false;
    constexpr std::size_t IP_LENGTH_MAX = 65535;
    return header_length_ - network_ + std::size_t{segment_size_} <= IP_LENGTH_MAX;
}

std::uint32_t super_frame::begin(std::uint8_t *frame, std::size_t length, const offload_meta &meta)
{
    total_ = next_ = 0;
    if (!parse(frame, length, meta))
        return 0;
    std::memcpy(headers_.data(), frame, header_length_);
    payload_ = frame + header_length_;
    payload_left_ = length - header_length_;
    total_ = static_cast<std::uint32_t>((payload_left_ + segment_size_ - 1) / segment_size_);
    return total_;
}

void super_frame::write_network(std::uint8_t *segment, std::size_t length) const
{
    std::uint8_t *ip = segment + network_;
    if (ipv6_) {
        put_be16(ip + IPV6_LENGTH, length - network_ - IPV6_HEADER);
        return;
    }
    put_be16(ip + IPV4_LENGTH, length - network_);
    put_be16(ip + IPV4_ID, (get_be16(ip + IPV4_ID) + next_) & 0xFFFF);
    put_be16(ip + IPV4_CHECKSUM, 0);
    store_sum(ip + IPV4_CHECKSUM, native_fold(native_sum(0, ip, std::size_t{transport_} - network_)));
}

void super_frame::write_tcp(std::uint8_t *segment, bool last) const
{
    std::uint8_t *tcp = segment + transport_;
    put_be32(tcp + TCP_SEQUENCE, get_be32(tcp + TCP_SEQUENCE) + next_ * segment_size_);
    if (!last)
        tcp[TCP_FLAGS] &= static_cast<std::uint8_t>(~(TCP_FIN | TCP_PSH));
    if (next_ != 0)
        tcp[TCP_FLAGS] &= static_cast<std::uint8_t>(~TCP_CWR);
}

void super_frame::write_transport_checksum(std::uint8_t *segment, std::size_t length) const
{
    std::uint8_t *transport = segment + transport_;
    std::uint8_t *field = transport + (tcp_ ? TCP_CHECKSUM : UDP_CHECKSUM);
    const std::size_t covered = length - transport_;
    std::memset(field, 0, 2);
    const std::uint64_t pseudo = native_sum_be16(pseudo_sum_, static_cast<std::uint16_t>(covered));
    store_sum(field, native_fold_nonzero(native_sum(pseudo, transport, covered)));
}

frame_ref super_frame::next()
{
    const bool last = next_ + 1 == total_;
    const std::size_t share = std::min<std::size_t>(payload_left_, segment_size_);
    std::uint8_t *segment = payload_ - header_length_;
    const std::size_t length = header_length_ + share;
    std::memcpy(segment, headers_.data(), header_length_);
    write_network(segment, length);
    if (tcp_)
        write_tcp(segment, last);
    else
        put_be16(segment + transport_ + UDP_LENGTH, length - transport_);
    write_transport_checksum(segment, length);
    payload_ += share;
    payload_left_ -= share;
    ++next_;
    return {segment, length};
}

} // namespace corvane
