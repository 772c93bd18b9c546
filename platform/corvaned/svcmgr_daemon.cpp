// The daemons corvaned starts: one active, and one standing by when asked for. Each is watched (its end, its
// heartbeat), started again when it dies, taken over when corvaned itself was started again, and stopped in order.
#include "svcmgr.h"

#include "cmdsrv.h"
#include "daemon_process.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/epoll.h>
#include <unistd.h>
#include <utility>

namespace corvaned {
namespace {

using clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds BACKOFF_MAX{5000}, SETTLED{30'000}, STOP_DEFAULT{5000}, STOP_LEAST{100},
    KILL_PATIENCE{2000}, ADOPT_PATIENCE{5000}, HEARTBEAT_DEFAULT{5000}, HEARTBEAT_LEAST{2500}, HEARTBEAT_INTERVAL{1000};

constexpr const char *CLIENT_NAME = "lum";          // under which it registers with the command server

struct daemons {
    std::array<daemon_process, 2> list;
    milliseconds heartbeat_limit = HEARTBEAT_DEFAULT, stop_limit = STOP_DEFAULT;
    timer_id heartbeat_check = 0;
    clock::time_point last_check = clock::now();
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

// ---- the end of a daemon

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
    finish_output(d);
    cancel(d.timer);
    d.timer = 0;
    forget_process(d);
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

void start(daemon_process &d)
{
    if (!d.standby)
        ++the().sequence;
    d.sequence = the().sequence;
    const int error = spawn(d);
    if (error != 0 || !watch_process(d)) {
        log_line(2, "cannot start " + opts().lum + ": " + std::strerror(error != 0 ? error : errno));
        finish_output(d);
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
        d.timer = after(the().stop_limit, [&d] { insist(d); });
        return;
    }
    send_signal(d, SIGTERM);                 // it has not come so far as to be told
    d.timer = after(KILL_PATIENCE, [&d] { kill_at_last(d); });
}

// ---- heartbeat

// Where this process itself was held up (stopped, its machine paused), heartbeats wait unread: what a daemon has left of
// its time is then counted from now.
void forgive_own_delay()
{
    const auto now = clock::now();
    const auto interval = the().heartbeat_limit / 5;
    const auto late = std::exchange(the().last_check, now) + interval;
    if (now - late < interval)
        return;
    for (daemon_process &d : the().list) {
        d.last_beat = now;
        d.started += now - late;
    }
}

void check_heartbeats()
{
    forgive_own_delay();
    for (daemon_process &d : the().list) {
        if (d.state == life::RUNNING && !d.greeted && !d.adopted && clock::now() - d.started > 2 * the().heartbeat_limit) {
            log_line(3, label(d) + " does not get ready: it is killed");
            d.started = clock::now();
            send_signal(d, SIGKILL);
        }
        if (d.state != life::RUNNING || !d.watched || clock::now() - d.last_beat <= the().heartbeat_limit)
            continue;
        log_line(3, label(d) + " sends no heartbeats: it is killed");
        d.watched = false;
        send_signal(d, SIGKILL);
    }
    the().heartbeat_check = after(the().heartbeat_limit / 5, check_heartbeats);
}

milliseconds limit_from_environment(const char *variable, milliseconds fallback, milliseconds least)
{
    const char *text = getenv(variable);
    const long given = text == nullptr ? 0 : std::strtol(text, nullptr, 10);
    return given <= 0 ? fallback : std::max(milliseconds(given), least);
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
    std::swap(dead.file, next->file);        // which file it is in says which role it has
    remember(*next);
    start_later(dead);
}

// ---- taking over the processes of an earlier corvaned

bool adopt(daemon_process &d)
{
    d.pid = remembered(d);
    if (d.pid == 0)
        return false;
    d.adopted = true;
    if (!watch_process(d)) {
        d.pid = 0;
        d.adopted = false;
        return false;
    }
    log_line(5, label(d) + " was running already and is kept");
    if (!d.standby)
        clients_set_active(CLIENT_NAME, d.pid);
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
    the().heartbeat_limit = limit_from_environment("CORVANE_HEARTBEAT_TIMEOUT_MS", HEARTBEAT_DEFAULT, HEARTBEAT_LEAST);
    the().stop_limit = limit_from_environment("CORVANE_STOP_TIMEOUT_MS", STOP_DEFAULT, STOP_LEAST);
    the().stopping = false;
    for (daemon_process &d : the().list) {
        d = {};
        d.standby = &d != &the().list[0];
        d.file = d.standby ? "lum-standby.pid" : "lum.pid";
        d.wanted = !d.standby || opts().standby;
        d.start_reason = d.standby ? corvane::START_REASON_STANDBY : corvane::START_REASON_COLD;
    }
    for (daemon_process &d : the().list)
        if (!adopt(d) && d.wanted)
            start(d);
    cancel(the().heartbeat_check);
    the().heartbeat_check = after(the().heartbeat_limit / 5, check_heartbeats);
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
    d->timer = after(the().stop_limit, [d] { insist(*d); });
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
    if (d != nullptr && d->state == life::STOPPING)
        return "lum is stopping already";
    if (d == nullptr || d->state != life::RUNNING)
        return "lum is not running";
    d->gone = [d] { take_over(*d, true); };
    stop_daemon(*d, corvane::STOP_REASON_SWITCHOVER);
    return {};
}

} // namespace corvaned
