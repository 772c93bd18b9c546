// Which switchports carry a VLAN, and which of them tag it, as the interface manager announces it and, for ports that it
// says nothing of, as the daemon's own command does: for frames that name a VLAN instead of a port, and for frames of this
// library's own on a trunk.
#pragma once

#include "mbus.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace corvane {

// A notification of the L2 state of ports. Malformed ones change nothing.
void port_vlans_take(const mbus_msg &notification);
// One port's part of it: VLANs that came and went.
void port_vlans_set(std::uint32_t iod, bool trunk, bool up, std::span<const std::uint16_t> came,
                    std::span<const std::uint16_t> went);

// Frames of this VLAN leave the port with a tag. False also for ports that nobody announced: their VLAN is untagged.
[[nodiscard]] bool port_tags_vlan(std::uint32_t iod, std::uint16_t vlan);
// Ports that carry the VLAN and are not blocked, by ascending iod, those that the daemon's own command put into it among
// them. Result: how many were written.
[[nodiscard]] std::size_t ports_of_vlan(std::uint16_t vlan, std::span<std::uint32_t> iods);

} // namespace corvane
