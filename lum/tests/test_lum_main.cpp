#include "lum_test.h"

#include <csignal>

using namespace lum_test;

namespace {

// The whole process on the fake platform, from its command line to its exit status.
class LumProcessMain : public FakePlatformTest {
protected:
    LumProcessMain()
    {
        plock_assert_held();
        reset_daemon();
        platform.set_facility(false);
        platform.threads_run = true;
        platform.joined_by_process = {"lum-ipc-thread"};
        platform.forget();
    }
    ~LumProcessMain() override
    {
        plock_assert_held();
        reset_daemon();
    }
    static int run(std::vector<std::string> words = {})
    {
        words.insert(words.begin(), "lum");
        std::vector<char *> argv;
        for (std::string &word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        return lum_process_main(static_cast<int>(words.size()), argv.data());
    }
    // Names of the calls, without those of the main loop and the locks, which come at times of their own.
    static std::vector<std::string> steps()
    {
        std::vector<std::string> names;
        for (const fake::call_record &call : platform.calls)
            if (!call.name.starts_with("plock_a") && !call.name.starts_with("plock_r") && call.name != "mbus_recv" &&
                call.name != "vemo_sys_mclock_get")
                names.push_back(call.text());
        return names;
    }
};

TEST_F(LumProcessMain, StartsInItsFixedOrderAndEndsInOrder)
{
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(steps(),
                ElementsAreArray(
                    {"hakit_evhist_init(3440, lum, Lumivar, 121, LUM)", "plock_proc_attr_init()",
                     "plock_init_proc(581)", "memacct_init(Lumivar, 581, 8)", "memacct_ignore_alloc_abort(1)",
                     "mbus_bind(442, LUM MBUS queue)", "mbus_options_set(1, 62471, 16)",
                     "mbus_options_set(1, 23564, 17)", "mbus_options_set(1, 78862, 3)",
                     "mbus_options_set(1, 78858, 17)", "mbus_options_set(1, 78859, 17)", "active_timer_init(0)",
                     "active_timer_new_set_init(4)", "active_timer_new_set_init(8)", "active_timer_create(2, 9)",
                     "active_timer_start(1, 15, 0, 0)", "hakit_ha_register_pstore(1, data)",
                     "hakit_ha_register_sdb(2, lum_sdb_info, 78861, 78862)", "hakit_ha_api_init()",
                     "svcmgr_handshake(1, 581)", "active_timer_create(1, 5)", "svcmgr_heartbeat(1)",
                     "active_timer_start(2, 0, 0, 0)", "svcmgr_query_srv_hs_state(582)",
                     "svcmgr_query_srv_hs_state(267)", "svcmgr_query_srv_hs_state(269)",
                     "svcmgr_query_srv_hs_state(271)", "svcmgr_query_srv_hs_state(318)",
                     "svcmgr_query_srv_hs_state(263)", "svcmgr_query_srv_hs_state(445)",
                     "svcmgr_query_srv_hs_state(286)", "svcmgr_query_srv_hs_state(261)",
                     "corvane_pthread_attr_init()", "corvane_pthread_create(lum-ipc-thread)", "cli_exit_thread()",
                     "hakit_ha_api_close()", "mbus_unbind(1, 0)", "hakit_evhist_close()"}));
    EXPECT_THAT(platform.syslog_texts(), ElementsAre("<<%LUM-6-SHUTDOWN>> Shutting down LUM process start",
                                                     "<<%LUM-6-SHUTDOWN>> Shutting down LUM process done"));
}

// How many bytes of a key a tree with these attributes compares.
std::size_t key_bytes(pt_attr attr)
{
    pt_tree tree{};
    pt_init(tree, attr);
    std::array<std::uint8_t, 64> key{};
    int record = 0;
    EXPECT_TRUE(pt_insert(tree, key.data(), &record));
    std::size_t length = 0;
    for (; length < key.size(); ++length) {
        key.fill(0);
        key[length] = 1;
        if (pt_find(tree, key.data()) != nullptr)
            break;
    }
    pt_destroy(tree);
    return length;
}

TEST_F(LumProcessMain, FillsItsTablesBeforeTheMainThreadRuns)
{
    platform.now = {2000, 999'999'999};
    lum_svr.site_vlan = 9;
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(lum_chassis_ferrix, 1u);
    EXPECT_EQ(lum_sup_state_active, 1u);
    EXPECT_EQ(lum_ip_encap[0], 0x45);
    EXPECT_EQ(key_bytes(lum_pt_attr), 4u);
    EXPECT_EQ(key_bytes(lum_svr.pt_attr10), 10u);
    EXPECT_EQ(key_bytes(lum_svr.pt_attr4), 4u);
    EXPECT_EQ(key_bytes(lum_svr.pt_attr16), 16u);
    EXPECT_EQ(lum_svr.site_vlan, 0u);
    EXPECT_EQ(lum_next_age_time, (timestamp{2120, 999'999'999}));
    EXPECT_EQ(platform.ha_params.switchover, &lum_switchover);
    EXPECT_EQ(platform.ha_params.switchover_done, &lum_switchover_done);
    EXPECT_NE(lum_sdb_handle, 0u);
}

TEST_F(LumProcessMain, CarriesTheNanosecondsOfTheAgeingTimeIntoItsSeconds)
{
    platform.now = {2000, 1'000'000'500};
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(lum_next_age_time, (timestamp{2121, 500}));
}

TEST_F(LumProcessMain, BindsAMainQueueOf1024Messages)
{
    EXPECT_TRUE(lum_init_mbus());
    for (int message = 0; message < 1024; ++message)
        platform.deliver(442, 0x13806);
    EXPECT_THROW(platform.deliver(442, 0x13806), std::logic_error);
}

TEST_F(LumProcessMain, KnowsItsMainThreadFromItsStartToItsEnd)
{
    plock_assert_held();
    platform.threads_run = false;
    EXPECT_TRUE(lum_init());
    EXPECT_EQ(lum_ipc_thread_exists, 1u);
    reset_daemon();
    platform.reset();
    platform.threads_run = true;
    platform.joined_by_process = {"lum-ipc-thread"};
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(lum_ipc_thread_exists, 0u);
}

TEST_F(LumProcessMain, HoldsTheLockWhileItInitialisesAndGivesItUpForTheJoin)
{
    EXPECT_EQ(run(), 0);
    for (const char *name : {"mbus_bind", "active_timer_init", "svcmgr_handshake", "cli_exit_thread"})
        EXPECT_TRUE(platform.calls_of(name).front().lock_held) << name;
    for (const fake::call_record &receive : platform.calls_of("mbus_recv"))
        EXPECT_FALSE(receive.lock_held);
}

TEST_F(LumProcessMain, GoesOnWithoutTheEventHistoryAndSaysSo)
{
    platform.fail("hakit_evhist_init");
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "LUM: Failed to initialize hakit_evhist_init()");
    EXPECT_EQ(platform.called("corvane_pthread_create"), 1u);
}

TEST_F(LumProcessMain, EndsWithStatus255WhenThePriorityCannotBeSet)
{
    platform.sched_policy = 1;
    platform.fail("hakit_set_sched_policy_priority");
    EXPECT_EQ(run(), 255);
    EXPECT_THAT(platform.syslog_texts(),
                ElementsAre("<<%LUM-3-NO_SET_PRIORITY>> Failed to set policy or priority"));
    EXPECT_EQ(platform.called("plock_init_proc"), 0u);
}

TEST_F(LumProcessMain, SetsItsPriorityOnlyWhenRealTimeSchedulingIsWanted)
{
    platform.fail_always("hakit_set_sched_policy_priority");
    EXPECT_EQ(run(), 0);
    plock_assert_held();
    reset_daemon();
    platform.succeed("hakit_set_sched_policy_priority");
    platform.sched_policy = 1;
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(platform.call_texts({"hakit_set_sched_policy_priority"}),
                ElementsAre("hakit_set_sched_policy_priority(1, 13)"));
}

TEST_F(LumProcessMain, LogsItsUsageAndEndsWithStatusOneForHelp)
{
    EXPECT_EQ(run({"-h"}), 1);
    EXPECT_THAT(platform.syslog_texts(),
                ElementsAre("<<%LUM-6-USAGE>> Usage: lum [-h] [-d] [-m <memory-in-mb>]",
                            "<<%LUM-3-API_FAILED>> cmdopt_dispatch() failed"));
    EXPECT_EQ(platform.called("plock_init_proc"), 0u);
}

TEST_F(LumProcessMain, RefusesTheOptionThatItsUsageAdvertises)
{
    EXPECT_EQ(run({"-m", "64"}), 1);
    EXPECT_EQ(run({"-x"}), 1);
    EXPECT_EQ(run({"stray"}), 1);
}

TEST_F(LumProcessMain, TakesATagThatChangesNothingButATraceLine)
{
    EXPECT_EQ(run({"-d", "-t", "anything"}), 0);
    EXPECT_TRUE(platform.traced("Tag is anything\n"));
    reset_daemon();
    platform.forget();
    EXPECT_EQ(run({"-t", "anything"}), 0);
    EXPECT_FALSE(platform.traced("Tag is anything\n"));
}

TEST_F(LumProcessMain, DoesNotTraceItsStartEvenWithTheDebugOption)
{
    EXPECT_EQ(run({"-d"}), 0);
    EXPECT_EQ(lum_internal_debug_flag, 1u);
    for (const std::string &text : platform.trace_texts())
        EXPECT_EQ(text.find("Starting LUM process"), std::string::npos) << text;
}

TEST_F(LumProcessMain, TracesEachStepInOrderUnderTheDebugOption)
{
    EXPECT_EQ(run({"-d"}), 0);
    EXPECT_THAT(platform.trace_texts(),
                ElementsAre("PLOCK lock initialized", "memacct initialized", "MBUS initialized",
                            "Registered for MBUS messages", "Initialized with timer library", "PSTORE initialized",
                            "Stateful HA initialized", "Draining MBUS lum_mbus_q\n", "Starting LUM cleanup",
                            "Done LUM cleanup"));
}

TEST_F(LumProcessMain, EndsQuietlyWithStatusZeroWithoutTheProcessLock)
{
    for (const char *call : {"plock_proc_attr_init", "plock_init_proc"}) {
        platform.forget();
        platform.fail(call);
        EXPECT_EQ(run(), 0);
        EXPECT_THAT(platform.syslog_texts(), ElementsAre("<<%LUM-3-API_FAILED>> plock_init_proc() failed"));
        EXPECT_EQ(platform.called("mbus_bind"), 0u);
    }
}

struct failing_step {
    const char *call;
    std::size_t nth;
    std::vector<std::string> logged;
};

TEST_F(LumProcessMain, CleansUpAndEndsWithStatus255WhenAStepFails)
{
    const failing_step rows[] = {
        {"pt_attr_create", 1, {}},
        {"mbus_bind",
         1,
         {"<<%LUM-3-MBUS_BIND>> Error returned from mbus_bind() for main mbus-q mbus queue, errno: Address already in "
          "use"}},
        {"mbus_options_set", 1, {}},
        {"mbus_options_set", 5, {}},
        {"avlt_init", 1, {"<<%LUM-3-INIT_FAIL>> Initialization failure: overlay avlt init"}},
        {"active_timer_init", 1, {"<<%LUM-3-TIMER_FAILED>> could not start timer thread"}},
        {"active_timer_new_set_init", 1, {"<<%LUM-3-TIMER_FAILED>> could not initialize wheel timer set"}},
        {"active_timer_new_set_init", 2, {"<<%LUM-3-TIMER_FAILED>> could not initialize heap timer set"}},
        {"active_timer_create", 1, {"<<%LUM-3-API_FAILED>> active_timer_create() for lum_learn_timer failed"}},
        {"hakit_ha_register_pstore",
         1,
         {"<<%LUM-3-API_FAILED>> Could not register PSTORE with hakit_ha failed"}},
        {"hakit_ha_api_init", 1, {"<<%LUM-3-API_FAILED>> hakit_ha_api_init() failed"}},
        {"corvane_pthread_create", 1, {"<<%LUM-3-PTHREAD_FAILED>> pthread_create() failed for lum_main()"}},
    };
    for (const failing_step &row : rows) {
        SCOPED_TRACE(std::string(row.call) + ' ' + std::to_string(row.nth));
        reset_daemon();
        platform.reset();
        platform.set_facility(false);
        platform.fail(row.call, row.nth, EADDRINUSE);
        EXPECT_EQ(run(), 255);
        std::vector<std::string> expected = row.logged;
        expected.insert(expected.end(), {"<<%LUM-3-API_FAILED>> lum_init() failed",
                                         "<<%LUM-6-SHUTDOWN>> Shutting down LUM process start",
                                         "<<%LUM-6-SHUTDOWN>> Shutting down LUM process done"});
        EXPECT_EQ(platform.syslog_texts(), expected);
        EXPECT_EQ(platform.queue_of(442), MBUS_Q_INVALID);
        EXPECT_EQ(platform.called("plock_release_process_lock"), platform.called("plock_acquire_process_lock"));
    }
}

TEST_F(LumProcessMain, NamesTheNextOpcodeWhenTheDatabasesCannotBeRegistered)
{
    platform.fail("mbus_options_set", 3, EINVAL);
    EXPECT_EQ(run({"-d"}), 255);
    EXPECT_TRUE(platform.traced("ERROR: Could not register opcode 0x1340a, reason Invalid argument"));
}

TEST_F(LumProcessMain, NamesTheOpcodeThatCannotBeRegistered)
{
    const char *opcodes[] = {"0xf407", "0x5c0c", nullptr, "0x1340a", "0x1340b"};
    for (std::size_t nth = 1; nth <= 5; ++nth) {
        if (opcodes[nth - 1] == nullptr)
            continue;
        reset_daemon();
        platform.forget();
        platform.fail("mbus_options_set", nth, EINVAL);
        EXPECT_EQ(run({"-d"}), 255);
        EXPECT_TRUE(platform.traced("ERROR: Could not register opcode " + std::string(opcodes[nth - 1]) +
                                    ", reason Invalid argument"));
    }
}

TEST_F(LumProcessMain, StartsItsMainThreadAlsoWhenTheHandshakeFailed)
{
    platform.fail("svcmgr_handshake");
    platform.handshake_done = false;
    platform.condition_verified = true;
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(platform.syslog_texts(), Contains("<<%LUM-3-API_FAILED>> lum_init_svcmgr() failed"));
    EXPECT_EQ(platform.called("corvane_pthread_create"), 1u);
    EXPECT_THAT(platform.heartbeats, IsEmpty());
}

TEST_F(LumProcessMain, WantsAHandshakeOnlyWhereTheConditionIsVerified)
{
    platform.handshake_done = false;
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(platform.heartbeats, ElementsAre(1));
}

TEST_F(LumProcessMain, GoesOnWithoutItsHeartbeatTimer)
{
    platform.fail("active_timer_create", 2);
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(platform.syslog_texts(),
                Contains("<<%LUM-3-API_FAILED>> active_timer_create in lum_init_svcmgr() failed"));
    EXPECT_THAT(platform.syslog_texts(), Contains("<<%LUM-3-API_FAILED>> lum_init_svcmgr() failed"));
    EXPECT_THAT(platform.heartbeats, IsEmpty());
}

TEST_F(LumProcessMain, AsksAsStandbyForTheCommandServerOnly)
{
    platform.supervisor_active = false;
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(platform.service_queries, ElementsAre(261));
    EXPECT_EQ(lum_sup_state_active, 0u);
}

TEST_F(LumProcessMain, SurvivesSignalThree)
{
    EXPECT_EQ(run(), 0);
    struct sigaction installed {};
    ASSERT_EQ(sigaction(SIGQUIT, nullptr, &installed), 0);
    EXPECT_NE(installed.sa_handler, SIG_DFL);
    EXPECT_NE(installed.sa_handler, SIG_IGN);
    std::raise(SIGQUIT);
}

TEST_F(LumProcessMain, ForwardsOnlyTheClockErrorOfTheAgeingTime)
{
    platform.fail("vemo_sys_mclock_get");
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(lum_next_age_time, timestamp{});
}

TEST(LumCheckSupState, TracesReasonAndRoleWhenDebuggingIsOn)
{
    platform.reset();
    lum_internal_debug_flag = 1;
    lum_check_sup_state();
    EXPECT_TRUE(platform.traced("Starting LUM process, " + std::string(hakit_start_type_str(platform.start_reason)) +
                                " on active Supervisor\n"));
    platform.supervisor_active = false;
    lum_check_sup_state();
    EXPECT_TRUE(platform.traced("Starting LUM process, " + std::string(hakit_start_type_str(platform.start_reason)) +
                                " on standby Supervisor\n"));
    lum_internal_debug_flag = 0;
    platform.reset();
}

TEST(LumMemTypes, AreFoundByValue)
{
    EXPECT_STREQ(__lum_mem_type_t_find(0), "LUM_MEM_TYPE_NONE");
    EXPECT_STREQ(__lum_mem_type_t_find(4), "LUM_MEM_TYPE_PACKET");
    EXPECT_STREQ(__lum_mem_type_t_find(7), "LUM_MEM_TYPE_ADJ");
    EXPECT_STREQ(__lum_mem_type_t_find(8), "LUM_MEM_TYPE_MAX");
    EXPECT_EQ(__lum_mem_type_t_find(9), nullptr);
}

TEST(LumMemTypes, AreFoundByNameInUpperAndLowerCase)
{
    EXPECT_EQ(__lum_mem_type_t_str2enum("LUM_MEM_TYPE_ARP_ND_CACHE"), LUM_MEM_TYPE_ARP_ND_CACHE);
    EXPECT_EQ(__lum_mem_type_t_str2enum("lum_mem_type_max"), LUM_MEM_TYPE_MAX);
    EXPECT_EQ(__lum_mem_type_t_str2enum("LUM_MEM_TYPE"), LUM_MEM_TYPE_NONE);
    EXPECT_EQ(__lum_mem_type_t_str2enum(""), LUM_MEM_TYPE_NONE);
}

} // namespace
