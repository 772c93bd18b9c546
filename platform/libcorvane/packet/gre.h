// GRE tunnel with Ethernet payload (RFC 2784, protocol type 0x6558), for overlays in GRE format. Inside it a frame is as
// on a wire: a tag is 802.1Q.
#pragma once

#include "../core/receive_losses.h"
#include "offload.h"
#include "overlays.h"
#include "tag.h"

#include "net_l2.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace corvane {

inline constexpr std::size_t GRE_HEADER = 4;

// Sends a frame of the daemon to the next hop of the request, or else to the overlay's group. 1 queued, 0 dropped and
// counted.
int gre_send(const overlay_config &overlay, const net_l2_send_request &request, const daemon_frame &frame);

// Frames that come out of the tunnel, taken from the kernel in lots. One thread.
class gre_input {
public:
    static constexpr std::size_t LOT = 32, ROOM = 66 * 1024, HEADROOM = 128;

    gre_input();
    ~gre_input();
    gre_input(const gre_input &) = delete;
    gre_input &operator=(const gre_input &) = delete;

    [[nodiscard]] int fd4() const { return fd4_; }
    [[nodiscard]] int fd6() const { return fd6_; }
    // Takes what waits on one of the two sockets, at most LOT packets; forgets the lot before. Result: their number.
    std::size_t fill(int fd);
    // Frame of packet `i` in the daemon's form, and its overlay; its memory is good until the next fill. One that the
    // kernel merged is given as on the wire, and `merged` says how it is to be cut. False: dropped and counted.
    [[nodiscard]] bool frame(std::size_t i, frame_ref &out, std::uint32_t &overlay_iod, offload_meta &merged);

private:
    // Room for the largest; the pages that no packet has reached cost no memory.
    struct alignas(64) packet {
        std::array<std::uint8_t, HEADROOM + ROOM> bytes;
    };
    [[nodiscard]] bool unwrap(std::size_t i, frame_ref &out, std::array<std::uint8_t, 16> &destination);

    int fd4_ = -1, fd6_ = -1, filled_from_ = -1;
    receive_losses losses4_, losses6_;
    std::unique_ptr<packet[]> packets_;
    std::array<mmsghdr, LOT> message_{};
    std::array<iovec, LOT> piece_{};
    std::array<sockaddr_storage, LOT> from_{};
    struct alignas(8) control_space { std::array<std::uint8_t, CMSG_SPACE(sizeof(in6_pktinfo)) + receive_losses::ROOM> bytes; };
    std::array<control_space, LOT> control_{};
};

} // namespace corvane
