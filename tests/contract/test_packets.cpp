// What goes over wires: IP output, UDP sockets, frames of the packet service.
#include "contract_test.h"

#include "corvane_socket.h"
#include "ip.h"
#include "ipv6.h"
#include "mbuf.h"
#include "net_l2.h"

#include <algorithm>
#include <netinet/in.h>

using namespace contract;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr std::uint32_t SAP = 650, PACKET_SAP = 651;
constexpr std::uint16_t PORT = 8472;

bytes join_bytes(std::initializer_list<bytes> parts)
{
    bytes all;
    for (const bytes &part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}
bytes be(std::uint64_t value, int width)
{
    bytes out;
    for (int i = width - 1; i >= 0; --i)
        out.push_back(static_cast<std::uint8_t>(value >> 8 * i));
    return out;
}
bytes address(const ipv6_address &a) { return {a.begin(), a.end()}; }

// ---- IP output

class ContractOutput : public ContractTest {
protected:
    ContractOutput() : client(ip_api_init()), client6(ipv6_api_init())
    {
        (void)packets_out(CORE);
    }
    ~ContractOutput() override
    {
        ipv6_api_close(client6);
        ip_api_close(client);
    }
    static mbuf *buffer(const bytes &packet)
    {
        mbuf *m = m_get(packet.size());
        EXPECT_NE(m, nullptr);
        EXPECT_TRUE(m_copyback(m, 0, packet.size(), packet.data()));
        return m;
    }
    // UDP with a checksum of zero, total length in host order, checksum over that: as a client hands it over.
    static bytes packet(std::uint32_t destination, const bytes &data)
    {
        bytes head = join_bytes({{0x45, 0xC0, 0, 0, 0, 0, 0, 0, 128, 17, 0, 0}, be(CORE_ADDRESS, 4), be(destination, 4)});
        const auto total = static_cast<std::uint16_t>(28 + data.size());
        std::memcpy(&head[2], &total, 2);
        const std::uint16_t sum = ip_checksum(head.data(), 20);
        std::memcpy(&head[10], &sum, 2);
        return join_bytes({head, be(5555, 2), be(PORT, 2), be(8 + data.size(), 2), be(0, 2), data});
    }
    static bytes packet6(const ipv6_address &destination, const bytes &data)
    {
        return join_bytes({{0x60, 0, 0, 0}, be(8 + data.size(), 2), {17, 128}, address(CORE_ADDRESS6),
                           address(destination), be(5555, 2), be(PORT, 2), be(8 + data.size(), 2), be(0, 2), data});
    }
    // The packet that left and whose destination is this; others are none of ours.
    static bytes sent_to(const bytes &destination)
    {
        bytes found;
        EXPECT_TRUE(eventually([&] {
            for (const bytes &p : packets_out(CORE)) {
                const std::size_t at = p[0] >> 4 == 4 ? 16 : 24;
                if (p.size() > at + destination.size() &&
                    std::equal(destination.begin(), destination.end(), p.begin() + static_cast<std::ptrdiff_t>(at)) &&
                    p[p[0] >> 4 == 4 ? 9 : 6] == 17)
                    found = p;
            }
            return !found.empty();
        }));
        return found;
    }
    ip_client client;
    ipv6_client client6;
};

TEST_F(ContractOutput, SendsAnIpv4PacketAsHandedOverWithLengthAndChecksumPutRight)
{
    const bytes handed = packet(CORE_NEIGHBOUR, counting(100));
    EXPECT_EQ(ip_cl_output(client, buffer(handed), 0), 0);
    const bytes sent = sent_to(be(CORE_NEIGHBOUR, 4));
    ASSERT_EQ(sent.size(), handed.size());
    EXPECT_EQ(sent[2] << 8 | sent[3], 128);
    EXPECT_EQ(ip_checksum(sent.data(), 20), 0);
    bytes expected = handed;
    std::copy_n(sent.begin() + 2, 2, expected.begin() + 2);
    std::copy_n(sent.begin() + 10, 2, expected.begin() + 10);
    EXPECT_EQ(sent, expected) << "identification 0 and every other byte";
}

TEST_F(ContractOutput, SendsAnIpv6PacketAsHandedOver)
{
    const bytes handed = packet6(CORE_NEIGHBOUR6, counting(100));
    EXPECT_EQ(ipv6_client_output(client6, buffer(handed), {}, 0), 0);
    EXPECT_EQ(sent_to(address(CORE_NEIGHBOUR6)), handed);
}

TEST_F(ContractOutput, SendsMulticastOutOfTheInterfaceNamed)
{
    EXPECT_EQ(ip_cl_output(client, buffer(packet(0xEF010101, counting(10))), iod(CORE)), 0);
    EXPECT_EQ(sent_to(be(0xEF010101, 4)).size(), 38u);
    const ipv6_address group{0xFF, 0x0E, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1};
    EXPECT_EQ(ipv6_client_output(client6, buffer(packet6(group, counting(10))), {}, iod(CORE)), 0);
    EXPECT_EQ(sent_to(address(group)).size(), 58u);
}

TEST_F(ContractOutput, SendsAMulticastPacketInAFrameOfASitePort)
{
    (void)frames_out(SWITCHPORT);
    mbuf *m = buffer(packet(0xE000000D, counting(26)));
    EXPECT_EQ(ip_cl_output_l2(m, 10, iod(SWITCHPORT), 0, 0, 0), 0);
    EXPECT_EQ(m_length(m), 54u) << "the buffer stays the caller's";
    m_freem(m);
    bytes frame;
    EXPECT_TRUE(eventually([&] {
        for (const bytes &f : frames_out(SWITCHPORT))
            if (f.size() > 50 && f[0] == 0x01 && f[5] == 0x0D)
                frame = f;
        return !frame.empty();
    }));
    ASSERT_FALSE(frame.empty());
    EXPECT_EQ(bytes(frame.begin(), frame.begin() + 6), (bytes{0x01, 0x00, 0x5E, 0x00, 0x00, 0x0D}));
}

TEST_F(ContractOutput, BuffersGrowAndKeepTheirBytes)
{
    mbuf *m = m_get(10);
    ASSERT_NE(m, nullptr);
    EXPECT_TRUE(m_copyback(m, 0, 3, "abc"));
    EXPECT_TRUE(m_copyback(m, 5, 2, "xy"));
    EXPECT_EQ(m_length(m), 7u);
    EXPECT_EQ(bytes(m_data(m), m_data(m) + 7), (bytes{'a', 'b', 'c', 0, 0, 'x', 'y'}));
    const bytes whole = counting(3100);
    EXPECT_TRUE(m_copyback(m, 0, whole.size(), whole.data()));
    EXPECT_EQ(m_length(m), 3100u);
    EXPECT_EQ(bytes(m_data(m), m_data(m) + 3100), whole);
    m_freem(m);
}

// ---- UDP sockets

class ContractSocket : public ContractTest {
protected:
    ~ContractSocket() override
    {
        for (const int s : sockets)
            corvane_close(s);
    }
    int open(int family, std::uint16_t port = PORT)
    {
        const int s = corvane_socket(family, SOCK_DGRAM, 0);
        EXPECT_GE(s, 0);
        sockets.push_back(s);
        const std::uint32_t on = 1;
        EXPECT_EQ(corvane_setsockopt(s, family == AF_INET ? 17 : 41, 3, &on, sizeof on), 0);
        if (family == AF_INET) {
            const std::uint32_t context = 0xFFFF0000;
            EXPECT_EQ(corvane_setsockopt(s, 0, 61, &context, sizeof context), 0);
            sockaddr_in any{};
            any.sin_family = AF_INET;
            any.sin_port = htons(port);
            EXPECT_EQ(corvane_bind(s, reinterpret_cast<const sockaddr *>(&any), 16), 0) << std::strerror(errno);
        } else {
            EXPECT_EQ(corvane_setsockopt(s, 41, 26, &on, sizeof on), 0);
            union {
                sockaddr_in6 in6;
                std::uint8_t room[32];
            } any{};
            any.in6.sin6_family = AF_INET6;
            any.in6.sin6_port = htons(port);
            EXPECT_EQ(corvane_bind(s, reinterpret_cast<const sockaddr *>(&any), 32), 0) << std::strerror(errno);
        }
        return s;
    }
    static bytes next(int s, std::size_t room = 3000)
    {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(s, &readable);
        plock_before_yield();
        EXPECT_EQ(corvane_select(s + 1, &readable, nullptr, nullptr, nullptr), 1);
        bytes buffer(room);
        sockaddr_storage from{};
        socklen_t from_length = 16;
        const ssize_t got = corvane_recvfrom(s, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr *>(&from),
                                             &from_length);
        plock_after_yield();
        EXPECT_GE(got, 0) << std::strerror(errno);
        buffer.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
        return buffer;
    }
    std::vector<int> sockets;
};

TEST_F(ContractSocket, GivesAnIpv4PacketFromItsOuterHeaderOn)
{
    const int s = open(AF_INET);
    datagram_in(AF_INET, PORT, counting(100));
    const bytes packet = next(s);
    ASSERT_EQ(packet.size(), 128u);
    EXPECT_EQ(packet[0], 0x45);
    EXPECT_EQ(packet[9], 17);
    EXPECT_NE(bytes(packet.begin() + 12, packet.begin() + 16), (bytes{0, 0, 0, 0})) << "source";
    EXPECT_EQ(packet[22] << 8 | packet[23], PORT);
    EXPECT_EQ(packet[24] << 8 | packet[25], 108);
    EXPECT_EQ(bytes(packet.begin() + 28, packet.end()), counting(100));
}

TEST_F(ContractSocket, GivesAnIpv6PacketFromItsOuterHeaderOnThoughItsChecksumIsZero)
{
    const int s = open(AF_INET6);
    datagram_in(AF_INET6, PORT, counting(100));
    const bytes packet = next(s);
    ASSERT_EQ(packet.size(), 148u);
    EXPECT_EQ(packet[0] >> 4, 6);
    EXPECT_EQ(packet[6], 17);
    EXPECT_EQ(packet[42] << 8 | packet[43], PORT);
    EXPECT_EQ(bytes(packet.begin() + 48, packet.end()), counting(100));
}

TEST_F(ContractSocket, CutsWhatIsLongerThanTheBuffer)
{
    const int s = open(AF_INET);
    datagram_in(AF_INET, PORT, counting(5000));
    EXPECT_EQ(next(s).size(), 3000u);
    datagram_in(AF_INET, PORT, counting(10));
    EXPECT_EQ(next(s).size(), 38u) << "the rest of the first is gone";
}

TEST_F(ContractSocket, GivesTheHeadersOfAnEmptyDatagram)
{
    const int s = open(AF_INET);
    datagram_in(AF_INET, PORT, {});
    EXPECT_EQ(next(s).size(), 28u);
}

TEST_F(ContractSocket, KeepsTheOrderOfABatch)
{
    const int s = open(AF_INET);
    for (std::uint8_t i = 0; i < 100; ++i)
        datagram_in(AF_INET, PORT, {i});
    for (std::uint8_t i = 0; i < 100; ++i) {
        const bytes packet = next(s);
        ASSERT_EQ(packet.size(), 29u);
        ASSERT_EQ(packet[28], i);
    }
}

TEST_F(ContractSocket, BothFamiliesShareThePort)
{
    const int s4 = open(AF_INET), s6 = open(AF_INET6);
    datagram_in(AF_INET6, PORT, {6});
    datagram_in(AF_INET, PORT, {4});
    EXPECT_EQ(next(s6).back(), 6);
    EXPECT_EQ(next(s4).back(), 4);
}

TEST_F(ContractSocket, AClosedOneReceivesNothingMore)
{
    const int s = open(AF_INET);
    EXPECT_EQ(corvane_close(s), 0);
    sockets.clear();
    std::uint8_t byte = 0;
    EXPECT_EQ(corvane_recvfrom(s, &byte, 1, 0, nullptr, nullptr), -1);
}

TEST_F(ContractSocket, TheStackClientComesAndGoes)
{
    EXPECT_TRUE(tcp_setup("contract", "/corvane/mq/contract"));
    tcp_teardown();
}

// ---- packet service

class ContractFrames : public ContractTest {
protected:
    ContractFrames()
    {
        mbus_q_attr attr;
        attr.flag[0] = 1;
        attr.service = SERVICE;
        queue = mbus_bind(1, 440, attr, "contract frames");
        EXPECT_NE(queue, MBUS_Q_INVALID) << std::strerror(errno);
        handle = net_l2_register({SERVICE, queue, 440, 0});
        EXPECT_NE(handle, 0u);
    }
    ~ContractFrames() override
    {
        net_l2_unregister(handle);
        mbus_unbind(queue, 0);
    }
    static bytes frame(const bytes &behind_macs)
    {
        return join_bytes({{2, 0, 0, 0, 0, 0x0B, 2, 0, 0, 0, 0, 0x0A}, behind_macs, counting(60)});
    }
    // Sends a frame as the daemon does: from its 14th byte on as payload.
    int output(const bytes &f, std::uint32_t iod_)
    {
        net_l2_header header;
        std::copy_n(f.begin(), 6, header.destination.begin());
        std::copy_n(f.begin() + 6, 6, header.source.begin());
        std::memcpy(&header.ethertype_be, &f[12], 2);
        net_l2_send_request request;
        request.iod_be = htonl(iod_);
        return net_l2_send(handle, header, request, f.data() + 14, static_cast<std::uint16_t>(f.size() - 14));
    }
    static bool left(const bytes &wire)
    {
        return eventually([&] {
            const std::vector<bytes> out = frames_out(SWITCHPORT);
            return std::find(out.begin(), out.end(), wire) != out.end();
        });
    }
    // The next frame from that MAC, with the interface it came from; neighbours' chatter is skipped.
    bytes input(std::uint32_t &from)
    {
        mbus_msg msg;
        while (receive(queue, msg)) {
            const std::uint32_t opcode = mbus_opc_get(msg);
            const bytes data = payload(msg);
            mbus_drop(queue, msg);
            EXPECT_TRUE(opcode == NET_L2_OPC_FRAME || opcode == NET_L2_OPC_FRAME_FLOODED) << opcode;
            if (data.size() < NET_L2_MSG_FRAME + 14)
                continue;
            const std::size_t length = static_cast<std::size_t>(data[52] << 8 | data[53]);
            EXPECT_LE(NET_L2_MSG_FRAME + length, data.size());
            const bytes got(data.begin() + NET_L2_MSG_FRAME,
                            data.begin() + static_cast<std::ptrdiff_t>(NET_L2_MSG_FRAME + length));
            from = static_cast<std::uint32_t>(data[4] << 24 | data[5] << 16 | data[6] << 8 | data[7]);
            if (got[11] == 0x0A && got[6] == 2)
                return got;
        }
        return {};
    }
    mbus_q queue = MBUS_Q_INVALID;
    net_l2_handle handle = 0;
};

TEST_F(ContractFrames, SendsAnUntaggedFrameAsItIs)
{
    const bytes f = frame({0x08, 0x00});
    (void)frames_out(SWITCHPORT);
    EXPECT_EQ(output(f, iod(SWITCHPORT)), 1);
    EXPECT_TRUE(left(f));
}

TEST_F(ContractFrames, TurnsATagIntoTheStandardOne)
{
    (void)frames_out(SWITCHPORT);
    EXPECT_EQ(output(frame({0x81, 0x00, 0x2C, 0x01, 0x08, 0x00}), iod(SWITCHPORT)), 1);
    EXPECT_TRUE(left(frame({0x81, 0x00, 0x01, 0x2C, 0x08, 0x00})));
}

TEST_F(ContractFrames, DeliversAnUntaggedFrameWithItsInterface)
{
    const bytes f = frame({0x08, 0x00});
    frame_in(SWITCHPORT, f);
    std::uint32_t from = 0;
    EXPECT_EQ(input(from), f);
    EXPECT_EQ(from, iod(SWITCHPORT));
}

TEST_F(ContractFrames, DeliversATaggedFrameWithItsTagLowByteFirst)
{
    frame_in(SWITCHPORT, frame({0x81, 0x00, 0x01, 0x2C, 0x08, 0x00}));
    std::uint32_t from = 0;
    EXPECT_EQ(input(from), frame({0x81, 0x00, 0x2C, 0x01, 0x08, 0x00}));
}

TEST_F(ContractFrames, RefusesAnInterfaceThatItDoesNotServe)
{
    EXPECT_EQ(output(frame({0x08, 0x00}), 760), 0);
}

} // namespace
