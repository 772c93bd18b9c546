// The two rtnetlink sockets: one for notifications, one for questions that are answered at once.
#include "netlink.h"

#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#ifndef RTM_NEWLINKPROP
#define RTM_NEWLINKPROP 108
#define RTM_DELLINKPROP 109
#endif

namespace corvaned {
namespace {

constexpr int EVENTS_BUFFER = 4 * 1024 * 1024;
constexpr std::size_t REQUEST_SIZE = 1024;
constexpr std::size_t READ_SIZE = 256 * 1024;                // a link with many virtual functions says a lot
constexpr int DUMP_ATTEMPTS = 5;

using each_message = std::function<void(const nlmsghdr *)>;

int run_callback(const nlmsghdr *message, void *data)
{
    (*static_cast<const each_message *>(data))(message);
    return MNL_CB_OK;
}

nlmsghdr *begin(char *space, int type, int flags)
{
    nlmsghdr *message = mnl_nlmsg_put_header(space);
    message->nlmsg_type = static_cast<std::uint16_t>(type);
    message->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
    return message;
}

ifinfomsg *put_link(nlmsghdr *message, std::uint32_t ifindex)
{
    auto *link = static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(message, sizeof(ifinfomsg)));
    link->ifi_family = AF_UNSPEC;
    link->ifi_index = static_cast<int>(ifindex);
    return link;
}

bool subscribe(mnl_socket *socket)
{
    for (const int group : {RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR})
        if (mnl_socket_setsockopt(socket, NETLINK_ADD_MEMBERSHIP, const_cast<int *>(&group), sizeof group) < 0)
            return false;
    const int fd = mnl_socket_get_fd(socket);
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &EVENTS_BUFFER, sizeof EVENTS_BUFFER) < 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &EVENTS_BUFFER, sizeof EVENTS_BUFFER);
    return true;
}

} // namespace

void netlink_client::closer::operator()(mnl_socket *socket) const { mnl_socket_close(socket); }

netlink_client::netlink_client() : buffer_(READ_SIZE) {}
netlink_client::~netlink_client() = default;

bool netlink_client::open()
{
    events_.reset(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK));
    requests_.reset(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC));
    return events_ != nullptr && requests_ != nullptr && mnl_socket_bind(events_.get(), 0, MNL_SOCKET_AUTOPID) == 0 &&
           mnl_socket_bind(requests_.get(), 0, MNL_SOCKET_AUTOPID) == 0 && subscribe(events_.get());
}

int netlink_client::events_fd() const { return mnl_socket_get_fd(events_.get()); }

bool netlink_client::read_events(const netlink_handler &handler)
{
    const each_message each = [&](const nlmsghdr *message) { netlink_parse(message, handler); };
    for (;;) {
        const ssize_t size = mnl_socket_recvfrom(events_.get(), buffer_.data(), buffer_.size());
        if (size < 0)
            return errno == EAGAIN || errno == EINTR;        // ENOBUFS: the kernel had more to say than room
        if (mnl_cb_run(buffer_.data(), static_cast<std::size_t>(size), 0, 0, run_callback,
                       const_cast<each_message *>(&each)) < 0)
            return false;
    }
}

int netlink_client::request(nlmsghdr *message, const each_message &each)
{
    message->nlmsg_seq = ++sequence_;
    const unsigned port = mnl_socket_get_portid(requests_.get());
    if (mnl_socket_sendto(requests_.get(), message, message->nlmsg_len) < 0)
        return errno;
    int more = MNL_CB_OK;
    while (more > MNL_CB_STOP) {
        const ssize_t size = mnl_socket_recvfrom(requests_.get(), buffer_.data(), buffer_.size());
        if (size < 0)
            return errno;
        more = mnl_cb_run(buffer_.data(), static_cast<std::size_t>(size), sequence_, port, run_callback,
                          const_cast<each_message *>(&each));
        if (more < 0)
            return errno;
    }
    return 0;
}

bool netlink_client::dump(std::uint16_t kind, const netlink_handler &handler)
{
    alignas(nlmsghdr) char space[REQUEST_SIZE];
    nlmsghdr *message = begin(space, kind, NLM_F_DUMP);
    if (kind == RTM_GETLINK)
        put_link(message, 0);
    else
        mnl_nlmsg_put_extra_header(message, sizeof(ifaddrmsg));
    return request(message, [&](const nlmsghdr *answer) { netlink_parse(answer, handler); }) == 0;
}

// A dump that a change interrupted fails with EINTR and is asked for again.
bool netlink_client::snapshot(netlink_snapshot &out)
{
    const netlink_handler collect{[&](const link_info &link) { out.links.push_back(link); }, [](std::uint32_t) {},
                                  [&](const address_info &address, bool) { out.addresses.push_back(address); }};
    for (int attempt = 0; attempt < DUMP_ATTEMPTS; ++attempt) {
        out = {};
        if (dump(RTM_GETLINK, collect) && dump(RTM_GETADDR, collect))
            return true;
    }
    return false;
}

int netlink_client::set_link_flags(std::uint32_t ifindex, std::uint32_t flags, std::uint32_t mask)
{
    alignas(nlmsghdr) char space[REQUEST_SIZE];
    nlmsghdr *message = begin(space, RTM_NEWLINK, NLM_F_ACK);
    ifinfomsg *link = put_link(message, ifindex);
    link->ifi_flags = flags;
    link->ifi_change = mask;
    return request(message, [](const nlmsghdr *) {});
}

int netlink_client::set_altname(std::uint32_t ifindex, const std::string &name, bool add)
{
    alignas(nlmsghdr) char space[REQUEST_SIZE];
    nlmsghdr *message = begin(space, add ? RTM_NEWLINKPROP : RTM_DELLINKPROP, NLM_F_ACK | (add ? NLM_F_CREATE : 0));
    put_link(message, ifindex);
    nlattr *list = mnl_attr_nest_start(message, IFLA_PROP_LIST);
    mnl_attr_put_strz(message, IFLA_ALT_IFNAME, name.c_str());
    mnl_attr_nest_end(message, list);
    return request(message, [](const nlmsghdr *) {});
}

int netlink_client::set_address_generation(std::uint32_t ifindex, bool automatic)
{
    alignas(nlmsghdr) char space[REQUEST_SIZE];
    nlmsghdr *message = begin(space, RTM_NEWLINK, NLM_F_ACK);
    put_link(message, ifindex);
    nlattr *families = mnl_attr_nest_start(message, IFLA_AF_SPEC);
    nlattr *ipv6 = mnl_attr_nest_start(message, AF_INET6);
    mnl_attr_put_u8(message, IFLA_INET6_ADDR_GEN_MODE, automatic ? IN6_ADDR_GEN_MODE_EUI64 : IN6_ADDR_GEN_MODE_NONE);
    mnl_attr_nest_end(message, ipv6);
    mnl_attr_nest_end(message, families);
    return request(message, [](const nlmsghdr *) {});
}

int netlink_client::set_address(const address_info &address, bool add)
{
    alignas(nlmsghdr) char space[REQUEST_SIZE];
    const int flags = NLM_F_ACK | (add ? NLM_F_CREATE | NLM_F_REPLACE : 0);
    nlmsghdr *message = begin(space, add ? RTM_NEWADDR : RTM_DELADDR, flags);
    auto *header = static_cast<ifaddrmsg *>(mnl_nlmsg_put_extra_header(message, sizeof(ifaddrmsg)));
    header->ifa_family = static_cast<std::uint8_t>(address.family);
    header->ifa_prefixlen = address.prefix_length;
    header->ifa_scope = address.scope;
    header->ifa_index = address.ifindex;
    const std::size_t length = address.family == AF_INET ? 4 : 16;
    mnl_attr_put(message, IFA_LOCAL, length, address.address.data());
    mnl_attr_put(message, IFA_ADDRESS, length, address.address.data());
    if (add)
        mnl_attr_put_u32(message, IFA_FLAGS, address.flags & (IFA_F_NODAD | IFA_F_NOPREFIXROUTE | IFA_F_HOMEADDRESS));
    return request(message, [](const nlmsghdr *) {});
}

} // namespace corvaned
