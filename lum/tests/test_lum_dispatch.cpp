#include "lum_test.h"

#include "svcmgr.h"

using namespace lum_test;

namespace {

const std::string UNKNOWN = "<<%LUM-3-UNKNOWN_LUM_MAJOR>> lum_main(): unknown major mtype: ";

class LumDispatch : public LumTest {
protected:
    LumDispatch() { lum_internal_debug_flag = 1; }
    static int dispatch(std::uint32_t opcode, const fake::bytes &payload = {}, fake::message_options options = {})
    {
        plock_assert_held();
        mbus_msg msg = platform.message(opcode, payload, options);
        return lum_dispatch(msg);
    }
    static fake::bytes adjacency(std::uint32_t iod, const fake::mac_address &id, std::uint32_t site,
                                 std::uint32_t extra)
    {
        fake::bytes payload;
        payload.add_host32(iod).add(id).add8(0);
        payload.add_host32(4).add_host32(REMOTE_EDGE).add_zeros(20);
        return payload.add_host32(site).add_host32(extra);
    }
};

TEST_F(LumDispatch, AnswersASynchronisationMessageWhateverItsOpcode)
{
    for (const std::uint32_t opcode : {0xF404u, 0x5C0Cu, 0x12345u}) {
        platform.forget();
        EXPECT_EQ(dispatch(opcode, {}, {.sync_event = 5}), 0);
        EXPECT_THAT(platform.trace_texts(), ElementsAre("Received MBUS sync message, opcde " + std::to_string(opcode) +
                                                        ", event 5\n"));
        EXPECT_THAT(platform.syslog, IsEmpty());
    }
}

TEST_F(LumDispatch, GivesEventHistoryControlToTheHistory)
{
    EXPECT_EQ(dispatch(0xB9), 0);
    EXPECT_EQ(platform.called("evhist_process_msg"), 1u);
    platform.fail("evhist_process_msg");
    EXPECT_EQ(dispatch(0xB9), -1);
}

TEST_F(LumDispatch, CleansUpConditionallyWithTheResultOfTheService)
{
    EXPECT_EQ(dispatch(0x9F2), 0);
    EXPECT_THAT(platform.call_texts({"svcmgr_conditional_srv_cleanup"}),
                ElementsAre("svcmgr_conditional_srv_cleanup(0)"));
    platform.fail("svcmgr_conditional_srv_cleanup", 1, EBUSY);
    EXPECT_EQ(dispatch(0x9F2), EBUSY);
}

TEST_F(LumDispatch, TakesRouteTableNotificationsAsDone)
{
    EXPECT_EQ(dispatch(0x13806), 0);
}

TEST_F(LumDispatch, ReportsThreeKindsAsNotHandledAlthoughTheirWorkIsDone)
{
    vlan_entry();
    platform.add_interface(PORT_A, "portA", {.switchport = true});
    EXPECT_EQ(dispatch(0x5C0C, platform.membership(VLAN, {{VLAN, 1000 + PORT_A}})), -1);
    EXPECT_TRUE(bitfield_test(*lum_vlans[VLAN].ports, PORT_A));
    EXPECT_EQ(dispatch(0xF407, platform.l2_states({{PORT_A, 0x10000, 1, {VLAN}, {}}})), -1);
    EXPECT_NE(lum_get_from_pt(PORT_A), nullptr);
    EXPECT_EQ(dispatch(0x1340D), -1);
    EXPECT_EQ(dispatch(0x1340E), -1);
    EXPECT_THAT(platform.syslog, IsEmpty());
}

TEST_F(LumDispatch, LogsAnUnknownOpcodeInSignedDecimal)
{
    EXPECT_EQ(dispatch(0x12345), -1);
    EXPECT_EQ(dispatch(0xFFFFFFFE), -1);
    EXPECT_THAT(platform.syslog_texts(), ElementsAre(UNKNOWN + "74565", UNKNOWN + "-2"));
    EXPECT_EQ(dropped(drop_reason::BUS_UNKNOWN_OPCODE), 2u);
}

TEST_F(LumDispatch, KnowsEachOpcodeOfItsTableAndNoNeighbour)
{
    const std::vector<std::uint32_t> known{0xB9,    0x9F2,   0x22DD,  0x22DE,  0x5C0C,  0xF403,
                                           0xF404,  0xF407,  0xF408,  0xF414,  0x13404, 0x1340A,
                                           0x1340B, 0x1340C, 0x1340D, 0x1340E, 0x13806, 0x14C01};
    for (const std::uint32_t opcode : known) {
        for (const std::uint32_t neighbour : {opcode - 1, opcode, opcode + 1}) {
            platform.forget();
            dispatch(neighbour);
            const bool is_known = std::ranges::find(known, neighbour) != known.end();
            EXPECT_EQ(platform.syslog_texts().empty(), is_known) << std::hex << neighbour;
        }
    }
}

TEST_F(LumDispatch, AddsAndDeletesASiteAdjacency)
{
    lum_overlay &to = overlay();
    EXPECT_EQ(dispatch(0x1340A, adjacency(OVERLAY, HOST_A, 1, 1)), 0);
    ASSERT_EQ(to.adj_count, 1u);
    EXPECT_EQ(to.adj_head->system_id, HOST_A);
    EXPECT_EQ(to.adj_head->local, 1u);
    EXPECT_EQ(to.adj_head->adder_value, 0u);
    EXPECT_EQ(dispatch(0x1340B, adjacency(OVERLAY, HOST_A, 1, 1)), 0);
    EXPECT_EQ(to.adj_count, 0u);
}

TEST_F(LumDispatch, AddsAndDeletesAnOverlayAdjacency)
{
    EXPECT_EQ(dispatch(0x1340A, adjacency(OVERLAY, HOST_A, 0, 0)), 0);
    EXPECT_THAT(platform.sdb_writes, SizeIs(1));
    EXPECT_FALSE(platform.sdb_writes.front().deletion);
    EXPECT_EQ(dispatch(0x1340B, adjacency(OVERLAY, HOST_A, 0, 0)), 0);
    EXPECT_THAT(platform.sdb_writes, SizeIs(2));
    EXPECT_TRUE(platform.sdb_writes.back().deletion);
}

TEST_F(LumDispatch, DropsAnAdjacencyThatIsShorterThanItsFields)
{
    lum_overlay &to = overlay();
    const fake::bytes whole = adjacency(OVERLAY, HOST_A, 1, 1);
    ASSERT_THAT(whole, SizeIs(47));
    for (std::size_t length = 0; length < whole.size(); ++length) {
        EXPECT_EQ(dispatch(0x1340A, whole.range(0, length)), 0);
        EXPECT_EQ(dispatch(0x1340B, whole.range(0, length)), 0);
    }
    EXPECT_EQ(to.adj_count, 0u);
    EXPECT_EQ(dropped(drop_reason::BUS_MALFORMED), 94u);
    EXPECT_TRUE(platform.traced("Adjacency message of 46 bytes is too short\n"));
}

// Contents of every length: bytes of one value, and the beginnings of messages that name the overlay in their fields.
TEST_F(LumDispatch, SurvivesMessagesOfEveryLengthForEveryOpcodeAndReleasesEachOnce)
{
    overlay();
    std::vector<fake::bytes> contents{fake::bytes(64, 0x00), fake::bytes(64, 0x01), fake::bytes(64, 0xFF),
                                      adjacency(OVERLAY, HOST_A, 1, 1), adjacency(OVERLAY, HOST_A, 0, 0),
                                      platform.changes({{OVERLAY, ~std::uint64_t{0}}, {CORE, 0}, {768, 0}}),
                                      platform.membership(VLAN, {{VLAN, 1001}, {VLAN, 1003}}),
                                      platform.l2_states({{1, 0x100000, 1, {VLAN, 300}, {20}}})};
    for (const std::uint32_t opcode : {0xB9, 0x9F2, 0x22DD, 0x22DE, 0x5C0C, 0xF403, 0xF404, 0xF407, 0xF408, 0xF414,
                                       0x13404, 0x1340A, 0x1340B, 0x1340C, 0x1340D, 0x1340E, 0x13806, 0x14C01}) {
        for (const fake::bytes &content : contents) {
            for (std::size_t length = 0; length <= content.size(); ++length) {
                SCOPED_TRACE(testing::Message() << std::hex << opcode << ", length " << std::dec << length);
                mbus_msg msg = platform.message(opcode, content.range(0, length));
                const int result = lum_dispatch(msg);
                if (result != LUM_KEEP)
                    mbus_drop(lum_mbus_q, msg);
                ASSERT_EQ(result == LUM_KEEP, lum_pending_msg_count != 0 && lum_pending_msg == msg);
                ASSERT_EQ(platform.messages_outstanding(), lum_pending_msg_count != 0 ? 1u : 0u);
            }
        }
    }
}

class LumMainLoop : public LumDispatch {
protected:
    // Runs the loop over what is on the queue.
    static void run()
    {
        plock_assert_held();
        lum_main(nullptr);
    }
    static void deliver(std::uint32_t opcode, const fake::bytes &payload = {})
    {
        platform.deliver(442, opcode, payload);
    }
};

TEST_F(LumMainLoop, EndsWhenItsQueueIsBeingUnbound)
{
    run();
    EXPECT_THAT(platform.trace_texts(), ElementsAre("Draining MBUS lum_mbus_q\n"));
    EXPECT_EQ(platform.messages_dropped, 0u);
}

TEST_F(LumMainLoop, TracesRecordsAndDropsEachMessage)
{
    deliver(0x13806);
    run();
    ASSERT_THAT(platform.mbus_events, SizeIs(1));
    EXPECT_EQ(platform.mbus_events.front().kind, 3u);
    EXPECT_EQ(platform.mbus_events.front().opcode, 0x13806u);
    EXPECT_TRUE(platform.traced("Received MBUS message with opcode 79878 from SAP 999"));
    EXPECT_EQ(platform.messages_dropped, 1u);
    EXPECT_EQ(platform.messages_outstanding(), 0u);
}

TEST_F(LumMainLoop, WaitsWithoutTheLockAndWorksWithIt)
{
    deliver(0x13806);
    deliver(0xB9);
    run();
    for (const fake::call_record &call : platform.calls_of("mbus_recv"))
        EXPECT_FALSE(call.lock_held);
    EXPECT_TRUE(platform.calls_of("evhist_process_msg").front().lock_held);
    EXPECT_EQ(platform.may_yields, 3u);
}

TEST_F(LumMainLoop, LogsAnUnknownOpcodeTwiceAndAHandledOneThatSaysNotHandledOnce)
{
    deliver(0x12345);
    deliver(0xF407, platform.l2_states({}));
    run();
    EXPECT_THAT(platform.syslog_texts(), ElementsAre(UNKNOWN + "74565", UNKNOWN + "74565", UNKNOWN + "62471"));
    EXPECT_EQ(platform.messages_outstanding(), 0u);
}

TEST_F(LumMainLoop, ReleasesAPortSetOnceAlthoughHandlerAndLoopBothDropIt)
{
    vlan_entry();
    platform.add_interface(PORT_A, "eth1", {.switchport = true});
    deliver(0x5C0C, platform.membership(VLAN, {{VLAN, 1000 + PORT_A}}));
    deliver(0x5C0C, platform.membership(VLAN, {}));
    deliver(0x5C0C, fake::bytes(3));
    run();
    EXPECT_EQ(platform.messages_dropped, 3u);
    EXPECT_EQ(platform.empty_drops, 1u);
    EXPECT_EQ(platform.double_drops, 0u);
    EXPECT_EQ(platform.messages_outstanding(), 0u);
}

TEST_F(LumMainLoop, OffersMessagesToTheServiceManagerFirst)
{
    EXPECT_TRUE(lum_init_svcmgr());
    lum_sup_state_active = 1;
    platform.deliver_service_state(SVC_VRFMGR, SVCMGR_STATE_UP);
    run();
    EXPECT_EQ(lum_vrfmgr_initialized, 1u);
    EXPECT_THAT(platform.syslog, IsEmpty());
    EXPECT_EQ(platform.messages_outstanding(), 0u);
}

TEST_F(LumMainLoop, ReleasesWhatTheDatabaseClientOrTheHaKitHasTakenAndLooksAtNoOpcode)
{
    platform.sdb_client_opcodes = {0x12345};
    platform.ha_opcodes = {0x12346};
    deliver(0x12345);
    deliver(0x12346);
    run();
    EXPECT_THAT(platform.mbus_events, SizeIs(2));
    EXPECT_THAT(platform.trace_texts(), ElementsAre("Draining MBUS lum_mbus_q\n"));
    EXPECT_THAT(platform.syslog, IsEmpty());
    EXPECT_EQ(platform.messages_dropped, 2u);
}

TEST_F(LumMainLoop, TriesAgainAfterAReceiveThatFailed)
{
    deliver(0x13806);
    platform.fail("mbus_recv", 1, EINTR);
    platform.fail("mbus_recv", 2, ENOTCONN);
    run();
    EXPECT_EQ(platform.messages_dropped, 1u);
    EXPECT_EQ(platform.called("mbus_recv"), 4u);
    EXPECT_EQ(platform.empty_drops, 0u);                     // of a receive that failed there is nothing to release
    EXPECT_THAT(platform.syslog, IsEmpty());
}

TEST_F(LumMainLoop, GoesOnAfterAPipeErrorOnAQueueThatIsNotBeingUnbound)
{
    deliver(0x13806);
    platform.fail("mbus_recv", 1, EPIPE);
    run();
    EXPECT_EQ(platform.messages_dropped, 1u);
}

TEST_F(LumMainLoop, ReportsADropThatFailedAndGoesOn)
{
    deliver(0x13806);
    deliver(0x13806);
    platform.fail("mbus_drop", 1, EINVAL);
    run();
    EXPECT_THAT(platform.syslog_texts(),
                ElementsAre("<<%LUM-3-MBUS_DROP>> Error returned from mbus_drop(), errno: Invalid argument"));
    EXPECT_EQ(platform.messages_dropped, 1u);
}

TEST_F(LumMainLoop, KeepsAMessageThatItsHandlerKept)
{
    overlay();
    deliver(0xF404, platform.changes({{OVERLAY, 0}}));
    deliver(0x13806);
    run();
    EXPECT_EQ(platform.messages_dropped, 1u);
    EXPECT_EQ(platform.messages_outstanding(), 1u);
    EXPECT_TRUE(platform.is_outstanding(lum_pending_msg));
}

} // namespace
