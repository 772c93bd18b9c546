// What a process has of the platform besides the bus: memory accounting, log, event history, shared memory, clock.
#include "runtime_process.h"

#include "../runtime/shared_memory.h"

#include "drops.h"
#include "memacct.h"
#include "syslog_client.h"
#include "timestamp.h"

#include <cstdlib>
#include <cstring>

namespace corvane_test {
namespace {

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
