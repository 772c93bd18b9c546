#include "lum_test.h"

#include "svcmgr.h"

using namespace lum_test;

namespace {

constexpr std::uint32_t ALL_SERVICES[] = {SVC_CMDSRV, SVC_RTAB,   SVC_IP,     SVC_IPV6,   SVC_INTFMGR,
                                          SVC_PKTMGR, SVC_VRFMGR, SVC_IGMP,   SVC_UDP};

class LumClients : public LumTest {
protected:
    LumClients()
    {
        lum_sup_state_active = 1;
        lum_net_l2_handle = 0;
        lum_ip_client = lum_ipv6_client = 0;
        lum_internal_debug_flag = 0;
    }
    static std::string failed(const char *call) { return "<<%LUM-3-API_FAILED>> " + std::string(call) + " failed"; }
};

using LumProcessSvcmgrNotifyUp = LumClients;

TEST_F(LumProcessSvcmgrNotifyUp, RegistersTheCommandsWhenTheCommandServerIsUp)
{
    platform.service_up(SVC_CMDSRV);
    EXPECT_EQ(lum_cli_initialized, 1u);
    platform.fail("cli_init");
    lum_cli_initialized = 0;
    lum_internal_debug_flag = 1;
    platform.service_up(SVC_CMDSRV);
    EXPECT_THAT(platform.syslog_texts(), ElementsAre(failed("rtab_cli_init()")));
    EXPECT_THAT(platform.traces, IsEmpty());                 // the report ends here
}

TEST_F(LumProcessSvcmgrNotifyUp, SetsUpTheRouteTableClient)
{
    platform.service_up(SVC_RTAB);
    EXPECT_EQ(lum_rtab_initialized, 1u);
    EXPECT_THAT(platform.call_texts({"rtab_api_init"}),
                ElementsAre("rtab_api_init(" + std::to_string(lum_mbus_q) + ", lum, 6)"));
}

TEST_F(LumProcessSvcmgrNotifyUp, SetsUpIpv6)
{
    platform.service_up(SVC_IPV6);
    EXPECT_EQ(lum_ipv6_initialized, 1u);
    EXPECT_THAT(platform.call_texts({"ipv6_register"}),
                ElementsAre("ipv6_register(lum, " + std::to_string(lum_pm_mbus_q) + ", " + std::to_string(lum_mbus_q) +
                            ", 0, 65535, 61, 0, 0)"));
}

TEST_F(LumProcessSvcmgrNotifyUp, SetsUpIpv4OnlyBehindThePacketManager)
{
    platform.service_up(SVC_IP);
    EXPECT_EQ(platform.called("ip_api_init"), 0u);
    EXPECT_EQ(lum_ip_initialized, 0u);
    platform.service_up(SVC_PKTMGR);
    EXPECT_EQ(lum_pm_initialized, 1u);
    EXPECT_EQ(lum_ip_initialized, 1u);
    EXPECT_THAT(platform.call_texts({"ip_register"}),
                ElementsAre("ip_register(lum, " + std::to_string(platform.queue_of(440)) + ", " +
                            std::to_string(lum_mbus_q) + ", 0, 65535, 41, 0, 0)"));
    platform.service_up(SVC_IP);
    EXPECT_EQ(platform.called("ip_api_init"), 1u);
}

TEST_F(LumProcessSvcmgrNotifyUp, TriesIpv4AgainWithItsOwnReportOnly)
{
    platform.fail("ip_api_init");
    platform.service_up(SVC_PKTMGR);
    EXPECT_THAT(platform.syslog_texts(), ElementsAre(failed("ip_api_init()"), failed("lum_init_ip()")));
    platform.forget();
    platform.service_up(SVC_PKTMGR);
    EXPECT_THAT(platform.calls, IsEmpty());
    EXPECT_EQ(lum_ip_initialized, 0u);
    platform.service_up(SVC_IP);
    EXPECT_EQ(lum_ip_initialized, 1u);
}

TEST_F(LumProcessSvcmgrNotifyUp, GivesTheIpv4ClientBackWhenItCannotRegister)
{
    platform.fail("ip_register");
    platform.service_up(SVC_PKTMGR);
    EXPECT_THAT(platform.syslog_texts(), ElementsAre(failed("ip_register()"), failed("lum_init_ip()")));
    EXPECT_THAT(platform.call_texts({"ip_api_close"}), ElementsAre("ip_api_close(41)"));
    EXPECT_EQ(lum_pm_initialized, 1u);
    EXPECT_EQ(lum_ip_initialized, 0u);
}

TEST_F(LumProcessSvcmgrNotifyUp, LeavesIpv4AloneWhenThePacketManagerCannotBeSetUp)
{
    platform.fail("net_l2_register");
    platform.service_up(SVC_PKTMGR);
    platform.service_up(SVC_IP);
    EXPECT_EQ(platform.called("ip_api_init"), 0u);
}

TEST_F(LumProcessSvcmgrNotifyUp, BindsThePacketQueueRegistersForFramesAndStartsItsThread)
{
    platform.service_up(SVC_PKTMGR);
    EXPECT_THAT(platform.call_texts({"mbus_bind", "net_l2_register", "corvane_pthread_create"}),
                ElementsAre("mbus_bind(440, LUM-packet)",
                            "net_l2_register(581, " + std::to_string(lum_pm_mbus_q) + ", 440, 0)",
                            "corvane_pthread_create(lum-pm-thread)"));
    EXPECT_EQ(lum_net_l2_handle, 71u);
}

TEST_F(LumProcessSvcmgrNotifyUp, SubscribesToTheInterfaceManagersNotifications)
{
    platform.service_up(SVC_INTFMGR);
    EXPECT_EQ(lum_ifmgr_initialized, 1u);
    const std::string queue = std::to_string(lum_mbus_q);
    EXPECT_THAT(platform.call_texts({"intfmgr_ext_sbcr_init", "mbus_options_set"}),
                ElementsAre("intfmgr_ext_sbcr_init(581, " + queue + ", lum)",
                            "mbus_options_set(" + queue + ", 62472, 16)", "mbus_options_set(" + queue + ", 62467, 16)",
                            "mbus_options_set(" + queue + ", 62468, 16)",
                            "mbus_options_set(" + queue + ", 62484, 16)"));
}

TEST_F(LumProcessSvcmgrNotifyUp, ReportsAFailedSubscription)
{
    platform.fail("mbus_options_set", 3, ENOTCONN);
    platform.service_up(SVC_INTFMGR);
    EXPECT_EQ(lum_ifmgr_initialized, 0u);
    EXPECT_THAT(platform.syslog_texts(),
                ElementsAre("<<%LUM-3-MBUS_REG>> Error returned from mbus register for opcode 0xf404, error: "
                            "Transport endpoint is not connected",
                            failed("lum_init_ifmgr()")));
}

TEST_F(LumProcessSvcmgrNotifyUp, ReportsARefusedSubscriberWithCodeAndText)
{
    platform.fail("intfmgr_ext_sbcr_init");
    platform.service_up(SVC_INTFMGR);
    ASSERT_THAT(platform.syslog, SizeIs(2));
    EXPECT_EQ(platform.syslog[0].tag, "SUBCR_INIT");
    EXPECT_THAT(platform.syslog[0].text,
                ::testing::MatchesRegex("<<%LUM-3-SUBCR_INIT>> Could not initialize shared database client for "
                                        "interfaces rc=0x[0-9a-f]+ \\[.+\\]"));
    EXPECT_EQ(platform.syslog[1].text, failed("lum_init_ifmgr()"));
}

TEST_F(LumProcessSvcmgrNotifyUp, SetsUpTheRemainingClients)
{
    platform.service_up(SVC_VRFMGR);
    platform.service_up(SVC_IGMP);
    platform.service_up(SVC_UDP);
    EXPECT_EQ(lum_vrfmgr_initialized, 1u);
    EXPECT_EQ(lum_igmp_initialized, 1u);
    EXPECT_EQ(lum_udp_initialized, 1u);
    EXPECT_THAT(platform.syslog, IsEmpty());
}

struct failing_client {
    std::uint32_t service;
    const char *call;
    std::vector<std::string> logged;
    const std::uint32_t *flag;
};

TEST_F(LumProcessSvcmgrNotifyUp, ReportsAFailedClientAndTriesAgainAtItsNextReport)
{
    const failing_client rows[] = {
        {SVC_RTAB, "rtab_api_init", {failed("rtab_api_init()")}, &lum_rtab_initialized},
        {SVC_IPV6, "ipv6_api_init", {failed("ipv6_api_init()"), failed("lum_init_ipv6()")}, &lum_ipv6_initialized},
        {SVC_IPV6, "ipv6_register", {failed("ipv6_register()"), failed("lum_init_ipv6()")}, &lum_ipv6_initialized},
        {SVC_INTFMGR,
         "mbus_options_set",
         {"<<%LUM-3-MBUS_REG>> Error returned from mbus register for opcode 0xf408, error: Input/output error",
          failed("lum_init_ifmgr()")},
         &lum_ifmgr_initialized},
        {SVC_PKTMGR,
         "mbus_bind",
         {"<<%LUM-3-MBUS_BIND>> Error returned from mbus_bind() for LUM packet mbus-q mbus queue, errno: Input/output "
          "error",
          failed("lum_init_pm()")},
         &lum_pm_initialized},
        {SVC_PKTMGR,
         "net_l2_register",
         {failed("net_l2_register_uuid()"), failed("lum_init_pm()")},
         &lum_pm_initialized},
        {SVC_PKTMGR,
         "corvane_pthread_create",
         {"<<%LUM-3-PTHREAD_FAILED>> pthread_create() failed for lum_main()", failed("lum_init_pm()")},
         &lum_pm_initialized},
        {SVC_VRFMGR, "vrfmgr_api_init", {failed("vrfmgr_api_init()"), failed("lum_init_vrfmgr()")},
         &lum_vrfmgr_initialized},
        {SVC_IGMP, "igmp_api_init", {failed("igmp_api_init()"), failed("lum_init_igmp()")}, &lum_igmp_initialized},
        {SVC_UDP, "tcp_setup", {failed("tcp_setup()"), failed("lum_init_udp()")}, &lum_udp_initialized},
    };
    for (const failing_client &row : rows) {
        SCOPED_TRACE(row.call);
        platform.forget();
        const std::uint32_t up_before = *row.flag;
        ASSERT_EQ(up_before, 0u);
        platform.fail(row.call);
        platform.service_up(row.service);
        EXPECT_EQ(*row.flag, 0u);
        EXPECT_EQ(platform.syslog_texts(), row.logged);
        platform.forget();
        platform.service_up(row.service);
        EXPECT_EQ(*row.flag, 1u);
        EXPECT_THAT(platform.syslog, IsEmpty());
        if (row.service == SVC_PKTMGR || row.service == SVC_IPV6) {     // several rows each
            net_l2_unregister(lum_net_l2_handle);
            mbus_unbind(lum_pm_mbus_q, 0);
            lum_pm_mbus_q = MBUS_Q_INVALID;
            lum_net_l2_handle = 0;
            *const_cast<std::uint32_t *>(row.flag) = 0;
            lum_ip_initialized = 0;
        }
    }
}

TEST_F(LumProcessSvcmgrNotifyUp, KeepsThePacketQueueOfAFailedAttempt)
{
    platform.fail("net_l2_register");
    platform.service_up(SVC_PKTMGR);
    platform.service_up(SVC_PKTMGR);
    EXPECT_EQ(platform.called("mbus_bind"), 1u);
    EXPECT_EQ(lum_pm_initialized, 1u);
}

TEST_F(LumProcessSvcmgrNotifyUp, SetsUpOnAStandbyOnlyTheCommands)
{
    lum_sup_state_active = 0;
    lum_internal_debug_flag = 1;
    for (const std::uint32_t service : ALL_SERVICES)
        platform.service_up(service);
    EXPECT_EQ(lum_cli_initialized, 1u);
    EXPECT_EQ(lum_rtab_initialized + lum_ip_initialized + lum_ipv6_initialized + lum_udp_initialized +
                  lum_ifmgr_initialized + lum_pm_initialized + lum_vrfmgr_initialized + lum_igmp_initialized,
              0u);
    for (const std::string &text : platform.trace_texts())
        EXPECT_EQ(text.find("has come up"), std::string::npos) << text;
}

TEST_F(LumProcessSvcmgrNotifyUp, SetsUpEverythingWhileRecoveringFromASwitchover)
{
    lum_sup_state_active = 0;
    lum_sup_state_recovery_wait = 1;
    platform.service_up(SVC_RTAB);
    EXPECT_EQ(lum_rtab_initialized, 1u);
}

TEST_F(LumProcessSvcmgrNotifyUp, DoesNothingButTheTraceForAServiceWhoseClientIsUp)
{
    for (const std::uint32_t service : ALL_SERVICES)
        platform.service_up(service);
    platform.forget();
    lum_internal_debug_flag = 1;
    for (const std::uint32_t service : ALL_SERVICES)
        platform.service_up(service);
    EXPECT_THAT(platform.calls, IsEmpty());
    EXPECT_THAT(platform.trace_texts(),
                ElementsAre("cmdsrv has come up\n", "rtab has come up\n", "ip has come up\n", "ipv6 has come up\n",
                            "intfmgr has come up\n", "pktmgr has come up\n", "vrfmgr has come up\n",
                            "igmp has come up\n", "udp has come up\n"));
}

TEST_F(LumProcessSvcmgrNotifyUp, TracesNoNameForAServiceThatHasNone)
{
    lum_internal_debug_flag = 1;
    platform.service_up(9999);
    EXPECT_THAT(platform.traces, IsEmpty());
}

TEST_F(LumProcessSvcmgrNotifyUp, TakesAHandshakeQueryOnlyOnceTheHandshakeIsDone)
{
    EXPECT_EQ(svcmgrcb_srv_hs_state_query(LUM_SERVICE, SVC_RTAB, 0, 0), 0);
    EXPECT_EQ(lum_rtab_initialized, 0u);
    EXPECT_EQ(svcmgrcb_srv_hs_state_query(LUM_SERVICE, SVC_RTAB, 0, 1), 0);
    EXPECT_EQ(lum_rtab_initialized, 1u);
}

TEST_F(LumProcessSvcmgrNotifyUp, WalksThePublishedOverlaysWhenIgmpComesUp)
{
    platform.fail("sdb_iterator_create");
    platform.service_up(SVC_IGMP);
    EXPECT_EQ(lum_igmp_initialized, 1u);                     // a database that cannot be read is no reason to be down
    EXPECT_EQ(platform.called("igmp_api_init"), 1u);
    EXPECT_NE(lum_sdb_iterator_init(0, 1, 1), nullptr);      // the failure has met the walk
}

using LumProcessSvcmgrNotifyDown = LumClients;

TEST_F(LumProcessSvcmgrNotifyDown, LetsOnlyIgmpBeSetUpAgain)
{
    for (const std::uint32_t service : ALL_SERVICES)
        platform.service_up(service);
    for (const std::uint32_t service : ALL_SERVICES)
        platform.service_down(service);
    EXPECT_EQ(lum_igmp_initialized, 0u);
    platform.forget();
    for (const std::uint32_t service : ALL_SERVICES)
        platform.service_up(service);
    EXPECT_THAT(platform.call_names(), ElementsAre("igmp_api_init"));
}

TEST_F(LumProcessSvcmgrNotifyDown, TracesTheNameOfTheService)
{
    lum_internal_debug_flag = 1;
    platform.service_down(SVC_IPV6);
    platform.service_down(9999);
    EXPECT_THAT(platform.trace_texts(),
                ElementsAre("Svcmgr down notification for ipv6 came after it reregistered\n"));
}

TEST_F(LumClients, AreAskedForInTheirOrder)
{
    lum_request_component_notifications(1);
    EXPECT_THAT(platform.service_queries, ElementsAre(582, 267, 269, 271, 318, 263, 445, 286, 261));
    platform.forget();
    lum_request_component_notifications(0);
    EXPECT_THAT(platform.service_queries, ElementsAre(261));
}

TEST_F(LumClients, ComeUpInAnyOrderOfReports)
{
    std::vector<std::uint32_t> order(std::begin(ALL_SERVICES), std::end(ALL_SERVICES));
    for (std::size_t turn = 0; turn < 2 * order.size(); ++turn) {
        if (turn == order.size())
            std::ranges::reverse(order);
        std::ranges::rotate(order, order.begin() + 1);
        reset_daemon();
        platform.reset();
        lum_sup_state_active = 1;
        lum_mbus_q = mbus_bind(1, 442, {}, "LUM MBUS queue");
        for (const std::uint32_t service : order)
            platform.service_up(service);
        EXPECT_EQ(lum_cli_initialized + lum_rtab_initialized + lum_ip_initialized + lum_ipv6_initialized +
                      lum_udp_initialized + lum_ifmgr_initialized + lum_pm_initialized + lum_vrfmgr_initialized +
                      lum_igmp_initialized,
                  9u);
        EXPECT_THAT(platform.syslog, IsEmpty());
    }
}

} // namespace
