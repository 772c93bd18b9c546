// Connections of clients and the calls they make. A client that floods is read no faster than others, one that does
// not read has a bounded backlog: neither holds up the loop.
#include "rpc.h"

#include "admission.h"

#include "loop.h"

#include "drops.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <unordered_map>

namespace corvaned {
namespace {

using corvane::frame_header;

constexpr std::size_t BACKLOG_MAX = 8 * 1024 * 1024;      // bytes that may wait for one client
constexpr std::size_t BACKLOG_PAUSE = 1024 * 1024;        // a client with more than this waiting is not read
constexpr int FRAMES_A_TURN = 64;                         // of one client, before the others get their turn
constexpr std::size_t CONNECTIONS_MAX = 512;

struct connection {
    int fd = -1;
    peer who;
    bool greeted = false;
    std::deque<std::vector<std::uint8_t>> backlog;
    std::size_t backlog_bytes = 0;
    std::uint32_t events = EPOLLIN;
};

struct rpc_state {
    int listener = -1;
    std::uint64_t last_id = 0;
    std::unordered_map<std::uint64_t, connection> connections;
    std::unordered_map<std::uint32_t, method_handler> methods;
    std::vector<std::function<void(const peer &)>> disconnect_hooks;
    std::vector<std::function<void()>> answer_hooks;
    std::array<std::uint8_t, corvane::FRAME_MAX> buffer;
};

rpc_state &rpc()
{
    static rpc_state state;
    return state;
}

connection *find(std::uint64_t id)
{
    const auto found = rpc().connections.find(id);
    return found == rpc().connections.end() ? nullptr : &found->second;
}

void update_events(connection &c)
{
    std::uint32_t events = c.backlog_bytes > BACKLOG_PAUSE ? 0u : static_cast<std::uint32_t>(EPOLLIN);
    if (!c.backlog.empty())
        events |= EPOLLOUT;
    if (events == c.events)
        return;
    c.events = events;
    watch_change(c.fd, events);
}

// 1 sent, 0 the socket is full, -1 the connection is broken.
int transmit(const connection &c, byte_view frame)
{
    const ssize_t sent = send(c.fd, frame.data(), frame.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent >= 0)
        return 1;
    return errno == EAGAIN || errno == EINTR || errno == ENOBUFS ? 0 : -1;
}

void flush_backlog(connection &c)
{
    while (!c.backlog.empty()) {
        const int result = transmit(c, c.backlog.front());
        if (result == 0)
            break;
        if (result < 0) {
            connection_close(c.who.connection, nullptr);
            return;
        }
        c.backlog_bytes -= c.backlog.front().size();
        c.backlog.pop_front();
    }
    update_events(c);
}

void malformed(std::uint64_t id, const char *why)
{
    drop_count(drop_reason::BUS_MALFORMED);
    connection_close(id, why);
}

void handle_hello(connection &c, const frame_header &header, byte_reader body)
{
    const auto version = body.get<std::uint32_t>();
    const auto service = body.get<std::uint32_t>();
    if (!body.done() || version != corvane::FRAME_VERSION) {
        malformed(c.who.connection, "speaks another version of the bus");
        return;
    }
    c.greeted = true;
    c.who.service = service;
    connection_send(c.who.connection, corvane::FRAME_REPLY, 0, header.id, {});
}

void handle_call(const peer &who, const frame_header &header, byte_view body)
{
    const auto found = rpc().methods.find(header.number);
    answer result{ENOSYS, {}};
    if (found != rpc().methods.end())
        result = found->second(who, body);
    if (header.kind == corvane::FRAME_ONEWAY)
        return;
    if (result.data.size() + sizeof header > corvane::FRAME_MAX)
        result = {EMSGSIZE, {}};
    for (const auto &hook : rpc().answer_hooks)
        hook();
    if (!connection_send(who.connection, corvane::FRAME_REPLY, static_cast<std::uint32_t>(result.error), header.id,
                         result.data) && connection_peer(who.connection) != nullptr)
        connection_close(who.connection, "takes no answers");
}

void handle_frame(connection &c, byte_view frame)
{
    frame_header header;
    if (frame.size() < sizeof header) {
        malformed(c.who.connection, "sent a frame without header");
        return;
    }
    std::memcpy(&header, frame.data(), sizeof header);
    const byte_view body = frame.subspan(sizeof header);
    if (header.kind == corvane::FRAME_HELLO) {
        handle_hello(c, header, byte_reader(body));
        return;
    }
    if (!c.greeted || (header.kind != corvane::FRAME_CALL && header.kind != corvane::FRAME_ONEWAY)) {
        malformed(c.who.connection, "sent a frame of an unknown kind");
        return;
    }
    const peer who = c.who;     // the handler may close the connection
    handle_call(who, header, body);
}

// False: nothing more to read now, or the connection is gone.
bool read_one(std::uint64_t id)
{
    connection *c = find(id);
    if (c == nullptr || c->backlog_bytes > BACKLOG_PAUSE)
        return false;
    const ssize_t size = recv(c->fd, rpc().buffer.data(), rpc().buffer.size(), MSG_DONTWAIT | MSG_TRUNC);
    if (size < 0 && (errno == EAGAIN || errno == EINTR))
        return false;
    if (size <= 0) {
        connection_close(id, nullptr);
        return false;
    }
    if (static_cast<std::size_t>(size) > rpc().buffer.size()) {
        malformed(id, "sent a frame that is too long");
        return false;
    }
    handle_frame(*c, byte_view(rpc().buffer.data(), static_cast<std::size_t>(size)));
    return true;
}

void connection_ready(std::uint64_t id, std::uint32_t events)
{
    if ((events & EPOLLOUT) != 0)
        if (connection *c = find(id); c != nullptr)
            flush_backlog(*c);
    if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) {
        for (int i = 0; i < FRAMES_A_TURN; ++i)
            if (!read_one(id))
                break;
        // A client that hung up with a full backlog is not read any more: it is gone all the same.
        if (connection *c = find(id); c != nullptr && (events & (EPOLLHUP | EPOLLERR)) != 0 && (c->events & EPOLLIN) == 0)
            connection_close(id, nullptr);
    }
    if (connection *c = find(id); c != nullptr)
        update_events(*c);
}

void accept_one()
{
    const int fd = accept4(rpc().listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0)
        return;
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0 ||
        access_of(fd, credentials.uid, credentials.gid) != access_level::FULL || rpc().connections.size() >= CONNECTIONS_MAX) {
        log_line(4, "connection of process " + std::to_string(credentials.pid) + " (user " +
                        std::to_string(credentials.uid) + ") refused");
        close(fd);
        return;
    }
    const int room = 1024 * 1024;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    const std::uint64_t id = ++rpc().last_id;
    connection &c = rpc().connections[id];
    c.fd = fd;
    c.who = {id, credentials.pid, credentials.uid, credentials.gid, 0};
    watch(fd, EPOLLIN, [id](std::uint32_t events) { connection_ready(id, events); });
}

} // namespace

bool rpc_listen()
{
    const std::string path = opts().root + "/" + corvane::BUS_SOCKET;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return false;
    unlink(path.c_str());
    const mode_t mask = umask(0117);
    const bool bound = bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    umask(mask);
    if (!bound || listen(fd, 128) != 0) {
        const int error = errno;
        close(fd);
        errno = error;
        return false;
    }
    give_to_group(path);
    rpc().listener = fd;
    watch(fd, EPOLLIN, [](std::uint32_t) { accept_one(); });
    return true;
}

void rpc_close()
{
    while (!rpc().connections.empty())
        connection_close(rpc().connections.begin()->first, nullptr);
    if (rpc().listener < 0)
        return;
    unwatch(rpc().listener);
    close(rpc().listener);
    rpc().listener = -1;
    unlink((opts().root + "/" + corvane::BUS_SOCKET).c_str());
}

const peer *connection_peer(std::uint64_t id)
{
    const connection *c = find(id);
    return c == nullptr ? nullptr : &c->who;
}

void connection_set_service(std::uint64_t id, std::uint32_t service)
{
    if (connection *c = find(id); c != nullptr)
        c->who.service = service;
}

void connection_close(std::uint64_t id, const char *why)
{
    const auto found = rpc().connections.find(id);
    if (found == rpc().connections.end())
        return;
    const peer who = found->second.who;
    unwatch(found->second.fd);
    close(found->second.fd);
    rpc().connections.erase(found);
    if (why != nullptr)
        log_line(4, "process " + std::to_string(who.pid) + " " + why + ": connection closed");
    for (const auto &hook : rpc().disconnect_hooks)
        hook(who);
}

bool connection_send(std::uint64_t id, std::uint32_t kind, std::uint32_t number, std::uint64_t call, byte_view data)
{
    connection *c = find(id);
    if (c == nullptr || c->backlog_bytes > BACKLOG_MAX || data.size() + sizeof(frame_header) > corvane::FRAME_MAX)
        return false;
    std::vector<std::uint8_t> frame(sizeof(frame_header) + data.size());
    const frame_header header{kind, number, call};
    std::memcpy(frame.data(), &header, sizeof header);
    if (!data.empty())
        std::memcpy(frame.data() + sizeof header, data.data(), data.size());
    if (c->backlog.empty()) {
        const int result = transmit(*c, frame);
        if (result > 0)
            return true;
        // A broken connection is closed by the loop when it reads: closing here would pull it from under callers.
        if (result < 0)
            return false;
    }
    c->backlog_bytes += frame.size();
    c->backlog.push_back(std::move(frame));
    update_events(*c);
    return true;
}

void before_answers(std::function<void()> hook)
{
    rpc().answer_hooks.push_back(std::move(hook));
}

void serve_method(std::uint32_t method, method_handler handler)
{
    rpc().methods[method] = std::move(handler);
}

void on_disconnect(std::function<void(const peer &)> hook)
{
    rpc().disconnect_hooks.push_back(std::move(hook));
}

} // namespace corvaned
