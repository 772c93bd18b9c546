// The two routines through which the daemon speaks: catalogued messages (listed in lum_syslog_def.h, where readers of
// the log find them too) and traces.
#pragma once

#include "evhist.h"
#include "lum_syslog_def.h"
#include "syslog_client.h"
#include "thread_annotations.h"

#include <cstdint>

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
