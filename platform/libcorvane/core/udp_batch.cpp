// Lots of datagrams, and the outer headers that the kernel has taken off.
#include "udp_batch.h"

#include "peers.h"

#include "../packet/sum.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace corvane {

namespace {

constexpr std::size_t IPV4_HEADER = 20, IPV6_HEADER = 40, UDP_HEADER = 8;

void put_be16(std::uint8_t *p, std::size_t value)
{
    p[0] = static_cast<std::uint8_t>(value >> 8);
    p[1] = static_cast<std::uint8_t>(value);
}

void put_be16_raw(std::uint8_t *p, std::uint16_t value_be)
{
    std::memcpy(p, &value_be, sizeof value_be);
}

} // namespace

udp_batch::udp_batch()
{
    for (std::size_t i = 0; i < DATAGRAMS; ++i) {
        piece_[i] = {packet_[i].data() + OUTER_MAX, PACKET_MAX - OUTER_MAX};
        message_[i].msg_hdr.msg_iov = &piece_[i];
        message_[i].msg_hdr.msg_iovlen = 1;
    }
}

void udp_batch::serve(int socket, int family, std::uint16_t local_port)
{
    socket_ = socket;
    family_ = family;
    port_ = local_port;
    count_ = next_ = 0;
    losses_.restart();
}

int udp_batch::fill()
{
    for (std::size_t i = 0; i < DATAGRAMS; ++i) {
        msghdr &header = message_[i].msg_hdr;
        header.msg_name = &from_[i];
        header.msg_namelen = sizeof from_[i];
        header.msg_control = control_[i].bytes.data();
        header.msg_controllen = sizeof control_[i].bytes;
    }
    const int n = recvmmsg(socket_, message_.data(), DATAGRAMS, MSG_DONTWAIT, nullptr);
    const int error = n >= 0 ? 0 : errno;
    next_ = count_ = 0;
    if (n > 0)
        losses_.count(message_[static_cast<std::size_t>(n) - 1].msg_hdr);
    for (int slot = 0; slot < n; ++slot)
        if (core_peer_admitted(from_[static_cast<std::size_t>(slot)]))
            slot_[count_++] = static_cast<std::uint8_t>(slot);
    return error;
}

void udp_batch::read_ancillary(msghdr &message, ancillary &out) const
{
    for (cmsghdr *c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c)) {
        const std::uint8_t *data = CMSG_DATA(c);
        int value = 0;
        if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
            in_pktinfo info{};
            std::memcpy(&info, data, sizeof info);
            std::memcpy(out.destination.data(), &info.ipi_addr, sizeof info.ipi_addr);
        } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_PKTINFO) {
            in6_pktinfo info{};
            std::memcpy(&info, data, sizeof info);
            std::memcpy(out.destination.data(), &info.ipi6_addr, sizeof info.ipi6_addr);
        } else if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_TOS) {
            out.tos = *data;
        } else if ((c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_TTL) ||
                   (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_HOPLIMIT)) {
            std::memcpy(&value, data, sizeof value);
            out.ttl = static_cast<std::uint8_t>(value);
        } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_TCLASS) {
            std::memcpy(&value, data, sizeof value);
            out.tos = static_cast<std::uint8_t>(value);
        }
    }
}

std::uint8_t *udp_batch::put_ipv4(std::uint8_t *udp, std::size_t slot, std::size_t length, const ancillary &said)
{
    std::uint8_t *ip = udp - IPV4_HEADER;
    sockaddr_in from{};
    std::memcpy(&from, &from_[slot], sizeof from);
    put_be16_raw(udp, from.sin_port);
    std::memset(ip, 0, IPV4_HEADER);
    ip[0] = 0x45;
    ip[1] = said.tos;
    put_be16(ip + 2, IPV4_HEADER + UDP_HEADER + length);
    ip[8] = said.ttl;
    ip[9] = IPPROTO_UDP;
    std::memcpy(ip + 12, &from.sin_addr, 4);
    std::memcpy(ip + 16, said.destination.data(), 4);
    store_sum(ip + 10, native_fold(native_sum(0, ip, IPV4_HEADER)));
    return ip;
}

std::uint8_t *udp_batch::put_ipv6(std::uint8_t *udp, std::size_t slot, std::size_t length, const ancillary &said)
{
    std::uint8_t *ip = udp - IPV6_HEADER;
    sockaddr_in6 from{};
    std::memcpy(&from, &from_[slot], sizeof from);
    put_be16_raw(udp, from.sin6_port);
    ip[0] = static_cast<std::uint8_t>(0x60 | said.tos >> 4);
    ip[1] = static_cast<std::uint8_t>(said.tos << 4);
    put_be16(ip + 2, 0);
    put_be16(ip + 4, UDP_HEADER + length);
    ip[6] = IPPROTO_UDP;
    ip[7] = said.ttl;
    std::memcpy(ip + 8, &from.sin6_addr, 16);
    std::memcpy(ip + 24, said.destination.data(), 16);
    return ip;
}

std::uint8_t *udp_batch::put_headers(std::size_t slot, std::size_t length)
{
    ancillary said;
    read_ancillary(message_[slot].msg_hdr, said);
    std::uint8_t *udp = packet_[slot].data() + OUTER_MAX - UDP_HEADER;
    put_be16(udp + 2, port_);
    put_be16(udp + 4, UDP_HEADER + length);
    put_be16(udp + 6, 0);                     // the kernel has checked it, or it was 0
    return family_ == AF_INET ? put_ipv4(udp, slot, length, said) : put_ipv6(udp, slot, length, said);
}

std::size_t udp_batch::take(std::uint8_t *out, std::size_t size, sockaddr *from, socklen_t *from_length)
{
    const std::size_t slot = slot_[next_++];
    const std::size_t length = message_[slot].msg_len;
    const std::uint8_t *start = put_headers(slot, length);
    const std::size_t whole = static_cast<std::size_t>(packet_[slot].data() + OUTER_MAX - start) + length;
    const std::size_t given = std::min(whole, size);
    std::memcpy(out, start, given);
    if (from != nullptr && from_length != nullptr) {
        const socklen_t known = message_[slot].msg_hdr.msg_namelen;
        std::memcpy(from, &from_[slot], std::min(*from_length, known));
        *from_length = known;
    }
    return given;
}

} // namespace corvane
