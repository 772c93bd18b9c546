#include "cli_connection.h"

#include "cli_command.h"
#include "client.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace corvane {

namespace {

constexpr int GREETING_TIMEOUT_MS = 5000, SEND_TIMEOUT_MS = 10'000;

// Names this process among those of its client, over reconnections.
std::uint64_t instance()
{
    static const std::uint64_t id = [] {
        std::uint64_t value = 0;
        if (getrandom(&value, sizeof value, 0) != sizeof value || value == 0)
            value = static_cast<std::uint64_t>(getpid()) << 32 | static_cast<std::uint32_t>(time(nullptr));
        return value;
    }();
    return id;
}

int connect_to(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        const int error = errno;
        ::close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

bool readable(int fd, short events, int timeout_ms)
{
    pollfd wanted{fd, events, 0};
    return poll(&wanted, 1, timeout_ms) > 0;
}

} // namespace

void applied_lines::change(const execute_record &record)
{
    const bool own_key = record.key.empty();
    const std::string &line = record.line;
    if (record.change == applied_change::NOTHING)
        return;
    auto &lines = by_interface_[record.interface];
    const bool coming = record.change == applied_change::REPLACE_KEY || record.change == applied_change::MOVE_TO_END ||
                        record.change == applied_change::APPEND;
    const std::string bare = line.starts_with("no ") ? line.substr(3) : line;
    const std::string &key = own_key ? (coming ? line : bare) : record.key;
    const auto [first, last] = lines.equal_range(key);
    if (record.change == applied_change::REPLACE_KEY || record.change == applied_change::REMOVE_KEY) {
        lines.erase(first, last);
    } else if (record.change == applied_change::MOVE_TO_END || record.change == applied_change::REMOVE_ONE) {
        const bool by_text = record.change == applied_change::MOVE_TO_END && !own_key;
        for (auto it = first; it != last; ++it) {
            if (by_text && it->second != line)
                continue;
            lines.erase(it);
            break;
        }
    }
    if (coming)
        lines.emplace(key, own_key ? "" : line);
}

int cli_connection::open(const std::string &client)
{
    close();
    fd_ = connect_to(root() + "/" + CMDSRV_SOCKET);
    if (fd_ < 0)
        return errno;
    const int error = greet(client);
    if (error != 0)
        close();
    return error;
}

int cli_connection::greet(const std::string &client)
{
    byte_writer record;
    record.put(CMDSRV_VERSION).put(instance()).text(client);
    if (!send(CLIENT_HELLO, record.view()))
        return ECONNRESET;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(GREETING_TIMEOUT_MS);
    std::uint32_t kind = 0;
    byte_view answer;
    while (!splitter_.next(kind, answer)) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
        if (left <= 0 || !readable(fd_, POLLIN, static_cast<int>(left)))
            return ETIMEDOUT;
        if (!read_some())
            return ECONNRESET;
    }
    byte_reader in(answer);
    const auto error = in.get<std::uint32_t>();
    return kind == SERVER_WELCOME && in.ok() ? static_cast<int>(error) : EPROTO;
}

void cli_connection::announce(const std::vector<std::string> &handlers, const applied_lines &applied)
{
    for (const auto &name : handlers)
        send(CLIENT_HANDLER, byte_writer().text(name).view());
    applied.each([this](const std::string &interface, const std::string &line) {
        send(CLIENT_APPLIED, byte_writer().text(interface).text(line).view());
    });
    send(CLIENT_READY, {});
}

void cli_connection::close()
{
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
    splitter_ = {};
    requests_.clear();
}

bool cli_connection::send(std::uint32_t kind, byte_view record)
{
    if (fd_ < 0)
        return false;
    std::vector<std::uint8_t> frame;
    append_frame(frame, kind, record);
    std::size_t sent = 0;
    while (sent < frame.size()) {
        const ssize_t size = ::send(fd_, frame.data() + sent, frame.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (size >= 0) {
            sent += static_cast<std::size_t>(size);
            continue;
        }
        if (errno == EINTR || (errno == EAGAIN && readable(fd_, POLLOUT, SEND_TIMEOUT_MS)))
            continue;
        close();
        return false;
    }
    return true;
}

bool cli_connection::read_some()
{
    std::array<std::uint8_t, 32 * 1024> buffer;
    const ssize_t size = recv(fd_, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (size < 0 && (errno == EAGAIN || errno == EINTR))
        return true;
    if (size <= 0)
        return false;
    splitter_.feed({buffer.data(), static_cast<std::size_t>(size)});
    return true;
}

bool cli_connection::wait(int wake_fd, int timeout_ms)
{
    if (!requests_.empty())
        return true;
    pollfd wanted[2] = {{wake_fd, POLLIN, 0}, {fd_, POLLIN, 0}};
    (void)poll(wanted, fd_ >= 0 ? 2 : 1, timeout_ms);
    if (fd_ >= 0 && wanted[1].revents != 0)
        look(nullptr);
    return fd_ >= 0;
}

void cli_connection::look(cli_cmd *running)
{
    if (fd_ < 0)
        return;
    const bool alive = read_some();
    std::uint32_t kind = 0;
    byte_view record;
    while (splitter_.next(kind, record))
        take(kind, record, running);
    if (!alive || splitter_.broken())
        close();
}

void cli_connection::wait_for_news(cli_cmd &running, int timeout_ms)
{
    (void)readable(fd_, POLLIN, timeout_ms);
    look(&running);
}

void cli_connection::take(std::uint32_t kind, byte_view record, cli_cmd *running)
{
    byte_reader in(record);
    if (kind == SERVER_EXECUTE) {
        if (auto request = get_execute(record))
            requests_.push_back({std::move(*request)});
        return;
    }
    if (kind == SERVER_FORGET) {
        requests_.emplace_back().record.interface = in.text();
        return;
    }
    const auto request = in.get<std::uint64_t>();
    const auto granted = kind == SERVER_CREDIT ? in.get<std::uint32_t>() : 0;
    const auto apply = [&](auto &command) {
        command.credit += granted;
        command.stopped = command.stopped || kind == SERVER_STOP;
    };
    if (!in.ok())
        return;
    if (running != nullptr && running->record.request == request)
        apply(*running);
    for (auto &waiting : requests_)
        if (waiting.record.request == request)
            apply(waiting);
}

bool cli_connection::next_request(queued_request &request)
{
    if (requests_.empty())
        return false;
    request = std::move(requests_.front());
    requests_.pop_front();
    return true;
}

} // namespace corvane
