// The message bus as its clients see it on the socket.
#include "platform_process.h"

#include "drops.h"

#include <gmock/gmock.h>

namespace corvaned_test {
namespace {

using namespace testing;

constexpr std::uint32_t QUEUE = 0x10, OTHER_QUEUE = 0x11, SAP = 500, OTHER_SAP = 501, OPCODE = 0x13404;

std::uint64_t dropped(drop_reason reason)
{
    return drop_counters->count[static_cast<std::size_t>(reason)];
}

struct Bus : Test {
    platform_process &process = platform_process::the();
    bus_client receiver, sender;

    void SetUp() override
    {
        ASSERT_EQ(sender.bind(QUEUE, OTHER_SAP), 0u);
        ASSERT_EQ(receiver.bind(QUEUE, SAP, 4), 0u);
    }
};

TEST_F(Bus, DeliversMessageToItsSapWithOpcodeSourceAndPayload)
{
    EXPECT_EQ(sender.send_message(QUEUE, SAP, OPCODE, bytes("hello")), 0);

    const auto got = receiver.deliveries();
    ASSERT_THAT(got, SizeIs(1));
    EXPECT_EQ(got[0].queue, QUEUE);
    EXPECT_EQ(got[0].header.opcode, OPCODE);
    EXPECT_EQ(got[0].header.source_sap, OTHER_SAP);
    EXPECT_EQ(got[0].payload, bytes("hello"));
    EXPECT_THAT(sender.deliveries(), IsEmpty());
}

TEST_F(Bus, KeepsTheOrderOfMessages)
{
    for (std::uint32_t i = 0; i < 4; ++i)
        EXPECT_EQ(sender.send_message(QUEUE, SAP, i), 0);
    const auto got = receiver.deliveries();
    ASSERT_THAT(got, SizeIs(4));
    for (std::uint32_t i = 0; i < 4; ++i)
        EXPECT_EQ(got[i].header.opcode, i);
}

TEST_F(Bus, CarriesPayloadsOfMoreThan128KiB)
{
    std::vector<std::uint8_t> large(corvane::BUS_PAYLOAD_MAX);
    for (std::size_t i = 0; i < large.size(); ++i)
        large[i] = static_cast<std::uint8_t>(i * 7);
    EXPECT_EQ(sender.send_message(QUEUE, SAP, OPCODE, large), 0);
    const auto got = receiver.deliveries();
    ASSERT_THAT(got, SizeIs(1));
    EXPECT_EQ(got[0].payload, large);
}

TEST_F(Bus, BindingMadeASecondTimeIsTheFirstAndNoOther)
{
    EXPECT_EQ(receiver.bind(QUEUE, SAP, 4), 0u);
    EXPECT_EQ(receiver.bind(QUEUE, 0, 4), 0u);
    EXPECT_EQ(receiver.bind(QUEUE, SAP + 1, 4), static_cast<std::uint32_t>(EINVAL));
    EXPECT_EQ(sender.send_message(QUEUE, SAP, OPCODE, bytes("once")), 0);
    EXPECT_THAT(receiver.deliveries(), SizeIs(1));
}

TEST_F(Bus, AnswersSendToUnknownSapWithEnoent)
{
    EXPECT_EQ(sender.send_message(QUEUE, 9999, OPCODE), ENOENT);
}

TEST_F(Bus, RefusesFurtherMessagesForFullQueueAndCountsThem)
{
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(sender.send_message(QUEUE, SAP, OPCODE), 0);
    const auto before = dropped(drop_reason::BUS_QUEUE_FULL);
    EXPECT_EQ(sender.send_message(QUEUE, SAP, OPCODE), EAGAIN);
    EXPECT_EQ(dropped(drop_reason::BUS_QUEUE_FULL), before + 1);
    EXPECT_THAT(receiver.deliveries(), SizeIs(4));
}

TEST_F(Bus, TakesMessagesAgainOnceTheReceiverHasTakenSome)
{
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(sender.send_message(QUEUE, SAP, OPCODE), 0);
    receiver.oneway(corvane::BUS_CONSUMED, byte_writer().put(QUEUE).put(1u).view());
    platform_process::turns();
    EXPECT_EQ(sender.send_message(QUEUE, SAP, OPCODE), 0);
    EXPECT_EQ(sender.send_message(QUEUE, SAP, OPCODE), EAGAIN);
}

TEST_F(Bus, ConsumingMoreThanWaitsLeavesTheQueueEmptyNotNegative)
{
    receiver.oneway(corvane::BUS_CONSUMED, byte_writer().put(QUEUE).put(1000u).view());
    platform_process::turns();
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(sender.send_message(QUEUE, SAP, OPCODE), 0);
    EXPECT_EQ(sender.send_message(QUEUE, SAP, OPCODE), EAGAIN);
}

TEST_F(Bus, GivesOneSapToOneProcessOnly)
{
    EXPECT_EQ(receiver.bind(OTHER_QUEUE, SAP), static_cast<std::uint32_t>(EADDRINUSE));
    EXPECT_EQ(receiver.bind(OTHER_QUEUE, 2), static_cast<std::uint32_t>(EADDRINUSE)) << "a SAP of the platform";
}

TEST_F(Bus, LetsTheSameProcessTakeItsSapOverOnANewConnection)
{
    bus_client again;
    EXPECT_EQ(again.bind(QUEUE, SAP), 0u);
    EXPECT_TRUE(receiver.closed());
    EXPECT_EQ(sender.send_message(QUEUE, SAP, OPCODE), 0);
    EXPECT_THAT(again.deliveries(), SizeIs(1));
}

TEST_F(Bus, FreesTheSapWhenItsConnectionEnds)
{
    {
        bus_client third;
        ASSERT_EQ(third.bind(QUEUE, 777), 0u);
        EXPECT_TRUE(corvaned::bus_bound(777));
    }
    EXPECT_FALSE(corvaned::bus_bound(777));
    EXPECT_EQ(sender.send_message(QUEUE, 777, OPCODE), ENOENT);
}

TEST_F(Bus, FindsAFreeSapForQueueThatAsksForNone)
{
    const auto answer = sender.call(
        corvane::BUS_BIND, byte_writer().put(OTHER_QUEUE).put(0u).put(1u).put(0u).put(0u).text("any").view());
    ASSERT_EQ(answer.error, 0);
    EXPECT_GE(byte_reader(answer.data).get<std::uint32_t>(), corvane::BUS_SAP_DYNAMIC);
}

TEST_F(Bus, SendsNotificationToSubscribersOfItsOpcodeOnly)
{
    bus_client third;
    ASSERT_EQ(third.bind(QUEUE, 502), 0u);
    ASSERT_EQ(third.option(QUEUE, OPCODE + 1, corvane::BUS_OPTION_SUBSCRIBE), 0u);
    ASSERT_EQ(receiver.option(QUEUE, OPCODE, corvane::BUS_OPTION_SUBSCRIBE_ADDRESSED), 0u);
    EXPECT_EQ(corvaned::bus_subscribers(OPCODE), 1u);

    EXPECT_EQ(sender.notify(QUEUE, OPCODE, bytes("news")), 0);

    const auto got = receiver.deliveries();
    ASSERT_THAT(got, SizeIs(1));
    EXPECT_EQ(got[0].payload, bytes("news"));
    EXPECT_THAT(third.deliveries(), IsEmpty());
    EXPECT_THAT(sender.deliveries(), IsEmpty());
}

TEST_F(Bus, NotificationWithoutSubscribersSucceeds)
{
    EXPECT_EQ(sender.notify(QUEUE, 0xABCDEF), 0);
}

TEST_F(Bus, SubscribingTwiceDeliversOnce)
{
    ASSERT_EQ(receiver.option(QUEUE, OPCODE, corvane::BUS_OPTION_SUBSCRIBE), 0u);
    ASSERT_EQ(receiver.option(QUEUE, OPCODE, corvane::BUS_OPTION_SUBSCRIBE), 0u);
    EXPECT_EQ(sender.notify(QUEUE, OPCODE), 0);
    EXPECT_THAT(receiver.deliveries(), SizeIs(1));
}

TEST_F(Bus, OneFullSubscriberDoesNotKeepNotificationFromOthers)
{
    bus_client third;
    ASSERT_EQ(third.bind(QUEUE, 502, 100), 0u);
    ASSERT_EQ(third.option(QUEUE, OPCODE, corvane::BUS_OPTION_SUBSCRIBE), 0u);
    ASSERT_EQ(receiver.option(QUEUE, OPCODE, corvane::BUS_OPTION_SUBSCRIBE), 0u);
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(sender.notify(QUEUE, OPCODE), 0);
    EXPECT_THAT(receiver.deliveries(), SizeIs(4));
    EXPECT_THAT(third.deliveries(), SizeIs(6));
}

TEST_F(Bus, GivesTheLastMessageToLateSubscriberWhereSomebodyKeepsIt)
{
    constexpr std::uint32_t KEPT = 0x1340E;
    ASSERT_EQ(sender.option(QUEUE, KEPT, corvane::BUS_OPTION_KEEP_LAST), 0u);
    EXPECT_EQ(sender.notify(QUEUE, KEPT, bytes("first")), 0);
    EXPECT_EQ(sender.notify(QUEUE, KEPT, bytes("second")), 0);

    ASSERT_EQ(receiver.option(QUEUE, KEPT, corvane::BUS_OPTION_SUBSCRIBE), 0u);

    const auto got = receiver.deliveries();
    ASSERT_THAT(got, SizeIs(1));
    EXPECT_EQ(got[0].payload, bytes("second"));
    EXPECT_THAT(sender.deliveries(), IsEmpty()) << "keeping is not subscribing";
}

TEST_F(Bus, MonitorOfAllOpcodesGetsEveryNotificationOfAProcess)
{
    ASSERT_EQ(receiver.option(QUEUE, corvane::BUS_OPCODE_ALL, corvane::BUS_OPTION_SUBSCRIBE), 0u);
    EXPECT_EQ(sender.notify(QUEUE, 1), 0);
    EXPECT_EQ(sender.notify(QUEUE, 2), 0);
    EXPECT_THAT(receiver.deliveries(), SizeIs(2));
}

TEST_F(Bus, UnknownOptionIsRefused)
{
    EXPECT_EQ(receiver.option(QUEUE, OPCODE, 5), static_cast<std::uint32_t>(EINVAL));
    EXPECT_EQ(receiver.option(QUEUE + 5, OPCODE, 16), static_cast<std::uint32_t>(EINVAL));
}

TEST_F(Bus, SapInsideThePlatformIsCalledDirectly)
{
    std::vector<corvaned::message> got;
    corvaned::bus_serve(167, [&](const corvaned::message &m) { got.push_back(m); });
    EXPECT_EQ(sender.send_message(QUEUE, 167, 23564, bytes("?")), 0);
    ASSERT_THAT(got, SizeIs(1));
    EXPECT_EQ(got[0].source_sap, OTHER_SAP);
    EXPECT_EQ(got[0].opcode, 23564u);
    corvaned::bus_serve(167, [](const corvaned::message &) {});
}

TEST_F(Bus, UnboundQueueGetsNothingMore)
{
    ASSERT_EQ(receiver.option(QUEUE, OPCODE, corvane::BUS_OPTION_SUBSCRIBE), 0u);
    ASSERT_EQ(receiver.call(corvane::BUS_UNBIND, byte_writer().put(QUEUE).view()).error, 0);
    EXPECT_EQ(sender.notify(QUEUE, OPCODE), 0);
    EXPECT_EQ(sender.send_message(QUEUE, SAP, OPCODE), ENOENT);
    EXPECT_THAT(receiver.deliveries(), IsEmpty());
}

TEST_F(Bus, LimitsTheQueuesOfOneConnection)
{
    for (std::uint32_t i = 1; i < corvane::BUS_QUEUES_MAX; ++i)
        ASSERT_EQ(receiver.bind(QUEUE + 100 + i, 0), 0u);
    EXPECT_EQ(receiver.bind(QUEUE + 200, 0), static_cast<std::uint32_t>(EMFILE));
}

// A client that never reads: its socket fills, then its backlog, and then its messages are refused.
TEST_F(Bus, ClientThatDoesNotReadCostsABoundedBacklogAndNobodyElse)
{
    bus_client deaf;
    ASSERT_EQ(deaf.bind(QUEUE, 503, 60'000), 0u);
    const std::vector<std::uint8_t> large(100 * 1024);
    int taken = 0;
    while (taken < 1000 && sender.send_message(QUEUE, 503, OPCODE, large) == 0)
        ++taken;
    EXPECT_GT(taken, 50);
    EXPECT_LT(taken, 200);
    EXPECT_EQ(sender.send_message(QUEUE, SAP, OPCODE), 0);
    EXPECT_THAT(receiver.deliveries(), SizeIs(1));
    std::size_t got = 0;
    EXPECT_TRUE(platform_process::until([&] { return (got += deaf.deliveries().size()) >= static_cast<std::size_t>(taken); }))
        << "nothing of what was taken is lost, yet only " << got << " came";
    EXPECT_EQ(got, static_cast<std::size_t>(taken));
}

struct MalformedFrame : TestWithParam<std::size_t> {};

// Every length of a bind request below the whole one: refused, and the connection goes on.
TEST_P(MalformedFrame, CutRequestIsRefusedAndNothingIsBound)
{
    platform_process::the();
    bus_client client;
    const auto whole = byte_writer().put(QUEUE).put(SAP).put(4u).put(0u).put(0u).text("name").take();
    ASSERT_LT(GetParam(), whole.size());
    EXPECT_EQ(client.call(corvane::BUS_BIND, byte_view(whole).first(GetParam())).error, EINVAL);
    EXPECT_FALSE(corvaned::bus_bound(SAP));
}
INSTANTIATE_TEST_SUITE_P(EveryLength, MalformedFrame, Range<std::size_t>(0, 28));

TEST(BusConnection, IsClosedForFrameWithoutHeaderAndCounted)
{
    platform_process::the();
    const auto before = dropped(drop_reason::BUS_MALFORMED);
    bus_client client;
    client.send_raw(bytes("short"));
    EXPECT_TRUE(client.closed());
    EXPECT_EQ(dropped(drop_reason::BUS_MALFORMED), before + 1);
}

TEST(BusConnection, IsClosedWhenItCallsBeforeItGreets)
{
    platform_process::the();
    bus_client client(false);
    client.send(corvane::FRAME_CALL, corvane::BUS_BIND, 1, {});
    EXPECT_TRUE(client.closed());
}

TEST(BusConnection, IsClosedForAnotherVersion)
{
    platform_process::the();
    bus_client client(false);
    client.send(corvane::FRAME_HELLO, 0, 1, byte_writer().put(corvane::FRAME_VERSION + 1).put(0u).view());
    EXPECT_TRUE(client.closed());
}

TEST(BusConnection, UnknownMethodIsAnsweredWithEnosys)
{
    platform_process::the();
    bus_client client;
    EXPECT_EQ(client.call(0xFFFF0001, {}).error, ENOSYS);
}

TEST(BusConnection, SendFromQueueThatIsNotBoundIsRefusedAndCounted)
{
    platform_process::the();
    const auto before = dropped(drop_reason::BUS_MALFORMED);
    bus_client client;
    EXPECT_EQ(client.send_message(QUEUE, SAP, OPCODE), EINVAL);
    EXPECT_EQ(dropped(drop_reason::BUS_MALFORMED), before + 1);
}

} // namespace
} // namespace corvaned_test
