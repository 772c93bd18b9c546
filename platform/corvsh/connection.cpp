#include "connection.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace corvsh {

using corvane::byte_reader;
using corvane::byte_writer;

namespace {

constexpr std::size_t FILE_PIECE = 32 * 1024;

int open_file(const std::string &path, std::string &error)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat about {};
    if (fd >= 0 && fstat(fd, &about) == 0 && S_ISREG(about.st_mode))
        return fd;
    error = fd < 0 ? std::strerror(errno) : "not a file";
    if (fd >= 0)
        close(fd);
    return -1;
}

} // namespace

connection::~connection()
{
    if (fd_ >= 0)
        close(fd_);
}

bool connection::send(std::uint32_t kind, byte_view record)
{
    std::vector<std::uint8_t> frame;
    corvane::append_frame(frame, kind, record);
    for (std::size_t sent = 0; sent < frame.size();) {
        const ssize_t size = ::send(fd_, frame.data() + sent, frame.size() - sent, MSG_NOSIGNAL);
        if (size < 0 && errno == EINTR)
            continue;
        if (size < 0)
            return false;
        sent += static_cast<std::size_t>(size);
    }
    return true;
}

bool connection::receive(std::uint32_t &kind, byte_view &record, const std::function<void()> &on_signal)
{
    std::array<std::uint8_t, 32 * 1024> buffer;
    while (!splitter_.next(kind, record)) {
        const ssize_t size = splitter_.broken() ? 0 : recv(fd_, buffer.data(), buffer.size(), 0);
        if (size < 0 && errno == EINTR) {
            if (on_signal)
                on_signal();
            continue;
        }
        if (size <= 0)
            return false;
        splitter_.feed({buffer.data(), static_cast<std::size_t>(size)});
    }
    return true;
}

bool connection::open(const std::string &root, std::string &error)
{
    const std::string path = root + "/" + corvane::SHELL_SOCKET;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        error = path + ": too long for a socket";
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0 || connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        error = "corvaned does not answer at " + path + ": " + std::strerror(errno);
        return false;
    }
    std::uint32_t kind = 0;
    byte_view record;
    (void)send(corvane::SHELL_HELLO, byte_writer().put(corvane::CMDSRV_VERSION).view());
    if (!receive(kind, record) || kind != corvane::SHELL_GREETING) {
        error = "corvaned ended the connection at once";
        return false;
    }
    byte_reader in(record);
    const auto refused = in.get<std::uint32_t>();
    host_ = in.text();
    notice_ = in.text();
    if (refused != 0)
        error = host_;
    return refused == 0;
}

void connection::give_file(const std::string &path)
{
    std::string error;
    const int fd = open_file(path, error);
    std::vector<char> piece(FILE_PIECE);
    for (ssize_t size = 1; fd >= 0 && size > 0;) {
        size = read(fd, piece.data(), piece.size());
        if (size < 0)
            error = std::strerror(errno);
        else if (!send(corvane::SHELL_FILE, byte_writer()
                                                .put(size > 0 ? corvane::FILE_MORE : corvane::FILE_LAST)
                                                .text({piece.data(), static_cast<std::size_t>(size)})
                                                .view()))
            break;
    }
    if (fd >= 0)
        close(fd);
    if (!error.empty())
        (void)send(corvane::SHELL_FILE, byte_writer().put(corvane::FILE_FAILED).text(error).view());
}

outcome connection::execute(const std::string &line, const reader &to)
{
    outcome result;
    std::uint32_t kind = 0;
    byte_view record;
    bool stopped = false;
    result.lost = line.size() + sizeof(std::uint32_t) > corvane::CMDSRV_FRAME_MAX ||
                  !send(corvane::SHELL_EXECUTE, byte_writer().text(line).view());
    const auto stop = [&] {
        if (!stopped)
            (void)send(corvane::SHELL_STOP, {});
        stopped = true;
    };
    const auto on_signal = [&] {
        if (to.interrupted())
            stop();
    };
    while (!result.lost && receive(kind, record, on_signal)) {
        byte_reader in(record);
        if (kind == corvane::SHELL_OUTPUT) {
            const bool error = in.get<std::uint8_t>() == corvane::SHELL_STREAM_ERROR;
            const byte_view text = in.rest();
            if (!stopped && !to.print(error, {reinterpret_cast<const char *>(text.data()), text.size()}))
                stop();
        } else if (kind == corvane::SHELL_ERROR) {
            const auto at = in.get<std::uint32_t>();
            const auto length = in.get<std::uint32_t>();
            to.mistake(at, length, in.text());
        } else if (kind == corvane::SHELL_WANT_FILE) {
            give_file(in.text());
        } else if (kind == corvane::SHELL_RESULT) {
            result.status = in.get<std::int32_t>();
            result.mode = in.get<corvane::shell_mode>();
            result.over = in.get<std::uint8_t>() != 0;
            return result;
        }
    }
    result.lost = true;
    return result;
}

choices connection::complete(const std::string &line)
{
    choices result;
    std::uint32_t kind = 0;
    byte_view record;
    result.lost = !send(corvane::SHELL_COMPLETE, byte_writer().text(line).view()) || !receive(kind, record) ||
                  kind != corvane::SHELL_CHOICES;
    if (result.lost)
        return result;
    byte_reader in(record);
    result.from = in.get<std::uint32_t>();
    const auto count = in.get<std::uint32_t>();
    for (std::uint32_t i = 0; i < count && in.ok(); ++i) {
        choice &c = result.list.emplace_back();
        c.word = in.text();
        c.help = in.text();
        c.insertable = in.get<std::uint8_t>() != 0;
    }
    result.error_at = in.get<std::uint32_t>();
    (void)in.get<std::uint32_t>();
    result.error = in.text();
    return result;
}

} // namespace corvsh
