// Log and event history: lines are kept instead of printed.
#include "fake_state.h"

#include <cstdarg>
#include <cstring>
#include <mutex>

evhist_facility *evhist_sys_facility = nullptr;
const char *evhist_dbg_modname = "lum";
syslog_vmsg_params_block syslog_vmsg_params;
const std::array<std::uint8_t, 40> syslog_preamble{'c', 'o', 'r', 'v', 'a', 'n', 'e'};

namespace fake {

namespace {

// The tag stands in the rendered line: "<<%LUM-3-TAG>> ...".
std::string tag_of(const std::string &text)
{
    const std::size_t end = text.find(">>");
    const std::size_t first = text.find('-');
    const std::size_t second = first == std::string::npos ? first : text.find('-', first + 1);
    return end == std::string::npos || second == std::string::npos || second > end
               ? ""
               : text.substr(second + 1, end - second - 1);
}

struct emission {
    std::mutex lock;
    std::set<std::string> texts;
};

emission &emitted()
{
    static auto *the_texts = new emission;
    return *the_texts;
}

void note_emitted(const std::string &text)
{
    const std::lock_guard hold(emitted().lock);
    emitted().texts.insert(text);
}

} // namespace

std::set<std::string> emitted_texts()
{
    const std::lock_guard hold(emitted().lock);
    return emitted().texts;
}

void platform_object::set_facility(bool set)
{
    state_->facility.level = log_level;
    evhist_sys_facility = set ? &state_->facility : nullptr;
}

} // namespace fake

using namespace fake;

int syslog_msg_rate_limit(const syslog_msg_full *record, ...)
{
    if (evhist_sys_facility != nullptr)
        return platform.rate_limited.contains(record->tag) ? 0 : 1;
    va_list values;
    va_start(values, record);
    const std::uint32_t severity = record->severity & 0xFF;
    const std::string prefix =
        "<<%" + std::string(record->facility->name) + "-" + std::to_string(severity) + "-" + record->tag + ">> ";
    platform.syslog.push_back({severity, record->tag, prefix + format_text(record->format, values)});
    note_emitted(record->tag);
    va_end(values);
    return 0;
}

void vemo_krel_syslog(const syslog_vmsg_params_block & /*params*/, std::uint32_t severity, const char *prefixed_format,
                      ...)
{
    va_list values;
    va_start(values, prefixed_format);
    const std::string text = format_text(prefixed_format, values);
    va_end(values);
    platform.syslog.push_back({severity, tag_of(text), text});
    note_emitted(tag_of(text));
}

void syslog_traceback(const syslog_vmsg_params_block & /*params*/, const char *facility, std::uint32_t severity,
                      const char *tag)
{
    note("syslog_traceback", facility, severity, tag);
}

void krel_syslog(int level, const char *format, ...)
{
    va_list values;
    va_start(values, format);
    platform.traces.push_back({level, format_text(format, values)});
    note_emitted(platform.traces.back().text);
    va_end(values);
}

void evhist_hist_mbus_event(std::uint32_t kind, const mbus_msg &msg)
{
    if (recording())
        platform.mbus_events.push_back({kind, mbus_opc_get(msg)});
}

int evhist_hist_event_subtype_check(std::uint32_t /*component*/, std::uint32_t /*site*/)
{
    return platform.history_kept ? 0 : 1;
}

void evhist_hist_event(std::uint32_t component, std::uint32_t length, const void *record)
{
    history_event event;
    event.component = component;
    event.record = bytes(std::span(static_cast<const std::uint8_t *>(record), length));
    event.site = event.record.host32(0);
    event.text = event.record.text(4, length - 4);
    platform.events.push_back(std::move(event));
}

int evhist_chk_int(std::uint32_t /*site*/, std::uint32_t /*a*/, std::uint32_t /*b*/, std::uint32_t /*c*/)
{
    return platform.debug_console ? 1 : 0;
}

int evhist_process_msg(mbus_q queue, const mbus_msg &msg)
{
    note("evhist_process_msg", queue, mbus_opc_get(msg));
    return refuse("evhist_process_msg") ? -1 : 0;
}

void dbgprint(std::uint32_t /*level*/, const char * /*module*/, std::uint32_t /*flags*/, const char *format, ...)
{
    va_list values;
    va_start(values, format);
    platform.dbgprints.push_back(format_text(format, values));
    va_end(values);
}

bool hakit_evhist_init(std::uint32_t entries, const char *name, const char *description, std::uint32_t max_element,
                       const char *facility)
{
    note("hakit_evhist_init", entries, name, description, max_element, facility);
    if (refuse("hakit_evhist_init"))
        return false;
    platform.impl().facility.name = name;
    platform.set_facility(true);
    return true;
}

void hakit_evhist_close()
{
    note("hakit_evhist_close");
    platform.set_facility(false);
}

void hakit_evhist_set_elem(cli_cmd * /*cmd*/, std::uint32_t element, std::uint32_t value)
{
    note("hakit_evhist_set_elem", element, value);
}
