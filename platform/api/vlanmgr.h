// VLAN manager: the per-VLAN membership query and its reply.
#pragma once

#include "mbus.h"

#include <cstddef>
#include <cstdint>
#include <span>

inline constexpr std::uint32_t VLANMGR_SAP = 167, VLANMGR_OPC_MEMBERSHIP = 23564;

struct vlan_memb_payload {
    std::uint8_t *data = nullptr;                  // freed with vlan_memb_payload_free
    std::size_t length = 0;
};
struct vlan_memb_pair {
    std::uint32_t vlan, ifindex;
};
inline constexpr std::size_t VLAN_MEMB_PAIRS_MAX = 768;

[[nodiscard]] bool vlan_get_per_vlan_memb_info_build_mbus_local(std::span<const std::uint32_t> vlans,
                                                                vlan_memb_payload &payload);
void vlan_memb_payload_free(vlan_memb_payload &payload);
// Reads a reply. False: malformed. `vlan` is the VLAN asked for, also when there are no pairs.
[[nodiscard]] bool vlan_get_per_vlan_memb_info_parse_reply_local(const mbus_msg &msg, std::uint32_t &vlan,
                                                                 std::span<vlan_memb_pair> pairs, std::size_t &count);
// Wire layout, host byte order. Query: u32 count, u32 vlan[count]. Reply: u32 vlan, u32 count, {u32 vlan, u32 ifindex}[count].
