// Puts TCP segments that follow each other back together before they leave on a site port, as reception in a kernel
// does: one super-frame costs the port and the host behind it about as much as one segment. Only what can be cut into
// the very same segments again is merged. Pure; nothing allocates.
#pragma once

#include "offload.h"

#include <cstddef>
#include <cstdint>

namespace corvane {

// Where things stand in a frame that carries TCP over IP without fragments, IP options or extension headers.
struct tcp_segment {
    std::uint16_t network = 0, transport = 0, payload = 0;     // offsets of IP header, TCP header and data
    std::uint16_t length = 0;                                  // bytes of data
    std::uint16_t id = 0;                                      // IPv4's identification
    std::uint32_t sequence = 0;
    bool ipv6 = false;
    bool mergeable = false;                                    // plain data: ACK, and no flag but ECE and PSH beside it
    bool pushes = false;                                       // PSH: nothing follows it in a run
};

// False: not such a frame. `mergeable` says more of one that is.
[[nodiscard]] bool tcp_segment_read(const std::uint8_t *frame, std::size_t length, tcp_segment &out);

// Both frames belong to one direction of one connection, with the same Ethernet header and tags.
[[nodiscard]] bool tcp_same_flow(const std::uint8_t *a, const tcp_segment &in_a, const std::uint8_t *b, const tcp_segment &in_b);

// The frame's header and TCP checksums are right: the kernel makes new ones when it cuts a super-frame, and must not
// make good what came in wrong.
[[nodiscard]] bool tcp_sums_are_right(const std::uint8_t *frame, const tcp_segment &segment);

// Segments of one flow that follow each other. Its user keeps the frames.
class tcp_run {
public:
    void begin(const std::uint8_t *frame, const tcp_segment &segment);
    // The frame, of the same flow, is the one that comes next. Its checksums are the caller's to look at.
    [[nodiscard]] bool continues(const std::uint8_t *frame, const tcp_segment &segment) const;
    void append(const tcp_segment &segment);
    [[nodiscard]] const tcp_segment &first() const { return first_; }
    [[nodiscard]] const std::uint8_t *frame() const { return frame_; }
    [[nodiscard]] std::uint32_t count() const { return count_; }
    [[nodiscard]] bool complete() const { return complete_; }
    // Makes the headers at `frame`, which are those of the first segment, the super-frame's, and describes it.
    [[nodiscard]] offload_meta finish(std::uint8_t *frame) const;

private:
    tcp_segment first_;
    const std::uint8_t *frame_ = nullptr;
    std::uint32_t count_ = 0, data_ = 0, next_sequence_ = 0;
    bool complete_ = false, pushes_ = false;
};

} // namespace corvane
