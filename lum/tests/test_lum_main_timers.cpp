#include "lum_test.h"

#include "memacct.h"

using namespace lum_test;

namespace {

class LumTimers : public LumTest {
protected:
    LumTimers()
    {
        platform.add_interface(PORT_A, "eth1", {.switchport = true});
        platform.add_interface(PORT_B, "eth2", {.switchport = true});
        lum_learn_debug_flag = 1;
    }
    static fake::mac_address numbered(std::uint32_t n)
    {
        return {0x02, 0x22, 0, 0, static_cast<std::uint8_t>(n >> 8), static_cast<std::uint8_t>(n)};
    }
    static void fill(std::uint32_t records)
    {
        plock_assert_held();
        for (std::uint32_t n = 0; n < records; ++n)
            lum_learn(key(numbered(n)), PORT_A);
    }
    static bool in_buffer(const fake::mac_address &mac)
    {
        plock_assert_held();
        std::uint8_t *record = nullptr;
        return lum_find_route_in_learn_buffer(key(mac), &record) == 1;
    }
    // One run; the records that it handed over.
    static std::vector<fake::bytes> age()
    {
        plock_assert_held();
        platform.forget();
        lum_ager();
        std::vector<fake::bytes> records;
        for (const fake::route_update &update : platform.route_updates)
            for (std::size_t i = 0; i < update.count; ++i)
                records.push_back(update.element(i));
        return records;
    }
    static fake::bytes deletion(const fake::mac_address &mac)
    {
        fake::bytes record;
        record.add_host32(VLAN).add(mac).add_zeros(2).add8(1).add8(0).add_zeros(6).add_host16(24);
        return record.add_zeros(30);
    }
};

using LumSendBufferToRtab = LumTimers;

TEST_F(LumSendBufferToRtab, HandsTheBufferOverAndEmptiesIt)
{
    fill(3);
    platform.forget();
    lum_send_buffer_to_rtab("Learn");
    ASSERT_THAT(platform.route_updates, SizeIs(1));
    const fake::route_update &update = platform.route_updates.front();
    EXPECT_EQ(update.count, 3);
    EXPECT_EQ(update.length, 72u + 52 * 3);
    EXPECT_EQ(update.flags, 0u);
    EXPECT_EQ(update.element(2).mac(4), numbered(2));
    EXPECT_EQ(lum_rtab_buffer_count, 0u);
    EXPECT_TRUE(std::ranges::all_of(lum_rtab_buffer, [](std::uint8_t b) { return b == 0; }));
    EXPECT_THAT(platform.trace_texts(), ElementsAre("Learn timer expired, send 3 routes to RTAB\n"));
}

TEST_F(LumSendBufferToRtab, LosesARefusedUpdateAndCountsIt)
{
    fill(3);
    platform.fail("rtab_update_route");
    lum_send_buffer_to_rtab("Learn");
    EXPECT_EQ(lum_rtab_buffer_count, 0u);
    EXPECT_EQ(dropped(drop_reason::LEARN_REFUSED), 3u);
    EXPECT_THAT(platform.syslog, IsEmpty());
    EXPECT_EQ(platform.routes(), 0u);
}

using LumProcessLearnTimer = LumTimers;

TEST_F(LumProcessLearnTimer, FlushesEveryFifteenSeconds)
{
    fill(1);
    platform.advance(14);
    EXPECT_THAT(platform.route_updates, IsEmpty());
    platform.advance(1);
    EXPECT_THAT(platform.route_updates, SizeIs(1));
    EXPECT_EQ(platform.timer_ms_left(lum_learn_timer), 15000u);
    platform.advance(15);
    EXPECT_THAT(platform.route_updates, SizeIs(1));          // nothing was learnt
    fill(1);
    EXPECT_EQ(lum_rtab_buffer_count, 0u);                    // the route is young
    EXPECT_EQ(platform.routes(), 1u);
}

TEST_F(LumProcessLearnTimer, RestartsBeforeAnythingElse)
{
    fill(1);
    platform.forget();
    lum_process_learn_timer(nullptr);
    EXPECT_EQ(platform.calls.front().text(), "active_timer_start(" + std::to_string(lum_learn_timer) + ", 15, 0, 0)");
}

TEST_F(LumProcessLearnTimer, AgesEveryTwoMinutesAndOnlyAtAnExpiry)
{
    const auto runs = [] { return platform.called("rtab_acquire_rdlock"); };
    platform.forget();
    platform.advance(119);
    EXPECT_EQ(runs(), 0u);
    platform.advance(1);                                     // 120 seconds after the start
    EXPECT_EQ(runs(), 1u);
    platform.advance(119);
    EXPECT_EQ(runs(), 1u);
    platform.advance(1);
    EXPECT_EQ(runs(), 2u);
}

TEST_F(LumProcessLearnTimer, AgesAtTheNextExpiryAfterTheAgeingTime)
{
    platform.forget();
    lum_next_age_time = {platform.now.seconds + 16, 0};
    platform.advance(29);
    EXPECT_EQ(platform.called("rtab_acquire_rdlock"), 0u);
    platform.advance(1);
    EXPECT_EQ(platform.called("rtab_acquire_rdlock"), 1u);
    EXPECT_EQ(lum_next_age_time.seconds, platform.now.seconds + 120);
}

TEST_F(LumProcessLearnTimer, AgesBeforeItFlushesWhatWasLearnt)
{
    platform.learnt(key(HOST_A), PORT_A, 100);
    lum_next_age_time = platform.now;
    lum_learn(key(HOST_A), PORT_B);                          // moved, and so not aged
    platform.forget();
    lum_process_learn_timer(nullptr);
    ASSERT_THAT(platform.route_updates, SizeIs(1));
    EXPECT_EQ(platform.route_updates.front().count, 1);
    EXPECT_EQ(platform.route_updates.front().element(0).u8(13), 1);
    EXPECT_TRUE(lum_addr_equal(platform.find_route(key(HOST_A))->nexthop[0], fake::local(PORT_B)));
}

TEST_F(LumProcessLearnTimer, KeepsARouteThatTalksAndAgesOneThatFellSilent)
{
    lum_learn(key(HOST_A), PORT_A);
    lum_learn(key(HOST_B), PORT_B);
    for (int i = 0; i < 118; ++i) {
        platform.advance(5);
        lum_learn(key(HOST_A), PORT_A);
        ASSERT_TRUE(i < 3 || platform.find_route(key(HOST_A)) != nullptr) << i;
    }
    EXPECT_EQ(platform.find_route(key(HOST_B)), nullptr);
    platform.advance(240);
    EXPECT_EQ(platform.find_route(key(HOST_A)), nullptr);
}

// Whenever a host begins to talk: its minute must not end just where the ager looks.
TEST_F(LumProcessLearnTimer, KeepsEveryHostThatTalksWhateverTheMomentItBegan)
{
    constexpr std::uint32_t HOSTS = 24, STEP_S = 5, FLUSHED_WITHIN = 4;
    for (std::uint32_t step = 0; step < 400; ++step) {
        for (std::uint32_t n = 0; n < HOSTS && n <= step; ++n)
            lum_learn(key(numbered(n)), PORT_A);
        platform.advance(STEP_S);
        for (std::uint32_t n = 0; n < HOSTS && n + FLUSHED_WITHIN <= step; ++n)
            ASSERT_NE(platform.find_route(key(numbered(n))), nullptr) << "host " << n << ", step " << step;
    }
}

using LumAger = LumTimers;

TEST_F(LumAger, KeepsARouteOfFiftyNineSecondsAndWithdrawsOneOfSixty)
{
    platform.learnt(key(HOST_A), PORT_A, 59);
    platform.learnt(key(HOST_B), PORT_B, 60);
    EXPECT_THAT(age(), ElementsAre(deletion(HOST_B)));
    EXPECT_THAT(platform.trace_texts(), ElementsAre("Aging 10/02:00:00:00:00:0b on eth2\n",
                                                    "Age timer expired, send 1 routes to RTAB\n"));
    EXPECT_NE(platform.find_route(key(HOST_A)), nullptr);
    EXPECT_EQ(platform.find_route(key(HOST_B)), nullptr);
}

TEST_F(LumAger, LeavesRoutesOfOtherProcessesAndOfTheOperator)
{
    platform.learnt(key(HOST_A), PORT_A, 1000, 777);
    platform.route(key(HOST_B), fake::local(PORT_B));
    EXPECT_THAT(age(), IsEmpty());
    EXPECT_THAT(platform.route_updates, IsEmpty());
}

TEST_F(LumAger, LeavesGroupsAndAgesBroadcast)
{
    platform.learnt(key(fake::mac("01:00:5e:00:00:01")), PORT_A, 1000);
    platform.learnt(key(fake::BROADCAST), PORT_A, 1000);
    EXPECT_THAT(age(), ElementsAre(deletion(fake::BROADCAST)));
}

TEST_F(LumAger, LeavesARouteThatWasLearntSinceTheLastFlush)
{
    platform.learnt(key(HOST_A), PORT_A, 100);
    lum_learn(key(HOST_A), PORT_B);
    ASSERT_TRUE(in_buffer(HOST_A));
    const auto records = age();
    ASSERT_THAT(records, SizeIs(1));                         // the learnt record itself
    EXPECT_EQ(records.front().u8(13), 1);
}

TEST_F(LumAger, FlushesAFullBufferFirstAndPutsTheDeletionInItsFirstSlot)
{
    fill(1000);
    platform.learnt(key(HOST_B), PORT_B, 100);
    age();
    ASSERT_THAT(platform.route_updates, SizeIs(2));
    EXPECT_EQ(platform.route_updates[0].count, 1000);
    EXPECT_EQ(platform.route_updates[0].length, 52072u);
    EXPECT_EQ(platform.route_updates[1].count, 1);
    EXPECT_EQ(platform.route_updates[1].element(0), deletion(HOST_B));
    EXPECT_THAT(platform.trace_texts(), Contains("Age timer expired, send 1000 routes to RTAB\n"));
}

TEST_F(LumAger, AgesMoreRoutesThanTheBufferHolds)
{
    for (std::uint32_t n = 0; n < 2500; ++n)
        platform.learnt(key(numbered(n)), PORT_A, 100);
    lum_learn_debug_flag = 0;
    EXPECT_THAT(age(), SizeIs(2500));
    EXPECT_EQ(platform.routes(), 0u);
    EXPECT_THAT(platform.route_updates, SizeIs(3));
}

TEST_F(LumAger, HoldsTheReadersLockForTheWalkAndItsFlushes)
{
    fill(1000);
    platform.learnt(key(HOST_B), PORT_B, 100);
    age();
    const auto calls = platform.call_texts({"rtab_acquire_rdlock", "rtab_release_rdlock", "rtab_update_route"});
    ASSERT_THAT(calls, SizeIs(4));
    EXPECT_EQ(calls[0], "rtab_acquire_rdlock()");
    EXPECT_EQ(calls[2], "rtab_release_rdlock()");
}

TEST_F(LumAger, IsDueAgainTwoMinutesLaterCarryingNanoseconds)
{
    platform.now = {5000, 999'999'999};
    age();
    EXPECT_EQ(lum_next_age_time, (timestamp{5120, 999'999'999}));
    platform.fail("vemo_sys_mclock_get");
    platform.now = {6000, 0};
    lum_ager();
    EXPECT_EQ(lum_next_age_time, (timestamp{5120, 999'999'999}));
}

TEST_F(LumTimers, TakeDataOfTheLastMinuteAsRecent)
{
    platform.now = {1000, 500'000'000};
    EXPECT_TRUE(lum_data_in_last_minute({1000, 0}));
    EXPECT_TRUE(lum_data_in_last_minute({940, 500'000'001}));
    EXPECT_FALSE(lum_data_in_last_minute({940, 500'000'000}));
    EXPECT_TRUE(lum_data_in_last_minute({2000, 0}));
}

class LumProcessMrdTimer : public LumTimers {
protected:
    LumProcessMrdTimer()
    {
        lum_chassis_ferrix = 1;
        lum_internal_debug_flag = 1;
        for (const std::uint32_t iod : {3u, 7u})
            site_port(iod);
        platform.forget();
    }
    static std::vector<std::uint32_t> hello_ports()
    {
        std::vector<std::uint32_t> ports;
        for (const fake::l2_multicast &hello : platform.l2_multicast_sent)
            ports.push_back(hello.iod);
        return ports;
    }
};

TEST_F(LumProcessMrdTimer, SendsAHelloAtOnceAndEveryThirtySeconds)
{
    platform.run_timers();
    EXPECT_THAT(hello_ports(), ElementsAre(3, 7));
    platform.forget();
    platform.advance(29);
    EXPECT_THAT(hello_ports(), IsEmpty());
    platform.advance(1);
    EXPECT_THAT(hello_ports(), ElementsAre(3, 7));
}

TEST_F(LumProcessMrdTimer, LeavesBlockedPortsOutAndTracesTheRest)
{
    lum_vlan_block_port(lum_vlans[VLAN], 7);
    platform.run_timers();
    EXPECT_THAT(hello_ports(), ElementsAre(3));
    EXPECT_THAT(platform.trace_texts(),
                ElementsAre("MRD timer expired, flood PIM hello on vlan 10\n", "MRD to be sent on max 2 ports\n",
                            "MRD send on interface eth3\n"));
    EXPECT_EQ(platform.l2_multicast_sent.front().vlan, VLAN);
    EXPECT_EQ(platform.l2_multicast_sent.front().flood, 0u);
    EXPECT_EQ(platform.l2_multicast_sent.front().u8(9), 103);        // PIM
    EXPECT_EQ(platform.l2_multicast_sent.front().be32(16), fake::ipv4(224, 0, 0, 13));
}

TEST_F(LumProcessMrdTimer, FloodsOneHelloOnAnyOtherChassis)
{
    lum_chassis_ferrix = 0;
    platform.run_timers();
    ASSERT_THAT(platform.l2_multicast_sent, SizeIs(1));
    EXPECT_EQ(platform.l2_multicast_sent.front().iod, 0u);
    EXPECT_EQ(platform.l2_multicast_sent.front().flood, 1u);
}

TEST_F(LumProcessMrdTimer, StopsOnceItsVlanIsNotEnabled)
{
    platform.run_timers();
    lum_vlans[VLAN].mrd_enabled = 0;
    platform.forget();
    platform.advance(30);
    EXPECT_THAT(platform.l2_multicast_sent, IsEmpty());
    EXPECT_FALSE(platform.timer_running(lum_vlans[VLAN].mrd_timer));
    lum_process_mrd_timer(nullptr);
    EXPECT_THAT(platform.traces, IsEmpty());
}

TEST_F(LumProcessMrdTimer, ReportsAHelloThatCannotBeBuiltAndTriesAgain)
{
    platform.fail("m_get");
    platform.run_timers();
    EXPECT_THAT(platform.syslog_texts(), ElementsAre("<<%LUM-3-API_FAILED>> pim_api_create_hello_pkt failed"));
    EXPECT_THAT(platform.l2_multicast_sent, IsEmpty());
    platform.advance(30);
    EXPECT_THAT(hello_ports(), ElementsAre(3, 7));
}

TEST_F(LumProcessMrdTimer, FreesItsHelloAndIgnoresSendsThatFail)
{
    platform.fail_always("ip_cl_output_l2");
    platform.run_timers();
    EXPECT_EQ(platform.mbufs_out(), 0u);
    EXPECT_THAT(platform.syslog, IsEmpty());
    EXPECT_EQ(platform.may_yields, 2u);
}

TEST_F(LumProcessMrdTimer, SurvivesAVlanThatIsRetiredWhileItYields)
{
    platform.on_yield = [] {
        plock_assert_held();
        if (lum_vlans[VLAN].in_use != 0)
            lum_vlan_vlandb_retire(lum_vlans[VLAN]);
    };
    platform.run_timers();
    EXPECT_THAT(hello_ports(), ElementsAre(3));
    EXPECT_EQ(platform.mbufs_out(), 0u);
    platform.on_yield = nullptr;
}

TEST_F(LumTimers, BeatTheHeartAtTheServiceManagersPace)
{
    platform.heartbeat_timeout_ms = 4999;
    EXPECT_TRUE(lum_init_svcmgr());
    platform.run_timers();
    EXPECT_THAT(platform.heartbeats, ElementsAre(1, 0));
    EXPECT_EQ(platform.timer_ms_left(lum_heartbeat_timer), 4000u);
    platform.advance(8);
    EXPECT_THAT(platform.heartbeats, ElementsAre(1, 0, 0, 0));
}

} // namespace
