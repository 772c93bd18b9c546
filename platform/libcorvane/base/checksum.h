// Internet checksum in pieces (RFC 1071): sums of 16-bit words in network order, folded once at the end.
#pragma once

#include "bytes_be.h"

namespace corvane {

// Adds `data` as it would stand at an even offset.
inline std::uint64_t checksum_add(std::uint64_t sum, packet_view data)
{
    std::size_t i = 0;
    for (; i + 1 < data.size(); i += 2)
        sum += be16(data, i);
    if (i < data.size())
        sum += std::uint64_t{data[i]} << 8;
    return sum;
}
inline std::uint16_t checksum_fold(std::uint64_t sum)
{
    while (sum >> 16 != 0)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<std::uint16_t>(~sum);
}
// Of an upper-layer message behind an IPv6 header; 0 when the checksum in it is right.
inline std::uint16_t checksum_ipv6(packet_view source, packet_view destination, std::uint8_t protocol,
                                   packet_view message)
{
    std::uint64_t sum = checksum_add(checksum_add(0, source), destination);
    sum += message.size() >> 16;
    sum += message.size() & 0xFFFF;
    sum += protocol;
    return checksum_fold(checksum_add(sum, message));
}

} // namespace corvane
