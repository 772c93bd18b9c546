// What clients of the overlays ask of the daemon: acknowledged deletions, and frames to send.
#include "inbound_test.h"

using namespace lum_test;

namespace {

using LumDeletionAcknowledgement = LumInbound;

TEST_F(LumDeletionAcknowledgement, ClearsThePendingFlagAndTracesIt)
{
    plain_overlay(OVERLAY);
    remove({{OVERLAY, 0}});
    lum_internal_debug_flag = 1;
    EXPECT_EQ(acknowledge(OVERLAY), 0);
    EXPECT_TRUE(platform.traced("Overlay Overlay1 (DOWN:Delete Holddown) Clear pending state for overlay 0x64"));
    EXPECT_THAT(platform.syslog, IsEmpty());
}

TEST_F(LumDeletionAcknowledgement, IsIgnoredForAnOverlayThatIsNotHeldDown)
{
    plain_overlay(OVERLAY);
    EXPECT_EQ(acknowledge(OVERLAY), 0);
    EXPECT_EQ(acknowledge(OVERLAY2), 0);
    ASSERT_NE(find(OVERLAY), nullptr);
    EXPECT_EQ(find(OVERLAY)->state, LUM_OVERLAY_UP);
    EXPECT_THAT(platform.sdb_writes, IsEmpty());
}

TEST_F(LumDeletionAcknowledgement, IsIgnoredForAnOverlayThatIsDownForAnotherReason)
{
    lum_overlay &to = plain_overlay(OVERLAY);
    for (const std::uint32_t reason : {LUM_REASON_NONE, LUM_REASON_INCOMPLETE, LUM_REASON_ADMIN_DOWN}) {
        to.state = LUM_OVERLAY_DOWN;
        to.reason = reason;
        EXPECT_EQ(acknowledge(OVERLAY), 0);
        EXPECT_EQ(find(OVERLAY), &to) << reason;
    }
    EXPECT_THAT(platform.sdb_writes, IsEmpty());
    EXPECT_THAT(platform.syslog, IsEmpty());
}

TEST_F(LumDeletionAcknowledgement, CompletesAtTheSecondTryWhatTheDatabaseRefusedAtTheFirst)
{
    plain_overlay(OVERLAY);
    EXPECT_EQ(remove({{OVERLAY, 0}}), 1);
    const mbus_msg held = last_;
    platform.fail("hakit_sdb_delete");
    EXPECT_EQ(acknowledge(OVERLAY), 0);
    ASSERT_NE(find(OVERLAY), nullptr);
    EXPECT_TRUE(platform.is_outstanding(held));
    EXPECT_EQ(find(OVERLAY)->notify_pending, 0u);
    EXPECT_EQ(lum_pending_msg_count, 1u);

    EXPECT_EQ(acknowledge(OVERLAY), 0);
    EXPECT_EQ(find(OVERLAY), nullptr);
    EXPECT_FALSE(platform.is_outstanding(held));
    EXPECT_EQ(platform.double_drops, 0u);
    EXPECT_THAT(platform.syslog, SizeIs(1));                 // it was no longer awaited
}

TEST_F(LumDeletionAcknowledgement, FreesWhatAVlanBlockedOnceTheVlanIsGone)
{
    lum_overlay &to = overlay();
    EXPECT_EQ(remove({{OVERLAY, 0}}), 1);
    const mbus_msg held = last_;
    to.vlan_refcount = 1;
    acknowledge(OVERLAY);
    EXPECT_EQ(find(OVERLAY), &to);
    EXPECT_FALSE(platform.is_outstanding(held));             // the interface manager does not wait for it
    to.vlan_refcount = 0;
    acknowledge(OVERLAY);
    EXPECT_EQ(find(OVERLAY), nullptr);
    EXPECT_EQ(platform.double_drops, 0u);
    EXPECT_EQ(lum_pending_msg_count, 0u);
}

TEST_F(LumDeletionAcknowledgement, ReadsItsFirstWordAndMayBeLonger)
{
    plain_overlay(OVERLAY);
    remove({{OVERLAY, 0}});
    EXPECT_EQ(dispatch(0x13404, fake::bytes().add_host32(OVERLAY).add_zeros(120)), 0);
    EXPECT_EQ(find(OVERLAY), nullptr);
}

TEST_F(LumDeletionAcknowledgement, ReportsAMismatchWhenNoneWasAwaitedAndCompletesAllTheSame)
{
    lum_overlay &to = plain_overlay(OVERLAY);
    remove({{OVERLAY, 0}});
    to.notify_pending = 0;
    platform.forget();
    EXPECT_EQ(acknowledge(OVERLAY), 0);
    EXPECT_THAT(platform.syslog_texts(),
                ElementsAre("<<%LUM-4-STATE_MISMATCH>> state mismatch - notify_pending - in "
                            "lum_process_overlay_delete_notify_msg()"));
    EXPECT_EQ(find(OVERLAY), nullptr);
}

TEST_F(LumDeletionAcknowledgement, CompletesNothingTwice)
{
    plain_overlay(OVERLAY);
    remove({{OVERLAY, 0}});
    acknowledge(OVERLAY);
    EXPECT_EQ(acknowledge(OVERLAY), 0);
    EXPECT_EQ(platform.double_drops, 0u);
}

TEST_F(LumDeletionAcknowledgement, NeedsAPayloadOfOneWord)
{
    EXPECT_EQ(dispatch(0x13404, {}), -1);
    EXPECT_EQ(dispatch(0x13404, fake::bytes(3)), 0);
    EXPECT_EQ(dropped(drop_reason::BUS_MALFORMED), 1u);
}

// An overlay whose interface is made again before its deletion is acknowledged.
class LumOverlayMadeAgain : public LumInbound {
protected:
    LumOverlayMadeAgain() : overlay_(overlay())
    {
        remove({{OVERLAY, 0}});
        held_ = last_;
        platform.forget();
    }
    static int create() { return dispatch(0xF403, platform.changes({{OVERLAY, 0}})); }
    lum_overlay &overlay_;
    mbus_msg held_;
};

TEST_F(LumOverlayMadeAgain, IsReplacedByANewRecordWithItsConfiguration)
{
    EXPECT_EQ(create(), 0);
    EXPECT_EQ(find(OVERLAY), &overlay_);
    EXPECT_EQ(overlay_.reason, LUM_REASON_DELETE_HOLDDOWN);
    platform.forget();
    acknowledge(OVERLAY);
    const lum_overlay *made = find(OVERLAY);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->reason, LUM_REASON_INCOMPLETE);
    EXPECT_EQ(made->ext_if_count, 0u);
    EXPECT_EQ(made->made_again, 0u);
    EXPECT_THAT(platform.sent_with(CREATED), SizeIs(1));
    EXPECT_THAT(platform.call_texts({"hakit_sdb_delete", "hakit_sdb_update", "cli_send_my_if_commands"}), SizeIs(3));
    EXPECT_EQ(platform.calls.back().name, "cli_send_my_if_commands");
    EXPECT_FALSE(platform.is_outstanding(held_));
    EXPECT_THAT(platform.syslog, IsEmpty());
}

TEST_F(LumOverlayMadeAgain, GivesBackTheVlansThatItTookMeanwhile)
{
    create();
    bitfield_set(*overlay_.vlans, 77);
    vlan_entry(77).overlay = &overlay_;
    ++overlay_.vlan_refcount;
    lum_overlay &other = plain_overlay(OVERLAY2);
    vlan_entry().overlay = &other;                           // once its own
    acknowledge(OVERLAY);
    EXPECT_EQ(lum_vlans[77].overlay, nullptr);
    EXPECT_EQ(lum_vlans[VLAN].overlay, &other);
    EXPECT_EQ(find(OVERLAY)->reason, LUM_REASON_INCOMPLETE);
    EXPECT_THAT(platform.syslog, IsEmpty());
    lum_vlans[VLAN].overlay = nullptr;
}

TEST_F(LumOverlayMadeAgain, IsGoneForGoodWhenItIsRemovedOnceMore)
{
    create();
    remove({{OVERLAY, 0}});
    acknowledge(OVERLAY);
    EXPECT_EQ(find(OVERLAY), nullptr);
}

TEST_F(LumOverlayMadeAgain, IsGoneForGoodWhenItsInterfaceIsNoOverlayByThen)
{
    create();
    platform.remove_interface(OVERLAY);
    acknowledge(OVERLAY);
    EXPECT_EQ(find(OVERLAY), nullptr);
}

TEST_F(LumOverlayMadeAgain, WaitsForItsSiteAdjacenciesLikeAnyOther)
{
    create();
    lum_add_site_adj_internal(OVERLAY, {2, 0, 0, 0, 0, 1}, 0, 1);
    acknowledge(OVERLAY);
    EXPECT_EQ(find(OVERLAY), &overlay_);
    EXPECT_THAT(platform.sent_with(CREATED), IsEmpty());
    lum_delete_site_adj_internal(OVERLAY, {2, 0, 0, 0, 0, 1});
    acknowledge(OVERLAY);
    EXPECT_EQ(find(OVERLAY)->reason, LUM_REASON_INCOMPLETE);
}

class LumSendPacketRequest : public LumInbound {
protected:
    LumSendPacketRequest()
    {
        for (const std::uint32_t iod : {PORT_A, PORT_B, PORT_C})
            site_port(iod);
        platform.run_timers();
        platform.forget();
        lum_internal_debug_flag = 1;
    }
    static fake::bytes request(std::uint32_t vlan, std::uint32_t skip, const fake::bytes &frame,
                               std::uint8_t option1 = 0, std::uint8_t option2 = 0)
    {
        fake::bytes payload;
        payload.add_host32(vlan).add_host32(skip).add(HOST_B).add(HOST_A).add8(option1).add8(option2);
        return payload.add_host32(static_cast<std::uint32_t>(frame.size())).add(frame);
    }
    const fake::bytes frame_ = fake::ethernet(HOST_B, HOST_A, 0x88CC, fake::filler(50));
};

TEST_F(LumSendPacketRequest, SendsTheFrameOnEveryOtherUnblockedPortOfTheVlan)
{
    lum_vlan_block_port(lum_vlans[VLAN], PORT_C);
    EXPECT_EQ(dispatch(0x1340C, request(VLAN, PORT_A, frame_)), 0);
    ASSERT_THAT(ports_sent_to(), ElementsAre(PORT_B));
    const fake::l2_frame &sent = platform.l2_sent.front();
    EXPECT_EQ(static_cast<const fake::bytes &>(sent), frame_);
    EXPECT_EQ(sent.header.vlan_be, __builtin_bswap16(VLAN));
    EXPECT_EQ(sent.request.flood, 0);
    EXPECT_THAT(platform.trace_texts(), ElementsAre("Flood local packet to vlan 10, max 3 ports\n",
                                                    "Send packet on interface eth2\n"));
}

TEST_F(LumSendPacketRequest, LeavesOutNoPortForAnIodOfZero)
{
    dispatch(0x1340C, request(VLAN, 0, frame_));
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_A, PORT_B, PORT_C));
    EXPECT_EQ(platform.may_yields, 3u);
}

TEST_F(LumSendPacketRequest, GivesTheFrameTheAddressesOfItsHead)
{
    const fake::bytes other = fake::ethernet(HOST_C, HOST_B, 0x88CC, fake::filler(50));
    dispatch(0x1340C, request(VLAN, 0, other));
    EXPECT_EQ(static_cast<const fake::bytes &>(platform.l2_sent.front()), frame_);
}

TEST_F(LumSendPacketRequest, TagsTheFrameOnATrunkAndNowhereElse)
{
    site_port(PORT_B, 0x123, true);                          // its record carries the VLAN that was reported last
    lum_vlan_add_port(vlan_entry(0x456), PORT_A);
    lum_vlan_add_port(vlan_entry(0x456), PORT_B);
    platform.forget();
    dispatch(0x1340C, request(0x456, 0, frame_));
    ASSERT_THAT(ports_sent_to(), ElementsAre(PORT_A, PORT_B));
    EXPECT_EQ(static_cast<const fake::bytes &>(platform.l2_sent[0]), frame_);
    fake::bytes tagged = frame_.range(0, 12);
    tagged.add8(0x81).add8(0).add8(0x56).add8(0x04).add(frame_.from(12));        // low byte first
    EXPECT_EQ(static_cast<const fake::bytes &>(platform.l2_sent[1]), tagged);
}

TEST_F(LumSendPacketRequest, LeavesATagThatIsThere)
{
    site_port(PORT_B, VLAN, true);
    platform.forget();
    fake::bytes tagged = frame_.range(0, 12);
    tagged.add8(0x81).add8(0).add8(VLAN).add8(0xA0).add(frame_.from(12));
    dispatch(0x1340C, request(VLAN, PORT_A, tagged));
    ASSERT_THAT(ports_sent_to(), ElementsAre(PORT_B, PORT_C));
    for (const fake::l2_frame &sent : platform.l2_sent)
        EXPECT_EQ(static_cast<const fake::bytes &>(sent), tagged);
}

TEST_F(LumSendPacketRequest, SendsTheLargestFrameOnATrunkWithItsTag)
{
    site_port(PORT_B, VLAN, true);
    platform.forget();
    const fake::bytes large = fake::ethernet(HOST_B, HOST_A, 0x88CC, fake::filler(65535 - 14));
    EXPECT_EQ(dispatch(0x1340C, request(VLAN, 0, large)), 0);
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_A, PORT_B, PORT_C));
    EXPECT_EQ(platform.l2_sent[1].size(), 65535u + 4);
    EXPECT_EQ(platform.l2_sent[1].from(16), large.from(12));
    EXPECT_EQ(dispatch(0x1340C, request(VLAN, 0, fake::bytes(65536))), 0);
    EXPECT_THAT(platform.l2_sent, SizeIs(3));
    EXPECT_EQ(dropped(drop_reason::BUS_MALFORMED), 1u);
}

TEST_F(LumSendPacketRequest, PassesItsOptionBytesOn)
{
    dispatch(0x1340C, request(VLAN, 0, frame_, 3, 200));
    EXPECT_EQ(platform.l2_sent.front().request.option[0], 3);
    EXPECT_EQ(platform.l2_sent.front().request.option[1], 200);
}

TEST_F(LumSendPacketRequest, TracesTheOutputUnderThePacketFilters)
{
    lum_internal_debug_flag = 0;
    lum_packet_debug_flag = 1;
    dispatch(0x1340C, request(VLAN, 0, frame_));
    EXPECT_THAT(platform.traces, IsEmpty());
    lum_packet_debug_unicast = 1;
    dispatch(0x1340C, request(VLAN, PORT_B, frame_));
    EXPECT_THAT(platform.trace_texts(),
                ElementsAre("Output 10/02:00:00:00:00:0a -> 10/02:00:00:00:00:0b to eth1, 64 bytes\n",
                            "Output 10/02:00:00:00:00:0a -> 10/02:00:00:00:00:0b to eth3, 64 bytes\n"));
}

TEST_F(LumSendPacketRequest, SendsNothingOnAVlanThatIsNotInUse)
{
    EXPECT_EQ(dispatch(0x1340C, request(77, 0, frame_)), 0);
    EXPECT_EQ(dispatch(0x1340C, request(4096, 0, frame_)), 0);
    EXPECT_THAT(platform.l2_sent, IsEmpty());
    EXPECT_TRUE(platform.traced("Flood local packet to vlan 77, max 0 ports\n"));
}

TEST_F(LumSendPacketRequest, RefusesAPayloadThatItsLengthFieldDoesNotFit)
{
    EXPECT_EQ(dispatch(0x1340C, {}), -1);
    const fake::bytes whole = request(VLAN, 0, frame_);
    for (std::size_t length = 1; length < whole.size(); ++length)
        EXPECT_EQ(dispatch(0x1340C, whole.range(0, length)), 0);
    for (std::size_t length = 0; length < 14; ++length)
        EXPECT_EQ(dispatch(0x1340C, request(VLAN, 0, frame_.range(0, length))), 0);
    EXPECT_THAT(platform.l2_sent, IsEmpty());
    EXPECT_EQ(dropped(drop_reason::BUS_MALFORMED), whole.size() - 1 + 14);
}

TEST_F(LumSendPacketRequest, TakesAFrameThatIsAHeaderOnly)
{
    EXPECT_EQ(dispatch(0x1340C, request(VLAN, 0, frame_.range(0, 14))), 0);
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_A, PORT_B, PORT_C));
}

TEST_F(LumSendPacketRequest, SurvivesAVlanThatIsRetiredWhileItYields)
{
    platform.on_yield = [] {
        plock_assert_held();
        if (lum_vlans[VLAN].in_use != 0)
            lum_vlan_vlandb_retire(lum_vlans[VLAN]);
    };
    EXPECT_EQ(dispatch(0x1340C, request(VLAN, 0, frame_)), 0);
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_A));
    platform.on_yield = nullptr;
}

} // namespace
