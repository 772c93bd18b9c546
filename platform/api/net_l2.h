// Packet service: frames of the switchports (and of overlays in GRE format) to and from the packet queue.
#pragma once

#include "mbus.h"

#include <array>
#include <cstddef>
#include <cstdint>

// A received frame, as payload of a message on the packet queue. Offsets in bytes, network byte order.
inline constexpr std::uint32_t NET_L2_OPC_FRAME = 0x16004, NET_L2_OPC_FRAME_FLOODED = 0x16005;
inline constexpr std::size_t NET_L2_MSG_IOD = 4;             // u32: receiving interface
inline constexpr std::size_t NET_L2_MSG_LENGTH = 52;         // u16: frame length
inline constexpr std::size_t NET_L2_MSG_FRAME = 60;          // the frame, destination MAC first

using net_l2_handle = std::uint32_t;                         // 0 = none
struct net_l2_registration {
    std::uint32_t service = 0;
    mbus_q queue = MBUS_Q_INVALID;                           // frames arrive here
    std::uint32_t sap = 0;
    std::uint32_t filter = 0;                                // 0: every frame that is not link-local by its standard
};
[[nodiscard]] net_l2_handle net_l2_register(const net_l2_registration &registration);
void net_l2_unregister(net_l2_handle handle);

struct net_l2_header {                                       // the frame's first 14 bytes, and its VLAN
    std::array<std::uint8_t, 6> destination{};
    std::array<std::uint8_t, 6> source{};
    std::uint16_t vlan_be = 0;                               // 0: that of the frame being answered, if this is a reply
    std::uint16_t ethertype_be = 0;                          // bytes 12 and 13 as they stand
};
struct net_l2_send_request {
    std::uint32_t iod_be = 0;
    std::uint32_t header_length = 14;
    std::uint32_t next_hop_family = 0;                       // 0 none, 4, 5: where a GRE overlay sends the frame
    std::uint32_t next_hop_ipv4_be = 0;
    std::array<std::uint8_t, 16> next_hop_ipv6{};
    std::uint8_t flood = 0;                                  // to every port of the VLAN instead of the iod
    std::uint8_t option[2] = {0, 0};                         // of a client's send-packet request
    std::uint8_t untagged = 0;                               // the tag was taken out; one that is left is a host's own
    std::uint16_t snap_type_be = 0;                          // untagged 802.3: goes where the tag's type still stands
};
// `payload` is the frame from its byte 14 on; it is copied or sent before the call returns. A VLAN tag in it has its
// control field low byte first; on the wire it is 802.1Q. 1 sent or queued, 0 dropped and counted.
int net_l2_send(net_l2_handle handle, const net_l2_header &header, const net_l2_send_request &request,
                const std::uint8_t *payload, std::uint16_t length);
