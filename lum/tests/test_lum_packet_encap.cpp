#include "lum_test.h"

#include "memacct.h"

using namespace lum_test;

namespace {

class LumEncapsulate : public LumTest {
protected:
    LumEncapsulate() : overlay_(overlay()) { platform.forget(); }
    static void encapsulate(const fake::bytes &frame, const rtab_addr &address, lum_overlay &to)
    {
        plock_assert_held();
        fake::bytes copy = frame;
        lum_encapsulate({copy.data(), static_cast<std::uint32_t>(copy.size())}, key(HOST_A), key(HOST_B), address, to);
    }
    static fake::bytes frame_of(std::size_t length)
    {
        return fake::tagged(HOST_B, HOST_A, VLAN, 0x0800, fake::filler(length - 18));
    }
    lum_overlay &overlay_;
};

TEST_F(LumEncapsulate, WritesTheIpv4HeaderByteByByte)
{
    const fake::bytes frame = frame_of(100);
    encapsulate(frame, fake::remote(OVERLAY, REMOTE_EDGE), overlay_);
    ASSERT_THAT(platform.ip_sent, SizeIs(1));
    const fake::ip_packet &packet = platform.ip_sent.front();
    ASSERT_THAT(packet, SizeIs(132));

    fake::bytes expected = fake::hex("45 C0          # version and header length, type of service");
    expected.add_host16(132);                                // total length in host order
    expected.add(fake::hex(R"(00 00 00 00                    # identification, flags: DF clear
                              80 11 00 00                    # TTL 128, UDP, checksum to come
                              C0 00 02 01 C6 33 64 09        # our address, the remote edge's
                              00 00 21 18 00 70 00 00        # source port to come, 8472, length 112, checksum 0
                              00 00 00 00                    # shim)"));
    expected.set_be16(20, lum_mac_hash(frame.data()));
    expected.set_be16(10, fake::internet_checksum(expected.range(0, 20)));
    EXPECT_EQ(packet.range(0, 32), expected);
    EXPECT_THAT(packet.from(32), ElementsAreArray(frame));
    EXPECT_EQ(packet.client, 41u);
    EXPECT_EQ(packet.mcast_iod, 0u);
}

TEST_F(LumEncapsulate, WritesTheIpv6HeaderByteByByte)
{
    const fake::bytes frame = frame_of(100);
    encapsulate(frame, fake::remote(OVERLAY, REMOTE_EDGE6), overlay_);
    ASSERT_THAT(platform.ipv6_sent, SizeIs(1));
    const fake::ipv6_packet &packet = platform.ipv6_sent.front();
    ASSERT_THAT(packet, SizeIs(152));

    fake::bytes expected = fake::hex(R"(60 00 00 00 00 70 11 80   # traffic class 0, payload 112, UDP, hop limit 128)");
    expected.add(OUR_ADDRESS6).add(REMOTE_EDGE6);
    expected.add_be16(lum_mac_hash(frame.data())).add_be16(8472).add_be16(112).add_be16(0).add_zeros(4);
    EXPECT_EQ(packet.range(0, 52), expected);
    EXPECT_THAT(packet.from(52), ElementsAreArray(frame));
    EXPECT_EQ(packet.client, 61u);
    EXPECT_EQ(packet.mcast_iod, 0u);
    EXPECT_EQ(packet.next_hop_hint, ipv6_address{});
}

TEST_F(LumEncapsulate, NamesTheExternalInterfaceForGroupsOnly)
{
    for (const std::uint32_t address : {fake::ipv4(223, 255, 255, 255), fake::ipv4(224, 0, 0, 0),
                                        fake::ipv4(239, 255, 255, 255), fake::ipv4(240, 0, 0, 0)}) {
        platform.forget();
        encapsulate(frame_of(64), fake::remote(OVERLAY, address), overlay_);
        EXPECT_EQ(platform.ip_sent.front().mcast_iod, address >> 28 == 14 ? CORE : 0);
    }
    encapsulate(frame_of(64), fake::remote(OVERLAY, fake::ipv6("ff0e::1")), overlay_);
    encapsulate(frame_of(64), fake::remote(OVERLAY, fake::ipv6("fe80::1")), overlay_);
    EXPECT_EQ(platform.ipv6_sent[0].mcast_iod, CORE);
    EXPECT_EQ(platform.ipv6_sent[1].mcast_iod, 0u);
}

TEST_F(LumEncapsulate, SendsNothingWhileTheExternalIpv4AddressIsZero)
{
    overlay_.ext_ipv4 = 0;
    encapsulate(frame_of(64), fake::remote(OVERLAY, REMOTE_EDGE), overlay_);
    EXPECT_TRUE(platform.sent_nothing());
    EXPECT_EQ(dropped(drop_reason::ENCAP_NO_SOURCE), 1u);
    encapsulate(frame_of(64), fake::remote(OVERLAY, REMOTE_EDGE6), overlay_);
    EXPECT_THAT(platform.ipv6_sent, SizeIs(1));
}

TEST_F(LumEncapsulate, SendsOnlyToIpAddressesOfAKnownFamily)
{
    encapsulate(frame_of(64), fake::ip_addr(REMOTE_EDGE), overlay_);
    rtab_addr unknown = fake::remote(OVERLAY, REMOTE_EDGE);
    lum_addr_set_word(unknown, 1, 6);
    encapsulate(frame_of(64), unknown, overlay_);
    EXPECT_TRUE(platform.sent_nothing());
    EXPECT_EQ(dropped(drop_reason::FWD_BAD_NEXT_HOP), 2u);
}

TEST_F(LumEncapsulate, TakesOneScratchAllocationOfPacketMemoryAndGivesItBack)
{
    encapsulate(frame_of(64), fake::remote(OVERLAY, REMOTE_EDGE), overlay_);
    encapsulate(frame_of(64), fake::remote(OVERLAY, REMOTE_EDGE6), overlay_);
    EXPECT_EQ(platform.memory_blocks(LUM_MEM_TYPE_PACKET), 0u);
}

TEST_F(LumEncapsulate, DropsSilentlyWhatItHasNoMemoryFor)
{
    for (const char *call : {"memacct_alloc", "m_get", "m_copyback"})
        for (const rtab_addr &to : {fake::remote(OVERLAY, REMOTE_EDGE), fake::remote(OVERLAY, REMOTE_EDGE6)}) {
            SCOPED_TRACE(call);
            platform.fail(call);
            encapsulate(frame_of(64), to, overlay_);
            EXPECT_TRUE(platform.sent_nothing());
            EXPECT_EQ(platform.memory_blocks(LUM_MEM_TYPE_PACKET), 0u);
            EXPECT_EQ(platform.mbufs_out(), 0u);
        }
    EXPECT_EQ(dropped(drop_reason::ENCAP_NO_MEMORY), 6u);
    EXPECT_THAT(platform.syslog, IsEmpty());
}

TEST_F(LumEncapsulate, DoesNotLookAtTheResultOfTheSend)
{
    platform.fail("ip_cl_output");
    encapsulate(frame_of(64), fake::remote(OVERLAY, REMOTE_EDGE), overlay_);
    platform.fail("ipv6_client_output");
    encapsulate(frame_of(64), fake::remote(OVERLAY, REMOTE_EDGE6), overlay_);
    EXPECT_EQ(platform.mbufs_out(), 0u);
    EXPECT_THAT(platform.syslog, IsEmpty());
}

TEST_F(LumEncapsulate, DropsFrameThatNoIpPacketCanHold)
{
    encapsulate(frame_of(65535 - 51), fake::remote(OVERLAY, REMOTE_EDGE6), overlay_);
    EXPECT_TRUE(platform.sent_nothing());
    EXPECT_EQ(dropped(drop_reason::CORE_TOO_BIG), 1u);
    encapsulate(frame_of(65535 - 52), fake::remote(OVERLAY, REMOTE_EDGE6), overlay_);
    EXPECT_EQ(dropped(drop_reason::CORE_TOO_BIG), 1u);
}

TEST_F(LumEncapsulate, TracesUnderThePacketAndTheUnicastFlag)
{
    lum_packet_debug_flag = 1;
    encapsulate(frame_of(64), fake::remote(OVERLAY, REMOTE_EDGE), overlay_);
    EXPECT_THAT(platform.traces, IsEmpty());
    lum_packet_debug_unicast = 1;
    encapsulate(frame_of(64), fake::remote(OVERLAY, REMOTE_EDGE), overlay_);
    encapsulate(frame_of(64), fake::remote(OVERLAY, REMOTE_EDGE6), overlay_);
    EXPECT_THAT(
        platform.trace_texts(),
        ElementsAre("UDP/IP encapsulate packet 192.0.2.1 -> 198.51.100.9 on overlay Overlay1, length: 64\n",
                    "UDP/IPv6 encapsulate packet 2001:db8::1 -> 2001:db8::9 on overlay Overlay1, length: 64\n"));
}

TEST_F(LumEncapsulate, HandsTheFrameWithItsNextHopToThePacketServiceInGreFormat)
{
    overlay_.encap_type = LUM_ENCAP_GRE;
    lum_port *tunnel = lum_add_to_pt(OVERLAY);
    ASSERT_NE(tunnel, nullptr);
    tunnel->trunk = 1;
    const fake::bytes frame = frame_of(64);
    encapsulate(frame, fake::remote(OVERLAY, REMOTE_EDGE), overlay_);
    encapsulate(frame, fake::remote(OVERLAY, REMOTE_EDGE6), overlay_);

    ASSERT_THAT(ports_sent_to(), ElementsAre(OVERLAY, OVERLAY));
    EXPECT_EQ(platform.l2_sent[0].request.next_hop_family, 4u);
    EXPECT_EQ(platform.l2_sent[0].request.next_hop_ipv4_be, __builtin_bswap32(REMOTE_EDGE));
    EXPECT_EQ(platform.l2_sent[1].request.next_hop_family, 5u);
    EXPECT_EQ(platform.l2_sent[1].request.next_hop_ipv6, REMOTE_EDGE6);
    EXPECT_EQ(platform.l2_sent[0].request.flood, 0);
    EXPECT_EQ(static_cast<const fake::bytes &>(platform.l2_sent[0]), frame);
    EXPECT_THAT(platform.ip_sent, IsEmpty());
    EXPECT_THAT(platform.ipv6_sent, IsEmpty());
}

TEST(LumInitEncapHeaders, FillsTheFourTemplates)
{
    lum_init_encap_headers();
    EXPECT_EQ(fake::bytes(std::span<const std::uint8_t>(lum_ip_encap)),
              fake::hex("45 C0 00 00 00 00 00 00 80 11 00 00").add_zeros(8).add_be16(0).add_be16(8472).add_zeros(8));
    EXPECT_EQ(fake::bytes(std::span<const std::uint8_t>(lum_ipv6_encap)),
              fake::hex("60 00 00 00 00 00 11 80").add_zeros(32).add_be16(0).add_be16(8472).add_zeros(8));
    EXPECT_EQ(fake::bytes(std::span<const std::uint8_t>(lum_ip_e8_encap)),
              fake::hex("45 C0 00 00 00 00 00 00 80 2F 00 00").add_zeros(8).add(fake::hex("00 00 47 88 00 00 00 00")));
    EXPECT_EQ(fake::bytes(std::span<const std::uint8_t>(lum_ipv6_e8_encap)),
              fake::hex("60 00 00 00 00 00 2F 80").add_zeros(32).add(fake::hex("00 00 47 88 00 00 00 00")));
}

TEST(LumMacHash, FoldsBothMacsReadInLittleEndianOrder)
{
    // 04030201 ^ 08070605 ^ 0C0B0A09 = 000F0E0D; upper half into lower half: 0E0D ^ 000F
    EXPECT_EQ(lum_mac_hash(fake::hex("01 02 03 04 05 06 07 08 09 0A 0B 0C").data()), 0x0E02);
    EXPECT_EQ(lum_mac_hash(fake::hex("00 00 00 00 00 00 00 00 00 00 AB CD").data()), 0xCDAB);
}

using LumBuildCoreGroupAddress = LumEncapsulate;

TEST_F(LumBuildCoreGroupAddress, PutsTheMacsBitsUnderTheIpv4Prefix)
{
    overlay_.data_group = {fake::ipv4(232, 1, 1, 0), 24};
    lum_addr group;
    ASSERT_EQ(lum_build_core_group_address(overlay_, key(fake::mac("01:00:5e:01:02:03")), group), 1);
    EXPECT_TRUE(lum_addr_equal(group, fake::remote(OVERLAY, fake::ipv4(232, 1, 1, 3))));
}

TEST_F(LumBuildCoreGroupAddress, KeepsFourBytesOfTheMacOutsideAShortPrefix)
{
    lum_addr group;
    ASSERT_EQ(lum_build_core_group_address(overlay_, key(fake::mac("01:00:5e:01:02:03")), group), 1);
    EXPECT_TRUE(lum_addr_equal(group, fake::remote(OVERLAY, fake::ipv4(232, 0xC0, 0, 0) | (0x5E010203 & 0x3FFFFF))));
}

TEST_F(LumBuildCoreGroupAddress, LeavesTheIpv4BaseUnmasked)
{
    overlay_.data_group = {fake::ipv4(232, 1, 1, 0xF0), 24};
    lum_addr group;
    ASSERT_EQ(lum_build_core_group_address(overlay_, key(fake::mac("01:00:5e:01:02:03")), group), 1);
    EXPECT_EQ(lum_next_hop_ipv4(group), fake::ipv4(232, 1, 1, 0xF3));
}

TEST_F(LumBuildCoreGroupAddress, ReplacesTheLastFourBytesOfTheIpv6Base)
{
    overlay_.data_group6 = {fake::ipv6("ff0e::aaaa:bbbb:cccc:dddd"), 96};
    lum_addr group;
    ASSERT_EQ(lum_build_core_group_address(overlay_, key(fake::mac("33:33:01:02:03:04")), group), 1);
    EXPECT_TRUE(lum_addr_equal(group, fake::remote(OVERLAY, fake::ipv6("ff0e::aaaa:bbbb:102:304"))));
}

TEST_F(LumBuildCoreGroupAddress, MasksTheIpv6BytesInLittleEndianOrder)
{
    // A prefix of 104 leaves 24 bits: those of the little-endian word, so the last byte of the group goes, not the
    // thirteenth.
    overlay_.data_group6 = {fake::ipv6("ff0e::1:0:0"), 104};
    lum_addr group;
    ASSERT_EQ(lum_build_core_group_address(overlay_, key(fake::mac("33:33:01:02:03:04")), group), 1);
    EXPECT_TRUE(lum_addr_equal(group, fake::remote(OVERLAY, fake::ipv6("ff0e::1:102:300"))));
}

TEST_F(LumBuildCoreGroupAddress, RefusesBroadcastUnicastAndOtherGroups)
{
    lum_addr group;
    EXPECT_EQ(lum_build_core_group_address(overlay_, key(fake::BROADCAST), group), 0);
    EXPECT_EQ(lum_build_core_group_address(overlay_, key(HOST_B), group), 0);
    EXPECT_EQ(lum_build_core_group_address(overlay_, key(fake::mac("01:80:c2:00:00:0e")), group), 0);
    EXPECT_EQ(lum_build_core_group_address(overlay_, key(fake::mac("01:00:5f:00:00:01")), group), 0);
}

class LumMencapsulate : public LumEncapsulate {
protected:
    void mencapsulate(const fake::mac_address &to)
    {
        plock_assert_held();
        fake::bytes frame = fake::tagged(to, HOST_A, VLAN, 0x0800, fake::filler(46));
        lum_mencapsulate({frame.data(), static_cast<std::uint32_t>(frame.size())}, key(HOST_A), key(to), overlay_);
    }
};

TEST_F(LumMencapsulate, SendsAGroupToItsDataGroup)
{
    overlay_.data_group = {fake::ipv4(232, 1, 1, 0), 24};
    mencapsulate(fake::mac("01:00:5e:01:02:03"));
    EXPECT_EQ(platform.ip_sent.front().be32(16), fake::ipv4(232, 1, 1, 3));
    mencapsulate(fake::mac("33:33:01:02:03:04"));
    EXPECT_THAT(platform.ipv6_sent.front().range(24, 16), ElementsAreArray(fake::ipv6("ff02::1:102:304")));
}

TEST_F(LumMencapsulate, SendsBroadcastToTheControlGroupOfTheCoresFamily)
{
    mencapsulate(fake::BROADCAST);
    EXPECT_EQ(platform.ip_sent.front().be32(16), CONTROL_GROUP);
    overlay_.encap_family = LUM_FAMILY_IPV6;
    mencapsulate(fake::BROADCAST);
    EXPECT_THAT(platform.ipv6_sent.front().range(24, 16), ElementsAreArray(CONTROL_GROUP6));
}

class LumDecapsulate : public LumTest {
protected:
    LumDecapsulate()
    {
        site_port(PORT_B);
        overlay();
        platform.route(key(HOST_B), fake::local(PORT_B));
        platform.forget();
    }
    // The bytes are on the heap to the byte, so that a read behind the packet is found.
    template <class Decapsulate> static void decapsulate(Decapsulate call, const fake::bytes &packet)
    {
        const std::unique_ptr<std::uint8_t[]> copy(new std::uint8_t[packet.size()]);
        std::copy(packet.begin(), packet.end(), copy.get());
        call(copy.get(), static_cast<std::uint32_t>(packet.size()));
    }
    const fake::bytes frame_ = fake::tagged(HOST_B, HOST_A, VLAN, 0x0800, fake::filler(46));
    const fake::bytes packet_ = fake::core_packet(REMOTE_EDGE, OUR_ADDRESS, frame_);
    const fake::bytes packet6_ = fake::core_packet(REMOTE_EDGE6, OUR_ADDRESS6, frame_);
};

TEST_F(LumDecapsulate, DeliversTheInnerFrameToTheSite)
{
    decapsulate(lum_ip_decapsulate, packet_);
    decapsulate(lum_ipv6_decapsulate, packet6_);
    ASSERT_THAT(ports_sent_to(), ElementsAre(PORT_B, PORT_B));
    for (const fake::l2_frame &sent : platform.l2_sent)
        EXPECT_EQ(static_cast<const fake::bytes &>(sent), fake::ethernet(HOST_B, HOST_A, 0x0800, fake::filler(46)));
    EXPECT_EQ(lum_rtab_buffer_count, 0u);
}

TEST_F(LumDecapsulate, LooksAtNeitherHeaderLengthNorShimNorPorts)
{
    fake::bytes packet = packet_;
    packet[0] = 0x4F;
    packet.set_be16(20, 1).set_be16(22, 2).set_be16(28, 0xFFFF).set_be16(30, 0xFFFF);
    decapsulate(lum_ip_decapsulate, packet);
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B));
}

TEST_F(LumDecapsulate, DropsPacketsOfEveryLengthBelowTheirHeaders)
{
    for (std::size_t length = 0; length < 32; ++length)
        decapsulate(lum_ip_decapsulate, packet_.range(0, length));
    EXPECT_EQ(dropped(drop_reason::DECAP_SHORT), 32u);
    for (std::size_t length = 0; length < 52; ++length)
        decapsulate(lum_ipv6_decapsulate, packet6_.range(0, length));
    EXPECT_EQ(dropped(drop_reason::DECAP_SHORT), 84u);
    EXPECT_TRUE(platform.sent_nothing());
}

TEST_F(LumDecapsulate, DropsInnerFramesThatAreCutOff)
{
    for (std::size_t length = 32; length < 32 + 18; ++length)
        decapsulate(lum_ip_decapsulate, packet_.range(0, length));
    for (std::size_t length = 52; length < 52 + 18; ++length)
        decapsulate(lum_ipv6_decapsulate, packet6_.range(0, length));
    EXPECT_EQ(dropped(drop_reason::L2_TRUNCATED), 36u);
    EXPECT_TRUE(platform.sent_nothing());
}

TEST_F(LumDecapsulate, TracesUnderThePacketAndTheUnicastFlag)
{
    lum_packet_debug_flag = 1;
    decapsulate(lum_ip_decapsulate, packet_);
    EXPECT_THAT(platform.traces, IsEmpty());
    lum_packet_debug_unicast = 1;
    decapsulate(lum_ip_decapsulate, packet_);
    EXPECT_EQ(platform.traces.front().text,
              "UDP/IP decapsulate packet 198.51.100.9 -> 192.0.2.1, length: 96\n");
    platform.forget();
    decapsulate(lum_ipv6_decapsulate, packet6_);
    EXPECT_EQ(platform.traces.front().text,
              "UDP/IPv6 decapsulate packet, 2001:db8::9 -> 2001:db8::1, length: 116\n");
}

} // namespace
