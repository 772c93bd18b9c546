// Fragmentation of IPv4 (RFC 791) and IPv6 (RFC 8200) packets.
#include "fragment.h"

#include "../packet/sum.h"

#include <algorithm>
#include <cstring>

namespace corvane {

namespace {

constexpr std::size_t IPV4_HEADER = 20, IPV6_HEADER = 40, FRAGMENT_HEADER = 8, UNIT = 8;
constexpr std::size_t IPV4_LENGTH = 2, IPV4_ID = 4, IPV4_FRAGMENT = 6, IPV4_CHECKSUM = 10;
constexpr std::size_t IPV6_LENGTH = 4, IPV6_NEXT = 6;
constexpr std::uint16_t DONT_FRAGMENT = 0x4000, MORE_FRAGMENTS = 0x2000, OFFSET_MASK = 0x1FFF;
constexpr std::uint8_t NEXT_HOP_BY_HOP = 0, NEXT_ROUTING = 43, NEXT_FRAGMENT = 44;
constexpr std::uint8_t OPTION_END = 0, OPTION_NOP = 1, OPTION_COPIED = 0x80;

std::uint16_t get_be16(const std::uint8_t *p)
{
    return static_cast<std::uint16_t>(p[0] << 8 | p[1]);
}
void put_be16(std::uint8_t *p, std::size_t value)
{
    p[0] = static_cast<std::uint8_t>(value >> 8);
    p[1] = static_cast<std::uint8_t>(value);
}

// Only options that say so are copied to the later fragments; padding keeps the header's length.
void blank_uncopied_options(std::uint8_t *header, std::size_t length)
{
    for (std::size_t at = IPV4_HEADER; at < length && header[at] != OPTION_END;) {
        if (header[at] == OPTION_NOP) {
            ++at;
            continue;
        }
        const std::size_t size = at + 1 < length ? header[at + 1] : 0;
        if (size < 2 || at + size > length)
            return;
        if ((header[at] & OPTION_COPIED) == 0)
            std::memset(header + at, OPTION_NOP, size);
        at += size;
    }
}

} // namespace

bool fragmenter::begin_ipv4(const std::uint8_t *packet, std::size_t length, std::size_t mtu, std::uint16_t id)
{
    if (length < IPV4_HEADER)
        return false;
    header_length_ = std::size_t{packet[0]} % 16 * 4;
    const std::uint16_t fragment = get_be16(packet + IPV4_FRAGMENT);
    if (header_length_ < IPV4_HEADER || header_length_ > length || (fragment & DONT_FRAGMENT) != 0 ||
        mtu < header_length_ + UNIT)
        return false;
    ipv6_ = false;
    base_offset_ = static_cast<std::uint16_t>((fragment & OFFSET_MASK) * UNIT);
    more_behind_ = (fragment & MORE_FRAGMENTS) != 0;
    std::memcpy(first_header_.data(), packet, header_length_);
    // A packet that is a fragment already keeps the identification its siblings have.
    if (base_offset_ == 0 && !more_behind_)
        put_be16(first_header_.data() + IPV4_ID, id);
    later_header_ = first_header_;
    blank_uncopied_options(later_header_.data(), header_length_);
    payload_ = packet + header_length_;
    payload_length_ = length - header_length_;
    share_ = (mtu - header_length_) / UNIT * UNIT;
    offset_ = 0;
    return true;
}

bool fragmenter::begin_ipv6(const std::uint8_t *packet, std::size_t length, std::size_t mtu, std::uint32_t id)
{
    constexpr std::size_t HEADERS = IPV6_HEADER + FRAGMENT_HEADER;
    if (length < IPV6_HEADER || mtu < HEADERS + UNIT)
        return false;
    const std::uint8_t next = packet[IPV6_NEXT];
    if (next == NEXT_HOP_BY_HOP || next == NEXT_ROUTING || next == NEXT_FRAGMENT)
        return false;
    ipv6_ = true;
    base_offset_ = 0;
    more_behind_ = false;
    header_length_ = HEADERS;
    std::uint8_t *header = first_header_.data();
    std::memcpy(header, packet, IPV6_HEADER);
    header[IPV6_NEXT] = NEXT_FRAGMENT;
    std::memset(header + IPV6_HEADER, 0, FRAGMENT_HEADER);
    header[IPV6_HEADER] = next;
    put_be16(header + IPV6_HEADER + 4, id >> 16);
    put_be16(header + IPV6_HEADER + 6, id & 0xFFFF);
    later_header_ = first_header_;
    payload_ = packet + IPV6_HEADER;
    payload_length_ = length - IPV6_HEADER;
    share_ = (mtu - HEADERS) / UNIT * UNIT;
    offset_ = 0;
    return true;
}

void fragmenter::write_ipv4(std::uint8_t *out, std::size_t share, bool last) const
{
    const std::size_t units = (base_offset_ + offset_) / UNIT;
    put_be16(out + IPV4_LENGTH, header_length_ + share);
    put_be16(out + IPV4_FRAGMENT, units | (last && !more_behind_ ? 0 : MORE_FRAGMENTS));
    put_be16(out + IPV4_CHECKSUM, 0);
    store_sum(out + IPV4_CHECKSUM, native_fold(native_sum(0, out, header_length_)));
}

void fragmenter::write_ipv6(std::uint8_t *out, std::size_t share, bool last) const
{
    put_be16(out + IPV6_LENGTH, FRAGMENT_HEADER + share);
    put_be16(out + IPV6_HEADER + 2, offset_ | (last ? 0 : 1));
}

std::size_t fragmenter::next(std::uint8_t *out)
{
    const std::size_t share = std::min(share_, payload_length_ - offset_);
    const bool last = offset_ + share == payload_length_;
    std::memcpy(out, (offset_ == 0 ? first_header_ : later_header_).data(), header_length_);
    std::memcpy(out + header_length_, payload_ + offset_, share);
    if (ipv6_)
        write_ipv6(out, share, last);
    else
        write_ipv4(out, share, last);
    offset_ += share;
    return header_length_ + share;
}

} // namespace corvane
