#include "lum_test.h"

#include <set>

using namespace lum_test;

namespace {

constexpr std::uint64_t ENCAP_BIT = std::uint64_t{1} << 42, L3_BIT = std::uint64_t{1} << 35;
constexpr std::uint32_t DELETED = 78852, STATUS = 78853;

class LumInbound : public LumTest {
protected:
    LumInbound() { lum_event_debug_flag = 1; }
    static int dispatch(std::uint32_t opcode, const fake::bytes &payload)
    {
        plock_assert_held();
        last_ = platform.message(opcode, payload);
        mbus_msg msg = last_;
        return lum_dispatch(msg);
    }
    static int remove(std::initializer_list<intfmgr_change> list) { return dispatch(0xF404, platform.changes(list)); }
    static int acknowledge(std::uint32_t iod) { return dispatch(0x13404, fake::bytes().add_host32(iod)); }
    static lum_overlay *find(std::uint32_t iod)
    {
        plock_assert_held();
        return lum_get_overlay(iod);
    }
    // An overlay that owns no VLAN, so that its deletion completes with the acknowledgement.
    lum_overlay &plain_overlay(std::uint32_t iod)
    {
        plock_assert_held();
        lum_overlay &made = overlay(iod, 4000 + iod - OVERLAY);
        bitfield_clear(*made.vlans, 4000 + iod - OVERLAY);
        lum_vlans[4000 + iod - OVERLAY].overlay = nullptr;
        made.vlan_refcount = 0;
        platform.forget();
        return made;
    }
    static inline mbus_msg last_;
};

using LumInterfaceCreated = LumInbound;

TEST_F(LumInterfaceCreated, MakesAnOverlayOfAnOverlayInterfaceAndReplaysItsConfiguration)
{
    platform.add_interface(OVERLAY, "Overlay1", {.overlay = true});
    EXPECT_EQ(dispatch(0xF403, platform.changes({{OVERLAY, 0}})), 0);
    ASSERT_NE(find(OVERLAY), nullptr);
    EXPECT_THAT(platform.call_texts({"cli_send_my_if_commands"}), ElementsAre("cli_send_my_if_commands(100)"));
}

TEST_F(LumInterfaceCreated, ResolvesTheExternalInterfaceThatWasWaitedFor)
{
    lum_overlay &waiting = overlay();
    waiting.ext_if[0].iod = 0;
    waiting.ext_ipv4 = 0;
    EXPECT_EQ(dispatch(0xF403, platform.changes({{PORT_A, 0}, {CORE, 0}})), 0);
    EXPECT_EQ(waiting.ext_if[0].iod, CORE);
    EXPECT_EQ(waiting.ext_ipv4, OUR_ADDRESS);
    EXPECT_EQ(find(CORE), nullptr);
    EXPECT_EQ(platform.may_yields, 2u);
}

using LumInterfaceRemoved = LumInbound;

TEST_F(LumInterfaceRemoved, IsAnsweredAtOnceWhenItNamesNoOverlay)
{
    EXPECT_EQ(remove({{PORT_A, 0}, {CORE, 0}}), 0);
    EXPECT_EQ(lum_pending_msg_count, 0u);
    EXPECT_EQ(platform.trace_texts(), std::vector<std::string>{"Received interface delete notification\n"});
}

TEST_F(LumInterfaceRemoved, IsHeldUntilEachOverlayOfTheMessageIsAcknowledged)
{
    plain_overlay(OVERLAY);
    plain_overlay(OVERLAY2);
    EXPECT_EQ(remove({{OVERLAY, 0}, {CORE, 0}, {OVERLAY2, 0}}), 1);
    const mbus_msg held = last_;
    EXPECT_EQ(lum_pending_msg, held);
    EXPECT_EQ(lum_pending_msg_count, 2u);
    EXPECT_EQ(find(OVERLAY)->delete_msg, held);
    EXPECT_EQ(find(OVERLAY2)->delete_msg, held);
    EXPECT_EQ(find(OVERLAY)->reason, LUM_REASON_DELETE_HOLDDOWN);
    EXPECT_THAT(platform.sent_with(DELETED), SizeIs(2));

    EXPECT_EQ(acknowledge(OVERLAY), 0);
    EXPECT_EQ(find(OVERLAY), nullptr);
    EXPECT_EQ(lum_pending_msg_count, 1u);
    EXPECT_TRUE(platform.is_outstanding(held));
    EXPECT_EQ(acknowledge(OVERLAY2), 0);
    EXPECT_EQ(find(OVERLAY2), nullptr);
    EXPECT_EQ(lum_pending_msg_count, 0u);
    EXPECT_FALSE(platform.is_outstanding(held));
}

TEST_F(LumInterfaceRemoved, IsReleasedWithTheThirdOfThreeDeletions)
{
    for (const std::uint32_t iod : {100u, 101u, 102u})
        plain_overlay(iod);
    EXPECT_EQ(remove({{100, 0}, {101, 0}, {102, 0}}), 1);
    const mbus_msg held = last_;
    acknowledge(102);
    acknowledge(100);
    EXPECT_TRUE(platform.is_outstanding(held));
    acknowledge(101);
    EXPECT_FALSE(platform.is_outstanding(held));
}

TEST_F(LumInterfaceRemoved, WaitsOnceForAnInterfaceThatTheMessageNamesTwice)
{
    plain_overlay(OVERLAY);
    EXPECT_EQ(remove({{OVERLAY, 0}, {OVERLAY, 0}}), 1);
    const mbus_msg held = last_;
    EXPECT_EQ(lum_pending_msg_count, 1u);
    acknowledge(OVERLAY);
    EXPECT_FALSE(platform.is_outstanding(held));
}

TEST_F(LumInterfaceRemoved, SupersedesAHeldMessageWhichIsReleased)
{
    plain_overlay(OVERLAY);
    plain_overlay(OVERLAY2);
    EXPECT_EQ(remove({{OVERLAY, 0}}), 1);
    const mbus_msg first = last_;
    EXPECT_EQ(remove({{OVERLAY2, 0}}), 1);
    const mbus_msg second = last_;
    EXPECT_EQ(lum_pending_msg, second);
    EXPECT_EQ(lum_pending_msg_count, 1u);
    EXPECT_FALSE(platform.is_outstanding(first));

    acknowledge(OVERLAY);                                    // carries the first message, which nobody waits for
    EXPECT_EQ(lum_pending_msg_count, 1u);
    EXPECT_TRUE(platform.is_outstanding(second));
    acknowledge(OVERLAY2);
    EXPECT_FALSE(platform.is_outstanding(second));
}

TEST_F(LumInterfaceRemoved, SurvivesAMessageOfEveryLength)
{
    plain_overlay(OVERLAY);
    const fake::bytes whole = platform.changes({{OVERLAY, 0}});
    for (std::size_t length = 0; length < whole.size(); ++length)
        EXPECT_EQ(dispatch(0xF404, whole.range(0, length)), 0);
    EXPECT_EQ(find(OVERLAY)->reason, LUM_REASON_NONE);
    EXPECT_EQ(dropped(drop_reason::BUS_MALFORMED), whole.size());
}

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

using LumL3ParamChange = LumInbound;

TEST_F(LumL3ParamChange, TracesEachInterfaceWithItsMask)
{
    EXPECT_EQ(dispatch(0xF414, platform.changes({{CORE, 5}})), 0);
    EXPECT_THAT(platform.trace_texts(), ElementsAre("Received interface L3 protocol param change notification\n",
                                                    "Received notification for eth0, change mask 0x5\n"));
}

TEST_F(LumL3ParamChange, ReplaysTheConfigurationOfAnOverlayTunnelWhoseEncapsulationChanged)
{
    plain_overlay(OVERLAY);
    EXPECT_EQ(dispatch(0xF414, platform.changes({{OVERLAY, ENCAP_BIT}})), 0);
    EXPECT_EQ(platform.called("cli_send_my_if_commands"), 1u);
    EXPECT_TRUE(platform.traced("Received ENCAP TLV\n"));
    EXPECT_EQ(find(OVERLAY)->state, LUM_OVERLAY_UP);
}

TEST_F(LumL3ParamChange, DeletesTheOverlayOfATunnelThatIsAnOverlayNoMore)
{
    plain_overlay(OVERLAY);
    platform.interface(OVERLAY).overlay = false;
    platform.interface(OVERLAY).tunnel = true;
    EXPECT_EQ(dispatch(0xF414, platform.changes({{OVERLAY, ENCAP_BIT}})), 1);
    const mbus_msg held = last_;
    EXPECT_EQ(lum_pending_msg_count, 1u);
    acknowledge(OVERLAY);
    EXPECT_FALSE(platform.is_outstanding(held));
    EXPECT_EQ(find(OVERLAY), nullptr);
}

TEST_F(LumL3ParamChange, LooksOnlyAtTunnelsWhoseEncapsulationChanged)
{
    plain_overlay(OVERLAY);
    platform.interface(OVERLAY).overlay = false;
    EXPECT_EQ(dispatch(0xF414, platform.changes({{OVERLAY, ENCAP_BIT}})), 0);       // no tunnel at all
    platform.interface(OVERLAY).tunnel = true;
    EXPECT_EQ(dispatch(0xF414, platform.changes({{OVERLAY, ~ENCAP_BIT}})), 0);      // every other change
    EXPECT_EQ(find(OVERLAY)->state, LUM_OVERLAY_UP);
    EXPECT_EQ(platform.called("cli_send_my_if_commands"), 0u);
}

using LumL3StateChange = LumInbound;

TEST_F(LumL3StateChange, PublishesAndAnnouncesAnOverlayThatWentDown)
{
    plain_overlay(OVERLAY);
    platform.interface(OVERLAY).up = false;
    EXPECT_EQ(dispatch(0xF408, platform.changes({{OVERLAY, L3_BIT}})), 0);
    EXPECT_EQ(find(OVERLAY)->reason, LUM_REASON_ADMIN_DOWN);
    EXPECT_THAT(platform.sdb_writes, SizeIs(1));
    EXPECT_THAT(platform.sent_with(STATUS), SizeIs(1));
    EXPECT_TRUE(platform.traced("Received interface L3 protocol state change notification\n"));
    EXPECT_TRUE(platform.traced("Received notification for Overlay1, change mask 0x800000000\n"));
}

TEST_F(LumL3StateChange, AnnouncesNothingWhenTheStateStays)
{
    plain_overlay(OVERLAY);
    EXPECT_EQ(dispatch(0xF408, platform.changes({{OVERLAY, L3_BIT}})), 0);
    EXPECT_THAT(platform.sdb_writes, IsEmpty());
    EXPECT_THAT(platform.sent_with(STATUS), IsEmpty());
}

TEST_F(LumL3StateChange, TracesAnInterfaceWithoutOverlay)
{
    EXPECT_EQ(dispatch(0xF408, platform.changes({{PORT_A, L3_BIT}, {CORE, L3_BIT}})), 0);
    EXPECT_TRUE(platform.traced("overlay not locally found, ignore notification\n"));
    EXPECT_EQ(platform.may_yields, 2u);
}

class LumAddressChange : public LumInbound {
protected:
    static fake::bytes ipv4_change(std::uint32_t change, std::uint32_t address, std::uint16_t kind = 13,
                                   std::uint16_t msg_class = IP_MSG_CLASS)
    {
        fake::bytes payload;
        payload.add_host16(msg_class).add_host16(kind).add_host32(CORE).add_host32(0).add_host32(change);
        return payload.add_host32(0).add_host32(address);
    }
    static fake::bytes ipv6_change(const ipv6_address &address, std::uint16_t kind = 7)
    {
        fake::bytes payload;
        payload.add_host16(IPV6_MSG_CLASS).add_host16(kind).add_host32(CORE);
        return payload.add(OUR_ADDRESS6).add(address);
    }
};

TEST_F(LumAddressChange, GivesIpv4ChangesToTheOverlaysOnThatInterface)
{
    lum_overlay &to = plain_overlay(OVERLAY);
    EXPECT_EQ(dispatch(0x14C01, ipv4_change(1, OUR_ADDRESS + 7)), 0);
    EXPECT_EQ(to.ext_ipv4, OUR_ADDRESS + 7);
    EXPECT_TRUE(platform.traced("Received IP msg (4/13)\n"));
}

TEST_F(LumAddressChange, IgnoresOtherKindsOfIpv4Messages)
{
    lum_overlay &to = plain_overlay(OVERLAY);
    EXPECT_EQ(dispatch(0x14C01, ipv4_change(1, OUR_ADDRESS + 7, 12)), 0);
    EXPECT_EQ(to.ext_ipv4, OUR_ADDRESS);
    EXPECT_TRUE(platform.traced("Received IP msg (4/12)\n"));
}

TEST_F(LumAddressChange, GivesIpv6ChangesToTheirOwnHandlerByTheirClass)
{
    lum_overlay &to = plain_overlay(OVERLAY);
    const ipv6_address other = fake::ipv6("2001:db8::77");
    EXPECT_EQ(dispatch(0x14C01, ipv6_change(other, 8)), 0);
    EXPECT_EQ(to.ext_ipv6, OUR_ADDRESS6);
    EXPECT_EQ(dispatch(0x14C01, ipv6_change(other)), 0);
    EXPECT_EQ(to.ext_ipv6, other);
    EXPECT_EQ(to.ext_ipv4, OUR_ADDRESS);
}

TEST_F(LumAddressChange, ReportsAnUnknownIpv4ChangeType)
{
    lum_overlay &to = plain_overlay(OVERLAY);
    EXPECT_EQ(dispatch(0x14C01, ipv4_change(4, OUR_ADDRESS + 7)), 0);
    EXPECT_EQ(to.ext_ipv4, OUR_ADDRESS);
    EXPECT_THAT(platform.syslog_texts(),
                ElementsAre("<<%LUM-3-UNK_IP_NOTIF>> Unrecognized IP address change notification type 4"));
}

TEST_F(LumAddressChange, NeedsAPayloadAndIgnoresOneThatIsTooShort)
{
    lum_overlay &to = plain_overlay(OVERLAY);
    EXPECT_EQ(dispatch(0x14C01, {}), -1);
    const fake::bytes four = ipv4_change(1, OUR_ADDRESS + 7), six = ipv6_change(fake::ipv6("2001:db8::77"));
    for (std::size_t length = 1; length < four.size(); ++length)
        EXPECT_EQ(dispatch(0x14C01, four.range(0, length)), 0);
    for (std::size_t length = 1; length < six.size(); ++length)
        EXPECT_EQ(dispatch(0x14C01, six.range(0, length)), 0);
    EXPECT_EQ(to.ext_ipv4, OUR_ADDRESS);
    EXPECT_EQ(to.ext_ipv6, OUR_ADDRESS6);
    EXPECT_EQ(dropped(drop_reason::BUS_MALFORMED), four.size() + six.size() - 2);
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
