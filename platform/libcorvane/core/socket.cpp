// The platform's UDP stack on Linux sockets. A socket that asks for whole packets is read in lots: while some of a lot
// are left, select and recvfrom answer from memory, and the process lock stays where it is.
#include "corvane_socket.h"

#include "../plock_batch.h"
#include "../service_retry.h"
#include "svcmgr.h"
#include "syslog_client.h"
#include "udp_batch.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <poll.h>
#include <unistd.h>

namespace {

using corvane::udp_batch;

constexpr int LEVEL_UDP = 17, LEVEL_IPV6 = 41, OPTION_WHOLE_PACKET = 3, LEVEL_IP = 0, OPTION_CONTEXT = 61;
constexpr int RECEIVE_BUFFER_BYTES = 4 << 20, NO_MEMORY_WAIT_MS = 10;

// By descriptor. One thread receives from a socket. The batch is made when a descriptor first receives and stays with
// its number: a receive that still waits when the socket is closed finds its memory.
struct socket_state {
    std::atomic<bool> whole_packets{false};
    bool serving = false;
    udp_batch *batch = nullptr;
};
std::array<socket_state, FD_SETSIZE> sockets;

socket_state *state_of(int socket)
{
    if (socket < 0 || socket >= static_cast<int>(sockets.size()))
        return nullptr;
    socket_state &state = sockets[static_cast<std::size_t>(socket)];
    return state.whole_packets.load(std::memory_order_acquire) ? &state : nullptr;
}

int set_flag(int socket, int level, int option)
{
    const int on = 1;
    return setsockopt(socket, level, option, &on, sizeof on);
}

// The ancillary data that a rebuilt header needs.
int ask_for_headers(int socket, int family)
{
    if (family == AF_INET6)
        return set_flag(socket, IPPROTO_IPV6, IPV6_RECVPKTINFO) | set_flag(socket, IPPROTO_IPV6, IPV6_RECVHOPLIMIT) |
               set_flag(socket, IPPROTO_IPV6, IPV6_RECVTCLASS);
    return set_flag(socket, IPPROTO_IP, IP_PKTINFO) | set_flag(socket, IPPROTO_IP, IP_RECVTTL) |
           set_flag(socket, IPPROTO_IP, IP_RECVTOS);
}

int family_of(int socket)
{
    int family = 0;
    socklen_t length = sizeof family;
    return getsockopt(socket, SOL_SOCKET, SO_DOMAIN, &family, &length) == 0 ? family : 0;
}

// Errors are told by the caller, who looks at errno.
void failed_for(int family)
{
    const int error = errno;
    if (family == AF_INET || family == AF_INET6)
        corvane::service_failed(SVC_UDP);
    errno = error;
}

int take_whole_packets(int socket, int level, const void *value, socklen_t length)
{
    const int family = level == LEVEL_IPV6 ? AF_INET6 : AF_INET;
    if (value == nullptr || length != sizeof(std::uint32_t) || socket < 0 || socket >= static_cast<int>(sockets.size())) {
        errno = EINVAL;
        return -1;
    }
    if (family_of(socket) != family) {
        errno = ENOPROTOOPT;
        return -1;
    }
    if (ask_for_headers(socket, family) != 0) {
        failed_for(family);
        return -1;
    }
    corvane::receive_losses::ask(socket);
    if (setsockopt(socket, SOL_SOCKET, SO_RCVBUFFORCE, &RECEIVE_BUFFER_BYTES, sizeof RECEIVE_BUFFER_BYTES) != 0)
        (void)setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &RECEIVE_BUFFER_BYTES, sizeof RECEIVE_BUFFER_BYTES);
    std::uint32_t on = 0;
    std::memcpy(&on, value, sizeof on);
    sockets[static_cast<std::size_t>(socket)].whole_packets.store(on != 0, std::memory_order_release);
    return 0;
}

std::uint16_t local_port(int socket)
{
    sockaddr_storage local{};
    socklen_t length = sizeof local;
    if (getsockname(socket, reinterpret_cast<sockaddr *>(&local), &length) != 0)
        return 0;
    return ntohs(reinterpret_cast<const sockaddr_in *>(&local)->sin_port);     // same place in both families
}

udp_batch &batch_of(int socket, socket_state &state)
{
    if (state.batch == nullptr)
        state.batch = new udp_batch;
    if (!state.serving)
        state.batch->serve(socket, family_of(socket), local_port(socket));
    state.serving = true;
    return *state.batch;
}

// Sockets of `wanted` that can be answered from memory, after a look at the kernel for those that are empty.
int ready_from_memory(int count, const fd_set &wanted, fd_set &ready)
{
    int found = 0;
    for (int fd = 0; fd < count; ++fd) {
        if (!FD_ISSET(fd, &wanted))
            continue;
        socket_state *state = state_of(fd);
        if (state == nullptr)
            continue;
        udp_batch &batch = batch_of(fd, *state);
        if (batch.left() == 0 && !corvane::plock_batch_kept() && batch.fill() == 0 && batch.left() != 0)
            // One receive follows this select; each further datagram takes one of each.
            corvane::plock_batch_begin(2 * batch.left() - 1);
        if (batch.left() != 0) {
            FD_SET(fd, &ready);
            ++found;
        }
    }
    return found;
}

ssize_t receive_whole(int socket, socket_state &state, void *buffer, size_t size, int flags, sockaddr *from,
                      socklen_t *from_length)
{
    udp_batch &batch = batch_of(socket, state);
    const bool waits = (flags & MSG_DONTWAIT) == 0;
    while (batch.left() == 0) {
        int error = batch.fill();
        if (error == EAGAIN && waits)
            // The peek waits, and tells of a shutdown or an error of the socket as the receive would.
            error = recv(socket, nullptr, 0, MSG_PEEK) < 0 ? errno : 0;
        // A kernel out of memory will have some again, while a client ends its thread with the first receive that fails.
        if ((error == ENOMEM || error == ENOBUFS) && waits) {
            poll(nullptr, 0, NO_MEMORY_WAIT_MS);
        } else if (error != 0) {
            errno = error;
            return -1;
        }
        if (batch.left() > 1)
            corvane::plock_batch_begin(2 * (batch.left() - 1));
    }
    return static_cast<ssize_t>(batch.take(static_cast<std::uint8_t *>(buffer), size, from, from_length));
}

std::uint16_t port_of(const sockaddr *address, socklen_t length)
{
    // It stands at the same place in both families.
    sockaddr_in in{};
    std::memcpy(&in, address, std::min<std::size_t>(length, sizeof in));
    return ntohs(in.sin_port);
}

} // namespace

int corvane_socket(int family, int type, int protocol)
{
    const int fd = socket(family, type | SOCK_CLOEXEC, protocol);
    if (fd < 0)
        failed_for(family);
    if (fd >= 0 && family == AF_INET6 && type == SOCK_DGRAM)
        (void)set_flag(fd, IPPROTO_UDP, UDP_NO_CHECK6_RX);
    return fd;
}

int corvane_setsockopt(int socket, int level, int option, const void *value, socklen_t length)
{
    if (option == OPTION_WHOLE_PACKET && (level == LEVEL_UDP || level == LEVEL_IPV6))
        return take_whole_packets(socket, level, value, length);
    if (level == LEVEL_IP && option == OPTION_CONTEXT)
        return 0;
    const int result = setsockopt(socket, level, option, value, length);
    if (result != 0)
        failed_for(family_of(socket));
    return result;
}

int corvane_bind(int socket, const sockaddr *address, socklen_t length)
{
    const int result = bind(socket, address, length);
    if (result != 0) {
        // The daemon's own message names the socket; the one who has to free the port needs its number.
        const int error = errno;
        failed_for(address->sa_family);
        krel_syslog(3, "UDP port %u: %s", static_cast<unsigned>(port_of(address, length)), strerror(error));
        errno = error;
    }
    return result;
}

int corvane_select(int count, fd_set *readable, fd_set *writable, fd_set *exceptional, timeval *timeout)
{
    if (readable != nullptr) {
        fd_set ready;
        FD_ZERO(&ready);
        const int found = ready_from_memory(count, *readable, ready);
        if (found > 0) {
            *readable = ready;
            if (writable != nullptr)
                FD_ZERO(writable);
            if (exceptional != nullptr)
                FD_ZERO(exceptional);
            return found;
        }
    }
    return select(count, readable, writable, exceptional, timeout);
}

ssize_t corvane_recvfrom(int socket, void *buffer, size_t size, int flags, sockaddr *from, socklen_t *from_length)
{
    socket_state *state = state_of(socket);
    if (state == nullptr)
        return recvfrom(socket, buffer, size, flags, from, from_length);
    return receive_whole(socket, *state, buffer, size, flags, from, from_length);
}

int corvane_close(int socket)
{
    if (socket >= 0 && socket < static_cast<int>(sockets.size())) {
        socket_state &state = sockets[static_cast<std::size_t>(socket)];
        state.whole_packets.store(false, std::memory_order_release);
        state.serving = false;
    }
    return close(socket);
}

// The stack is the kernel's: a client needs no session with it, and the queue path names none here.
bool tcp_setup(const char *client, const char *)
{
    return client != nullptr && *client != 0;
}

void tcp_teardown()
{
}
