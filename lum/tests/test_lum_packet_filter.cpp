#include "lum_test.h"

#include <functional>

using namespace lum_test;

namespace {

using frame_form = std::function<fake::bytes(std::uint16_t type, const fake::bytes &payload)>;

struct named_form {
    const char *name;
    frame_form make;
};

// Every way a frame of that type can stand in.
const std::vector<named_form> forms{
    {"Ethernet II", [](auto type, auto &payload) { return fake::ethernet(HOST_B, HOST_A, type, payload); }},
    {"tagged Ethernet II", [](auto type, auto &payload) { return fake::tagged(HOST_B, HOST_A, VLAN, type, payload); }},
    {"SNAP", [](auto type, auto &payload) { return fake::snap(HOST_B, HOST_A, type, payload); }},
    {"tagged SNAP", [](auto type, auto &payload) { return fake::tagged_snap(HOST_B, HOST_A, VLAN, type, payload); }},
};

class LumFilter : public LumTest {
protected:
    LumFilter() { trace_all_packets(); }
    static int filter(fake::bytes frame)
    {
        plock_assert_held();
        return lum_filter({frame.data(), static_cast<std::uint32_t>(frame.size())}, key(HOST_A), key(HOST_B));
    }
    // The frame is filtered and traced under that name in every form, its neighbour passes in every form.
    static void expect_filtered(const char *name, std::uint16_t type, const fake::bytes &payload,
                                std::uint16_t neighbour_type, const fake::bytes &neighbour)
    {
        for (const named_form &form : forms) {
            SCOPED_TRACE(form.name);
            platform.forget();
            EXPECT_EQ(filter(form.make(type, payload)), 1);
            EXPECT_TRUE(platform.traced("Filter " + std::string(name) + " frame\n"));
            platform.forget();
            EXPECT_EQ(filter(form.make(neighbour_type, neighbour)), 0);
            EXPECT_THAT(platform.traces, IsEmpty());
        }
    }
    static fake::bytes with_protocol(fake::bytes packet, std::size_t at, std::uint8_t protocol)
    {
        packet[at] = protocol;
        return packet;
    }
    static fake::bytes with_port(fake::bytes packet, std::size_t at, std::uint16_t port)
    {
        packet.set_be16(at, port);
        return packet;
    }
};

constexpr std::uint32_t SOURCE = 0x0A000001;
const ipv6_address SOURCE6 = fake::ipv6("fe80::1");

TEST_F(LumFilter, KeepsIpv4VrrpOutOfTheCore)
{
    expect_filtered("IPv4/VRRP", 0x0800, fake::vrrp_hello(SOURCE), 0x0800,
                    with_protocol(fake::vrrp_hello(SOURCE), 9, 113));
    EXPECT_EQ(filter(fake::ethernet(HOST_B, HOST_A, 0x0801, fake::vrrp_hello(SOURCE))), 0);
}

TEST_F(LumFilter, KeepsIpv4HsrpOutOfTheCore)
{
    expect_filtered("IPv4/HSRP", 0x0800, fake::hsrp_hello(SOURCE), 0x0800,
                    with_port(fake::hsrp_hello(SOURCE), 22, 1986));
    EXPECT_EQ(filter(fake::ethernet(HOST_B, HOST_A, 0x0800, with_protocol(fake::hsrp_hello(SOURCE), 9, 6))), 0);
}

TEST_F(LumFilter, KeepsIpv4GlbpOutOfTheCore)
{
    expect_filtered("IPv4/GLBP", 0x0800, fake::glbp_hello(SOURCE), 0x0800,
                    with_port(fake::glbp_hello(SOURCE), 22, 3221));
}

TEST_F(LumFilter, KeepsIpv6VrrpOutOfTheCore)
{
    expect_filtered("IPv6/VRRP", 0x86DD, fake::vrrp_hello(SOURCE6), 0x86DD,
                    with_protocol(fake::vrrp_hello(SOURCE6), 6, 111));
}

TEST_F(LumFilter, KeepsIpv6HsrpOutOfTheCore)
{
    const fake::bytes hello = with_port(fake::hsrp_hello(SOURCE6), 42, 1985);
    expect_filtered("IPv6/HSRP", 0x86DD, hello, 0x86DD, with_port(hello, 42, 1984));
}

TEST_F(LumFilter, KeepsIpv6GlbpOutOfTheCore)
{
    expect_filtered("IPv6/GLBP", 0x86DD, fake::glbp_hello(SOURCE6), 0x86DD,
                    with_port(fake::glbp_hello(SOURCE6), 42, 3223));
}

TEST_F(LumFilter, KeepsDiscoverySpanningTreeAndIsisFramesOutOfTheCore)
{
    expect_filtered("CDP", 0x2000, fake::filler(46), 0x2001, fake::filler(46));
    expect_filtered("STP", 0x4242, fake::filler(46), 0x4243, fake::filler(46));
    for (const named_form &form : forms) {
        EXPECT_EQ(filter(form.make(0xFEFE, fake::filler(46))), 1) << form.name;
        EXPECT_EQ(filter(form.make(0xFEFF, fake::filler(46))), 0) << form.name;
    }
    EXPECT_TRUE(platform.traced("Filter IS-IS frame\n"));
}

TEST_F(LumFilter, LogsEachIsisFrameOnceWhateverTheDebugFlags)
{
    lum_packet_debug_flag = 0;
    filter(fake::ethernet(HOST_B, HOST_A, 0xFEFE, fake::filler(46)));
    filter(fake::ethernet(HOST_B, HOST_A, 0xFEFE, fake::filler(46)));
    EXPECT_THAT(platform.trace_texts(), ElementsAre("Filter ISIS packet\n", "Filter ISIS packet\n"));
    EXPECT_EQ(platform.traces.front().level, 2);
}

TEST_F(LumFilter, GovernsOnlyTheIpv4HellosByItsFlag)
{
    lum_filter_fhrp = 0;
    for (const named_form &form : forms) {
        EXPECT_EQ(filter(form.make(0x0800, fake::vrrp_hello(SOURCE))), 0) << form.name;
        EXPECT_EQ(filter(form.make(0x0800, fake::hsrp_hello(SOURCE))), 0) << form.name;
        EXPECT_EQ(filter(form.make(0x0800, fake::glbp_hello(SOURCE))), 0) << form.name;
        EXPECT_EQ(filter(form.make(0x86DD, fake::vrrp_hello(SOURCE6))), 1) << form.name;
        EXPECT_EQ(filter(form.make(0x86DD, fake::glbp_hello(SOURCE6))), 1) << form.name;
        EXPECT_EQ(filter(form.make(0x2000, fake::filler(46))), 1) << form.name;
    }
}

TEST_F(LumFilter, StartsWithTheFlagSet)
{
    EXPECT_EQ(lum_filter_fhrp, 1u);
}

TEST_F(LumFilter, AssumesAnIpv4HeaderOfTwentyBytes)
{
    // With four bytes of options the port of the hello stands four bytes further and is not looked for there.
    fake::bytes hello = fake::hsrp_hello(SOURCE);
    hello[0] = 0x46;
    hello.insert(hello.begin() + 20, 4, std::uint8_t{0});
    EXPECT_EQ(filter(fake::ethernet(HOST_B, HOST_A, 0x0800, hello)), 0);
}

TEST_F(LumFilter, FiltersOfAllProtocolsOnlyVrrp)
{
    for (unsigned protocol = 0; protocol < 256; ++protocol) {
        if (protocol == 17)
            continue;
        const fake::bytes packet =
            with_protocol(fake::vrrp_hello(SOURCE), 9, static_cast<std::uint8_t>(protocol));
        EXPECT_EQ(filter(fake::ethernet(HOST_B, HOST_A, 0x0800, packet)), protocol == 112 ? 1 : 0) << protocol;
    }
}

TEST_F(LumFilter, PassesFramesThatEndBeforeWhatARuleReads)
{
    for (const named_form &form : forms) {
        const fake::bytes whole = form.make(0x0800, fake::hsrp_hello(SOURCE));
        const std::size_t header = whole.size() - fake::hsrp_hello(SOURCE).size();
        for (std::size_t length = 14; length <= whole.size(); ++length)
            EXPECT_EQ(filter(whole.range(0, length)), length >= header + 24 ? 1 : 0) << form.name << ' ' << length;
    }
}

TEST_F(LumFilter, LeavesTheFrameAsItIs)
{
    fake::bytes frame = fake::tagged(HOST_B, HOST_A, VLAN, 0x0800, fake::hsrp_hello(SOURCE));
    const fake::bytes before = frame;
    lum_filter({frame.data(), static_cast<std::uint32_t>(frame.size())}, key(HOST_A), key(HOST_B));
    EXPECT_EQ(frame, before);
}

} // namespace
