// Notifications to clients, byte for byte. The offsets are written out here and not taken from the headers that the
// daemon builds its messages from.
#include "control_test.h"

#include <cstring>

using namespace fake;
using namespace testing;

namespace
{

struct LumNotification : ControlTest {
    lum_overlay &overlay = make_overlay();

    static const bus_message &sent()
    {
        EXPECT_THAT(platform.mbus_sent, SizeIs(1));
        return platform.mbus_sent.at(0);
    }
    static void expect_broadcast(const bus_message &message, bool want_ack = false)
    {
        EXPECT_EQ(message.from_sap, 442u);
        EXPECT_EQ(message.to.node, 0xFE000000u);
        EXPECT_EQ(message.to.sap, 0u);
        EXPECT_EQ(message.options_version, 1u);
        EXPECT_EQ(message.want_ack, want_ack);
        EXPECT_EQ(message.sync_event, 0u);
    }
};

TEST_F(LumNotification, StatusHasItsFieldsAndZeroBehindTheName)
{
    std::strcpy(overlay.vpn_name, "blue");
    for (const std::uint32_t opcode : {78851u, 78853u}) {
        platform.forget();
        lum_send_overlay_state_msg(overlay, opcode);
        bytes payload;
        payload.add_host32(100).add_host32(1100).add_host32(100).add_host32(1).add_host32(1);
        payload.add({'b', 'l', 'u', 'e'}).add_zeros(97 + 3);
        EXPECT_EQ(to_hex(sent().payload), to_hex(payload));
        EXPECT_EQ(sent().payload.size(), 124u);
        EXPECT_EQ(sent().opcode, opcode);
        expect_broadcast(sent());
        EXPECT_EQ(overlay.notify_pending, 0u);
    }
}

TEST_F(LumNotification, ADeletionAsksForAnAnswerAndIsPendingFromThenOn)
{
    lum_send_overlay_state_msg(overlay, 78852);
    EXPECT_EQ(sent().opcode, 78852u);
    expect_broadcast(sent(), true);
    EXPECT_EQ(overlay.notify_pending, 1u);
    EXPECT_THAT(platform.syslog_texts(), IsEmpty());
}

TEST_F(LumNotification, ADeletionTwiceIsReportedAndSentAllTheSame)
{
    overlay.notify_pending = 1;
    lum_send_overlay_state_msg(overlay, 78852);
    EXPECT_THAT(platform.syslog_texts(),
                ElementsAre("<<%LUM-4-STATE_MISMATCH>> state mismatch - notify_pending - in "
                            "lum_send_overlay_state_msg()"));
    expect_broadcast(sent(), true);
}

TEST_F(LumNotification, OtherStatusNotificationsDoNotMindAPendingOne)
{
    overlay.notify_pending = 1;
    lum_send_overlay_state_msg(overlay, 78853);
    EXPECT_THAT(platform.syslog_texts(), IsEmpty());
    EXPECT_EQ(overlay.notify_pending, 1u);
}

TEST_F(LumNotification, ADeletionIsPendingEvenWhenItCouldNotBeSent)
{
    platform.fail("mbus_send", 1, EAGAIN);
    lum_event_debug_flag = 1;
    lum_send_overlay_state_msg(overlay, 78852);
    EXPECT_EQ(overlay.notify_pending, 1u);
    EXPECT_THAT(platform.syslog_texts(),
                ElementsAre("<<%LUM-3-MBUS_SEND>> Error returned from mbus_send(), errno: Resource temporarily "
                            "unavailable"));
    EXPECT_THAT(platform.traces, IsEmpty());
    EXPECT_EQ(platform.called("mbus_send"), 1u); // not retried
}

TEST_F(LumNotification, StatusIsTracedWithNameAndState)
{
    lum_event_debug_flag = 1;
    lum_send_overlay_state_msg(overlay, 78853);
    EXPECT_THAT(platform.trace_texts(), ElementsAre("Overlay Overlay1 (DOWN) sending status notification"));
}

TEST_F(LumNotification, ParametersHaveTheirFieldsAndZeroElsewhere)
{
    std::strcpy(overlay.vpn_name, "blue");
    set_external(overlay, "eth5", CORE);
    overlay.ipv4_group = lum_addr_next_hop(OVERLAY, GROUP);
    overlay.ipv6_group = lum_addr_next_hop(OVERLAY, ipv6("ff05:1:2:3:4:5:6:7"));
    overlay.vlan_ranges = {2, {{10, 12}, {20, 20}}};
    overlay.state = 2;
    overlay.reason = 3;
    overlay.ext_ipv4 = CORE_IPV4;
    overlay.ext_ipv6 = ipv6("2001:db8::5");
    overlay.context_id = 7;

    lum_send_overlay_params_msg(overlay);

    bytes payload;
    payload.add_host32(100).add_host32(1100).add_zeros(4);       // 0, 4, 8
    payload.add_host32(5).add_zeros(32);                         // 12 external interfaces
    payload.add({'b', 'l', 'u', 'e'}).add_zeros(97 + 3);         // 48 name, 149
    payload.add_host32(0xEF010101).add(ipv6("ff05:1:2:3:4:5:6:7"));          // 152, 156
    payload.add_host16(2).add_host16(10).add_host16(12).add_host16(20).add_host16(20).add_zeros(56);     // 172
    payload.add_zeros(2).add_host32(2).add_host32(3).add_zeros(8);           // 238, 240, 244, 248
    payload.add_host32(0xC0000201).add(ipv6("2001:db8::5")).add_zeros(4);    // 256, 260, 276
    ASSERT_EQ(payload.size(), 280u);
    EXPECT_EQ(to_hex(sent().payload), to_hex(payload));
    EXPECT_EQ(sent().opcode, 78854u);
    expect_broadcast(sent());
}

TEST_F(LumNotification, ParametersWithoutExternalInterfaceHaveNoIod)
{
    overlay.ext_if[0].iod = CORE;
    lum_send_overlay_params_msg(overlay);
    EXPECT_EQ(sent().payload.range(12, 36), bytes(36));
}

TEST_F(LumNotification, SendingParametersSetsTheVpnIdToTheIodAlsoWhenItFails)
{
    overlay.vpn_id = 5;
    lum_send_overlay_params_msg(overlay);
    EXPECT_EQ(overlay.vpn_id, 100u);
    overlay.vpn_id = 5;
    platform.fail("mbus_send");
    lum_send_overlay_params_msg(overlay);
    EXPECT_EQ(overlay.vpn_id, 100u);
}

TEST_F(LumNotification, ParametersAreTracedWithNameAndState)
{
    lum_event_debug_flag = 1;
    lum_send_overlay_params_msg(overlay);
    EXPECT_THAT(platform.trace_texts(), ElementsAre("Overlay Overlay1 (DOWN) sending parameter change notification"));
}

// An adjacency record as it is published.
bytes adj_value()
{
    bytes value;
    value.add_host32(100).add_host32(4).add_host32(0xC6336409).add_zeros(20).add({2, 0, 0, 0, 0, 0xBB});
    value.add({0xEE, 0xEE}).add_host32(44);      // undefined bytes, tunnel
    return value;
}

TEST_F(LumNotification, AnAddedAdjacencyCarriesSystemIdAndTunnel)
{
    lum_event_debug_flag = 1;
    lum_send_overlay_adj_msg(adj_value(), 78856, false);
    bytes payload;
    payload.add_host32(100).add_zeros(4).add_host32(4).add_host32(0xC6336409).add_zeros(20);
    payload.add({2, 0, 0, 0, 0, 0xBB}).add_zeros(2).add_host32(44);
    ASSERT_EQ(payload.size(), 48u);
    EXPECT_EQ(to_hex(sent().payload), to_hex(payload));
    EXPECT_EQ(sent().opcode, 78856u);
    expect_broadcast(sent());
    EXPECT_THAT(platform.trace_texts(), ElementsAre("Sending adjacency notification for Overlay1 198.51.100.9"));
}

TEST_F(LumNotification, ADeletedAdjacencyHasZeroSystemIdAndTunnelUnderTheSameOpcode)
{
    lum_send_overlay_adj_msg(adj_value(), 78856, true);
    bytes payload;
    payload.add_host32(100).add_zeros(4).add_host32(4).add_host32(0xC6336409).add_zeros(20 + 12);
    EXPECT_EQ(to_hex(sent().payload), to_hex(payload));
    EXPECT_EQ(sent().opcode, 78856u);
}

TEST_F(LumNotification, AnAdjacencyThatCannotBeSentIsReportedAndNotTraced)
{
    lum_event_debug_flag = 1;
    platform.fail("mbus_send", 1, ENOTCONN);
    lum_send_overlay_adj_msg(adj_value(), 78856, false);
    EXPECT_THAT(platform.syslog_texts(),
                ElementsAre("<<%LUM-3-MBUS_SEND>> Error returned from mbus_send(), errno: Transport endpoint is not "
                            "connected"));
    EXPECT_THAT(platform.traces, IsEmpty());
}

TEST_F(LumNotification, ARecordThatIsTooShortIsNotSent)
{
    lum_send_overlay_adj_msg(adj_value().range(0, 43), 78856, false);
    EXPECT_THAT(platform.mbus_sent, IsEmpty());
}

TEST_F(LumNotification, VlansAreAHeadOfEightBytesAndTwelveBytesEach)
{
    const std::array<lum_vlan_triple, 2> triples{{{100, 7, 1}, {4095, 0, 0}}};
    lum_event_debug_flag = 1;
    lum_send_vlan_params_msg(triples);
    bytes payload;
    payload.add_host32(24).add_host32(2);
    payload.add_host32(100).add_host32(7).add_host32(1);
    payload.add_host32(4095).add_host32(0).add_host32(0);
    EXPECT_EQ(to_hex(sent().payload), to_hex(payload));
    EXPECT_EQ(sent().opcode, 78857u);
    expect_broadcast(sent());
    EXPECT_THAT(platform.trace_texts(), ElementsAre("Overlay  sending vlan change notification"));
}

TEST_F(LumNotification, NoChangedVlanIsSentAsACountOfZero)
{
    lum_send_vlan_params_msg({});
    EXPECT_EQ(to_hex(sent().payload), to_hex(bytes(8)));
}

TEST_F(LumNotification, VlansThatCannotBeSentAreReported)
{
    platform.fail("mbus_send", 1, EMSGSIZE);
    lum_send_vlan_params_msg({});
    EXPECT_THAT(platform.syslog_texts(),
                ElementsAre("<<%LUM-3-MBUS_SEND>> Error returned from mbus_send(), errno: Message too long"));
}

} // namespace
