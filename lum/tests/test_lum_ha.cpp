#include "lum_test.h"

#include "svcmgr.h"

#include <csignal>

using namespace lum_test;

namespace {

class LumHa : public LumTest {
protected:
    LumHa()
    {
        lum_internal_debug_flag = 1;
        lum_net_l2_handle = 0;
    }
};

TEST_F(LumHa, AnswersAHotSwitchoverAsDoneWithoutDisablingAnything)
{
    EXPECT_EQ(platform.svcmgr_switchover(true, false), 0);
    EXPECT_FALSE(platform.ha_disabled);
    EXPECT_THAT(platform.call_texts(), ElementsAre("svcmgr_switchover_done(1, 0)"));
    EXPECT_THAT(platform.trace_texts(),
                ElementsAre("Received hot SUP switchover message\n", "Switchover recovery done"));
}

TEST_F(LumHa, DisablesAllStateWhenTheSequenceNumbersDiffer)
{
    EXPECT_EQ(platform.svcmgr_switchover(false, true), 0);
    EXPECT_TRUE(platform.ha_disabled);
    EXPECT_THAT(platform.call_names(), ElementsAre("hakit_ha_disable_all", "svcmgr_switchover_done"));
    EXPECT_THAT(platform.trace_texts(),
                ElementsAre("Received cold SUP switchover message\n", "Switchover sequence number mismatch",
                            "Switchover recovery done"));
}

TEST_F(LumHa, RecoversFiveServicesInTheirOrderAndReportsRecoveryDone)
{
    EXPECT_EQ(lum_switchover(), 0);
    EXPECT_EQ(lum_sup_state_recovery_wait, 1u);
    EXPECT_EQ(lum_sup_state_active, 0u);
    EXPECT_THAT(platform.call_texts({"rtab_api_init", "ip_register", "ipv6_api_init", "intfmgr_ext_sbcr_init",
                                     "net_l2_register", "hakit_ha_recovery_done"}),
                ElementsAre(::testing::StartsWith("rtab_api_init"), ::testing::StartsWith("ipv6_api_init"),
                            ::testing::StartsWith("intfmgr_ext_sbcr_init"), ::testing::StartsWith("net_l2_register"),
                            ::testing::StartsWith("ip_register"), "hakit_ha_recovery_done(0)"));
    EXPECT_EQ(lum_udp_initialized + lum_vrfmgr_initialized + lum_igmp_initialized, 0u);
    EXPECT_EQ(platform.trace_texts().front(), "Received switchover message from svcmgr\n");
}

TEST_F(LumHa, GivesTheKitTheResultOfItsRecovery)
{
    platform.fail("hakit_ha_recovery_done", 1, EBUSY);
    EXPECT_EQ(lum_switchover(), EBUSY);
}

TEST_F(LumHa, BringsIgmpUpOnlyWithTheQueryAfterTheSwitchover)
{
    lum_switchover();
    EXPECT_EQ(lum_igmp_initialized, 0u);
    lum_switchover_done();
    EXPECT_EQ(lum_sup_state_active, 1u);
    EXPECT_THAT(platform.service_queries, ElementsAre(582, 267, 269, 271, 318, 263, 445, 286, 261));
    EXPECT_TRUE(platform.traced("Received LUM switchover messages from svcmgr\n"));
    svcmgrcb_srv_hs_state_query(LUM_SERVICE, SVC_IGMP, 0, 1);
    EXPECT_EQ(lum_igmp_initialized, 1u);
}

TEST_F(LumHa, StartsAnOrderlyStopByPuttingItsQueueIntoPreUnbindState)
{
    EXPECT_EQ(platform.cleanup_start(1), 0);
    EXPECT_TRUE(mbus_is_pre_unbind(lum_mbus_q));
    EXPECT_THAT(platform.trace_texts(),
                ElementsAre("Conditional service cleanup start, reason " + std::string(hakit_stop_type_str(1))));
}

TEST_F(LumHa, LogsAShutdownRequestThatFailed)
{
    EXPECT_EQ(platform.cleanup_status(0), 0);
    EXPECT_THAT(platform.syslog, IsEmpty());
    EXPECT_EQ(platform.cleanup_status(5), 0);
    EXPECT_THAT(platform.syslog_texts(), ElementsAre("<<%LUM-6-SHUTDOWN_REQUEST_FAIL>> LUM shutdown request failed, " +
                                                     std::string(hakit_syserr2str(5))));
    EXPECT_THAT(platform.trace_texts(),
                ElementsAre("Conditional service cleanup status 0", "Conditional service cleanup status 5"));
}

TEST_F(LumHa, AnswersAFeatureEnableRequestAndReportsItsStatus)
{
    mbus_msg msg = platform.message(0x22DD);
    EXPECT_EQ(lum_dispatch(msg), 0);
    const std::string queue = std::to_string(lum_mbus_q);
    EXPECT_THAT(platform.call_texts(), ElementsAre("featmgr_rsp_feature_req(" + queue + ", 8925, 0)",
                                                   "featmgr_notify_feature_status(" + queue + ", 581, 1, 0)"));
    EXPECT_THAT(platform.trace_texts(), ElementsAre("Feature enable request received\n"));
}

TEST_F(LumHa, AnswersAFeatureDisableRequestBeforeItAsksForItsOwnStop)
{
    EXPECT_TRUE(lum_init_svcmgr());
    platform.forget();
    mbus_msg msg = platform.message(0x22DE);
    EXPECT_EQ(lum_dispatch(msg), 0);
    EXPECT_THAT(platform.call_names(), ElementsAre("featmgr_rsp_feature_req", "svcmgr_conditional_srv_cleanup"));
    EXPECT_EQ(platform.trace_texts().front(), "Feature disable request received\n");
    lum_main(nullptr);                                       // the stop arrives, and the loop ends
    EXPECT_TRUE(mbus_is_pre_unbind(lum_mbus_q));
    EXPECT_EQ(platform.waiting(442), 0u);
}

using LumCleanup = LumHa;

TEST_F(LumCleanup, ClosesTheClientsThatAreUpInTheirOrder)
{
    lum_sup_state_active = 1;
    for (const std::uint32_t service : {SVC_RTAB, SVC_IPV6, SVC_PKTMGR, SVC_UDP, SVC_VRFMGR, SVC_IGMP})
        platform.service_up(service);
    const std::string main = std::to_string(lum_mbus_q), packet = std::to_string(lum_pm_mbus_q);
    platform.forget();
    lum_cleanup();
    EXPECT_THAT(platform.call_texts(),
                ElementsAre("cli_exit_thread()", "hakit_ha_api_close()", "rtab_api_close()", "ip_api_close(41)",
                            "ipv6_api_close(61)", "net_l2_unregister(71)", "mbus_unbind(" + main + ", 0)",
                            "mbus_unbind(" + packet + ", 0)"));
    EXPECT_EQ(lum_mbus_q, MBUS_Q_INVALID);
    EXPECT_EQ(lum_pm_mbus_q, MBUS_Q_INVALID);
    EXPECT_THAT(platform.syslog_texts(), ElementsAre("<<%LUM-6-SHUTDOWN>> Shutting down LUM process start",
                                                     "<<%LUM-6-SHUTDOWN>> Shutting down LUM process done"));
    EXPECT_THAT(platform.trace_texts(), ElementsAre("Starting LUM cleanup", "Done LUM cleanup"));
}

TEST_F(LumCleanup, ClosesNothingThatIsNotUp)
{
    lum_mbus_q = MBUS_Q_INVALID;
    lum_cleanup();
    EXPECT_THAT(platform.call_names(), ElementsAre("cli_exit_thread", "hakit_ha_api_close"));
}

TEST_F(LumCleanup, ClosesNothingTwice)
{
    lum_sup_state_active = 1;
    platform.service_up(SVC_RTAB);
    lum_cleanup();
    platform.forget();
    lum_cleanup();
    EXPECT_THAT(platform.call_names(), ElementsAre("cli_exit_thread", "hakit_ha_api_close"));
}

TEST_F(LumCleanup, SignalsTheMainThreadOnlyWhileItExists)
{
    static volatile std::sig_atomic_t signals;
    signals = 0;
    struct sigaction counting {}, before {};
    counting.sa_handler = [](int) { signals = signals + 1; };
    ASSERT_EQ(sigaction(SIGQUIT, &counting, &before), 0);
    lum_ipc_thread = pthread_self();
    lum_cleanup();
    EXPECT_EQ(signals, 0);
    lum_ipc_thread_exists = 1;
    lum_cleanup();
    EXPECT_EQ(signals, 1);
    sigaction(SIGQUIT, &before, nullptr);
}

TEST_F(LumCleanup, EndsThePacketThreadAlthoughItsQueueIsGone)
{
    lum_sup_state_active = 1;
    platform.service_up(SVC_PKTMGR);
    lum_cleanup();
    EXPECT_EQ(platform.run_thread("lum-pm-thread"), nullptr);
}

} // namespace
