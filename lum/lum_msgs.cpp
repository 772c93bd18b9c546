// The syslog catalogue's records, the emission of a catalogued message, and traces. Any thread, under the process lock
// (the parameter block and the facility's upper-case name are shared); early start-up has one thread only.
#include "lum_msgs.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

constexpr std::uint32_t MESSAGES_PER_INTERVAL = 10;          // in every record; the log library's rate limit

// Offsets in the parameter block of a formatted message, counted in 32-bit words.
constexpr std::size_t PARAM_FIRST = 0, PARAM_FIFTH = 4, PARAM_SIXTH = 5, PARAM_PREAMBLE = 6, PARAM_SEVENTEENTH = 16,
                      PARAM_SEPARATOR = 18;
static_assert(PARAM_PREAMBLE * 4 + sizeof syslog_preamble == PARAM_SEVENTEENTH * 4);

void put_param(std::size_t word, std::uint32_t value)
{
    std::memcpy(&syslog_vmsg_params.bytes[4 * word], &value, sizeof value);
}

std::array<char, 64> facility_upper;

} // namespace

static const syslog_facility_record lum_syslog_facility{"LUM", 0};

#define LUM_SHORT_RECORD(tag, severity, format) \
    extern const syslog_msg_short syslog_msg_##tag; \
    const syslog_msg_short syslog_msg_##tag{#tag, 0, "<<%%%s-%d-" #tag ">> " format, severity}; \
    const syslog_msg_full msg_error_LUM_##tag{&lum_syslog_facility, #tag,  format,   0, MESSAGES_PER_INTERVAL, \
                                              {0, 0, 0},            severity, &syslog_msg_##tag, nullptr};
LUM_SHORT_MESSAGES(LUM_SHORT_RECORD)
#undef LUM_SHORT_RECORD

#define LUM_LIBRARY_RECORD(tag, severity, format) \
    extern const syslog_msg_library syslog_msg_lib_##tag; \
    const syslog_msg_library syslog_msg_lib_##tag{#tag, "LUM", "<<%%%s-%d-LUM_" #tag ">> " format, \
                                                  "<<%%%s-%d-LUM_" #tag ">> (pid=%d) " format, severity}; \
    const syslog_msg_full msg_error_LUM_##tag{&lum_syslog_facility, #tag,  format,   0, MESSAGES_PER_INTERVAL, \
                                              {0, 0, 0},            severity, nullptr, &syslog_msg_lib_##tag};
LUM_LIBRARY_MESSAGES(LUM_LIBRARY_RECORD)
#undef LUM_LIBRARY_RECORD

bool lum_log_level_passes(const syslog_msg_full &record)
{
    return evhist_sys_facility->level >= (record.severity & 0xFF);
}

const char *lum_log_prepare()
{
    syslog_vmsg_params.bytes.fill(0);
    put_param(PARAM_FIRST, 1);
    put_param(PARAM_FIFTH, 0);
    put_param(PARAM_SIXTH, 0);
    std::memcpy(&syslog_vmsg_params.bytes[4 * PARAM_PREAMBLE], syslog_preamble.data(), syslog_preamble.size());
    put_param(PARAM_SEVENTEENTH, 1);
    std::memcpy(&syslog_vmsg_params.bytes[4 * PARAM_SEPARATOR], "  ", 2);

    std::snprintf(facility_upper.data(), facility_upper.size(), "%s", evhist_sys_facility->name);
    std::transform(facility_upper.begin(), facility_upper.end(), facility_upper.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return facility_upper.data();
}

void lum_log_traceback(const syslog_msg_full &record, const char *facility)
{
    if ((record.severity & SYSLOG_TRACEBACK) != 0)
        syslog_traceback(syslog_vmsg_params, facility, record.severity & 0xFF, record.tag);
}

namespace {

constexpr std::size_t EVENT_TEXT_SIZE = 512;                 // of an event's text, with its terminator
constexpr int TRACE_LEVEL = 2;

void record_event(std::uint32_t site, const char *text)
{
    std::array<char, sizeof site + EVENT_TEXT_SIZE> event{};
    std::memcpy(event.data(), &site, sizeof site);
    const std::size_t length = std::min(std::strlen(text), EVENT_TEXT_SIZE - 1);
    std::memcpy(event.data() + sizeof site, text, length);
    evhist_hist_event(LUM_EVHIST_COMPONENT, static_cast<std::uint32_t>(sizeof site + length + 1), event.data());
}

void write_to_sinks(std::uint32_t site, const char *text)
{
    krel_syslog(TRACE_LEVEL, "%s", text);
    if (evhist_hist_event_subtype_check(LUM_EVHIST_COMPONENT, site) == 0)
        record_event(site, text);
    if (evhist_chk_int(site, 0, 0, 1) != 0)
        dbgprint(1, evhist_dbg_modname, 0, "%s", text);
}

} // namespace

void lum_trace(std::uint32_t flag, std::uint32_t site, const char *format, ...)
{
    if (flag == 0)
        return;
    std::array<char, 1024> text{};
    std::va_list values;
    va_start(values, format);
    const int length = std::vsnprintf(text.data(), text.size(), format, values);
    va_end(values);
    if (length < static_cast<int>(text.size())) {
        write_to_sinks(site, text.data());
        return;
    }
    // Only the event history cuts a text; the other two sinks print all of it.
    std::string whole(static_cast<std::size_t>(length) + 1, '\0');
    va_start(values, format);
    std::vsnprintf(whole.data(), whole.size(), format, values);
    va_end(values);
    write_to_sinks(site, whole.c_str());
}
