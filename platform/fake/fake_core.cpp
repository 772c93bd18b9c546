// The platform object: reset, books, the call log and scripted failures.
#include "fake_state.h"

#include "../libcorvane/base/fault.h"
#include "drops.h"

#include <algorithm>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <stdexcept>

fake::platform_object platform;

namespace fake {

namespace {

// The daemon ends its main thread with a signal; a test must not die of it.
void survive_quit_signal()
{
    struct sigaction current {};
    if (sigaction(SIGQUIT, nullptr, &current) != 0 || current.sa_handler != SIG_DFL)
        return;
    struct sigaction quiet {};
    quiet.sa_handler = [](int) {};
    sigaction(SIGQUIT, &quiet, nullptr);
}

bool counts_down(fault &f)
{
    return f.countdown != 0 && --f.countdown == 0;
}

void clear_drop_counters()
{
    for (auto &count : drop_counters->count)
        count.store(0, std::memory_order_relaxed);
}

template <class Record> std::vector<std::string> texts_of(const std::vector<Record> &records)
{
    std::vector<std::string> texts;
    for (const Record &record : records)
        texts.push_back(record.text);
    return texts;
}

} // namespace

platform_object::platform_object() : state_(std::make_unique<state>())
{
    corvane::base_fault = [](const char *call) { return refuse(call); };
    survive_quit_signal();
    set_facility(true);
}

platform_object::~platform_object() { corvane::base_fault = nullptr; }

void platform_object::reset()
{
    release_threads();
    static_cast<recorded &>(*this) = {};
    static_cast<scripted &>(*this) = {};
    state_ = std::make_unique<state>();
    reset_memory();
    clear_drop_counters();
    set_facility(true);
}

void platform_object::forget()
{
    static_cast<recorded &>(*this) = {};
    state_->fallible = 0;
    state_->refused.clear();
}

std::unique_lock<std::recursive_mutex> hold_state()
{
    static std::recursive_mutex mutex;
    return std::unique_lock(mutex);
}

void append_call(call_record record)
{
    const auto held = hold_state();
    platform.calls.push_back(std::move(record));
}

bool refuse_now(const char *name)
{
    const auto held = hold_state();
    state &s = platform.impl();
    ++s.fallible;
    const bool any = counts_down(s.any);
    if (any)
        errno = s.any.error;
    bool named = false;
    if (const auto found = s.faults.find(name); found != s.faults.end())
        for (fault &f : found->second)
            if (counts_down(f)) {
                errno = f.error;
                named = true;
            }
    if (const auto found = s.always.find(name); found != s.always.end()) {
        errno = found->second;
        named = true;
    }
    if (any || named)
        s.refused = name;
    return any || named;
}

void platform_object::fail(std::string_view name, std::size_t nth, int error)
{
    state_->faults[std::string(name)].push_back({nth, error});
}
void platform_object::fail_always(std::string_view name, int error) { state_->always[std::string(name)] = error; }
void platform_object::succeed(std::string_view name)
{
    state_->faults.erase(std::string(name));
    state_->always.erase(std::string(name));
}
void platform_object::fail_any(std::size_t nth, int error)
{
    state_->any = {nth, error};
    state_->fallible = 0;
    state_->refused.clear();
}
std::size_t platform_object::fallible_calls() const { return state_->fallible; }
std::string platform_object::refused() const { return state_->refused; }

std::size_t platform_object::called(std::string_view name) const
{
    return static_cast<std::size_t>(std::ranges::count(calls, name, &call_record::name));
}

std::vector<std::string> platform_object::call_names() const
{
    std::vector<std::string> names;
    for (const call_record &call : calls)
        names.push_back(call.name);
    return names;
}

std::vector<std::string> platform_object::call_texts() const
{
    std::vector<std::string> texts;
    for (const call_record &call : calls)
        texts.push_back(call.text());
    return texts;
}

std::vector<std::string> platform_object::call_texts(std::initializer_list<std::string_view> names) const
{
    std::vector<std::string> texts;
    for (const call_record &call : calls)
        if (std::ranges::find(names, call.name) != names.end())
            texts.push_back(call.text());
    return texts;
}

std::vector<call_record> platform_object::calls_of(std::string_view name) const
{
    std::vector<call_record> found;
    std::ranges::copy_if(calls, std::back_inserter(found), [&](const call_record &c) { return c.name == name; });
    return found;
}

bool platform_object::sent_nothing() const
{
    return ip_sent.empty() && ipv6_sent.empty() && l2_sent.empty() && l2_multicast_sent.empty() && mbus_sent.empty();
}

bool platform_object::traced(std::string_view text) const
{
    return std::ranges::find(traces, text, &trace_line::text) != traces.end();
}
std::vector<std::string> platform_object::trace_texts() const { return texts_of(traces); }
std::vector<std::string> platform_object::syslog_texts() const { return texts_of(syslog); }

std::vector<bus_message> platform_object::sent_with(std::uint32_t opcode) const
{
    std::vector<bus_message> found;
    std::ranges::copy_if(mbus_sent, std::back_inserter(found), [&](const bus_message &m) { return m.opcode == opcode; });
    return found;
}

std::string call_record::text() const
{
    std::string all = name + "(";
    for (std::size_t i = 0; i < arguments.size(); ++i)
        all += (i == 0 ? "" : ", ") + arguments[i];
    return all + ")";
}
std::uint64_t call_record::number(std::size_t argument) const { return std::stoull(arguments.at(argument)); }

std::string format_text(const char *format, va_list values)
{
    va_list again;
    va_copy(again, values);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (length < 0)
        return {};
    std::string text(static_cast<std::size_t>(length), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, values);
    return text;
}

} // namespace fake
