// Frames of the daemon on their way out of real ports.
#include "net_l2.h"

#include "../core/link_output.h"
#include "../packet/port_vlans.h"
#include "net_lab.h"

#include <gmock/gmock.h>

#include <arpa/inet.h>

using namespace corvane;
using namespace frames;
using testing::ElementsAreArray;

namespace {

constexpr std::uint32_t PORT = 3, OTHER_PORT = 4;

class PacketSend : public testing::Test {
protected:
    PacketSend()
    {
        interfaces_.set(PORT, "ps0", INTERFACE_UP | INTERFACE_SWITCHPORT);
    }
    static int send(std::uint32_t iod, const bytes &frame)
    {
        net_l2_header header;
        std::copy_n(frame.begin(), 6, header.destination.begin());
        std::copy_n(frame.begin() + 6, 6, header.source.begin());
        header.ethertype_be = htons(get16(frame, 12));
        net_l2_send_request request;
        request.iod_be = htonl(iod);
        return net_l2_send(1, header, request, frame.data() + 14, static_cast<std::uint16_t>(frame.size() - 14));
    }
    static std::uint64_t refused() { return lab::drops("site port refused the frame"); }

    lab::interface_file interfaces_;
    lab::veth port_{"ps0"};
    lab::wire host_{"ps0p"};
};

const bytes PLAIN = ethernet(HOST_B, HOST_A, 0x88B5) + counting(46);

} // namespace

TEST_F(PacketSend, SendsFrameWhenTheBatchIsFlushed)
{
    EXPECT_EQ(send(PORT, PLAIN), 1);
    EXPECT_FALSE(host_.receive(0));
    link_output_flush();
    const auto sent = host_.receive();
    ASSERT_TRUE(sent);
    EXPECT_THAT(sent->frame, ElementsAreArray(PLAIN));
}

TEST_F(PacketSend, SendsFullBatchByItself)
{
    for (std::uint32_t i = 0; i < LINK_BATCH; ++i)
        EXPECT_EQ(send(PORT, PLAIN + be32(i)), 1);
    for (std::uint32_t i = 0; i < LINK_BATCH; ++i) {
        const auto sent = host_.receive();
        ASSERT_TRUE(sent);
        EXPECT_EQ(get32(sent->frame, PLAIN.size()), i);
    }
}

TEST_F(PacketSend, TurnsTagsToTheirStandardForm)
{
    EXPECT_EQ(send(PORT, ethernet(HOST_B, HOST_A, 0x8100) + hex("2c61 88b5") + counting(46)), 1);
    EXPECT_EQ(send(PORT, hex(HOST_B + HOST_A) + hex("0032 aaaa03000000 8100 2c61 88b5") + counting(46)), 1);
    link_output_flush();
    EXPECT_THAT(host_.receive()->frame, ElementsAreArray(ethernet(HOST_B, HOST_A, 0x8100) + hex("612c 88b5") + counting(46)));
    EXPECT_THAT(host_.receive()->frame,
                ElementsAreArray(hex(HOST_B + HOST_A) + hex("8100 612c 0036 aaaa03000000 88b5") + counting(46)));
}

namespace {

bytes tcp_frame(std::size_t number, std::size_t size = 1000, const std::string &source = HOST_A)
{
    bytes ip = ipv4(6, tcp({static_cast<std::uint32_t>(5000 + 1000 * number), 0x10}, counting(size)), 100 + number);
    finish(ip, TCP_SUM);
    return ethernet(HOST_B, source, 0x0800) + ip;
}

} // namespace

TEST_F(PacketSend, TcpSegmentsThatFollowEachOtherLeaveAsOneSuperFrame)
{
    interfaces_.table().slot[PORT].mtu = 1500;
    bytes data;
    for (std::size_t i = 0; i < 5; ++i)
        EXPECT_EQ(send(PORT, tcp_frame(i)), 1);
    EXPECT_EQ(send(PORT, PLAIN), 1);
    EXPECT_EQ(send(PORT, tcp_frame(5, 10)), 1);
    link_output_flush();
    const auto super = host_.receive(), plain = host_.receive();
    ASSERT_TRUE(super && plain);
    EXPECT_EQ(super->gso_type, OFFLOAD_GSO_TCPV4);
    EXPECT_TRUE(super->unfinished);
    EXPECT_EQ(super->frame.size(), 54u + 5 * 1000 + 10);
    for (std::size_t i = 0; i < 5; ++i)
        EXPECT_THAT(bytes(super->frame.begin() + 54 + static_cast<std::ptrdiff_t>(1000 * i),
                          super->frame.begin() + 54 + static_cast<std::ptrdiff_t>(1000 * (i + 1))),
                    ElementsAreArray(counting(1000)));
    EXPECT_THAT(plain->frame, ElementsAreArray(PLAIN));
    EXPECT_FALSE(host_.receive(0));
}

TEST_F(PacketSend, TcpSegmentsOfSeveralFlowsAndPortsAreKeptApart)
{
    const lab::veth other("ps1");
    lab::wire other_host("ps1p");
    interfaces_.set(OTHER_PORT, "ps1", INTERFACE_UP | INTERFACE_SWITCHPORT);
    interfaces_.table().slot[PORT].mtu = interfaces_.table().slot[OTHER_PORT].mtu = 1500;
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(send(PORT, tcp_frame(i)), 1);
        EXPECT_EQ(send(OTHER_PORT, tcp_frame(i)), 1);
        EXPECT_EQ(send(PORT, tcp_frame(i, 1000, "02000000000c")), 1);
    }
    link_output_flush();
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(host_.receive()->frame.size(), 54u + 3000);
    EXPECT_EQ(other_host.receive()->frame.size(), 54u + 3000);
    EXPECT_FALSE(host_.receive(0) || other_host.receive(0));
}

TEST_F(PacketSend, TcpSegmentWithAWrongChecksumLeavesAsItIsAndInItsTurn)
{
    interfaces_.table().slot[PORT].mtu = 1500;
    bytes wrong = tcp_frame(1);
    wrong.back() ^= 1;
    for (const bytes &frame : {tcp_frame(0), wrong, tcp_frame(2), tcp_frame(3)})
        EXPECT_EQ(send(PORT, frame), 1);
    link_output_flush();
    EXPECT_THAT(host_.receive()->frame, ElementsAreArray(tcp_frame(0)));
    const auto second = host_.receive(), third = host_.receive();
    ASSERT_TRUE(second && third);
    EXPECT_THAT(second->frame, ElementsAreArray(wrong));
    EXPECT_EQ(third->frame.size(), 54u + 2000);
}

TEST_F(PacketSend, TcpSegmentsThatThePortsMtuDoesNotHoldAreRefusedOneByOne)
{
    lab::run("ip link set ps0 mtu 900");
    interfaces_.table().slot[PORT].mtu = 900;
    const std::uint64_t before = refused();
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_EQ(send(PORT, tcp_frame(i)), 1);
    link_output_flush();
    EXPECT_EQ(refused(), before + 3);
    EXPECT_FALSE(host_.receive(0));
}

TEST_F(PacketSend, CountsFrameThatThePortRefusesAndSendsTheOthers)
{
    const lab::veth other("ps1");
    lab::wire other_host("ps1p");
    interfaces_.set(OTHER_PORT, "ps1", INTERFACE_SWITCHPORT);
    const std::uint64_t before = refused();
    lab::run("ip link set ps1 down");
    EXPECT_EQ(send(OTHER_PORT, PLAIN), 1);
    EXPECT_EQ(send(PORT, PLAIN), 1);
    EXPECT_EQ(send(PORT, PLAIN + counting(2000)), 1);           // above the port's MTU
    EXPECT_EQ(send(PORT, PLAIN), 1);
    link_output_flush();
    EXPECT_TRUE(host_.receive());
    EXPECT_TRUE(host_.receive());
    EXPECT_EQ(refused(), before + 2);
}

TEST_F(PacketSend, RefusesWhatIsNoPortAndNoTag)
{
    const std::uint64_t before = refused();
    EXPECT_EQ(send(99, PLAIN), 0);
    EXPECT_EQ(send(100000, PLAIN), 0);
    interfaces_.set(OTHER_PORT, "ps0", INTERFACE_UP);           // a device, but no switchport
    EXPECT_EQ(send(OTHER_PORT, PLAIN), 0);
    EXPECT_EQ(send(PORT, ethernet(HOST_B, HOST_A, 0x8100) + hex("0a")), 0);
    EXPECT_EQ(refused(), before + 4);
}

TEST_F(PacketSend, FloodsOnThePortsOfTheVlanTaggedWhereTheyTag)
{
    const lab::veth trunk("ps1");
    lab::wire trunk_host("ps1p");
    interfaces_.set(OTHER_PORT, "ps1", INTERFACE_SWITCHPORT);
    const std::uint16_t vlan[] = {300};
    port_vlans_set(PORT, false, true, vlan, {});
    port_vlans_set(OTHER_PORT, true, true, vlan, {});
    net_l2_header header;
    std::copy_n(PLAIN.begin(), 6, header.destination.begin());
    std::copy_n(PLAIN.begin() + 6, 6, header.source.begin());
    header.vlan_be = htons(300);
    header.ethertype_be = htons(0x8100);
    net_l2_send_request request;
    request.flood = 1;
    const bytes tagged = hex("2c61 88b5") + counting(46);
    EXPECT_EQ(net_l2_send(1, header, request, tagged.data(), static_cast<std::uint16_t>(tagged.size())), 1);
    link_output_flush();
    const auto plain = host_.receive(), with_tag = trunk_host.receive();
    ASSERT_TRUE(plain && with_tag);
    EXPECT_THAT(plain->frame, ElementsAreArray(PLAIN));
    EXPECT_THAT(with_tag->frame, ElementsAreArray(ethernet(HOST_B, HOST_A, 0x8100) + hex("612c 88b5") + counting(46)));

    port_vlans_set(PORT, false, true, {}, vlan);
    port_vlans_set(OTHER_PORT, true, true, {}, vlan);
    EXPECT_EQ(net_l2_send(1, header, request, tagged.data(), static_cast<std::uint16_t>(tagged.size())), 0);
}
