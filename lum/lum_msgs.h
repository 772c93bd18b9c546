// The syslog catalogue, and the two routines through which the daemon speaks: catalogued messages and traces.
#pragma once

#include "evhist.h"
#include "syslog_client.h"
#include "thread_annotations.h"

#include <cstdint>

// tag, severity, format.
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
// Raised by a library on behalf of the process: a library record in place of a short one (lum_msgs.cpp).
#define LUM_LIBRARY_MESSAGES(X) X(SDB_READ, 3, "Error reading %s database")
#define LUM_MESSAGES(X) LUM_SHORT_MESSAGES(X) LUM_LIBRARY_MESSAGES(X)

#define LUM_DECLARE_MESSAGE(tag, severity, format) extern const syslog_msg_full msg_error_LUM_##tag;
LUM_MESSAGES(LUM_DECLARE_MESSAGE)
#undef LUM_DECLARE_MESSAGE

// Raises a catalogued message; the values are those of its format, which the compiler checks:
//     LUM_LOG(API_FAILED, "cmdopt_dispatch()");
CORVANE_PRINTF(1, 2) constexpr void lum_check_format(const char *, ...) {}
#define LUM_FORMAT_OF(tag, severity, format) inline constexpr char lum_format_##tag[] = format;
LUM_MESSAGES(LUM_FORMAT_OF)
#undef LUM_FORMAT_OF
#define LUM_LOG(tag, ...) \
    do { \
        if (false) \
            lum_check_format(lum_format_##tag __VA_OPT__(, ) __VA_ARGS__); \
        lum_log(msg_error_LUM_##tag __VA_OPT__(, ) __VA_ARGS__); \
    } while (false)

// The parts of an emission that do not depend on the values (lum_msgs.cpp).
bool lum_log_level_passes(const syslog_msg_full &record);
const char *lum_log_prepare();                              // fills the parameter block; the facility in upper case
void lum_log_traceback(const syslog_msg_full &record, const char *facility);

template <class... Values> void lum_log(const syslog_msg_full &record, Values... values)
{
    if (evhist_sys_facility == nullptr) {                   // early in start-up the log library prints by itself
        syslog_msg_rate_limit(&record, values...);
        return;
    }
    if (!lum_log_level_passes(record) || syslog_msg_rate_limit(&record, values...) != 1)
        return;
    const char *facility = lum_log_prepare();
    const char *format = record.brief != nullptr ? record.brief->prefixed_format : record.library->prefixed_format;
    vemo_krel_syslog(syslog_vmsg_params, record.severity & 0xFF, format, facility, record.severity & 0xFF, values...);
    lum_log_traceback(record, facility);
}

// Trace sites: the number of a flag is that of its site and of its debug element.
inline constexpr std::uint32_t LUM_SITE_PACKET = 117, LUM_SITE_LEARN = 118, LUM_SITE_INTERNAL = 119,
                               LUM_SITE_EVENT = 120, LUM_SITE_ARP_ND = 121;
inline constexpr std::uint32_t LUM_EVHIST_COMPONENT = 0x730000;

// Writes a trace to its three sinks when the flag is set. The macros test the flag first, so that a clear flag costs
// one load and evaluates nothing.
void lum_trace(std::uint32_t flag, std::uint32_t site, const char *format, ...) CORVANE_PRINTF(3, 4);
#define LUM_TRACE_AT(flag, site, ...) \
    do { \
        if (__builtin_expect((flag) != 0, 0)) \
            lum_trace(flag, site, __VA_ARGS__); \
    } while (false)
#define LUM_TRACE_PACKET(...) LUM_TRACE_AT(lum_packet_debug_flag, LUM_SITE_PACKET, __VA_ARGS__)
#define LUM_TRACE_LEARN(...) LUM_TRACE_AT(lum_learn_debug_flag, LUM_SITE_LEARN, __VA_ARGS__)
#define LUM_TRACE_INTERNAL(...) LUM_TRACE_AT(lum_internal_debug_flag, LUM_SITE_INTERNAL, __VA_ARGS__)
#define LUM_TRACE_EVENT(...) LUM_TRACE_AT(lum_event_debug_flag, LUM_SITE_EVENT, __VA_ARGS__)
#define LUM_TRACE_ARP_ND(...) LUM_TRACE_AT(lum_arp_nd_debug_flag, LUM_SITE_ARP_ND, __VA_ARGS__)
