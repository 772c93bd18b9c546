// The UDP stack: whole packets with their rebuilt outer header, in lots, on sockets of the platform.
#include "corvane_socket.h"

#include "net_lab.h"
#include "plock.h"

#include "../plock_batch.h"

#include <gmock/gmock.h>

#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

using namespace corvane;
using namespace frames;
using testing::ElementsAreArray;

namespace {

int receives_to_fail = 0;

} // namespace

// Stands before the C library's.
extern "C" int recvmmsg(int socket, mmsghdr *messages, unsigned count, int flags, timespec *timeout)
{
    if (receives_to_fail > 0) {
        --receives_to_fail;
        errno = ENOMEM;
        return -1;
    }
    return static_cast<int>(syscall(SYS_recvmmsg, socket, messages, count, flags, timeout));
}

namespace {

constexpr std::uint32_t ON = 1;
constexpr std::size_t BUFFER = 3000;

class UdpStack : public testing::Test {
protected:
    UdpStack()
    {
        lab::enter();
        plock_batch_end();                   // of a test before this one
        socket_ = corvane_socket(AF_INET, SOCK_DGRAM, 0);
        const std::uint8_t context[4] = {0, 0, 0xFF, 0xFF};
        sockaddr_in any{AF_INET, htons(8472), {}, {}};
        EXPECT_EQ(corvane_setsockopt(socket_, 17, 3, &ON, sizeof ON), 0);
        EXPECT_EQ(corvane_setsockopt(socket_, 0, 61, context, sizeof context), 0);
        EXPECT_EQ(corvane_bind(socket_, reinterpret_cast<sockaddr *>(&any), 16), 0);
        peer_ = socket(AF_INET, SOCK_DGRAM, 0);
        const int ttl = 77, tos = 0xC0;
        setsockopt(peer_, IPPROTO_IP, IP_TTL, &ttl, sizeof ttl);
        setsockopt(peer_, IPPROTO_IP, IP_TOS, &tos, sizeof tos);
        sockaddr_in own{AF_INET, htons(5555), {htonl(0x7F000005)}, {}};
        EXPECT_EQ(bind(peer_, reinterpret_cast<sockaddr *>(&own), sizeof own), 0);
    }
    ~UdpStack() override
    {
        corvane_close(socket_);
        close(peer_);
    }

    void send(const bytes &payload) const
    {
        sockaddr_in to{AF_INET, htons(8472), {htonl(0x7F000009)}, {}};
        ASSERT_EQ(sendto(peer_, payload.data(), payload.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to),
                  static_cast<ssize_t>(payload.size()));
    }
    static bytes receive(int socket)
    {
        bytes packet(BUFFER);
        sockaddr_in from{};
        socklen_t length = sizeof from;
        const ssize_t n = corvane_recvfrom(socket, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr *>(&from), &length);
        EXPECT_GE(n, 0);
        packet.resize(static_cast<std::size_t>(n));
        return packet;
    }
    [[nodiscard]] bytes receive() const { return receive(socket_); }
    static int select(int socket, int wait_ms)
    {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(socket, &set);
        timeval wait{wait_ms / 1000, wait_ms % 1000 * 1000};
        const int n = corvane_select(socket + 1, &set, nullptr, nullptr, &wait);
        EXPECT_EQ(FD_ISSET(socket, &set) != 0, n == 1);
        return n;
    }

    int socket_ = -1, peer_ = -1;
};

} // namespace

TEST_F(UdpStack, RebuildsTheOuterIpv4Header)
{
    const bytes payload = counting(100);
    send(payload);
    const bytes packet = receive();
    ASSERT_EQ(packet.size(), 128u);
    EXPECT_EQ(checksum(view(packet).first(20)), 0);
    bytes header(packet.begin(), packet.begin() + 28);
    put16(header, 10, 0);
    EXPECT_THAT(header, ElementsAreArray(hex("45c00080 00000000 4d110000 7f000005 7f000009 15b3 2118 006c 0000")));
    EXPECT_THAT(bytes(packet.begin() + 28, packet.end()), ElementsAreArray(payload));
}

TEST_F(UdpStack, HandsDatagramsOutInOrderAndAnswersSelectFromMemory)
{
    for (std::size_t i = 0; i < 100; ++i)
        send(be32(i));
    for (std::size_t i = 0; i < 100; ++i) {
        EXPECT_EQ(select(socket_, 0), 1);
        EXPECT_EQ(get32(receive(), 28), i);
    }
    EXPECT_EQ(select(socket_, 0), 0);
}

TEST_F(UdpStack, CutsLongDatagramAndHandsEmptyOneOn)
{
    const bytes payload = counting(4000);
    send(payload);
    send({});
    const bytes cut = receive();
    EXPECT_EQ(cut.size(), BUFFER);
    EXPECT_THAT(bytes(cut.begin() + 28, cut.end()), ElementsAreArray(bytes(payload.begin(), payload.begin() + BUFFER - 28)));
    EXPECT_EQ(receive().size(), 28u);
}

TEST_F(UdpStack, TellsTheSenderCutToTheCallersLength)
{
    send({1});
    std::uint8_t packet[100];
    sockaddr_in from{};
    socklen_t length = 4;
    EXPECT_EQ(corvane_recvfrom(socket_, packet, sizeof packet, 0, reinterpret_cast<sockaddr *>(&from), &length), 29);
    EXPECT_EQ(from.sin_family, AF_INET);
    EXPECT_EQ(from.sin_port, htons(5555));
    EXPECT_EQ(from.sin_addr.s_addr, 0u);                       // beyond the 4 bytes
    EXPECT_EQ(length, sizeof(sockaddr_in));
}

TEST_F(UdpStack, CountsWhatTheFullReceiveBufferLost)
{
    const int little = 4096;
    ASSERT_EQ(setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &little, sizeof little), 0);
    const std::uint64_t before = lab::drops("core receive buffer full");
    constexpr std::uint64_t SENT = 100;
    for (std::uint64_t i = 0; i < SENT; ++i)
        send(counting(1000));
    std::uint64_t received = 0;
    std::uint8_t buffer[BUFFER];
    while (corvane_recvfrom(socket_, buffer, sizeof buffer, MSG_DONTWAIT, nullptr, nullptr) > 0)
        ++received;
    ASSERT_LT(received, SENT);
    send(counting(10));                                         // the next one brings the news
    EXPECT_GT(corvane_recvfrom(socket_, buffer, sizeof buffer, 0, nullptr, nullptr), 0);
    EXPECT_EQ(lab::drops("core receive buffer full"), before + SENT - received);
    send(counting(10));
    EXPECT_GT(corvane_recvfrom(socket_, buffer, sizeof buffer, 0, nullptr, nullptr), 0);
    EXPECT_EQ(lab::drops("core receive buffer full"), before + SENT - received);
}
TEST_F(UdpStack, WaitsInReceiveUntilADatagramComes)
{
    std::thread sender([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        send({42});
    });
    EXPECT_EQ(receive().back(), 42);
    sender.join();
}

TEST_F(UdpStack, GetsOverAKernelWithoutMemory)
{
    send({42});
    receives_to_fail = 3;
    EXPECT_EQ(receive().back(), 42);
    EXPECT_EQ(receives_to_fail, 0);
    receives_to_fail = 1;
    bytes packet(BUFFER);
    EXPECT_EQ(corvane_recvfrom(socket_, packet.data(), packet.size(), MSG_DONTWAIT, nullptr, nullptr), -1);
    EXPECT_EQ(errno, ENOMEM);
}

TEST_F(UdpStack, RefusesBusyPort)
{
    const int second = corvane_socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in any{AF_INET, htons(8472), {}, {}};
    EXPECT_EQ(corvane_bind(second, reinterpret_cast<sockaddr *>(&any), 16), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_EQ(corvane_close(second), 0);
}

TEST_F(UdpStack, RefusesOptionOnAnotherFamilyOrOfAnotherSize)
{
    EXPECT_EQ(corvane_setsockopt(socket_, 41, 3, &ON, sizeof ON), -1);
    EXPECT_EQ(corvane_setsockopt(socket_, 17, 3, &ON, 1), -1);
    EXPECT_EQ(corvane_setsockopt(socket_, 17, 3, nullptr, 4), -1);
    EXPECT_EQ(corvane_setsockopt(-1, 17, 3, &ON, sizeof ON), -1);
}

TEST_F(UdpStack, LeavesSocketsAloneThatDidNotAskForWholePackets)
{
    const int plain = corvane_socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in own{AF_INET, htons(8473), {htonl(INADDR_LOOPBACK)}, {}};
    ASSERT_EQ(corvane_bind(plain, reinterpret_cast<sockaddr *>(&own), sizeof own), 0);
    ASSERT_EQ(sendto(peer_, "xyz", 3, 0, reinterpret_cast<sockaddr *>(&own), sizeof own), 3);
    EXPECT_EQ(select(plain, 1000), 1);
    EXPECT_EQ(receive(plain).size(), 3u);
    corvane_close(plain);
}

TEST_F(UdpStack, RebuildsTheOuterIpv6HeaderAndTakesZeroChecksums)
{
    const int six = corvane_socket(AF_INET6, SOCK_DGRAM, 0);
    struct { sockaddr_in6 address; std::uint8_t rest[4]; } any{};
    static_assert(sizeof any == 32);
    any.address.sin6_family = AF_INET6;
    any.address.sin6_port = htons(8472);
    ASSERT_EQ(corvane_setsockopt(six, 41, 3, &ON, sizeof ON), 0);
    ASSERT_EQ(corvane_setsockopt(six, 41, IPV6_V6ONLY, &ON, sizeof ON), 0);
    ASSERT_EQ(corvane_bind(six, reinterpret_cast<sockaddr *>(&any), 32), 0);
    lab::write_setting("/proc/sys/net/ipv6/conf/lo/disable_ipv6", "0");

    const int peer = socket(AF_INET6, SOCK_DGRAM, 0);
    const int hops = 33, no_checksum = 1, traffic_class = 0x2C;
    setsockopt(peer, IPPROTO_UDP, 101, &no_checksum, sizeof no_checksum);       // sends a checksum of zero
    setsockopt(peer, IPPROTO_IPV6, IPV6_UNICAST_HOPS, &hops, sizeof hops);
    setsockopt(peer, IPPROTO_IPV6, IPV6_TCLASS, &traffic_class, sizeof traffic_class);
    sockaddr_in6 to{};
    to.sin6_family = AF_INET6;
    to.sin6_port = htons(8472);
    to.sin6_addr = in6addr_loopback;
    ASSERT_EQ(sendto(peer, "hello", 5, 0, reinterpret_cast<sockaddr *>(&to), sizeof to), 5);
    const bytes packet = receive(six);
    ASSERT_EQ(packet.size(), 53u);
    EXPECT_THAT(bytes(packet.begin(), packet.begin() + 40),
                ElementsAreArray(hex("62c00000 000d 1121 00000000000000000000000000000001 00000000000000000000000000000001")));
    EXPECT_THAT(bytes(packet.begin() + 42, packet.begin() + 48), ElementsAreArray(hex("2118 000d 0000")));
    close(peer);
    corvane_close(six);
}

// With the IPv4 socket out of the way nothing but V6ONLY keeps an IPv4 datagram from being taken as a mapped one.
TEST_F(UdpStack, GivesNoIpv4DatagramToASocketForIpv6Only)
{
    corvane_close(socket_);
    for (const std::uint32_t only : {0u, 1u}) {
        const int six = corvane_socket(AF_INET6, SOCK_DGRAM, 0);
        sockaddr_in6 any{};
        any.sin6_family = AF_INET6;
        any.sin6_port = htons(8472);
        ASSERT_EQ(corvane_setsockopt(six, 41, IPV6_V6ONLY, &only, sizeof only), 0);
        ASSERT_EQ(corvane_bind(six, reinterpret_cast<sockaddr *>(&any), sizeof any), 0);
        send(counting(3));
        EXPECT_EQ(select(six, only != 0 ? 100 : 1000), only != 0 ? 0 : 1);
        corvane_close(six);
    }
    socket_ = corvane_socket(AF_INET, SOCK_DGRAM, 0);        // for the destructor
}

TEST_F(UdpStack, KeepsTheProcessLockWhileALotLasts)
{
    for (std::size_t i = 0; i < 10; ++i)
        send(be32(i));
    plock_acquire_process_lock();
    for (std::size_t i = 0; i < 10; ++i) {
        plock_before_yield();
        EXPECT_EQ(plock_batch_kept(), i != 0);
        EXPECT_EQ(select(socket_, 0), 1);
        plock_after_yield();
        plock_before_yield();
        EXPECT_TRUE(plock_batch_kept());
        EXPECT_EQ(get32(receive(), 28), i);
        plock_after_yield();
    }
    EXPECT_EQ(plock_batch_left(), 0u);
    plock_release_process_lock();
}

TEST_F(UdpStack, StartsAfreshWithAClosedDescriptorsNumber)
{
    send({1});
    send({2});
    (void)receive();
    corvane_close(socket_);
    socket_ = corvane_socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in any{AF_INET, htons(8472), {}, {}};
    ASSERT_EQ(corvane_setsockopt(socket_, 17, 3, &ON, sizeof ON), 0);
    ASSERT_EQ(corvane_bind(socket_, reinterpret_cast<sockaddr *>(&any), 16), 0);
    EXPECT_EQ(select(socket_, 0), 0);
    send({3});
    EXPECT_EQ(receive().back(), 3);
}

TEST(TcpSetup, TakesAClientWithAName)
{
    EXPECT_TRUE(tcp_setup("lum", "/corvane/mq/lum-udp"));
    EXPECT_FALSE(tcp_setup("", "/corvane/mq/lum-udp"));
    EXPECT_FALSE(tcp_setup(nullptr, nullptr));
    tcp_teardown();
}
