// The platform process: one a machine (or a root). Runs in the foreground until SIGTERM or SIGINT, then stops the
// daemon in order.
#include "attendants.h"
#include "database.h"
#include "intfmgr.h"
#include "log.h"
#include "loop.h"
#include "options.h"
#include "peers.h"
#include "rpc.h"
#include "svcmgr.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

using namespace corvaned;

namespace {

constexpr int EXIT_USAGE = 2;

bool stopping = false;

void begin_stop(int signal)
{
    if (stopping)
        return;
    stopping = true;
    sd_notify(0, "STOPPING=1");
    log_line(5, std::string("stopping (") + strsignal(signal) + ")");
    svcmgr_stop([] { stop(); });
}

void signal_ready(int fd)
{
    signalfd_siginfo info{};
    while (read(fd, &info, sizeof info) == sizeof info) {
        if (info.ssi_signo == SIGHUP)
            log_reopen();
        else
            begin_stop(static_cast<int>(info.ssi_signo));
    }
}

bool watch_signals()
{
    sigset_t wanted;
    sigemptyset(&wanted);
    sigaddset(&wanted, SIGTERM);
    sigaddset(&wanted, SIGINT);
    sigaddset(&wanted, SIGHUP);
    sigprocmask(SIG_BLOCK, &wanted, nullptr);
    signal(SIGPIPE, SIG_IGN);
    const int fd = signalfd(-1, &wanted, SFD_CLOEXEC | SFD_NONBLOCK);
    if (fd < 0)
        return false;
    watch(fd, EPOLLIN, [fd](std::uint32_t) { signal_ready(fd); });
    return true;
}

// Half the time systemd allows between two signs of life.
void feed_watchdog(std::chrono::milliseconds period)
{
    sd_notify(0, "WATCHDOG=1");
    after(period, [period] { feed_watchdog(period); });
}

void report_ready()
{
    sd_notify(0, "READY=1");
    std::uint64_t limit_us = 0;
    if (sd_watchdog_enabled(0, &limit_us) > 0)
        feed_watchdog(std::chrono::milliseconds(limit_us / 2000));
}

int fail(const std::string &why)
{
    std::fprintf(stderr, "corvaned: %s\n", why.c_str());
    return 1;
}

void start_services()
{
    log_start();
    database_start();
    bus_start();
    drops_start();
    svcmgr_serve();
    sdb_start();
    intfmgr_start();
    vlanmgr_start();
    vrfmgr_start();
    ipmgr_start();
    rtab_start();
    peers_start();
    cmdsrv_start();
    intfmgr_started();
    attendants_start();
    svcmgr_start();
}

} // namespace

int main(int argc, char **argv)
{
    std::string error;
    if (!options_parse(argc, argv, error)) {
        std::fprintf(stderr, "corvaned: %s\n%s", error.c_str(), options_usage());
        return EXIT_USAGE;
    }
    if (!root_prepare(error))
        return fail(error);
    if (!log_open())
        return fail("cannot write the log " + opts().log + ": " + std::strerror(errno));
    if (!database_open(error))
        return fail(error);
    if (!watch_signals())
        return fail(std::string("signals: ") + std::strerror(errno));
    // Clients that connect already are answered by the loop, when every service is there.
    if (!rpc_listen())
        return fail("cannot listen on " + opts().root + "/" + corvane::BUS_SOCKET + ": " + std::strerror(errno));
    start_services();
    log_line(5, "running on " + opts().root);
    report_ready();
    loop_run();

    rpc_close();
    database_close();
    root_release();
    return 0;
}
