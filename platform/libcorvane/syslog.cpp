// Log client: lines go to corvaned without waiting for it; what does not fit is counted and reported. Without a
// connection they go to stderr.
#include "syslog_client.h"

#include "evhist.h"
#include "runtime/connection.h"

#include "../wire/log.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <poll.h>
#include <unistd.h>
#include <unordered_map>

syslog_vmsg_params_block syslog_vmsg_params;
const std::array<std::uint8_t, 40> syslog_preamble{};

namespace {

using namespace corvane;

constexpr std::uint32_t RATE_INTERVAL_S = 10;
constexpr int TRACE_LEVEL = 2, SEVERITY_DEBUG = 7;
constexpr const char *FACILITY_EARLY = "LUM";      // before there is a facility the only process that logs is lum

std::atomic<std::uint64_t> lines_lost{0};

// A reader of stderr that does not read must not hold up the process.
void to_stderr(const char *text)
{
    pollfd out{STDERR_FILENO, POLLOUT, 0};
    if (poll(&out, 1, 0) != 1 || (out.revents & POLLOUT) == 0) {
        lines_lost.fetch_add(1);
        return;
    }
    std::string line(text);
    while (!line.empty() && line.back() == '\n')
        line.pop_back();
    line += '\n';
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
}

bool to_corvaned(int severity, const char *text)
{
    const std::string_view line(text);
    const auto request = byte_writer()
                             .put(static_cast<std::uint32_t>(severity))
                             .text(program_invocation_short_name)
                             .text(line.substr(0, LOG_LINE_MAX))
                             .take();
    const int error = send_oneway_now(LOG_LINE, request, false);
    if (error == EAGAIN)
        lines_lost.fetch_add(1);
    return error == 0 || error == EAGAIN;
}

void report_lost()
{
    const std::uint64_t lost = lines_lost.exchange(0);
    if (lost == 0)
        return;
    char text[64];
    std::snprintf(text, sizeof text, "%llu lines of the log were lost", static_cast<unsigned long long>(lost));
    to_corvaned(4, text);
}

void emit(int severity, const char *text)
{
    if (lines_lost.load(std::memory_order_relaxed) != 0)
        report_lost();
    if (!to_corvaned(severity, text))
        to_stderr(text);
}

void emit_formatted(int severity, const char *prefix, const char *format, va_list values)
{
    char fixed[1024];
    const int used = std::snprintf(fixed, sizeof fixed, "%s", prefix);
    const auto room = sizeof fixed - static_cast<std::size_t>(used);
    va_list again;
    va_copy(again, values);
    const int length = std::vsnprintf(fixed + used, room, format, values);
    if (length >= 0 && static_cast<std::size_t>(length) < room) {
        emit(severity, fixed);
    } else if (length > 0) {
        std::string text(static_cast<std::size_t>(length) + 1, '\0');
        std::vsnprintf(text.data(), text.size(), format, again);
        text.pop_back();
        emit(severity, (prefix + text).c_str());
    }
    va_end(again);
}

// ---- rate limit: so many messages a record and interval, then one line that says how many were held back

struct record_rate {
    std::time_t interval_start = 0;
    std::uint32_t passed = 0, suppressed = 0;
};

struct rate_limits {
    std::mutex mutex;
    std::unordered_map<const syslog_msg_full *, record_rate> records;
};

rate_limits &limits()
{
    static auto *l = new rate_limits;
    return *l;
}

std::time_t monotonic_s()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

struct rate_verdict {
    bool passes = false;
    std::uint32_t suppressed = 0;            // in the interval that has just ended
};

rate_verdict judge(const syslog_msg_full &record)
{
    const std::lock_guard guard(limits().mutex);
    record_rate &rate = limits().records[&record];
    rate_verdict verdict;
    const std::time_t now = monotonic_s();
    if (rate.passed == 0 || now - rate.interval_start >= static_cast<std::time_t>(RATE_INTERVAL_S)) {
        verdict.suppressed = rate.suppressed;
        rate = {now, 0, 0};
    }
    verdict.passes = rate.passed < record.ten;
    ++(verdict.passes ? rate.passed : rate.suppressed);
    return verdict;
}

void report_suppressed(const syslog_msg_full &record, std::uint32_t count)
{
    char text[160];
    std::snprintf(text, sizeof text, "<<%%%s-%u-%s>> %u messages suppressed",
                  record.facility != nullptr ? record.facility->name : FACILITY_EARLY, record.severity & 0xFF, record.tag,
                  count);
    emit(static_cast<int>(record.severity & 0xFF), text);
}

} // namespace

int syslog_msg_rate_limit(const syslog_msg_full *record, ...)
{
    const rate_verdict verdict = judge(*record);
    if (verdict.suppressed != 0)
        report_suppressed(*record, verdict.suppressed);
    if (!verdict.passes)
        return 0;
    if (evhist_sys_facility != nullptr)
        return 1;
    char prefix[96];
    std::snprintf(prefix, sizeof prefix, "<<%%%s-%u-%s>> ",
                  record->facility != nullptr ? record->facility->name : FACILITY_EARLY, record->severity & 0xFF,
                  record->tag);
    va_list values;
    va_start(values, record);
    emit_formatted(static_cast<int>(record->severity & 0xFF), prefix, record->format, values);
    va_end(values);
    return 0;
}

void vemo_krel_syslog(const syslog_vmsg_params_block &, std::uint32_t severity, const char *prefixed_format, ...)
{
    va_list values;
    va_start(values, prefixed_format);
    emit_formatted(static_cast<int>(severity), "", prefixed_format, values);
    va_end(values);
}

void syslog_traceback(const syslog_vmsg_params_block &, const char *facility, std::uint32_t severity, const char *tag)
{
    char text[128];
    std::snprintf(text, sizeof text, "<<%%%s-%u-%s>> traceback requested, return address %p", facility, severity, tag,
                  __builtin_return_address(0));
    emit(static_cast<int>(severity), text);
}

// Level 2 is the level of traces, which is not syslog's severity 2: readers of the journal find them under debug.
void krel_syslog(int level, const char *format, ...)
{
    va_list values;
    va_start(values, format);
    emit_formatted(level == TRACE_LEVEL ? SEVERITY_DEBUG : level, "", format, values);
    va_end(values);
}
