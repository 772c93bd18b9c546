// Process lock: one word says free, held, or held with waiters; waiters stand in a queue and are handed the lock in
// turn, so nobody overtakes them and a release with no waiter is one atomic operation.
#include "plock.h"

#include "../plock_batch.h"
#include "connection.h"

#include "../../wire/platform.h"

#include <array>
#include <atomic>
#include <cassert>
#include <ctime>
#include <mutex>
#include <vector>

plock_lock plock_process_lock;

namespace {

constexpr std::uint32_t FREE = 0, HELD = 1, HELD_WAITED_FOR = 2;
constexpr std::uint64_t SLICE_DEFAULT_NS = 1'000'000;
constexpr std::size_t HOOKS_MAX = 8;
constexpr std::uint32_t CLOCK_LOOK_EVERY = 16;         // frames of a batch

// Given back to a pool at the end of its thread and never freed: whoever hands the lock over may still touch it.
struct waiter {
    std::atomic<std::uint32_t> granted{0};
    waiter *next = nullptr;
};

struct process_lock {
    std::atomic<std::uint32_t> word{FREE};
    std::mutex mutex;                      // guards the queue and every change to and from HELD_WAITED_FOR
    waiter *first = nullptr;
    waiter *last = nullptr;
    std::vector<waiter *> pool;
    std::atomic<std::uint64_t> slice_ns{SLICE_DEFAULT_NS};
    std::array<std::atomic<void (*)()>, HOOKS_MAX> hooks{};
    std::atomic<std::size_t> hook_count{0};
};

process_lock &the()
{
    static auto *lock = new process_lock;
    return *lock;
}

struct own_waiter {
    waiter *w = nullptr;
    waiter &get()
    {
        if (w == nullptr) {
            const std::lock_guard guard(the().mutex);
            if (the().pool.empty()) {
                w = new waiter;
            } else {
                w = the().pool.back();
                the().pool.pop_back();
            }
        }
        return *w;
    }
    ~own_waiter()
    {
        if (w == nullptr)
            return;
        const std::lock_guard guard(the().mutex);
        the().pool.push_back(w);
    }
};

thread_local own_waiter my_waiter;
thread_local bool holding = false;
thread_local std::uint64_t slice_start_ns = 0;
thread_local std::uint32_t batch_left = 0;
thread_local bool batch_kept = false;

std::uint64_t now_ns()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<std::uint64_t>(now.tv_nsec);
}

corvane::lock_page own_page;
std::atomic<corvane::lock_page *> reported_to{&own_page};

// Called at the end of a hold, while the next thread still waits.
void note_hold()
{
    auto &page = *reported_to.load(std::memory_order_acquire);
    const std::uint64_t held = now_ns() - slice_start_ns;
    page.waited_for.fetch_add(1, std::memory_order_relaxed);
    std::uint64_t longest = page.longest_hold_ns.load(std::memory_order_relaxed);
    while (held > longest && !page.longest_hold_ns.compare_exchange_weak(longest, held, std::memory_order_relaxed)) {
    }
}

void enqueue(waiter &w)
{
    w.granted.store(0, std::memory_order_relaxed);
    w.next = nullptr;
    (the().last == nullptr ? the().first : the().last->next) = &w;
    the().last = &w;
}

waiter *dequeue()
{
    waiter *w = the().first;
    if (w != nullptr) {
        the().first = w->next;
        if (the().first == nullptr)
            the().last = nullptr;
    }
    return w;
}

void hand_over(waiter &w)
{
    w.granted.store(1, std::memory_order_release);
    w.granted.notify_one();
}

void await_grant(waiter &w)
{
    while (w.granted.load(std::memory_order_acquire) == 0)
        w.granted.wait(0, std::memory_order_acquire);
}

void lock_contended()
{
    waiter &mine = my_waiter.get();
    {
        const std::lock_guard guard(the().mutex);
        // Under the mutex the word can only go from HELD to FREE behind our back.
        for (;;) {
            std::uint32_t seen = FREE;
            if (the().word.compare_exchange_strong(seen, HELD, std::memory_order_acquire))
                return;
            if (seen == HELD_WAITED_FOR || the().word.compare_exchange_strong(seen, HELD_WAITED_FOR))
                break;
        }
        enqueue(mine);
    }
    await_grant(mine);
}

void unlock_contended()
{
    note_hold();
    waiter *next = nullptr;
    {
        const std::lock_guard guard(the().mutex);
        next = dequeue();
        if (the().first == nullptr)
            the().word.store(HELD, std::memory_order_relaxed);
    }
    hand_over(*next);
}

void take()
{
    std::uint32_t seen = FREE;
    if (!the().word.compare_exchange_strong(seen, HELD, std::memory_order_acquire))
        lock_contended();
    holding = true;
    slice_start_ns = now_ns();
}

void run_release_hooks()
{
    const std::size_t count = the().hook_count.load(std::memory_order_acquire);
    for (std::size_t i = 0; i < count; ++i)
        the().hooks[i].load(std::memory_order_relaxed)();
}

void give_up()
{
    assert(holding);
    holding = false;
    std::uint32_t seen = HELD;
    if (!the().word.compare_exchange_strong(seen, FREE, std::memory_order_release))
        unlock_contended();
    run_release_hooks();
}

void yield_to_waiter()
{
    waiter &mine = my_waiter.get();
    waiter *next = nullptr;
    {
        const std::lock_guard guard(the().mutex);
        next = dequeue();
        if (next != nullptr) {
            enqueue(mine);
            the().word.store(HELD_WAITED_FOR, std::memory_order_relaxed);
        }
    }
    if (next != nullptr) {
        note_hold();
        holding = false;
        hand_over(*next);
        run_release_hooks();
        await_grant(mine);
        holding = true;
    }
    slice_start_ns = now_ns();
}

} // namespace

namespace corvane {

void plock_batch_begin(std::uint32_t pairs)
{
    batch_left = pairs < PLOCK_BATCH_MAX ? pairs : PLOCK_BATCH_MAX;
}

std::uint32_t plock_batch_left()
{
    return batch_left;
}

void plock_batch_end()
{
    batch_left = 0;
}

bool plock_batch_kept()
{
    return batch_kept;
}

void plock_report_to(lock_page *page) { reported_to.store(page, std::memory_order_release); }

void plock_on_release(void (*hook)())
{
    const std::lock_guard guard(the().mutex);
    const std::size_t at = the().hook_count.load();
    for (std::size_t i = 0; i < at; ++i)
        if (the().hooks[i].load() == hook)
            return;
    assert(at < HOOKS_MAX);
    the().hooks[at].store(hook);
    the().hook_count.store(at + 1, std::memory_order_release);
}

bool plock_slice_used()
{
    return holding && now_ns() - slice_start_ns >= the().slice_ns.load(std::memory_order_relaxed);
}

} // namespace corvane

bool plock_proc_attr_init(plock_proc_attr &attr)
{
    attr = {};
    return true;
}

bool plock_init_proc(const plock_proc_attr &attr)
{
    if (attr.slice_us != 0)
        the().slice_ns = std::uint64_t{attr.slice_us} * 1000;
    corvane::connection_service_set(attr.service);
    return true;
}

void plock_acquire_process_lock() CORVANE_NO_TSA
{
    assert(!holding);
    take();
}

void plock_release_process_lock() CORVANE_NO_TSA
{
    batch_left = 0;
    give_up();
}

void plock_before_yield() CORVANE_NO_TSA
{
    if (batch_left > 0) {
        --batch_left;
        batch_kept = true;
        return;
    }
    give_up();
}

void plock_after_yield() CORVANE_NO_TSA
{
    if (batch_kept) {
        batch_kept = false;
        return;
    }
    take();
}

void plock_sched_yield()
{
    assert(holding);
    // The end of a batch is near, and a waiter gets in there. Handing the lock over after each frame of it would send
    // what it has put out one by one.
    if (batch_left == 0)
        yield_to_waiter();
}

bool plock_sched_may_yield()
{
    // Within a batch the clock is looked at now and then only: it would cost each frame more than its lookup.
    if (batch_left % CLOCK_LOOK_EVERY != 0 || !corvane::plock_slice_used())
        return false;
    yield_to_waiter();
    return true;
}

void plock_assert_held()
{
    assert(holding);
}
