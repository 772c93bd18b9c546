// Timers: one thread waits for the next one due, takes the process lock, looks whether the timer is still wanted, and
// runs its callback.
#include "active_timer.h"

#include "corvane_thread.h"
#include "plock.h"

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <set>
#include <unordered_map>

namespace {

using clock = std::chrono::steady_clock;

struct timer {
    active_timer_callback callback = nullptr;
    void *argument = nullptr;
    bool running = false;
    clock::time_point due;
};

struct timer_library {
    std::mutex mutex;
    std::condition_variable changed;
    std::unordered_map<active_timer, timer> timers;
    std::set<std::pair<clock::time_point, active_timer>> due;
    active_timer last_handle = 0;
    std::uint8_t last_set = 0;
    bool started = false;
};

timer_library &the()
{
    static auto *library = new timer_library;
    return *library;
}

void disarm(active_timer handle, timer &t)
{
    if (!t.running)
        return;
    t.running = false;
    the().due.erase({t.due, handle});
}

// The handle that is due, once there is one.
active_timer await_due()
{
    std::unique_lock lock(the().mutex);
    for (;;) {
        if (the().due.empty()) {
            the().changed.wait(lock);
            continue;
        }
        const auto [at, handle] = *the().due.begin();
        if (at <= clock::now())
            return handle;
        the().changed.wait_until(lock, at);
    }
}

// What to run, if it is still due: it may have been cancelled while this thread waited for the process lock.
timer claim(active_timer handle)
{
    const std::lock_guard guard(the().mutex);
    const auto found = the().timers.find(handle);
    if (found == the().timers.end() || !found->second.running || found->second.due > clock::now())
        return {};
    disarm(handle, found->second);
    return found->second;
}

void *timer_thread(void *)
{
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    for (;;) {
        const active_timer handle = await_due();
        plock_acquire_process_lock();
        const timer due = claim(handle);
        if (due.callback != nullptr)
            due.callback(due.argument);
        plock_release_process_lock();
    }
    return nullptr;
}

} // namespace

bool active_timer_init(std::uint32_t)
{
    const std::lock_guard guard(the().mutex);
    if (the().started)
        return true;
    pthread_t thread{};
    if (corvane_pthread_create(thread, nullptr, timer_thread, nullptr, "corvane-timer") != 0)
        return false;
    pthread_detach(thread);
    the().started = true;
    return true;
}

std::uint8_t active_timer_new_set_init(std::uint32_t size)
{
    const std::lock_guard guard(the().mutex);
    if (!the().started || size == 0 || the().last_set == 0xFF)
        return 0;
    return ++the().last_set;
}

active_timer active_timer_create(std::uint8_t set, std::uint32_t, active_timer_callback callback, void *argument)
{
    const std::lock_guard guard(the().mutex);
    if (set == 0 || set > the().last_set || callback == nullptr)
        return 0;
    do {
        ++the().last_handle;
    } while (the().last_handle == 0 || the().timers.contains(the().last_handle));
    the().timers[the().last_handle] = {callback, argument, false, {}};
    return the().last_handle;
}

void active_timer_start(active_timer handle, std::uint32_t seconds, std::uint32_t milliseconds,
                        std::uint32_t microseconds, std::uint32_t)
{
    const std::lock_guard guard(the().mutex);
    const auto found = the().timers.find(handle);
    if (found == the().timers.end())
        return;
    timer &t = found->second;
    disarm(handle, t);
    t.due = clock::now() + std::chrono::seconds(seconds) + std::chrono::milliseconds(milliseconds) +
            std::chrono::microseconds(microseconds);
    t.running = true;
    the().due.emplace(t.due, handle);
    the().changed.notify_one();
}

void active_timer_cancel(active_timer handle)
{
    const std::lock_guard guard(the().mutex);
    if (const auto found = the().timers.find(handle); found != the().timers.end())
        disarm(handle, found->second);
}

void active_timer_delete(active_timer handle)
{
    const std::lock_guard guard(the().mutex);
    const auto found = the().timers.find(handle);
    if (found == the().timers.end())
        return;
    disarm(handle, found->second);
    the().timers.erase(found);
}
