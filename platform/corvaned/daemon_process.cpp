// One process that corvaned starts.
#include "daemon_process.h"

#include "log.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <spawn.h>
#include <sstream>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

extern char **environ;

namespace corvaned {
namespace {

std::string begin_of(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), {});
    const std::size_t behind_name = text.rfind(')');
    if (behind_name == std::string::npos)
        return {};
    std::istringstream fields(text.substr(behind_name + 1));
    std::string field;
    for (int i = 3; i <= 22 && fields >> field; ++i)
        if (i == 3 && field == "Z")
            return {};
    return fields ? field : std::string{};
}

std::string memory_path(const daemon_process &d)
{
    return opts().root + "/" + d.file;
}

void take_output(daemon_process &d, std::string_view text)
{
    d.partial += text;
    std::size_t at = 0;
    for (std::size_t end = d.partial.find('\n'); end != std::string::npos; end = d.partial.find('\n', at)) {
        log_of(d.pid, "lum", 6, d.partial.substr(at, end - at));
        at = end + 1;
    }
    d.partial.erase(0, at);
    if (d.partial.size() > 4096)
        log_of(d.pid, "lum", 6, std::exchange(d.partial, {}));
}

void close_output(daemon_process &d)
{
    if (d.output < 0)
        return;
    unwatch(d.output);
    close(d.output);
    d.output = -1;
    if (!d.partial.empty())
        log_of(d.pid, "lum", 6, std::exchange(d.partial, {}));
}

bool read_output(daemon_process &d)
{
    std::array<char, 4096> text{};
    const ssize_t size = read(d.output, text.data(), text.size());
    if (size > 0)
        take_output(d, {text.data(), static_cast<std::size_t>(size)});
    return size > 0;
}

struct spawn_setup {
    posix_spawn_file_actions_t files;
    posix_spawnattr_t attributes;

    // A process group of its own keeps the terminal's signals to corvaned, which stops it in order.
    explicit spawn_setup(int output)
    {
        posix_spawn_file_actions_init(&files);
        posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&files, output, STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&files, output, STDERR_FILENO);
        posix_spawnattr_init(&attributes);
        sigset_t none;
        sigemptyset(&none);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setpgroup(&attributes, 0);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
    }
    ~spawn_setup()
    {
        posix_spawn_file_actions_destroy(&files);
        posix_spawnattr_destroy(&attributes);
    }
    spawn_setup(const spawn_setup &) = delete;
    spawn_setup &operator=(const spawn_setup &) = delete;
};

std::vector<std::string> environment_of_daemon()
{
    std::vector<std::string> list;
    for (char **entry = environ; *entry != nullptr; ++entry) {
        const std::string_view text = *entry;
        // What systemd tells corvaned is not for its daemons.
        if (!text.starts_with("CORVANE_ROOT=") && !text.starts_with("NOTIFY_SOCKET=") &&
            !text.starts_with("WATCHDOG_") && !text.starts_with("JOURNAL_STREAM="))
            list.emplace_back(text);
    }
    list.push_back("CORVANE_ROOT=" + opts().root);
    return list;
}

} // namespace

std::string label(const daemon_process &d)
{
    return std::string(d.standby ? "standing-by lum" : "lum") + " (process " + std::to_string(d.pid) + ")";
}

std::string how_it_ended(const daemon_process &d)
{
    siginfo_t info{};
    if (d.adopted || waitid(P_PID, static_cast<id_t>(d.pid), &info, WEXITED | WNOHANG) != 0)
        return "ended";
    if (info.si_code == CLD_EXITED)
        return "ended with status " + std::to_string(info.si_status);
    return std::string("was ended by a signal (") + strsignal(info.si_status) + ")";
}

int spawn(daemon_process &d)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return errno;
    std::vector<std::string> environment = environment_of_daemon();
    std::vector<char *> entries;
    for (std::string &entry : environment)
        entries.push_back(entry.data());
    entries.push_back(nullptr);
    std::string path = opts().lum;
    char *arguments[] = {path.data(), nullptr};
    const spawn_setup setup(ends[1]);
    const int error = posix_spawn(&d.pid, path.c_str(), &setup.files, &setup.attributes, arguments, entries.data());
    close(ends[1]);
    d.output = ends[0];
    return error;
}

void watch_output(daemon_process &d)
{
    fcntl(d.output, F_SETFL, O_NONBLOCK);
    watch(d.output, EPOLLIN, [&d](std::uint32_t events) {
        if (!read_output(d) && (events & (EPOLLHUP | EPOLLERR)) != 0)
            close_output(d);
    });
}

void finish_output(daemon_process &d)
{
    if (d.output >= 0)
        while (read_output(d)) {
        }
    close_output(d);
}

int open_pidfd(pid_t pid)
{
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

void send_signal(const daemon_process &d, int signal)
{
    if (d.pidfd >= 0)
        syscall(SYS_pidfd_send_signal, d.pidfd, signal, nullptr, 0);
}

void remember(const daemon_process &d)
{
    std::ofstream(memory_path(d), std::ios::trunc) << d.pid << " " << begin_of(d.pid) << "\n";
}

void forget_process(const daemon_process &d)
{
    unlink(memory_path(d).c_str());
}

pid_t remembered(const daemon_process &d)
{
    std::ifstream in(memory_path(d));
    std::string begin;
    pid_t pid = 0;
    return in >> pid >> begin && pid > 1 && !begin.empty() && begin_of(pid) == begin ? pid : 0;
}

} // namespace corvaned
