// IPv4 and IPv6 stacks, group membership, UDP sockets.
#include "fake_state.h"

#include <algorithm>
#include <cstring>
#include <netinet/in.h>

namespace fake {

namespace {

constexpr int FIRST_DESCRIPTOR = 900;                        // fits an fd_set, and no test has that many files open

bytes take(mbuf *packet)
{
    bytes data(std::span<const std::uint8_t>(m_data(packet), m_length(packet)));
    m_freem(packet);
    return data;
}

socket_record *find(int descriptor)
{
    auto &sockets = platform.impl().sockets;
    const auto found =
        std::ranges::find_if(sockets, [&](const socket_record &s) { return s.descriptor == descriptor && s.open; });
    return found == sockets.end() ? nullptr : &*found;
}

int bad_descriptor()
{
    errno = EBADF;
    return -1;
}

void fill_sender(int family, sockaddr *from, socklen_t *from_length)
{
    if (from == nullptr || from_length == nullptr)
        return;
    sockaddr_in6 sender{};
    sender.sin6_family = static_cast<sa_family_t>(family);
    const socklen_t length = family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    std::memcpy(from, &sender, std::min(*from_length, length));
    *from_length = length;
}

} // namespace

void platform_object::datagram(int family, bytes data) { state_->datagrams[family].push_back(std::move(data)); }
std::vector<socket_record> platform_object::sockets() const { return state_->sockets; }

} // namespace fake

using namespace fake;

ip_client ip_api_init()
{
    note("ip_api_init");
    return refuse("ip_api_init") ? 0 : 41;
}

void ip_api_close(ip_client client) { note("ip_api_close", client); }

bool ip_register(const char *name, mbus_q packet_queue, mbus_q main_queue, std::uint32_t flags, std::uint32_t contexts,
                 ip_client client, std::uint32_t a, std::uint32_t b)
{
    note("ip_register", name, packet_queue, main_queue, flags, contexts, client, a, b);
    return !refuse("ip_register");
}

int ip_cl_output(ip_client client, mbuf *packet, std::uint32_t mcast_iod)
{
    if (!recording()) {
        ++platform.packets_out;
        m_freem(packet);
        return 0;
    }
    note("ip_cl_output", client, m_length(packet), mcast_iod);
    bytes data = take(packet);
    if (refuse("ip_cl_output"))
        return -1;
    ++platform.packets_out;
    platform.ip_sent.emplace_back(std::move(data), client, mcast_iod);
    return 0;
}

int ip_cl_output_l2(mbuf *packet, std::uint32_t vlan, std::uint32_t iod, std::uint32_t flood, std::uint32_t /*a*/,
                    std::uint32_t /*b*/)
{
    note("ip_cl_output_l2", vlan, iod, flood);
    if (refuse("ip_cl_output_l2"))
        return -1;
    l2_multicast sent;
    static_cast<bytes &>(sent) = bytes(std::span<const std::uint8_t>(m_data(packet), m_length(packet)));
    sent.vlan = vlan;
    sent.iod = iod;
    sent.flood = flood;
    platform.l2_multicast_sent.push_back(std::move(sent));
    return 0;
}

std::uint32_t ip_if_address_get(std::uint32_t iod)
{
    note("ip_if_address_get", iod);
    const auto &interfaces = platform.impl().interfaces;
    const auto found = interfaces.find(iod);
    return found == interfaces.end() ? 0 : found->second.ipv4;
}

void ip_group_join(std::uint32_t iod, std::uint32_t group)
{
    note("ip_group_join", iod, group);
    platform.groups.insert({iod, group});
}

void ip_group_leave(std::uint32_t iod, std::uint32_t group)
{
    note("ip_group_leave", iod, group);
    platform.groups.erase({iod, group});
}

ipv6_client ipv6_api_init()
{
    note("ipv6_api_init");
    return refuse("ipv6_api_init") ? 0 : 61;
}

void ipv6_api_close(ipv6_client client) { note("ipv6_api_close", client); }

bool ipv6_register(const char *name, mbus_q packet_queue, mbus_q main_queue, std::uint32_t flags,
                   std::uint32_t contexts, ipv6_client client, std::uint32_t a, std::uint32_t b)
{
    note("ipv6_register", name, packet_queue, main_queue, flags, contexts, client, a, b);
    return !refuse("ipv6_register");
}

int ipv6_client_output(ipv6_client client, mbuf *packet, const ipv6_address &next_hop_hint, std::uint32_t mcast_iod)
{
    if (!recording()) {
        ++platform.packets_out;
        m_freem(packet);
        return 0;
    }
    note("ipv6_client_output", client, m_length(packet), mcast_iod);
    bytes data = take(packet);
    if (refuse("ipv6_client_output"))
        return -1;
    ++platform.packets_out;
    platform.ipv6_sent.emplace_back(std::move(data), client, mcast_iod, next_hop_hint);
    return 0;
}

ipv6_address ipv6_if_address_get(std::uint32_t iod)
{
    note("ipv6_if_address_get", iod);
    const auto &interfaces = platform.impl().interfaces;
    const auto found = interfaces.find(iod);
    return found == interfaces.end() ? ipv6_address{} : found->second.ipv6;
}

void ipv6_group_join(std::uint32_t iod, const ipv6_address &group)
{
    note("ipv6_group_join", iod, to_hex(group));
    platform.groups6.insert({iod, group});
}

void ipv6_group_leave(std::uint32_t iod, const ipv6_address &group)
{
    note("ipv6_group_leave", iod, to_hex(group));
    platform.groups6.erase({iod, group});
}

bool igmp_api_init()
{
    note("igmp_api_init");
    return !refuse("igmp_api_init");
}

bool tcp_setup(const char *client, const char *queue_path)
{
    note("tcp_setup", client, queue_path);
    return !refuse("tcp_setup");
}

void tcp_teardown() { note("tcp_teardown"); }

int corvane_socket(int family, int type, int protocol)
{
    const auto held = hold_state();
    note("corvane_socket", family, type, protocol);
    if (refuse("corvane_socket"))
        return -1;
    auto &sockets = platform.impl().sockets;
    socket_record made;
    made.descriptor = FIRST_DESCRIPTOR + static_cast<int>(sockets.size());
    made.family = family;
    made.type = type;
    made.protocol = protocol;
    sockets.push_back(made);
    return made.descriptor;
}

int corvane_setsockopt(int socket, int level, int option, const void *value, socklen_t length)
{
    const auto held = hold_state();
    note("corvane_setsockopt", socket, level, option);
    if (refuse("corvane_setsockopt"))
        return -1;
    socket_record *found = find(socket);
    if (found == nullptr)
        return bad_descriptor();
    found->options.push_back({level, option, bytes(std::span(static_cast<const std::uint8_t *>(value), length))});
    return 0;
}

int corvane_bind(int socket, const sockaddr *address, socklen_t length)
{
    const auto held = hold_state();
    note("corvane_bind", socket, length);
    if (refuse("corvane_bind"))
        return -1;
    socket_record *found = find(socket);
    if (found == nullptr)
        return bad_descriptor();
    found->address = bytes(std::span(reinterpret_cast<const std::uint8_t *>(address), length));
    return 0;
}

int corvane_select(int count, fd_set * /*readable*/, fd_set * /*writable*/, fd_set * /*exceptional*/,
                   timeval * /*timeout*/)
{
    const auto held = hold_state();
    note("corvane_select", count);
    if (refuse("corvane_select"))
        return -1;
    if (platform.select_results.empty())
        return 1;
    const int result = platform.select_results.front();
    platform.select_results.pop_front();
    return result;
}

ssize_t corvane_recvfrom(int socket, void *buffer, size_t size, int flags, sockaddr *from, socklen_t *from_length)
{
    const auto held = hold_state();
    note("corvane_recvfrom", socket, size, flags);
    if (refuse("corvane_recvfrom"))
        return -1;
    const socket_record *found = find(socket);
    if (found == nullptr)
        return bad_descriptor();
    auto &waiting = platform.impl().datagrams[found->family];
    if (waiting.empty())
        return bad_descriptor();                             // as when the socket was closed: the receiver ends
    const bytes data = std::move(waiting.front());
    waiting.pop_front();
    const std::size_t length = std::min(size, data.size());
    if (length != 0)
        std::memcpy(buffer, data.data(), length);
    fill_sender(found->family, from, from_length);
    return static_cast<ssize_t>(length);
}

int corvane_close(int socket)
{
    const auto held = hold_state();
    note("corvane_close", socket);
    socket_record *found = find(socket);
    if (found == nullptr)
        return bad_descriptor();
    found->open = false;
    return 0;
}
