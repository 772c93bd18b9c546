// Process lock and threads. The lock is a real one, handed on in the order of asking; a thread may take it several
// times, so that code that takes it itself can be called by a test that holds it. Threads are parked until told.
#include "fake_state.h"

#include <algorithm>
#include <stdexcept>

plock_lock plock_process_lock;

namespace fake {

namespace {

std::mutex lock_mutex;
std::condition_variable lock_free;
std::uint64_t next_ticket = 0, serving = 0;
thread_local std::size_t depth = 0;                          // how often this thread holds it
thread_local std::size_t yielded_depth = 0;

void take(std::size_t times)
{
    if (depth == 0) {
        std::unique_lock guard(lock_mutex);
        const std::uint64_t mine = next_ticket++;
        lock_free.wait(guard, [&] { return serving == mine; });
    }
    depth += times;
}

void give_up()
{
    depth = 0;
    const std::lock_guard guard(lock_mutex);
    ++serving;
    lock_free.notify_all();
}

void lock_error()
{
    ++platform.lock_errors;
}

// A thread of the code under test may end anywhere, its stack unwound; whatever it held of the lock ends with it.
struct release_at_end {
    ~release_at_end()
    {
        if (depth != 0)
            give_up();
    }
};

void *thread_body(void *argument)
{
    auto &slot = *static_cast<thread_slot *>(argument);
    {
        std::unique_lock guard(slot.mutex);
        slot.changed.wait(guard, [&] { return slot.what != thread_slot::order::park; });
        if (slot.what == thread_slot::order::leave)
            return nullptr;
    }
    pthread_setname_np(pthread_self(), slot.record.name.substr(0, 15).c_str());
    const release_at_end release;
    return slot.record.entry(slot.record.argument);
}

void order_thread(thread_slot &slot, thread_slot::order what)
{
    const std::lock_guard guard(slot.mutex);
    slot.what = what;
    slot.changed.notify_all();
}

} // namespace

bool platform_object::lock_held() const { return depth != 0; }

void without_process_lock(const std::function<void()> &work)
{
    const std::size_t held = depth;
    if (held != 0)
        give_up();
    work();
    if (held != 0)
        take(held);
}

std::vector<thread_record> platform_object::threads() const
{
    std::vector<thread_record> all;
    for (const auto &slot : state_->threads)
        all.push_back(slot->record);
    return all;
}

void *platform_object::run_thread(std::string_view name)
{
    const auto found = std::ranges::find_if(
        state_->threads, [&](const auto &slot) { return slot->record.name == name && !slot->record.ran; });
    if (found == state_->threads.end())
        throw std::logic_error("no such thread waits to run: " + std::string(name));
    thread_slot &slot = **found;
    slot.record.ran = true;
    slot.joined = true;
    order_thread(slot, thread_slot::order::run);
    void *result = nullptr;
    without_process_lock([&] { pthread_join(slot.id, &result); });
    return result;
}

void release_threads()
{
    state &s = platform.impl();
    without_process_lock([&] {
        for (const auto &slot : s.threads) {
            if (!slot->record.ran)
                order_thread(*slot, thread_slot::order::leave);
            if (!slot->joined && !(slot->record.ran && platform.joined_by_process.contains(slot->record.name)))
                pthread_join(slot->id, nullptr);
        }
        s.threads.clear();
    });
}

} // namespace fake

using namespace fake;

bool plock_proc_attr_init(plock_proc_attr &attr)
{
    note("plock_proc_attr_init");
    attr = {};
    return !refuse("plock_proc_attr_init");
}

bool plock_init_proc(const plock_proc_attr &attr)
{
    note("plock_init_proc", attr.service);
    if (refuse("plock_init_proc"))
        return false;
    platform.own_service = attr.service;
    return true;
}

void plock_acquire_process_lock() CORVANE_NO_TSA
{
    note("plock_acquire_process_lock");
    take(1);
}

void plock_release_process_lock() CORVANE_NO_TSA
{
    note("plock_release_process_lock");
    if (depth == 0)
        lock_error();
    else if (depth == 1)
        give_up();
    else
        --depth;
}

void plock_before_yield() CORVANE_NO_TSA
{
    yielded_depth = depth;
    if (depth == 0)
        lock_error();
    else
        give_up();
}

void plock_after_yield() CORVANE_NO_TSA
{
    if (depth != 0)
        lock_error();
    else
        take(yielded_depth == 0 ? 1 : yielded_depth);
}

void plock_sched_yield() CORVANE_NO_TSA
{
    ++platform.yields;
    if (depth == 0)
        lock_error();
    without_process_lock([] {});
    if (platform.on_yield)
        platform.on_yield();
}

bool plock_sched_may_yield() CORVANE_NO_TSA
{
    ++platform.may_yields;
    if (!recording())
        return false;
    if (depth == 0)
        lock_error();
    if (platform.on_yield)
        platform.on_yield();
    return platform.slice_used_up;
}

void plock_assert_held() CORVANE_NO_TSA
{
    if (depth == 0)
        lock_error();
}

void corvane_pthread_attr_init(corvane_pthread_attr &attr)
{
    note("corvane_pthread_attr_init");
    attr = {};
}

int corvane_pthread_create(pthread_t &thread, const corvane_pthread_attr * /*attr*/, void *(*entry)(void *),
                           void *argument, const char *name)
{
    note("corvane_pthread_create", name);
    if (refuse("corvane_pthread_create"))
        return errno;
    auto slot = std::make_unique<thread_slot>();
    slot->record = {name, entry, argument, platform.threads_run};
    slot->what = platform.threads_run ? thread_slot::order::run : thread_slot::order::park;
    const int error = pthread_create(&slot->id, nullptr, thread_body, slot.get());
    if (error != 0)
        return error;
    thread = slot->id;
    platform.impl().threads.push_back(std::move(slot));
    return 0;
}
