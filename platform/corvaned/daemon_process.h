// One process that corvaned starts: how it is started, what it prints, and how a later corvaned knows it again.
#pragma once

#include "corvaned.h"

#include "../wire/svcmgr.h"

namespace corvaned {

inline constexpr std::chrono::milliseconds BACKOFF_FIRST{100};

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
    std::chrono::steady_clock::time_point started;
    std::chrono::milliseconds backoff = BACKOFF_FIRST;
    timer_id timer = 0;
    bool greeted = false;
    bool watched = false;                    // it has begun to send heartbeats
    std::chrono::steady_clock::time_point last_beat;
    std::function<void()> gone;              // instead of starting it again
};


[[nodiscard]] std::string label(const daemon_process &d);
[[nodiscard]] std::string how_it_ended(const daemon_process &d);

// Starts the program of the options. 0 or an errno value; `d.pid` and `d.output` are set.
[[nodiscard]] int spawn(daemon_process &d);
void watch_output(daemon_process &d);                // each line it prints goes to the log
void finish_output(daemon_process &d);               // what is left of it, once the process has ended
[[nodiscard]] int open_pidfd(pid_t pid);
void send_signal(const daemon_process &d, int signal);

// A process over a restart of corvaned: its number and when it began, as numbers are used again.
void remember(const daemon_process &d);
void forget_process(const daemon_process &d);
[[nodiscard]] pid_t remembered(const daemon_process &d);     // 0: none, or it has ended

} // namespace corvaned
