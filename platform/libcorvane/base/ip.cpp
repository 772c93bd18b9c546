// Checksum and mask arithmetic of the IP stack.
#include "ip.h"

#include <array>
#include <cstring>

namespace {

template <class Word> std::uint64_t load(const std::uint8_t *p)
{
    Word word = 0;
    std::memcpy(&word, p, sizeof word);
    return word;
}

} // namespace

// Summed in the machine's own byte order, eight bytes at a time with the carry added back: the ones' complement sum
// does not depend on the order as long as the result is stored the way the data was read (RFC 1071, 2).
std::uint16_t ip_checksum(const void *data, std::size_t length)
{
    const auto *p = static_cast<const std::uint8_t *>(data);
    std::uint64_t sum = 0;
    for (; length >= 8; p += 8, length -= 8) {
        const std::uint64_t word = load<std::uint64_t>(p);
        sum += word;
        sum += sum < word ? 1 : 0;
    }
    sum = (sum & 0xFFFFFFFF) + (sum >> 32);
    if (length >= 4) {
        sum += load<std::uint32_t>(p);
        p += 4;
        length -= 4;
    }
    if (length >= 2) {
        sum += load<std::uint16_t>(p);
        p += 2;
        length -= 2;
    }
    if (length != 0) {
        const std::array<std::uint8_t, 2> last{*p, 0};
        sum += load<std::uint16_t>(last.data());
    }
    sum = (sum & 0xFFFFFFFF) + (sum >> 32);
    sum = (sum & 0xFFFF) + (sum >> 16);
    sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<std::uint16_t>(~((sum & 0xFFFF) + (sum >> 16)));
}

std::uint32_t ip_bits2mask(std::uint32_t bits)
{
    if (bits == 0)
        return 0;
    return bits >= 32 ? 0xFFFFFFFF : 0xFFFFFFFFu << (32 - bits);
}
