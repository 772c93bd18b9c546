// Methods of the message bus.
#pragma once

#include "methods.h"

#include <cstddef>

namespace corvane {

// Requests -> replies. Queues are named by the number their process gave them.
inline constexpr std::uint32_t
    BUS_BIND = method(METHOD_BUS, 1),       // u32 queue, sap, depth, waiting, service; text name -> u32 sap
    BUS_UNBIND = method(METHOD_BUS, 2),     // u32 queue
    BUS_OPTION = method(METHOD_BUS, 3),     // u32 queue, opcode, option
    BUS_SEND = method(METHOD_BUS, 4),       // u32 queue, node, sap, opcode, sync event, want ack; the rest is payload
    BUS_CONSUMED = method(METHOD_BUS, 5),   // one way: u32 queue, count: messages that were received
    BUS_SUBSCRIBERS = method(METHOD_BUS, 6);    // u32 opcode -> u32 count of queues that subscribed to it by number

struct delivery_header {
    std::uint32_t source_node = 0, source_sap = 0, opcode = 0, sync_event = 0, want_ack = 0, reserved = 0;
};
static_assert(sizeof(delivery_header) == 24);

inline constexpr std::size_t BUS_PAYLOAD_MAX = 160 * 1024;
inline constexpr std::uint32_t BUS_DEPTH_MAX = 65536, BUS_QUEUES_MAX = 16, BUS_NAME_MAX = 63;

// SAP 0 in a bind asks for a free one. SAPs below BUS_SAP_FIRST belong to corvaned; so do those it serves.
inline constexpr std::uint32_t BUS_SAP_FIRST = 16, BUS_SAP_DYNAMIC = 0x10000;
// Subscribed with this opcode, a queue gets every notification that a process sends (corvbus monitor).
inline constexpr std::uint32_t BUS_OPCODE_ALL = 0xFFFFFFFF;
inline constexpr std::uint32_t BUS_OPTION_KEEP_LAST = 3, BUS_OPTION_SUBSCRIBE = 16, BUS_OPTION_SUBSCRIBE_ADDRESSED = 17;

} // namespace corvane
