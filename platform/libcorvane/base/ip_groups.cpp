// Multicast memberships through the kernel: it reports them to the network and takes the groups' packets in.
#include "ip_groups.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace corvane {
namespace {

int membership_call(int fd, const ip_group &group, std::uint32_t ifindex, bool join)
{
    if (group.family == AF_INET) {
        ip_mreqn request{};
        std::memcpy(&request.imr_multiaddr, group.address.data(), sizeof request.imr_multiaddr);
        request.imr_ifindex = static_cast<int>(ifindex);
        return setsockopt(fd, IPPROTO_IP, join ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP, &request, sizeof request);
    }
    ipv6_mreq request{};
    std::memcpy(&request.ipv6mr_multiaddr, group.address.data(), sizeof request.ipv6mr_multiaddr);
    request.ipv6mr_interface = ifindex;
    return setsockopt(fd, IPPROTO_IPV6, join ? IPV6_JOIN_GROUP : IPV6_LEAVE_GROUP, &request, sizeof request);
}

// Another membership of the same kind on the socket, or as many as one socket may have: the next socket takes it.
bool wants_another_socket(int error) { return error == ENOBUFS || error == ENOMEM || error == EADDRINUSE; }

} // namespace

group_memberships::group_memberships(std::function<std::uint32_t(std::uint32_t)> ifindex_of)
    : ifindex_of_(std::move(ifindex_of))
{
}

group_memberships::~group_memberships()
{
    for (const open_socket &s : sockets_)
        close(s.fd);
}

int group_memberships::socket_with_room(int family, std::uint32_t ifindex, const ip_group &group)
{
    for (const open_socket &s : sockets_) {
        if (s.family != family)
            continue;
        if (membership_call(s.fd, group, ifindex, true) == 0)
            return s.fd;
        if (!wants_another_socket(errno))
            return -1;
    }
    const int fd = socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    if (membership_call(fd, group, ifindex, true) != 0) {
        const int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    sockets_.push_back({family, fd});
    return fd;
}

bool group_memberships::apply(membership &m)
{
    const std::uint32_t ifindex = ifindex_of_(m.iod);
    if (ifindex == m.ifindex)
        return true;
    withdraw(m);
    if (ifindex == 0)
        return true;
    m.socket = socket_with_room(m.group.family, ifindex, m.group);
    m.ifindex = m.socket >= 0 ? ifindex : 0;
    return m.socket >= 0;
}

// Also where the device is gone: the socket keeps the entry until it is dropped.
void group_memberships::withdraw(membership &m)
{
    if (m.ifindex != 0)
        membership_call(m.socket, m.group, m.ifindex, false);
    m.ifindex = 0;
    m.socket = -1;
}

bool group_memberships::join(std::uint32_t iod, const ip_group &group)
{
    const std::lock_guard guard(mutex_);
    auto at = std::ranges::find_if(memberships_, [&](const membership &m) { return m.iod == iod && m.group == group; });
    const bool known = at != memberships_.end();
    if (!known)
        at = memberships_.insert(at, membership{iod, group, 0, -1});
    if (apply(*at))
        return true;
    const int error = errno;
    if (!known && error != ENODEV && error != ENETDOWN)      // such a device may still be on its way
        memberships_.erase(at);
    errno = error;
    return false;
}

bool group_memberships::leave(std::uint32_t iod, const ip_group &group)
{
    const std::lock_guard guard(mutex_);
    const auto at = std::ranges::find_if(memberships_,
                                         [&](const membership &m) { return m.iod == iod && m.group == group; });
    if (at == memberships_.end())
        return false;
    withdraw(*at);
    memberships_.erase(at);
    return true;
}

void group_memberships::refresh()
{
    const std::lock_guard guard(mutex_);
    for (membership &m : memberships_)
        (void)apply(m);
}

} // namespace corvane
