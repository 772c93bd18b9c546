// VLAN tags between the wire and the daemon.
#include "../packet/tag.h"

#include "packet_frames.h"

#include <gmock/gmock.h>

using namespace corvane;
using namespace frames;
using testing::ElementsAreArray;

namespace {

// A frame with room in front, as it stands in a ring.
struct in_buffer {
    explicit in_buffer(const bytes &frame) : memory(64 + frame.size())
    {
        std::copy(frame.begin(), frame.end(), memory.begin() + 64);
        ref = {memory.data() + 64, frame.size()};
    }
    [[nodiscard]] bytes now() const { return {ref.data, ref.data + ref.length}; }
    bytes memory;
    frame_ref ref;
};

bytes to_daemon(const bytes &wire, const tag_metadata &tag = {})
{
    in_buffer b(wire);
    EXPECT_TRUE(tag_to_daemon(b.ref, tag));
    return b.now();
}

bytes to_wire(const bytes &daemon)
{
    bytes out(daemon.size() + 4, 0xEE);
    const std::size_t length = tag_to_wire({daemon.data(), daemon.data() + 6, get16(daemon, 12), daemon.data() + 14,
                                            daemon.size() - 14}, out.data());
    out.resize(length);
    return out;
}

const bytes MACS = hex(HOST_A + HOST_B);
const bytes PAYLOAD = counting(50);
const bytes LLC_SNAP = hex("aaaa03000000");
const bytes SNAP_TYPE = hex("0800");

bytes snap(std::size_t length) { return MACS + be16(length) + LLC_SNAP + SNAP_TYPE + PAYLOAD; }
constexpr std::size_t SNAP_LENGTH = 8 + 50;

} // namespace

TEST(TagToDaemon, InsertsTagFromMetadataLowByteFirst)
{
    const bytes wire = MACS + hex("0800") + PAYLOAD;
    EXPECT_THAT(to_daemon(wire, {true, 0x8100, 300}), ElementsAreArray(MACS + hex("8100 2c01 0800") + PAYLOAD));
    EXPECT_THAT(to_daemon(wire, {true, 0x8100, 4094}), ElementsAreArray(MACS + hex("8100 fe0f 0800") + PAYLOAD));
}

TEST(TagToDaemon, KeepsPriorityInUpperNibbleOfSecondByte)
{
    const bytes wire = MACS + hex("0800") + PAYLOAD;
    EXPECT_THAT(to_daemon(wire, {true, 0x8100, 0xA064}), ElementsAreArray(MACS + hex("8100 64a0 0800") + PAYLOAD));
}

TEST(TagToDaemon, TurnsTagInsideFrameRound)
{
    EXPECT_THAT(to_daemon(MACS + hex("8100 6064 86dd") + PAYLOAD),
                ElementsAreArray(MACS + hex("8100 6460 86dd") + PAYLOAD));
}

TEST(TagToDaemon, LeavesUntaggedFrameAsItIs)
{
    const bytes wire = MACS + hex("0800") + PAYLOAD;
    EXPECT_THAT(to_daemon(wire), ElementsAreArray(wire));
    EXPECT_THAT(to_daemon(snap(SNAP_LENGTH)), ElementsAreArray(snap(SNAP_LENGTH)));
}

TEST(TagToDaemon, TakesPriorityTagOff)
{
    const bytes untagged = MACS + hex("0800") + PAYLOAD;
    EXPECT_THAT(to_daemon(untagged, {true, 0x8100, 0xE000}), ElementsAreArray(untagged));
    EXPECT_THAT(to_daemon(MACS + hex("8100 e000 0800") + PAYLOAD), ElementsAreArray(untagged));
}

TEST(TagToDaemon, ReadsTagBehindPriorityTag)
{
    EXPECT_THAT(to_daemon(MACS + hex("8100 0064 0800") + PAYLOAD, {true, 0x8100, 0xE000}),
                ElementsAreArray(MACS + hex("8100 6400 0800") + PAYLOAD));
}

TEST(TagToDaemon, LeavesSecondTagAsOnWire)
{
    EXPECT_THAT(to_daemon(MACS + hex("8100 0064 0800") + PAYLOAD, {true, 0x8100, 300}),
                ElementsAreArray(MACS + hex("8100 2c01 8100 0064 0800") + PAYLOAD));
}

TEST(TagToDaemon, PutsServiceTagBackAsItStoodOnWire)
{
    EXPECT_THAT(to_daemon(MACS + hex("8100 0064 0800") + PAYLOAD, {true, 0x88A8, 0x2005}),
                ElementsAreArray(MACS + hex("88a8 2005 8100 0064 0800") + PAYLOAD));
}

TEST(TagToDaemon, PutsTagOfSnapFrameBehindSnapHeader)
{
    const bytes expected = MACS + be16(SNAP_LENGTH - 4) + LLC_SNAP + hex("8100 2c01") + SNAP_TYPE + PAYLOAD;
    EXPECT_THAT(to_daemon(snap(SNAP_LENGTH), {true, 0x8100, 300}), ElementsAreArray(expected));
    EXPECT_THAT(to_daemon(MACS + hex("8100 012c") + be16(SNAP_LENGTH) + LLC_SNAP + SNAP_TYPE + PAYLOAD),
                ElementsAreArray(expected));
}

TEST(TagToDaemon, Takes1536ForALength)
{
    const bytes rest = counting(60);
    const bytes wire = MACS + be16(0x600) + rest;
    const bytes tagged = to_daemon(wire, {true, 0x8100, 5});
    EXPECT_EQ(get16(tagged, 12), 0x5FC);
    EXPECT_EQ(get16(tagged, 20), 0x8100);
    EXPECT_EQ(get16(to_daemon(MACS + be16(0x601) + rest, {true, 0x8100, 5}), 12), 0x8100);
}

TEST(TagToDaemon, RefusesFramesTooShortForTheirHeaders)
{
    const bytes whole = MACS + be16(8) + LLC_SNAP + SNAP_TYPE;
    for (std::size_t length = 0; length <= whole.size(); ++length) {
        in_buffer b(bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)));
        EXPECT_EQ(tag_to_daemon(b.ref, {true, 0x8100, 10}), length >= 22) << length;
    }
    const bytes tagged = MACS + hex("8100 000a 0800");
    for (std::size_t length = 0; length <= tagged.size(); ++length) {
        in_buffer b(bytes(tagged.begin(), tagged.begin() + static_cast<std::ptrdiff_t>(length)));
        EXPECT_EQ(tag_to_daemon(b.ref, {}), length == tagged.size()) << length;
    }
}

TEST(TagToWire, TurnsControlFieldBack)
{
    EXPECT_THAT(to_wire(MACS + hex("8100 2c61 0800") + PAYLOAD), ElementsAreArray(MACS + hex("8100 612c 0800") + PAYLOAD));
}

TEST(TagToWire, SendsUntaggedFrameAsItIs)
{
    const bytes frame = MACS + hex("86dd") + PAYLOAD;
    EXPECT_THAT(to_wire(frame), ElementsAreArray(frame));
}

TEST(TagToWire, IsTheWayBackOfTagToDaemon)
{
    for (const bytes &wire : {MACS + hex("8100 612c 0800") + PAYLOAD, MACS + hex("8100 0fff 8100 0064 0800") + PAYLOAD,
                              MACS + hex("8100 012c") + be16(SNAP_LENGTH) + LLC_SNAP + SNAP_TYPE + PAYLOAD})
        EXPECT_THAT(to_wire(to_daemon(wire)), ElementsAreArray(wire));
}

TEST(TagToWire, GivesUntaggedSnapFrameItsLengthBack)
{
    // The daemon took 4 off to tag it, and 4 again to take the tag off.
    EXPECT_THAT(to_wire(snap(SNAP_LENGTH - 8)), ElementsAreArray(snap(SNAP_LENGTH)));
}

TEST(TagToWire, GivesSnapFrameTheTypeBackThatWentWithItsTag)
{
    // What stands behind the tag's type looks like a control field and is not one.
    const bytes sent = MACS + be16(SNAP_LENGTH - 8) + LLC_SNAP + hex("8100") + PAYLOAD;
    bytes out(sent.size());
    const daemon_frame frame{sent.data(), sent.data() + 6, get16(sent, 12), sent.data() + 14, sent.size() - 14, true, 0x0800};
    ASSERT_EQ(tag_to_wire(frame, out.data()), sent.size());
    EXPECT_THAT(out, ElementsAreArray(MACS + be16(SNAP_LENGTH) + LLC_SNAP + hex("0800") + PAYLOAD));
}
TEST(TagToWire, LeavesTheTagOfAHostAsItIsOnceTheDaemonsOwnIsOut)
{
    const bytes sent = MACS + hex("8100 004d 0800") + PAYLOAD;
    bytes out(sent.size());
    const daemon_frame frame{sent.data(), sent.data() + 6, 0x8100, sent.data() + 14, sent.size() - 14, true};
    ASSERT_EQ(tag_to_wire(frame, out.data()), sent.size());
    EXPECT_THAT(out, ElementsAreArray(sent));
}
TEST(TagToWire, LeavesLengthThatTheFrameDoesNotHave)
{
    EXPECT_THAT(to_wire(snap(SNAP_LENGTH - 7)), ElementsAreArray(snap(SNAP_LENGTH - 7)));
    EXPECT_THAT(to_wire(snap(0x5F0)), ElementsAreArray(snap(0x5F0)));
}

TEST(TagToWire, CountsPaddingAsRoom)
{
    const bytes padded = MACS + be16(8) + LLC_SNAP + SNAP_TYPE + bytes(38, 0);
    EXPECT_EQ(get16(to_wire(padded), 12), 16);
}

TEST(TagToWire, RefusesTagWithoutControlField)
{
    EXPECT_TRUE(to_wire(MACS + hex("8100 0a00")).empty());
    EXPECT_TRUE(to_wire(MACS + hex("0020") + LLC_SNAP + hex("8100 0a00 08")).empty());
    EXPECT_FALSE(to_wire(MACS + hex("8100 0a00 0800")).empty());
}

TEST(LinkLocal, IsBridgeGroupAddressesAndIsIs)
{
    const auto local = [](const bytes &f) { return is_link_local(f.data(), f.size()); };
    EXPECT_TRUE(local(hex("0180c2000000" + HOST_B) + hex("0026 424203")));
    EXPECT_TRUE(local(hex("0180c200000e" + HOST_B) + hex("88cc 0207")));
    EXPECT_TRUE(local(hex("0180c200000f" + HOST_B) + hex("0800 0000")));
    EXPECT_FALSE(local(hex("0180c2000010" + HOST_B) + hex("0800 0000")));
    EXPECT_FALSE(local(hex("0180c2000100" + HOST_B) + hex("0800 0000")));
    EXPECT_TRUE(local(hex("0180c2000014" + HOST_B) + hex("0100 fefe03")));
    EXPECT_TRUE(local(hex(HOST_A + HOST_B) + hex("8100 000a 0100 fefe03")));
    EXPECT_FALSE(local(hex(HOST_A + HOST_B) + hex("0100 fefd03")));
    EXPECT_FALSE(local(hex(HOST_A + HOST_B) + hex("0800 fefe03")));
    EXPECT_FALSE(local(hex(HOST_A + HOST_B) + hex("0003 fe")));
    EXPECT_FALSE(local(hex(HOST_A + HOST_B) + hex("8100")));
}

TEST(TagOnWire, PutsTakesOrReplacesTheOuterTag)
{
    const auto with = [](bytes frame, bool tagged, std::uint16_t vlan) {
        const std::size_t length = frame.size();
        frame.resize(length + VLAN_TAG);
        frame.resize(tag_on_wire(frame.data(), length, tagged, vlan));
        return frame;
    };
    const bytes plain = MACS + hex("0800") + PAYLOAD, tagged = MACS + hex("8100 a00a 0800") + PAYLOAD;
    EXPECT_THAT(with(plain, false, 10), ElementsAreArray(plain));
    EXPECT_THAT(with(plain, true, 300), ElementsAreArray(MACS + hex("8100 012c 0800") + PAYLOAD));
    EXPECT_THAT(with(tagged, false, 10), ElementsAreArray(plain));
    EXPECT_THAT(with(tagged, true, 300), ElementsAreArray(MACS + hex("8100 a12c 0800") + PAYLOAD));
    EXPECT_THAT(with(MACS + hex("8100 a00a"), false, 10), ElementsAreArray(MACS + hex("8100 a00a")));
}
