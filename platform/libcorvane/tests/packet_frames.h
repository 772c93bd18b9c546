// Frames for tests, built and judged by code of their own: nothing here uses the library's parsers or sums.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <span>
#include <string>
#include <vector>

namespace frames {

using bytes = std::vector<std::uint8_t>;
using view = std::span<const std::uint8_t>;

inline bytes hex(const std::string &text)                      // blanks are ignored
{
    bytes out;
    std::string digits;
    for (const char c : text)
        if (c != ' ' && c != '\n')
            digits += c;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
        out.push_back(static_cast<std::uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return out;
}

inline bytes operator+(bytes a, const bytes &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

inline bytes be16(std::size_t v) { return {static_cast<std::uint8_t>(v >> 8), static_cast<std::uint8_t>(v)}; }
inline bytes be32(std::size_t v) { return be16(v >> 16 & 0xFFFF) + be16(v & 0xFFFF); }

inline bytes counting(std::size_t n, std::uint8_t from = 0)    // from, from + 1, ...
{
    bytes out(n);
    for (std::size_t i = 0; i < n; ++i)
        out[i] = static_cast<std::uint8_t>(from + i * 7 + i / 251);
    return out;
}

inline std::uint16_t get16(view p, std::size_t at) { return static_cast<std::uint16_t>(p[at] << 8 | p[at + 1]); }
inline std::uint32_t get32(view p, std::size_t at) { return std::uint32_t{get16(p, at)} << 16 | get16(p, at + 2); }

// RFC 1071, word by word.
inline std::uint32_t sum_words(view p, std::uint32_t sum = 0)
{
    for (std::size_t i = 0; i < p.size(); ++i) {
        sum += i % 2 == 0 ? std::uint32_t{p[i]} << 8 : p[i];
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return sum;
}
inline std::uint16_t checksum(view p, std::uint32_t sum = 0) { return static_cast<std::uint16_t>(~sum_words(p, sum)); }

inline bytes ethernet(const std::string &destination, const std::string &source, std::size_t type)
{
    return hex(destination) + hex(source) + be16(type);
}

inline void put16(bytes &b, std::size_t at, std::size_t v)
{
    b[at] = static_cast<std::uint8_t>(v >> 8);
    b[at + 1] = static_cast<std::uint8_t>(v);
}

inline bytes ipv4(std::uint8_t protocol, const bytes &payload, std::size_t id = 0x1234, const bytes &options = {})
{
    bytes header = bytes{static_cast<std::uint8_t>(0x45 + options.size() / 4), 0} +
                   be16(20 + options.size() + payload.size()) + be16(id) + be16(0) + bytes{64, protocol} + be16(0) +
                   hex("c0000201 c6336402") + options;
    put16(header, 10, checksum(header));
    return header + payload;
}

inline bytes ipv6(std::uint8_t next, const bytes &payload)
{
    return hex("60000000") + be16(payload.size()) + bytes{next, 64} + hex("20010db8000000000000000000000001") +
           hex("20010db8000000000000000000000002") + payload;
}

// Pseudo header sum of the packet at `ip`.
inline std::uint32_t pseudo(view ip, std::uint8_t protocol, std::size_t length)
{
    const view addresses = ip[0] >> 4 == 4 ? ip.subspan(12, 8) : ip.subspan(8, 32);
    std::uint32_t sum = sum_words(addresses);
    sum += static_cast<std::uint32_t>(protocol + length);
    return (sum & 0xFFFF) + (sum >> 16);
}

// True when the IP header's sum (IPv4) and the TCP or UDP checksum behind it are right. No options, no extensions.
inline bool sums_are_right(view ip)
{
    const bool v4 = ip[0] >> 4 == 4;
    const std::size_t header = v4 ? (ip[0] & 15u) * 4u : 40u;
    if (v4 && checksum(ip.first(header)) != 0)
        return false;
    const view transport = ip.subspan(header);
    return checksum(transport, pseudo(ip, v4 ? ip[9] : ip[6], transport.size())) == 0;
}

struct tcp_fields {
    std::uint32_t sequence = 1000;
    std::uint8_t flags = 0x18;               // ACK, PSH
    bytes options = {};
};
inline bytes tcp(const tcp_fields &f, const bytes &payload)
{
    return be16(40000) + be16(80) + be32(f.sequence) + be32(777) +
           bytes{static_cast<std::uint8_t>((20 + f.options.size()) / 4 << 4), f.flags} + be16(512) + be16(0) + be16(0) +
           f.options + payload;
}
inline bytes udp(const bytes &payload, std::size_t source = 40000, std::size_t destination = 53)
{
    return be16(source) + be16(destination) + be16(8 + payload.size()) + be16(0) + payload;
}

// What a sender with checksum offload leaves in the field: the pseudo header's sum.
inline void leave_to_device(bytes &ip, std::size_t field)
{
    const std::size_t header = ip[0] >> 4 == 4 ? (ip[0] & 15u) * 4u : 40u;
    put16(ip, header + field, pseudo(ip, ip[0] >> 4 == 4 ? ip[9] : ip[6], ip.size() - header));
}
inline void finish(bytes &ip, std::size_t field)
{
    const std::size_t header = ip[0] >> 4 == 4 ? (ip[0] & 15u) * 4u : 40u;
    put16(ip, header + field, 0);
    const view transport = view(ip).subspan(header);
    put16(ip, header + field, checksum(transport, pseudo(ip, ip[0] >> 4 == 4 ? ip[9] : ip[6], transport.size())));
}

inline constexpr std::size_t TCP_SUM = 16, UDP_SUM = 6;
inline const std::string HOST_A = "02000000000a", HOST_B = "02000000000b";

} // namespace frames
