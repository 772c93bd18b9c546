// The virtual clock and the timers that fire when a test advances it.
#include "fake_state.h"

#include <stdexcept>

namespace fake {

namespace {

constexpr std::uint64_t NS_PER_S = 1'000'000'000, NS_PER_MS = 1'000'000, NS_PER_US = 1'000;

void set_clock(std::uint64_t ns)
{
    platform.now = {static_cast<std::uint32_t>(ns / NS_PER_S), static_cast<std::uint32_t>(ns % NS_PER_S)};
}

std::uint64_t in_ns(const timestamp &t)
{
    return t.seconds * NS_PER_S + t.nanoseconds;
}

timer *next_due(std::uint64_t until_ns)
{
    timer *next = nullptr;
    for (auto &[handle, t] : platform.impl().timers) {
        if (!t.record.running || t.due_ns > until_ns)
            continue;
        if (next == nullptr || std::pair(t.due_ns, t.order) < std::pair(next->due_ns, next->order))
            next = &t;
    }
    return next;
}

timer *find(active_timer handle)
{
    auto &timers = platform.impl().timers;
    const auto found = timers.find(handle);
    return found == timers.end() ? nullptr : &found->second;
}

} // namespace

std::uint64_t now_ns() { return in_ns(platform.now); }

void platform_object::advance(std::uint32_t seconds) { advance_ms(std::uint64_t{seconds} * 1000); }

void platform_object::advance_ms(std::uint64_t milliseconds)
{
    constexpr std::size_t RUNAWAY = 1'000'000;
    const std::uint64_t until = now_ns() + milliseconds * NS_PER_MS;
    plock_acquire_process_lock();
    std::size_t fired = 0;
    while (timer *due = next_due(until)) {
        if (++fired > RUNAWAY)
            throw std::logic_error("a timer restarts itself without end");
        set_clock(std::max(now_ns(), due->due_ns));
        due->record.running = false;
        due->record.callback(due->record.argument);
    }
    set_clock(until);
    plock_release_process_lock();
}

bool platform_object::timer_running(active_timer handle) const
{
    const timer *found = find(handle);
    return found != nullptr && found->record.running;
}

std::uint64_t platform_object::timer_ms_left(active_timer handle) const
{
    const timer *found = find(handle);
    return found == nullptr || !found->record.running ? 0 : (found->due_ns - now_ns()) / NS_PER_MS;
}

std::vector<timer_record> platform_object::timers() const
{
    std::vector<timer_record> all;
    for (const auto &[handle, t] : state_->timers) {
        all.push_back(t.record);
        all.back().ms_left = timer_ms_left(handle);
    }
    return all;
}

} // namespace fake

using namespace fake;

bool active_timer_init(std::uint32_t flags)
{
    note("active_timer_init", flags);
    return !refuse("active_timer_init");
}

std::uint8_t active_timer_new_set_init(std::uint32_t size)
{
    note("active_timer_new_set_init", size);
    return refuse("active_timer_new_set_init") ? std::uint8_t{0} : ++platform.impl().last_timer_set;
}

active_timer active_timer_create(std::uint8_t set, std::uint32_t type, active_timer_callback callback, void *argument)
{
    note("active_timer_create", set, type);
    if (refuse("active_timer_create"))
        return 0;
    state &s = platform.impl();
    timer made;
    made.record = {++s.last_timer, set, type, callback, argument, false, 0};
    s.timers[s.last_timer] = made;
    return s.last_timer;
}

void active_timer_start(active_timer handle, std::uint32_t seconds, std::uint32_t milliseconds,
                        std::uint32_t microseconds, std::uint32_t /*flags*/)
{
    note("active_timer_start", handle, seconds, milliseconds, microseconds);
    timer *found = find(handle);
    if (found == nullptr)
        return;
    found->record.running = true;
    found->due_ns = now_ns() + seconds * NS_PER_S + milliseconds * NS_PER_MS + microseconds * NS_PER_US;
    found->order = ++platform.impl().timer_starts;
}

void active_timer_cancel(active_timer handle)
{
    note("active_timer_cancel", handle);
    if (timer *found = find(handle))
        found->record.running = false;
}

void active_timer_delete(active_timer handle)
{
    note("active_timer_delete", handle);
    platform.impl().timers.erase(handle);
}

int vemo_sys_mclock_get(timestamp &now)
{
    if (refuse("vemo_sys_mclock_get"))
        return -1;
    now = platform.now;
    return 0;
}

bool timestamp_expired(const timestamp &when) { return in_ns(when) <= now_ns(); }

timestamp timestamp_elapsed(const timestamp &since)
{
    const std::uint64_t then = in_ns(since);
    const std::uint64_t passed = then < now_ns() ? now_ns() - then : 0;
    return {static_cast<std::uint32_t>(passed / NS_PER_S), static_cast<std::uint32_t>(passed % NS_PER_S)};
}
