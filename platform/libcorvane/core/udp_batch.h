// Datagrams of one UDP socket, taken from the kernel in lots and handed out one by one behind a rebuilt outer header.
#pragma once

#include "receive_losses.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace corvane {

class udp_batch {
public:
    // What is longer than a caller's buffer is cut anyway; headers included.
    static constexpr std::size_t DATAGRAMS = 32, PACKET_MAX = 3072;
    static constexpr std::size_t OUTER_MAX = 48;               // IPv6 and UDP header

    udp_batch();
    // Serves that socket from now on; what was left of another one is forgotten.
    void serve(int socket, int family, std::uint16_t local_port);
    [[nodiscard]] std::uint32_t left() const { return count_ - next_; }
    // Takes what the kernel has, without waiting; packets of edges that are refused are left out, so that left() may be 0
    // after it. 0, or an errno value (EAGAIN: nothing there). Only while left() is 0.
    int fill();
    // The next packet, from its outer header on, cut to `size` bytes. Result: its length. Only while left() is not 0.
    std::size_t take(std::uint8_t *out, std::size_t size, sockaddr *from, socklen_t *from_length);

private:
    struct ancillary {
        std::uint8_t ttl = 0, tos = 0;
        std::array<std::uint8_t, 16> destination{};
    };
    void read_ancillary(msghdr &message, ancillary &out) const;
    std::uint8_t *put_headers(std::size_t slot, std::size_t length);
    std::uint8_t *put_ipv4(std::uint8_t *udp, std::size_t slot, std::size_t length, const ancillary &said);
    std::uint8_t *put_ipv6(std::uint8_t *udp, std::size_t slot, std::size_t length, const ancillary &said);

    int socket_ = -1, family_ = 0;
    std::uint16_t port_ = 0;
    std::uint32_t count_ = 0, next_ = 0;
    receive_losses losses_;
    std::array<std::uint8_t, DATAGRAMS> slot_{};               // of the packets that are handed out
    std::array<mmsghdr, DATAGRAMS> message_{};
    std::array<iovec, DATAGRAMS> piece_{};
    std::array<sockaddr_storage, DATAGRAMS> from_{};
    // Destination, hop limit, traffic class, losses.
    static constexpr std::size_t CONTROL = CMSG_SPACE(sizeof(in6_pktinfo)) + 2 * CMSG_SPACE(sizeof(int)) + receive_losses::ROOM;
    struct alignas(8) control_space { std::array<std::uint8_t, CONTROL> bytes; };
    std::array<control_space, DATAGRAMS> control_{};
    std::array<std::array<std::uint8_t, PACKET_MAX>, DATAGRAMS> packet_{};
};

} // namespace corvane
