// Output into the core on real devices. The far end of a veth pair answers address resolution as the test wants and
// captures what the packets look like on the wire.
#include "../core/ip_output.h"

#include "../core/link_output.h"
#include "../core/neighbour.h"
#include "../packet/authority.h"
#include "../packet/port_vlans.h"
#include "ip.h"
#include "ipv6.h"
#include "net_lab.h"

#include <gmock/gmock.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <thread>
#include <unistd.h>

using namespace corvane;
using namespace frames;
using testing::ElementsAreArray;

namespace {

const bytes PEER_MAC = hex("020000000099"), GATEWAY_MAC = hex("0200000000aa");
constexpr std::uint32_t IOD = 20;

std::uint8_t octet(const std::string &text, int i)
{
    in_addr a{};
    inet_pton(AF_INET, text.c_str(), &a);
    return reinterpret_cast<const std::uint8_t *>(&a)[i];
}
bytes address4(const std::string &text) { return {octet(text, 0), octet(text, 1), octet(text, 2), octet(text, 3)}; }
bytes address6(const std::string &text)
{
    bytes out(16);
    EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), out.data()), 1);
    return out;
}

// As the daemon hands it over: total length in host order, a checksum over that.
bytes handed_over(const std::string &to, std::size_t payload, std::uint8_t flags = 0)
{
    bytes p = hex("45c00000 00000000 80110000") + address4("10.77.0.1") + address4(to) + hex("1234 2118") +
              be16(8 + payload) + hex("0000") + counting(payload);
    const auto total = static_cast<std::uint16_t>(p.size());
    std::memcpy(p.data() + 2, &total, 2);
    p[6] = flags;
    put16(p, 10, checksum(view(p).first(20)));
    return p;
}
// The same as it has to be on the wire.
bytes on_wire(bytes p)
{
    put16(p, 2, p.size());
    put16(p, 10, 0);
    put16(p, 10, checksum(view(p).first(20)));
    return p;
}

bytes packet6(const std::string &to, std::size_t payload)
{
    return hex("60000000") + be16(8 + payload) + hex("1180") + address6("2001:db8:77::1") + address6(to) +
           hex("1234 2118") + be16(8 + payload) + hex("0000") + counting(payload);
}

mbuf *buffer(const bytes &packet)
{
    mbuf *m = m_get(packet.size());
    EXPECT_TRUE(m_copyback(m, 0, packet.size(), packet.data()));
    return m;
}

class CoreOutput : public testing::Test {
protected:
    CoreOutput()
    {
        lab::write_setting("/proc/sys/net/ipv6/conf/cq0/accept_dad", "0");   // a tentative address asks for nobody
        lab::write_setting("/proc/sys/net/ipv6/conf/cq0/disable_ipv6", "0");
        lab::run("ip addr add 10.77.0.1/24 dev cq0 && ip -6 addr add 2001:db8:77::1/64 dev cq0 nodad");
        lab::run("timeout 5 sh -c 'until ip -6 route show table local | grep -q 2001:db8:77::1; do sleep 0.01; done'");
        interfaces_.set(IOD, "cq0", INTERFACE_UP);
    }

    static int send4(const bytes &packet, std::uint32_t iod = 0)
    {
        const int result = ip_cl_output(1, buffer(packet), iod);
        link_output_flush();
        return result;
    }
    static int send6(const bytes &packet, std::uint32_t iod = 0)
    {
        const int result = ipv6_client_output(1, buffer(packet), {}, iod);
        link_output_flush();
        return result;
    }

    static bool is_arp_for(const bytes &f, const std::string &target)
    {
        return f.size() >= 42 && get16(f, 12) == 0x0806 && get16(f, 20) == 1 &&
               bytes(f.begin() + 38, f.begin() + 42) == address4(target);
    }
    // Waits for the request and answers it.
    void answer_arp(const std::string &target, const bytes &mac)
    {
        const auto request = far_.receive_if([&](const bytes &f) { return is_arp_for(f, target); });
        ASSERT_TRUE(request) << "nobody asks for " << target;
        const bytes &r = request->frame;
        const bytes asker(r.begin() + 22, r.begin() + 28), asker_ip(r.begin() + 28, r.begin() + 32);
        far_.send(asker + mac + hex("0806 0001 0800 0604 0002") + mac + address4(target) + asker + asker_ip);
    }
    void answer_solicitation(const std::string &target, const bytes &mac)
    {
        const bytes wanted = address6(target);
        const auto request = far_.receive_if([&](const bytes &f) {
            return f.size() >= 78 && get16(f, 12) == 0x86DD && f[54] == 135 &&
                   bytes(f.begin() + 62, f.begin() + 78) == wanted;
        });
        ASSERT_TRUE(request) << "nobody asks for " << target;
        const bytes asker(request->frame.begin() + 6, request->frame.begin() + 12);
        const bytes asker_ip(request->frame.begin() + 22, request->frame.begin() + 38);
        bytes ip = hex("60000000 0020 3aff") + wanted + asker_ip + hex("88000000 60000000") + wanted + hex("0201") + mac;
        finish(ip, 2);
        far_.send(asker + mac + hex("86dd") + ip);
    }
    std::optional<lab::captured> next_udp(int wait_ms = 1000)
    {
        return far_.receive_if([](const bytes &f) {
            return (get16(f, 12) == 0x0800 && f[23] == 17) || (get16(f, 12) == 0x86DD && (f[20] == 17 || f[20] == 44));
        }, wait_ms);
    }

    lab::interface_file interfaces_;
    lab::veth core_{"cq0"};
    lab::wire far_{"cq0p"};
};

} // namespace

TEST_F(CoreOutput, ResolvesNeighbourAndSendsPacketByteForByte)
{
    const bytes packet = handed_over("10.77.0.2", 100);
    EXPECT_EQ(send4(packet), 0);
    answer_arp("10.77.0.2", PEER_MAC);
    const auto sent = next_udp();
    ASSERT_TRUE(sent);
    EXPECT_THAT(sent->frame, ElementsAreArray(PEER_MAC + lab::mac_of("cq0") + hex("0800") + on_wire(packet)));
    EXPECT_EQ(get16(sent->frame, 18), 0);                       // identification stays as handed over
}

TEST_F(CoreOutput, SendsAtOnceWhenNeighbourIsKnown)
{
    lab::run("ip neigh replace 10.77.0.3 lladdr 02:00:00:00:00:99 dev cq0 nud permanent");
    for (int i = 0; i < 200; ++i)
        EXPECT_EQ(ip_cl_output(1, buffer(handed_over("10.77.0.3", 10)), 0), 0);
    link_output_flush();
    for (int i = 0; i < 200; ++i)
        ASSERT_TRUE(next_udp());
}

TEST_F(CoreOutput, FollowsNeighbourToAnotherAddress)
{
    lab::run("ip neigh replace 10.77.0.4 lladdr 02:00:00:00:00:99 dev cq0 nud permanent");
    send4(handed_over("10.77.0.4", 10));
    ASSERT_TRUE(next_udp());
    lab::run("ip neigh replace 10.77.0.4 lladdr 02:00:00:00:00:98 dev cq0 nud permanent");
    std::optional<lab::captured> sent;
    for (int i = 0; i < 100 && (!sent || sent->frame[5] != 0x98); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        send4(handed_over("10.77.0.4", 10));
        sent = next_udp();
        ASSERT_TRUE(sent);
    }
    EXPECT_EQ(sent->frame[5], 0x98);
}

TEST_F(CoreOutput, FollowsRoutesByGatewayAndTheirChange)
{
    lab::run("ip neigh replace 10.77.0.254 lladdr 02:00:00:00:00:aa dev cq0 nud permanent");
    lab::run("ip neigh replace 10.77.0.253 lladdr 02:00:00:00:00:ab dev cq0 nud permanent");
    const std::uint64_t before = lab::drops("no route to the remote edge");
    EXPECT_EQ(send4(handed_over("10.99.0.1", 10)), -1);
    EXPECT_EQ(lab::drops("no route to the remote edge"), before + 1);

    lab::run("ip route add 10.99.0.0/16 via 10.77.0.254");
    for (int i = 0; i < 100 && send4(handed_over("10.99.0.1", 10)) != 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    auto sent = next_udp();
    ASSERT_TRUE(sent);
    EXPECT_THAT(bytes(sent->frame.begin(), sent->frame.begin() + 6), ElementsAreArray(GATEWAY_MAC));

    lab::run("ip route replace 10.99.0.0/16 via 10.77.0.253");
    for (int i = 0; i < 100 && sent->frame[5] != 0xAB; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        send4(handed_over("10.99.0.1", 10));
        sent = next_udp();
        ASSERT_TRUE(sent);
    }
    EXPECT_EQ(sent->frame[5], 0xAB);
}

TEST_F(CoreOutput, HoldsAFewPacketsBackAndCountsTheOthers)
{
    const std::uint64_t before = lab::drops("core next hop does not resolve");
    for (std::size_t i = 0; i < NEIGHBOUR_WAITING_MAX + 5; ++i)
        send4(handed_over("10.77.0.5", 10 + i));
    EXPECT_EQ(lab::drops("core next hop does not resolve"), before + 5);
    answer_arp("10.77.0.5", PEER_MAC);
    for (std::size_t i = 0; i < NEIGHBOUR_WAITING_MAX; ++i) {
        const auto sent = next_udp();
        ASSERT_TRUE(sent);
        EXPECT_EQ(sent->frame.size(), 14 + 28 + 10 + 5 + i);    // the oldest gave way, the others keep their order
    }
}

TEST_F(CoreOutput, GivesUpWhenNobodyAnswers)
{
    lab::write_setting("/proc/sys/net/ipv4/neigh/cq0/retrans_time_ms", "100");
    const std::uint64_t before = lab::drops("core next hop does not resolve");
    send4(handed_over("10.77.0.6", 10));
    for (int i = 0; i < 100 && lab::drops("core next hop does not resolve") == before; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(lab::drops("core next hop does not resolve"), before + 1);
}

TEST_F(CoreOutput, SendsGroupPacketOnTheInterfaceGivenAndNeverHearsItself)
{
    const lab::veth other("cq1");
    lab::wire other_far("cq1p");
    lab::run("ip addr add 10.78.0.1/24 dev cq1 && ip route add 224.0.0.0/4 dev cq0");
    interfaces_.set(IOD + 1, "cq1", INTERFACE_UP);
    const int listener = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in any{AF_INET, htons(8472), {}, {}};
    ip_mreqn group{};
    inet_pton(AF_INET, "239.1.1.1", &group.imr_multiaddr);
    group.imr_ifindex = static_cast<int>(lab::index_of("cq1"));
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&any), sizeof any), 0);
    ASSERT_EQ(setsockopt(listener, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group), 0);

    const bytes packet = handed_over("239.129.1.1", 60);
    EXPECT_EQ(send4(packet, IOD + 1), 0);
    const auto sent = other_far.receive_if([](const bytes &f) { return get16(f, 12) == 0x0800 && f[23] == 17; });
    ASSERT_TRUE(sent);
    EXPECT_THAT(sent->frame, ElementsAreArray(hex("01005e010101") + lab::mac_of("cq1") + hex("0800") + on_wire(packet)));
    std::uint8_t byte = 0;
    EXPECT_EQ(recv(listener, &byte, 1, MSG_DONTWAIT), -1);
    close(listener);
}

TEST_F(CoreOutput, CountsGroupPacketWhoseInterfaceIsGone)
{
    const std::uint64_t before = lab::drops("no route to the remote edge");
    EXPECT_EQ(send4(handed_over("239.1.1.1", 10), IOD + 9), -1);
    EXPECT_EQ(lab::drops("no route to the remote edge"), before + 1);
}

TEST_F(CoreOutput, FragmentsWhatExceedsTheMtuWithFreshIdentifications)
{
    lab::run("ip neigh replace 10.77.0.7 lladdr 02:00:00:00:00:99 dev cq0 nud permanent");
    const bytes packet = handed_over("10.77.0.7", 1600);
    std::vector<std::uint16_t> ids;
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(send4(packet), 0);
        bytes joined(1608);
        for (int i = 0; i < 2; ++i) {
            const auto sent = next_udp();
            ASSERT_TRUE(sent);
            const view ip = view(sent->frame).subspan(14);
            ASSERT_LE(ip.size(), 1500u);
            EXPECT_EQ(checksum(ip.first(20)), 0);
            std::copy(ip.begin() + 20, ip.end(), joined.begin() + (get16(ip, 6) & 0x1FFF) * 8);
            ids.push_back(get16(ip, 4));
        }
        EXPECT_THAT(joined, ElementsAreArray(bytes(packet.begin() + 20, packet.end())));
    }
    EXPECT_EQ(ids[0], ids[1]);
    EXPECT_NE(ids[0], ids[2]);
}

TEST_F(CoreOutput, SendsWholeWhatFitsALargerMtu)
{
    lab::run("ip link set cq0 mtu 1600 && ip link set cq0p mtu 1600");
    lab::run("ip neigh replace 10.77.0.8 lladdr 02:00:00:00:00:99 dev cq0 nud permanent");
    const bytes packet = handed_over("10.77.0.8", 1572);
    EXPECT_EQ(send4(packet), 0);
    const auto sent = next_udp();
    ASSERT_TRUE(sent);
    EXPECT_EQ(sent->frame.size(), 1614u);
}

TEST_F(CoreOutput, CountsWhatMayNotBeFragmented)
{
    lab::run("ip neigh replace 10.77.0.7 lladdr 02:00:00:00:00:99 dev cq0 nud permanent");
    const std::uint64_t before = lab::drops("packet too big for the core");
    EXPECT_EQ(send4(handed_over("10.77.0.7", 1600, 0x40)), -1);
    EXPECT_EQ(lab::drops("packet too big for the core"), before + 1);
}

TEST_F(CoreOutput, RefusesPacketsThatAreNotWhatTheySay)
{
    const std::uint64_t before = lab::drops("core refused the packet");
    bytes wrong_length = handed_over("10.77.0.2", 100);
    wrong_length.pop_back();
    EXPECT_EQ(send4(wrong_length), -1);
    EXPECT_EQ(send4(bytes(19, 0x45)), -1);
    bytes wrong_version = handed_over("10.77.0.2", 100);
    wrong_version[0] = 0x65;
    EXPECT_EQ(send4(wrong_version), -1);
    bytes short6 = packet6("2001:db8:77::2", 10);
    short6.pop_back();
    EXPECT_EQ(send6(short6), -1);
    EXPECT_EQ(send6(handed_over("10.77.0.2", 100)), -1);
    EXPECT_EQ(lab::drops("core refused the packet"), before + 5);
}

TEST_F(CoreOutput, SendsToThisMachineItself)
{
    const int listener = socket(AF_INET, SOCK_DGRAM, 0), listener6 = socket(AF_INET6, SOCK_DGRAM, 0);
    const int on = 1;
    sockaddr_in any{AF_INET, htons(8472), {}, {}};
    sockaddr_in6 any6{};
    any6.sin6_family = AF_INET6;
    any6.sin6_port = htons(8472);
    ASSERT_EQ(setsockopt(listener6, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on), 0);
    ASSERT_EQ(setsockopt(listener6, IPPROTO_UDP, 102, &on, sizeof on), 0);      // accepts a checksum of zero
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&any), sizeof any), 0);
    ASSERT_EQ(bind(listener6, reinterpret_cast<sockaddr *>(&any6), sizeof any6), 0);
    EXPECT_EQ(send4(handed_over("10.77.0.1", 50)), 0);
    EXPECT_EQ(send6(packet6("2001:db8:77::1", 60)), 0);
    bytes got(200);
    const timeval patience{2, 0};
    setsockopt(listener, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(listener6, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    EXPECT_EQ(recv(listener, got.data(), got.size(), 0), 50);
    EXPECT_EQ(recv(listener6, got.data(), got.size(), 0), 60);
    close(listener);
    close(listener6);
}

TEST_F(CoreOutput, SendsIpv6ByteForByte)
{
    const bytes packet = packet6("2001:db8:77::2", 120);
    EXPECT_EQ(send6(packet), 0);
    answer_solicitation("2001:db8:77::2", PEER_MAC);
    const auto sent = next_udp();
    ASSERT_TRUE(sent);
    EXPECT_THAT(sent->frame, ElementsAreArray(PEER_MAC + lab::mac_of("cq0") + hex("86dd") + packet));
}

TEST_F(CoreOutput, FragmentsIpv6AndSendsGroups)
{
    const bytes packet = packet6("ff15::8472:1", 1600);
    EXPECT_EQ(send6(packet, IOD), 0);
    bytes joined(1608);
    for (int i = 0; i < 2; ++i) {
        const auto sent = next_udp();
        ASSERT_TRUE(sent);
        EXPECT_THAT(bytes(sent->frame.begin(), sent->frame.begin() + 6), ElementsAreArray(hex("333384720001")));
        const view ip = view(sent->frame).subspan(14);
        ASSERT_EQ(ip[6], 44);
        ASSERT_LE(ip.size(), 1500u);
        std::copy(ip.begin() + 48, ip.end(), joined.begin() + (get16(ip, 42) & 0xFFF8));
    }
    EXPECT_THAT(joined, ElementsAreArray(bytes(packet.begin() + 40, packet.end())));
}

namespace {

const bytes HELLO = hex("45c0001c 00000000 01670000 00000000 e000000d 2000dfff 00000000");

int send_hello(std::uint32_t vlan, std::uint32_t iod, std::uint32_t flood)
{
    mbuf *m = buffer(HELLO);
    const int result = ip_cl_output_l2(m, vlan, iod, flood, 0, 0);
    link_output_flush();
    EXPECT_EQ(bytes(m_data(m), m_data(m) + m_length(m)), HELLO);         // the caller keeps it
    m_freem(m);
    return result;
}
const auto is_hello = [](const bytes &f) { return f.size() > 30 && (get16(f, 12) == 0x0800 || get16(f, 16) == 0x0800); };

} // namespace

TEST_F(CoreOutput, SendsHelloOutOfASwitchport)
{
    interfaces_.set(IOD, "cq0", INTERFACE_UP | INTERFACE_SWITCHPORT);
    EXPECT_EQ(send_hello(10, IOD, 0), 0);
    const auto sent = far_.receive_if(is_hello);
    ASSERT_TRUE(sent);
    EXPECT_THAT(sent->frame, ElementsAreArray(hex("01005e00000d") + lab::mac_of("cq0") + hex("0800") + HELLO));
}

TEST_F(CoreOutput, TagsHelloOnATrunkAndFloodsItOnThePortsOfTheVlan)
{
    const lab::veth other("cq1"), blocked("cq2");
    lab::wire other_far("cq1p"), blocked_far("cq2p");
    interfaces_.set(IOD, "cq0", INTERFACE_UP | INTERFACE_SWITCHPORT);
    interfaces_.set(IOD + 1, "cq1", INTERFACE_UP | INTERFACE_SWITCHPORT);
    interfaces_.set(IOD + 2, "cq2", INTERFACE_UP | INTERFACE_SWITCHPORT);
    const std::uint16_t vlans[] = {10, 300};
    port_vlans_set(IOD, true, true, vlans, {});
    port_vlans_set(IOD + 1, false, true, std::span(vlans).first(1), {});
    port_vlans_set(IOD + 2, false, false, std::span(vlans).first(1), {});

    EXPECT_EQ(send_hello(300, IOD, 0), 0);
    auto sent = far_.receive_if(is_hello);
    ASSERT_TRUE(sent);
    EXPECT_THAT(sent->frame, ElementsAreArray(hex("01005e00000d") + lab::mac_of("cq0") + hex("8100 012c 0800") + HELLO));

    EXPECT_EQ(send_hello(10, 0, 1), 0);
    sent = far_.receive_if(is_hello);
    ASSERT_TRUE(sent);
    EXPECT_EQ(get16(sent->frame, 14), 10);
    sent = other_far.receive_if(is_hello);
    ASSERT_TRUE(sent);
    EXPECT_EQ(get16(sent->frame, 12), 0x0800);
    EXPECT_FALSE(blocked_far.receive_if(is_hello, 0));

    for (std::uint32_t i = 0; i < 3; ++i)
        port_vlans_set(IOD + i, false, false, {}, vlans);
    EXPECT_EQ(send_hello(10, 0, 1), -1);
}
TEST_F(CoreOutput, FloodsHelloOnPortsThatOnlyTheDaemonsCommandPutIntoTheVlan)
{
    const lab::veth other("cq1"), idle("cq2");
    lab::wire other_far("cq1p"), idle_far("cq2p");
    interfaces_.set(IOD, "cq0", INTERFACE_UP | INTERFACE_SWITCHPORT);
    interfaces_.set(IOD + 1, "cq1", INTERFACE_UP | INTERFACE_SWITCHPORT);
    interfaces_.set(IOD + 2, "cq2", INTERFACE_SWITCHPORT);
    interfaces_.set(IOD + 3, "", INTERFACE_UP | INTERFACE_OVERLAY | INTERFACE_TUNNEL);
    const std::uint16_t vlans[] = {10, 20};
    port_vlan_set(IOD, 10);                                     // nobody announced it
    port_vlans_set(IOD + 1, false, true, std::span(vlans).last(1), {});
    port_vlan_set(IOD + 1, 10);                                 // announced in another VLAN
    port_vlan_set(IOD + 2, 10);                                 // without a link
    port_vlan_set(IOD + 3, 10);                                 // no port

    EXPECT_EQ(send_hello(10, 0, 1), 0);
    for (lab::wire *far : {&far_, &other_far}) {
        const auto sent = far->receive_if(is_hello);
        ASSERT_TRUE(sent);
        EXPECT_EQ(get16(sent->frame, 12), 0x0800);
    }
    EXPECT_FALSE(idle_far.receive_if(is_hello, 0));

    port_vlans_set(IOD + 1, false, true, {}, std::span(vlans).last(1));
    for (std::uint32_t i = 0; i < 4; ++i)
        port_vlan_clear(IOD + i, 10);
    interfaces_.clear(IOD + 3);
    EXPECT_EQ(send_hello(10, 0, 1), -1);
}
