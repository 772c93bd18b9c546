// CRC-32C by table: SCTP frames with an unfinished checksum are rare enough.
#include "crc32c.h"

#include <array>

namespace corvane {

namespace {

constexpr std::array<std::uint32_t, 256> make_table()
{
    constexpr std::uint32_t POLYNOMIAL_REFLECTED = 0x82F63B78;
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t i = 0; i < table.size(); ++i) {
        std::uint32_t crc = i;
        for (int bit = 0; bit < 8; ++bit)
            crc = crc >> 1 ^ ((crc & 1) != 0 ? POLYNOMIAL_REFLECTED : 0);
        table[i] = crc;
    }
    return table;
}
constexpr auto TABLE = make_table();

} // namespace

std::uint32_t crc32c(const std::uint8_t *data, std::size_t length)
{
    std::uint32_t crc = ~std::uint32_t{0};
    for (std::size_t i = 0; i < length; ++i)
        crc = crc >> 8 ^ TABLE[(crc ^ data[i]) & 0xFF];
    return ~crc;
}

} // namespace corvane
