// Output of finished frames on network devices. Each thread collects what it sends and hands it to the kernel in one
// system call: when 64 frames are waiting, and when the thread gives the process lock up.
#pragma once

#include "drops.h"
#include "packet_buffer.h"

#include <cstdint>

namespace corvane {

inline constexpr std::uint32_t LINK_BATCH = 64;

struct link_target {
    std::uint32_t ifindex = 0;
    std::uint16_t protocol_be = 0;           // 0: taken from the Ethernet header; set on devices without one
    drop_reason on_failure = drop_reason::L2_SEND_FAILED;
    drop_reason on_too_big = drop_reason::L2_SEND_FAILED;
    // TCP segments of a flow that follow each other in a batch, and fit this MTU, leave as one super-frame; frames of
    // different flows may change places. 0: each frame leaves by itself and in its turn.
    std::uint32_t merge_mtu = 0;
};

// Queues the frame in `m`, link header first, and takes the buffer over. False: nothing can be sent (counted).
bool link_output(mbuf *m, const link_target &target);
// Sends what the calling thread has collected. Runs by itself at the points named above.
void link_output_flush();

} // namespace corvane
