// Small clients that corvaned starts beside the daemon. They are ordinary processes on the bus and end with corvaned;
// one that ends by itself is started again, ever more slowly.
#include "attendants.h"

#include "bus.h"
#include "corvaned.h"

#include "../wire/attendants.h"
#include "../wire/bus.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace corvaned {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds BACKOFF_FIRST{100}, BACKOFF_MAX{10'000}, SETTLED{30'000};

struct attendant {
    const char *program;
    std::uint32_t service;
    std::string path{};
    pid_t pid = 0;
    int pidfd = -1;
    milliseconds backoff = BACKOFF_FIRST;
    std::chrono::steady_clock::time_point started{};
};

std::array<attendant, 1> &attendants()
{
    static std::array<attendant, 1> all{{{"corvack", corvane::SVC_LUM_ACK}}};
    return all;
}

std::string beside_corvaned(const char *program)
{
    std::array<char, PATH_MAX> path{};
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size() - 1);
    if (length <= 0)
        return {};
    const std::string self(path.data(), static_cast<std::size_t>(length));
    return self.substr(0, self.rfind('/') + 1) + program;
}

void start(attendant &a);

void start_later(attendant &a)
{
    if (std::chrono::steady_clock::now() - a.started > SETTLED)
        a.backoff = BACKOFF_FIRST;
    after(a.backoff, [&a] { start(a); });
    a.backoff = std::min(a.backoff * 2, BACKOFF_MAX);
}

void ended(attendant &a)
{
    siginfo_t info{};
    waitid(P_PID, static_cast<id_t>(a.pid), &info, WEXITED | WNOHANG);
    unwatch(a.pidfd);
    close(a.pidfd);
    a.pidfd = -1;
    log_line(4, std::string(a.program) + " (process " + std::to_string(a.pid) + ") ended and is started again");
    a.pid = 0;
    service_set_up(a.service, false);
    start_later(a);
}

int spawn(attendant &a)
{
    std::vector<char *> entries;
    std::string root = "CORVANE_ROOT=" + opts().root;
    for (char **entry = environ; *entry != nullptr; ++entry)
        if (std::strncmp(*entry, "CORVANE_ROOT=", 13) != 0)
            entries.push_back(*entry);
    entries.push_back(root.data());
    entries.push_back(nullptr);

    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
    char *arguments[] = {a.path.data(), nullptr};
    const int error = posix_spawn(&a.pid, a.path.c_str(), nullptr, &attributes, arguments, entries.data());
    posix_spawnattr_destroy(&attributes);
    return error;
}

void start(attendant &a)
{
    a.started = std::chrono::steady_clock::now();
    const int error = spawn(a);
    if (error != 0) {
        log_line(3, std::string("cannot start ") + a.path + ": " + std::strerror(error));
        start_later(a);
        return;
    }
    a.pidfd = static_cast<int>(syscall(SYS_pidfd_open, a.pid, 0));
    fcntl(a.pidfd, F_SETFD, FD_CLOEXEC);
    watch(a.pidfd, EPOLLIN, [&a](std::uint32_t) { ended(a); });
}

answer count_subscribers(const peer &, byte_view request)
{
    byte_reader in(request);
    const auto opcode = in.get<std::uint32_t>();
    if (!in.done())
        return {EINVAL, {}};
    return {0, byte_writer().put(static_cast<std::uint32_t>(bus_subscribers(opcode))).take()};
}

} // namespace

void attendants_start()
{
    serve_method(corvane::BUS_SUBSCRIBERS, count_subscribers);
    for (attendant &a : attendants()) {
        a.path = beside_corvaned(a.program);
        if (access(a.path.c_str(), X_OK) != 0) {
            log_line(4, std::string(a.program) + " is not installed beside corvaned: deletions wait for other clients");
            continue;
        }
        service_hosted(a.service, a.program);
        service_set_up(a.service, false);
        start(a);
    }
}

} // namespace corvaned
