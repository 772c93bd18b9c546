// The connection of this process to corvaned: one socket, one thread that reads it, reconnects and greets. Calls wait
// for their answer on the caller's thread, except on the connection's own, which reads on while it waits.
#include "connection.h"

#include "shared_memory.h"

#include "corvane_thread.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <mutex>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

namespace corvane {
namespace {

using clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds CALL_TIMEOUT{5000}, SEND_TIMEOUT{1000}, RETRY_FIRST{20}, RETRY_MAX{500};
constexpr std::size_t PIECES_MAX = 8;

enum class link_state : std::uint8_t { IDLE, TRYING, GREETED, UP, DOWN };

struct pending_call {
    std::uint64_t id = 0;                 // 0: nobody waits
    bool done = false;
    reply result;
};

struct connection {
    std::mutex socket_mutex;              // guards the life of `fd` only; one send is one packet
    int fd = -1;
    bool open = false;                    // greeted and introduced: threads other than its own may send

    std::mutex mutex;
    std::condition_variable changed;
    link_state state = link_state::IDLE;
    pending_call pending;
    std::uint64_t last_id = 0;
    bool unresponsive = false;            // a call ran into its time-out: fail the next ones at once until it speaks

    std::mutex call_mutex;
    std::atomic<std::uint32_t> service{0};
    std::once_flag start;
    std::vector<std::uint8_t> buffer = std::vector<std::uint8_t>(FRAME_MAX);

    std::mutex hooks_mutex;
    std::vector<void (*)()> hooks[3];
    std::vector<void (*)()> lost_hooks;
    std::atomic<deliver_handler> deliver{nullptr};
    std::atomic<event_handler> events[8] = {};
};

// Never destroyed: its thread runs until the process has ended.
connection &the()
{
    static auto *c = new connection;
    return *c;
}

thread_local bool on_connection_thread = false;

int open_socket()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = root() + "/" + BUS_SOCKET;
    if (path.size() >= sizeof address.sun_path)
        return -1;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    const int room = 1024 * 1024;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
        return fd;
    close(fd);
    return -1;
}

int send_now(const iovec *pieces, std::size_t count)
{
    msghdr message{};
    message.msg_iov = const_cast<iovec *>(pieces);
    message.msg_iovlen = count;
    const std::lock_guard guard(the().socket_mutex);
    // A thread that believed in the connection before this one must not be heard ahead of the greeting.
    if (the().fd < 0 || (!the().open && !on_connection_thread))
        return ENOTCONN;
    if (sendmsg(the().fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0)
        return 0;
    if (errno == EPIPE || errno == ECONNRESET)
        return ENOTCONN;
    return errno == EINTR || errno == ENOBUFS ? EAGAIN : errno;
}

void wait_writable()
{
    int fd = -1;
    {
        const std::lock_guard guard(the().socket_mutex);
        fd = the().fd;
    }
    pollfd waiting{fd, POLLOUT, 0};
    poll(&waiting, 1, 10);
}

int send_frame(const frame_header &header, std::initializer_list<byte_view> pieces, bool wait)
{
    iovec parts[PIECES_MAX + 1];
    std::size_t count = 0;
    std::size_t total = sizeof header;
    parts[count++] = {const_cast<frame_header *>(&header), sizeof header};
    for (const byte_view &piece : pieces) {
        if (count > PIECES_MAX)
            return EMSGSIZE;
        parts[count++] = {const_cast<std::uint8_t *>(piece.data()), piece.size()};
        total += piece.size();
    }
    if (total > FRAME_MAX)
        return EMSGSIZE;
    const auto deadline = clock::now() + SEND_TIMEOUT;
    int result = send_now(parts, count);
    while (result == EAGAIN && wait && clock::now() < deadline) {
        wait_writable();
        result = send_now(parts, count);
    }
    return result;
}

void finish_pending(std::uint64_t id, int error, byte_view data)
{
    const std::lock_guard guard(the().mutex);
    pending_call &pending = the().pending;
    if (pending.id == 0 || pending.done || (id != 0 && pending.id != id))
        return;
    pending.result = {error, {data.begin(), data.end()}};
    pending.done = true;
    the().changed.notify_all();
}

void handle_frame(byte_view frame)
{
    frame_header header;
    if (frame.size() < sizeof header)
        return;
    std::memcpy(&header, frame.data(), sizeof header);
    const byte_view body = frame.subspan(sizeof header);
    if (header.kind == FRAME_REPLY) {
        finish_pending(header.id, static_cast<int>(header.number), body);
    } else if (header.kind == FRAME_DELIVER) {
        if (const auto handler = the().deliver.load(); handler != nullptr)
            handler(header.number, body);
    } else if (header.kind == FRAME_EVENT && header.number < std::size(the().events)) {
        if (const auto handler = the().events[header.number].load(); handler != nullptr)
            handler(body);
    }
}

// Reads one frame. False: the connection is lost. A time-out of -1 waits as long as it takes.
bool pump(int timeout_ms)
{
    const int fd = the().fd;                    // only this thread changes it
    pollfd waiting{fd, POLLIN, 0};
    const int ready = poll(&waiting, 1, timeout_ms);
    if (ready == 0 || (ready < 0 && errno == EINTR))
        return true;
    const ssize_t size = recv(fd, the().buffer.data(), the().buffer.size(), 0);
    if (size <= 0)
        return size < 0 && (errno == EINTR || errno == EAGAIN);
    {
        const std::lock_guard guard(the().mutex);
        the().unresponsive = false;
    }
    handle_frame({the().buffer.data(), static_cast<std::size_t>(size)});
    return true;
}

bool pending_done()
{
    const std::lock_guard guard(the().mutex);
    return the().pending.done;
}

bool await_pumping(clock::time_point deadline)
{
    while (!pending_done()) {
        const auto left = std::chrono::duration_cast<milliseconds>(deadline - clock::now()).count();
        if (left <= 0)
            return false;
        if (!pump(static_cast<int>(left))) {
            finish_pending(0, ENOTCONN, {});
            return true;
        }
    }
    return true;
}

bool await_elsewhere(clock::time_point deadline)
{
    std::unique_lock lock(the().mutex);
    return the().changed.wait_until(lock, deadline, [] { return the().pending.done; });
}

// Registers the call that is about to be sent; the call mutex is held.
std::uint64_t begin_pending()
{
    const std::lock_guard guard(the().mutex);
    the().pending = {++the().last_id, false, {}};
    return the().pending.id;
}

reply exchange(std::uint32_t kind, std::uint32_t method, std::initializer_list<byte_view> pieces)
{
    const auto deadline = clock::now() + CALL_TIMEOUT;
    const std::uint64_t id = begin_pending();
    const int sent = send_frame({kind, method, id}, pieces, true);
    if (sent != 0)
        finish_pending(id, sent == EAGAIN ? ETIMEDOUT : sent, {});
    const bool answered = on_connection_thread ? await_pumping(deadline) : await_elsewhere(deadline);
    const std::lock_guard guard(the().mutex);
    if (!answered && !the().pending.done)
        the().unresponsive = true;
    reply result = the().pending.done ? std::move(the().pending.result) : reply{ETIMEDOUT, {}};
    the().pending = {};
    return result;
}

bool greet()
{
    const std::lock_guard calls(the().call_mutex);
    const auto request = byte_writer().put(FRAME_VERSION).put(the().service.load()).take();
    return exchange(FRAME_HELLO, 0, {request}).error == 0;
}

void set_state(link_state state)
{
    const std::lock_guard guard(the().mutex);
    the().state = state;
    the().changed.notify_all();
}

void set_socket(int fd)
{
    const std::lock_guard guard(the().socket_mutex);
    if (the().fd >= 0)
        close(the().fd);
    the().fd = fd;
    the().open = false;
}

void open_to_all()
{
    const std::lock_guard guard(the().socket_mutex);
    the().open = true;
}

std::vector<void (*)()> hooks_of(std::vector<void (*)()> &list)
{
    const std::lock_guard guard(the().hooks_mutex);
    return list;
}

void run_connected_hooks()
{
    shared_memory_refresh();
    for (auto &stage : the().hooks)
        for (const auto hook : hooks_of(stage))
            hook();
}

bool connect_once()
{
    const int fd = open_socket();
    if (fd < 0)
        return false;
    set_socket(fd);
    if (!greet()) {
        set_socket(-1);
        return false;
    }
    set_state(link_state::GREETED);
    run_connected_hooks();
    open_to_all();
    set_state(link_state::UP);
    return true;
}

void *connection_thread(void *)
{
    on_connection_thread = true;
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);       // signals are the process's own threads' business
    milliseconds retry = RETRY_FIRST;
    for (;;) {
        if (!connect_once()) {
            set_state(link_state::DOWN);
            poll(nullptr, 0, static_cast<int>(retry.count()));
            retry = std::min(retry * 2, RETRY_MAX);
            continue;
        }
        retry = RETRY_FIRST;
        while (pump(-1)) {
        }
        set_state(link_state::DOWN);
        set_socket(-1);
        finish_pending(0, ENOTCONN, {});
        for (const auto hook : hooks_of(the().lost_hooks))
            hook();
    }
}

void start_thread()
{
    // Writing to a connection or a log that went away is an error to be handled, not the end of the process.
    struct sigaction action {};
    if (sigaction(SIGPIPE, nullptr, &action) == 0 && action.sa_handler == SIG_DFL)
        signal(SIGPIPE, SIG_IGN);
    shared_memory_start();
    set_state(link_state::TRYING);
    pthread_t thread{};
    if (corvane_pthread_create(thread, nullptr, connection_thread, nullptr, "corvane-bus") != 0)
        set_state(link_state::DOWN);
    else
        pthread_detach(thread);
}

bool is_settled()
{
    return the().state == link_state::UP || the().state == link_state::DOWN;
}

// True: calls may go out now.
bool await_link()
{
    if (on_connection_thread)
        return true;
    std::call_once(the().start, start_thread);
    std::unique_lock lock(the().mutex);
    the().changed.wait_for(lock, CALL_TIMEOUT, is_settled);
    return the().state == link_state::UP && !the().unresponsive;
}

} // namespace

const std::string &root()
{
    static const auto *path = [] {
        const char *given = getenv("CORVANE_ROOT");
        return new std::string(given != nullptr && *given != '\0' ? given : "/run/corvane");
    }();
    return *path;
}

bool connection_ensure()
{
    return await_link();
}

bool connection_up()
{
    const std::lock_guard guard(the().mutex);
    return the().state == link_state::UP;
}

reply call_pieces(std::uint32_t method, std::initializer_list<byte_view> pieces)
{
    if (!await_link())
        return {ENOTCONN, {}};
    const std::lock_guard calls(the().call_mutex);
    return exchange(FRAME_CALL, method, pieces);
}

reply call(std::uint32_t method, byte_view request)
{
    return call_pieces(method, {request});
}

int send_oneway_pieces(std::uint32_t method, std::initializer_list<byte_view> pieces, bool wait)
{
    return await_link() ? send_frame({FRAME_ONEWAY, method, 0}, pieces, wait) : ENOTCONN;
}

int send_oneway_now(std::uint32_t method, byte_view request, bool wait)
{
    return send_frame({FRAME_ONEWAY, method, 0}, {request}, wait);
}

int send_oneway(std::uint32_t method, byte_view request, bool wait)
{
    return send_oneway_pieces(method, {request}, wait);
}

void connection_service_set(std::uint32_t service)
{
    the().service = service;
}

std::uint32_t connection_service()
{
    return the().service;
}

void on_deliver(deliver_handler handler)
{
    the().deliver = handler;
}

void on_event(std::uint32_t number, event_handler handler)
{
    if (number < std::size(the().events))
        the().events[number] = handler;
}

void on_connected_at(connect_stage stage, void (*hook)())
{
    const std::lock_guard guard(the().hooks_mutex);
    the().hooks[static_cast<std::size_t>(stage)].push_back(hook);
}

void on_connected(void (*hook)())
{
    on_connected_at(connect_stage::USERS, hook);
}

void on_lost(void (*hook)())
{
    const std::lock_guard guard(the().hooks_mutex);
    the().lost_hooks.push_back(hook);
}

} // namespace corvane
