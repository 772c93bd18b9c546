// Frames on <root>/bus.sock, a SEQPACKET socket: one packet is one frame, its header and what belongs to its kind.
#pragma once

#include <cstddef>
#include <cstdint>

namespace corvane {

struct frame_header {
    std::uint32_t kind = 0;
    std::uint32_t number = 0;      // CALL, ONEWAY: the method; REPLY: 0 or an errno value; DELIVER: the client's queue
    std::uint64_t id = 0;          // CALL, REPLY: which call
};
static_assert(sizeof(frame_header) == 16);

inline constexpr std::uint32_t FRAME_HELLO = 1,   // client, first: u32 FRAME_VERSION, u32 service number; a REPLY answers
                               FRAME_CALL = 2,    // client: request of the method
                               FRAME_ONEWAY = 3,  // client: the same, nobody waits for a reply and none is sent
                               FRAME_REPLY = 4,   // corvaned: result data
                               FRAME_DELIVER = 5, // corvaned: delivery_header (bus.h), payload
                               FRAME_EVENT = 6;   // corvaned: number names the event, data its own (sdb.h)
inline constexpr std::uint32_t FRAME_VERSION = 1;

// What a socket carries in one packet by default is 208 KiB; the largest payload of a message fits with its headers.
inline constexpr std::size_t FRAME_MAX = 192 * 1024;
inline constexpr const char *BUS_SOCKET = "bus.sock";

} // namespace corvane
