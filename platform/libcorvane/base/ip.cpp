// Checksum and mask arithmetic of the IP stack.
#include "ip.h"

#include <cstring>

// Summed in the machine's own byte order, eight bytes at a time: the ones' complement sum does not depend on the order
// as long as the result is stored the way the data was read (RFC 1071, 2).
std::uint16_t ip_checksum(const void *data, std::size_t length)
{
    const auto *p = static_cast<const std::uint8_t *>(data);
    std::uint64_t sum = 0;
    for (; length >= 8; p += 8, length -= 8) {
        std::uint64_t word = 0;
        std::memcpy(&word, p, 8);
        sum += word;
        sum += sum < word ? 1 : 0;
    }
    std::uint64_t rest = 0;
    std::memcpy(&rest, p, length);
    sum += rest;
    sum += sum < rest ? 1 : 0;
    sum = (sum & 0xFFFFFFFF) + (sum >> 32);
    while (sum >> 16 != 0)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<std::uint16_t>(~sum);
}

std::uint32_t ip_bits2mask(std::uint32_t bits)
{
    if (bits == 0)
        return 0;
    return bits >= 32 ? 0xFFFFFFFF : 0xFFFFFFFFu << (32 - bits);
}
