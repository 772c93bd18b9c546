// Route table service client. The table lives in shared memory that every client maps: lookups are lock-free and
// answer from a copy that stays valid until the same thread's next call of the same function. Updates go to the
// service. Byte order is the host's unless a name says otherwise.
#pragma once

#include "bitfield.h"
#include "mbus.h"
#include "timestamp.h"

#include <array>
#include <cstddef>
#include <cstdint>

struct rtab_mac_info {                                       // key of a MAC route: VLAN and MAC; 10 bytes on the wire
    std::uint32_t vlan = 0;
    std::array<std::uint8_t, 6> mac{};
    bool operator==(const rtab_mac_info &) const = default;
};
inline constexpr std::size_t RTAB_MAC_INFO_SIZE = 10;

// Tagged address, 28 bytes. Kinds: 1 iod, 2 ifindex, 3 VLAN and MAC (word 0 the VLAN, then 6 bytes), 4 IPv4 (word 0,
// host order), 5 IPv6 (16 bytes), 6 IP next hop or group: iod, family word (4 or 5), address.
struct rtab_addr {
    std::uint32_t kind = 0;
    std::array<std::uint8_t, 24> body{};
};
static_assert(sizeof(rtab_addr) == 28);

inline constexpr std::uint32_t RTAB_MAX_NEXTHOPS = 8;
struct rtab_route {
    rtab_mac_info key;
    std::uint32_t owner = 0;                                 // service number of the process that installed it
    std::uint32_t nexthop_count = 0;
    std::array<rtab_addr, RTAB_MAX_NEXTHOPS> nexthop{};
    timestamp data_seen;                                     // an operator's route: always the present
    std::uint8_t is_static = 0;
};
struct rtab_mroute {
    rtab_mac_info key;
    const bitfield *oifs = nullptr;                          // outgoing interfaces by iod, 768 bits
};

[[nodiscard]] bool rtab_api_init(mbus_q queue, const char *name, std::uint32_t flags);
[[nodiscard]] bool rtab_api_close();                         // false: it was not open

// Reader lock: marks a section that reads routes. Each answer is of one state of its route, with the lock or without;
// a walk sees every route that is not changed meanwhile. It cannot wedge the service: a holder that dies or stalls
// delays nothing.
void rtab_acquire_rdlock();
void rtab_release_rdlock();

// Route of a MAC, null when there is none. The chosen next hop is copied to `nexthop`; several equal ones are spread
// by `flow`, any hash of the conversation.
[[nodiscard]] const rtab_route *rtab_get_route(const rtab_mac_info &key, std::uint32_t flow, rtab_addr &nexthop);
[[nodiscard]] const rtab_mroute *rtab_get_mroute(const rtab_mac_info &key);
// The MAC's route; `exists` tells whether it has this next hop already.
[[nodiscard]] const rtab_route *rtab_does_nh_exist(const rtab_mac_info &key, const rtab_addr &nexthop, bool &exists);
struct rtab_cursor {
    std::uint64_t position = 0;
};
[[nodiscard]] const rtab_route *rtab_get_each_route(rtab_cursor &cursor);     // null at the end
[[nodiscard]] bool rtab_is_owner(const rtab_route &route);
[[nodiscard]] timestamp rtab_get_route_timestamp(const rtab_route &route);

// One update: 68 header bytes, then `count` elements 52 bytes apart; the length argument is not relied on. Non-zero
// when the service took it.
inline constexpr std::size_t RTAB_UPDATE_HEADER = 68, RTAB_UPDATE_STRIDE = 52;
[[nodiscard]] int rtab_update_route(const void *buffer, std::uint16_t count, std::uint32_t length, std::uint32_t flags);

// The same, piece by piece, in a buffer of the caller's. `add` 1 adds or replaces, 0 withdraws.
struct rtab_update {
    std::uint8_t *buffer = nullptr;
    std::size_t size = 0;
    std::size_t used = 0;
    std::uint32_t records = 0;
};
bool rtab_begin_route_update(rtab_update &update, std::uint8_t *buffer, std::size_t size);
bool rtab_add_mac_to_buffer(rtab_update &update, const rtab_mac_info &key, std::uint32_t a, std::uint32_t b,
                            std::uint32_t add);
bool rtab_add_ip_to_buffer(rtab_update &update, const rtab_mac_info &key, std::uint32_t source, std::uint32_t group,
                           std::uint32_t a, std::uint32_t b, std::uint32_t add);
bool rtab_add_nexthop_to_route(rtab_update &update, const rtab_addr &nexthop);
bool rtab_add_iod_nexthop_to_route(rtab_update &update, std::uint32_t iod);
[[nodiscard]] int rtab_end_route_update(rtab_update &update, std::uint32_t flags);   // sends it; non-zero on success
