// Link addresses of core next hops. The kernel resolves them; this keeps what it said, asks it to resolve what is
// missing and to check what is in use, and holds a few packets back meanwhile.
#pragma once

#include "packet_buffer.h"

#include <linux/netlink.h>

#include <array>
#include <atomic>
#include <cstdint>

namespace corvane {

using core_address = std::array<std::uint8_t, 16>;             // network order; IPv4 in the first four bytes, rest 0
using mac_address = std::array<std::uint8_t, 6>;

inline constexpr std::uint32_t NEIGHBOUR_WAITING_MAX = 16;     // packets held back for one next hop
inline constexpr std::uint32_t NEIGHBOURS_MAX = 8192;

// Lives as long as the process. The frame path reads `link` and sets `used`; the rest is neighbour.cpp's.
struct neighbour {
    static constexpr std::uint64_t VALID = std::uint64_t{1} << 63;
    std::atomic<std::uint64_t> link{0};                        // VALID, and the MAC in the low 48 bits, first byte lowest
    std::atomic<bool> used{false};

    std::uint32_t ifindex = 0;
    std::uint8_t family = 0;                                   // AF_INET or AF_INET6
    core_address address{};
    std::uint16_t state = 0;                                   // NUD_...
    std::uint32_t asked_second = 0, waiting_since = 0;
    mbuf *first_waiting = nullptr, *last_waiting = nullptr;
    std::uint32_t waiting = 0;
};

// Finds the neighbour, or makes it and asks the kernel what it knows. Null when NEIGHBOURS_MAX are known.
[[nodiscard]] neighbour *neighbour_get(std::uint32_t ifindex, std::uint8_t family, const core_address &address);

// Sends `packet` (without link header) now when the address is known, else holds it back; takes it over. `source`: the
// device's own MAC, `type`: the Ethernet type.
void neighbour_output(neighbour &n, mbuf *packet, const mac_address &source, std::uint16_t type);

// On the thread "corvane-net".
void neighbour_event(const nlmsghdr *event);
void neighbour_events_lost();
void neighbour_tick();                                         // once a second

} // namespace corvane
