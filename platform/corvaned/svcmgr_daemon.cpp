// The daemons corvaned starts: one active, and one standing by when asked for. Each is watched (its end, its
// heartbeat), started again when it dies, taken over when corvaned itself was started again, and stopped in order.
#include "svcmgr.h"

#include "bus.h"
#include "cmdsrv.h"
#include "log.h"

#include "../api/svcmgr.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <spawn.h>
#include <sstream>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

extern char **environ;

namespace corvaned {
namespace {

using clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds BACKOFF_FIRST{100}, BACKOFF_MAX{5000}, SETTLED{30'000}, STOP_PATIENCE{5000}, KILL_PATIENCE{2000},
    ADOPT_PATIENCE{5000}, HEARTBEAT_DEFAULT{5000}, HEARTBEAT_LEAST{2500}, HEARTBEAT_INTERVAL{1000};

constexpr const char *CLIENT_NAME = "lum";          // under which it registers with the command server

enum class life : std::uint8_t { NONE, RUNNING, STOPPING, WAITING };       // WAITING: to be started again

struct daemon_process {
    const char *file = "";                   // under the root: remembers its process over a restart of corvaned
    bool standby = false;
    bool wanted = true;                      // started again when it ends
    bool adopted = false;
    life state = life::NONE;
    pid_t pid = 0;
    int pidfd = -1;
    int output = -1;
    std::string partial;                     // of a line of its output
    std::uint32_t start_reason = corvane::START_REASON_COLD;
    std::uint32_t sequence = 0;              // of the active daemon it stands by for
    clock::time_point started;
    milliseconds backoff = BACKOFF_FIRST;
    timer_id timer = 0;
    bool greeted = false;
    bool watched = false;                    // it has begun to send heartbeats
    clock::time_point last_beat;
    std::function<void()> gone;              // instead of starting it again
};

struct daemons {
    std::array<daemon_process, 2> list;
    milliseconds heartbeat_limit = HEARTBEAT_DEFAULT;
    std::uint32_t sequence = 0;              // counts starts of active daemons
    bool stopping = false;
};

daemons &the()
{
    static daemons all;
    return all;
}

void start(daemon_process &d);
void take_over(daemon_process &dead, bool hot);

daemon_process *find(pid_t pid)
{
    for (daemon_process &d : the().list)
        if (pid != 0 && d.pid == pid)
            return &d;
    return nullptr;
}

daemon_process *active()
{
    for (daemon_process &d : the().list)
        if (d.file[0] != '\0' && !d.standby)
            return &d;
    return nullptr;
}

daemon_process *standby_ready()
{
    for (daemon_process &d : the().list)
        if (d.standby && d.state == life::RUNNING && d.greeted)
            return &d;
    return nullptr;
}

std::string label(const daemon_process &d)
{
    return std::string(d.standby ? "standing-by lum" : "lum") + " (process " + std::to_string(d.pid) + ")";
}

// ---- remembering a process over a restart of corvaned: its number and when it began, as numbers are used again

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

void remember(const daemon_process &d)
{
    std::ofstream(memory_path(d), std::ios::trunc) << d.pid << " " << begin_of(d.pid) << "\n";
}

// ---- output of a daemon, line by line

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

void watch_output(daemon_process &d)
{
    fcntl(d.output, F_SETFL, O_NONBLOCK);
    watch(d.output, EPOLLIN, [&d](std::uint32_t events) {
        if (!read_output(d) && (events & (EPOLLHUP | EPOLLERR)) != 0)
            close_output(d);
    });
}

// ---- the end of a daemon

std::string how_it_ended(const daemon_process &d)
{
    siginfo_t info{};
    if (d.adopted || waitid(P_PID, static_cast<id_t>(d.pid), &info, WEXITED | WNOHANG) != 0)
        return "ended";
    if (info.si_code == CLD_EXITED)
        return "ended with status " + std::to_string(info.si_status);
    return std::string("was ended by a signal (") + strsignal(info.si_status) + ")";
}

void start_later(daemon_process &d)
{
    if (clock::now() - d.started > SETTLED)
        d.backoff = BACKOFF_FIRST;
    d.state = life::WAITING;
    d.start_reason = d.standby ? corvane::START_REASON_STANDBY : corvane::START_REASON_RESTART;
    d.timer = after(d.backoff, [&d] {
        d.timer = 0;
        start(d);
    });
    d.backoff = std::min(d.backoff * 2, BACKOFF_MAX);
}

void forget(daemon_process &d)
{
    unwatch(d.pidfd);
    close(d.pidfd);
    d.pidfd = -1;
    if (d.output >= 0)
        while (read_output(d)) {
        }
    close_output(d);
    cancel(d.timer);
    d.timer = 0;
    unlink(memory_path(d).c_str());
    d.pid = 0;
    d.state = life::NONE;
    d.greeted = d.watched = d.adopted = false;
}

void ended(daemon_process &d)
{
    const bool unexpected = d.state == life::RUNNING;
    log_line(unexpected ? 3 : 6, label(d) + " " + how_it_ended(d));
    forget(d);
    if (const auto gone = std::exchange(d.gone, nullptr); gone != nullptr) {
        gone();
        return;
    }
    if (the().stopping || !d.wanted)
        return;
    if (unexpected && !d.standby && standby_ready() != nullptr)
        take_over(d, false);
    else
        start_later(d);
}

int open_pidfd(pid_t pid)
{
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

bool watch_process(daemon_process &d)
{
    d.pidfd = open_pidfd(d.pid);
    if (d.pidfd < 0)
        return false;
    fcntl(d.pidfd, F_SETFD, FD_CLOEXEC);
    watch(d.pidfd, EPOLLIN, [&d](std::uint32_t) { ended(d); });
    d.started = d.last_beat = clock::now();
    d.state = life::RUNNING;
    return true;
}

// ---- starting

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

int spawn(daemon_process &d, int output)
{
    std::vector<std::string> environment = environment_of_daemon();
    std::vector<char *> entries;
    for (std::string &entry : environment)
        entries.push_back(entry.data());
    entries.push_back(nullptr);
    std::string path = opts().lum;
    char *arguments[] = {path.data(), nullptr};
    spawn_setup setup(output);
    return posix_spawn(&d.pid, path.c_str(), &setup.files, &setup.attributes, arguments, entries.data());
}

void start(daemon_process &d)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        start_later(d);
        return;
    }
    if (!d.standby)
        ++the().sequence;
    d.sequence = the().sequence;
    const int error = spawn(d, ends[1]);
    close(ends[1]);
    d.output = ends[0];
    if (error != 0 || !watch_process(d)) {
        log_line(2, "cannot start " + opts().lum + ": " + std::strerror(error != 0 ? error : errno));
        close(d.output);
        d.output = -1;
        d.pid = 0;
        d.started = clock::now();
        start_later(d);
        return;
    }
    watch_output(d);
    remember(d);
    if (!d.standby)
        clients_set_active(CLIENT_NAME, d.pid);
    log_line(6, label(d) + " started");
}

// ---- stopping

void send_signal(const daemon_process &d, int signal)
{
    if (d.pidfd >= 0)
        syscall(SYS_pidfd_send_signal, d.pidfd, signal, nullptr, 0);
}

void kill_at_last(daemon_process &d)
{
    log_line(4, label(d) + " did not stop: it is killed");
    send_signal(d, SIGKILL);
}

void insist(daemon_process &d)
{
    log_line(4, label(d) + " does not stop in order");
    send_signal(d, SIGTERM);
    d.timer = after(KILL_PATIENCE, [&d] { kill_at_last(d); });
}

void stop_daemon(daemon_process &d, std::uint32_t reason)
{
    if (d.state != life::RUNNING)
        return;
    d.state = life::STOPPING;
    static std::uint64_t request = 0;
    const auto payload = byte_writer().put(++request).put(reason).take();
    cancel(d.timer);
    if (svcmgr_tell(d.pid, corvane::SVCMGR_SAP, corvane::SVCMGR_OPC_CLEANUP_START, payload)) {
        d.timer = after(STOP_PATIENCE, [&d] { insist(d); });
        return;
    }
    send_signal(d, SIGTERM);                 // it has not come so far as to be told
    d.timer = after(KILL_PATIENCE, [&d] { kill_at_last(d); });
}

// ---- heartbeat

void check_heartbeats()
{
    for (daemon_process &d : the().list) {
        if (d.state != life::RUNNING || !d.watched || clock::now() - d.last_beat <= the().heartbeat_limit)
            continue;
        log_line(3, label(d) + " sends no heartbeats: it is killed");
        d.watched = false;
        send_signal(d, SIGKILL);
    }
    after(the().heartbeat_limit / 5, check_heartbeats);
}

milliseconds limit_from_environment()
{
    const char *text = getenv("CORVANE_HEARTBEAT_TIMEOUT_MS");
    const long given = text == nullptr ? 0 : std::strtol(text, nullptr, 10);
    return given <= 0 ? HEARTBEAT_DEFAULT : std::max(milliseconds(given), HEARTBEAT_LEAST);
}

// ---- roles

// The one that stood by becomes active; the other's place is filled by a new standing-by one.
void take_over(daemon_process &dead, bool hot)
{
    daemon_process *next = standby_ready();
    if (next == nullptr) {
        start_later(dead);
        return;
    }
    const bool mismatch = next->sequence != the().sequence;
    next->standby = false;
    next->start_reason = corvane::START_REASON_SWITCHOVER;
    next->sequence = ++the().sequence;
    log_line(5, label(*next) + " becomes active");
    promote_client(next->pid);
    clients_set_active(CLIENT_NAME, next->pid);
    svcmgr_tell(next->pid, corvane::SVCMGR_SAP, corvane::SVCMGR_OPC_SWITCHOVER,
                byte_writer().put(std::uint64_t{1}).put(std::uint32_t{hot}).put(0u).put(0u).put(std::uint32_t{mismatch}).view());
    dead.standby = true;
    start_later(dead);
}

// ---- taking over the processes of an earlier corvaned

bool adopt(daemon_process &d)
{
    std::ifstream in(memory_path(d));
    std::string begin;
    pid_t pid = 0;
    if (!(in >> pid >> begin) || pid <= 1 || begin.empty() || begin_of(pid) != begin)
        return false;
    d.pid = pid;
    d.adopted = true;
    if (!watch_process(d)) {
        d.pid = 0;
        d.adopted = false;
        return false;
    }
    log_line(5, label(d) + " was running already and is kept");
    if (!d.standby)
        clients_set_active(CLIENT_NAME, pid);
    d.timer = after(ADOPT_PATIENCE, [&d] {
        d.timer = 0;
        log_line(3, label(d) + " does not come back: it is killed");
        send_signal(d, SIGKILL);
    });
    return true;
}

} // namespace

void daemons_start()
{
    the().heartbeat_limit = limit_from_environment();
    the().list[0].file = "lum.pid";
    the().list[1].file = "lum-standby.pid";
    the().list[1].standby = true;
    the().list[1].start_reason = corvane::START_REASON_STANDBY;
    the().list[1].wanted = opts().standby;
    for (daemon_process &d : the().list)
        if (!adopt(d) && d.wanted)
            start(d);
    after(the().heartbeat_limit / 5, check_heartbeats);
}

void daemons_stop(std::function<void()> done)
{
    the().stopping = true;
    auto left = std::make_shared<int>(1);
    const auto one_gone = [left, done] {
        if (--*left == 0)
            done();
    };
    for (daemon_process &d : the().list) {
        d.wanted = false;
        if (d.state == life::WAITING) {
            cancel(d.timer);
            d.state = life::NONE;
        }
        if (d.state == life::NONE)
            continue;
        ++*left;
        d.gone = one_gone;
        stop_daemon(d, corvane::STOP_REASON_SHUTDOWN);
    }
    one_gone();
}

void daemon_handshake_done(pid_t pid)
{
    daemon_process *d = find(pid);
    if (d == nullptr)
        return;
    if (d->adopted && d->timer != 0 && d->state == life::RUNNING) {
        cancel(d->timer);
        d->timer = 0;
    }
    d->greeted = true;
    d->last_beat = clock::now();
}

void daemon_beat(pid_t pid, bool)
{
    if (daemon_process *d = find(pid); d != nullptr) {
        d->watched = true;
        d->last_beat = clock::now();
    }
}

void daemon_switchover_answered(pid_t pid, bool recovered)
{
    svcmgr_tell(pid, corvane::HAKIT_SAP, recovered ? corvane::HAKIT_OPC_SWITCHOVER_DONE : corvane::HAKIT_OPC_SWITCHOVER, {});
}

bool daemon_is_standby(pid_t pid)
{
    const daemon_process *d = find(pid);
    return d != nullptr && d->standby;
}

std::uint32_t daemon_start_reason(pid_t pid)
{
    const daemon_process *d = find(pid);
    return d != nullptr ? d->start_reason : corvane::START_REASON_COLD;
}

std::chrono::milliseconds daemon_heartbeat_interval()
{
    return HEARTBEAT_INTERVAL;
}

bool daemon_cleanup_requested(pid_t pid)
{
    daemon_process *d = find(pid);
    if (d == nullptr || d->state != life::RUNNING)
        return false;
    d->state = life::STOPPING;
    d->wanted = false;
    d->timer = after(STOP_PATIENCE, [d] { insist(*d); });
    return true;
}

bool daemon_wanted()
{
    daemon_process *d = active();
    if (d == nullptr || d->state != life::NONE || the().stopping)
        return false;
    d->wanted = true;
    d->start_reason = corvane::START_REASON_RESTART;
    start(*d);
    return true;
}

std::string daemon_restart()
{
    daemon_process *d = active();
    if (d == nullptr || the().stopping)
        return "The platform is stopping";
    if (daemon_wanted())
        return {};
    if (d->state == life::STOPPING)
        return "lum is stopping already";
    d->wanted = true;
    if (d->state == life::RUNNING) {
        d->backoff = BACKOFF_FIRST;
        d->gone = [d] {
            d->start_reason = corvane::START_REASON_RESTART;
            start(*d);
        };
        stop_daemon(*d, corvane::STOP_REASON_RESTART);
    }
    return {};
}

std::string daemon_switchover()
{
    daemon_process *d = active();
    if (standby_ready() == nullptr)
        return "There is no standing-by lum";
    if (d == nullptr || d->state != life::RUNNING)
        return "lum is not running";
    d->gone = [d] { take_over(*d, true); };
    stop_daemon(*d, corvane::STOP_REASON_SWITCHOVER);
    return {};
}

} // namespace corvaned
