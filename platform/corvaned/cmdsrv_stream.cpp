#include "cmdsrv_stream.h"

#include "admission.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace corvaned {

namespace {

constexpr int LISTEN_BACKLOG = 128;
constexpr std::chrono::milliseconds FINISH_PATIENCE{2000}, ACCEPT_PAUSE{100};

peer credentials(int fd)
{
    ucred who{};
    socklen_t size = sizeof who;
    peer result;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &who, &size) == 0) {
        result.pid = who.pid;
        result.uid = who.uid;
        result.gid = who.gid;
    } else {
        result.uid = static_cast<uid_t>(-1);
        result.gid = static_cast<gid_t>(-1);
    }
    return result;
}

void accept_all(int listener, const std::function<void(int, const peer &)> &accepted)
{
    for (;;) {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd >= 0) {
            accepted(fd, credentials(fd));
            continue;
        }
        if (errno == EMFILE || errno == ENFILE) {            // no descriptor left: they wait, the loop does not spin
            watch_change(listener, 0);
            after(ACCEPT_PAUSE, [listener] { watch_change(listener, EPOLLIN); });
        }
        return;
    }
}

} // namespace

std::shared_ptr<framed_stream> framed_stream::make(int fd, std::size_t most_waiting, hooks callbacks)
{
    std::shared_ptr<framed_stream> made(new framed_stream(fd, most_waiting, std::move(callbacks)));
    made->watched_ = EPOLLIN;
    watch(fd, EPOLLIN, [weak = made->weak_from_this()](std::uint32_t events) {
        if (const auto self = weak.lock())
            self->ready(events);
    });
    return made;
}

framed_stream::~framed_stream() { close(); }

void framed_stream::close()
{
    if (fd_ < 0)
        return;
    unwatch(fd_);
    ::close(fd_);
    fd_ = -1;
    out_.clear();
    out_sent_ = 0;
}

void framed_stream::fail(const char *why)
{
    const auto self = shared_from_this();                    // the hook may drop the last reference
    if (fd_ < 0)
        return;
    close();
    report(why);
}

void framed_stream::report(const char *why)
{
    if (const auto closed = std::exchange(hooks_.closed, nullptr))
        closed(why);
}

void framed_stream::finish()
{
    finishing_ = true;
    if (waiting() == 0) {
        close();
        return;
    }
    after(FINISH_PATIENCE, [self = shared_from_this()] { self->close(); });
    update();
}

void framed_stream::update()
{
    if (fd_ < 0)
        return;
    const std::uint32_t wanted = (paused_ || finishing_ ? 0u : static_cast<std::uint32_t>(EPOLLIN)) |
                                 (waiting() > 0 ? static_cast<std::uint32_t>(EPOLLOUT) : 0u);
    if (wanted != watched_)
        watch_change(fd_, wanted);
    watched_ = wanted;
}

bool framed_stream::send(std::uint32_t kind, byte_view record)
{
    if (fd_ < 0 || finishing_)
        return false;
    if (waiting() + record.size() > most_waiting_) {
        close();
        after(std::chrono::milliseconds(0), [self = shared_from_this()] { self->report("does not read what it is sent"); });
        return false;
    }
    corvane::append_frame(out_, kind, record);
    if (watched_ & EPOLLOUT)
        return true;
    write_some();
    return fd_ >= 0;
}

void framed_stream::write_some()
{
    while (waiting() > 0) {
        const ssize_t sent = ::send(fd_, out_.data() + out_sent_, waiting(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent < 0 && errno != EAGAIN) {
            // The reader finds the end of the connection; the hook is not called from inside a send.
            out_.clear();
            out_sent_ = 0;
            break;
        }
        if (sent < 0)
            break;
        out_sent_ += static_cast<std::size_t>(sent);
    }
    if (waiting() == 0) {
        out_.clear();
        out_sent_ = 0;
    } else if (out_sent_ > STREAM_LOW_MARK && out_sent_ > out_.size() / 2) {
        out_.erase(out_.begin(), out_.begin() + static_cast<std::ptrdiff_t>(out_sent_));
        out_sent_ = 0;
    }
    if (finishing_ && waiting() == 0) {
        close();
        return;
    }
    update();
}

void framed_stream::pause(bool on)
{
    paused_ = on;
    update();
    if (on || resume_queued_)
        return;
    // What was read already is delivered from the loop, not from inside the caller.
    resume_queued_ = true;
    after(std::chrono::milliseconds(0), [self = shared_from_this()] {
        self->resume_queued_ = false;
        self->deliver();
    });
}

void framed_stream::ready(std::uint32_t events)
{
    const auto self = shared_from_this();
    if (events & EPOLLOUT) {
        write_some();
        if (fd_ >= 0 && waiting() <= STREAM_LOW_MARK && hooks_.drained)
            hooks_.drained();
    }
    if (fd_ >= 0 && (events & EPOLLIN))
        read_some();
    else if (fd_ >= 0 && (events & (EPOLLHUP | EPOLLERR)))
        fail("closed");
}

void framed_stream::read_some()
{
    std::array<std::uint8_t, 32 * 1024> buffer;
    const ssize_t size = recv(fd_, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (size < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (size <= 0) {
        fail("closed");
        return;
    }
    splitter_.feed({buffer.data(), static_cast<std::size_t>(size)});
    deliver();
}

void framed_stream::deliver()
{
    if (delivering_)
        return;
    delivering_ = true;
    std::uint32_t kind = 0;
    byte_view record;
    while (fd_ >= 0 && !paused_ && !finishing_ && splitter_.next(kind, record))
        hooks_.frame(kind, record);
    delivering_ = false;
    if (fd_ >= 0 && splitter_.broken())
        fail("sent a frame that is too long");
}

bool stream_listen(const char *name, mode_t access, std::function<void(int, const peer &)> accepted)
{
    const std::string path = opts().root + "/" + name;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return false;
    unlink(path.c_str());
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 || listen(fd, LISTEN_BACKLOG) != 0 ||
        chmod(path.c_str(), access) != 0) {
        const int error = errno;
        ::close(fd);
        errno = error;
        return false;
    }
    if ((access & S_IWOTH) == 0)
        give_to_group(path);
    watch(fd, EPOLLIN, [fd, hook = std::move(accepted)](std::uint32_t) { accept_all(fd, hook); });
    return true;
}

} // namespace corvaned
