// Texts for messages and traces, and the hex dump.
#include "lum_inlines.h"
#include "lum_msgs.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace
{

constexpr std::uint32_t DUMP_MAX = 160, DUMP_PER_LINE = 16, DUMP_GROUP = 4;

// Traces up to 16 bytes as one line. The line goes out as the format itself, deliberate: it holds hexadecimal digits
// and spaces only.
void trace_dump_line(std::span<const std::uint8_t> bytes)
{
    std::array<char, 5 + 2 * DUMP_PER_LINE + DUMP_PER_LINE / DUMP_GROUP + 2> line{};
    char *at = std::fill_n(line.data(), 5, ' ');
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        at += std::snprintf(at, 3, "%02X", bytes[i]);
        if ((i + 1) % DUMP_GROUP == 0 && i + 1 < DUMP_PER_LINE)
            *at++ = ' ';
    }
    *at = '\n';
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
    LUM_TRACE_INTERNAL(line.data());
#pragma GCC diagnostic pop
}

bool parse_byte(const char *text, std::uint8_t &value)
{
    const auto [end, error] = std::from_chars(text, text + 2, value, 16);
    return error == std::errc{} && end == text + 2;
}

bool parse_mac(std::string_view text, std::array<std::uint8_t, 6> &mac)
{
    if (text.size() != 3 * mac.size() - 1)       // "02:00:00:00:00:0a"
        return false;
    for (std::size_t i = 0; i < mac.size(); ++i) {
        if (!parse_byte(&text[3 * i], mac[i]) || (i > 0 && text[3 * i - 1] != ':'))
            return false;
    }
    return true;
}

} // namespace

void lum_hex_dump(std::uint32_t enable, const void *data, std::uint32_t length)
{
    if (enable == 0)
        return;
    const std::uint32_t capped = std::min(length, DUMP_MAX);
    LUM_TRACE_INTERNAL("Hexdump at %p, %d bytes:\n", data, static_cast<int>(capped));
    const std::span bytes{static_cast<const std::uint8_t *>(data), capped};
    std::uint32_t at = 0;
    do {                         // a length of 0 makes one empty line
        const std::uint32_t n = std::min(capped - at, DUMP_PER_LINE);
        trace_dump_line(bytes.subspan(at, n));
        at += n;
    } while (at < capped);
}

const char *lum_print_mac(const std::uint8_t *mac, lum_text &out)
{
    std::snprintf(out.data(), out.size(), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
                  mac[5]);
    return out.data();
}

const char *lum_print_mac_info(const lum_mac_info &info, lum_text &out)
{
    lum_text mac;
    std::snprintf(out.data(), out.size(), "%u/%.17s", info.vlan, lum_print_mac(info.mac.data(), mac));
    return out.data();
}

const char *lum_print_ipv4(std::uint32_t address_host, lum_text &out)
{
    std::snprintf(out.data(), out.size(), "%u.%u.%u.%u", address_host >> 24, address_host >> 16 & 0xFF,
                  address_host >> 8 & 0xFF, address_host & 0xFF);
    return out.data();
}

const char *lum_print_ipv6(const ipv6_address &address, lum_text &out)
{
    inet_ntop(AF_INET6, address.data(), out.data(), static_cast<socklen_t>(out.size()));
    return out.data();
}

const char *lum_print_addr(const lum_addr &address, lum_text &out)
{
    switch (address.kind) {
    case LUM_ADDR_IOD:
        return lum_if_name(lum_addr_word(address, 0), out);
    case LUM_ADDR_IFINDEX:
        std::snprintf(out.data(), out.size(), "ifindex %u", lum_addr_word(address, 0));
        return out.data();
    case LUM_ADDR_MAC: {
        lum_mac_info info{lum_addr_word(address, 0), {}};
        std::memcpy(info.mac.data(), &address.body[4], info.mac.size());
        return lum_print_mac_info(info, out);
    }
    case LUM_ADDR_IPV4:
        return lum_print_ipv4(lum_addr_word(address, 0), out);
    case LUM_ADDR_IPV6:
        return lum_print_ipv6(lum_addr_ipv6_bytes(address), out);
    case LUM_ADDR_NEXT_HOP:
        if ((lum_next_hop_family(address) & 0xFF) == LUM_FAMILY_IPV4)
            return lum_print_ipv4(lum_next_hop_ipv4(address), out);
        return lum_print_ipv6(lum_next_hop_ipv6(address), out);
    default:
        std::snprintf(out.data(), out.size(), "[None]");
        return out.data();
    }
}

const char *lum_if_name(std::uint32_t iod, lum_text &out)
{
    intfmgr_get_if_name(iod, out.data(), out.size());
    return out.data();
}

bool lum_copy_from_mac_info_string(const char *text, lum_mac_info &info)
{
    const std::string_view whole{text};
    const std::size_t slash = whole.find('/');
    if (slash == std::string_view::npos)
        return false;
    lum_mac_info parsed;
    const char *end = text + slash;
    const auto [stop, error] = std::from_chars(text, end, parsed.vlan);
    if (error != std::errc{} || stop != end || parsed.vlan >= LUM_VLANS)
        return false;
    if (!parse_mac(whole.substr(slash + 1), parsed.mac))
        return false;
    info = parsed;
    return true;
}
