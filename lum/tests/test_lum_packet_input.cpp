#include "lum_test.h"

using namespace lum_test;

namespace {

class LumInput : public LumTest {
protected:
    LumInput()
    {
        site_port(PORT_A);
        site_port(PORT_B);
        overlay();
        platform.run_timers();
        platform.forget();
    }
    static fake::bytes unicast(const fake::mac_address &to = HOST_B)
    {
        return fake::ethernet(to, HOST_A, 0x0800, fake::filler(46));
    }
};

TEST_F(LumInput, ForwardsAndLearnsUntaggedFrameOnTheVlanOfItsAccessPort)
{
    platform.route(key(HOST_B), fake::local(PORT_B));
    input(unicast(), PORT_A);

    ASSERT_THAT(ports_sent_to(), ElementsAre(PORT_B));
    EXPECT_EQ(static_cast<const fake::bytes &>(platform.l2_sent.front()), unicast());
    EXPECT_EQ(lum_rtab_buffer_count, 1u);
    EXPECT_EQ(wire_host32(&lum_rtab_buffer[LUM_LEARN_HEADER]), VLAN);
}

TEST_F(LumInput, TracesUntaggedFrameWithTheWordsArrivedUntagged)
{
    trace_all_packets();
    input(unicast(), PORT_A);
    EXPECT_THAT(platform.trace_texts(),
                Contains("Input 10/02:00:00:00:00:0a -> 10/02:00:00:00:00:0b from eth1, 64 bytes, ethertype 0x0800, "
                         "arrived untagged\n"));
}

TEST_F(LumInput, TracesTaggedSnapFrameWithItsHeader)
{
    trace_all_packets();
    input(fake::tagged_snap(HOST_B, HOST_A, VLAN, 0x0800, fake::filler(40)), PORT_A);
    EXPECT_THAT(platform.trace_texts(),
                Contains("Input 10/02:00:00:00:00:0a -> 10/02:00:00:00:00:0b from eth1, 66 bytes, ethertype 0x0800, "
                         "arrived tagged, snap header\n"));
}

TEST_F(LumInput, KeepsTheTagOfATaggedFrameAndReadsItsVlanLowByteFirst)
{
    site_port(PORT_C, 300, true);
    platform.route(key(HOST_B, 300), fake::local(PORT_C));
    const fake::bytes frame = fake::tagged(HOST_B, HOST_A, 300, 0x0800, fake::filler(46));
    ASSERT_EQ(frame[14], 0x2C);
    ASSERT_EQ(frame[15], 0x01);
    input(frame, PORT_A);

    ASSERT_THAT(platform.l2_sent, SizeIs(1));
    EXPECT_EQ(static_cast<const fake::bytes &>(platform.l2_sent.front()), frame);
}

TEST_F(LumInput, LeavesThePriorityBitsOutOfTheVlan)
{
    fake::bytes frame = fake::tagged(HOST_B, HOST_A, VLAN, 0x0800, fake::filler(46));
    frame[15] |= 0xE0;
    platform.route(key(HOST_B), fake::local(PORT_B));
    input(frame, PORT_A);
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B));
}

TEST_F(LumInput, DropsCoreFrameOfAVlanWithoutOverlayAndLearnsNothing)
{
    vlan_entry(20);
    input(fake::tagged(HOST_B, HOST_A, 20, 0x0800, fake::filler(46)), 0);
    EXPECT_TRUE(platform.sent_nothing());
    EXPECT_EQ(lum_rtab_buffer_count, 0u);
    EXPECT_EQ(dropped(drop_reason::FWD_NO_VLAN_OVERLAY), 1u);
}

TEST_F(LumInput, ForwardsCoreFrameWithTheOverlayAsReceivingInterfaceAndLearnsNothing)
{
    trace_all_packets();
    platform.route(key(HOST_B), fake::local(PORT_B));
    input(fake::tagged(HOST_B, HOST_A, VLAN, 0x0800, fake::filler(46)), 0);

    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B));
    EXPECT_EQ(lum_rtab_buffer_count, 0u);
    EXPECT_THAT(platform.trace_texts(),
                Contains("Input 10/02:00:00:00:00:0a -> 10/02:00:00:00:00:0b from Overlay1, 64 bytes, ethertype "
                         "0x0800, arrived tagged\n"));
}

TEST_F(LumInput, DropsUntaggedCoreFrameSinceItBelongsToVlanZero)
{
    input(unicast(), 0);
    EXPECT_TRUE(platform.sent_nothing());
    EXPECT_EQ(dropped(drop_reason::FWD_NO_VLAN_OVERLAY), 1u);
}

TEST_F(LumInput, DropsFramesOfEveryLengthThatIsShorterThanTheirHeaders)
{
    const fake::bytes frames[] = {unicast(), fake::tagged(HOST_B, HOST_A, VLAN, 0x0800, fake::filler(46)),
                                  fake::snap(HOST_B, HOST_A, 0x0800, fake::filler(46)),
                                  fake::tagged_snap(HOST_B, HOST_A, VLAN, 0x0800, fake::filler(46))};
    const std::size_t headers[] = {14, 18, 22, 26};
    platform.route(key(HOST_B), fake::local(PORT_B));
    for (std::size_t kind = 0; kind < std::size(frames); ++kind)
        for (std::size_t length = 0; length <= frames[kind].size(); ++length) {
            const std::uint64_t before = dropped(drop_reason::L2_TRUNCATED);
            platform.l2_sent.clear();
            lum_clear_learn_buffer();
            input(frames[kind].range(0, length), PORT_A);
            const bool whole = length >= headers[kind];
            EXPECT_EQ(dropped(drop_reason::L2_TRUNCATED) - before, whole ? 0u : 1u) << kind << ' ' << length;
            EXPECT_EQ(platform.l2_sent.size(), whole ? 1u : 0u) << kind << ' ' << length;
            EXPECT_EQ(lum_rtab_buffer_count, whole ? 1u : 0u) << kind << ' ' << length;
        }
}

TEST_F(LumInput, DropsUntaggedFrameThatDoesNotFitTheScratchBufferOnceTagged)
{
    platform.route(key(HOST_B), fake::local(PORT_B));
    input(fake::ethernet(HOST_B, HOST_A, 0x0800, fake::filler(1500)), PORT_A);       // 1514 bytes, 1518 tagged
    ASSERT_THAT(platform.l2_sent, SizeIs(1));
    EXPECT_THAT(platform.l2_sent.front(), SizeIs(1514));

    input(fake::ethernet(HOST_B, HOST_A, 0x0800, fake::filler(1501)), PORT_A);
    EXPECT_THAT(platform.l2_sent, SizeIs(1));
    EXPECT_EQ(dropped(drop_reason::L2_OVERSIZED), 1u);
    EXPECT_EQ(lum_rtab_buffer_count, 1u);
}

TEST_F(LumInput, DropsTaggedFrameThatAnAccessPortCouldNotCarryUntagged)
{
    platform.route(key(HOST_B), fake::local(PORT_B));
    input(fake::tagged(HOST_B, HOST_A, VLAN, 0x0800, fake::filler(1504)), PORT_A);   // 1522 bytes, 1518 untagged
    EXPECT_THAT(platform.l2_sent, SizeIs(1));
    input(fake::tagged(HOST_B, HOST_A, VLAN, 0x0800, fake::filler(1505)), PORT_A);
    EXPECT_THAT(platform.l2_sent, SizeIs(1));
    EXPECT_EQ(dropped(drop_reason::L2_OVERSIZED), 1u);
}

TEST_F(LumInput, PassesFrameWithASecondTagInsideUnharmed)
{
    site_port(PORT_C, VLAN, true);
    platform.route(key(HOST_B), fake::local(PORT_C));
    const fake::bytes inner = fake::tagged(HOST_B, HOST_A, 7, 0x0800, fake::filler(46));
    const fake::bytes frame = fake::with_tag(inner, VLAN);
    input(frame, PORT_A);
    ASSERT_THAT(platform.l2_sent, SizeIs(1));
    EXPECT_EQ(static_cast<const fake::bytes &>(platform.l2_sent.front()), frame);
}

TEST_F(LumInput, TakesTypeFieldOf0x0600AsALength)
{
    fake::bytes frame = fake::snap(HOST_B, HOST_A, 0x0800, fake::filler(46));
    frame.set_be16(12, 0x600);
    trace_all_packets();
    input(frame, PORT_A);
    EXPECT_THAT(platform.trace_texts(), Contains(::testing::HasSubstr(", snap header\n")));
    platform.forget();
    frame.set_be16(12, 0x601);
    input(frame, PORT_A);
    EXPECT_THAT(platform.trace_texts(), Not(Contains(::testing::HasSubstr(", snap header\n"))));
}

TEST_F(LumInput, LearnsTheSourceOfAFrameThatSuppressionAnswered)
{
    lum_cache_arp_nd(*lum_vlans[VLAN].overlay, fake::ipv4(10, 0, 0, 2), {}, VLAN, HOST_B.data());
    input(fake::ethernet(fake::BROADCAST, HOST_A, 0x0806,
                         fake::arp_request(HOST_A, fake::ipv4(10, 0, 0, 1), fake::ipv4(10, 0, 0, 2))),
          PORT_A);
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_A));
    EXPECT_EQ(lum_rtab_buffer_count, 1u);
}

TEST_F(LumInput, SendsMulticastOfTheLocalNetworkToBroadcastForwarding)
{
    const auto input_group = [&](const fake::bytes &packet, std::uint16_t type, const fake::mac_address &mac) {
        platform.forget();
        input(fake::ethernet(mac, HOST_A, type, packet), PORT_A);
        return ports_sent_to();
    };
    const std::uint32_t local = fake::ipv4(224, 0, 0, 5), routed = fake::ipv4(239, 1, 1, 1);
    const ipv6_address local6 = fake::ipv6("ff02::2"), routed6 = fake::ipv6("ff05::2");
    // Of the two only broadcast forwarding floods; multicast forwarding finds no route.
    EXPECT_THAT(input_group(fake::ip_packet_of(17, 1, local), 0x0800, fake::group_mac(local)), ElementsAre(PORT_B));
    EXPECT_THAT(input_group(fake::ip_packet_of(17, 1, routed), 0x0800, fake::group_mac(routed)), IsEmpty());
    EXPECT_EQ(dropped(drop_reason::FWD_NO_MROUTE), 1u);
    EXPECT_THAT(input_group(fake::ipv6_packet_of(17, {}, local6), 0x86DD, fake::group_mac(local6)),
                ElementsAre(PORT_B));
    EXPECT_THAT(input_group(fake::ipv6_packet_of(17, {}, routed6), 0x86DD, fake::group_mac(routed6)), IsEmpty());
    EXPECT_EQ(dropped(drop_reason::FWD_NO_MROUTE), 2u);
    const ipv6_address solicited = fake::solicited_node(fake::ipv6("2001:db8::12:3456"));
    EXPECT_THAT(input_group(fake::ipv6_packet_of(17, {}, solicited), 0x86DD, fake::group_mac(solicited)),
                ElementsAre(PORT_B));
    EXPECT_THAT(input_group(fake::filler(46), 0x88CC, fake::mac("01:80:c2:00:00:00")), ElementsAre(PORT_B));
}

using LumIsLinkLocalMulticast = LumInput;

int link_local(fake::bytes frame)
{
    return lum_is_link_local_multicast({frame.data(), static_cast<std::uint32_t>(frame.size())});
}

TEST_F(LumIsLinkLocalMulticast, LooksBehindTagsAndSnapHeaders)
{
    for (const std::uint32_t group : {fake::ipv4(224, 0, 0, 255), fake::ipv4(224, 0, 1, 0)}) {
        const int expected = group == fake::ipv4(224, 0, 0, 255) ? 1 : 0;
        const fake::bytes packet = fake::ip_packet_of(17, 1, group);
        const fake::mac_address mac = fake::group_mac(group);
        EXPECT_EQ(link_local(fake::ethernet(mac, HOST_A, 0x0800, packet)), expected);
        EXPECT_EQ(link_local(fake::tagged(mac, HOST_A, VLAN, 0x0800, packet)), expected);
        EXPECT_EQ(link_local(fake::snap(mac, HOST_A, 0x0800, packet)), expected);
        EXPECT_EQ(link_local(fake::tagged_snap(mac, HOST_A, VLAN, 0x0800, packet)), expected);
    }
}

TEST_F(LumIsLinkLocalMulticast, TakesScopeFromTheLowNibbleWhateverTheFlagsSay)
{
    for (const char *group : {"ff02::2", "ff12::2", "ff32::2"}) {
        const ipv6_address address = fake::ipv6(group);
        EXPECT_EQ(
            link_local(fake::ethernet(fake::group_mac(address), HOST_A, 0x86DD, fake::ipv6_packet_of(17, {}, address))),
            1);
    }
    const ipv6_address site = fake::ipv6("ff15::2");
    EXPECT_EQ(link_local(fake::ethernet(fake::group_mac(site), HOST_A, 0x86DD, fake::ipv6_packet_of(17, {}, site))), 0);
}

TEST_F(LumIsLinkLocalMulticast, FloodsGroupFramesThatAreTooShortForTheirNetworkHeader)
{
    const std::uint32_t routed = fake::ipv4(239, 1, 1, 1);
    const fake::bytes frame =
        fake::ethernet(fake::group_mac(routed), HOST_A, 0x0800, fake::ip_packet_of(17, 1, routed));
    EXPECT_EQ(link_local(frame.range(0, 14 + 20)), 0);
    EXPECT_EQ(link_local(frame.range(0, 14 + 19)), 1);
    EXPECT_EQ(link_local(frame.range(0, 14)), 1);
}

class LumPacketThread : public LumInput {
protected:
    LumPacketThread()
    {
        EXPECT_TRUE(lum_init_pm());
        platform.forget();
    }
    static fake::bytes message(std::uint32_t iod, const fake::bytes &frame)
    {
        fake::bytes payload;
        payload.add_zeros(4).add_be32(iod).add_zeros(44).add_be16(static_cast<unsigned>(frame.size())).add_zeros(6);
        return payload.add(frame);
    }
    static void process(fake::bytes payload)
    {
        plock_assert_held();
        lum_process_pm_msg(payload.data(), payload.size());
    }
};

TEST_F(LumPacketThread, HandlesBothFrameOpcodesAlikeUntilItsQueueIsUnbound)
{
    platform.route(key(HOST_B), fake::local(PORT_B));
    platform.deliver_frame(PORT_A, unicast(), 0x16004);
    platform.deliver_frame(PORT_A, unicast(), 0x16005);
    EXPECT_EQ(platform.run_thread("lum-pm-thread"), nullptr);
    EXPECT_THAT(platform.l2_sent, SizeIs(2));
    EXPECT_EQ(platform.messages_outstanding(), 0u);
    EXPECT_EQ(platform.messages_dropped, 2u);
    EXPECT_THAT(platform.syslog, IsEmpty());
}

TEST_F(LumPacketThread, ReportsAnyOtherOpcodeOnceAndReleasesTheMessage)
{
    platform.deliver_frame(PORT_A, unicast(), 0x16006);
    platform.run_thread("lum-pm-thread");
    EXPECT_THAT(platform.syslog_texts(),
                ElementsAre("<<%LUM-3-UNKNOWN_OPC>> lum_pm_main(): unknown MBUS OPC type: 90118"));
    EXPECT_EQ(platform.messages_dropped, 1u);
    EXPECT_THAT(platform.l2_sent, IsEmpty());
}

TEST_F(LumPacketThread, DropsMessageWithoutPayloadSilently)
{
    platform.deliver(LUM_PACKET_SAP, 0x99999);
    platform.run_thread("lum-pm-thread");
    EXPECT_THAT(platform.syslog, IsEmpty());
    EXPECT_EQ(platform.messages_dropped, 1u);
}

TEST_F(LumPacketThread, ReportsAFailedReleaseAndGoesOn)
{
    platform.route(key(HOST_B), fake::local(PORT_B));
    platform.deliver_frame(PORT_A, unicast());
    platform.deliver_frame(PORT_A, unicast());
    platform.fail("mbus_drop", 1, EINVAL);
    platform.run_thread("lum-pm-thread");
    EXPECT_THAT(platform.syslog_texts(),
                ElementsAre("<<%LUM-3-MBUS_DROP>> Error returned from mbus_drop(), errno: Invalid argument"));
    EXPECT_THAT(platform.l2_sent, SizeIs(2));
}

TEST_F(LumPacketThread, WaitsAgainAfterAReceiveThatFailed)
{
    platform.route(key(HOST_B), fake::local(PORT_B));
    platform.deliver_frame(PORT_A, unicast());
    platform.fail("mbus_recv", 1, EINTR);
    platform.run_thread("lum-pm-thread");
    EXPECT_THAT(platform.l2_sent, SizeIs(1));
    EXPECT_THAT(platform.syslog, IsEmpty());
}

TEST_F(LumPacketThread, OffersAYieldForEachMessageAndWaitsWithoutTheLock)
{
    platform.deliver_frame(PORT_A, unicast());
    platform.run_thread("lum-pm-thread");
    EXPECT_GE(platform.may_yields, 2u);
    for (const fake::call_record &call : platform.calls_of("mbus_recv"))
        EXPECT_FALSE(call.lock_held);
}

using LumProcessPmMsg = LumPacketThread;

TEST_F(LumProcessPmMsg, DropsFramesOfInterfacesThatAreNeitherSwitchportNorOverlay)
{
    process(message(CORE, unicast()));
    process(message(700, unicast()));
    EXPECT_TRUE(platform.sent_nothing());
    EXPECT_EQ(lum_rtab_buffer_count, 0u);
    EXPECT_EQ(dropped(drop_reason::L2_NOT_SERVED), 2u);
}

TEST_F(LumProcessPmMsg, TakesFramesOfAnOverlayInterfaceAsFramesFromTheCore)
{
    platform.route(key(HOST_B), fake::local(PORT_B));
    process(message(OVERLAY, fake::tagged(HOST_B, HOST_A, VLAN, 0x0800, fake::filler(46))));
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B));
    EXPECT_EQ(lum_rtab_buffer_count, 0u);
}

TEST_F(LumProcessPmMsg, ChecksTheMessageAgainstItsLength)
{
    const fake::bytes whole = message(PORT_A, unicast());
    platform.route(key(HOST_B), fake::local(PORT_B));
    for (std::size_t length = 0; length < whole.size(); ++length)
        process(whole.range(0, length));
    EXPECT_TRUE(platform.sent_nothing());
    EXPECT_EQ(dropped(drop_reason::BUS_MALFORMED), whole.size());
    process(whole);
    EXPECT_THAT(platform.l2_sent, SizeIs(1));
}

TEST_F(LumInput, KnowsAnInterfaceExactlyWhenItHasAPortRecord)
{
    ASSERT_NE(lum_on_iod(PORT_A), nullptr);
    EXPECT_EQ(lum_on_iod(PORT_A)->iod, PORT_A);
    EXPECT_EQ(lum_on_iod(CORE), nullptr);
}

class LumPacketTraceFilter : public LumTest {
protected:
    LumPacketTraceFilter() { lum_packet_debug_flag = 1; }
    static bool wanted(const fake::mac_address &to, std::uint32_t vlan = VLAN)
    {
        return lum_packet_trace_wanted(key(HOST_A, vlan), key(to, vlan));
    }
};

TEST_F(LumPacketTraceFilter, TracesNothingWhenNoFilterIsSet)
{
    EXPECT_FALSE(wanted(HOST_B));
    EXPECT_FALSE(wanted(fake::BROADCAST));
}

TEST_F(LumPacketTraceFilter, TellsUnicastMulticastAndBroadcastApart)
{
    const fake::mac_address group = fake::group_mac(fake::ipv4(239, 1, 1, 1));
    lum_packet_debug_unicast = 1;
    EXPECT_TRUE(wanted(HOST_B) && !wanted(group) && !wanted(fake::BROADCAST));
    lum_packet_debug_unicast = 0;
    lum_packet_debug_multicast = 1;
    EXPECT_TRUE(!wanted(HOST_B) && wanted(group) && !wanted(fake::BROADCAST));
    lum_packet_debug_multicast = 0;
    lum_packet_debug_broadcast = 1;
    EXPECT_TRUE(!wanted(HOST_B) && !wanted(group) && wanted(fake::BROADCAST));
}

TEST_F(LumPacketTraceFilter, ComparesVlanAndMacOfTheDestinationFilter)
{
    lum_packet_debug_da = lum_addr_mac(key(HOST_B));
    EXPECT_TRUE(wanted(HOST_B));
    EXPECT_FALSE(wanted(HOST_B, 11));
    EXPECT_FALSE(wanted(HOST_C));
}

TEST_F(LumPacketTraceFilter, TracesFramesToAnyDestinationWhoseVlanAndSourceMatch)
{
    lum_packet_debug_sa = lum_addr_mac(key(HOST_A));
    EXPECT_TRUE(wanted(HOST_B));
    EXPECT_TRUE(wanted(fake::BROADCAST));
    EXPECT_FALSE(wanted(HOST_B, 11));
}

} // namespace
