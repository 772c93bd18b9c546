// Internet checksum for the frame path: sums kept in the machine's byte order, eight bytes a step (RFC 1071 allows
// either order; only the final store must agree with it). Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace corvane {

// Adds `data` as it stands at an even offset of what is being summed; an odd last byte counts as if a zero followed.
[[nodiscard]] inline std::uint64_t native_sum(std::uint64_t sum, const std::uint8_t *data, std::size_t length)
{
    // Words' halves into separate sums: no carry to pass on, so the steps do not wait for each other.
    constexpr std::uint64_t LOW = 0xFFFFFFFF;
    std::uint64_t a = (sum & LOW) + (sum >> 32), b = 0, word[4];
    for (; length >= sizeof word; data += sizeof word, length -= sizeof word) {
        std::memcpy(word, data, sizeof word);
        a += (word[0] & LOW) + (word[0] >> 32) + (word[1] & LOW) + (word[1] >> 32);
        b += (word[2] & LOW) + (word[2] >> 32) + (word[3] & LOW) + (word[3] >> 32);
    }
    for (; length >= 8; data += 8, length -= 8) {
        std::memcpy(word, data, 8);
        b += (word[0] & LOW) + (word[0] >> 32);
    }
    if (length != 0) {
        word[0] = 0;
        std::memcpy(word, data, length);
        b += (word[0] & LOW) + (word[0] >> 32);
    }
    return a + b;
}

// One's complement of the folded sum, to be stored with memcpy as it is.
[[nodiscard]] inline std::uint16_t native_fold(std::uint64_t sum)
{
    sum = (sum & 0xFFFFFFFF) + (sum >> 32);
    sum = (sum & 0xFFFFFFFF) + (sum >> 32);
    sum = (sum & 0xFFFF) + (sum >> 16);
    sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<std::uint16_t>(~sum);
}

// The same, with zero sent as all ones: what UDP wants, and what is equal for every other protocol.
[[nodiscard]] inline std::uint16_t native_fold_nonzero(std::uint64_t sum)
{
    const std::uint16_t folded = native_fold(sum);
    return folded == 0 ? std::uint16_t{0xFFFF} : folded;
}

// Adds a 16-bit value given in host order, as it would stand in the packet.
[[nodiscard]] inline std::uint64_t native_sum_be16(std::uint64_t sum, std::uint16_t value)
{
    return sum + static_cast<std::uint16_t>(__builtin_bswap16(value));
}

inline void store_sum(std::uint8_t *at, std::uint16_t folded)
{
    std::memcpy(at, &folded, sizeof folded);
}

} // namespace corvane
