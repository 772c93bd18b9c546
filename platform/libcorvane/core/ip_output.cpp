// Output of finished IP packets into the core: behind a link header of our own, which keeps every byte of them, or in
// fragments where they do not fit.
#include "ip_output.h"

#include "../packet/sum.h"
#include "../packet/tag.h"
#include "fragment.h"
#include "intfmgr.h"
#include "ip.h"
#include "ipv6.h"
#include "lasting_socket.h"
#include "link_output.h"
#include "monitor.h"
#include "path.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <random>
#include <sys/socket.h>

namespace corvane {

namespace {

constexpr std::size_t IPV4_HEADER = 20, IPV6_HEADER = 40;
constexpr std::size_t IPV4_LENGTH = 2, IPV4_CHECKSUM = 10, IPV4_DESTINATION = 16;
constexpr std::size_t IPV6_LENGTH = 4, IPV6_DESTINATION = 24;

int drop(mbuf *packet, drop_reason reason)
{
    drop_count(reason);
    m_freem(packet);
    return -1;
}

// Identifications of what is fragmented here. They need not be secret, but two edges behind one address must not
// start alike.
std::uint32_t fresh_id()
{
    thread_local std::uint32_t next = std::random_device{}();
    return ++next;
}

link_target target_of(const core_path &path, std::uint16_t type)
{
    return {path.ifindex, htons(type), drop_reason::CORE_SEND_FAILED, drop_reason::CORE_TOO_BIG};
}

// A packet that fits the path's MTU.
int send_on_path(mbuf *packet, const core_path &path, std::uint16_t type)
{
    switch (path.kind) {
    case path_kind::NEIGHBOUR:
        neighbour_output(*path.next_hop, packet, path.source, type);
        return 0;
    case path_kind::GROUP: {
        std::uint8_t *header = packet_prepend(packet, ETHERNET_HEADER);
        std::memcpy(header, path.group.data(), 6);
        std::memcpy(header + 6, path.source.data(), 6);
        header[12] = static_cast<std::uint8_t>(type >> 8);
        header[13] = static_cast<std::uint8_t>(type);
        return link_output(packet, target_of(path, type)) ? 0 : -1;
    }
    default:
        return link_output(packet, target_of(path, type)) ? 0 : -1;
    }
}

int send_fragments(mbuf *packet, const core_path &path, std::uint16_t type)
{
    fragmenter cut;
    const std::uint8_t *bytes = packet_start(packet);
    const bool possible = type == TYPE_IPV4
                              ? cut.begin_ipv4(bytes, packet->length, path.mtu, static_cast<std::uint16_t>(fresh_id()))
                              : cut.begin_ipv6(bytes, packet->length, path.mtu, fresh_id());
    if (!possible)
        return drop(packet, drop_reason::CORE_TOO_BIG);
    while (cut.more()) {
        mbuf *fragment = packet_buffer_get(path.mtu);
        if (fragment == nullptr)
            return drop(packet, drop_reason::ENCAP_NO_MEMORY);
        fragment->length = static_cast<std::uint32_t>(cut.next(packet_start(fragment)));
        if (send_on_path(fragment, path, type) != 0) {
            m_freem(packet);
            return -1;
        }
    }
    m_freem(packet);
    return 0;
}

int open_raw(int family)
{
    const int fd = socket(family, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW);    // never receives
    const int on = 1;
    if (fd >= 0 && family == AF_INET6)
        (void)setsockopt(fd, IPPROTO_IPV6, IPV6_HDRINCL, &on, sizeof on);
    return fd;
}

// To an address of this machine: frames cannot carry it there, the kernel has to.
int send_local(mbuf *packet, const core_destination &d)
{
    static lasting_socket ipv4, ipv6;
    sockaddr_in to4{};
    to4.sin_family = AF_INET;
    std::memcpy(&to4.sin_addr, d.address.data(), sizeof to4.sin_addr);
    sockaddr_in6 to6{};
    to6.sin6_family = AF_INET6;
    std::memcpy(&to6.sin6_addr, d.address.data(), sizeof to6.sin6_addr);
    const bool is_ipv4 = d.family == AF_INET;
    const int fd = (is_ipv4 ? ipv4 : ipv6).get([&] { return open_raw(d.family); });
    const ssize_t sent = sendto(fd, packet_start(packet), packet->length, MSG_DONTWAIT,
                                is_ipv4 ? reinterpret_cast<const sockaddr *>(&to4) : reinterpret_cast<const sockaddr *>(&to6),
                                is_ipv4 ? sizeof to4 : sizeof to6);
    if (sent < 0)
        return drop(packet, errno == EMSGSIZE ? drop_reason::CORE_TOO_BIG : drop_reason::CORE_SEND_FAILED);
    m_freem(packet);
    return 0;
}

int output(mbuf *packet, const core_destination &d, std::uint16_t type)
{
    net_monitor_start();
    const core_path &path = core_path_get(d);
    if (path.kind == path_kind::NONE)
        return drop(packet, drop_reason::CORE_NO_ROUTE);
    if (path.kind == path_kind::LOCAL)
        return send_local(packet, d);
    return packet->length <= path.mtu ? send_on_path(packet, path, type) : send_fragments(packet, path, type);
}

} // namespace

int core_output_ipv4(mbuf *packet, std::uint32_t ifindex)
{
    std::uint8_t *ip = packet_start(packet);
    if (packet->length < IPV4_HEADER || ip[0] >> 4 != 4)
        return drop(packet, drop_reason::CORE_SEND_FAILED);
    std::uint16_t total = 0;
    std::memcpy(&total, ip + IPV4_LENGTH, sizeof total);
    const std::size_t header = std::size_t{ip[0]} % 16 * 4;
    if (total != packet->length || header < IPV4_HEADER || header > total)
        return drop(packet, drop_reason::CORE_SEND_FAILED);
    ip[IPV4_LENGTH] = static_cast<std::uint8_t>(total >> 8);
    ip[IPV4_LENGTH + 1] = static_cast<std::uint8_t>(total);
    std::memset(ip + IPV4_CHECKSUM, 0, 2);
    store_sum(ip + IPV4_CHECKSUM, native_fold(native_sum(0, ip, header)));
    core_destination d;
    d.family = AF_INET;
    std::memcpy(d.address.data(), ip + IPV4_DESTINATION, 4);
    d.ifindex = is_multicast(d) ? ifindex : 0;
    return output(packet, d, TYPE_IPV4);
}

int core_output_ipv6(mbuf *packet, std::uint32_t ifindex)
{
    const std::uint8_t *ip = packet_start(packet);
    if (packet->length < IPV6_HEADER || ip[0] >> 4 != 6)
        return drop(packet, drop_reason::CORE_SEND_FAILED);
    const std::size_t payload = std::size_t{ip[IPV6_LENGTH]} << 8 | ip[IPV6_LENGTH + 1];
    if (payload + IPV6_HEADER != packet->length)
        return drop(packet, drop_reason::CORE_SEND_FAILED);
    core_destination d;
    d.family = AF_INET6;
    std::memcpy(d.address.data(), ip + IPV6_DESTINATION, 16);
    d.ifindex = is_multicast(d) ? ifindex : 0;
    return output(packet, d, TYPE_IPV6);
}

} // namespace corvane

namespace {

// ifindex of the interface for a multicast packet; 0 when none was named. False: it was named and is gone.
bool multicast_device(std::uint32_t iod, std::uint32_t &ifindex)
{
    ifindex = 0;
    return iod == 0 || intfmgr_get_ifindex(iod, ifindex);
}

int refuse(mbuf *packet)
{
    drop_count(drop_reason::CORE_NO_ROUTE);
    m_freem(packet);
    return -1;
}

} // namespace

int ip_cl_output(ip_client, mbuf *packet, std::uint32_t mcast_iod)
{
    std::uint32_t ifindex = 0;
    return multicast_device(mcast_iod, ifindex) ? corvane::core_output_ipv4(packet, ifindex) : refuse(packet);
}

// Routing knows the next hop; a hint is for stacks that do not.
int ipv6_client_output(ipv6_client, mbuf *packet, const ipv6_address &, std::uint32_t mcast_iod)
{
    std::uint32_t ifindex = 0;
    return multicast_device(mcast_iod, ifindex) ? corvane::core_output_ipv6(packet, ifindex) : refuse(packet);
}
