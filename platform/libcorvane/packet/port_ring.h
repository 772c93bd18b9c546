// Reception on one switchport: an AF_PACKET socket with a ring that kernel and process share. Frames are read where the
// kernel put them, with room in front for the message header; what does not fit a slot comes through the socket.
#pragma once

#include "offload.h"
#include "tag.h"

#include <cstddef>
#include <cstdint>

struct tpacket2_hdr;

namespace corvane {

struct received_frame {
    frame_ref frame;                         // in the slot; in the caller's buffer when `copied`
    offload_meta meta;
    tag_metadata tag;
};

class port_ring {
public:
    // A slot holds a full-sized frame with everything in front of it; 1024 of them are some milliseconds of a busy link.
    static constexpr std::uint32_t SLOT_BYTES = 2048, SLOTS = 1024;
    static constexpr std::size_t HEADROOM = 64;                // at least this much before a frame is the caller's

    port_ring() = default;
    ~port_ring();
    port_ring(const port_ring &) = delete;
    port_ring &operator=(const port_ring &) = delete;

    // Begins to receive on the device. False: errno tells.
    [[nodiscard]] bool open(std::uint32_t ifindex);
    [[nodiscard]] int fd() const { return fd_; }
    [[nodiscard]] std::uint32_t ifindex() const { return ifindex_; }

    // Looks at the next frame, in memory only. IN_SOCKET: too big for a slot, fetch() has it; CUT: the same, but the
    // kernel had no room for it.
    enum class look { NOTHING, FRAME, IN_SOCKET, CUT };
    [[nodiscard]] look peek(received_frame &out);
    // Takes the frame that peek() saw. Its slot is the caller's until release().
    [[nodiscard]] std::uint32_t take();
    void release(std::uint32_t slot);
    // Fetches a whole frame to `frame`; its metadata are those of its slot. False: it is lost.
    [[nodiscard]] bool fetch(std::uint8_t *frame, std::size_t size, std::size_t &length);

    // Takes an error off the socket, which else stays readable for ever (the device went down).
    void clear_error() const;
    // Frames that the kernel dropped since the last call. One system call: worth it when lost() says so.
    [[nodiscard]] std::uint32_t take_lost();
    [[nodiscard]] bool lost() const { return lost_; }

private:
    [[nodiscard]] bool configure();
    [[nodiscard]] bool map();
    [[nodiscard]] bool bind_to_device() const;
    [[nodiscard]] tpacket2_hdr *slot_header(std::uint32_t slot) const;

    int fd_ = -1;
    std::uint32_t ifindex_ = 0, head_ = 0;
    std::uint8_t *memory_ = nullptr;
    bool lost_ = false;
};

} // namespace corvane
