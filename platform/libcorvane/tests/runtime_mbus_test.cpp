// The bus client against the double: queues, handles, waiting, reconnecting, local sources.
#include "runtime_double.h"

#include "../mbus_local.h"
#include "../runtime/connection.h"
#include "mbus.h"

#include <gmock/gmock.h>

#include <atomic>
#include <cerrno>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace corvane_test {
namespace {

using namespace testing;
using corvane::BUS_BIND, corvane::BUS_CONSUMED, corvane::BUS_OPTION, corvane::BUS_SEND;

constexpr std::uint32_t SAP = 442, OPCODE = 0x13404;

struct MbusClient : Test {
    corvaned_double &server = corvaned_double::the();
    mbus_q queue = MBUS_Q_INVALID;
    std::vector<mbus_q> others;

    void SetUp() override
    {
        server.start();
        ASSERT_TRUE(await_link());
        server.forget();
        queue = mbus_bind(1, SAP, attributes(16), "test");
        ASSERT_NE(queue, MBUS_Q_INVALID) << std::strerror(errno);
    }
    void TearDown() override
    {
        server.start();
        await_link();
        if (queue != MBUS_Q_INVALID)
            mbus_unbind(queue, 0);
        for (const mbus_q other : others)
            mbus_unbind(other, 0);
    }
    // After stop() the library needs a moment to come back.
    static bool await_link()
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (!corvane::connection_ensure() && std::chrono::steady_clock::now() < deadline)
            poll(nullptr, 0, 5);
        return corvane::connection_up();
    }
    static mbus_q_attr attributes(std::uint32_t depth)
    {
        mbus_q_attr attr;
        attr.depth = depth;
        attr.service = 581;
        return attr;
    }
    mbus_msg received()
    {
        mbus_msg msg;
        EXPECT_EQ(mbus_recv(queue, msg), 0);
        return msg;
    }
    static std::string payload_of(const mbus_msg &msg)
    {
        std::size_t length = 0;
        const std::uint8_t *data = mbus_payload_get(msg, &length);
        return data == nullptr ? "(none)" : std::string(data, data + length);
    }
};

TEST_F(MbusClient, BindTellsSapDepthAndName)
{
    const request *bind = server.await(BUS_BIND);
    ASSERT_NE(bind, nullptr);
    byte_reader in(bind->body);
    EXPECT_EQ(in.get<std::uint32_t>(), queue);
    EXPECT_EQ(in.get<std::uint32_t>(), SAP);
    EXPECT_EQ(in.get<std::uint32_t>(), 16u);
    EXPECT_EQ(in.get<std::uint32_t>(), 0u);
    EXPECT_EQ(in.get<std::uint32_t>(), 581u);
    EXPECT_EQ(in.text(), "test");
}

TEST_F(MbusClient, RefusedBindGivesInvalidQueueAndItsError)
{
    server.answer_with(BUS_BIND, [](byte_view) { return answer{EADDRINUSE, {}}; });
    EXPECT_EQ(mbus_bind(1, 5, attributes(1), "x"), MBUS_Q_INVALID);
    EXPECT_EQ(errno, EADDRINUSE);
}

TEST_F(MbusClient, BindChecksItsArguments)
{
    EXPECT_EQ(mbus_bind(2, 5, attributes(1), "x"), MBUS_Q_INVALID);
    EXPECT_EQ(mbus_bind(1, 5, attributes(0), "x"), MBUS_Q_INVALID);
    EXPECT_EQ(mbus_bind(1, 5, attributes(1), nullptr), MBUS_Q_INVALID);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(MbusClient, OneProcessHasALimitedNumberOfQueues)
{
    mbus_q next = mbus_bind(1, 0, attributes(1), "x");
    for (; next != MBUS_Q_INVALID; next = mbus_bind(1, 0, attributes(1), "x"))
        others.push_back(next);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(others.size(), corvane::BUS_QUEUES_MAX - 1);
}

TEST_F(MbusClient, MessagesAreReceivedInOrderWithOpcodeSourceSyncEventAndPayload)
{
    server.deliver(queue, OPCODE, bytes("one"), 99, 5);
    server.deliver(queue, OPCODE + 1, bytes("two"));
    mbus_msg first = received();
    mbus_msg second = received();
    EXPECT_EQ(mbus_opc_get(first), OPCODE);
    EXPECT_EQ(mbus_saddr_get(first).sap, 99u);
    EXPECT_EQ(mbus_sync_event_get(first), 5u);
    EXPECT_EQ(payload_of(first), "one");
    EXPECT_EQ(mbus_opc_get(second), OPCODE + 1);
    EXPECT_EQ(mbus_sync_event_get(second), 0u);
    EXPECT_EQ(payload_of(second), "two");
    EXPECT_EQ(mbus_drop(queue, first), 0);
    EXPECT_EQ(payload_of(second), "two");
    EXPECT_EQ(mbus_drop(queue, second), 0);
}

TEST_F(MbusClient, DropEmptiesTheHandleAndASecondDropDoesNothing)
{
    server.deliver(queue, OPCODE, bytes("x"));
    mbus_msg msg = received();
    EXPECT_EQ(mbus_drop(queue, msg), 0);
    EXPECT_EQ(msg, mbus_msg{});
    EXPECT_EQ(mbus_drop(queue, msg), 0);
}

TEST_F(MbusClient, CopyOfAHandleThatWasDroppedNamesNothingAndReleasesNobodyElses)
{
    server.deliver(queue, OPCODE, bytes("old"));
    mbus_msg msg = received();
    mbus_msg copy = msg;
    EXPECT_EQ(mbus_drop(queue, msg), 0);
    server.deliver(queue, OPCODE, bytes("new"));
    mbus_msg next = received();
    EXPECT_NE(copy, next);
    EXPECT_EQ(mbus_payload_get(copy), nullptr);
    EXPECT_EQ(mbus_drop(queue, copy), 0);
    EXPECT_EQ(payload_of(next), "new");
    EXPECT_EQ(mbus_drop(queue, next), 0);
}

TEST_F(MbusClient, DropOfAHandleThatNeverWasFailsWithEinval)
{
    mbus_msg never{{77, 1, 2, 3, 4}};
    EXPECT_EQ(mbus_drop(queue, never), -1);
    EXPECT_EQ(errno, EINVAL);
    mbus_msg beyond{{(queue & 15) + 1, 4000, 1, 0, 4}};
    EXPECT_EQ(mbus_drop(queue, beyond), -1);
}

TEST_F(MbusClient, PayloadMayBeChangedInPlace)
{
    server.deliver(queue, OPCODE, bytes("abc"));
    mbus_msg msg = received();
    mbus_payload_get(msg)[1] = 'X';
    EXPECT_EQ(payload_of(msg), "aXc");
    mbus_drop(queue, msg);
}

TEST_F(MbusClient, MessageWithoutPayloadHasNone)
{
    server.deliver(queue, OPCODE, {});
    mbus_msg msg = received();
    std::size_t length = 9;
    EXPECT_EQ(mbus_payload_get(msg, &length), nullptr);
    EXPECT_EQ(length, 0u);
    mbus_drop(queue, msg);
}

TEST_F(MbusClient, ReceivingMakesRoomAtTheSender)
{
    server.deliver(queue, OPCODE, bytes("x"));
    mbus_msg msg = received();
    mbus_drop(queue, msg);
    const request *consumed = server.await(BUS_CONSUMED);
    ASSERT_NE(consumed, nullptr);
    byte_reader in(consumed->body);
    EXPECT_EQ(in.get<std::uint32_t>(), queue);
    EXPECT_EQ(in.get<std::uint32_t>(), 1u);
}

TEST_F(MbusClient, SendsToSapAndGivesTheErrorOfTheAnswer)
{
    EXPECT_EQ(mbus_send(queue, {0, 167}, 23564, "abcd", 4, {}), 0);
    const request *send = server.await(BUS_SEND);
    ASSERT_NE(send, nullptr);
    EXPECT_EQ(send->kind, corvane::FRAME_CALL);
    EXPECT_EQ(send->body, byte_writer().put(queue).put(0u).put(167u).put(23564u).put(0u).put(0u).raw(bytes("abcd")).take());

    for (const int error : {ENOENT, EAGAIN}) {
        server.answer_with(BUS_SEND, [error](byte_view) { return answer{static_cast<std::uint32_t>(error), {}}; });
        EXPECT_EQ(mbus_send(queue, {0, 167}, 1, nullptr, 0, {}), -1);
        EXPECT_EQ(errno, error);
    }
}

TEST_F(MbusClient, SendsNotificationWithoutWaitingForAnybody)
{
    mbus_send_options options;
    options.want_ack = 1;
    options.sync_event = 3;
    EXPECT_EQ(mbus_send(queue, {MBUS_NOTIFY_DESTINATION, 0}, OPCODE, "n", 1, options), 0);
    const request *send = server.await(BUS_SEND);
    ASSERT_NE(send, nullptr);
    EXPECT_EQ(send->kind, corvane::FRAME_ONEWAY);
    EXPECT_EQ(send->body,
              byte_writer().put(queue).put(MBUS_NOTIFY_DESTINATION).put(0u).put(OPCODE).put(3u).put(1u).raw(bytes("n")).take());
}

TEST_F(MbusClient, JoinsThePiecesOfAPayload)
{
    const mbus_segment pieces[] = {{"ab", 2}, {nullptr, 0}, {"cde", 3}};
    mbus_send_options options;
    options.segments = pieces;
    options.segment_count = 3;
    EXPECT_EQ(mbus_send(queue, {0, 1}, OPCODE, "ignored", 7, options), 0);
    const request *send = server.await(BUS_SEND);
    ASSERT_NE(send, nullptr);
    EXPECT_EQ(std::string(send->body.begin() + 24, send->body.end()), "abcde");
}

TEST_F(MbusClient, RefusesWhatIsTooLongOrMalformed)
{
    const std::vector<std::uint8_t> large(corvane::BUS_PAYLOAD_MAX + 1);
    EXPECT_EQ(mbus_send(queue, {0, 1}, 1, large.data(), large.size(), {}), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_EQ(mbus_send(queue, {0, 1}, 1, large.data(), corvane::BUS_PAYLOAD_MAX, {}), 0);
    EXPECT_EQ(mbus_send(queue, {0, 1}, 1, nullptr, 5, {}), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(mbus_send(MBUS_Q_INVALID, {0, 1}, 1, nullptr, 0, {}), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(MbusClient, PreUnbindWakesAWaitingReceiveWithEpipe)
{
    std::atomic<int> result{0};
    std::thread waiting([&] {
        mbus_msg msg;
        result = mbus_recv(queue, msg) == -1 ? errno : 1;
    });
    EXPECT_FALSE(mbus_is_pre_unbind(queue));
    EXPECT_EQ(mbus_pre_unbind(queue), 0);
    waiting.join();
    EXPECT_EQ(result, EPIPE);
    EXPECT_TRUE(mbus_is_pre_unbind(queue));
}

TEST_F(MbusClient, PreUnbindStillHandsOutWhatWaits)
{
    server.deliver(queue, OPCODE, bytes("last"));
    mbus_msg first = received();
    server.deliver(queue, OPCODE, bytes("really last"));
    server.await(BUS_CONSUMED);
    // The delivery is there when a later answer on the same connection is.
    (void)corvane::call(BUS_OPTION, {});
    mbus_pre_unbind(queue);
    mbus_msg second = received();
    EXPECT_EQ(payload_of(second), "really last");
    mbus_msg third;
    EXPECT_EQ(mbus_recv(queue, third), -1);
    EXPECT_EQ(errno, EPIPE);
    mbus_drop(queue, first);
    mbus_drop(queue, second);
}

TEST_F(MbusClient, UnboundQueueEndsItsReceiversAndIsNoQueueAnyMore)
{
    std::atomic<int> result{0};
    const mbus_q mine = queue;
    std::thread waiting([&] {
        mbus_msg msg;
        result = mbus_recv(mine, msg) == -1 ? errno : 1;
    });
    server.await(BUS_BIND);
    EXPECT_EQ(mbus_unbind(queue, 0), 0);
    waiting.join();
    EXPECT_EQ(result, EPIPE);
    EXPECT_TRUE(mbus_is_pre_unbind(mine));
    EXPECT_EQ(mbus_unbind(mine, 0), -1);
    queue = mbus_bind(1, SAP, attributes(1), "again");
    EXPECT_NE(queue, mine) << "the number of a queue is not used again at once";
}

TEST_F(MbusClient, BindsAndSubscribesAgainAfterTheConnectionWasLost)
{
    ASSERT_EQ(mbus_options_set(queue, OPCODE, 16), 0);
    ASSERT_EQ(mbus_options_set(queue, OPCODE + 1, 17), 0);
    server.deliver(queue, OPCODE, bytes("kept"));
    (void)corvane::call(BUS_OPTION, {});
    server.forget();

    server.disconnect();

    const request *bind = server.await(BUS_BIND);
    ASSERT_NE(bind, nullptr);
    byte_reader in(bind->body);
    EXPECT_EQ(in.get<std::uint32_t>(), queue);
    EXPECT_EQ(in.get<std::uint32_t>(), SAP);
    (void)in.get<std::uint32_t>();
    EXPECT_EQ(in.get<std::uint32_t>(), 1u) << "what waits still counts";
    const request *option = server.await(BUS_OPTION, 2);
    ASSERT_NE(option, nullptr);
    EXPECT_EQ(option->body, byte_writer().put(queue).put(OPCODE + 1).put(17u).take());
    mbus_msg msg = received();
    EXPECT_EQ(payload_of(msg), "kept");
    mbus_drop(queue, msg);
}

TEST_F(MbusClient, BindingWhoseAnswerIsLostIsMadeAgain)
{
    std::atomic<bool> lost{false};
    server.answer_with(BUS_BIND, [&](byte_view request) {
        byte_reader in(request);
        if (in.get<std::uint32_t>() != queue && !lost.exchange(true)) {
            server.disconnect();
            return answer{0, {}, true};
        }
        return answer{0, byte_writer().put(in.get<std::uint32_t>() + 100).take()};
    });
    const mbus_q second = mbus_bind(1, 7, attributes(1), "second");
    EXPECT_TRUE(lost);
    ASSERT_NE(second, MBUS_Q_INVALID);
    EXPECT_EQ(mbus_unbind(second, 0), 0);
}

TEST_F(MbusClient, ReceiveWaitsThroughALostConnection)
{
    std::string got;
    std::thread waiting([&] {
        mbus_msg msg;
        if (mbus_recv(queue, msg) == 0)
            got = payload_of(msg);
        mbus_drop(queue, msg);
    });
    server.forget();
    server.disconnect();
    ASSERT_NE(server.await(BUS_BIND), nullptr);
    server.deliver(queue, OPCODE, bytes("after"));
    waiting.join();
    EXPECT_EQ(got, "after");
}

TEST_F(MbusClient, CallsFailWithEnotconnWhileThePlatformIsGone)
{
    server.stop();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (corvane::connection_up() && std::chrono::steady_clock::now() < deadline)
        poll(nullptr, 0, 1);
    EXPECT_EQ(mbus_send(queue, {0, 1}, 1, nullptr, 0, {}), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(mbus_send(queue, {MBUS_NOTIFY_DESTINATION, 0}, 1, nullptr, 0, {}), -1);
    EXPECT_EQ(errno, ENOTCONN);
}

TEST_F(MbusClient, CallThatLosesItsConnectionFailsAtOnce)
{
    server.answer_with(BUS_SEND, [&](byte_view) {
        server.disconnect();
        return answer{0, {}, true};
    });
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(mbus_send(queue, {0, 1}, 1, nullptr, 0, {}), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
}

TEST_F(MbusClient, DeliveryToAQueueThatIsNotThereIsIgnored)
{
    server.deliver(queue + 16, OPCODE, bytes("lost"));
    server.send(corvane::FRAME_DELIVER, queue, bytes("short"));
    server.deliver(queue, OPCODE, bytes("found"));
    mbus_msg msg = received();
    EXPECT_EQ(payload_of(msg), "found");
    mbus_drop(queue, msg);
}

// ---- local sources

struct counting_source : corvane::mbus_local_source {
    int ready_fd = eventfd(0, EFD_NONBLOCK);
    std::uint32_t frames = 0, dropped = 0;
    std::uint8_t frame[4] = {'f', 'r', 'a', 'm'};

    ~counting_source() { close(ready_fd); }
    void offer()
    {
        const std::uint64_t one = 1;
        EXPECT_EQ(write(ready_fd, &one, sizeof one), 8);
    }
    corvane::local_receive receive(mbus_msg &out, int wake_fd) override
    {
        pollfd fds[] = {{ready_fd, POLLIN, 0}, {wake_fd, POLLIN, 0}};
        poll(fds, 2, -1);
        std::uint64_t count = 0;
        if (read(ready_fd, &count, sizeof count) != 8)
            return corvane::local_receive::WOKEN;
        out = {{0, ++frames, 0, 0, 0x16004}};
        return corvane::local_receive::MESSAGE;
    }
    std::uint8_t *payload(const mbus_msg &msg, std::size_t *length) override
    {
        if (length != nullptr)
            *length = sizeof frame;
        return msg.word[1] > dropped ? frame : nullptr;
    }
    int drop(const mbus_msg &msg) override
    {
        if (msg.word[1] == 0 || msg.word[1] > frames) {
            errno = EINVAL;
            return -1;
        }
        dropped = msg.word[1];
        return 0;
    }
};

struct MbusLocalSource : MbusClient {
    counting_source source;
    void SetUp() override
    {
        MbusClient::SetUp();
        ASSERT_TRUE(corvane::mbus_local_attach(queue, &source));
    }
    void TearDown() override
    {
        if (queue != MBUS_Q_INVALID)
            corvane::mbus_local_detach(queue);
        MbusClient::TearDown();
    }
};

TEST_F(MbusLocalSource, FramesComeThroughTheSameReceiveAndAccessors)
{
    source.offer();
    mbus_msg msg = received();
    EXPECT_EQ(mbus_opc_get(msg), 0x16004u);
    EXPECT_EQ(payload_of(msg), "fram");
    EXPECT_EQ(mbus_saddr_get(msg).sap, 0u);
    EXPECT_EQ(mbus_sync_event_get(msg), 0u);
    mbus_msg copy = msg;
    EXPECT_EQ(mbus_drop(queue, msg), 0);
    EXPECT_EQ(source.dropped, 1u);
    EXPECT_EQ(msg, mbus_msg{});
    EXPECT_EQ(mbus_drop(queue, msg), 0);
    EXPECT_EQ(mbus_payload_get(copy), nullptr);
}

TEST_F(MbusLocalSource, BusMessageWakesAReceiveThatWaitsForFrames)
{
    std::thread sender([&] { server.deliver(queue, OPCODE, bytes("bus")); });
    mbus_msg msg = received();
    sender.join();
    EXPECT_EQ(payload_of(msg), "bus");
    mbus_drop(queue, msg);
}

TEST_F(MbusLocalSource, PreUnbindWakesAReceiveThatWaitsForFrames)
{
    std::atomic<int> result{0};
    std::thread waiting([&] {
        mbus_msg msg;
        result = mbus_recv(queue, msg) == -1 ? errno : 1;
    });
    mbus_pre_unbind(queue);
    waiting.join();
    EXPECT_EQ(result, EPIPE);
}

TEST_F(MbusLocalSource, SecondSourceIsRefusedAndDetachingWaitsForTheReceive)
{
    counting_source other;
    EXPECT_FALSE(corvane::mbus_local_attach(queue, &other));
    std::thread waiting([&] {
        mbus_msg msg;
        EXPECT_EQ(mbus_recv(queue, msg), 0);
        EXPECT_EQ(payload_of(msg), "bus only");
        mbus_drop(queue, msg);
    });
    corvane::mbus_local_detach(queue);
    EXPECT_TRUE(corvane::mbus_local_attach(queue, &other));
    corvane::mbus_local_detach(queue);
    server.deliver(queue, OPCODE, bytes("bus only"));
    waiting.join();
    EXPECT_EQ(other.frames, 0u);
}

TEST_F(MbusLocalSource, HandleTheSourceNeverGaveFailsWithEinval)
{
    mbus_msg never{{corvane::MBUS_LOCAL_MARK | ((queue & 15) + 1), 9, 0, 0, 0x16004}};
    EXPECT_EQ(mbus_drop(queue, never), -1);
    EXPECT_EQ(errno, EINVAL);
}

} // namespace
} // namespace corvane_test
