// Interface manager client. Interfaces are known by their iod, 1 to 767, stable across restarts. Queries read a table
// in shared memory and never block; notifications arrive on the main queue.
#pragma once

#include "bitfield.h"
#include "mbus.h"

#include <cstddef>
#include <cstdint>

inline constexpr std::uint32_t INTFMGR_IOD_MAX = 767;
inline constexpr std::size_t INTFMGR_NAME_SIZE = 101;          // with the terminator

// 0 on success, else a code with its text in *error.
[[nodiscard]] std::uint32_t intfmgr_ext_sbcr_init(std::uint32_t service, mbus_q queue, const char *name,
                                                  const char **error);

[[nodiscard]] bool intfmgr_is_switchport(std::uint32_t iod);
[[nodiscard]] bool intfmgr_is_tunnel(std::uint32_t iod);       // any tunnel, an overlay's included
[[nodiscard]] bool intfmgr_is_lum_tunnel(std::uint32_t iod);   // an overlay interface
[[nodiscard]] bool intfmgr_is_if_up(std::uint32_t iod);
// Copies the name, cut to `size`; "" and false when the iod is unknown.
bool intfmgr_get_if_name(std::uint32_t iod, char *out, std::size_t size);
bool intfmgr_get_if_short_name(std::uint32_t iod, char *out, std::size_t size);
[[nodiscard]] std::uint32_t intfmgr_get_if_by_name(const char *name);                 // iod, 0 = none
[[nodiscard]] bool intfmgr_get_ifindex(std::uint32_t iod, std::uint32_t &ifindex);
[[nodiscard]] std::uint32_t intfmgr_get_iod_frm_ifindex(std::uint32_t ifindex);       // 0 = none

// Notifications (opcodes): created, removed, parameters changed, L3 state changed: lists of interfaces.
inline constexpr std::uint32_t INTFMGR_OPC_CREATE = 0xF403, INTFMGR_OPC_DELETE = 0xF404, INTFMGR_OPC_L2_STATE = 0xF407,
                               INTFMGR_OPC_L3_STATE = 0xF408, INTFMGR_OPC_L3_PARAM = 0xF414;
inline constexpr std::uint32_t INTFMGR_CHANGE_L3_STATE = 35, INTFMGR_CHANGE_ENCAP = 42;   // bits of the change mask
struct intfmgr_change {
    std::uint32_t iod = 0;
    std::uint64_t mask = 0;
};
struct intfmgr_change_iterator {
    const std::uint8_t *at = nullptr;
    std::size_t left = 0;
};
// False: the message is malformed, and the iterator empty.
bool intfmgr_parse_change_iterator_init(intfmgr_change_iterator &iterator, const mbus_msg &msg);
[[nodiscard]] bool intfmgr_parse_change_iterate(intfmgr_change_iterator &iterator, intfmgr_change &change);
const char *intfmgr_change_mask_str(std::uint64_t mask, char *out, std::size_t size);     // hexadecimal, "0x..."

// L2 protocol state: per port its mode, state and the VLANs that came up and went down.
inline constexpr std::uint32_t INTFMGR_MODE_ACCESS = 0x10000, INTFMGR_MODE_TRUNK = 0x100000;
inline constexpr std::uint32_t INTFMGR_L2_STATE_UP = 1;
struct intfmgr_l2_state {
    std::uint32_t iod = 0, mode = 0, state = 0;
    bitfield *vlans_up = nullptr;                              // 4096 bits, owned by the iterator
    bitfield *vlans_down = nullptr;
};
struct intfmgr_l2_state_iterator {
    const std::uint8_t *at = nullptr;
    std::size_t left = 0;
    intfmgr_l2_state_iterator() = default;
    ~intfmgr_l2_state_iterator();
    intfmgr_l2_state_iterator(const intfmgr_l2_state_iterator &) = delete;
    intfmgr_l2_state_iterator &operator=(const intfmgr_l2_state_iterator &) = delete;
    bitfield *up = nullptr;
    bitfield *down = nullptr;
};
bool intfmgr_parse_l2_protocol_state_change_iterator_init(intfmgr_l2_state_iterator &iterator, const mbus_msg &msg);
[[nodiscard]] bool intfmgr_parse_l2_protocol_state_change_iterate(intfmgr_l2_state_iterator &iterator,
                                                                  intfmgr_l2_state &state);

// Wire layout of the notifications, host byte order (for the service, tests and other senders).
//   change list : u32 count, then count x {u32 iod, u64 mask}, unaligned
//   L2 state    : u32 count, then count x {u32 iod, u32 mode, u32 state, u16 ups, u16 downs, u16 vlan[ups + downs]}
