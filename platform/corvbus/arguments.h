// Words of the command line as values.
#pragma once

#include "../api/rtab.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace corvbus {

using words = std::vector<std::string>;

[[nodiscard]] std::optional<std::uint32_t> number(const std::string &text);              // decimal, or 0x...
[[nodiscard]] std::optional<std::vector<std::uint8_t>> bytes(const std::string &hex);
[[nodiscard]] std::string hex(const std::uint8_t *data, std::size_t length);
[[nodiscard]] std::optional<rtab_mac_info> mac_info(const std::string &vlan, const std::string &mac);
[[nodiscard]] rtab_addr interface_nexthop(std::uint32_t iod);
// Next hop over an overlay's interface; the address of either family.
[[nodiscard]] std::optional<rtab_addr> ip_nexthop(std::uint32_t iod, const std::string &address);

// Takes `--name VALUE` out of the words. Nothing when it is not there; false in `good` when its value is no number.
[[nodiscard]] std::optional<std::uint32_t> take_option(words &from, const std::string &name, bool &good);

} // namespace corvbus
