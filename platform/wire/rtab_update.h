// A route update as the client hands it over: header, then elements at a fixed stride. Host byte order.
//
// A client that fills elements by hand (learning, ageing, re-resolution, the test command) leaves the header zero. The
// builder (rtab_begin_route_update ... rtab_end_route_update) marks it, and then the elements of one update are the
// next hops of one route: an add replaces what the caller's route had, a withdrawal takes away those named.
#pragma once

#include "../api/rtab.h"

#include <cstddef>
#include <cstdint>

namespace corvane {

// In the header.
inline constexpr std::size_t RTAB_HEADER_MARK = 0;           // u32: RTAB_BUILT, or 0
inline constexpr std::size_t RTAB_HEADER_KIND = 4;           // u32: RTAB_KIND_MAC or RTAB_KIND_IP
inline constexpr std::size_t RTAB_HEADER_SOURCE = 8;         // u32: IPv4 source of an IP route, 0 any
inline constexpr std::size_t RTAB_HEADER_GROUP = 12;         // u32: IPv4 group of an IP route
inline constexpr std::uint32_t RTAB_BUILT = 0x52544231;
inline constexpr std::uint32_t RTAB_KIND_MAC = 1, RTAB_KIND_IP = 2;

// In an element.
inline constexpr std::size_t RTAB_ELEMENT_VLAN = 0;          // u32, then 6 bytes of MAC
inline constexpr std::size_t RTAB_ELEMENT_MAC = 4;
inline constexpr std::size_t RTAB_ELEMENT_UP = 11;           // u8: the next hop's interface is up (re-resolution)
inline constexpr std::size_t RTAB_ELEMENT_OPERATION = 12;    // u8
inline constexpr std::size_t RTAB_ELEMENT_NEXTHOPS = 13;     // u8: 0 or 1
inline constexpr std::size_t RTAB_ELEMENT_WORD = 16;         // u32: 11 learning, 10 test command
inline constexpr std::size_t RTAB_ELEMENT_LENGTH = 20;       // u16, not relied on
inline constexpr std::size_t RTAB_ELEMENT_NEXTHOP = 24;      // rtab_addr
inline constexpr std::uint8_t RTAB_OPERATION_NONE = 0, RTAB_OPERATION_ADD = 1, RTAB_OPERATION_DELETE = 2;
static_assert(RTAB_ELEMENT_NEXTHOP + sizeof(rtab_addr) == RTAB_UPDATE_STRIDE);

// A learnt route's data time is that much ahead of its update. Clients update a route again with the first data after a
// whole number of their periods, and look for stale ones at whole periods too: without the lead both would meet, and a
// host that talks all the time would lose its route for having been silent between its minute's end and that moment.
inline constexpr std::uint32_t RTAB_DATA_LEAD_S = 1;

} // namespace corvane
