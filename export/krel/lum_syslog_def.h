// The messages as readers of the log meet them. A line begins "<<%LUM-<severity>-<tag>>> " and its text follows.
// Severities are those of syslog.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

inline constexpr char LUM_SYSLOG_FACILITY[] = "LUM";
inline constexpr std::uint32_t LUM_SYSLOG_ERROR = 3, LUM_SYSLOG_WARNING = 4, LUM_SYSLOG_INFO = 6;
inline constexpr int LUM_SYSLOG_TRACE_LEVEL = 2;                // of the lines that debugging writes

// tag, severity, format of the text
#define LUM_SHORT_MESSAGES(X) \
    X(USAGE, 6, "Usage: lum [-h] [-d] [-m <memory-in-mb>]") \
    X(MBUS_BIND, 3, "Error returned from mbus_bind() for %s mbus queue, errno: %s") \
    X(TIMER_FAILED, 3, "could not %s") \
    X(PTHREAD_FAILED, 3, "pthread_create() failed for lum_main()") \
    X(API_FAILED, 3, "%s failed") \
    X(INIT_FAIL, 3, "Initialization failure: %s") \
    X(SHUTDOWN, 6, "Shutting down LUM process%s") \
    X(NO_SET_PRIORITY, 3, "Failed to set policy or priority") \
    X(MALLOC_FAILED, 3, "%s failed for %s") \
    X(MBUS_RECV, 3, "Error returned from mbus_recv(), errno: %s") \
    X(MBUS_SEND, 3, "Error returned from mbus_send(), errno: %s") \
    X(SVCMGR_DISPATCH, 3, "Error returned from svcmgr_dispatch(), errno: %s") \
    X(MBUS_DROP, 3, "Error returned from mbus_drop(), errno: %s") \
    X(MBUS_REG, 3, "Error returned from mbus register for opcode 0x%x, error: %s") \
    X(UNKNOWN_LUM_MINOR, 3, "lum_main(): unknown minor mtype: %d") \
    X(UNKNOWN_LUM_MAJOR, 3, "lum_main(): unknown major mtype: %d") \
    X(UNK_IP_NOTIF, 3, "Unrecognized IP address change notification type %lu") \
    X(SHUTDOWN_REQUEST_FAIL, 6, "LUM shutdown request failed, %s") \
    X(SUBCR_INIT, 3, "Could not initialize shared database client for interfaces rc=0x%x [%s]") \
    X(UNKNOWN_OPC, 3, "lum_pm_main(): unknown MBUS OPC type: %d") \
    X(SOCKET, 3, "socket() for %s failed: %s") \
    X(BIND, 3, "bind() on %s failed: %s") \
    X(SETSOCKOPT, 3, "setsockopt() on %s failed: %s") \
    X(PTHREAD_CREATE, 3, "Couldn't create thread %s") \
    X(ASSERT, 3, "%s:%d: Assertion `%s' failed.") \
    X(OVLY_ADD, 3, "Failed to add overlay entry") \
    X(OVLY_DEL, 3, "Failed to delete overlay %s: %s") \
    X(VLAN_OVLY_MISMATCH, 3, "VLAN %d doesn't match configured overlay %s") \
    X(STATE_MISMATCH, 4, "state mismatch - %s - in %s()")
// Raised by a library on behalf of the process: its line names the tag LUM_SDB_READ.
#define LUM_LIBRARY_MESSAGES(X) X(SDB_READ, 3, "Error reading %s database")
#define LUM_MESSAGES(X) LUM_SHORT_MESSAGES(X) LUM_LIBRARY_MESSAGES(X)

struct lum_syslog_message {
    std::string_view tag;
    std::uint32_t severity;
    std::string_view format;
};
inline constexpr auto lum_syslog_messages = std::to_array<lum_syslog_message>({
#define LUM_SYSLOG_ROW(tag, severity, format) {#tag, severity, format},
    LUM_MESSAGES(LUM_SYSLOG_ROW)
#undef LUM_SYSLOG_ROW
});
