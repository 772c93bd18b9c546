#include "lum_test.h"

using namespace lum_test;

namespace {

lum_frame frame_in(fake::bytes &data) { return {data.data(), static_cast<std::uint32_t>(data.size())}; }
fake::bytes bytes_of(const lum_frame &frame) { return {std::span<const std::uint8_t>(frame.data, frame.length)}; }

class LumOutput : public LumTest {
protected:
    LumOutput()
    {
        site_port(PORT_A);
        site_port(PORT_B, VLAN, true);
        platform.forget();
    }
    static int output(fake::bytes frame, std::uint32_t iod, std::uint32_t flood = 0, const lum_addr *next_hop = nullptr)
    {
        plock_assert_held();
        return lum_output(frame_in(frame), iod, key(HOST_A), key(HOST_B), flood, next_hop);
    }
    const fake::bytes tagged_ = fake::tagged(HOST_B, HOST_A, VLAN, 0x0800, fake::filler(46));
    const fake::bytes tagged_snap_ = fake::tagged_snap(HOST_B, HOST_A, VLAN, 0x0800, fake::filler(40));
};

TEST_F(LumOutput, DropsFrameForAnInterfaceWithoutPortRecord)
{
    EXPECT_EQ(output(tagged_, CORE), 0);
    EXPECT_TRUE(platform.sent_nothing());
    EXPECT_EQ(dropped(drop_reason::L2_NO_PORT), 1u);
}

TEST_F(LumOutput, RemovesTheTagOnAnAccessPortAndKeepsItOnATrunk)
{
    EXPECT_EQ(output(tagged_, PORT_A), 1);
    EXPECT_EQ(output(tagged_, PORT_B), 1);
    ASSERT_THAT(platform.l2_sent, SizeIs(2));
    EXPECT_EQ(static_cast<const fake::bytes &>(platform.l2_sent[0]),
              fake::ethernet(HOST_B, HOST_A, 0x0800, fake::filler(46)));
    EXPECT_EQ(static_cast<const fake::bytes &>(platform.l2_sent[1]), tagged_);
}

TEST_F(LumOutput, FillsTheDescriptorsFromTheMacInfosAndTheFrame)
{
    output(tagged_, PORT_A);
    const fake::l2_frame &sent = platform.l2_sent.front();
    EXPECT_EQ(sent.handle, 71u);
    EXPECT_EQ(sent.header.destination, HOST_B);
    EXPECT_EQ(sent.header.source, HOST_A);
    EXPECT_EQ(sent.header.vlan_be, __builtin_bswap16(VLAN));
    EXPECT_EQ(sent.header.ethertype_be, __builtin_bswap16(0x0800));
    EXPECT_EQ(sent.iod, PORT_A);
    EXPECT_EQ(sent.request.header_length, 14u);
    EXPECT_EQ(sent.request.flood, 0);
    EXPECT_EQ(sent.request.next_hop_family, 0u);
    EXPECT_EQ(sent.request.option[0], 0);
    EXPECT_EQ(sent.request.option[1], 0);
    EXPECT_EQ(sent.payload, fake::filler(46));
}

TEST_F(LumOutput, TellsThePacketServiceThatTheTagIsOutAndWhichSnapTypeWentWithIt)
{
    output(tagged_, PORT_A);
    EXPECT_EQ(platform.l2_sent.back().request.untagged, 1);
    EXPECT_EQ(platform.l2_sent.back().request.snap_type_be, 0);
    output(tagged_snap_, PORT_A);
    EXPECT_EQ(platform.l2_sent.back().request.untagged, 1);
    EXPECT_EQ(platform.l2_sent.back().request.snap_type_be, __builtin_bswap16(tagged_snap_.be16(24)));
    site_port(PORT_B, VLAN, true);
    output(tagged_snap_, PORT_B);
    EXPECT_EQ(platform.l2_sent.back().request.untagged, 0);
    EXPECT_EQ(platform.l2_sent.back().request.snap_type_be, 0);
}

TEST_F(LumOutput, NamesNoNextHopOfAnyOtherKind)
{
    const lum_addr other = fake::ip_addr(REMOTE_EDGE);
    output(tagged_, PORT_A, 0, &other);
    EXPECT_EQ(platform.l2_sent.front().request.next_hop_family, 0u);
}

TEST_F(LumOutput, SetsTheFloodMark)
{
    trace_all_packets();
    output(tagged_, PORT_A, 1);
    EXPECT_EQ(platform.l2_sent.front().request.flood, 1);
    EXPECT_THAT(platform.trace_texts(),
                ElementsAre("Output 10/02:00:00:00:00:0a -> 10/02:00:00:00:00:0b to \"flood-to-vlan\", 60 bytes, "
                            "untag\n"));
}

TEST_F(LumOutput, TracesWhetherTheTagIsKept)
{
    trace_all_packets();
    output(tagged_, PORT_A);
    output(tagged_, PORT_B);
    EXPECT_THAT(
        platform.trace_texts(),
        ElementsAre("Output 10/02:00:00:00:00:0a -> 10/02:00:00:00:00:0b to eth1, 60 bytes, untag\n",
                    "Output 10/02:00:00:00:00:0a -> 10/02:00:00:00:00:0b to eth2, 64 bytes, keep tag\n"));
}

TEST_F(LumOutput, SendsWhatUntaggingBuildsAlsoOfSnapFrames)
{
    for (const fake::bytes &frame : {tagged_, tagged_snap_}) {
        platform.forget();
        output(frame, PORT_A);
        fake::bytes copy = frame;
        lum_frame untagged = frame_in(copy);
        ASSERT_TRUE(lum_untag_frame(untagged));
        EXPECT_EQ(static_cast<const fake::bytes &>(platform.l2_sent.front()), bytes_of(untagged));
    }
}

TEST_F(LumOutput, LeavesTheFrameAsItIsForTheNextPort)
{
    for (const fake::bytes &frame : {tagged_, tagged_snap_}) {
        fake::bytes copy = frame;
        lum_output(frame_in(copy), PORT_A, key(HOST_A), key(HOST_B), 0, nullptr);
        EXPECT_EQ(copy, frame);
    }
}

TEST_F(LumOutput, GivesBackTheResultOfTheSend)
{
    platform.fail("net_l2_send");
    EXPECT_EQ(output(tagged_, PORT_A), 0);
    EXPECT_EQ(output(tagged_, PORT_A), 1);
}

TEST_F(LumOutput, DropsFrameThatHasNoTagToRemove)
{
    EXPECT_EQ(output(tagged_.range(0, 17), PORT_A), 0);
    EXPECT_EQ(output(tagged_snap_.range(0, 25), PORT_A), 0);
    EXPECT_EQ(output(fake::bytes().add_zeros(5), PORT_B), 0);
    EXPECT_TRUE(platform.sent_nothing());
    EXPECT_EQ(dropped(drop_reason::L2_TRUNCATED), 3u);
}

TEST_F(LumOutput, SendsABuiltPayloadWithoutVlanOrNextHop)
{
    const fake::bytes payload = fake::filler(28);
    EXPECT_EQ(lum_send(payload.data(), 28, HOST_A.data(), HOST_B.data(), 0x0806, PORT_B), 1);
    ASSERT_THAT(platform.l2_sent, SizeIs(1));
    const fake::l2_frame &sent = platform.l2_sent.front();
    EXPECT_EQ(static_cast<const fake::bytes &>(sent), fake::ethernet(HOST_B, HOST_A, 0x0806, payload));
    EXPECT_EQ(sent.iod, PORT_B);
    EXPECT_EQ(sent.header.vlan_be, 0);
    EXPECT_EQ(sent.request.next_hop_family, 0u);
    EXPECT_EQ(sent.request.header_length, 14u);

    platform.fail("net_l2_send");
    EXPECT_EQ(lum_send(payload.data(), 28, HOST_A.data(), HOST_B.data(), 0x0806, PORT_B), 1);
}

class LumTag : public LumTest {
protected:
    LumTag()
    {
        site_port(PORT_A, 100);
        site_port(PORT_B, 0xABC);
    }
};

TEST_F(LumTag, WritesTheVlanLowByteFirst)
{
    fake::bytes data = fake::ethernet(HOST_B, HOST_A, 0x0800, fake::filler(46));
    lum_frame frame = frame_in(data);
    const std::uint8_t *tag = lum_tag_ethernet_frame(frame, PORT_A);
    ASSERT_EQ(tag, lum_packet_buffer.data() + 14);
    EXPECT_EQ(frame.data, lum_packet_buffer.data());
    EXPECT_EQ(frame.length, 64u);
    EXPECT_EQ(bytes_of(frame), data.range(0, 12).add(fake::hex("81 00 64 00")).add(data.from(12)));

    frame = frame_in(data);
    tag = lum_tag_ethernet_frame(frame, PORT_B);
    EXPECT_EQ(tag[0], 0xBC);
    EXPECT_EQ(tag[1], 0x0A);
}

TEST_F(LumTag, WritesVlanZeroForAnInterfaceWithoutPortRecord)
{
    fake::bytes data = fake::ethernet(HOST_B, HOST_A, 0x0800, fake::filler(46));
    lum_frame frame = frame_in(data);
    const std::uint8_t *tag = lum_tag_ethernet_frame(frame, 0);
    EXPECT_EQ(tag[0], 0);
    EXPECT_EQ(tag[1], 0);
}

TEST_F(LumTag, WritesTwelveBitsOfThePortsVlan)
{
    lum_get_from_pt(PORT_A)->vlan = 0xF064;
    fake::bytes data = fake::ethernet(HOST_B, HOST_A, 0x0800, fake::filler(46));
    lum_frame frame = frame_in(data);
    const std::uint8_t *tag = lum_tag_ethernet_frame(frame, PORT_A);
    EXPECT_EQ(tag[1], 0);
}

TEST_F(LumTag, PutsASnapTagBehindTheSnapHeaderAndShortensTheLengthField)
{
    fake::bytes data = fake::snap(HOST_B, HOST_A, 0x0800, fake::filler(40));
    lum_frame frame = frame_in(data);
    const std::uint8_t *tag = lum_tag_snap_frame(frame, PORT_A);
    ASSERT_EQ(tag, lum_packet_buffer.data() + 22);
    fake::bytes expected = data.range(0, 12);
    expected.add_be16(48 - 4).add(data.range(14, 6)).add(fake::hex("81 00 64 00 08 00")).add(fake::filler(40));
    EXPECT_EQ(bytes_of(frame), expected);
}

TEST_F(LumTag, GivesBackTheSameBytesWhenAnEthernetFrameIsUntagged)
{
    for (const std::size_t length : {14u, 60u, 1514u}) {
        fake::bytes data = fake::ethernet(HOST_B, HOST_A, 0x0800, fake::filler(length - 14));
        lum_frame frame = frame_in(data);
        ASSERT_NE(lum_tag_ethernet_frame(frame, PORT_A), nullptr);
        ASSERT_TRUE(lum_untag_frame(frame));
        EXPECT_EQ(bytes_of(frame), data);
        EXPECT_EQ(frame.data, lum_packet_buffer.data());
    }
}

TEST_F(LumTag, KeepsTheFirstBytesOfASnapFrameWhenItIsUntagged)
{
    // Bytes 14 to 21 stay as they are, the tag's type with them, and the four bytes behind go.
    fake::bytes data = fake::tagged_snap(HOST_B, HOST_A, VLAN, 0x0800, fake::filler(40));
    lum_frame frame = frame_in(data);
    ASSERT_TRUE(lum_untag_frame(frame));
    fake::bytes expected = data.range(0, 12);
    expected.add_be16(static_cast<unsigned>(data.be16(12) - 4)).add(data.range(14, 8)).add(data.from(26));
    EXPECT_EQ(bytes_of(frame), expected);
}

TEST_F(LumTag, TakesTypeFieldOf0x0600AsASnapLengthWhenUntagging)
{
    fake::bytes data = fake::tagged_snap(HOST_B, HOST_A, VLAN, 0x0800, fake::filler(40));
    data.set_be16(12, 0x600);
    lum_frame frame = frame_in(data);
    ASSERT_TRUE(lum_untag_frame(frame));
    EXPECT_EQ(bytes_of(frame).be16(12), 0x600 - 4);
}

TEST_F(LumTag, RefusesFramesThatDoNotFitTheBufferOrHaveNoHeader)
{
    fake::bytes data = fake::ethernet(HOST_B, HOST_A, 0x0800, fake::filler(1501));
    lum_frame frame = frame_in(data);
    EXPECT_EQ(lum_tag_ethernet_frame(frame, PORT_A), nullptr);
    EXPECT_EQ(frame.data, data.data());
    frame.length = 1514;
    EXPECT_NE(lum_tag_ethernet_frame(frame, PORT_A), nullptr);
    frame = {data.data(), 13};
    EXPECT_EQ(lum_tag_ethernet_frame(frame, PORT_A), nullptr);
    frame = {data.data(), 21};
    EXPECT_EQ(lum_tag_snap_frame(frame, PORT_A), nullptr);

    fake::bytes tagged = fake::tagged(HOST_B, HOST_A, VLAN, 0x0800, fake::filler(1505));
    frame = frame_in(tagged);
    EXPECT_FALSE(lum_untag_frame(frame));
    frame.length = 1522;
    EXPECT_TRUE(lum_untag_frame(frame));
    frame = {tagged.data(), 17};
    EXPECT_FALSE(lum_untag_frame(frame));
    frame = {tagged.data(), 3};
    EXPECT_FALSE(lum_untag_frame(frame));
}

} // namespace
