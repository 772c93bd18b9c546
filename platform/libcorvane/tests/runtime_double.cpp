#include "runtime_double.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace corvane_test {
namespace {

constexpr std::chrono::seconds PATIENCE{5};

// Before main(): other tests of the program may use the library first, and the root is read once.
const std::string &made_root()
{
    static const std::string root = [] {
        char path[] = "/tmp/corvane-test-XXXXXX";
        std::string made = mkdtemp(path) == nullptr ? "/nowhere" : path;
        std::filesystem::create_directory(made + "/shm");
        setenv("CORVANE_ROOT", made.c_str(), 1);
        return made;
    }();
    return root;
}
const std::string &early_root = made_root();

const struct folder_remover {
    pid_t maker = getpid();
    ~folder_remover()
    {
        if (getpid() == maker)
            std::filesystem::remove_all(early_root);
    }
} remove_at_end;

} // namespace

std::vector<std::uint8_t> bytes(std::string_view text)
{
    return {text.begin(), text.end()};
}

corvaned_double &corvaned_double::the()
{
    static auto *server = new corvaned_double;
    return *server;
}

corvaned_double::corvaned_double() : root_(made_root())
{
}

void corvaned_double::start()
{
    const std::lock_guard guard(mutex_);
    if (listener_ >= 0)
        return;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = root_ + "/" + corvane::BUS_SOCKET;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    unlink(path.c_str());
    listener_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (bind(listener_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 || listen(listener_, 4) != 0)
        std::abort();
    stopping_ = false;
    thread_ = std::thread([this] { run(); });
}

void corvaned_double::stop()
{
    {
        const std::lock_guard guard(mutex_);
        if (listener_ < 0)
            return;
        stopping_ = true;
        shutdown(listener_, SHUT_RDWR);
        if (connection_ >= 0)
            shutdown(connection_, SHUT_RDWR);
    }
    thread_.join();
    const std::lock_guard guard(mutex_);
    close(listener_);
    listener_ = -1;
}

void corvaned_double::disconnect()
{
    std::unique_lock lock(mutex_);
    greeted_ = false;
    if (connection_ >= 0)
        shutdown(connection_, SHUT_RDWR);
}

void corvaned_double::run()
{
    for (;;) {
        const int fd = accept(listener_, nullptr, nullptr);
        {
            const std::lock_guard guard(mutex_);
            if (fd < 0 || stopping_) {
                if (fd >= 0)
                    close(fd);
                return;
            }
            connection_ = fd;
        }
        serve(fd);
        const std::lock_guard guard(mutex_);
        close(fd);
        connection_ = -1;
        greeted_ = false;
    }
}

answer corvaned_double::answer_to(const request &r)
{
    std::unique_lock lock(mutex_);
    if (const auto found = answers_.find(r.method); found != answers_.end()) {
        const auto handler = found->second;
        lock.unlock();
        return handler(r.body);
    }
    if (r.method == corvane::BUS_BIND) {
        byte_reader in(r.body);
        (void)in.get<std::uint32_t>();
        const auto sap = in.get<std::uint32_t>();
        return {0, byte_writer().put(sap != 0 ? sap : next_sap_++).take()};
    }
    return {};
}

void corvaned_double::serve(int fd)
{
    std::vector<std::uint8_t> packet(corvane::FRAME_MAX);
    for (bool first = true;; first = false) {
        const ssize_t size = recv(fd, packet.data(), packet.size(), 0);
        if (size <= 0)
            return;
        corvane::frame_header header;
        std::memcpy(&header, packet.data(), sizeof header);
        request r{header.kind, header.number, {packet.begin() + sizeof header, packet.begin() + size}};
        const answer a = header.kind == corvane::FRAME_HELLO ? answer{} : answer_to(r);
        // Answer and record are one step: who was answered finds the record, and who finds the record was answered.
        const std::lock_guard guard(mutex_);
        if (header.kind != corvane::FRAME_ONEWAY && !a.silent) {
            const auto reply =
                byte_writer().put(corvane::frame_header{corvane::FRAME_REPLY, a.error, header.id}).raw(a.data).take();
            ::send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
        }
        connections_ += first ? 1u : 0u;
        ungreeted_ += first && header.kind != corvane::FRAME_HELLO ? 1u : 0u;
        greeted_ = greeted_ || header.kind == corvane::FRAME_HELLO;
        if (header.kind != corvane::FRAME_HELLO)
            requests_.push_back(std::move(r));
        changed_.notify_all();
    }
}

void corvaned_double::answer_with(std::uint32_t method, std::function<answer(byte_view)> handler)
{
    const std::lock_guard guard(mutex_);
    answers_[method] = std::move(handler);
}

void corvaned_double::forget()
{
    const std::lock_guard guard(mutex_);
    answers_.clear();
    requests_.clear();
    requests_.reserve(10'000);               // so that await() hands out what stays where it is
}

const request *corvaned_double::await(std::uint32_t method, std::size_t n)
{
    std::unique_lock lock(mutex_);
    const request *found = nullptr;
    changed_.wait_for(lock, PATIENCE, [&] {
        std::size_t seen = 0;
        for (const request &r : requests_)
            if (r.method == method && ++seen == n)
                found = &r;
        return found != nullptr;
    });
    return found;
}

std::vector<request> corvaned_double::all()
{
    const std::lock_guard guard(mutex_);
    return requests_;
}

std::size_t corvaned_double::count(std::uint32_t method)
{
    const std::lock_guard guard(mutex_);
    std::size_t seen = 0;
    for (const request &r : requests_)
        seen += r.method == method ? 1u : 0u;
    return seen;
}

void corvaned_double::await_connection()
{
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, PATIENCE, [&] { return greeted_; });
}

std::size_t corvaned_double::connections()
{
    const std::lock_guard guard(mutex_);
    return connections_;
}

std::size_t corvaned_double::ungreeted()
{
    const std::lock_guard guard(mutex_);
    return ungreeted_;
}

void corvaned_double::send(std::uint32_t kind, std::uint32_t number, byte_view body)
{
    const auto packet = byte_writer().put(corvane::frame_header{kind, number, 0}).raw(body).take();
    const std::lock_guard guard(mutex_);
    ::send(connection_, packet.data(), packet.size(), MSG_NOSIGNAL);
}

void corvaned_double::deliver(std::uint32_t queue, std::uint32_t opcode, byte_view payload, std::uint32_t source_sap,
                              std::uint32_t sync_event)
{
    corvane::delivery_header header;
    header.opcode = opcode;
    header.source_sap = source_sap;
    header.sync_event = sync_event;
    send(corvane::FRAME_DELIVER, queue, byte_writer().put(header).raw(payload).view());
}

} // namespace corvane_test
