// Small helpers of every unit: named wire fields with the byte order at each call, and readers of tagged addresses.
#pragma once

#include "lum_private.h"

#include <concepts>
#include <cstring>

// A field of a record: {offset, width} in bytes.
using wire_field = lum_wire_field;

template <wire_field F, std::unsigned_integral T, std::size_t N>
constexpr void wire_put_be(std::span<std::uint8_t, N> out, T value)
{
    static_assert(F.width == sizeof(T) && F.at + F.width <= N);
    for (std::size_t i = 0; i < F.width; ++i)
        out[F.at + i] = static_cast<std::uint8_t>(value >> 8 * (F.width - 1 - i));
}

template <wire_field F, std::unsigned_integral T, std::size_t N>
void wire_put_host(std::span<std::uint8_t, N> out, T value)
{
    static_assert(F.width == sizeof(T) && F.at + F.width <= N);
    std::memcpy(out.data() + F.at, &value, sizeof value);
}

template <wire_field F, std::size_t N, std::size_t M>
void wire_put_bytes(std::span<std::uint8_t, N> out, const std::array<std::uint8_t, M> &bytes)
{
    static_assert(F.width == M && F.at + F.width <= N);
    std::memcpy(out.data() + F.at, bytes.data(), M);
}

// Readers for positions that are known only at run time; the caller has checked the length.
constexpr std::uint16_t wire_be16(const std::uint8_t *p) { return static_cast<std::uint16_t>(p[0] << 8 | p[1]); }
constexpr std::uint32_t wire_be32(const std::uint8_t *p)
{
    return static_cast<std::uint32_t>(p[0]) << 24 | static_cast<std::uint32_t>(p[1]) << 16 |
           static_cast<std::uint32_t>(p[2]) << 8 | p[3];
}
constexpr void wire_set_be16(std::uint8_t *p, std::uint16_t v)
{
    p[0] = static_cast<std::uint8_t>(v >> 8);
    p[1] = static_cast<std::uint8_t>(v);
}
constexpr void wire_set_be32(std::uint8_t *p, std::uint32_t v)
{
    wire_set_be16(p, static_cast<std::uint16_t>(v >> 16));
    wire_set_be16(p + 2, static_cast<std::uint16_t>(v));
}
inline std::uint32_t wire_host32(const std::uint8_t *p)
{
    std::uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
inline void wire_set_host32(std::uint8_t *p, std::uint32_t v) { std::memcpy(p, &v, sizeof v); }

// Tagged addresses. Word n of the body; for kind 6: word 0 the iod, word 1 the family, the address behind them.
inline std::uint32_t lum_addr_word(const lum_addr &a, std::size_t n) { return wire_host32(a.body.data() + 4 * n); }
inline void lum_addr_set_word(lum_addr &a, std::size_t n, std::uint32_t v) { wire_set_host32(a.body.data() + 4 * n, v); }

inline lum_addr lum_addr_iod(std::uint32_t iod)
{
    lum_addr a{};
    a.kind = LUM_ADDR_IOD;
    lum_addr_set_word(a, 0, iod);
    return a;
}
inline lum_addr lum_addr_ipv4(std::uint32_t host)
{
    lum_addr a{};
    a.kind = LUM_ADDR_IPV4;
    lum_addr_set_word(a, 0, host);
    return a;
}
inline lum_addr lum_addr_ipv6(const ipv6_address &address)
{
    lum_addr a{};
    a.kind = LUM_ADDR_IPV6;
    std::memcpy(a.body.data(), address.data(), address.size());
    return a;
}
inline lum_addr lum_addr_mac(const lum_mac_info &info)
{
    lum_addr a{};
    a.kind = LUM_ADDR_MAC;
    lum_addr_set_word(a, 0, info.vlan);
    std::memcpy(a.body.data() + 4, info.mac.data(), info.mac.size());
    return a;
}
inline lum_addr lum_addr_next_hop(std::uint32_t iod, std::uint32_t ipv4_host)
{
    lum_addr a{};
    a.kind = LUM_ADDR_NEXT_HOP;
    lum_addr_set_word(a, 0, iod);
    lum_addr_set_word(a, 1, LUM_FAMILY_IPV4);
    lum_addr_set_word(a, 2, ipv4_host);
    return a;
}
inline lum_addr lum_addr_next_hop(std::uint32_t iod, const ipv6_address &address)
{
    lum_addr a{};
    a.kind = LUM_ADDR_NEXT_HOP;
    lum_addr_set_word(a, 0, iod);
    lum_addr_set_word(a, 1, LUM_FAMILY_IPV6);
    std::memcpy(a.body.data() + 8, address.data(), address.size());
    return a;
}
// Of a kind 6 address.
inline std::uint32_t lum_next_hop_iod(const lum_addr &a) { return lum_addr_word(a, 0); }
inline std::uint32_t lum_next_hop_family(const lum_addr &a) { return lum_addr_word(a, 1); }
inline std::uint32_t lum_next_hop_ipv4(const lum_addr &a) { return lum_addr_word(a, 2); }
inline ipv6_address lum_next_hop_ipv6(const lum_addr &a)
{
    ipv6_address v6;
    std::memcpy(v6.data(), a.body.data() + 8, v6.size());
    return v6;
}
inline ipv6_address lum_addr_ipv6_bytes(const lum_addr &a)      // of a kind 5 address
{
    ipv6_address v6;
    std::memcpy(v6.data(), a.body.data(), v6.size());
    return v6;
}

// Equal kinds, and of the value only what the kind uses; other kinds are never equal.
inline bool lum_addr_equal(const lum_addr &a, const lum_addr &b)
{
    if (a.kind != b.kind)
        return false;
    const auto same = [&](std::size_t at, std::size_t n) { return std::memcmp(&a.body[at], &b.body[at], n) == 0; };
    switch (a.kind) {
    case LUM_ADDR_IOD:
    case LUM_ADDR_IFINDEX:
    case LUM_ADDR_IPV4:
        return same(0, 4);
    case LUM_ADDR_MAC:
        return same(0, 10);
    case LUM_ADDR_IPV6:
        return same(0, 16);
    case LUM_ADDR_NEXT_HOP:
        if (!same(0, 4) || (lum_next_hop_family(a) & 0xFF) != (lum_next_hop_family(b) & 0xFF))
            return false;
        return same(8, (lum_next_hop_family(a) & 0xFF) == LUM_FAMILY_IPV4 ? 4 : 16);
    default:
        return false;
    }
}

inline bool lum_mac_is_broadcast(const std::uint8_t *mac)
{
    return (mac[0] & mac[1] & mac[2] & mac[3] & mac[4] & mac[5]) == 0xFF;
}
inline bool lum_mac_is_group(const std::uint8_t *mac) { return (mac[0] & 1) != 0; }
inline bool lum_mac_is_multicast(const std::uint8_t *mac) { return lum_mac_is_group(mac) && !lum_mac_is_broadcast(mac); }

inline lum_vlan *lum_vlan_entry(std::uint32_t vlan) { return vlan < LUM_VLANS ? &lum_vlans[vlan] : nullptr; }
