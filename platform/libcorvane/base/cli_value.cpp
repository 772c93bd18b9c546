#include "cli_value.h"

#include <arpa/inet.h>

#include <charconv>
#include <cstdio>

namespace corvane {

namespace {

constexpr std::size_t INTEGER_DIGITS_MAX = 10;

// The text as the system's functions take it; empty when it is too long for one of these or holds a NUL.
std::string terminated(std::string_view text, std::size_t size)
{
    return text.size() >= size || text.find('\0') != std::string_view::npos ? std::string() : std::string(text);
}

// Splits at the first separator; false when there is none.
bool split(std::string_view text, char separator, std::string_view &head, std::string_view &tail)
{
    const auto at = text.find(separator);
    if (at == std::string_view::npos)
        return false;
    head = text.substr(0, at);
    tail = text.substr(at + 1);
    return true;
}

template <class Address>
std::optional<value_prefix_of<Address>> prefix(std::string_view text, std::uint32_t longest,
                                               std::optional<Address> (*read)(std::string_view))
{
    std::string_view address, length;
    if (!split(text, '/', address, length))
        return std::nullopt;
    const auto a = read(address);
    const auto l = value_integer(length);
    if (!a || !l || *l > longest)
        return std::nullopt;
    return value_prefix_of<Address>{*a, *l};
}

bool vlan_range(std::string_view item, value_vlan_range &range)
{
    std::string_view first = item, last = item;
    (void)split(item, '-', first, last);
    const auto a = value_integer(first);
    const auto b = value_integer(last);
    if (!a || !b || *a > *b || *b > VALUE_VLAN_MAX)
        return false;
    range = {static_cast<std::uint16_t>(*a), static_cast<std::uint16_t>(*b)};
    return true;
}

} // namespace

std::optional<std::uint32_t> value_integer(std::string_view text)
{
    if (text.empty() || text.size() > INTEGER_DIGITS_MAX)
        return std::nullopt;
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

std::optional<std::uint32_t> value_ipv4(std::string_view text)
{
    in_addr address{};
    if (inet_pton(AF_INET, terminated(text, INET_ADDRSTRLEN).c_str(), &address) != 1)
        return std::nullopt;
    return ntohl(address.s_addr);
}

std::optional<ipv6_bytes> value_ipv6(std::string_view text)
{
    ipv6_bytes address{};
    if (inet_pton(AF_INET6, terminated(text, INET6_ADDRSTRLEN).c_str(), address.data()) != 1)
        return std::nullopt;
    return address;
}

std::optional<value_prefix_of<std::uint32_t>> value_prefix(std::string_view text)
{
    return prefix<std::uint32_t>(text, 32, value_ipv4);
}

std::optional<value_prefix_of<ipv6_bytes>> value_prefix6(std::string_view text)
{
    return prefix<ipv6_bytes>(text, 128, value_ipv6);
}

std::optional<mac_bytes> value_mac(std::string_view text)
{
    mac_bytes mac{};
    if (text.size() != mac.size() * 3 - 1)
        return std::nullopt;
    for (std::size_t i = 0; i < mac.size(); ++i) {
        const char *at = text.data() + i * 3;
        const auto [end, error] = std::from_chars(at, at + 2, mac[i], 16);
        if (error != std::errc{} || end != at + 2 || (i + 1 < mac.size() && at[2] != ':'))
            return std::nullopt;
    }
    return mac;
}

std::vector<value_vlan_range> value_vlan_list(std::string_view text)
{
    std::vector<value_vlan_range> ranges;
    for (bool more = true; more;) {
        std::string_view item = text, rest;
        more = split(text, ',', item, rest);
        value_vlan_range range;
        if (!vlan_range(item, range))
            return {};
        ranges.push_back(range);
        text = rest;
    }
    return ranges;
}

std::string value_ipv4_text(std::uint32_t address_host)
{
    const in_addr address{htonl(address_host)};
    std::array<char, INET_ADDRSTRLEN> text{};
    inet_ntop(AF_INET, &address, text.data(), text.size());
    return text.data();
}

std::string value_ipv6_text(const ipv6_bytes &address)
{
    std::array<char, INET6_ADDRSTRLEN> text{};
    inet_ntop(AF_INET6, address.data(), text.data(), text.size());
    return text.data();
}

std::string value_mac_text(const mac_bytes &mac)
{
    std::array<char, 18> text{};
    std::snprintf(text.data(), text.size(), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
                  mac[5]);
    return text.data();
}

} // namespace corvane
