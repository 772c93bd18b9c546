#include "lum_test.h"

using namespace lum_test;

namespace {

class LumForwarding : public LumTest {
protected:
    LumForwarding()
    {
        site_port(PORT_A);
        site_port(PORT_B);
        site_port(PORT_C);
        overlay_ = &overlay();
        platform.run_timers();
        platform.forget();
    }
    // From HOST_A, in the VLAN, as input hands it on.
    static fake::bytes frame_to(const fake::mac_address &to, std::uint16_t type = 0x0800,
                                const fake::bytes &payload = fake::filler(46))
    {
        return fake::tagged(to, HOST_A, VLAN, type, payload);
    }
    static void forward(fake::bytes frame, std::uint32_t iod = PORT_A)
    {
        plock_assert_held();
        lum_forward({frame.data(), static_cast<std::uint32_t>(frame.size())}, key(HOST_A), key(frame.mac(0)), iod);
    }
    static void mforward(fake::bytes frame, std::uint32_t iod = PORT_A)
    {
        plock_assert_held();
        lum_mforward({frame.data(), static_cast<std::uint32_t>(frame.size())}, key(HOST_A), key(frame.mac(0)), iod);
    }
    static void bforward(fake::bytes frame, std::uint32_t iod = PORT_A)
    {
        plock_assert_held();
        lum_bforward({frame.data(), static_cast<std::uint32_t>(frame.size())}, key(HOST_A), key(frame.mac(0)), iod);
    }
    static fake::bytes hello_to(const fake::mac_address &to)
    {
        return frame_to(to, 0x0800, fake::hsrp_hello(fake::ipv4(10, 0, 0, 1)));
    }
    lum_overlay *overlay_;
};

using LumForward = LumForwarding;

TEST_F(LumForward, DropsUnicastForUnknownMacAndFloodsNothing)
{
    trace_all_packets();
    forward(frame_to(HOST_B));
    EXPECT_TRUE(platform.sent_nothing());
    EXPECT_EQ(dropped(drop_reason::FWD_NO_ROUTE), 1u);
    EXPECT_THAT(platform.trace_texts(), ElementsAre("Unicast route not found for 10/02:00:00:00:00:0b\n"));
}

TEST_F(LumForward, SendsFrameForLocalMacToItsPort)
{
    trace_all_packets();
    platform.route(key(HOST_B), fake::local(PORT_B));
    forward(frame_to(HOST_B));
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B));
    EXPECT_TRUE(platform.traced("Forward 10/02:00:00:00:00:0b to next-hop: eth2\n"));
}

TEST_F(LumForward, TurnsAnIfindexIntoItsPort)
{
    platform.route(key(HOST_B), fake::local_ifindex(1000 + PORT_C));
    forward(frame_to(HOST_B));
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_C));
}

TEST_F(LumForward, DropsFrameForAnIfindexThatNoInterfaceHas)
{
    platform.route(key(HOST_B), fake::local_ifindex(9999));
    forward(frame_to(HOST_B));
    EXPECT_THAT(platform.l2_sent, IsEmpty());
    EXPECT_EQ(dropped(drop_reason::L2_NO_PORT), 1u);
}

TEST_F(LumForward, SendsFrameForRemoteMacAsOneUdpPacketToItsEdgeDevice)
{
    trace_all_packets();
    platform.route(key(HOST_B), fake::remote(OVERLAY, REMOTE_EDGE));
    const fake::bytes frame = frame_to(HOST_B);
    forward(frame);

    ASSERT_THAT(platform.ip_sent, SizeIs(1));
    EXPECT_EQ(platform.ip_sent.front().be32(16), REMOTE_EDGE);
    EXPECT_EQ(platform.ip_sent.front().be16(22), 8472);
    EXPECT_THAT(platform.ip_sent.front().from(32), ElementsAreArray(frame));
    EXPECT_EQ(platform.ip_sent.front().mcast_iod, 0u);
    EXPECT_THAT(platform.l2_sent, IsEmpty());
    EXPECT_TRUE(platform.traced("Forward 10/02:00:00:00:00:0b to next-hop: 198.51.100.9\n"));
}

TEST_F(LumForward, DropsHelloTowardsARemoteNextHopAndDeliversItToALocalPort)
{
    platform.route(key(HOST_B), fake::remote(OVERLAY, REMOTE_EDGE));
    forward(hello_to(HOST_B));
    EXPECT_TRUE(platform.sent_nothing());
    EXPECT_EQ(dropped(drop_reason::FWD_FILTERED), 1u);

    platform.route(key(HOST_B), fake::local(PORT_B));
    forward(hello_to(HOST_B));
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B));
}

TEST_F(LumForward, TracesNoForwardingOfAFilteredFrame)
{
    trace_all_packets();
    platform.route(key(HOST_B), fake::remote(OVERLAY, REMOTE_EDGE));
    forward(hello_to(HOST_B));
    EXPECT_THAT(platform.trace_texts(), ElementsAre("Filter IPv4/HSRP frame\n"));
}

TEST_F(LumForward, DropsFrameForAnOverlayThatDoesNotExist)
{
    platform.route(key(HOST_B), fake::remote(OVERLAY2, REMOTE_EDGE));
    forward(frame_to(HOST_B));
    EXPECT_TRUE(platform.sent_nothing());
    EXPECT_EQ(dropped(drop_reason::FWD_NO_OVERLAY), 1u);
}

TEST_F(LumForward, DropsFrameForANextHopOfAnyOtherKind)
{
    platform.route(key(HOST_B), fake::ip_addr(REMOTE_EDGE));
    forward(frame_to(HOST_B));
    EXPECT_TRUE(platform.sent_nothing());
    EXPECT_EQ(dropped(drop_reason::FWD_BAD_NEXT_HOP), 1u);
}

TEST_F(LumForward, SendsNothingBackToThePortItCameFrom)
{
    platform.route(key(HOST_B), fake::local(PORT_A));
    forward(frame_to(HOST_B), PORT_A);
    platform.route(key(HOST_B), fake::local_ifindex(1000 + PORT_A));
    forward(frame_to(HOST_B), PORT_A);
    EXPECT_TRUE(platform.sent_nothing());
    EXPECT_EQ(dropped(drop_reason::FWD_SPLIT_HORIZON), 2u);
}

TEST_F(LumForward, SendsNothingBackIntoTheOverlayItCameFrom)
{
    overlay(OVERLAY2, 20);
    platform.route(key(HOST_B), fake::remote(OVERLAY, REMOTE_EDGE));
    forward(frame_to(HOST_B), OVERLAY);
    EXPECT_TRUE(platform.sent_nothing());
    EXPECT_EQ(dropped(drop_reason::FWD_SPLIT_HORIZON), 1u);

    platform.route(key(HOST_B), fake::remote(OVERLAY2, REMOTE_EDGE));
    forward(frame_to(HOST_B), OVERLAY);
    EXPECT_THAT(platform.ip_sent, SizeIs(1));
}

TEST_F(LumForward, DeliversRoutedUnicastToABlockedPort)
{
    lum_vlan_block_port(lum_vlans[VLAN], PORT_B);
    platform.route(key(HOST_B), fake::local(PORT_B));
    forward(frame_to(HOST_B));
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B));
}

TEST_F(LumForward, TakesNoReadersLock)
{
    platform.route(key(HOST_B), fake::local(PORT_B));
    forward(frame_to(HOST_B));
    EXPECT_EQ(platform.called("rtab_acquire_rdlock"), 0u);
}

TEST_F(LumForward, KeepsOneConversationOnOneOfSeveralNextHops)
{
    platform.route(key(HOST_B), {fake::remote(OVERLAY, REMOTE_EDGE), fake::remote(OVERLAY, REMOTE_EDGE + 1)});
    std::set<std::uint32_t> used;
    for (std::uint8_t host = 0; host < 32; ++host) {
        fake::bytes frame = frame_to(HOST_B);
        frame[11] = host;
        platform.forget();
        forward(frame);
        forward(frame);
        ASSERT_THAT(platform.ip_sent, SizeIs(2));
        EXPECT_EQ(platform.ip_sent[0].be32(16), platform.ip_sent[1].be32(16));
        used.insert(platform.ip_sent[0].be32(16));
    }
    EXPECT_THAT(used, SizeIs(2));
}

class LumMforward : public LumForwarding {
protected:
    static constexpr std::uint32_t GROUP = 0xE8010203;       // 232.1.2.3
    static fake::bytes group_frame()
    {
        return frame_to(fake::group_mac(GROUP), 0x0800, fake::ip_packet_of(17, 1, GROUP));
    }
};

TEST_F(LumMforward, DropsGroupWithoutRoute)
{
    trace_all_packets();
    mforward(group_frame());
    EXPECT_TRUE(platform.sent_nothing());
    EXPECT_EQ(dropped(drop_reason::FWD_NO_MROUTE), 1u);
    EXPECT_THAT(platform.trace_texts(), ElementsAre("Multicast route not found for 10/01:00:5e:01:02:03\n"));
    EXPECT_FALSE(platform.route_lock_held);
}

TEST_F(LumMforward, SendsOneCopyToEachInterfaceOfTheRouteButTheArrivalPort)
{
    trace_all_packets();
    platform.mroute(key(fake::group_mac(GROUP)), {PORT_A, PORT_B, OVERLAY});
    mforward(group_frame());
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B));
    ASSERT_THAT(platform.ip_sent, SizeIs(1));
    EXPECT_EQ(platform.ip_sent.front().be32(16), 0xE8C00000u | (0x5E010203u & 0x003FFFFFu));
    EXPECT_EQ(platform.ip_sent.front().mcast_iod, CORE);
    EXPECT_TRUE(platform.traced("Multicast 10/01:00:5e:01:02:03, oif-list count: 3\n"));
}

TEST_F(LumMforward, SendsItsCopiesInAscendingOrderUnderTheReadersLock)
{
    platform.mroute(key(fake::group_mac(GROUP)), {PORT_C, OVERLAY, PORT_B});
    mforward(group_frame());
    const std::vector<std::string> calls = platform.call_texts(
        {"rtab_acquire_rdlock", "net_l2_send", "ip_cl_output", "rtab_release_rdlock"});
    ASSERT_THAT(calls, SizeIs(5));
    EXPECT_EQ(calls.front(), "rtab_acquire_rdlock()");
    EXPECT_EQ(calls.back(), "rtab_release_rdlock()");
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B, PORT_C));
    EXPECT_THAT(calls[3], ::testing::StartsWith("ip_cl_output"));
}

TEST_F(LumMforward, SkipsAnInterfaceThatIsNeitherSwitchportNorOverlay)
{
    platform.mroute(key(fake::group_mac(GROUP)), {CORE, PORT_B});
    mforward(group_frame());
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B));
    EXPECT_THAT(platform.ip_sent, IsEmpty());
    EXPECT_EQ(dropped(drop_reason::FWD_NO_OVERLAY), 1u);
}

TEST_F(LumMforward, FiltersOnlyTheCopiesForTheCore)
{
    platform.mroute(key(fake::group_mac(GROUP)), {PORT_B, OVERLAY});
    mforward(hello_to(fake::group_mac(GROUP)));
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B));
    EXPECT_THAT(platform.ip_sent, IsEmpty());
    EXPECT_EQ(dropped(drop_reason::FWD_FILTERED), 1u);
}

TEST_F(LumMforward, NeverReturnsAFrameToTheOverlayItCameFrom)
{
    platform.mroute(key(fake::group_mac(GROUP)), {PORT_B, OVERLAY});
    mforward(group_frame(), OVERLAY);
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B));
    EXPECT_THAT(platform.ip_sent, IsEmpty());
}

TEST_F(LumMforward, CountsAFrameWhoseRouteLeadsOnlyBack)
{
    platform.mroute(key(fake::group_mac(GROUP)), {PORT_A});
    mforward(group_frame());
    EXPECT_TRUE(platform.sent_nothing());
    EXPECT_EQ(dropped(drop_reason::FWD_NO_COPY), 1u);
}

using LumBforward = LumForwarding;

TEST_F(LumBforward, FloodsTheOtherMemberPortsAndTheOverlaysGroup)
{
    trace_all_packets();
    const fake::bytes frame = frame_to(fake::BROADCAST);
    bforward(frame);
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B, PORT_C));
    ASSERT_THAT(platform.ip_sent, SizeIs(1));
    EXPECT_EQ(platform.ip_sent.front().be32(16), CONTROL_GROUP);
    EXPECT_EQ(platform.ip_sent.front().mcast_iod, CORE);
    EXPECT_THAT(platform.ip_sent.front().from(32), ElementsAreArray(frame));
    EXPECT_TRUE(platform.traced("Flood on vlan 10, port count: 3\n"));
    EXPECT_TRUE(platform.traced("Broadcast frame to overlay address 239.1.1.1 on eth0\n"));
}

TEST_F(LumBforward, FloodsAnUntaggedArrivalWholeToEveryAccessPort)
{
    // The tagged copy stands in the scratch buffer while each port gets it without its tag.
    const fake::bytes frame = fake::ethernet(fake::BROADCAST, HOST_A, 0x0800, fake::filler(46));
    input(frame, PORT_A);
    ASSERT_THAT(platform.l2_sent, SizeIs(2));
    for (const fake::l2_frame &sent : platform.l2_sent)
        EXPECT_EQ(static_cast<const fake::bytes &>(sent), frame);
    ASSERT_THAT(platform.ip_sent, SizeIs(1));
    EXPECT_THAT(platform.ip_sent.front().from(32), ElementsAreArray(fake::with_tag(frame, VLAN)));
}

TEST_F(LumBforward, FloodsASnapArrivalAlikeToEveryPortAndIntoTheCore)
{
    site_port(PORT_B, VLAN, true);
    const fake::bytes frame = fake::snap(fake::BROADCAST, HOST_A, 0x0800, fake::filler(46));
    input(frame, PORT_C);
    ASSERT_THAT(ports_sent_to(), ElementsAre(PORT_A, PORT_B));
    fake::bytes tagged = fake::with_tag(frame, VLAN);
    tagged.set_be16(12, static_cast<std::uint16_t>(frame.be16(12) - 4));
    EXPECT_EQ(static_cast<const fake::bytes &>(platform.l2_sent[1]), tagged);
    EXPECT_THAT(platform.ip_sent.front().from(32), ElementsAreArray(tagged));
    EXPECT_EQ(platform.l2_sent[0].size(), frame.size());
}

TEST_F(LumBforward, FloodsAFrameFromTheOverlayToUnblockedMemberPortsOnly)
{
    lum_vlan_block_port(lum_vlans[VLAN], PORT_B);
    bforward(frame_to(fake::BROADCAST), OVERLAY);
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_A, PORT_C));
    EXPECT_THAT(platform.ip_sent, IsEmpty());
}

TEST_F(LumBforward, FloodsLocallyOnlyWhileTheExternalInterfaceIsUnresolved)
{
    overlay_->ext_if[0].iod = 0;
    bforward(frame_to(fake::BROADCAST));
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B, PORT_C));
    EXPECT_THAT(platform.ip_sent, IsEmpty());
    EXPECT_EQ(dropped(drop_reason::ENCAP_NO_SOURCE), 1u);    // the core's copy
    bforward(frame_to(fake::BROADCAST), OVERLAY);            // none was due
    EXPECT_EQ(dropped_in_all(), 1u);
}

TEST_F(LumBforward, FloodsLocallyOnlyOnAVlanWithoutOverlay)
{
    lum_vlans[VLAN].overlay = nullptr;
    bforward(frame_to(fake::BROADCAST));
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B, PORT_C));
    EXPECT_THAT(platform.ip_sent, IsEmpty());
}

TEST_F(LumBforward, KeepsAFilteredFrameOnTheSite)
{
    bforward(hello_to(fake::group_mac(fake::ipv4(224, 0, 0, 2))));
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B, PORT_C));
    EXPECT_THAT(platform.ip_sent, IsEmpty());
    EXPECT_EQ(dropped(drop_reason::FWD_FILTERED), 1u);
}

TEST_F(LumBforward, UsesTheIpv6GroupWhenTheCoreIsIpv6)
{
    overlay_->encap_family = LUM_FAMILY_IPV6;
    bforward(frame_to(fake::BROADCAST));
    ASSERT_THAT(platform.ipv6_sent, SizeIs(1));
    EXPECT_THAT(platform.ipv6_sent.front().range(24, 16), ElementsAreArray(CONTROL_GROUP6));
    EXPECT_EQ(platform.ipv6_sent.front().mcast_iod, CORE);
}

TEST_F(LumBforward, HandsTheFrameToThePacketServiceInGreFormat)
{
    overlay_->encap_type = LUM_ENCAP_GRE;
    lum_port *tunnel = lum_add_to_pt(OVERLAY);
    ASSERT_NE(tunnel, nullptr);
    tunnel->trunk = 1;
    const fake::bytes frame = frame_to(fake::BROADCAST);
    bforward(frame);
    ASSERT_THAT(ports_sent_to(), ElementsAre(PORT_B, PORT_C, OVERLAY));
    EXPECT_EQ(platform.l2_sent.back().request.next_hop_family, 0u);
    EXPECT_EQ(static_cast<const fake::bytes &>(platform.l2_sent.back()), frame);
    EXPECT_THAT(platform.ip_sent, IsEmpty());
}

TEST_F(LumBforward, CountsAFrameThatHasNowhereToGo)
{
    lum_bforward({}, key(HOST_A, 77), key(fake::BROADCAST, 77), PORT_A);         // a VLAN that is not in use
    EXPECT_EQ(dropped(drop_reason::FWD_NO_COPY), 1u);
    lum_vlan_block_port(lum_vlans[VLAN], PORT_B);
    lum_vlan_delete_port(lum_vlans[VLAN], PORT_C);
    bforward(frame_to(fake::BROADCAST));                     // into the core
    EXPECT_EQ(dropped_in_all(), 1u);
    lum_vlans[VLAN].overlay = nullptr;
    platform.forget();
    bforward(frame_to(fake::BROADCAST));
    EXPECT_TRUE(platform.sent_nothing());
    EXPECT_EQ(dropped(drop_reason::FWD_NO_COPY), 2u);
}

} // namespace
