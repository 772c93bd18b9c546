// Message bus: queues on SAPs, notifications, the life of a message.
#include "contract_test.h"

#include <array>
#include <thread>

using namespace contract;
using testing::ElementsAre;

namespace {

constexpr std::uint32_t SAP = 600, OTHER_SAP = 601, NOBODY = 699;
constexpr std::uint32_t OPCODE = 0x70001, NEWS = 0x70002, LAST = 0x70003;

class ContractBus : public ContractTest {};

TEST_F(ContractBus, CarriesOpcodePayloadAndSourceToTheSap)
{
    const mbus_q a = bind(SAP), b = bind(OTHER_SAP);
    ASSERT_EQ(send(a, OTHER_SAP, OPCODE, text("hello")), 0);
    mbus_msg msg;
    ASSERT_TRUE(receive(b, msg));
    EXPECT_EQ(mbus_opc_get(msg), OPCODE);
    EXPECT_EQ(payload(msg), text("hello"));
    EXPECT_EQ(mbus_saddr_get(msg).sap, SAP);
    EXPECT_EQ(mbus_sync_event_get(msg), 0u);
    EXPECT_EQ(mbus_drop(b, msg), 0);
}

TEST_F(ContractBus, KeepsTheOrderOfASender)
{
    const mbus_q a = bind(SAP), b = bind(OTHER_SAP);
    for (std::uint32_t i = 0; i < 50; ++i)
        ASSERT_EQ(send(a, OTHER_SAP, OPCODE + i), 0);
    for (std::uint32_t i = 0; i < 50; ++i)
        ASSERT_EQ(next_opcode(b), OPCODE + i);
}

TEST_F(ContractBus, GivesASapToOneQueueAtATime)
{
    const mbus_q a = bind(SAP);
    EXPECT_EQ(mbus_bind(1, SAP, {}, "second"), MBUS_Q_INVALID);
    EXPECT_EQ(errno, EADDRINUSE);
    unbind(a);
    EXPECT_NE(bind(SAP), MBUS_Q_INVALID);
}

TEST_F(ContractBus, FindsAFreeSapForAQueueThatNamesNone)
{
    const mbus_q a = bind(SAP), b = bind(0), c = bind(0);
    ASSERT_EQ(send(b, SAP, OPCODE), 0);
    ASSERT_EQ(send(c, SAP, OPCODE), 0);
    mbus_msg first, second;
    ASSERT_TRUE(receive(a, first));
    ASSERT_TRUE(receive(a, second));
    const std::uint32_t sap_b = mbus_saddr_get(first).sap;
    EXPECT_NE(sap_b, 0u);
    EXPECT_NE(sap_b, mbus_saddr_get(second).sap);
    ASSERT_EQ(send(a, sap_b, OPCODE + 1), 0);
    EXPECT_EQ(next_opcode(b), OPCODE + 1);
    mbus_drop(a, first);
    mbus_drop(a, second);
}

TEST_F(ContractBus, RefusesASapThatNobodyBound)
{
    const mbus_q a = bind(SAP);
    EXPECT_EQ(send(a, NOBODY, OPCODE), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(ContractBus, RefusesMoreThanAQueueHolds)
{
    const mbus_q a = bind(SAP), b = bind(OTHER_SAP, 2);
    EXPECT_EQ(send(a, OTHER_SAP, OPCODE), 0);
    EXPECT_EQ(send(a, OTHER_SAP, OPCODE), 0);
    EXPECT_EQ(send(a, OTHER_SAP, OPCODE), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(next_opcode(b), OPCODE);
    EXPECT_EQ(next_opcode(b), OPCODE);
    EXPECT_TRUE(eventually([&] { return send(a, OTHER_SAP, OPCODE) == 0; })) << "what was received makes room";
}

TEST_F(ContractBus, NotifiesThoseThatSubscribedToTheOpcode)
{
    const mbus_q a = bind(SAP), b = bind(OTHER_SAP), c = bind(OTHER_SAP + 1);
    ASSERT_EQ(mbus_options_set(a, NEWS, 16), 0);
    ASSERT_EQ(mbus_options_set(b, NEWS, 17), 0);
    ASSERT_EQ(notify(c, NEWS, text("n")), 0);
    mbus_msg msg;
    ASSERT_TRUE(receive(a, msg));
    EXPECT_EQ(mbus_opc_get(msg), NEWS);
    EXPECT_EQ(payload(msg), text("n"));
    mbus_drop(a, msg);
    EXPECT_EQ(next_opcode(b), NEWS);
    ASSERT_EQ(send(a, OTHER_SAP + 1, OPCODE), 0);
    EXPECT_EQ(next_opcode(c), OPCODE) << "nothing of the notification came here";
}

TEST_F(ContractBus, NotificationWithoutSubscribersSucceeds)
{
    EXPECT_EQ(notify(bind(SAP), NEWS), 0);
}

TEST_F(ContractBus, TellsASubscribedSenderItsOwnNews)
{
    const mbus_q a = bind(SAP);
    ASSERT_EQ(mbus_options_set(a, NEWS, 16), 0);
    ASSERT_EQ(notify(a, NEWS), 0);
    EXPECT_EQ(next_opcode(a), NEWS);
}

TEST_F(ContractBus, KeepsTheLastMessageOfAnOpcodeForALateSubscriber)
{
    const mbus_q a = bind(SAP), b = bind(OTHER_SAP);
    ASSERT_EQ(mbus_options_set(a, LAST, 3), 0);
    ASSERT_EQ(notify(a, LAST, text("old")), 0);
    ASSERT_EQ(notify(a, LAST, text("new")), 0);
    ASSERT_EQ(mbus_options_set(b, LAST, 16), 0);
    mbus_msg msg;
    ASSERT_TRUE(receive(b, msg));
    EXPECT_EQ(payload(msg), text("new"));
    mbus_drop(b, msg);
    ASSERT_EQ(send(b, SAP, OPCODE), 0);
    EXPECT_EQ(next_opcode(a), OPCODE) << "keeping is not subscribing";
}

TEST_F(ContractBus, CarriesSyncEventsAndJoinedSegments)
{
    const mbus_q a = bind(SAP), b = bind(OTHER_SAP);
    const bytes first = text("ab"), second = text("cd");
    const std::array<mbus_segment, 2> segments{{{first.data(), first.size()}, {second.data(), second.size()}}};
    mbus_send_options options;
    options.sync_event = 7;
    options.segments = segments.data();
    options.segment_count = 2;
    ASSERT_EQ(mbus_send(a, {0, OTHER_SAP}, OPCODE, nullptr, 0, options), 0);
    mbus_msg msg;
    ASSERT_TRUE(receive(b, msg));
    EXPECT_EQ(mbus_sync_event_get(msg), 7u);
    EXPECT_EQ(payload(msg), text("abcd"));
    mbus_drop(b, msg);
}

TEST_F(ContractBus, CarriesPayloadsOfEverySizeUpToItsLimit)
{
    const mbus_q a = bind(SAP), b = bind(OTHER_SAP);
    for (const std::size_t size : {std::size_t{1}, std::size_t{4095}, std::size_t{60000}, std::size_t{65536},
                                   std::size_t{160} * 1024}) {
        const bytes sent = counting(size);
        ASSERT_EQ(send(a, OTHER_SAP, OPCODE, sent), 0) << size << ' ' << std::strerror(errno);
        mbus_msg msg;
        ASSERT_TRUE(receive(b, msg)) << size;
        EXPECT_EQ(payload(msg), sent);
        mbus_drop(b, msg);
    }
    EXPECT_EQ(send(a, OTHER_SAP, OPCODE, counting(160 * 1024 + 1)), -1);
    EXPECT_EQ(errno, EMSGSIZE);
}

TEST_F(ContractBus, GivesNoPayloadForAnEmptyMessage)
{
    const mbus_q a = bind(SAP);
    ASSERT_EQ(send(a, SAP, OPCODE), 0);
    mbus_msg msg;
    ASSERT_TRUE(receive(a, msg));
    std::size_t length = 9;
    EXPECT_EQ(mbus_payload_get(msg, &length), nullptr);
    EXPECT_EQ(length, 0u);
    mbus_drop(a, msg);
}

TEST_F(ContractBus, PayloadIsWritableUntilTheDrop)
{
    const mbus_q a = bind(SAP);
    ASSERT_EQ(send(a, SAP, OPCODE, text("abc")), 0);
    mbus_msg msg;
    ASSERT_TRUE(receive(a, msg));
    mbus_payload_get(msg)[1] = 'x';
    EXPECT_EQ(payload(msg), text("axc"));
    mbus_drop(a, msg);
}

TEST_F(ContractBus, DropEmptiesTheHandleSoThatASecondDoesNothing)
{
    const mbus_q a = bind(SAP);
    ASSERT_EQ(send(a, SAP, OPCODE, text("abc")), 0);
    mbus_msg msg;
    ASSERT_TRUE(receive(a, msg));
    EXPECT_NE(msg, mbus_msg{});
    EXPECT_EQ(mbus_drop(a, msg), 0);
    EXPECT_EQ(msg, mbus_msg{});
    EXPECT_EQ(mbus_drop(a, msg), 0);
}

TEST_F(ContractBus, RecognisesAHandleWhoseMessageIsGone)
{
    const mbus_q a = bind(SAP);
    ASSERT_EQ(send(a, SAP, OPCODE, text("one")), 0);
    mbus_msg msg;
    ASSERT_TRUE(receive(a, msg));
    mbus_msg copy = msg;
    mbus_drop(a, msg);
    ASSERT_EQ(send(a, SAP, OPCODE, text("two")), 0);
    mbus_msg next;
    ASSERT_TRUE(receive(a, next));
    EXPECT_NE(next, copy);
    EXPECT_EQ(mbus_payload_get(copy), nullptr);
    EXPECT_EQ(mbus_drop(a, copy), 0);
    EXPECT_EQ(payload(next), text("two")) << "the stale drop did not reach it";
    mbus_drop(a, next);
}

TEST_F(ContractBus, RefusesToDropWhatIsNoMessageOfTheQueue)
{
    const mbus_q a = bind(SAP), b = bind(OTHER_SAP);
    mbus_msg never{{0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF}};
    EXPECT_EQ(mbus_drop(a, never), -1);
    EXPECT_EQ(errno, EINVAL);
    ASSERT_EQ(send(a, SAP, OPCODE, text("one")), 0);
    mbus_msg msg;
    ASSERT_TRUE(receive(a, msg));
    EXPECT_EQ(mbus_drop(b, msg), -1);
    EXPECT_EQ(payload(msg), text("one"));
    EXPECT_EQ(mbus_drop(a, msg), 0);
}

TEST_F(ContractBus, PreUnbindLetsWaitingMessagesOutAndThenEndsTheLoop)
{
    const mbus_q a = bind(SAP);
    ASSERT_EQ(send(a, SAP, OPCODE), 0);
    ASSERT_EQ(send(a, SAP, OPCODE + 1), 0);
    EXPECT_EQ(next_opcode(a), OPCODE);
    EXPECT_FALSE(mbus_is_pre_unbind(a));
    EXPECT_EQ(mbus_pre_unbind(a), 0);
    EXPECT_TRUE(mbus_is_pre_unbind(a));
    mbus_msg msg;
    ASSERT_EQ(mbus_recv(a, msg), 0);
    EXPECT_EQ(mbus_opc_get(msg), OPCODE + 1);
    mbus_drop(a, msg);
    EXPECT_EQ(mbus_recv(a, msg), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(ContractBus, PreUnbindEndsAReceiveThatWaits)
{
    const mbus_q a = bind(SAP);
    int result = 0, error = 0;
    std::thread receiver([&] {
        mbus_msg msg;
        result = mbus_recv(a, msg);
        error = errno;
    });
    let_pass(milliseconds(50));
    mbus_pre_unbind(a);
    receiver.join();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, EPIPE);
}

} // namespace
