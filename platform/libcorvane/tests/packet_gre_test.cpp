// GRE overlays on a real core device: what leaves, what comes back, what is refused.
#include "../packet/gre.h"

#include "../core/link_output.h"
#include "../packet/frame_source.h"
#include "net_lab.h"
#include "net_l2.h"

#include <gmock/gmock.h>

#include <arpa/inet.h>
#include <sys/eventfd.h>
#include <unistd.h>

using namespace corvane;
using namespace frames;
using testing::ElementsAreArray;

namespace {

constexpr std::uint32_t OVERLAY = 600, CORE = 21;
const bytes TAGGED = ethernet(HOST_B, HOST_A, 0x8100) + hex("0aa0 88b5") + counting(46);        // VLAN 10, low byte first
const bytes TAGGED_ON_WIRE = ethernet(HOST_B, HOST_A, 0x8100) + hex("a00a 88b5") + counting(46);
const bytes OWN4 = hex("0a4d0001"), PEER4 = hex("0a4d0002"), GROUP4 = hex("ef010101");
const bytes OWN6 = hex("20010db8007700000000000000000001"), PEER6 = hex("20010db8007700000000000000000002");
const bytes GROUP6 = hex("ff150000000000000000000000008472");
const bytes PEER_MAC = hex("020000000099");
const bytes GRE = hex("0000 6558");

template <std::size_t N> std::array<std::uint8_t, N> array_of(const bytes &b)
{
    std::array<std::uint8_t, N> out{};
    std::copy_n(b.begin(), N, out.begin());
    return out;
}

class Gre : public testing::Test {
protected:
    Gre()
    {
        lab::write_setting("/proc/sys/net/ipv6/conf/gq0/accept_dad", "0");
        lab::write_setting("/proc/sys/net/ipv6/conf/gq0/disable_ipv6", "0");
        lab::run("ip addr add 10.77.0.1/24 dev gq0 && ip -6 addr add 2001:db8:77::1/64 dev gq0 nodad");
        lab::run("timeout 5 sh -c 'until ip -6 route show table local | grep -q 2001:db8:77::1; do sleep 0.01; done'");
        lab::run("ip neigh replace 10.77.0.2 lladdr 02:00:00:00:00:99 dev gq0 nud permanent");
        lab::run("ip neigh replace 2001:db8:77::2 lladdr 02:00:00:00:00:99 dev gq0 nud permanent");
        interfaces_.set(CORE, "gq0", INTERFACE_UP);
        interfaces_.set(OVERLAY, "", INTERFACE_UP | INTERFACE_OVERLAY | INTERFACE_TUNNEL);
        configure(4);
        source_.follow_ports();
    }
    ~Gre() override
    {
        interfaces_.clear(OVERLAY);
        overlays_prune(interfaces_.table());
        close(wake_);
    }

    static void configure(std::uint8_t family, bool gre = true)
    {
        overlay_set({OVERLAY, CORE, gre, family, array_of<4>(OWN4), array_of<4>(GROUP4), array_of<16>(OWN6),
                     array_of<16>(GROUP6)});
    }
    static int send(const bytes &frame, std::uint32_t family = 0)
    {
        net_l2_header header;
        header.destination = array_of<6>(frame);
        header.source = array_of<6>(bytes(frame.begin() + 6, frame.end()));
        header.ethertype_be = htons(get16(frame, 12));
        net_l2_send_request request;
        request.iod_be = htonl(OVERLAY);
        request.next_hop_family = family;
        std::memcpy(&request.next_hop_ipv4_be, PEER4.data(), 4);
        request.next_hop_ipv6 = array_of<16>(PEER6);
        const int result = net_l2_send(1, header, request, frame.data() + 14, static_cast<std::uint16_t>(frame.size() - 14));
        link_output_flush();
        return result;
    }
    std::optional<lab::captured> next_gre()
    {
        return far_.receive_if([](const bytes &f) {
            return (get16(f, 12) == 0x0800 && f[23] == 47) || (get16(f, 12) == 0x86DD && f[20] == 47);
        });
    }
    void inject4(const bytes &payload, const bytes &to = OWN4)
    {
        bytes ip = ipv4(47, payload);
        std::copy(PEER4.begin(), PEER4.end(), ip.begin() + 12);
        std::copy(to.begin(), to.end(), ip.begin() + 16);
        put16(ip, 10, 0);
        put16(ip, 10, checksum(view(ip).first(20)));
        far_.send(lab::mac_of("gq0") + PEER_MAC + hex("0800") + ip);
    }
    // A receive that finds nothing but the wake: the source has looked at what there is.
    void look()
    {
        const std::uint64_t one = 1;
        std::uint64_t count = 0;
        mbus_msg msg;
        ASSERT_EQ(write(wake_, &one, sizeof one), 8);
        ASSERT_EQ(source_.receive(msg, wake_), local_receive::WOKEN);
        ASSERT_EQ(read(wake_, &count, sizeof count), 8);
    }
    struct delivery { std::uint32_t iod; bytes frame; };
    delivery receive()
    {
        mbus_msg msg;
        EXPECT_EQ(source_.receive(msg, wake_), local_receive::MESSAGE);
        std::size_t length = 0;
        const std::uint8_t *p = source_.payload(msg, &length);
        delivery d{get32({p, length}, NET_L2_MSG_IOD), {p + NET_L2_MSG_FRAME, p + length}};
        EXPECT_EQ(source_.drop(msg), 0);
        return d;
    }

    lab::interface_file interfaces_;
    lab::veth core_{"gq0"};
    lab::wire far_{"gq0p"};
    frame_source source_;
    int wake_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
};

} // namespace

TEST_F(Gre, SendsFrameToNextHopOverIpv4)
{
    EXPECT_EQ(send(TAGGED, 4), 1);
    const auto sent = next_gre();
    ASSERT_TRUE(sent);
    bytes header = hex("45c0") + be16(24 + TAGGED.size()) + hex("00000000 802f0000") + OWN4 + PEER4;
    put16(header, 10, checksum(header));
    EXPECT_THAT(sent->frame, ElementsAreArray(PEER_MAC + lab::mac_of("gq0") + hex("0800") + header + GRE + TAGGED_ON_WIRE));
}

TEST_F(Gre, SendsFrameToNextHopOverIpv6)
{
    EXPECT_EQ(send(TAGGED, 5), 1);
    const auto sent = next_gre();
    ASSERT_TRUE(sent);
    EXPECT_THAT(sent->frame, ElementsAreArray(PEER_MAC + lab::mac_of("gq0") + hex("86dd 60000000") + be16(4 + TAGGED.size()) +
                                              hex("2f80") + OWN6 + PEER6 + GRE + TAGGED_ON_WIRE));
}

TEST_F(Gre, SendsToGroupOfTheCoresFamilyWithoutNextHop)
{
    EXPECT_EQ(send(TAGGED), 1);
    auto sent = next_gre();
    ASSERT_TRUE(sent);
    EXPECT_THAT(bytes(sent->frame.begin(), sent->frame.begin() + 6), ElementsAreArray(hex("01005e010101")));
    EXPECT_THAT(bytes(sent->frame.begin() + 30, sent->frame.begin() + 34), ElementsAreArray(GROUP4));
    configure(5);
    EXPECT_EQ(send(TAGGED), 1);
    sent = next_gre();
    ASSERT_TRUE(sent);
    EXPECT_THAT(bytes(sent->frame.begin(), sent->frame.begin() + 6), ElementsAreArray(hex("333300008472")));
}

TEST_F(Gre, CountsFrameWithoutTag)
{
    const std::uint64_t before = lab::drops("GRE overlay: frame without tag");
    EXPECT_EQ(send(ethernet(HOST_B, HOST_A, 0x0800) + counting(46), 4), 0);
    EXPECT_EQ(send(ethernet(HOST_B, HOST_A, 46) + counting(46), 4), 0);
    EXPECT_EQ(lab::drops("GRE overlay: frame without tag"), before + 2);
}

TEST_F(Gre, RefusesFramesOfOverlaysInAnotherFormat)
{
    configure(4, false);
    const std::uint64_t before = lab::drops("site port refused the frame");
    EXPECT_EQ(send(TAGGED, 4), 0);
    EXPECT_EQ(lab::drops("site port refused the frame"), before + 1);
}

TEST_F(Gre, CountsOverlayWithoutAddress)
{
    overlay_set({OVERLAY, CORE, true, 4, {}, array_of<4>(GROUP4), {}, {}});
    const std::uint64_t before = lab::drops("overlay without external address"), routes = lab::drops("no route to the remote edge");
    EXPECT_EQ(send(TAGGED, 4), 0);
    EXPECT_EQ(send(TAGGED, 5), 0);
    EXPECT_EQ(lab::drops("overlay without external address"), before + 2);
    overlay_set({OVERLAY, CORE, true, 4, array_of<4>(OWN4), {}, {}, {}});
    EXPECT_EQ(send(TAGGED), 0);
    EXPECT_EQ(lab::drops("no route to the remote edge"), routes + 1);
}

TEST_F(Gre, ReceivesFrameAsOneOfTheOverlayInterface)
{
    look();
    inject4(GRE + TAGGED_ON_WIRE);
    const delivery d = receive();
    EXPECT_EQ(d.iod, OVERLAY);
    EXPECT_THAT(d.frame, ElementsAreArray(TAGGED));
}

TEST_F(Gre, ReceivesFromIpv6AndFromGroups)
{
    look();
    far_.send(lab::mac_of("gq0") + PEER_MAC + hex("86dd 60000000") + be16(4 + TAGGED.size()) + hex("2f40") + PEER6 + OWN6 +
              GRE + TAGGED_ON_WIRE);
    EXPECT_EQ(receive().frame, TAGGED);
    lab::run("ip addr add 239.1.1.1 dev gq0 autojoin");
    bytes ip = ipv4(47, GRE + TAGGED_ON_WIRE);
    std::copy(PEER4.begin(), PEER4.end(), ip.begin() + 12);
    std::copy(GROUP4.begin(), GROUP4.end(), ip.begin() + 16);
    put16(ip, 10, 0);
    put16(ip, 10, checksum(view(ip).first(20)));
    far_.send(hex("01005e010101") + PEER_MAC + hex("0800") + ip);
    EXPECT_EQ(receive().frame, TAGGED);
}

TEST_F(Gre, PutsFragmentsTogether)
{
    look();
    const bytes frame = ethernet(HOST_B, HOST_A, 0x8100) + hex("000a 88b5") + counting(1496);
    bytes ip = ipv4(47, GRE + frame);
    std::copy(PEER4.begin(), PEER4.end(), ip.begin() + 12);
    std::copy(OWN4.begin(), OWN4.end(), ip.begin() + 16);
    for (const auto &[at, length, more] : {std::tuple(0u, 1000u, true), std::tuple(1000u, 518u, false)}) {
        bytes part(ip.begin(), ip.begin() + 20);
        put16(part, 2, 20 + length);
        put16(part, 6, at / 8 | (more ? 0x2000 : 0));
        put16(part, 10, 0);
        put16(part, 10, checksum(part));
        part.insert(part.end(), ip.begin() + 20 + at, ip.begin() + 20 + at + length);
        far_.send(lab::mac_of("gq0") + PEER_MAC + hex("0800") + part);
    }
    const bytes received = receive().frame;
    EXPECT_EQ(received.size(), frame.size());
    EXPECT_THAT(bytes(received.begin() + 18, received.end()), ElementsAreArray(bytes(frame.begin() + 18, frame.end())));
}

TEST_F(Gre, ChoosesAmongOverlaysByVlan)
{
    constexpr std::uint32_t OTHER = 601;
    interfaces_.set(OTHER, "", INTERFACE_UP | INTERFACE_OVERLAY | INTERFACE_TUNNEL);
    overlay_set({OTHER, CORE, true, 4, array_of<4>(OWN4), array_of<4>(hex("ef010102")), {}, {}});
    overlay_vlan_set(10, OTHER);
    look();
    inject4(GRE + TAGGED_ON_WIRE);
    EXPECT_EQ(receive().iod, OTHER);
    overlay_vlan_set(10, OVERLAY);
    inject4(GRE + TAGGED_ON_WIRE);
    EXPECT_EQ(receive().iod, OVERLAY);
    overlay_vlan_set(10, 0);
}

TEST_F(Gre, GivesAnyOtherGroupToTheOverlayThatCarriesTheVlan)
{
    look();
    const bytes data_group = hex("ef020003");
    lab::run("ip addr add 239.2.0.3 dev gq0 autojoin");
    const std::uint64_t served = lab::drops("frame on an interface that is not served");
    overlay_vlan_set(10, OVERLAY);
    inject4(GRE + ethernet(HOST_B, HOST_A, 0x8100) + hex("a00b 88b5") + counting(46), data_group);      // VLAN 11 is nobody's
    inject4(GRE + TAGGED_ON_WIRE, data_group);
    const delivery d = receive();
    EXPECT_EQ(d.iod, OVERLAY);
    EXPECT_EQ(d.frame, TAGGED);
    EXPECT_EQ(lab::drops("frame on an interface that is not served"), served + 1);
    overlay_vlan_set(10, 0);
}
namespace {

// A tagged TCP frame of VLAN 10 as the kernel's receive offload makes it of many: whole lengths, an unfinished checksum.
bytes merged_frame(bool six, std::size_t payload)
{
    const std::size_t segment = 20 + payload;
    bytes ip = six ? hex("60000000") + be16(segment) + hex("0640") + PEER6 + OWN6
                   : hex("4500") + be16(20 + segment) + hex("00004000 40060000") + PEER4 + OWN4;
    bytes pseudo = six ? PEER6 + OWN6 : PEER4 + OWN4;
    pseudo = pseudo + hex("0006") + be16(segment);
    if (!six)
        put16(ip, 10, checksum(ip));
    const std::uint16_t seed = static_cast<std::uint16_t>(~checksum(pseudo));
    return ethernet(HOST_B, HOST_A, 0x8100) + hex("a00a") + be16(six ? 0x86DD : 0x0800) + ip +
           hex("1388 1194 00000400 00000000 5018 0400") + be16(seed) + hex("0000") + counting(payload);
}

} // namespace

TEST_F(Gre, CutsWhatTheKernelMergedIntoSegmentsThatAnyLinkCarries)
{
    lab::run("ip link set gq0 mtu 65535 && ip link set gq0p mtu 65535");
    look();
    for (const bool six : {false, true})
        for (const std::size_t payload : {2000u, 20000u}) {
            SCOPED_TRACE(six ? "IPv6" : "IPv4");
            const bytes frame = merged_frame(six, payload);
            inject4(GRE + frame);
            inject4(GRE + frame);                               // one behind the other
            inject4(GRE + TAGGED_ON_WIRE);
            for (int time = 0; time < 2; ++time) {
                bytes data;
                while (data.size() < payload) {
                    const delivery d = receive();
                    const std::size_t headers = 18 + (six ? 40 : 20) + 20;
                    ASSERT_GT(d.frame.size(), headers);
                    EXPECT_LE(d.frame.size(), 18u + 1280);
                    EXPECT_EQ(d.iod, OVERLAY);
                    EXPECT_EQ(get16(d.frame, 14), 0x0AA0);      // the tag, low byte first
                    EXPECT_EQ(get32(d.frame, headers - 16), 1024 + data.size());
                    const bytes segment(d.frame.begin() + static_cast<std::ptrdiff_t>(headers - 20), d.frame.end());
                    const bytes addresses = six ? PEER6 + OWN6 : PEER4 + OWN4;
                    EXPECT_EQ(checksum(addresses + hex("0006") + be16(segment.size()) + segment), 0);
                    data.insert(data.end(), segment.begin() + 20, segment.end());
                }
                EXPECT_EQ(data, counting(payload));
            }
            EXPECT_EQ(receive().frame, TAGGED);
        }
}
TEST_F(Gre, LeavesLargeFramesWholeThatTheKernelDidNotMerge)
{
    lab::run("ip link set gq0 mtu 65535 && ip link set gq0p mtu 65535");
    look();
    bytes frame = merged_frame(false, 8000);
    frame[18 + 20 + 16] ^= 1;                                   // its checksum is no pseudo header's sum
    inject4(GRE + frame);
    EXPECT_EQ(receive().frame.size(), frame.size());
    frame = merged_frame(false, 8000);
    frame[18 + 9] = 17;
    inject4(GRE + frame);
    EXPECT_EQ(receive().frame.size(), frame.size());
}
TEST_F(Gre, ForgetsTheRestOfAMergedFrameWithItsTunnel)
{
    lab::run("ip link set gq0 mtu 65535 && ip link set gq0p mtu 65535");
    look();
    inject4(GRE + merged_frame(false, 60000));                  // and again: more than one lot holds
    inject4(GRE + merged_frame(false, 60000));
    inject4(GRE + merged_frame(false, 60000));
    for (int i = 0; i < 70; ++i)
        EXPECT_EQ(receive().iod, OVERLAY);
    configure(4, false);
    for (int lot = 0; lot < 64; ++lot) {
        const std::uint64_t one = 1;
        mbus_msg msg;
        ASSERT_EQ(write(wake_, &one, sizeof one), 8);
        if (source_.receive(msg, wake_) == local_receive::WOKEN)
            break;
        ASSERT_EQ(source_.drop(msg), 0);
        ASSERT_LT(lot, 63) << "frames of a tunnel that is gone";
    }
}
TEST_F(Gre, CountsWhatIsNotOurs)
{
    look();
    const std::uint64_t headers = lab::drops("GRE header that is not ours"), tags = lab::drops("GRE overlay: frame without tag"),
                        served = lab::drops("frame on an interface that is not served"),
                        shorts = lab::drops("site frame shorter than its headers");
    inject4(hex("0000 0800") + TAGGED_ON_WIRE);                 // another payload
    inject4(hex("2000 6558 00000001") + TAGGED_ON_WIRE);        // with a key
    inject4(hex("0000 65"));
    inject4(GRE + ethernet(HOST_B, HOST_A, 0x0800) + counting(46));
    inject4(GRE + hex("0102030405"));
    lab::run("ip addr add 10.77.0.9/24 dev gq0");
    inject4(GRE + TAGGED_ON_WIRE, hex("0a4d0009"));             // an address of no overlay
    inject4(GRE + TAGGED_ON_WIRE);
    EXPECT_THAT(receive().frame, ElementsAreArray(TAGGED));
    EXPECT_EQ(lab::drops("GRE header that is not ours"), headers + 3);
    EXPECT_EQ(lab::drops("GRE overlay: frame without tag"), tags + 1);
    EXPECT_EQ(lab::drops("site frame shorter than its headers"), shorts + 1);
    EXPECT_EQ(lab::drops("frame on an interface that is not served"), served + 1);
}

TEST_F(Gre, CountsWhatItsFullReceiveBufferLost)
{
    look();
    constexpr std::size_t SENT = 9000;                          // more than the buffer holds
    const bytes large = ethernet(HOST_B, HOST_A, 0x8100) + hex("000a 88b5") + counting(1400);
    const std::uint64_t before = lab::drops("core receive buffer full");
    for (std::size_t i = 0; i < SENT; ++i)
        inject4(GRE + large);
    std::size_t received = 0;
    for (std::uint64_t wake = 1;; ++received) {
        mbus_msg msg;
        ASSERT_EQ(write(wake_, &wake, sizeof wake), 8);
        if (source_.receive(msg, wake_) == local_receive::WOKEN)
            break;
        ASSERT_EQ(source_.drop(msg), 0);
    }
    look();
    inject4(GRE + TAGGED_ON_WIRE);
    (void)receive();
    ASSERT_LT(received, SENT);
    EXPECT_EQ(lab::drops("core receive buffer full"), before + SENT - received);
}
TEST_F(Gre, ListensOnlyWhileAnOverlayUsesIt)
{
    look();
    configure(4, false);
    look();
    const std::uint64_t served = lab::drops("frame on an interface that is not served");
    inject4(GRE + TAGGED_ON_WIRE);
    look();
    EXPECT_EQ(lab::drops("frame on an interface that is not served"), served);
    EXPECT_FALSE(overlays_use_gre());
}
