// The GRE tunnel: out through the core's output, in through raw sockets, which give packets that the kernel has put
// together from their fragments.
#include "gre.h"

#include "gre_merged.h"

#include "../core/ip_output.h"
#include "../core/packet_buffer.h"
#include "../core/peers.h"

#include "drops.h"
#include "intfmgr.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <unistd.h>

namespace corvane {

namespace {

constexpr std::size_t IPV4_HEADER = 20, IPV6_HEADER = 40;
constexpr std::uint8_t PROTOCOL_GRE = 47, TTL = 128, TOS = 0xC0;      // as the daemon's own packets have them
constexpr std::uint8_t GRE_ETHERNET[GRE_HEADER] = {0, 0, 0x65, 0x58};
constexpr int RECEIVE_BUFFER_BYTES = 4 << 20;

int drop(drop_reason reason)
{
    drop_count(reason);
    return 0;
}

bool is_tagged(const daemon_frame &f)
{
    constexpr std::size_t SNAP_TYPE_IN_PAYLOAD = 6;
    if (f.untagged)
        return false;
    if (f.type > LAST_802_3_LENGTH)
        return f.type == TYPE_VLAN;
    return f.length >= SNAP_TYPE_IN_PAYLOAD + VLAN_TAG && f.payload[SNAP_TYPE_IN_PAYLOAD] == TYPE_VLAN >> 8 &&
           f.payload[SNAP_TYPE_IN_PAYLOAD + 1] == (TYPE_VLAN & 0xFF);
}

// The tunnelled frame with `header` bytes before it that the caller fills; null: dropped and counted.
mbuf *wrap(const daemon_frame &frame, std::size_t header)
{
    mbuf *m = packet_buffer_get(static_cast<std::uint32_t>(header + GRE_HEADER + ETHERNET_HEADER + frame.length));
    if (m == nullptr) {
        drop_count(drop_reason::ENCAP_NO_MEMORY);
        return nullptr;
    }
    std::uint8_t *gre = packet_start(m) + header;
    std::memcpy(gre, GRE_ETHERNET, GRE_HEADER);
    const std::size_t length = tag_to_wire(frame, gre + GRE_HEADER);
    if (length == 0) {
        m_freem(m);
        drop_count(drop_reason::L2_SEND_FAILED);
        return nullptr;
    }
    m->length = static_cast<std::uint32_t>(header + GRE_HEADER + length);
    return m;
}

template <std::size_t N> bool is_zero(const std::array<std::uint8_t, N> &bytes)
{
    return std::ranges::all_of(bytes, [](std::uint8_t b) { return b == 0; });
}

int send_ipv4(const overlay_config &o, const std::array<std::uint8_t, 4> &to, const daemon_frame &frame,
              std::uint32_t ifindex)
{
    if (is_zero(o.ipv4) || is_zero(to))
        return drop(is_zero(o.ipv4) ? drop_reason::ENCAP_NO_SOURCE : drop_reason::CORE_NO_ROUTE);
    mbuf *m = wrap(frame, IPV4_HEADER);
    if (m == nullptr)
        return 0;
    std::uint8_t *ip = packet_start(m);
    const auto total_host = static_cast<std::uint16_t>(m->length);
    std::memset(ip, 0, IPV4_HEADER);
    ip[0] = 0x45;
    ip[1] = TOS;
    std::memcpy(ip + 2, &total_host, sizeof total_host);       // host order: the output puts it right
    ip[8] = TTL;
    ip[9] = PROTOCOL_GRE;
    std::memcpy(ip + 12, o.ipv4.data(), 4);
    std::memcpy(ip + 16, to.data(), 4);
    return core_output_ipv4(m, ifindex) == 0 ? 1 : 0;
}

int send_ipv6(const overlay_config &o, const std::array<std::uint8_t, 16> &to, const daemon_frame &frame,
              std::uint32_t ifindex)
{
    if (is_zero(o.ipv6) || is_zero(to))
        return drop(is_zero(o.ipv6) ? drop_reason::ENCAP_NO_SOURCE : drop_reason::CORE_NO_ROUTE);
    mbuf *m = wrap(frame, IPV6_HEADER);
    if (m == nullptr)
        return 0;
    std::uint8_t *ip = packet_start(m);
    const std::size_t payload = m->length - IPV6_HEADER;
    std::memset(ip, 0, IPV6_HEADER);
    ip[0] = 0x60;
    ip[4] = static_cast<std::uint8_t>(payload >> 8);
    ip[5] = static_cast<std::uint8_t>(payload);
    ip[6] = PROTOCOL_GRE;
    ip[7] = TTL;
    std::memcpy(ip + 8, o.ipv6.data(), 16);
    std::memcpy(ip + 24, to.data(), 16);
    return core_output_ipv6(m, ifindex) == 0 ? 1 : 0;
}

} // namespace

int gre_send(const overlay_config &overlay, const net_l2_send_request &request, const daemon_frame &frame)
{
    if (!is_tagged(frame))
        return drop(drop_reason::GRE_NO_TAG);
    std::uint32_t ifindex = 0;
    (void)intfmgr_get_ifindex(overlay.core_iod, ifindex);
    std::array<std::uint8_t, 4> hop{};
    std::memcpy(hop.data(), &request.next_hop_ipv4_be, hop.size());
    switch (request.next_hop_family) {
    case 4:
        return send_ipv4(overlay, hop, frame, ifindex);
    case 5:
        return send_ipv6(overlay, request.next_hop_ipv6, frame, ifindex);
    default:
        return overlay.family == 5 ? send_ipv6(overlay, overlay.ipv6_group, frame, ifindex)
                                   : send_ipv4(overlay, overlay.ipv4_group, frame, ifindex);
    }
}

namespace {

int open_raw(int family)
{
    const int fd = socket(family, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, PROTOCOL_GRE);
    const int on = 1;
    if (fd < 0)
        return -1;
    if (family == AF_INET6)
        (void)setsockopt(fd, IPPROTO_IPV6, IPV6_RECVPKTINFO, &on, sizeof on);
    receive_losses::ask(fd);
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &RECEIVE_BUFFER_BYTES, sizeof RECEIVE_BUFFER_BYTES) != 0)
        (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &RECEIVE_BUFFER_BYTES, sizeof RECEIVE_BUFFER_BYTES);
    return fd;
}

bool destination6(msghdr &message, std::array<std::uint8_t, 16> &out)
{
    for (cmsghdr *c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c))
        if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_PKTINFO) {
            in6_pktinfo info{};
            std::memcpy(&info, CMSG_DATA(c), sizeof info);
            std::memcpy(out.data(), &info.ipi6_addr, out.size());
            return true;
        }
    return false;
}

std::uint16_t vlan_on_wire(const frame_ref &f)
{
    return static_cast<std::uint16_t>((f.data[14] & 0x0F) << 8 | f.data[15]);
}

bool is_tagged_on_wire(const frame_ref &f)
{
    return f.length >= ETHERNET_HEADER + VLAN_TAG && f.data[12] == TYPE_VLAN >> 8 && f.data[13] == (TYPE_VLAN & 0xFF) &&
           vlan_on_wire(f) != 0;
}

} // namespace

gre_input::gre_input()
    : fd4_(open_raw(AF_INET)), fd6_(open_raw(AF_INET6)), packets_(std::make_unique_for_overwrite<packet[]>(LOT))
{
    for (std::size_t i = 0; i < LOT; ++i) {
        piece_[i] = {packets_[i].bytes.data() + HEADROOM, ROOM};
        message_[i].msg_hdr.msg_iov = &piece_[i];
        message_[i].msg_hdr.msg_iovlen = 1;
    }
}

gre_input::~gre_input()
{
    if (fd4_ >= 0)
        close(fd4_);
    if (fd6_ >= 0)
        close(fd6_);
}

std::size_t gre_input::fill(int fd)
{
    for (std::size_t i = 0; i < LOT; ++i) {
        message_[i].msg_hdr.msg_control = control_[i].bytes.data();
        message_[i].msg_hdr.msg_controllen = sizeof control_[i].bytes;
        message_[i].msg_hdr.msg_name = &from_[i];
        message_[i].msg_hdr.msg_namelen = sizeof from_[i];
    }
    filled_from_ = fd;
    const int n = recvmmsg(fd, message_.data(), LOT, MSG_DONTWAIT, nullptr);
    if (n <= 0)
        return 0;
    (fd == fd4_ ? losses4_ : losses6_).count(message_[static_cast<std::size_t>(n) - 1].msg_hdr);
    return static_cast<std::size_t>(n);
}

bool gre_input::unwrap(std::size_t i, frame_ref &out, std::array<std::uint8_t, 16> &destination)
{
    std::uint8_t *start = packets_[i].bytes.data() + HEADROOM;
    std::size_t length = message_[i].msg_len, header = 0;
    if (filled_from_ == fd4_) {                                // an IPv4 raw socket gives the IP header, an IPv6 one does not
        if (length < IPV4_HEADER)
            return false;
        header = std::size_t{start[0]} % 16 * 4;
        std::memcpy(destination.data(), start + 16, 4);
    } else if (!destination6(message_[i].msg_hdr, destination)) {
        return false;
    }
    if (header + GRE_HEADER > length || std::memcmp(start + header, GRE_ETHERNET, GRE_HEADER) != 0)
        return false;
    out = {start + header + GRE_HEADER, length - header - GRE_HEADER};
    return true;
}

bool gre_input::frame(std::size_t i, frame_ref &out, std::uint32_t &overlay_iod, offload_meta &merged)
{
    std::array<std::uint8_t, 16> destination{};
    if ((message_[i].msg_hdr.msg_flags & MSG_TRUNC) != 0) {
        drop_count(drop_reason::L2_OVERSIZED);
        return false;
    }
    if (!core_peer_admitted(from_[i]))
        return false;
    if (!unwrap(i, out, destination)) {
        drop_count(drop_reason::GRE_BAD_HEADER);
        return false;
    }
    if (!is_tagged_on_wire(out)) {
        drop_count(out.length < ETHERNET_HEADER ? drop_reason::L2_TRUNCATED : drop_reason::GRE_NO_TAG);
        return false;
    }
    overlay_iod = overlay_of_packet(filled_from_ == fd4_ ? 4 : 5, destination.data(), vlan_on_wire(out));
    if (overlay_iod == 0) {
        drop_count(drop_reason::L2_NOT_SERVED);
        return false;
    }
    merged = merged_in_tunnel(out);
    if (!is_super_frame(merged) && !tag_to_daemon(out, {})) {
        drop_count(drop_reason::L2_TRUNCATED);
        return false;
    }
    return true;
}

} // namespace corvane
