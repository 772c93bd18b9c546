#include "platform_process.h"

#include "../database.h"
#include "../log.h"
#include "../loop.h"
#include "../options.h"
#include "../rpc.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace corvaned_test {
namespace {

constexpr std::chrono::seconds PATIENCE{5};

std::string fresh_folder()
{
    char path[] = "/tmp/corvaned-test-XXXXXX";
    return mkdtemp(path) == nullptr ? std::string{} : std::string(path);
}

} // namespace

platform_process &platform_process::the()
{
    static platform_process process;
    return process;
}

platform_process::platform_process() : root_(fresh_folder())
{
    corvaned::options chosen;
    chosen.root = root_;
    chosen.log = root_ + "/log";
    chosen.lum = root_ + "/lum";
    corvaned::options_set(chosen);
    std::string error;
    if (!corvaned::root_prepare(error) || !corvaned::log_open() || !corvaned::database_open(error)) {
        ADD_FAILURE() << error;
        return;
    }
    corvaned::log_start();
    corvaned::database_start();
    corvaned::bus_start();
    corvaned::drops_start();
    corvaned::sdb_start();
    EXPECT_TRUE(corvaned::rpc_listen());
    static const struct remover {
        std::string path;
        pid_t maker;
        ~remover()
        {
            if (getpid() == maker)
                std::filesystem::remove_all(path);
        }
    } at_end{root_, getpid()};
}

bool platform_process::until(const std::function<bool()> &condition)
{
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        corvaned::loop_turn(5);
    }
    return true;
}

void platform_process::turns(int count)
{
    for (int i = 0; i < count; ++i)
        corvaned::loop_turn(0);
}

std::vector<std::uint8_t> bytes(std::string_view text)
{
    return {text.begin(), text.end()};
}

std::vector<std::uint8_t> packet_of(const corvane::frame_header &header, byte_view body)
{
    std::vector<std::uint8_t> packet(sizeof header + body.size());
    std::memcpy(packet.data(), &header, sizeof header);
    if (!body.empty())
        std::memcpy(packet.data() + sizeof header, body.data(), body.size());
    return packet;
}

bus_client::bus_client(bool greet)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = platform_process::the().root() + "/" + corvane::BUS_SOCKET;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    fd_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    EXPECT_EQ(connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0) << std::strerror(errno);
    if (!greet)
        return;
    send(corvane::FRAME_HELLO, 0, ++last_id_, byte_writer().put(corvane::FRAME_VERSION).put(0u).view());
    std::optional<frame> reply;
    EXPECT_TRUE(platform_process::until([&] { return (reply = next()).has_value(); }));
}

bus_client::~bus_client()
{
    close(fd_);
    platform_process::turns();
}

void bus_client::send_raw(byte_view packet)
{
    EXPECT_EQ(::send(fd_, packet.data(), packet.size(), MSG_NOSIGNAL), static_cast<ssize_t>(packet.size()))
        << std::strerror(errno);
}

void bus_client::send(std::uint32_t kind, std::uint32_t number, std::uint64_t id, byte_view body)
{
    send_raw(packet_of({kind, number, id}, body));
}

corvaned::answer bus_client::call(std::uint32_t method, byte_view request)
{
    send(corvane::FRAME_CALL, method, ++last_id_, request);
    std::optional<frame> reply;
    if (!platform_process::until([&] { return (reply = next()).has_value() || closed_; }) || !reply)
        return {ETIMEDOUT, {}};
    EXPECT_EQ(reply->header.kind, corvane::FRAME_REPLY);
    EXPECT_EQ(reply->header.id, last_id_);
    return {static_cast<int>(reply->header.number), reply->body};
}

std::uint32_t bus_client::bind(std::uint32_t queue, std::uint32_t sap, std::uint32_t depth)
{
    return static_cast<std::uint32_t>(
        call(corvane::BUS_BIND, byte_writer().put(queue).put(sap).put(depth).put(0u).put(0u).text("test").view()).error);
}

std::uint32_t bus_client::option(std::uint32_t queue, std::uint32_t opcode, std::uint32_t option)
{
    return static_cast<std::uint32_t>(
        call(corvane::BUS_OPTION, byte_writer().put(queue).put(opcode).put(option).view()).error);
}

int bus_client::transfer(std::uint32_t queue, std::uint32_t node, std::uint32_t sap, std::uint32_t opcode,
                         byte_view payload)
{
    return call(corvane::BUS_SEND,
                byte_writer().put(queue).put(node).put(sap).put(opcode).put(0u).put(0u).raw(payload).view())
        .error;
}

int bus_client::send_message(std::uint32_t queue, std::uint32_t sap, std::uint32_t opcode, byte_view payload)
{
    return transfer(queue, 0, sap, opcode, payload);
}

int bus_client::notify(std::uint32_t queue, std::uint32_t opcode, byte_view payload)
{
    return transfer(queue, 0xFE000000, 0, opcode, payload);
}

bool bus_client::read_one()
{
    std::vector<std::uint8_t> packet(corvane::FRAME_MAX);
    const ssize_t size = recv(fd_, packet.data(), packet.size(), MSG_DONTWAIT);
    if (size < 0 && errno == EAGAIN)
        return false;
    if (size <= 0) {
        closed_ = true;
        return false;
    }
    packet.resize(static_cast<std::size_t>(size));
    frame f;
    std::memcpy(&f.header, packet.data(), sizeof f.header);
    f.body.assign(packet.begin() + sizeof f.header, packet.end());
    if (f.header.kind != corvane::FRAME_DELIVER) {
        (f.header.kind == corvane::FRAME_EVENT ? events_ : frames_).push_back(std::move(f));
        return true;
    }
    delivered d;
    d.queue = f.header.number;
    std::memcpy(&d.header, f.body.data(), sizeof d.header);
    d.payload.assign(f.body.begin() + sizeof d.header, f.body.end());
    deliveries_.push_back(std::move(d));
    return true;
}

std::optional<frame> bus_client::next()
{
    while (read_one()) {
    }
    if (frames_.empty())
        return std::nullopt;
    frame f = std::move(frames_.front());
    frames_.erase(frames_.begin());
    return f;
}

std::vector<frame> bus_client::events()
{
    platform_process::turns();
    while (read_one()) {
    }
    return std::exchange(events_, {});
}

std::vector<delivered> bus_client::deliveries()
{
    platform_process::turns();
    while (read_one()) {
    }
    return std::exchange(deliveries_, {});
}

bool bus_client::closed()
{
    platform_process::until([&] {
        while (read_one()) {
        }
        return closed_;
    });
    return closed_;
}

} // namespace corvaned_test
