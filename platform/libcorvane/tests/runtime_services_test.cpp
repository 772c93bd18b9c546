// The services that a process talks to: service manager, route table, feature manager, HA kit.
#include "runtime_process.h"

#include "../../wire/rtab.h"
#include "../../wire/sdb.h"

#include "featmgr.h"
#include "rtab.h"

#include <atomic>
#include <numeric>
#include <thread>

namespace corvane_test {

std::vector<std::string> told;
void (*set_up)() = nullptr;

} // namespace corvane_test

int svcmgrcb_process_state_changed(const svcmgr_notification *notification, std::uint32_t state)
{
    corvane_test::told.push_back("state " + std::to_string(svcmgr_srv_notification_uuid_get(notification)) + " " +
                                 std::to_string(state));
    return 0;
}

int svcmgrcb_srv_hs_state_query(std::uint32_t client, std::uint32_t service, std::uint32_t flags, std::uint32_t done)
{
    corvane_test::told.push_back("query " + std::to_string(client) + " " + std::to_string(service) + " " +
                                 std::to_string(flags) + " " + std::to_string(done));
    if (corvane_test::set_up != nullptr)
        corvane_test::set_up();
    return 0;
}

int svcmgrcb_switchover(const svcmgr_request *request, std::uint32_t hot, std::uint32_t, std::uint32_t,
                        std::uint32_t mismatch)
{
    corvane_test::told.push_back("switchover " + std::to_string(hot) + " " + std::to_string(mismatch));
    svcmgr_switchover_done(request, 0);
    return 0;
}

int svcmgrcb_conditional_srv_cleanup_start(const svcmgr_request *, std::uint32_t reason)
{
    corvane_test::told.push_back(std::string("cleanup ") + hakit_stop_type_str(reason));
    return 0;
}

int svcmgrcb_conditional_srv_cleanup_status(const svcmgr_request *, std::uint32_t status)
{
    corvane_test::told.push_back("cleanup status " + std::to_string(status));
    return 1;
}

namespace corvane_test {
namespace {

struct Services : Process {};

// ---- service manager

TEST_F(Services, RoleIsWhatTheServiceManagerSays)
{
    for (const std::uint32_t role : {1u, 0u}) {
        server.answer_with(corvane::SVCMGR_INFO, [role](byte_view) {
            return answer{0, byte_writer().put(role).put(corvane::START_REASON_SWITCHOVER).put(1000u).take()};
        });
        EXPECT_EQ(svcmgr_supstate_get(), static_cast<int>(role));
        EXPECT_STREQ(hakit_start_type_str(hakit_get_start_reason()), "switchover");
    }
    EXPECT_GE(svcmgr_heartbeat_timeout_get(), 1000u);
}

TEST_F(Services, MessagesOfTheServiceManagerBecomeCallbacks)
{
    EXPECT_EQ(dispatched(corvane::SVCMGR_OPC_STATE, byte_writer().put(286u).put(SVCMGR_STATE_DOWN).view()), 0);
    EXPECT_EQ(dispatched(corvane::SVCMGR_OPC_QUERY_ANSWER, byte_writer().put(581u).put(582u).put(0u).put(1u).view()), 0);
    EXPECT_EQ(dispatched(corvane::SVCMGR_OPC_SWITCHOVER,
                         byte_writer().put(std::uint64_t{9}).put(1u).put(0u).put(0u).put(1u).view()), 0);
    EXPECT_EQ(dispatched(corvane::SVCMGR_OPC_CLEANUP_START,
                         byte_writer().put(std::uint64_t{9}).put(corvane::STOP_REASON_SHUTDOWN).view()), 0);
    EXPECT_EQ(dispatched(corvane::SVCMGR_OPC_CLEANUP_STATUS, byte_writer().put(std::uint64_t{9}).put(16u).view()), 1)
        << "the callback's own result";
    EXPECT_THAT(told, ElementsAre("state 286 1", "query 581 582 0 1", "switchover 1 1", "cleanup platform shutdown",
                                  "cleanup status 16"));
    const request *done = server.await(corvane::SVCMGR_SWITCHOVER_DONE);
    ASSERT_NE(done, nullptr);
    EXPECT_EQ(done->body, byte_writer().put(std::uint64_t{9}).put(0u).take());
}

TEST_F(Services, OthersCannotSpeakForTheServiceManager)
{
    EXPECT_EQ(dispatched(corvane::SVCMGR_OPC_CLEANUP_START, byte_writer().put(std::uint64_t{9}).put(1u).view(), 500), -1);
    EXPECT_EQ(dispatched(0x13404, {}), -1);
    EXPECT_THAT(told, IsEmpty());
}

TEST_F(Services, MalformedMessageOfTheServiceManagerIsTakenAndIgnored)
{
    for (const std::uint32_t opcode : {corvane::SVCMGR_OPC_STATE, corvane::SVCMGR_OPC_QUERY_ANSWER,
                                       corvane::SVCMGR_OPC_SWITCHOVER, corvane::SVCMGR_OPC_CLEANUP_START})
        EXPECT_EQ(dispatched(opcode, bytes("abc")), 0) << opcode;
    EXPECT_THAT(told, IsEmpty());
}

TEST_F(Services, ShakesHandsAgainAndAsksOnlyForNewsAfterAReconnect)
{
    ASSERT_TRUE(svcmgr_handshake(queue, 581));
    EXPECT_TRUE(svcmgr_conditional_srv_was_handshake_done());
    svcmgr_query_srv_hs_state(582);
    const request *query = server.await(corvane::SVCMGR_QUERY);
    ASSERT_NE(query, nullptr);
    EXPECT_EQ(query->body, byte_writer().put(582u).put(0u).take());
    dispatched(corvane::SVCMGR_OPC_QUERY_ANSWER, byte_writer().put(581u).put(582u).put(0u).put(1u).view());
    server.forget();

    server.disconnect();

    const request *handshake = server.await(corvane::SVCMGR_HANDSHAKE);
    ASSERT_NE(handshake, nullptr);
    EXPECT_EQ(handshake->body, byte_writer().put(queue).put(581u).take());
    bool asked = false;
    for (std::size_t n = 1; const request *again = server.await(corvane::SVCMGR_QUERY, n); ++n)
        if ((asked = again->body == byte_writer().put(582u).put(SVCMGR_STATE_UP).take()))
            break;
    EXPECT_TRUE(asked);
    EXPECT_LT(server.all().front().method, corvane::SVCMGR_HANDSHAKE) << "queues are bound first";
}

TEST_F(Services, HandshakeWhoseAnswerIsLostIsMadeAgainWithTheNextConnection)
{
    svcmgr_query_srv_hs_state(582);                            // what it asks for is asked again, too
    std::atomic<bool> lost{false};
    server.answer_with(corvane::SVCMGR_HANDSHAKE, [&](byte_view) {
        if (lost.exchange(true))
            return answer{};
        server.disconnect();
        return answer{0, {}, true};
    });
    EXPECT_FALSE(svcmgr_handshake(queue, 581));
    const request *handshake = server.await(corvane::SVCMGR_HANDSHAKE, 2);
    ASSERT_NE(handshake, nullptr);
    EXPECT_EQ(handshake->body, byte_writer().put(queue).put(581u).take());
    await_up();
    EXPECT_TRUE(svcmgr_conditional_srv_was_handshake_done());
}

TEST_F(Services, NobodyIsHeardAheadOfTheGreetingOfANewConnection)
{
    const std::size_t before = server.connections();
    std::atomic<bool> over{false};
    std::thread beating([&] {
        while (!over)
            svcmgr_heartbeat(0);
    });
    for (int i = 0; i < 20; ++i) {
        await_up();
        server.disconnect();
    }
    over = true;
    beating.join();
    await_up();
    EXPECT_GE(server.connections(), before + 10);
    EXPECT_EQ(server.ungreeted(), 0u);
}

TEST_F(Services, ServiceWhoseSetUpGotNoQueueIsAskedForAgain)
{
    server.answer_with(corvane::BUS_BIND, [](byte_view) { return answer{ENOMEM, {}}; });
    set_up = [] {
        EXPECT_EQ(mbus_bind(1, 0, mbus_q_attr{}, "part"), MBUS_Q_INVALID);
        EXPECT_EQ(errno, ENOMEM);
    };
    dispatched(corvane::SVCMGR_OPC_QUERY_ANSWER, byte_writer().put(581u).put(263u).put(0u).put(1u).view());
    set_up = nullptr;
    server.forget();
    EXPECT_EQ(mbus_bind(2, 0, mbus_q_attr{}, "of no service"), MBUS_Q_INVALID);
    const request *query = nullptr;
    for (int second = 0; second < 5 && query == nullptr; ++second) {
        svcmgr_heartbeat(0);
        poll(nullptr, 0, 1000);
        settle();
        query = server.count(corvane::SVCMGR_QUERY) == 0 ? nullptr : server.await(corvane::SVCMGR_QUERY);
    }
    ASSERT_NE(query, nullptr);
    EXPECT_EQ(query->body, byte_writer().put(263u).put(0u).take());
}

// ---- the route table's client

TEST_F(Services, UpdatesOfATableWhoseOpeningFailedAreSentOnceItIsOpen)
{
    std::vector<std::uint8_t> update(RTAB_UPDATE_HEADER + 2 * RTAB_UPDATE_STRIDE);
    std::iota(update.begin(), update.end(), std::uint8_t{1});
    const auto offer = [&](std::uint16_t count) { return rtab_update_route(update.data(), count, 0, 0); };
    EXPECT_EQ(offer(1), 0) << "nobody opened it yet";
    server.answer_with(corvane::RTAB_OPEN, [](byte_view) { return answer{ENOMEM, {}}; });
    server.answer_with(corvane::RTAB_UPDATE, [](byte_view) { return answer{0, byte_writer().put(0u).take()}; });
    EXPECT_FALSE(rtab_api_init(queue, "test", 0));
    EXPECT_EQ(offer(2), 1);
    EXPECT_EQ(offer(1), 1);
    EXPECT_EQ(server.count(corvane::RTAB_UPDATE), 0u);

    (void)shared_page<corvane::rtab_shared>(corvane::RTAB_SHM);
    server.answer_with(corvane::RTAB_OPEN, [](byte_view) { return answer{0, byte_writer().put(581u).take()}; });
    ASSERT_TRUE(rtab_api_init(queue, "test", 0));
    ASSERT_EQ(server.count(corvane::RTAB_UPDATE), 2u);
    const byte_view whole(update);
    const byte_view header = whole.first(RTAB_UPDATE_HEADER);
    const auto sent = [&](std::uint32_t count) {
        return byte_writer().raw(header).put(count).raw(whole.subspan(header.size(), count * RTAB_UPDATE_STRIDE)).take();
    };
    EXPECT_EQ(server.await(corvane::RTAB_UPDATE, 1)->body, sent(2));
    EXPECT_EQ(server.await(corvane::RTAB_UPDATE, 2)->body, sent(1));

    EXPECT_TRUE(rtab_api_close());
    EXPECT_EQ(offer(1), 0) << "closed by its user, not lost";
    ASSERT_TRUE(rtab_api_init(queue, "test", 0));
    EXPECT_EQ(server.count(corvane::RTAB_UPDATE), 2u) << "nothing is sent twice";
    EXPECT_TRUE(rtab_api_close());
}

TEST_F(Services, HeartbeatsAreSentWithoutWaiting)
{
    svcmgr_heartbeat(1);
    const request *beat = server.await(corvane::SVCMGR_HEARTBEAT);
    ASSERT_NE(beat, nullptr);
    EXPECT_EQ(beat->kind, corvane::FRAME_ONEWAY);
}

TEST_F(Services, CleanupGivesTheErrorOfTheServiceManager)
{
    EXPECT_EQ(svcmgr_conditional_srv_cleanup(0), 0);
    server.answer_with(corvane::SVCMGR_CLEANUP, [](byte_view) { return answer{EBUSY, {}}; });
    EXPECT_EQ(svcmgr_conditional_srv_cleanup(0), EBUSY);
    EXPECT_STREQ(hakit_syserr2str(EBUSY), std::strerror(EBUSY));
}

TEST_F(Services, FeatureAnswerGoesToTheFeatureManagerOrWhoeverAsked)
{
    const auto payload = byte_writer().put(581u).put(4u).take();
    mbus_msg asked = message(corvane::FEATMGR_OPC_ENABLE, payload, corvane::FEATMGR_SAP);
    featmgr_rsp_feature_req(queue, asked, 0);
    mbus_drop(queue, asked);
    const request *answered = server.await(corvane::SVCMGR_FEATURE_ANSWER);
    ASSERT_NE(answered, nullptr);
    EXPECT_EQ(answered->body, byte_writer().put(581u).put(4u).put(0u).take());

    asked = message(corvane::FEATMGR_OPC_DISABLE, {}, 600);
    featmgr_rsp_feature_req(queue, asked, 7);
    mbus_drop(queue, asked);
    const request *sent = server.await(corvane::BUS_SEND);
    ASSERT_NE(sent, nullptr);
    EXPECT_EQ(sent->body, byte_writer().put(queue).put(0u).put(600u).put(corvane::FEATMGR_OPC_ANSWER).put(0u).put(0u)
                              .put(581u).put(0u).put(7u).take());
}

// ---- HA kit

TEST_F(Services, NamesOfServicesAndReasons)
{
    EXPECT_STREQ(hakit_get_name_from_uuid(582), "rtab");
    EXPECT_STREQ(hakit_get_name_from_uuid(263), "pktmgr");
    EXPECT_STREQ(hakit_get_name_from_uuid(4711), "unknown");
    EXPECT_STREQ(hakit_start_type_str(99), "unknown");
    EXPECT_STREQ(hakit_syserr2str(0), "success");
}

int switchovers = 0, switchovers_done = 0;

TEST_F(Services, SwitchoverMessagesReachTheRegisteredCallbacksUntilTheKitIsClosed)
{
    switchovers = switchovers_done = 0;
    hakit_ha_params params;
    params.switchover = [] { return ++switchovers; };
    params.switchover_done = [] { ++switchovers_done; };
    ASSERT_TRUE(hakit_ha_api_init(params));
    const auto dispatch = [&](std::uint32_t opcode, std::uint32_t source) {
        mbus_msg msg = message(opcode, {}, source);
        const int result = hakit_ha_dispatch(msg);
        mbus_drop(queue, msg);
        return result;
    };
    EXPECT_EQ(dispatch(corvane::HAKIT_OPC_SWITCHOVER, corvane::HAKIT_SAP), 0);
    EXPECT_EQ(dispatch(corvane::HAKIT_OPC_SWITCHOVER_DONE, corvane::HAKIT_SAP), 0);
    EXPECT_EQ(dispatch(corvane::HAKIT_OPC_SWITCHOVER, 500), -1);
    EXPECT_EQ(dispatch(0xF403, corvane::HAKIT_SAP), -1);
    EXPECT_EQ(switchovers, 1);
    EXPECT_EQ(switchovers_done, 1);
    hakit_ha_api_close();
    EXPECT_EQ(dispatch(corvane::HAKIT_OPC_SWITCHOVER, corvane::HAKIT_SAP), 0);
    EXPECT_EQ(switchovers, 1);
}

TEST_F(Services, DebugElementsAreKept)
{
    hakit_evhist_set_elem(nullptr, 117, 1);
    const request *write = server.await(corvane::PSTORE_WRITE);
    ASSERT_NE(write, nullptr);
    EXPECT_EQ(write->body, byte_writer().text("debug-elements").put(4u).put(117u).put(4u).put(1u).take());
}

} // namespace
} // namespace corvane_test
