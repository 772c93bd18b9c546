// Service manager, timers, process lock, memory accounting, threads, clock: what a process lives on.
#include "contract_test.h"

#include "active_timer.h"
#include "corvane_thread.h"
#include "hakit.h"
#include "memacct.h"
#include "svcmgr.h"
#include "timestamp.h"

#include <array>
#include <atomic>
#include <thread>

using namespace contract;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

std::vector<std::pair<std::uint32_t, std::uint32_t>> answers, changes;
std::vector<std::uint32_t> cleanups;

} // namespace

int svcmgrcb_process_state_changed(const svcmgr_notification *notification, std::uint32_t state)
{
    changes.emplace_back(svcmgr_srv_notification_uuid_get(notification), state);
    return 0;
}
int svcmgrcb_srv_hs_state_query(std::uint32_t /*client*/, std::uint32_t service, std::uint32_t /*flags*/,
                                std::uint32_t done)
{
    answers.emplace_back(service, done);
    return 0;
}
int svcmgrcb_switchover(const svcmgr_request *request, std::uint32_t /*hot*/, std::uint32_t /*a*/, std::uint32_t /*b*/,
                        std::uint32_t /*mismatch*/)
{
    svcmgr_switchover_done(request, 0);
    return 0;
}
int svcmgrcb_conditional_srv_cleanup_start(const svcmgr_request * /*request*/, std::uint32_t reason)
{
    cleanups.push_back(reason);
    return 0;
}
int svcmgrcb_conditional_srv_cleanup_status(const svcmgr_request * /*request*/, std::uint32_t /*status*/)
{
    return 0;
}

namespace {

constexpr std::uint32_t SAP = 610;

class ContractServices : public ContractTest {
protected:
    ContractServices() : queue(bind(SAP))
    {
        answers.clear();
        changes.clear();
        cleanups.clear();
        EXPECT_TRUE(svcmgr_handshake(queue, SERVICE));
    }
    // Offers every message to the service manager until the condition holds.
    bool dispatched_until(const std::function<bool()> &condition)
    {
        mbus_msg msg;
        while (!condition()) {
            if (!receive(queue, msg))
                return false;
            EXPECT_EQ(svcmgr_dispatch(msg), 0);
            mbus_drop(queue, msg);
        }
        return true;
    }
    mbus_q queue;
};

TEST_F(ContractServices, AnswersAQueryThroughTheCallback)
{
    svcmgr_query_srv_hs_state(SVC_IP);
    svcmgr_query_srv_hs_state(SVC_CMDSRV);
    ASSERT_TRUE(dispatched_until([] { return answers.size() == 2; }));
    EXPECT_THAT(answers, ElementsAre(Pair(SVC_IP, 1), Pair(SVC_CMDSRV, 1)));
}

TEST_F(ContractServices, LeavesOtherMessagesAlone)
{
    ASSERT_EQ(send(queue, SAP, 0x70001), 0);
    mbus_msg msg;
    ASSERT_TRUE(receive(queue, msg));
    EXPECT_EQ(svcmgr_dispatch(msg), -1);
    EXPECT_EQ(hakit_ha_dispatch(msg), -1);
    EXPECT_EQ(mbus_opc_get(msg), 0x70001u);
    mbus_drop(queue, msg);
}

TEST_F(ContractServices, TellsTheRoleAndTheHeartbeat)
{
    EXPECT_EQ(svcmgr_supstate_get(), 1);
    EXPECT_TRUE(svcmgr_conditional_srv_was_handshake_done());
    EXPECT_GE(svcmgr_heartbeat_timeout_get(), 1000u) << "a process beats in whole seconds";
    svcmgr_heartbeat(1);
    svcmgr_heartbeat(0);
}

TEST_F(ContractServices, StopsTheProcessInOrderWhenItAsksForIt)
{
    EXPECT_EQ(svcmgr_conditional_srv_cleanup(0), 0);
    EXPECT_TRUE(dispatched_until([] { return !cleanups.empty(); }));
}

TEST_F(ContractServices, NamesTheServicesItKnows)
{
    EXPECT_STREQ(hakit_get_name_from_uuid(SVC_RTAB), "rtab");
    EXPECT_STREQ(hakit_get_name_from_uuid(SVC_CMDSRV), "cmdsrv");
    EXPECT_STREQ(hakit_get_name_from_uuid(9999), "unknown");
    EXPECT_TRUE(hakit_is_chassis_ferrix());
}

// ---- timers

std::vector<int> fired;
std::vector<bool> fired_under_lock;

void fire(void *argument)
{
    plock_assert_held();
    fired.push_back(*static_cast<int *>(argument));
}

class ContractTimers : public ContractTest {
protected:
    ContractTimers()
    {
        fired.clear();
        EXPECT_TRUE(active_timer_init(0));
        set = active_timer_new_set_init(8);
        EXPECT_NE(set, 0);
    }
    ~ContractTimers() override
    {
        for (const active_timer t : made)
            active_timer_delete(t);
    }
    active_timer create(int &number)
    {
        made.push_back(active_timer_create(set, 9, fire, &number));
        EXPECT_NE(made.back(), 0u);
        return made.back();
    }
    std::uint8_t set = 0;
    std::vector<active_timer> made;
    int one = 1, two = 2, three = 3;
};

TEST_F(ContractTimers, FireOnceEachInTheOrderOfTheirTimes)
{
    active_timer_start(create(two), 0, 80, 0, 0);
    active_timer_start(create(one), 0, 20, 0, 0);
    active_timer_start(create(three), 0, 100, 40'000, 0);
    EXPECT_TRUE(eventually([] { return fired.size() == 3; }));
    EXPECT_THAT(fired, ElementsAre(1, 2, 3));
    let_pass(milliseconds(150));
    EXPECT_EQ(fired.size(), 3u);
}

TEST_F(ContractTimers, AllZeroExpiresAtOnceButNotInsideTheStart)
{
    active_timer_start(create(one), 0, 0, 0, 0);
    EXPECT_THAT(fired, IsEmpty()) << "the lock is held here";
    EXPECT_TRUE(eventually([] { return fired.size() == 1; }));
}

TEST_F(ContractTimers, ACancelledOrDeletedOneDoesNotFire)
{
    const active_timer cancelled = create(one), deleted = create(two);
    active_timer_start(cancelled, 0, 20, 0, 0);
    active_timer_start(deleted, 0, 20, 0, 0);
    active_timer_start(create(three), 0, 60, 0, 0);
    active_timer_cancel(cancelled);
    active_timer_delete(deleted);
    EXPECT_TRUE(eventually([] { return !fired.empty(); }));
    EXPECT_THAT(fired, ElementsAre(3));
}

TEST_F(ContractTimers, AStartedAgainOneFiresAtItsNewTime)
{
    const active_timer t = create(one);
    active_timer_start(t, 0, 20, 0, 0);
    active_timer_start(t, 0, 120, 0, 0);
    active_timer_start(create(two), 0, 60, 0, 0);
    EXPECT_TRUE(eventually([] { return fired.size() == 2; }));
    EXPECT_THAT(fired, ElementsAre(2, 1));
}

TEST_F(ContractTimers, ACallbackMayStartItsTimerAgain)
{
    static active_timer again;
    static int runs;
    runs = 0;
    again = active_timer_create(set, 9,
                                [](void *) {
                                    if (++runs < 3)
                                        active_timer_start(again, 0, 10, 0, 0);
                                },
                                nullptr);
    made.push_back(again);
    active_timer_start(again, 0, 10, 0, 0);
    EXPECT_TRUE(eventually([] { return runs == 3; }));
}

TEST_F(ContractTimers, TheClockMovesForwardWithThem)
{
    timestamp before, after;
    ASSERT_EQ(vemo_sys_mclock_get(before), 0);
    EXPECT_TRUE(timestamp_expired(before));
    EXPECT_FALSE(timestamp_expired({before.seconds + 1000, 0}));
    active_timer_start(create(one), 1, 0, 0, 0);
    ASSERT_TRUE(eventually([] { return !fired.empty(); }));
    ASSERT_EQ(vemo_sys_mclock_get(after), 0);
    EXPECT_GE(timestamp_elapsed(before).seconds, 1u);
    EXPECT_LT(timestamp_elapsed(before).seconds, 60u);
    EXPECT_EQ(timestamp_elapsed({after.seconds + 1000, 0}), timestamp{}) << "nothing has passed since the future";
}

// ---- process lock, threads

class ContractLock : public ContractTest {};

TEST_F(ContractLock, KeepsAnotherThreadOutUntilItIsGivenUp)
{
    std::atomic<bool> entered{false};
    std::thread other([&]() CORVANE_NO_TSA {
        plock_acquire_process_lock();
        entered = true;
        plock_release_process_lock();
    });
    std::this_thread::sleep_for(milliseconds(30));
    EXPECT_FALSE(entered);
    plock_before_yield();
    other.join();
    plock_after_yield();
    EXPECT_TRUE(entered);
}

TEST_F(ContractLock, YieldLetsEveryWaiterInOnce)
{
    std::atomic<int> waiting{0}, entered{0};
    const auto body = [&]() CORVANE_NO_TSA {
        ++waiting;
        plock_acquire_process_lock();
        ++entered;
        plock_release_process_lock();
    };
    std::thread a(body), b(body);
    while (waiting != 2)
        std::this_thread::yield();
    std::this_thread::sleep_for(milliseconds(30));           // both stand in the queue by now
    EXPECT_EQ(entered, 0);
    plock_sched_yield();
    EXPECT_EQ(entered, 2);
    a.join();
    b.join();
}

TEST_F(ContractLock, YieldWithoutWaitersComesBack)
{
    for (int i = 0; i < 1000; ++i)
        plock_sched_yield();
    (void)plock_sched_may_yield();
    plock_assert_held();
}

TEST_F(ContractLock, ThreadsRunUnderTheirNames)
{
    static char name[16];
    corvane_pthread_attr attr;
    corvane_pthread_attr_init(attr);
    pthread_t thread{};
    ASSERT_EQ(corvane_pthread_create(thread, &attr,
                                     [](void *argument) -> void * {
                                         pthread_getname_np(pthread_self(), name, sizeof name);
                                         return argument;
                                     },
                                     name, "lum-ipv6-udp-thread"),
              0);
    EXPECT_EQ(join(thread, "lum-ipv6-udp-thread"), name);
    EXPECT_STREQ(name, "lum-ipv6-udp-th") << "cut to what the system keeps";
}

// ---- memory

class ContractMemory : public ContractTest {
protected:
    static constexpr std::uint32_t MODULE = SERVICE, TYPE = 6;
    ContractMemory()
    {
        static constexpr std::array<const char *, 8> NAMES{"A", "B", "C", "D", "E", "F", "G", "H"};
        memacct_init("contract", MODULE, NAMES);
        memacct_ignore_alloc_abort(1);
    }
};

TEST_F(ContractMemory, IsZeroedAndAligned)
{
    for (const std::size_t size : {1u, 12u, 48u, 4096u, 52068u}) {
        auto *block = static_cast<std::uint8_t *>(memacct_alloc(MODULE, TYPE, size));
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t), 0u);
        EXPECT_TRUE(std::all_of(block, block + size, [](std::uint8_t b) { return b == 0; }));
        std::memset(block, 0xAA, size);
        memacct_free(MODULE, TYPE, block);
    }
}

TEST_F(ContractMemory, IsZeroAgainWhenItIsTakenAgain)
{
    for (std::size_t size = 0; size <= 5000; ++size)
        for (int time = 0; time < 2; ++time) {
            auto *block = static_cast<std::uint8_t *>(memacct_alloc(MODULE, TYPE, size));
            ASSERT_NE(block, nullptr);
            ASSERT_TRUE(std::all_of(block, block + size, [](std::uint8_t b) { return b == 0; })) << size;
            std::memset(block, 0xAA, size);
            memacct_free(MODULE, TYPE, block);
        }
}

TEST_F(ContractMemory, IsAccountedByTypeAndGivenBack)
{
    const memacct_usage before = memacct_usage_get(TYPE);
    void *block = memacct_alloc(MODULE, TYPE, 100);
    EXPECT_EQ(memacct_usage_get(TYPE).blocks, before.blocks + 1);
    EXPECT_GE(memacct_usage_get(TYPE).bytes, before.bytes + 100);
    memacct_free(MODULE, TYPE, block);
    EXPECT_EQ(memacct_usage_get(TYPE).blocks, before.blocks);
    EXPECT_EQ(memacct_usage_get(TYPE).bytes, before.bytes);
    memacct_free(MODULE, TYPE, nullptr);
}

TEST_F(ContractMemory, RefusesWhatIsBeyondTheTypesCap)
{
    const memacct_usage before = memacct_usage_get(TYPE);
    memacct_cap_set(TYPE, before.bytes + 1000);
    void *first = memacct_alloc(MODULE, TYPE, 800);
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(memacct_alloc(MODULE, TYPE, 800), nullptr);
    EXPECT_EQ(memacct_usage_get(TYPE).refused, before.refused + 1);
    void *other_type = memacct_alloc(MODULE, TYPE - 1, 800);
    EXPECT_NE(other_type, nullptr);
    memacct_free(MODULE, TYPE - 1, other_type);
    memacct_free(MODULE, TYPE, first);
    memacct_cap_set(TYPE, 0);
}

} // namespace
