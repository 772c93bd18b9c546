// Network byte order over spans whose bounds the caller has checked.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace corvane {

using packet_view = std::span<const std::uint8_t>;

inline std::uint16_t be16(packet_view p, std::size_t at)
{
    return static_cast<std::uint16_t>(p[at] << 8 | p[at + 1]);
}
inline std::uint32_t be32(packet_view p, std::size_t at)
{
    return std::uint32_t{be16(p, at)} << 16 | be16(p, at + 2);
}
inline void put_be16(std::span<std::uint8_t> p, std::size_t at, std::uint32_t value)
{
    p[at] = static_cast<std::uint8_t>(value >> 8);
    p[at + 1] = static_cast<std::uint8_t>(value);
}
inline void put_be32(std::span<std::uint8_t> p, std::size_t at, std::uint32_t value)
{
    put_be16(p, at, value >> 16);
    put_be16(p, at + 2, value);
}

} // namespace corvane
