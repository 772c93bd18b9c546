// Finishes what a sender left to the device: unfinished checksums, and super-frames (many segments behind one header)
// that have to leave as frames of the network's size. Pure; nothing allocates.
#pragma once

#include "tag.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace corvane {

// What the kernel puts before each frame (struct virtio_net_hdr, host order on packet sockets; its own header is not
// valid C++).
struct offload_meta {
    std::uint8_t flags = 0;
    std::uint8_t gso_type = 0;
    std::uint16_t header_length = 0;         // a hint, not relied on
    std::uint16_t gso_size = 0;
    std::uint16_t csum_start = 0;
    std::uint16_t csum_offset = 0;
};
static_assert(sizeof(offload_meta) == 10);
inline constexpr std::uint8_t OFFLOAD_NEEDS_CSUM = 1;
inline constexpr std::uint8_t OFFLOAD_GSO_NONE = 0, OFFLOAD_GSO_TCPV4 = 1, OFFLOAD_GSO_TCPV6 = 4, OFFLOAD_GSO_UDP = 5,
                              OFFLOAD_GSO_ECN = 0x80;

// Bytes of headers (Ethernet, tags, IP with options or extension headers, TCP with options) that a super-frame may have.
inline constexpr std::size_t SUPER_HEADERS_MAX = 256;

// Computes the checksum that `meta` says is missing. True: nothing was missing, or it is right now. False: the
// metadata does not fit the frame.
[[nodiscard]] bool finish_checksum(std::uint8_t *frame, std::size_t length, const offload_meta &meta);

[[nodiscard]] inline bool is_super_frame(const offload_meta &meta)
{
    return meta.gso_type != OFFLOAD_GSO_NONE;
}

// A super-frame on its way out of one buffer, segment by segment and in place: the headers of a segment are written
// over the end of the segment before it, so a segment is valid until the next is asked for.
class super_frame {
public:
    // Takes a frame of `length` bytes. Zero segments: metadata that does not fit the frame. The caller keeps `headroom`
    // bytes in front of `frame` that may be overwritten, as the bytes in front of every later segment may.
    std::uint32_t begin(std::uint8_t *frame, std::size_t length, const offload_meta &meta);
    [[nodiscard]] std::uint32_t left() const { return total_ - next_; }
    // The next segment, complete with lengths and checksums. Only while left() is not 0.
    frame_ref next();

private:
    bool parse(const std::uint8_t *frame, std::size_t length, const offload_meta &meta);
    bool parse_network(const std::uint8_t *frame, std::size_t length, std::uint8_t &protocol);
    bool parse_ipv4(const std::uint8_t *frame, std::size_t length, std::uint8_t &protocol);
    bool parse_ipv6(const std::uint8_t *frame, std::size_t length, std::uint8_t &protocol);
    bool parse_transport(const std::uint8_t *frame, std::size_t length, std::uint8_t protocol, std::uint8_t gso);
    void write_network(std::uint8_t *segment, std::size_t length) const;
    void write_tcp(std::uint8_t *segment, bool last) const;
    void write_transport_checksum(std::uint8_t *segment, std::size_t length) const;

    std::array<std::uint8_t, SUPER_HEADERS_MAX> headers_{};
    std::uint8_t *payload_ = nullptr;
    std::size_t payload_left_ = 0;
    std::uint16_t network_ = 0, transport_ = 0, header_length_ = 0, segment_size_ = 0;
    bool ipv6_ = false, tcp_ = false;
    std::uint64_t pseudo_sum_ = 0;           // addresses and protocol, without the length
    std::uint32_t total_ = 0, next_ = 0;
};

} // namespace corvane
