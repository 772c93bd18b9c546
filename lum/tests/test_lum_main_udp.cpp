#include "lum_test.h"

#include <netinet/in.h>

using namespace lum_test;

namespace {

class LumUdp : public LumTest {
protected:
    static std::string failed(const char *message) { return "<<%LUM-3-" + std::string(message); }
    static std::vector<std::string> socket_calls()
    {
        return platform.call_texts(
            {"tcp_setup", "corvane_socket", "corvane_setsockopt", "corvane_bind", "corvane_pthread_create"});
    }
};

using LumInitUdp = LumUdp;

TEST_F(LumInitUdp, OpensBothSocketsAndStartsTheirThreadsInOrder)
{
    EXPECT_EQ(lum_init_udp(), 1);
    EXPECT_EQ(lum_udp_initialized, 1u);
    const std::string four = std::to_string(lum_ip_udp_sid), six = std::to_string(lum_ipv6_udp_sid);
    EXPECT_THAT(socket_calls(),
                ElementsAre("tcp_setup(lum, /corvane/mq/lum-udp)", "corvane_socket(2, 2, 0)",
                            "corvane_setsockopt(" + four + ", 17, 3)", "corvane_setsockopt(" + four + ", 0, 61)",
                            "corvane_bind(" + four + ", 16)", "corvane_socket(10, 2, 0)",
                            "corvane_setsockopt(" + six + ", 41, 3)", "corvane_setsockopt(" + six + ", 41, 26)",
                            "corvane_bind(" + six + ", 32)", "corvane_pthread_create(lum-ip-udp-thread)",
                            "corvane_pthread_create(lum-ipv6-udp-thread)"));
    EXPECT_NE(lum_ip_udp_thread, 0u);
    EXPECT_NE(lum_ipv6_udp_thread, 0u);
}

TEST_F(LumInitUdp, GivesTheOptionsAndAddressesTheirBytes)
{
    EXPECT_EQ(lum_init_udp(), 1);
    const auto sockets = platform.sockets();
    ASSERT_THAT(sockets, SizeIs(2));
    ASSERT_THAT(sockets[0].options, SizeIs(2));
    EXPECT_EQ(sockets[0].options[0].value, fake::bytes().add_host32(1));
    EXPECT_EQ(sockets[0].options[1].value, fake::hex("00 00 FF FF"));
    EXPECT_EQ(sockets[0].address, fake::bytes().add_host16(AF_INET).add({0x21, 0x18}).add_zeros(12));
    ASSERT_THAT(sockets[1].options, SizeIs(2));
    EXPECT_EQ(sockets[1].options[0].value, fake::bytes().add_host32(1));
    EXPECT_EQ(sockets[1].options[1].value, fake::bytes().add_host32(1));
    EXPECT_EQ(sockets[1].address, fake::bytes().add_host16(AF_INET6).add({0x21, 0x18}).add_zeros(28));
}

TEST_F(LumInitUdp, MakesEachSocketCallWithoutTheLock)
{
    EXPECT_EQ(lum_init_udp(), 1);
    for (const char *name : {"corvane_socket", "corvane_setsockopt", "corvane_bind"})
        for (const fake::call_record &call : platform.calls_of(name))
            EXPECT_FALSE(call.lock_held) << name;
    EXPECT_TRUE(platform.lock_held());
}

struct failing_step {
    const char *call;
    std::size_t nth;
    const char *logged;
    std::size_t open_sockets;
    std::size_t threads;
};

TEST_F(LumInitUdp, LogsTheFirstFailureAndLeavesOpenWhatWasOpen)
{
    const failing_step rows[] = {
        {"tcp_setup", 1, "API_FAILED>> tcp_setup() failed", 0, 0},
        {"corvane_socket", 1, "SOCKET>> socket() for lum_ip_udp_relay_sid failed: Too many open files", 0, 0},
        {"corvane_setsockopt", 1, "SETSOCKOPT>> setsockopt() on lum_ip_udp_relay_sid failed: Too many open files", 1,
         0},
        {"corvane_setsockopt", 2,
         "SETSOCKOPT>> setsockopt() on lum_ip_udp_relay_sid - IP_CONTEXT failed: Too many open files", 1, 0},
        {"corvane_bind", 1, "BIND>> bind() on lum_ip_udp_sid failed: Too many open files", 1, 0},
        {"corvane_socket", 2, "SOCKET>> socket() for lum_ipv6_udp_relay_sid failed: Too many open files", 1, 0},
        {"corvane_setsockopt", 3, "SETSOCKOPT>> setsockopt() on lum_ipv6_udp_sid failed: Too many open files", 2, 0},
        {"corvane_setsockopt", 4, "SETSOCKOPT>> setsockopt() on lum_ipv6_udp_sid failed: Too many open files", 2, 0},
        {"corvane_bind", 2, "BIND>> bind() on amt_ipv6_udp_sid failed: Too many open files", 2, 0},
        {"corvane_pthread_create", 1, "PTHREAD_CREATE>> Couldn't create thread lum-ip-udp-thread", 2, 0},
        {"corvane_pthread_create", 2, "PTHREAD_CREATE>> Couldn't create thread lum-ipv6-udp-thread", 2, 1},
    };
    for (const failing_step &row : rows) {
        SCOPED_TRACE(std::string(row.call) + ' ' + std::to_string(row.nth));
        reset_daemon();
        platform.reset();
        platform.fail(row.call, row.nth, EMFILE);
        EXPECT_EQ(lum_init_udp(), 0);
        EXPECT_EQ(lum_udp_initialized, 0u);
        EXPECT_THAT(platform.syslog_texts(), ElementsAre(failed(row.logged)));
        EXPECT_EQ(std::ranges::count(platform.sockets(), true, &fake::socket_record::open), row.open_sockets);
        EXPECT_THAT(platform.threads(), SizeIs(row.threads));

        // The next report of the service does what is left, and no socket of the first attempt stays behind.
        EXPECT_EQ(lum_init_udp(), 1);
        EXPECT_EQ(std::ranges::count(platform.sockets(), true, &fake::socket_record::open), 2u);
        EXPECT_THAT(platform.threads(), SizeIs(2));
    }
}

TEST_F(LumInitUdp, KeepsTheBoundIpv4SocketWhenTheIpv6PortIsTaken)
{
    platform.fail("corvane_bind", 2, EADDRINUSE);
    EXPECT_EQ(lum_init_udp(), 0);
    const int sid = lum_ip_udp_sid;
    EXPECT_TRUE(platform.sockets()[0].open);
    EXPECT_FALSE(platform.sockets()[0].address.empty());
    EXPECT_THAT(platform.threads(), IsEmpty());
    EXPECT_EQ(lum_init_udp(), 1);
    EXPECT_EQ(lum_ip_udp_sid, sid);
}

class LumUdpReceive : public LumUdp {
protected:
    LumUdpReceive()
    {
        site_port(PORT_B);
        overlay();
        platform.route(key(HOST_B), fake::local(PORT_B));
        EXPECT_EQ(lum_init_udp(), 1);
        platform.forget();
    }
    fake::bytes packet(std::size_t size = 0) const
    {
        fake::bytes made = fake::core_packet(REMOTE_EDGE, OUR_ADDRESS, frame_);
        if (size > made.size())
            made.add_zeros(size - made.size());
        return made;
    }
    void run(const char *thread = "lum-ip-udp-thread")
    {
        EXPECT_EQ(platform.run_thread(thread), nullptr);
        ++receive_buffers_;
    }
    const fake::bytes frame_ = fake::tagged(HOST_B, HOST_A, VLAN, 0x0800, fake::filler(46));
};

TEST_F(LumUdpReceive, HandsEachDatagramToDecapsulationUntilAReceiveFails)
{
    platform.datagram(AF_INET, packet());
    platform.datagram(AF_INET, packet());
    run();
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B, PORT_B));
    EXPECT_EQ(platform.called("corvane_recvfrom"), 3u);
    EXPECT_THAT(platform.syslog, IsEmpty());
}

TEST_F(LumUdpReceive, ReceivesOverIpv6Alike)
{
    platform.datagram(AF_INET6, fake::core_packet(REMOTE_EDGE6, OUR_ADDRESS6, frame_));
    run("lum-ipv6-udp-thread");
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B));
    EXPECT_EQ(platform.calls_of("corvane_recvfrom").front().number(0),
              static_cast<std::uint64_t>(lum_ipv6_udp_sid));
}

TEST_F(LumUdpReceive, WaitsWithSelectForTheSocketWithoutTheLock)
{
    platform.datagram(AF_INET, packet());
    run();
    const std::string sid = std::to_string(lum_ip_udp_sid), count = std::to_string(lum_ip_udp_sid + 1);
    EXPECT_THAT(platform.call_texts({"corvane_select", "corvane_recvfrom"}),
                ElementsAre("corvane_select(" + count + ")", "corvane_recvfrom(" + sid + ", 3000, 0)",
                            "corvane_select(" + count + ")", "corvane_recvfrom(" + sid + ", 3000, 0)"));
    for (const char *name : {"corvane_select", "corvane_recvfrom"})
        for (const fake::call_record &call : platform.calls_of(name))
            EXPECT_FALSE(call.lock_held) << name;
    EXPECT_EQ(platform.yields, 2u);
}

TEST_F(LumUdpReceive, TriesAgainWhenTheWaitFailsOrFindsNothing)
{
    platform.datagram(AF_INET, packet());
    platform.select_results = {0, -1, 0, 1};
    run();
    EXPECT_EQ(platform.called("corvane_select"), 5u);
    EXPECT_EQ(platform.yields, 5u);
    EXPECT_THAT(ports_sent_to(), ElementsAre(PORT_B));
}

TEST_F(LumUdpReceive, CutsADatagramToThreeThousandBytes)
{
    lum_packet_debug_flag = lum_packet_debug_unicast = 1;
    platform.datagram(AF_INET, packet(3001));
    run();
    EXPECT_TRUE(platform.traced("UDP/IP decapsulate packet 198.51.100.9 -> 192.0.2.1, length: 3000\n"));
}

TEST_F(LumUdpReceive, HandsOnDatagramsOfEveryLength)
{
    for (std::size_t length = 0; length < 32 + frame_.size(); ++length)
        platform.datagram(AF_INET, packet().range(0, length));
    run();
    EXPECT_EQ(dropped(drop_reason::DECAP_SHORT), 32u);
    EXPECT_EQ(dropped(drop_reason::L2_TRUNCATED), 18u);
    EXPECT_EQ(platform.called("corvane_recvfrom"), 32 + frame_.size() + 1);
}

TEST_F(LumUdpReceive, EndsWhenItsThreadIdReadsZero)
{
    platform.datagram(AF_INET, packet());
    platform.datagram(AF_INET, packet());
    lum_ip_udp_thread = 0;
    run();
    EXPECT_EQ(platform.called("corvane_recvfrom"), 1u);
    EXPECT_THAT(platform.l2_sent, IsEmpty());
}

TEST_F(LumUdpReceive, EndsWhenItsSocketWasClosed)
{
    EXPECT_EQ(lum_close_udp(), 1);
    run();
    EXPECT_EQ(platform.called("corvane_select"), 0u);
}

TEST_F(LumUdpReceive, TakesItsBufferFromPacketMemoryAndKeepsIt)
{
    run();
    run("lum-ipv6-udp-thread");
    EXPECT_EQ(platform.memory_blocks(LUM_MEM_TYPE_PACKET), 2u);
}

TEST_F(LumUdpReceive, EndsWithAMessageWithoutABuffer)
{
    platform.fail("memacct_alloc");
    platform.run_thread("lum-ip-udp-thread");
    platform.fail("memacct_alloc");
    platform.run_thread("lum-ipv6-udp-thread");
    EXPECT_THAT(platform.syslog_texts(),
                ElementsAre("<<%LUM-3-MALLOC_FAILED>> lum_malloc() failed for lum_ip_udp_main()",
                            "<<%LUM-3-MALLOC_FAILED>> lum_malloc() failed for lum_ipv6_udp_main()"));
    EXPECT_EQ(platform.called("corvane_recvfrom"), 0u);
}

using LumCloseUdp = LumUdp;

TEST_F(LumCloseUdp, DoesNothingWhileNothingIsOpen)
{
    EXPECT_EQ(lum_close_udp(), 1);
    EXPECT_THAT(platform.calls, IsEmpty());
}

TEST_F(LumCloseUdp, ClosesBothSocketsAndTheStackClient)
{
    EXPECT_EQ(lum_init_udp(), 1);
    platform.forget();
    EXPECT_EQ(lum_close_udp(), 1);
    EXPECT_EQ(lum_ip_udp_sid, -1);
    EXPECT_EQ(lum_ipv6_udp_sid, -1);
    EXPECT_EQ(lum_udp_initialized, 0u);
    EXPECT_THAT(platform.call_names(), ElementsAre("corvane_close", "corvane_close", "tcp_teardown"));
    EXPECT_FALSE(platform.calls.front().lock_held);
}

TEST_F(LumCloseUdp, TakesDescriptorZeroAsNotOpen)
{
    EXPECT_EQ(lum_init_udp(), 1);
    lum_ip_udp_sid = 0;
    platform.forget();
    EXPECT_EQ(lum_close_udp(), 1);
    EXPECT_EQ(platform.called("corvane_close"), 1u);
    EXPECT_EQ(lum_ip_udp_sid, -1);
}

} // namespace
