// What a process has of the platform besides the bus: memory accounting, log, event history, shared memory, service
// manager, HA kit, database.
#include "runtime_double.h"

#include "../client.h"
#include "../runtime/connection.h"
#include "../runtime/shared_memory.h"

#include "../../wire/log.h"
#include "../../wire/rtab.h"
#include "../../wire/sdb.h"
#include "../../wire/svcmgr.h"

#include "drops.h"
#include "evhist.h"
#include "featmgr.h"
#include "hakit.h"
#include "mbus.h"
#include "memacct.h"
#include "pstore.h"
#include "rtab.h"
#include "sdb.h"
#include "svcmgr.h"
#include "syslog_client.h"
#include "timestamp.h"

#include <gmock/gmock.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <numeric>
#include <poll.h>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace corvane_test {

using namespace testing;

// What the service manager's callbacks were told.
std::vector<std::string> told;
// What a service's set-up does in its announcement.
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

constexpr std::uint32_t MODULE = 581, SAP = 442;

struct Process : Test {
    corvaned_double &server = corvaned_double::the();
    mbus_q queue = MBUS_Q_INVALID;

    void SetUp() override
    {
        server.start();
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (!corvane::connection_ensure() && std::chrono::steady_clock::now() < deadline)
            poll(nullptr, 0, 5);
        server.forget();
        told.clear();
        mbus_q_attr attr;
        attr.depth = 64;
        queue = mbus_bind(1, SAP, attr, "process test");
        ASSERT_NE(queue, MBUS_Q_INVALID);
    }
    void TearDown() override
    {
        hakit_evhist_close();
        mbus_unbind(queue, 0);
    }
    mbus_msg message(std::uint32_t opcode, byte_view payload, std::uint32_t source)
    {
        server.deliver(queue, opcode, payload, source);
        mbus_msg msg;
        EXPECT_EQ(mbus_recv(queue, msg), 0);
        return msg;
    }
    int dispatched(std::uint32_t opcode, byte_view payload, std::uint32_t source = corvane::SVCMGR_SAP)
    {
        mbus_msg msg = message(opcode, payload, source);
        const int result = svcmgr_dispatch(msg);
        mbus_drop(queue, msg);
        return result;
    }
    // A connection that may have been lost a moment ago is there again.
    void await_up()
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (corvane::call(0xFFFF0001, {}).error != 0 && std::chrono::steady_clock::now() < deadline)
            poll(nullptr, 0, 1);
    }
    // A round trip: everything sent before has arrived at the other end.
    void settle() { (void)corvane::call(0xFFFF0001, {}); }

    struct line {
        std::uint32_t severity;
        std::string text;
    };
    std::vector<line> logged()
    {
        settle();
        std::vector<line> lines;
        for (const request &r : server.all())
            if (r.method == corvane::LOG_LINE) {
                byte_reader in(r.body);
                const auto severity = in.get<std::uint32_t>();
                (void)in.text();
                lines.push_back({severity, in.text()});
            }
        return lines;
    }
};

// ---- memory accounting

struct Memory : Process {
    void SetUp() override { memacct_ignore_alloc_abort(1); }
    void TearDown() override {}
};

TEST_F(Memory, IsZeroedAlignedAndCountedByType)
{
    const memacct_usage before = memacct_usage_get(3);
    auto *memory = static_cast<std::uint8_t *>(memacct_alloc(MODULE, 3, 100));
    ASSERT_NE(memory, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory) % alignof(std::max_align_t), 0u);
    EXPECT_THAT(std::vector(memory, memory + 100), Each(0));
    EXPECT_EQ(memacct_usage_get(3).bytes, before.bytes + 100);
    EXPECT_EQ(memacct_usage_get(3).blocks, before.blocks + 1);
    memacct_free(MODULE, 3, memory);
    EXPECT_EQ(memacct_usage_get(3).bytes, before.bytes);
    EXPECT_EQ(memacct_usage_get(3).blocks, before.blocks);
    memacct_free(MODULE, 3, nullptr);
}

TEST_F(Memory, BeyondTheCapOfItsTypeIsRefusedAndCounted)
{
    memacct_cap_set(6, 1000);
    void *fits = memacct_alloc(MODULE, 6, 1000);
    ASSERT_NE(fits, nullptr);
    EXPECT_EQ(memacct_alloc(MODULE, 6, 1), nullptr);
    EXPECT_EQ(memacct_usage_get(6).refused, 1u);
    EXPECT_EQ(memacct_usage_get(6).bytes, 1000u);
    EXPECT_EQ(memacct_usage_get(5).refused, 0u);
    memacct_free(MODULE, 6, fits);
    void *again = memacct_alloc(MODULE, 6, 1);
    EXPECT_NE(again, nullptr);
    memacct_free(MODULE, 6, again);
    memacct_cap_set(6, 0);
}

TEST_F(Memory, CapsAreReadFromTheEnvironmentByTypeName)
{
    setenv("CORVANE_MEMORY_CAPS", "TYPE_B=77,nonsense,TYPE_X=5", 1);
    const char *const names[] = {"TYPE_A", "TYPE_B"};
    memacct_init("test", MODULE, names);
    unsetenv("CORVANE_MEMORY_CAPS");
    EXPECT_EQ(memacct_usage_get(1).cap_bytes, 77u);
    memacct_cap_set(1, 0);
}

TEST_F(Memory, FailureEndsTheProcessUnlessItMayReturnNull)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            memacct_ignore_alloc_abort(0);
            memacct_cap_set(2, 1);
            (void)memacct_alloc(MODULE, 2, 100);
        },
        "module 581: no memory for 100 bytes of type 2");
}

// ---- log

constexpr syslog_facility_record facility{"LUM", 0};
constexpr syslog_msg_short brief{"TEST", 0, "<<%%%s-%d-TEST>> %s failed", 3};
syslog_msg_full record_of()
{
    return {&facility, "TEST", "%s failed", 0, 10, {0, 0, 0}, 3, &brief, nullptr};
}

TEST_F(Process, MessageBeforeThereIsAFacilityIsPrintedByTheLogItself)
{
    const syslog_msg_full record = record_of();
    EXPECT_EQ(syslog_msg_rate_limit(&record, "cmdopt_dispatch()"), 0);
    const auto lines = logged();
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_EQ(lines[0].text, "<<%LUM-3-TEST>> cmdopt_dispatch() failed");
    EXPECT_EQ(lines[0].severity, 3u);
}

TEST_F(Process, TenMessagesOfARecordPassInAnIntervalAndOthersAreNotTouched)
{
    ASSERT_TRUE(hakit_evhist_init(10, "lum", "Lumivar", 121, "lum"));
    const syslog_msg_full record = record_of(), other = record_of();
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(syslog_msg_rate_limit(&record, "x"), 1) << i;
    EXPECT_EQ(syslog_msg_rate_limit(&record, "x"), 0);
    EXPECT_EQ(syslog_msg_rate_limit(&record, "another value"), 0);
    EXPECT_EQ(syslog_msg_rate_limit(&other, "x"), 1);
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(Process, FormattedMessageKeepsItsSeverity)
{
    vemo_krel_syslog(syslog_vmsg_params, 4, "<<%%%s-%d-STATE_MISMATCH>> state mismatch - %s", "LUM", 4, "x");
    const auto lines = logged();
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_EQ(lines[0].text, "<<%LUM-4-STATE_MISMATCH>> state mismatch - x");
    EXPECT_EQ(lines[0].severity, 4u);
}

TEST_F(Process, TracesPassAtAnyLevelAndAreDebugForTheJournal)
{
    krel_syslog(2, "Input %s -> %s", "a", "b");
    const auto lines = logged();
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_EQ(lines[0].text, "Input a -> b");
    EXPECT_EQ(lines[0].severity, 7u);
}

TEST_F(Process, TraceLongerThanAnyBufferIsWholeUpToTheLimitOfALine)
{
    const std::string text(5000, 'x');
    krel_syslog(2, "%s!", text.c_str());
    const auto lines = logged();
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_EQ(lines[0].text, text + "!");
}

// ---- event history

TEST_F(Process, EventHistoryGivesTheFacilityItsNameAndTheConfiguredLevel)
{
    EXPECT_EQ(evhist_sys_facility, nullptr);
    EXPECT_NE(evhist_hist_event_subtype_check(0x730000, 119), 0) << "nothing is kept yet";
    ASSERT_TRUE(hakit_evhist_init(3440, "lum", "Lumivar", 121, "lum"));
    ASSERT_NE(evhist_sys_facility, nullptr);
    EXPECT_STREQ(evhist_sys_facility->name, "lum");
    EXPECT_EQ(evhist_sys_facility->level, 6);
    EXPECT_EQ(evhist_hist_event_subtype_check(0x730000, 119), 0);
    EXPECT_NE(evhist_hist_event_subtype_check(0x730000, 122), 0) << "beyond the highest element";
    EXPECT_EQ(evhist_chk_int(119, 0, 0, 1), 0);
    hakit_evhist_close();
    EXPECT_EQ(evhist_sys_facility, nullptr);
}

TEST_F(Process, EventHistoryCannotBeOpenedWithoutRoomOrName)
{
    EXPECT_FALSE(hakit_evhist_init(0, "lum", "", 121, "lum"));
    EXPECT_FALSE(hakit_evhist_init(10, nullptr, "", 121, "lum"));
    EXPECT_FALSE(hakit_evhist_init(10, "lum", "", 121, nullptr));
}

TEST_F(Process, ControlMessageChangesTheLevel)
{
    ASSERT_TRUE(hakit_evhist_init(10, "lum", "Lumivar", 121, "lum"));
    const auto control = [&](byte_view payload) {
        mbus_msg msg = message(corvane::EVHIST_OPC_CONTROL, payload, corvane::SVCMGR_SAP);
        const int result = evhist_process_msg(queue, msg);
        mbus_drop(queue, msg);
        return result;
    };
    EXPECT_EQ(control(byte_writer().put(corvane::EVHIST_LEVEL).put(3u).view()), 0);
    EXPECT_EQ(evhist_sys_facility->level, 3);
    EXPECT_EQ(control(byte_writer().put(corvane::EVHIST_LEVEL).put(8u).view()), -1);
    EXPECT_EQ(control(byte_writer().put(99u).put(1u).view()), -1);
    EXPECT_EQ(control(bytes("x")), -1);
    EXPECT_EQ(evhist_sys_facility->level, 3);
}

TEST_F(Process, HistoryIsARingThatCanBeWrittenToTheLog)
{
    ASSERT_TRUE(hakit_evhist_init(3, "lum", "Lumivar", 121, "lum"));
    for (const char *text : {"first", "second", "third", "fourth"}) {
        const auto record = byte_writer().put(119u).raw(bytes(text)).put('\0').take();
        evhist_hist_event(0x730000, static_cast<std::uint32_t>(record.size()), record.data());
    }
    mbus_msg msg = message(corvane::EVHIST_OPC_CONTROL, byte_writer().put(corvane::EVHIST_DUMP).put(0u).view(), 2);
    EXPECT_EQ(evhist_process_msg(queue, msg), 0);
    mbus_drop(queue, msg);
    std::vector<std::string> texts;
    for (const line &l : logged())
        texts.push_back(l.text);
    EXPECT_THAT(texts, ElementsAre(EndsWith("component 0x730000: second"), EndsWith(": third"), EndsWith(": fourth")));
}

// ---- shared memory

TEST_F(Process, SharedMemoryIsMappedAtOneAddressAndFollowsAReplacedFile)
{
    const std::string path = corvane::root() + "/shm/test-file";
    const auto make = [&](const std::string &at, char content) {
        const int fd = open(at.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
        EXPECT_EQ(ftruncate(fd, 4096), 0);
        EXPECT_EQ(pwrite(fd, &content, 1, 0), 1);
        close(fd);
    };
    EXPECT_EQ(corvane::map_shared("test-file", 4096, false), nullptr) << "not there yet";
    make(path, 'a');
    EXPECT_EQ(corvane::map_shared("test-file", 8192, false), nullptr) << "another size";
    const auto *memory = static_cast<const volatile char *>(corvane::map_shared("test-file", 4096, false));
    ASSERT_NE(memory, nullptr);
    EXPECT_EQ(*memory, 'a');
    EXPECT_EQ(corvane::map_shared("test-file", 4096, false), memory);

    make(path + ".new", 'b');
    rename((path + ".new").c_str(), path.c_str());
    EXPECT_EQ(*memory, 'a');
    corvane::shared_memory_refresh();
    EXPECT_EQ(*memory, 'b') << "the address is the same, the file another";
}

// Makes <root>/shm/<name> as corvaned does.
template <class Page> Page *shared_page(const char *name)
{
    const int fd = open((corvane::root() + "/shm/" + name).c_str(), O_RDWR | O_CREAT, 0600);
    EXPECT_EQ(ftruncate(fd, sizeof(Page)), 0);
    void *page = mmap(nullptr, sizeof(Page), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    return static_cast<Page *>(page);
}

TEST_F(Process, DropsAreCountedOnTheSharedPageOnceThatIsThere)
{
    const drop_counter_page *before = drop_counters;
    auto *page = shared_page<drop_counter_page>(corvane::DROPS_SHM);
    corvane::shared_memory_refresh();
    EXPECT_EQ(drop_counters, before) << "whoever counts right now must not lose the page";
    drop_count(drop_reason::LEARN_REFUSED, 3);
    EXPECT_EQ(page->count[static_cast<std::size_t>(drop_reason::LEARN_REFUSED)], 3u);
    munmap(page, sizeof *page);
}

TEST_F(Process, SettingsAreTheDefaultsUntilThePageIsThereAndLiveFromThenOn)
{
    EXPECT_TRUE(hakit_is_chassis_ferrix());
    EXPECT_EQ(corvane::platform_settings().log_level, 6u);
    EXPECT_EQ(hakit_get_rsw_sched_policy(581), 0);

    auto *page = shared_page<corvane::platform_page>(corvane::PLATFORM_SHM);
    corvane::shared_memory_refresh();
    EXPECT_EQ(corvane::platform_settings().log_level, 6u) << "a page that is being made says nothing yet";
    page->chassis = static_cast<std::uint32_t>(corvane::chassis_kind::GENERIC);
    page->log_level = 3;
    page->sched_realtime = 1;
    page->made = corvane::PLATFORM_PAGE_MADE;
    EXPECT_FALSE(hakit_is_chassis_ferrix());
    EXPECT_EQ(corvane::platform_settings().log_level, 3u);
    EXPECT_EQ(hakit_get_rsw_sched_policy(581), 1);
    page->made = 0;                          // the other tests expect the defaults
    munmap(page, sizeof *page);
}

// ---- service manager

TEST_F(Process, RoleIsWhatTheServiceManagerSays)
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

TEST_F(Process, MessagesOfTheServiceManagerBecomeCallbacks)
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

TEST_F(Process, OthersCannotSpeakForTheServiceManager)
{
    EXPECT_EQ(dispatched(corvane::SVCMGR_OPC_CLEANUP_START, byte_writer().put(std::uint64_t{9}).put(1u).view(), 500), -1);
    EXPECT_EQ(dispatched(0x13404, {}), -1);
    EXPECT_THAT(told, IsEmpty());
}

TEST_F(Process, MalformedMessageOfTheServiceManagerIsTakenAndIgnored)
{
    for (const std::uint32_t opcode : {corvane::SVCMGR_OPC_STATE, corvane::SVCMGR_OPC_QUERY_ANSWER,
                                       corvane::SVCMGR_OPC_SWITCHOVER, corvane::SVCMGR_OPC_CLEANUP_START})
        EXPECT_EQ(dispatched(opcode, bytes("abc")), 0) << opcode;
    EXPECT_THAT(told, IsEmpty());
}

TEST_F(Process, ShakesHandsAgainAndAsksOnlyForNewsAfterAReconnect)
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

TEST_F(Process, HandshakeWhoseAnswerIsLostIsMadeAgainWithTheNextConnection)
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

TEST_F(Process, NobodyIsHeardAheadOfTheGreetingOfANewConnection)
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

TEST_F(Process, ServiceWhoseSetUpGotNoQueueIsAskedForAgain)
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

TEST_F(Process, UpdatesOfATableWhoseOpeningFailedAreSentOnceItIsOpen)
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

TEST_F(Process, HeartbeatsAreSentWithoutWaiting)
{
    svcmgr_heartbeat(1);
    const request *beat = server.await(corvane::SVCMGR_HEARTBEAT);
    ASSERT_NE(beat, nullptr);
    EXPECT_EQ(beat->kind, corvane::FRAME_ONEWAY);
}

TEST_F(Process, CleanupGivesTheErrorOfTheServiceManager)
{
    EXPECT_EQ(svcmgr_conditional_srv_cleanup(0), 0);
    server.answer_with(corvane::SVCMGR_CLEANUP, [](byte_view) { return answer{EBUSY, {}}; });
    EXPECT_EQ(svcmgr_conditional_srv_cleanup(0), EBUSY);
    EXPECT_STREQ(hakit_syserr2str(EBUSY), std::strerror(EBUSY));
}

TEST_F(Process, FeatureAnswerGoesToTheFeatureManagerOrWhoeverAsked)
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

TEST_F(Process, NamesOfServicesAndReasons)
{
    EXPECT_STREQ(hakit_get_name_from_uuid(582), "rtab");
    EXPECT_STREQ(hakit_get_name_from_uuid(263), "pktmgr");
    EXPECT_STREQ(hakit_get_name_from_uuid(4711), "unknown");
    EXPECT_STREQ(hakit_start_type_str(99), "unknown");
    EXPECT_STREQ(hakit_syserr2str(0), "success");
}

int switchovers = 0, switchovers_done = 0;

TEST_F(Process, SwitchoverMessagesReachTheRegisteredCallbacksUntilTheKitIsClosed)
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

TEST_F(Process, DebugElementsAreKept)
{
    hakit_evhist_set_elem(nullptr, 117, 1);
    const request *write = server.await(corvane::PSTORE_WRITE);
    ASSERT_NE(write, nullptr);
    EXPECT_EQ(write->body, byte_writer().text("debug-elements").put(4u).put(117u).put(4u).put(1u).take());
}

// ---- shared database

struct Database : Process {
    hakit_sdb handle = 0;
    void SetUp() override
    {
        Process::SetUp();
        handle = hakit_ha_register_sdb(2, "lum_sdb_info", 0x1340D, 0x1340E);
        ASSERT_NE(handle, 0u);
    }
    void TearDown() override
    {
        commit(~0ull);
        settle();
        Process::TearDown();
    }
    void commit(std::uint64_t sequence)
    {
        server.send(corvane::FRAME_EVENT, corvane::EVENT_SDB_COMMITTED, byte_writer().put(sequence).view());
    }
    static std::uint64_t sequence_of(const request &r) { return byte_reader(r.body).get<std::uint64_t>(); }
};

TEST_F(Database, RegistersNameAndOpcodes)
{
    const request *made = server.await(corvane::SDB_REGISTER);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->body, byte_writer().text("lum_sdb_info").put(0x1340Du).put(0x1340Eu).take());
}

TEST_F(Database, UpdateAndDeleteGoOutInOrderWithoutWaiting)
{
    EXPECT_NE(hakit_sdb_update(handle, "key", 3, "value", 5, 1), 0);
    EXPECT_NE(hakit_sdb_delete(handle, "key", 3), 0);
    const request *write = server.await(corvane::SDB_WRITE);
    const request *erase = server.await(corvane::SDB_DELETE);
    ASSERT_NE(write, nullptr);
    ASSERT_NE(erase, nullptr);
    EXPECT_EQ(write->kind, corvane::FRAME_ONEWAY);
    EXPECT_LT(sequence_of(*write), sequence_of(*erase));
    byte_reader in(write->body);
    (void)in.get<std::uint64_t>();
    EXPECT_EQ(in.text(), "lum_sdb_info");
    EXPECT_EQ(in.text(), "key");
    EXPECT_EQ(in.text(), "value");
}

TEST_F(Database, RefusesRecordsThatAreNoneAndHandlesThatAreNone)
{
    EXPECT_EQ(hakit_sdb_update(handle, "", 0, "v", 1, 1), 0);
    const std::vector<std::uint8_t> large(SDB_VALUE_MAX + 1);
    EXPECT_EQ(hakit_sdb_update(handle, "k", 1, large.data(), large.size(), 1), 0);
    EXPECT_EQ(hakit_sdb_update(handle + 50, "k", 1, "v", 1, 1), 0);
    EXPECT_EQ(hakit_sdb_update(0, "k", 1, "v", 1, 1), 0);
}

TEST_F(Database, WritesThatWereNotCommittedAreSentAgainAfterAReconnect)
{
    ASSERT_NE(hakit_sdb_update(handle, "a", 1, "1", 1, 1), 0);
    ASSERT_NE(hakit_sdb_update(handle, "b", 1, "2", 1, 1), 0);
    const request *first = server.await(corvane::SDB_WRITE, 1);
    const request *second = server.await(corvane::SDB_WRITE, 2);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    const auto expected = second->body;
    commit(sequence_of(*first));
    settle();
    server.forget();

    server.disconnect();

    const request *again = server.await(corvane::SDB_WRITE);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->body, expected);
    EXPECT_NE(server.await(corvane::SDB_REGISTER), nullptr);
    settle();
    EXPECT_EQ(server.count(corvane::SDB_WRITE), 1u);
}

TEST_F(Database, WritesWhileThePlatformIsGoneAreSentWhenItComesBack)
{
    server.stop();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (corvane::connection_up() && std::chrono::steady_clock::now() < deadline)
        poll(nullptr, 0, 1);
    EXPECT_NE(hakit_sdb_update(handle, "late", 4, "x", 1, 1), 0);
    server.forget();
    server.start();
    const request *write = server.await(corvane::SDB_WRITE);
    ASSERT_NE(write, nullptr);
    byte_reader in(write->body);
    (void)in.get<std::uint64_t>();
    (void)in.text();
    EXPECT_EQ(in.text(), "late");
}

TEST_F(Database, RefusedWritesAreSentAgainWhenAskedFor)
{
    ASSERT_NE(hakit_sdb_update(handle, "a", 1, "1", 1, 1), 0);
    ASSERT_NE(server.await(corvane::SDB_WRITE), nullptr);
    server.send(corvane::FRAME_EVENT, corvane::EVENT_SDB_RESEND, {});
    const request *again = server.await(corvane::SDB_WRITE, 2);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->body, server.await(corvane::SDB_WRITE)->body);
}

TEST_F(Database, IteratorReadsPageAfterPage)
{
    server.answer_with(corvane::SDB_PAGE, [](byte_view request) {
        byte_reader in(request);
        (void)in.text();
        EXPECT_EQ(in.text(), "\x02");
        const std::string after = in.text();
        if (after.empty())
            return answer{0, byte_writer().put(2u).text("\x02" "a").text("1").text("\x02" "b").text("2").take()};
        if (after == "\x02" "b")
            return answer{0, byte_writer().put(1u).text("\x02" "c").text("3").take()};
        return answer{0, byte_writer().put(0u).take()};
    });
    const sdb_handle reader = sdb_open("lum_sdb_info");
    ASSERT_NE(reader, 0u);
    const sdb_iterator_ptr it = sdb_iterator_create(reader, "\x02", 1);
    std::string seen;
    while (const sdb_record *record = sdb_iterator_next(*it))
        seen += std::string(record->key + 1, record->key + record->key_length) +
                std::string(record->value, record->value + record->value_length);
    EXPECT_EQ(seen, "a1b2c3");
    EXPECT_EQ(sdb_iterator_next(*it), nullptr) << "the end stays the end";
    sdb_close(reader);
    EXPECT_EQ(sdb_write(reader, "k", 1, "v", 1), 0);
}

TEST_F(Database, ReadersCloseTheirOwnHandleAndGiveItBack)
{
    const sdb_handle one = sdb_open("lum"), other = sdb_open("lum");
    EXPECT_NE(one, other);
    sdb_close(one);
    sdb_close(one);
    const auto read = [&](sdb_handle reader) {
        EXPECT_EQ(sdb_iterator_next(*sdb_iterator_create(reader, nullptr, 0)), nullptr);
        return server.count(corvane::SDB_PAGE);
    };
    EXPECT_EQ(read(one), 0u);
    EXPECT_EQ(read(other), 1u);
    for (int i = 0; i < 100; ++i) {
        const sdb_handle again = sdb_open("lum");
        EXPECT_EQ(again, one);
        sdb_close(again);
    }
    sdb_close(other);
}

TEST_F(Database, UnknownDatabaseCannotBeOpened)
{
    server.answer_with(corvane::SDB_OPEN, [](byte_view) { return answer{ENOENT, {}}; });
    EXPECT_EQ(sdb_open("nobody"), 0u);
}

TEST_F(Database, ContextOfAWriteNamesDatabaseOperationAndKey)
{
    ASSERT_NE(sdb_write(handle, "key", 3, "v", 1), 0);
    std::size_t length = 0;
    ASSERT_NE(sdb_get_context_len(handle, &length), 0);
    EXPECT_EQ(length, 100u);
    std::vector<std::uint8_t> context(length);
    ASSERT_NE(sdb_set_context(handle, context.data(), length), 0);
    EXPECT_STREQ(reinterpret_cast<const char *>(context.data()), "lum_sdb_info");
    EXPECT_EQ(context[corvane::SDB_CONTEXT_OPERATION], corvane::SDB_OPERATION_WRITE);
    EXPECT_EQ(context[corvane::SDB_CONTEXT_KEY_LENGTH], 3);
    EXPECT_EQ(std::memcmp(&context[corvane::SDB_CONTEXT_KEY], "key", 3), 0);
    EXPECT_NE(sdb_write_done(handle), 0);
    EXPECT_EQ(sdb_get_context_len(0, &length), 0);
    EXPECT_EQ(sdb_write_done(0), 0);
}

TEST_F(Database, TakesItsOwnMessagesAndLeavesOthers)
{
    mbus_msg refused = message(corvane::SDB_OPC_REFUSED, byte_writer().text("lum_sdb_info").view(), corvane::SDB_SAP);
    EXPECT_EQ(fsrv_sdb_process_msg(queue, refused), SDB_MSG_HANDLED);
    mbus_drop(queue, refused);
    mbus_msg other = message(0x1340E, {}, corvane::SDB_SAP);
    EXPECT_NE(fsrv_sdb_process_msg(queue, other), SDB_MSG_HANDLED);
    EXPECT_EQ(hakit_ha_dispatch(other), 0) << "the opcodes a database was registered with are the kit's";
    mbus_drop(queue, other);
}

TEST_F(Database, PersistentStoreReadsWritesAndDeletes)
{
    server.answer_with(corvane::PSTORE_READ, [](byte_view) { return answer{0, byte_writer().text("stored").take()}; });
    const pstore_handle store = pstore_open("data");
    ASSERT_NE(store, 0u);
    char value[4] = {};
    EXPECT_EQ(pstore_read(store, "k", 1, value, sizeof value), 6) << "the whole length, though the value is cut";
    EXPECT_EQ(std::string(value, 4), "stor");
    EXPECT_NE(pstore_write(store, "k", 1, "v", 1), 0);
    EXPECT_NE(pstore_delete(store, "k", 1), 0);
    server.answer_with(corvane::PSTORE_READ, [](byte_view) { return answer{ENOENT, {}}; });
    EXPECT_EQ(pstore_read(store, "k", 1, value, sizeof value), -1);
    server.answer_with(corvane::PSTORE_WRITE, [](byte_view) { return answer{EIO, {}}; });
    EXPECT_EQ(pstore_write(store, "k", 1, "v", 1), 0);
    pstore_close(store);
    EXPECT_EQ(pstore_read(store, "k", 1, value, sizeof value), -1);
}

TEST(Clock, StampsAreMonotonicAndElapsedIsTheirDifference)
{
    timestamp now;
    ASSERT_EQ(vemo_sys_mclock_get(now), 0);
    EXPECT_TRUE(timestamp_expired(now));
    EXPECT_FALSE(timestamp_expired({now.seconds + 100, 0}));
    EXPECT_EQ(timestamp_elapsed({now.seconds + 100, 0}), timestamp{}) << "nothing has passed since the future";
    const timestamp elapsed = timestamp_elapsed({now.seconds - 60, now.nanoseconds});
    EXPECT_GE(elapsed.seconds, 60u);
    EXPECT_LT(elapsed.nanoseconds, 1'000'000'000u);
}

} // namespace
} // namespace corvane_test
