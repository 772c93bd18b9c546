// rtnetlink: one socket for questions, sockets for notifications.
#include "netlink.h"

#include <array>
#include <cerrno>
#include <linux/rtnetlink.h>
#include <mutex>
#include <sys/socket.h>
#include <vector>

namespace corvane {

namespace {

constexpr std::size_t ANSWER_BYTES = 64 * 1024;
constexpr int EVENT_BUFFER_BYTES = 4 << 20;
constexpr timeval ANSWER_TIMEOUT{1, 0};

struct asker {
    std::mutex mutex;
    mnl_socket *socket = nullptr;
    std::uint32_t sequence = 0;
    std::vector<char> answer = std::vector<char>(ANSWER_BYTES);

    bool open()
    {
        if (socket != nullptr)
            return true;
        socket = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC);
        if (socket == nullptr)
            return false;
        if (mnl_socket_bind(socket, 0, MNL_SOCKET_AUTOPID) == 0) {
            (void)setsockopt(mnl_socket_get_fd(socket), SOL_SOCKET, SO_RCVTIMEO, &ANSWER_TIMEOUT, sizeof ANSWER_TIMEOUT);
            return true;
        }
        close();
        return false;
    }
    void close()
    {
        if (socket != nullptr)
            mnl_socket_close(socket);
        socket = nullptr;
    }
};

asker &the_asker()
{
    static asker &instance = *new asker;
    return instance;
}

int run_each(const nlmsghdr *message, void *each)
{
    (*static_cast<const std::function<void(const nlmsghdr *)> *>(each))(message);
    return MNL_CB_OK;
}

int read_answers(asker &a, const std::function<void(const nlmsghdr *)> &each)
{
    auto *context = const_cast<std::function<void(const nlmsghdr *)> *>(&each);
    for (;;) {
        const ssize_t n = mnl_socket_recvfrom(a.socket, a.answer.data(), a.answer.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            const int error = errno;
            a.close();                        // a late answer must not meet the next question
            return error;
        }
        const int more = mnl_cb_run(a.answer.data(), static_cast<std::size_t>(n), a.sequence,
                                    mnl_socket_get_portid(a.socket), run_each, context);
        if (more == MNL_CB_ERROR)
            return errno;
        if (more == MNL_CB_STOP)
            return 0;
    }
}

int send_request(asker &a, nlmsghdr *request)
{
    if (!a.open())
        return errno;
    request->nlmsg_seq = ++a.sequence;
    return mnl_socket_sendto(a.socket, request, request->nlmsg_len) < 0 ? errno : 0;
}

} // namespace

int netlink_ask(nlmsghdr *request, const std::function<void(const nlmsghdr *)> &each)
{
    asker &a = the_asker();
    const std::scoped_lock guard(a.mutex);
    // The acknowledgement ends an answer of any number of messages, also of none.
    request->nlmsg_flags |= NLM_F_REQUEST | NLM_F_ACK;
    const int error = send_request(a, request);
    return error != 0 ? error : read_answers(a, each);
}

mnl_socket *netlink_open_events()
{
    mnl_socket *socket = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (socket == nullptr)
        return nullptr;
    constexpr std::array<int, 9> GROUPS = {RTNLGRP_LINK,        RTNLGRP_NEIGH,      RTNLGRP_IPV4_IFADDR,
                                           RTNLGRP_IPV6_IFADDR, RTNLGRP_IPV4_ROUTE, RTNLGRP_IPV6_ROUTE,
                                           RTNLGRP_IPV4_RULE,   RTNLGRP_IPV6_RULE,  RTNLGRP_NEXTHOP};
    bool joined = mnl_socket_bind(socket, 0, MNL_SOCKET_AUTOPID) == 0;
    for (int group : GROUPS)
        joined = joined && mnl_socket_setsockopt(socket, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) == 0;
    if (!joined) {
        mnl_socket_close(socket);
        return nullptr;
    }
    (void)setsockopt(mnl_socket_get_fd(socket), SOL_SOCKET, SO_RCVBUFFORCE, &EVENT_BUFFER_BYTES,
                     sizeof EVENT_BUFFER_BYTES);
    return socket;
}

bool netlink_read_events(mnl_socket *socket, const std::function<void(const nlmsghdr *)> &each)
{
    std::array<char, 32 * 1024> buffer;
    bool complete = true;
    for (;;) {
        const ssize_t n = mnl_socket_recvfrom(socket, buffer.data(), buffer.size());
        if (n < 0 && errno == ENOBUFS) {
            complete = false;
            continue;
        }
        if (n <= 0)
            return complete;
        (void)mnl_cb_run(buffer.data(), static_cast<std::size_t>(n), 0, 0, run_each,
                         const_cast<std::function<void(const nlmsghdr *)> *>(&each));
    }
}

} // namespace corvane
