// Parts of the service manager; services use corvaned.h.
//   svcmgr.cpp         services and their state, clients: handshake, queries, notifications, commands
//   svcmgr_daemon.cpp  the processes that corvaned starts, watches and stops
#pragma once

#include "corvaned.h"

#include "../wire/svcmgr.h"

#include <optional>

namespace corvaned {

// ---- svcmgr.cpp

// Sends a message of the service manager to the process; false when it has not done its handshake.
bool svcmgr_tell(pid_t pid, std::uint32_t source_sap, std::uint32_t opcode, byte_view payload);
// The standing-by process is the active one now: its queues get their SAPs, its service is up.
void promote_client(pid_t pid);
void svcmgr_tell_all(std::uint32_t source_sap, std::uint32_t opcode, byte_view payload);
void svcmgr_serve();                                 // methods and commands, before anything is configured
void svcmgr_stop(std::function<void()> done);        // stops every daemon in order; `done` once they are gone

// ---- svcmgr_daemon.cpp

void daemons_start();
void daemons_stop(std::function<void()> done);
void daemon_handshake_done(pid_t pid);
void daemon_beat(pid_t pid, bool first);
void daemon_switchover_answered(pid_t pid, bool recovered);   // false: the callback, true: the recovery is done
[[nodiscard]] bool daemon_is_standby(pid_t pid);
[[nodiscard]] std::uint32_t daemon_start_reason(pid_t pid);
[[nodiscard]] std::chrono::milliseconds daemon_heartbeat_interval();
// The process asked to be stopped itself: it is not started again until somebody wants it.
bool daemon_cleanup_requested(pid_t pid);
// Empty when it is under way, else why it cannot be.
[[nodiscard]] std::string daemon_restart();
[[nodiscard]] std::string daemon_switchover();
bool daemon_wanted();                                // starts an active daemon that had ended on request

} // namespace corvaned
