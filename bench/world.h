// An edge device in memory, on the fake platform while it only counts: eight site ports, an overlay that is up, and as
// many routes, ARP entries and other ports as asked for.
#pragma once

#include "fake.h"
#include "frames.h"

#include <cstdint>
#include <vector>

namespace bench {

inline constexpr std::uint32_t VLAN = 10, PORTS = 8, FIRST_PORT = 1, CORE = 20, OVERLAY = 100;

// Builds it, unless it stands already; routes, cache entries and further ports number `size` each: half of the routes lead
// to site ports, half to remote edges, and every host has a cache entry.
void build_world(std::uint32_t size);

// Hosts by number, 0 to size - 1. Even ones are behind site ports, odd ones behind remote edges.
[[nodiscard]] fake::mac_address host_mac(std::uint32_t number);
[[nodiscard]] std::uint32_t host_ip(std::uint32_t number);
[[nodiscard]] std::uint32_t port_of(std::uint32_t number);

// Frames of `length` bytes with the tag of VLAN, from and to these hosts.
[[nodiscard]] fake::bytes unicast_frame(std::uint32_t from, std::uint32_t to, std::size_t length);
[[nodiscard]] fake::bytes broadcast_frame(std::uint32_t from, std::size_t length);
[[nodiscard]] fake::bytes arp_frame(std::uint32_t from, std::uint32_t wanted);

} // namespace bench
