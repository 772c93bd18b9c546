// The fake's own promises: what it records, how it fails on request, how time and threads go.
#include "fake_test.h"

#include "avlt.h"
#include "bitfield.h"
#include "icmpv6.h"

#include <array>
#include <cstring>
#include <memory>

using namespace fake;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr std::uint32_t MAIN_SAP = 442;

mbus_q bind_main(std::uint32_t depth = 1024)
{
    mbus_q_attr attr;
    attr.depth = depth;
    return mbus_bind(1, MAIN_SAP, attr, "main");
}

void send_ip(const bytes &packet)
{
    mbuf *m = m_get(packet.size());
    ASSERT_TRUE(m_copyback(m, 0, packet.size(), packet.data()));
    ip_cl_output(41, m, 7);
}

class FakeRecord : public FakePlatformTest {};
class FakeFailure : public FakePlatformTest {};
class FakeBus : public FakePlatformTest {};
class FakeClock : public FakePlatformTest {};
class FakeThread : public FakePlatformTest {};
class FakeLock : public FakePlatformTest {};
class FakeRoutes : public FakePlatformTest {};
class FakeCommand : public FakePlatformTest {};
class FakeLog : public FakePlatformTest {};
class FakeMemory : public FakePlatformTest {};
class FakeFrames : public FakePlatformTest {};

// ---- records

TEST_F(FakeRecord, KeepsThePacketsBytesAndArguments)
{
    send_ip(filler(40));
    ASSERT_THAT(platform.ip_sent, SizeIs(1));
    EXPECT_THAT(platform.ip_sent[0], ElementsAreArray(filler(40)));
    EXPECT_EQ(platform.ip_sent[0].mcast_iod, 7u);
    EXPECT_EQ(platform.ip_sent[0].be32(4), 0x04050607u);
    EXPECT_THROW((void)platform.ip_sent[0].be32(37), std::out_of_range);
    EXPECT_FALSE(platform.sent_nothing());
}

TEST_F(FakeRecord, PutsTheFrameTogetherFromHeaderAndPayload)
{
    platform.add_interface(5, "eth5", {.switchport = true});
    const bytes frame = tagged(BROADCAST, mac("02:00:00:00:00:01"), 300, 0x0800, filler(50));
    net_l2_header header;
    std::memcpy(&header.destination, frame.data(), 6);
    std::memcpy(&header.source, frame.data() + 6, 6);
    header.ethertype_be = frame.host16(12);
    net_l2_send_request request;
    request.iod_be = __builtin_bswap32(5);
    EXPECT_EQ(net_l2_send(71, header, request, frame.data() + 14, static_cast<std::uint16_t>(frame.size() - 14)), 1);
    ASSERT_THAT(platform.l2_sent, SizeIs(1));
    EXPECT_THAT(platform.l2_sent[0], ElementsAreArray(frame));
    EXPECT_EQ(platform.l2_sent[0].iod, 5u);
}

TEST_F(FakeRecord, KeepsCallsInOrderWithTheirArgumentsAndTheLock)
{
    platform.forget();
    (void)bind_main();
    plock_before_yield();
    (void)corvane_socket(2, 2, 0);
    plock_after_yield();
    EXPECT_THAT(platform.call_texts(), ElementsAre("mbus_bind(442, main)", "corvane_socket(2, 2, 0)"));
    EXPECT_TRUE(platform.calls[0].lock_held);
    EXPECT_FALSE(platform.calls[1].lock_held);
    EXPECT_EQ(platform.calls[0].number(0), 442u);
    EXPECT_THAT(platform.call_texts({"corvane_socket"}), SizeIs(1));
    platform.forget();
    EXPECT_THAT(platform.calls, IsEmpty());
    EXPECT_NE(platform.queue_of(MAIN_SAP), MBUS_Q_INVALID) << "forgetting is not undoing";
}

TEST_F(FakeRecord, CountingKeepsNothingButTheNumber)
{
    platform.counting_only = true;
    platform.fail("ip_cl_output");
    for (int i = 0; i < 3; ++i)
        send_ip(filler(40));
    EXPECT_EQ(platform.packets_out, 3u);
    EXPECT_THAT(platform.ip_sent, IsEmpty());
}

TEST_F(FakeRecord, ResetLeavesNothingOfTheTestBefore)
{
    platform.add_interface(3, "eth3", {.switchport = true});
    platform.route({10, {2, 0, 0, 0, 0, 1}}, local(3));
    platform.fail_always("mbus_bind");
    mbuf *m = m_get(1);
    platform.reset();
    EXPECT_EQ(platform.mbufs_out(), 0u);
    m_freem(m);
    EXPECT_FALSE(intfmgr_is_switchport(3));
    EXPECT_EQ(platform.routes(), 0u);
    EXPECT_NE(bind_main(), MBUS_Q_INVALID);
    EXPECT_EQ(platform.mbufs_out(), 0u);
}

// ---- failures

TEST_F(FakeFailure, StrikesTheNthCallOnce)
{
    platform.fail("active_timer_create", 2, ENOMEM);
    EXPECT_NE(active_timer_create(1, 9, nullptr, nullptr), 0u);
    EXPECT_EQ(active_timer_create(1, 9, nullptr, nullptr), 0u);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_NE(active_timer_create(1, 9, nullptr, nullptr), 0u);
}

TEST_F(FakeFailure, StrikesEveryCallUntilTakenBack)
{
    platform.fail_always("m_get");
    EXPECT_EQ(m_get(1), nullptr);
    EXPECT_EQ(m_get(1), nullptr);
    platform.succeed("m_get");
    mbuf *m = m_get(1);
    EXPECT_NE(m, nullptr);
    m_freem(m);
}

TEST_F(FakeFailure, ReachesWhatNeedsNoService)
{
    platform.fail("bitfield_create");
    EXPECT_EQ(bitfield_create({}, 768), nullptr);
    platform.fail("avlt_init");
    avlt_tree tree;
    EXPECT_FALSE(avlt_init(tree, 4, 16, [](const void *, const void *) { return AVLT_EQUAL; }));
}

TEST_F(FakeFailure, WalksThroughAllFallibleCallsOfARun)
{
    const auto run = [] {
        int successes = 0;
        successes += pstore_open("a") != 0;
        successes += vrfmgr_api_init();
        successes += igmp_api_init();
        return successes;
    };
    platform.fail_any(0);
    EXPECT_EQ(run(), 3);
    const std::size_t calls = platform.fallible_calls();
    EXPECT_EQ(calls, 3u);
    for (std::size_t n = 1; n <= calls; ++n) {
        platform.fail_any(n);
        EXPECT_EQ(run(), 2) << n;
    }
    platform.fail_any(calls + 1);
    EXPECT_EQ(run(), 3);
    platform.fail_any(0);
}

// ---- bus

TEST_F(FakeBus, HandsOutWhatWasDeliveredAndEndsTheLoopOnAnEmptyQueue)
{
    const mbus_q q = bind_main();
    platform.deliver(MAIN_SAP, 0xF403, filler(3), {.source_sap = 5, .sync_event = 2});
    mbus_msg msg;
    ASSERT_EQ(mbus_recv(q, msg), 0);
    EXPECT_EQ(mbus_opc_get(msg), 0xF403u);
    EXPECT_EQ(mbus_saddr_get(msg).sap, 5u);
    EXPECT_EQ(mbus_sync_event_get(msg), 2u);
    std::size_t length = 0;
    EXPECT_EQ(mbus_payload_get(msg, &length)[2], 2);
    EXPECT_EQ(length, 3u);
    EXPECT_EQ(mbus_drop(q, msg), 0);
    EXPECT_EQ(mbus_recv(q, msg), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_TRUE(mbus_is_pre_unbind(q));
}

TEST_F(FakeBus, KeepsBooksOfDrops)
{
    const mbus_q q = bind_main();
    mbus_msg msg = platform.message(78852, filler(4));
    mbus_msg copy = msg;
    EXPECT_EQ(platform.messages_outstanding(), 1u);
    EXPECT_EQ(mbus_drop(q, msg), 0);
    EXPECT_EQ(platform.messages_outstanding(), 0u);
    EXPECT_EQ(platform.messages_dropped, 1u);
    EXPECT_EQ(mbus_drop(q, msg), 0) << "an emptied handle";
    EXPECT_EQ(platform.empty_drops, 1u);
    EXPECT_EQ(platform.double_drops, 0u);
    EXPECT_EQ(mbus_drop(q, copy), 0) << "a copy of a handle whose message is gone";
    EXPECT_EQ(platform.double_drops, 1u);
    platform.double_drops = 0;
}

TEST_F(FakeBus, ReadsNothingThroughAHandleWhoseMessageIsGone)
{
    const mbus_q q = bind_main();
    mbus_msg msg = platform.message(1, filler(4));
    const mbus_msg copy = msg;
    mbus_drop(q, msg);
    EXPECT_EQ(mbus_payload_get(copy), nullptr);
    EXPECT_EQ(mbus_opc_get(copy), 0u);
    EXPECT_FALSE(platform.is_outstanding(copy));
}

TEST_F(FakeBus, RunsItsHookBeforeAQueueIsEmptyForGood)
{
    const mbus_q q = bind_main();
    int asked = 0;
    platform.on_empty_queue = [&](mbus_q) {
        if (++asked == 1)
            platform.deliver(MAIN_SAP, 7);
    };
    mbus_msg msg;
    EXPECT_EQ(mbus_recv(q, msg), 0);
    mbus_drop(q, msg);
    EXPECT_EQ(mbus_recv(q, msg), -1);
    EXPECT_EQ(asked, 2);
}

TEST_F(FakeBus, DeliversFramesAsThePacketServiceDoes)
{
    const mbus_q q = mbus_bind(1, 440, {}, "LUM-packet");
    const bytes frame = ethernet(BROADCAST, mac("02:00:00:00:00:01"), 0x0806, filler(46));
    platform.deliver_frame(3, frame);
    mbus_msg msg;
    ASSERT_EQ(mbus_recv(q, msg), 0);
    std::size_t length = 0;
    const std::uint8_t *data = mbus_payload_get(msg, &length);
    const bytes payload(std::span(data, length));
    EXPECT_EQ(mbus_opc_get(msg), NET_L2_OPC_FRAME);
    EXPECT_EQ(payload.be32(NET_L2_MSG_IOD), 3u);
    EXPECT_EQ(payload.be16(NET_L2_MSG_LENGTH), 60);
    EXPECT_EQ(payload.from(NET_L2_MSG_FRAME), frame);
    mbus_drop(q, msg);
}

TEST_F(FakeBus, RecordsWhatIsSentWithItsSegmentsJoined)
{
    const mbus_q q = bind_main();
    const std::array<std::uint8_t, 2> first{1, 2}, second{3, 4};
    const std::array<mbus_segment, 2> segments{{{first.data(), 2}, {second.data(), 2}}};
    mbus_send_options options;
    options.want_ack = 1;
    options.segments = segments.data();
    options.segment_count = 2;
    EXPECT_EQ(mbus_send(q, {MBUS_NOTIFY_DESTINATION, 0}, 78852, nullptr, 0, options), 0);
    ASSERT_THAT(platform.sent_with(78852), SizeIs(1));
    EXPECT_THAT(platform.mbus_sent[0].payload, ElementsAre(1, 2, 3, 4));
    EXPECT_TRUE(platform.mbus_sent[0].want_ack);
    EXPECT_EQ(platform.mbus_sent[0].from_sap, MAIN_SAP);
}

// ---- clock

std::vector<std::string> fired;
void fire(void *argument) { fired.emplace_back(static_cast<const char *>(argument)); }

TEST_F(FakeClock, FiresTimersInTheOrderOfTheirTimesWithTheLockHeld)
{
    fired.clear();
    char a[] = "a", b[] = "b", c[] = "c";
    const active_timer ta = active_timer_create(1, 9, fire, a), tb = active_timer_create(1, 9, fire, b),
                       tc = active_timer_create(1, 5, fire, c);
    active_timer_start(ta, 2, 500, 0, 0);
    active_timer_start(tb, 1, 0, 0, 0);
    active_timer_start(tc, 2, 500, 0, 0);
    EXPECT_EQ(platform.timer_ms_left(ta), 2500u);
    platform.advance(2);
    EXPECT_THAT(fired, ElementsAre("b"));
    EXPECT_FALSE(platform.timer_running(tb)) << "one shot";
    platform.advance_ms(500);
    EXPECT_THAT(fired, ElementsAre("b", "a", "c"));
}

TEST_F(FakeClock, ShowsACallbackTheTimeItWasDueAt)
{
    static timestamp seen;
    const active_timer t = active_timer_create(1, 9, [](void *) { (void)vemo_sys_mclock_get(seen); }, nullptr);
    const timestamp start = platform.now;
    active_timer_start(t, 15, 0, 0, 0);
    platform.advance(100);
    EXPECT_EQ(seen.seconds, start.seconds + 15);
    EXPECT_EQ(platform.now.seconds, start.seconds + 100);
    EXPECT_EQ(timestamp_elapsed(seen).seconds, 85u);
    EXPECT_TRUE(timestamp_expired(platform.now));
    EXPECT_FALSE(timestamp_expired({platform.now.seconds, 1}));
}

TEST_F(FakeClock, LeavesCancelledAndDeletedTimersAlone)
{
    fired.clear();
    char a[] = "a", b[] = "b";
    const active_timer ta = active_timer_create(1, 9, fire, a), tb = active_timer_create(1, 9, fire, b);
    active_timer_start(ta, 1, 0, 0, 0);
    active_timer_start(tb, 1, 0, 0, 0);
    active_timer_cancel(ta);
    active_timer_delete(tb);
    platform.advance(5);
    EXPECT_THAT(fired, IsEmpty());
    EXPECT_THAT(platform.timers(), SizeIs(1));
}

// ---- threads and lock

TEST_F(FakeThread, ParksAThreadUntilItIsRun)
{
    static bool ran = false;
    ran = false;
    pthread_t id{};
    ASSERT_EQ(corvane_pthread_create(id, nullptr,
                                     [](void *argument) -> void * {
                                         plock_acquire_process_lock();
                                         ran = true;
                                         plock_release_process_lock();
                                         return argument;
                                     },
                                     &ran, "worker"),
              0);
    ASSERT_THAT(platform.threads(), SizeIs(1));
    EXPECT_EQ(platform.threads()[0].name, "worker");
    EXPECT_FALSE(ran);
    EXPECT_EQ(platform.run_thread("worker"), &ran);
    EXPECT_TRUE(ran);
    EXPECT_TRUE(platform.lock_held());
}

TEST_F(FakeThread, SurvivesAThreadThatEndsItselfHoldingTheLock)
{
    pthread_t id{};
    ASSERT_EQ(corvane_pthread_create(id, nullptr,
                                     [](void *) -> void * {
                                         plock_acquire_process_lock();
                                         pthread_exit(nullptr);
                                     },
                                     nullptr, "worker"),
              0);
    platform.run_thread("worker");
    EXPECT_TRUE(platform.lock_held());
}

TEST_F(FakeThread, RunsAtOnceWhenToldTo)
{
    platform.threads_run = true;
    static bool ran = false;
    ran = false;
    pthread_t id{};
    platform.joined_by_process = {"worker"};
    ASSERT_EQ(corvane_pthread_create(id, nullptr,
                                     [](void *) -> void * {
                                         plock_acquire_process_lock();
                                         ran = true;
                                         plock_release_process_lock();
                                         return nullptr;
                                     },
                                     nullptr, "worker"),
              0);
    EXPECT_FALSE(ran) << "the lock is held here";
    plock_before_yield();
    pthread_join(id, nullptr);
    plock_after_yield();
    EXPECT_TRUE(ran);
}

TEST_F(FakeThread, SaysWhenThereIsNoneToBeHad)
{
    platform.fail("corvane_pthread_create", 1, EAGAIN);
    pthread_t id{};
    EXPECT_EQ(corvane_pthread_create(id, nullptr, nullptr, nullptr, "worker"), EAGAIN);
}

TEST_F(FakeLock, CountsRelianceOnALockThatIsNotHeld)
{
    plock_assert_held();
    EXPECT_EQ(platform.lock_errors, 0u);
    plock_release_process_lock();
    plock_assert_held();
    plock_release_process_lock();
    plock_sched_yield();
    EXPECT_EQ(platform.lock_errors, 3u);
    plock_acquire_process_lock();
    platform.lock_errors = 0;
}

TEST_F(FakeLock, RunsTheHookInEachYield)
{
    int yields = 0;
    platform.on_yield = [&] { ++yields; };
    plock_sched_yield();
    EXPECT_FALSE(plock_sched_may_yield());
    platform.slice_used_up = true;
    EXPECT_TRUE(plock_sched_may_yield());
    EXPECT_EQ(yields, 3);
    EXPECT_EQ(platform.yields, 1u);
    EXPECT_EQ(platform.may_yields, 2u);
}

// ---- routes (what updates mean is the contract tests' matter)

TEST_F(FakeRoutes, GiveALearntRoutesAgeAndAnOperatorsPresent)
{
    const rtab_mac_info old{10, {2, 0, 0, 0, 0, 1}}, fixed{10, {2, 0, 0, 0, 0, 2}};
    plock_proc_attr attr;
    attr.service = 581;
    ASSERT_TRUE(plock_init_proc(attr));
    platform.learnt(old, 3, 59);
    platform.route(fixed, {remote(50, ipv4(1, 2, 3, 4)), remote(50, ipv6("2001:db8::9"))}, 700);
    rtab_addr hop;
    const rtab_route *route = rtab_get_route(old, 0, hop);
    ASSERT_NE(route, nullptr);
    EXPECT_EQ(timestamp_elapsed(rtab_get_route_timestamp(*route)).seconds, 59u);
    EXPECT_TRUE(rtab_is_owner(*route));
    route = rtab_get_route(fixed, 1, hop);
    ASSERT_NE(route, nullptr);
    EXPECT_FALSE(rtab_is_owner(*route));
    EXPECT_EQ(std::memcmp(&hop, &route->nexthop[1], sizeof hop), 0) << "spread by the flow";
    platform.advance(500);
    EXPECT_EQ(timestamp_elapsed(rtab_get_route_timestamp(*platform.find_route(fixed))).seconds, 0u);
    EXPECT_EQ(platform.routes(), 2u);
}

TEST_F(FakeRoutes, KeepMulticastInterfacesAsASet)
{
    const rtab_mac_info group{10, {1, 0, 0x5E, 1, 2, 3}};
    platform.mroute(group, {7, 3, 50});
    EXPECT_THAT(platform.mroute_iods(group), ElementsAre(3, 7, 50));
    EXPECT_THAT(platform.mroute_iods({11, group.mac}), IsEmpty());
}

// ---- commands and log

int show(cli_cmd *cmd)
{
    std::uint32_t vlan = 0, address = 0, length = 0;
    const char *name = nullptr;
    cli_vlan_ranges ranges;
    cli_ipv6_prefix prefix6;
    EXPECT_TRUE(cli_get_integer(cmd, "<vlan-id>", vlan));
    EXPECT_TRUE(cli_get_ipprefix(cmd, "<prefix>", address, length));
    EXPECT_TRUE(cli_get_ipv6prefix(cmd, "<prefix6>", prefix6));
    EXPECT_TRUE(cli_get_vlan_mrange(cmd, "<vlan-range>", ranges));
    EXPECT_FALSE(cli_get_string(cmd, "<absent>", name));
    cli_cmd_printf(cmd, "vlan %u, %u ranges\n", vlan, ranges.count);
    for (std::uint32_t i = 0; i < ranges.count; ++i)
        cli_cmd_printf(cmd, "%d-%d\n", ranges.ranges[i].first, ranges.ranges[i].last);
    cli_tty_printf(cmd, "%x/%u %u %d%d\n", address, length, prefix6.mask_length, cli_noed(cmd), cli_is_set(cmd, "all"));
    EXPECT_TRUE(cli_more_output(cmd));
    return cli_more_output(cmd) ? CLI_DONE : CLI_STOPPED;
}

TEST_F(FakeCommand, RunsARegisteredHandlerWithParsedArguments)
{
    EXPECT_EQ(cli_register_cmd("show", show, 0), 0);
    platform.stop_output_after = 1;
    const command_result result = platform.command("show",
                                                   {{"<vlan-id>", "10"},
                                                    {"<prefix>", "232.1.1.0/24"},
                                                    {"<prefix6>", "ff02::/96"},
                                                    {"<vlan-range>", "10,20-30"},
                                                    {"all", ""}},
                                                   true, 50);
    EXPECT_EQ(result.status, CLI_STOPPED);
    EXPECT_EQ(result.output, "vlan 10, 2 ranges\n10-10\n20-30\ne8010100/24 96 11\n");
    EXPECT_EQ(result.tty, "e8010100/24 96 11\n");
}

TEST_F(FakeCommand, RefusesArgumentsThatTheServerWouldNotTake)
{
    const auto handler = [](cli_cmd *cmd) {
        std::uint32_t vlan = 0;
        return cli_get_integer(cmd, "<vlan-id>", vlan) ? CLI_DONE : CLI_REJECTED;
    };
    EXPECT_EQ(platform.command(handler).status, CLI_REJECTED);
    EXPECT_THROW(platform.command(handler, {{"<vlan-id>", "ten"}}), std::logic_error);
    EXPECT_THROW(platform.command("nobody"), std::logic_error);
}

const syslog_facility_record facility{"LUM", 0};
const syslog_msg_short brief{"API_FAILED", 0, "<<%%%s-%d-API_FAILED>> %s failed", 3};
const syslog_msg_full api_failed{&facility, "API_FAILED", "%s failed", 0, 10, {0, 0, 0}, 3, &brief, nullptr};

TEST_F(FakeLog, RendersACataloguedMessageAsTheRealOne)
{
    ASSERT_EQ(syslog_msg_rate_limit(&api_failed, "x()"), 1);
    vemo_krel_syslog(syslog_vmsg_params, 3, brief.prefixed_format, "LUM", 3, "x()");
    ASSERT_THAT(platform.syslog_texts(), ElementsAre("<<%LUM-3-API_FAILED>> x() failed"));
    EXPECT_EQ(platform.syslog[0].tag, "API_FAILED");
    platform.rate_limited = {"API_FAILED"};
    EXPECT_EQ(syslog_msg_rate_limit(&api_failed, "x()"), 0);
}

TEST_F(FakeLog, PrintsByItselfWhileThereIsNoFacility)
{
    platform.set_facility(false);
    EXPECT_EQ(evhist_sys_facility, nullptr);
    EXPECT_EQ(syslog_msg_rate_limit(&api_failed, "x()"), 0);
    EXPECT_THAT(platform.syslog_texts(), ElementsAre("<<%LUM-3-API_FAILED>> x() failed"));
}

// ---- memory

TEST_F(FakeMemory, CountsBlocksAndHonoursACap)
{
    void *block = memacct_alloc(581, 6, 100);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(static_cast<const char *>(block)[99], 0);
    EXPECT_EQ(platform.memory_blocks(6), 1u);
    memacct_cap_set(6, 150);
    EXPECT_EQ(memacct_alloc(581, 6, 51), nullptr);
    EXPECT_EQ(memacct_usage_get(6).refused, 1u);
    memacct_free(581, 6, block);
    EXPECT_EQ(platform.memory_blocks(6), 0u);
    memacct_free(581, 6, nullptr);
}

TEST_F(FakeMemory, RunsOutOfPacketBuffersAtItsLimit)
{
    platform.mbuf_limit = 1;
    mbuf *m = m_get(1);
    EXPECT_EQ(m_get(1), nullptr);
    EXPECT_FALSE(m_copyback(m, 0, 100000, nullptr));
    m_freem(m);
}

// ---- frames: checked against bytes written by hand

TEST_F(FakeFrames, StandAsTheirFormatsSay)
{
    const mac_address a = mac("02:00:00:00:00:0a"), b = mac("02:00:00:00:00:0b");
    EXPECT_EQ(tagged(a, b, 300, 0x0800, hex("11 22")), hex("02000000000a 02000000000b 8100 2c01 0800 1122"));
    EXPECT_EQ(wire_tagged(a, b, 0x212C, 0x0800, hex("11")), hex("02000000000a 02000000000b 8100 212c 0800 11"));
    EXPECT_EQ(snap(a, b, 0x2000, hex("11 22")), hex("02000000000a 02000000000b 000a aaaa03 000000 2000 1122"));
    EXPECT_EQ(tagged_snap(a, b, 10, 0x2000, hex("11")),
              hex("02000000000a 02000000000b 0009 aaaa03 000000 8100 0a00 2000 11"));
    EXPECT_EQ(arp_request(b, ipv4(10, 0, 0, 2), ipv4(10, 0, 0, 1)),
              hex("0001 0800 06 04 0001 02000000000b 0a000002 000000000000 0a000001"));
    EXPECT_EQ(group_mac(ipv4(239, 129, 2, 3)), mac("01:00:5e:01:02:03"));
    EXPECT_EQ(group_mac(ipv6("ff02::1:ff00:2")), mac("33:33:ff:00:00:02"));
    EXPECT_EQ(udp(1, 2, hex("aa")), hex("0001 0002 0009 0000 aa"));
    EXPECT_EQ(padded(hex("01"), 3), hex("01 00 00  # filled up"));
}

TEST_F(FakeFrames, CarryRightChecksums)
{
    EXPECT_EQ(internet_checksum(vrrp_hello(ipv4(192, 0, 2, 1)).range(0, 20)), 0);
    const mac_address host = mac("02:00:00:00:00:0a");
    const bytes solicitation = neighbour_solicitation(ipv6("2001:db8::1"), ipv6("2001:db8::2"), &host);
    ipv6_address source{};
    const std::uint8_t *link_layer = nullptr;
    ASSERT_TRUE(icmpv6_get_nd_source_addresses(solicitation, source, link_layer)) << "the parser checks the checksum";
    EXPECT_EQ(source, ipv6("2001:db8::1"));
    EXPECT_EQ(solicitation.ipv6(24), ipv6("ff02::1:ff00:2"));
}

TEST_F(FakeFrames, WrapAFrameForTheCore)
{
    const bytes frame = filler(64);
    EXPECT_EQ(core_packet(ipv4(1, 1, 1, 1), ipv4(2, 2, 2, 2), frame).from(32), frame);
    const bytes over6 = core_packet(ipv6("2001:db8::1"), ipv6("2001:db8::2"), frame);
    EXPECT_EQ(over6.from(52), frame);
    EXPECT_EQ(over6.be16(42), 8472);
}

} // namespace
