// IPv6 neighbour discovery (RFC 4861): `packet` begins at the IPv6 header. Lengths, hop limit and checksum are checked.
#pragma once

#include "ipv6.h"

#include <span>

inline constexpr std::size_t ICMPV6_NA_PACKET_SIZE = 72;     // IPv6 header, advertisement, target link-layer option

// Source of a solicitation (its source link-layer option) or the target of an advertisement (its target link-layer
// option). `mac` points into the packet, null when the option is absent. False: no such packet. A solicitation from
// the unspecified address (duplicate address detection) has none.
[[nodiscard]] bool icmpv6_get_nd_source_addresses(std::span<const std::uint8_t> packet, ipv6_address &address,
                                                  const std::uint8_t *&mac);
[[nodiscard]] const std::uint8_t *icmpv6_get_ns_target_address(std::span<const std::uint8_t> packet);   // null: no NS
// Builds a solicited advertisement of target_mac for target. Result: its length.
std::size_t icmpv6_nd_build_na(std::span<std::uint8_t> out, const ipv6_address &target, const ipv6_address &requester,
                               const std::uint8_t *target_mac, const std::uint8_t *requester_mac);
