// Values of command arguments as texts: the command server checks them with these functions, the client library reads
// them with the same ones, so a value that was accepted can always be read.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

using ipv6_bytes = std::array<std::uint8_t, 16>;

// Decimal, digits only, at most 10 of them.
[[nodiscard]] std::optional<std::uint32_t> value_integer(std::string_view text);
// Dotted quad, host order.
[[nodiscard]] std::optional<std::uint32_t> value_ipv4(std::string_view text);
[[nodiscard]] std::optional<ipv6_bytes> value_ipv6(std::string_view text);

template <class Address> struct value_prefix_of {
    Address address{};
    std::uint32_t length = 0;
};
[[nodiscard]] std::optional<value_prefix_of<std::uint32_t>> value_prefix(std::string_view text);
[[nodiscard]] std::optional<value_prefix_of<ipv6_bytes>> value_prefix6(std::string_view text);

using mac_bytes = std::array<std::uint8_t, 6>;
[[nodiscard]] std::optional<mac_bytes> value_mac(std::string_view text);       // six pairs of digits, colons between

struct value_vlan_range {
    std::uint16_t first = 0, last = 0;
};
inline constexpr std::uint32_t VALUE_VLAN_MAX = 4095;
// "10,20,30-40". As many ranges as were written, in the order written, none merged. Empty: not a list.
[[nodiscard]] std::vector<value_vlan_range> value_vlan_list(std::string_view text);

[[nodiscard]] std::string value_ipv4_text(std::uint32_t address_host);
[[nodiscard]] std::string value_ipv6_text(const ipv6_bytes &address);
[[nodiscard]] std::string value_mac_text(const mac_bytes &mac);                // lower case, two digits each

} // namespace corvane
