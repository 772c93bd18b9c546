// Where a core packet goes: device, MTU and next hop by destination, as the kernel's routing says. Kept until the
// kernel announces a change; the process lock protects it.
#pragma once

#include "neighbour.h"

#include <linux/netlink.h>

#include <cstdint>

namespace corvane {

struct core_destination {
    std::uint8_t family = 0;                 // AF_INET or AF_INET6
    core_address address{};
    std::uint32_t ifindex = 0;               // device of a multicast packet; 0: routing decides
    bool operator==(const core_destination &) const = default;
};

enum class path_kind : std::uint8_t {
    NONE,                                    // no route, or the device is gone
    LOCAL,                                   // this machine's own address
    GROUP,                                   // link address from the group
    NEIGHBOUR,                               // link address of `next_hop`
    PLAIN,                                   // a device without link addresses
};

struct core_path {
    path_kind kind = path_kind::NONE;
    std::uint32_t ifindex = 0;
    std::uint32_t mtu = 0;
    neighbour *next_hop = nullptr;
    mac_address source{}, group{};
};

// Lives until the next call.
[[nodiscard]] const core_path &core_path_get(const core_destination &destination);

[[nodiscard]] bool is_multicast(const core_destination &destination);

// On the thread "corvane-net".
void core_path_event(const nlmsghdr *event);
void core_paths_forget();

} // namespace corvane
