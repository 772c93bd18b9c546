// The process lock, its batches, and the timers that run under it.
#include "../../wire/platform.h"
#include "../plock_batch.h"
#include "active_timer.h"
#include "corvane_thread.h"
#include "hakit.h"
#include "plock.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <poll.h>
#include <thread>
#include <vector>

namespace corvane_test {
namespace {

using namespace testing;


void wait_until_waiting(const std::atomic<int> &started, int threads)
{
    while (started < threads)
        std::this_thread::yield();
    poll(nullptr, 0, 20);                    // from "started" to standing in the queue
}

TEST(ProcessLock, OneThreadAtATimeRunsUnderIt)
{
    int counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 5000; ++i) {
                plock_acquire_process_lock();
                ++counter;
                if (i % 16 == 0)
                    plock_sched_yield();
                plock_before_yield();
                plock_after_yield();
                ++counter;
                plock_release_process_lock();
            }
        });
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(counter, 4 * 5000 * 2);
}

TEST(ProcessLock, YieldLetsEveryWaiterInOnceInTheOrderTheyCame)
{
    plock_acquire_process_lock();
    std::vector<int> order;
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        std::atomic<int> started{0};
        threads.emplace_back([&order, &started, t] {
            started = 1;
            plock_acquire_process_lock();
            order.push_back(t);
            plock_release_process_lock();
        });
        wait_until_waiting(started, 1);
    }
    plock_sched_yield();
    order.push_back(99);
    plock_release_process_lock();
    for (std::thread &t : threads)
        t.join();
    EXPECT_THAT(order, ElementsAre(0, 1, 2, 99));
}

TEST(ProcessLock, YieldWithoutWaitersKeepsTheLock)
{
    plock_acquire_process_lock();
    plock_sched_yield();
    plock_assert_held();
    EXPECT_FALSE(plock_sched_may_yield()) << "the slice has just begun";
    plock_release_process_lock();
}

TEST(ProcessLock, MayYieldSaysWhenTheSliceIsUsedUp)
{
    plock_acquire_process_lock();
    EXPECT_FALSE(plock_sched_may_yield());
    EXPECT_FALSE(hakit_should_yield());
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(3);
    while (std::chrono::steady_clock::now() < end) {
    }
    EXPECT_TRUE(hakit_should_yield());
    EXPECT_TRUE(plock_sched_may_yield());
    EXPECT_FALSE(plock_sched_may_yield()) << "a new slice";
    plock_release_process_lock();
    EXPECT_FALSE(hakit_should_yield()) << "who does not hold it has no slice";
}

TEST(ProcessLock, AThreadThatReleasesAndTakesAtOnceDoesNotStarveAWaiter)
{
    std::atomic<bool> stop{false}, got{false};
    std::atomic<int> started{0};
    plock_acquire_process_lock();
    std::thread waiter([&] {
        started = 1;
        plock_acquire_process_lock();
        got = true;
        plock_release_process_lock();
    });
    wait_until_waiting(started, 1);
    plock_before_yield();
    plock_after_yield();                     // handed to the waiter first
    EXPECT_TRUE(got);
    plock_release_process_lock();
    waiter.join();
    stop = true;
}

TEST(ProcessLock, NotesTheLongestHoldThatSomebodyWaitedForAndNoOther)
{
    static corvane::lock_page page;
    corvane::plock_report_to(&page);
    plock_acquire_process_lock();
    poll(nullptr, 0, 30);                    // nobody waits: no hold to be noted
    plock_release_process_lock();
    EXPECT_EQ(page.waited_for, 0u);
    std::atomic<int> started{0};
    plock_acquire_process_lock();
    std::thread waiter([&] {
        started = 1;
        plock_acquire_process_lock();
        plock_release_process_lock();
    });
    wait_until_waiting(started, 1);          // 20 ms
    plock_release_process_lock();
    waiter.join();
    EXPECT_EQ(page.waited_for, 1u);
    EXPECT_GE(page.longest_hold_ns, 20'000'000u);
    const std::uint64_t longest = page.longest_hold_ns;
    plock_acquire_process_lock();
    std::thread short_waiter([&] {
        started = 2;
        plock_acquire_process_lock();
        plock_release_process_lock();
    });
    while (page.waited_for == 1u)
        plock_sched_yield();
    plock_release_process_lock();
    short_waiter.join();
    EXPECT_EQ(page.longest_hold_ns, longest);
}

TEST(ProcessLock, ScopeGivesItUpAndTakesItBack)
{
    plock_acquire_process_lock();
    {
        const plock_yield_scope scope;
        std::thread other([] {
            plock_acquire_process_lock();
            plock_release_process_lock();
        });
        other.join();
    }
    plock_assert_held();
    plock_release_process_lock();
}

// ---- batches

thread_local int collected = 0;
std::atomic<int> flushed{0};

void flush()
{
    flushed += collected;
    collected = 0;
}

struct PlockBatch : Test {
    void SetUp() override
    {
        corvane::plock_on_release(flush);
        flushed = 0;
        plock_acquire_process_lock();
    }
    void TearDown() override { plock_release_process_lock(); }
};

TEST_F(PlockBatch, KeepsTheLockForThatManyPairsAndFlushesAtTheRealRelease)
{
    plock_before_yield();
    corvane::plock_batch_begin(2);           // as a receive does that took three frames
    plock_after_yield();
    for (int pair = 0; pair < 2; ++pair) {
        ++collected;
        plock_before_yield();
        EXPECT_TRUE(corvane::plock_batch_kept());
        EXPECT_EQ(flushed, 0);
        plock_after_yield();
        EXPECT_FALSE(corvane::plock_batch_kept());
    }
    ++collected;
    plock_before_yield();
    EXPECT_FALSE(corvane::plock_batch_kept());
    EXPECT_EQ(flushed, 3);
    plock_after_yield();
}

TEST_F(PlockBatch, IsCutToItsMaximumAndEndsEarly)
{
    corvane::plock_batch_begin(1000);
    EXPECT_EQ(corvane::plock_batch_left(), corvane::PLOCK_BATCH_MAX);
    corvane::plock_batch_end();
    plock_before_yield();
    EXPECT_FALSE(corvane::plock_batch_kept());
    plock_after_yield();
}

TEST_F(PlockBatch, YieldLetsAWaiterInAtTheEndOfTheBatch)
{
    std::atomic<int> started{0};
    std::atomic<bool> was_in{false};
    std::thread waiter([&] {
        started = 1;
        plock_acquire_process_lock();
        was_in = true;
        plock_release_process_lock();
    });
    wait_until_waiting(started, 1);
    corvane::plock_batch_begin(1);
    ++collected;
    plock_sched_yield();
    EXPECT_EQ(flushed, 0);
    EXPECT_FALSE(was_in);
    EXPECT_EQ(corvane::plock_batch_left(), 1u);
    plock_before_yield();
    plock_after_yield();
    plock_sched_yield();
    EXPECT_EQ(flushed, 1);
    EXPECT_TRUE(was_in);
    waiter.join();
}

TEST_F(PlockBatch, UsedUpSliceYieldsInsideABatchAndFlushesFirst)
{
    std::atomic<int> started{0};
    std::thread waiter([&] {
        started = 1;
        plock_acquire_process_lock();
        plock_release_process_lock();
    });
    wait_until_waiting(started, 1);
    corvane::plock_batch_begin(32);
    ++collected;
    while (!plock_sched_may_yield()) {
    }
    EXPECT_EQ(flushed, 1);
    EXPECT_EQ(corvane::plock_batch_left(), 32u);
    corvane::plock_batch_end();
    waiter.join();
}

TEST_F(PlockBatch, OneHookRegisteredTwiceRunsOnce)
{
    corvane::plock_on_release(flush);
    ++collected;
    plock_before_yield();
    plock_after_yield();
    EXPECT_EQ(flushed, 1);
}

// ---- timers

struct Timers : Test {
    std::uint8_t set = 0;
    static inline std::mutex mutex;
    static inline std::condition_variable changed;
    static inline std::vector<int> ran;
    static inline active_timer again = 0;

    void SetUp() override
    {
        ASSERT_TRUE(active_timer_init(0));
        set = active_timer_new_set_init(4);
        ASSERT_NE(set, 0);
        ran.clear();
    }
    static void note(void *argument)
    {
        plock_assert_held();
        const std::lock_guard guard(mutex);
        ran.push_back(static_cast<int>(reinterpret_cast<std::intptr_t>(argument)));
        changed.notify_all();
    }
    static void note_and_restart(void *argument)
    {
        note(argument);
        active_timer_start(again, 0, 1, 0, 0);
    }
    active_timer make(int number, active_timer_callback callback = note) const
    {
        return active_timer_create(set, 9, callback, reinterpret_cast<void *>(static_cast<std::intptr_t>(number)));
    }
    static bool await(std::size_t runs)
    {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(5), [&] { return ran.size() >= runs; });
    }
};

TEST_F(Timers, ExpireInTheOrderTheyAreDueWithTheProcessLockHeld)
{
    const active_timer late = make(2), soon = make(1);
    active_timer_start(late, 0, 20, 0, 0);
    active_timer_start(soon, 0, 0, 500, 0);
    ASSERT_TRUE(await(2));
    EXPECT_THAT(ran, ElementsAre(1, 2));
    active_timer_delete(late);
    active_timer_delete(soon);
}

TEST_F(Timers, AllZeroExpiresAtOnceAndOnlyOnce)
{
    const active_timer timer = make(1);
    active_timer_start(timer, 0, 0, 0, 0);
    ASSERT_TRUE(await(1));
    const active_timer other = make(2);
    active_timer_start(other, 0, 5, 0, 0);
    ASSERT_TRUE(await(2));
    EXPECT_THAT(ran, ElementsAre(1, 2));
    active_timer_delete(timer);
    active_timer_delete(other);
}

TEST_F(Timers, CallbackMayStartItsTimerAgain)
{
    again = make(1, note_and_restart);
    active_timer_start(again, 0, 0, 0, 0);
    EXPECT_TRUE(await(3));
    plock_acquire_process_lock();
    active_timer_cancel(again);
    plock_release_process_lock();
    active_timer_delete(again);
}

TEST_F(Timers, StartingAgainPutsItOff)
{
    const active_timer timer = make(1), marker = make(2);
    plock_acquire_process_lock();
    active_timer_start(timer, 0, 1, 0, 0);
    active_timer_start(timer, 3600, 0, 0, 0);
    active_timer_start(marker, 0, 5, 0, 0);
    plock_release_process_lock();
    ASSERT_TRUE(await(1));
    EXPECT_THAT(ran, ElementsAre(2));
    active_timer_delete(timer);
    active_timer_delete(marker);
}

// Both have expired while this thread holds the lock: what it cancels now must not run when it lets go.
TEST_F(Timers, CancelWithTheLockHeldKeepsAnExpiredCallbackFromRunning)
{
    const active_timer cancelled = make(1), deleted = make(2), kept = make(3);
    plock_acquire_process_lock();
    active_timer_start(cancelled, 0, 0, 0, 0);
    active_timer_start(deleted, 0, 0, 0, 0);
    poll(nullptr, 0, 20);
    active_timer_cancel(cancelled);
    active_timer_delete(deleted);
    active_timer_start(kept, 0, 0, 0, 0);
    plock_release_process_lock();
    ASSERT_TRUE(await(1));
    EXPECT_THAT(ran, ElementsAre(3));
    active_timer_delete(cancelled);
    active_timer_delete(kept);
}

TEST_F(Timers, UnknownSetOrMissingCallbackGivesNone)
{
    EXPECT_EQ(active_timer_create(0, 9, note, nullptr), 0u);
    EXPECT_EQ(active_timer_create(static_cast<std::uint8_t>(set + 100), 9, note, nullptr), 0u);
    EXPECT_EQ(active_timer_create(set, 9, nullptr, nullptr), 0u);
    active_timer_start(0, 0, 0, 0, 0);
    active_timer_cancel(0);
    active_timer_delete(4711);
    EXPECT_EQ(active_timer_new_set_init(0), 0);
}

TEST(NamedThread, CarriesItsNameCutToFifteenCharacters)
{
    pthread_t thread{};
    char name[32] = {};
    ASSERT_EQ(corvane_pthread_create(
                  thread, nullptr,
                  [](void *out) -> void * {
                      pthread_getname_np(pthread_self(), static_cast<char *>(out), 32);
                      return nullptr;
                  },
                  name, "a-thread-with-a-long-name"),
              0);
    pthread_join(thread, nullptr);
    EXPECT_STREQ(name, "a-thread-with-a");
}

} // namespace
} // namespace corvane_test
