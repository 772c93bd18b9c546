#include "arguments.h"

#include "../libcorvane/base/cli_value.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace corvbus {

namespace {

constexpr std::uint32_t KIND_INTERFACE = 1, KIND_IP = 6, FAMILY_IPV4 = 4, FAMILY_IPV6 = 5;

void put_word(rtab_addr &address, std::size_t at, std::uint32_t value)
{
    std::memcpy(address.body.data() + at, &value, sizeof value);
}

} // namespace

std::optional<std::uint32_t> number(const std::string &text)
{
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    const char *first = text.data() + (hexadecimal ? 2 : 0), *last = text.data() + text.size();
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(first, last, value, hexadecimal ? 16 : 10);
    if (first == last || end != last || error != std::errc{})
        return std::nullopt;
    return value;
}

std::optional<std::vector<std::uint8_t>> bytes(const std::string &text)
{
    std::vector<std::uint8_t> result(text.size() / 2);
    if (text.size() % 2 != 0)
        return std::nullopt;
    for (std::size_t i = 0; i < result.size(); ++i) {
        const char *at = text.data() + 2 * i;
        const auto [end, error] = std::from_chars(at, at + 2, result[i], 16);
        if (end != at + 2 || error != std::errc{})
            return std::nullopt;
    }
    return result;
}

std::string hex(const std::uint8_t *data, std::size_t length)
{
    constexpr const char *DIGITS = "0123456789abcdef";
    std::string text;
    text.reserve(2 * length);
    for (std::size_t i = 0; i < length; ++i) {
        text += DIGITS[data[i] >> 4];
        text += DIGITS[data[i] & 15];
    }
    return text;
}

std::optional<rtab_mac_info> mac_info(const std::string &vlan, const std::string &mac)
{
    const auto v = number(vlan);
    const auto m = corvane::value_mac(mac);
    if (!v || *v > corvane::VALUE_VLAN_MAX || !m)
        return std::nullopt;
    return rtab_mac_info{*v, *m};
}

rtab_addr interface_nexthop(std::uint32_t iod)
{
    rtab_addr address;
    address.kind = KIND_INTERFACE;
    put_word(address, 0, iod);
    return address;
}

std::optional<rtab_addr> ip_nexthop(std::uint32_t iod, const std::string &text)
{
    rtab_addr address;
    address.kind = KIND_IP;
    put_word(address, 0, iod);
    if (const auto ipv4 = corvane::value_ipv4(text)) {
        put_word(address, 4, FAMILY_IPV4);
        put_word(address, 8, *ipv4);
        return address;
    }
    const auto ipv6 = corvane::value_ipv6(text);
    if (!ipv6)
        return std::nullopt;
    put_word(address, 4, FAMILY_IPV6);
    std::memcpy(address.body.data() + 8, ipv6->data(), ipv6->size());
    return address;
}

std::optional<std::uint32_t> take_option(words &from, const std::string &name, bool &good)
{
    const auto at = std::ranges::find(from, name);
    if (at == from.end())
        return std::nullopt;
    const auto value = at + 1 == from.end() ? std::nullopt : number(*(at + 1));
    good = good && value.has_value();
    from.erase(at, at + (at + 1 == from.end() ? 1 : 2));
    return value;
}

} // namespace corvbus
