// TCP segments put back together: what is merged can be cut into the very same frames again, and nothing else is merged.
#include "../packet/tcp_merge.h"
#include "packet_frames.h"

#include <gmock/gmock.h>

using namespace corvane;
using namespace frames;
using testing::ElementsAreArray;

namespace {

constexpr std::uint8_t ACK = 0x10, PSH_ACK = 0x18;
constexpr std::size_t MSS = 1000;

struct segment_fields {
    std::size_t number = 0;                  // of the segment, from 0
    std::size_t size = MSS;
    std::uint8_t flags = ACK;
    bytes options = hex("0101080a0000000100000002");
    std::string source = HOST_A;
    std::size_t id_step = 1;
};

bytes segment4(const segment_fields &f)
{
    bytes ip = ipv4(6, tcp({static_cast<std::uint32_t>(5000 + f.number * MSS), f.flags, f.options},
                           counting(f.size, static_cast<std::uint8_t>(f.number))), 0x1234 + f.number * f.id_step);
    finish(ip, TCP_SUM);
    return ethernet(HOST_B, f.source, 0x0800) + ip;
}

bytes segment6(const segment_fields &f)
{
    bytes ip = ipv6(6, tcp({static_cast<std::uint32_t>(5000 + f.number * MSS), f.flags, f.options},
                           counting(f.size, static_cast<std::uint8_t>(f.number))));
    finish(ip, TCP_SUM);
    return ethernet(HOST_B, f.source, 0x86DD) + ip;
}

tcp_segment read(const bytes &frame)
{
    tcp_segment out;
    EXPECT_TRUE(tcp_segment_read(frame.data(), frame.size(), out));
    return out;
}

bool known(const bytes &frame)
{
    tcp_segment out;
    return tcp_segment_read(frame.data(), frame.size(), out);
}

bool continues(const bytes &first, const bytes &next)
{
    tcp_run run;
    run.begin(first.data(), read(first));
    return tcp_same_flow(first.data(), read(first), next.data(), read(next)) && run.continues(next.data(), read(next));
}

// The frames as one run, then cut again by the code that cuts what hosts send.
std::vector<bytes> merged_and_cut(const std::vector<bytes> &in)
{
    tcp_run run;
    run.begin(in[0].data(), read(in[0]));
    bytes super = bytes(128) + in[0];
    for (std::size_t i = 1; i < in.size(); ++i) {
        EXPECT_TRUE(run.continues(in[i].data(), read(in[i]))) << i;
        run.append(read(in[i]));
        super = super + bytes(in[i].begin() + read(in[i]).payload, in[i].end());
    }
    const offload_meta meta = run.finish(super.data() + 128);
    super_frame cutter;
    EXPECT_EQ(cutter.begin(super.data() + 128, super.size() - 128, meta), in.size());
    std::vector<bytes> out;
    while (cutter.left() != 0) {
        const frame_ref frame = cutter.next();
        out.emplace_back(frame.data, frame.data + frame.length);
    }
    return out;
}

} // namespace

TEST(TcpMerge, RunIsCutIntoTheVerySameFramesAgain)
{
    for (const auto make : {segment4, segment6}) {
        std::vector<bytes> in;
        for (std::size_t i = 0; i < 40; ++i)
            in.push_back(make({.number = i}));
        in.push_back(make({.number = 40, .size = 77, .flags = PSH_ACK}));
        const std::vector<bytes> out = merged_and_cut(in);
        ASSERT_EQ(out.size(), in.size());
        for (std::size_t i = 0; i < in.size(); ++i)
            EXPECT_THAT(out[i], ElementsAreArray(in[i])) << i;
    }
}

TEST(TcpMerge, SuperFrameHasRightLengthsAndTheSumThatADeviceCompletes)
{
    const bytes a = segment4({}), b = segment4({.number = 1});
    tcp_run run;
    run.begin(a.data(), read(a));
    run.append(read(b));
    bytes super = a;
    const offload_meta meta = run.finish(super.data());
    EXPECT_EQ(meta.gso_type, OFFLOAD_GSO_TCPV4);
    EXPECT_EQ(meta.flags, OFFLOAD_NEEDS_CSUM);
    EXPECT_EQ(meta.gso_size, MSS);
    EXPECT_EQ(meta.csum_start, 34);
    EXPECT_EQ(meta.csum_offset, 16);
    EXPECT_EQ(get16(super, 16), 20 + 32 + 2 * MSS);
    EXPECT_EQ(checksum(view(super).subspan(14, 20)), 0);
    EXPECT_EQ(get16(super, 34 + 16), pseudo(view(super).subspan(14), 6, 32 + 2 * MSS));
}

TEST(TcpMerge, SegmentBehindTheNextOneIsNotMerged)
{
    EXPECT_TRUE(continues(segment4({}), segment4({.number = 1})));
    EXPECT_FALSE(continues(segment4({}), segment4({.number = 2})));
    EXPECT_FALSE(continues(segment4({.number = 1}), segment4({})));
    EXPECT_FALSE(continues(segment4({}), segment4({})));
}

TEST(TcpMerge, IdentificationThatDoesNotCountUpIsNotMerged)
{
    EXPECT_FALSE(continues(segment4({.id_step = 2}), segment4({.number = 1, .id_step = 2})));
    EXPECT_FALSE(continues(segment4({.id_step = 0}), segment4({.number = 1, .id_step = 0})));
}

TEST(TcpMerge, DifferentOptionsFlagsOrHostsAreNotMerged)
{
    EXPECT_FALSE(continues(segment4({}), segment4({.number = 1, .options = hex("0101080a0000000100000003")})));
    EXPECT_FALSE(continues(segment4({}), segment4({.number = 1, .options = {}})));
    EXPECT_FALSE(continues(segment4({}), segment4({.number = 1, .flags = 0x11})));              // FIN
    EXPECT_FALSE(continues(segment4({}), segment4({.number = 1, .flags = 0x90})));              // CWR
    EXPECT_FALSE(continues(segment4({}), segment4({.number = 1, .flags = 0x50})));              // ECE of one only
    EXPECT_FALSE(continues(segment4({}), segment4({.number = 1, .source = "02000000000c"})));
    EXPECT_FALSE(continues(segment4({}), segment6({.number = 1})));
}

TEST(TcpMerge, NothingFollowsAShortSegmentOrOneThatPushes)
{
    tcp_run run;
    const bytes whole = segment4({}), small = segment4({.number = 1, .size = 500}), after = segment4({.number = 2});
    run.begin(whole.data(), read(whole));
    ASSERT_TRUE(run.continues(small.data(), read(small)));
    run.append(read(small));
    EXPECT_TRUE(run.complete());
    EXPECT_FALSE(continues(segment4({.flags = PSH_ACK}), segment4({.number = 1})));
    EXPECT_FALSE(continues(segment4({.size = 500}), segment4({.number = 1})));       // sequence, and longer than the first
}

TEST(TcpMerge, RunEndsBeforeAnIpPacketWouldBeTooLong)
{
    tcp_run run;
    std::vector<bytes> in;
    for (std::size_t i = 0; i < 80; ++i)
        in.push_back(segment4({.number = i}));
    run.begin(in[0].data(), read(in[0]));
    std::size_t i = 1;
    for (; i < in.size() && run.continues(in[i].data(), read(in[i])); ++i)
        run.append(read(in[i]));
    EXPECT_EQ(i, (65535 - 52) / MSS);
}

TEST(TcpMerge, WrongChecksumsAreSeen)
{
    for (const auto make : {segment4, segment6}) {
        bytes frame = make({});
        EXPECT_TRUE(tcp_sums_are_right(frame.data(), read(frame)));
        frame.back() ^= 1;
        EXPECT_FALSE(tcp_sums_are_right(frame.data(), read(frame)));
    }
    bytes frame = segment4({});
    frame[14 + 10] ^= 1;                     // the IPv4 header's own
    EXPECT_FALSE(tcp_sums_are_right(frame.data(), read(frame)));
}

TEST(TcpMerge, TagsAreLookedBehindAndCompared)
{
    const auto tagged = [](bytes frame, const std::string &control) {
        const bytes tag = hex("8100" + control);
        frame.insert(frame.begin() + 12, tag.begin(), tag.end());
        return frame;
    };
    EXPECT_TRUE(continues(tagged(segment4({}), "000a"), tagged(segment4({.number = 1}), "000a")));
    EXPECT_FALSE(continues(tagged(segment4({}), "000a"), tagged(segment4({.number = 1}), "0014")));
    EXPECT_FALSE(continues(tagged(segment4({}), "000a"), segment4({.number = 1})));
}

TEST(TcpMerge, FramesThatAreNotPlainDataAreNotMerged)
{
    EXPECT_FALSE(read(segment4({.size = 0})).mergeable);                             // a bare acknowledgement
    EXPECT_FALSE(read(segment4({.flags = 0x02})).mergeable);                         // SYN
    bytes padded = segment4({.size = 4});
    padded.resize(padded.size() + 6);
    EXPECT_FALSE(read(padded).mergeable);                                            // padding behind the packet
    bytes fragment = segment4({});
    fragment[14 + 6] = 0x20;
    EXPECT_FALSE(known(fragment));
    EXPECT_FALSE(known(ethernet(HOST_B, HOST_A, 0x0800) + ipv4(17, udp(counting(100)))));
    EXPECT_FALSE(known(ethernet(HOST_B, HOST_A, 0x0800) + ipv4(6, tcp({}, counting(100)), 1, hex("01010101"))));
    EXPECT_FALSE(known(ethernet(HOST_B, HOST_A, 0x88B5) + counting(100)));
}

TEST(TcpMerge, NoPrefixOfAFrameIsReadBeyondItsEnd)
{
    for (const bytes &whole : {segment4({.size = 30}), segment6({.size = 30})})
        for (std::size_t length = 0; length < whole.size(); ++length) {
            const bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
            tcp_segment out;
            const bool read_as_data = tcp_segment_read(cut.data(), cut.size(), out) && out.mergeable;
            EXPECT_FALSE(read_as_data) << length;
        }
}
