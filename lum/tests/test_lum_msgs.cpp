#include "lum_test.h"

#include <set>

using namespace lum_test;

extern const syslog_msg_short syslog_msg_USAGE;
extern const syslog_msg_library syslog_msg_lib_SDB_READ;

namespace {

struct catalogue_row {
    const char *tag;
    const syslog_msg_full *record;
    std::uint32_t severity;
    const char *format;
};
#define ROW(tag, severity, format) {#tag, &msg_error_LUM_##tag, severity, format},
const std::vector<catalogue_row> catalogue{LUM_MESSAGES(ROW)};
#undef ROW

TEST(LumCatalogue, HoldsThirtyMessagesWithTheirOwnTags)
{
    std::set<std::string> tags;
    for (const catalogue_row &row : catalogue)
        tags.insert(row.tag);
    EXPECT_THAT(catalogue, SizeIs(30));
    EXPECT_THAT(tags, SizeIs(30));
}

TEST(LumCatalogue, FillsEveryFullRecord)
{
    for (const catalogue_row &row : catalogue) {
        SCOPED_TRACE(row.tag);
        const syslog_msg_full &record = *row.record;
        EXPECT_STREQ(record.facility->name, "LUM");
        EXPECT_EQ(record.facility->zero, 0u);
        EXPECT_STREQ(record.tag, row.tag);
        EXPECT_STREQ(record.format, row.format);
        EXPECT_EQ(record.zero0, 0u);
        EXPECT_EQ(record.ten, 10u);
        EXPECT_EQ(record.zero1[0] + record.zero1[1] + record.zero1[2], 0u);
        EXPECT_EQ(record.severity, row.severity);            // so none asks for a traceback
        if (std::string(row.tag) == "SDB_READ") {
            EXPECT_EQ(record.brief, nullptr);
            EXPECT_EQ(record.library, &syslog_msg_lib_SDB_READ);
            continue;
        }
        EXPECT_EQ(record.library, nullptr);
        ASSERT_NE(record.brief, nullptr);
        EXPECT_STREQ(record.brief->tag, row.tag);
        EXPECT_EQ(record.brief->zero, 0u);
        EXPECT_EQ(record.brief->severity, row.severity);
        EXPECT_EQ(record.brief->prefixed_format, "<<%%%s-%d-" + std::string(row.tag) + ">> " + row.format);
    }
}

TEST(LumCatalogue, GivesSdbReadALibraryRecord)
{
    EXPECT_STREQ(syslog_msg_lib_SDB_READ.tag, "SDB_READ");
    EXPECT_STREQ(syslog_msg_lib_SDB_READ.library, "LUM");
    EXPECT_STREQ(syslog_msg_lib_SDB_READ.prefixed_format, "<<%%%s-%d-LUM_SDB_READ>> Error reading %s database");
    EXPECT_STREQ(syslog_msg_lib_SDB_READ.prefixed_format_pid,
                 "<<%%%s-%d-LUM_SDB_READ>> (pid=%d) Error reading %s database");
    EXPECT_EQ(syslog_msg_lib_SDB_READ.severity, 3u);
}

TEST(LumCatalogue, NamesTheShortRecordsAfterTheirTags)
{
    EXPECT_EQ(&syslog_msg_USAGE, msg_error_LUM_USAGE.brief);
    EXPECT_STREQ(syslog_msg_USAGE.prefixed_format, "<<%%%s-%d-USAGE>> Usage: lum [-h] [-d] [-m <memory-in-mb>]");
}

class LumLog : public FakePlatformTest {
protected:
    static void set_level(std::uint8_t level)
    {
        platform.log_level = level;
        platform.set_facility(true);
    }
    static std::uint32_t param(std::size_t word)
    {
        std::uint32_t value;
        std::memcpy(&value, &syslog_vmsg_params.bytes[4 * word], sizeof value);
        return value;
    }
};

TEST_F(LumLog, BeginsTheLineWithFacilitySeverityAndTag)
{
    LUM_LOG(API_FAILED, "rtab_api_init()");
    EXPECT_THAT(platform.syslog_texts(), ElementsAre("<<%LUM-3-API_FAILED>> rtab_api_init() failed"));
    EXPECT_EQ(platform.syslog.front().severity, 3u);
}

TEST_F(LumLog, PassesTheValuesInTheirOrder)
{
    LUM_LOG(MBUS_REG, 0xF408u, "Bad");
    LUM_LOG(UNK_IP_NOTIF, 4ul);
    EXPECT_THAT(platform.syslog_texts(),
                ElementsAre("<<%LUM-3-MBUS_REG>> Error returned from mbus register for opcode 0xf408, error: Bad",
                            "<<%LUM-3-UNK_IP_NOTIF>> Unrecognized IP address change notification type 4"));
}

TEST_F(LumLog, DropsSeveritySixBelowLevelSixAndLogsTheRest)
{
    set_level(5);
    LUM_LOG(USAGE);
    LUM_LOG(SHUTDOWN, " done");
    LUM_LOG(SHUTDOWN_REQUEST_FAIL, "busy");
    LUM_LOG(STATE_MISMATCH, "a", "b");
    LUM_LOG(API_FAILED, "c");
    EXPECT_THAT(platform.syslog_texts(), ElementsAre("<<%LUM-4-STATE_MISMATCH>> state mismatch - a - in b()",
                                                     "<<%LUM-3-API_FAILED>> c failed"));
    set_level(6);
    LUM_LOG(USAGE);
    EXPECT_THAT(platform.syslog, SizeIs(3));
    set_level(2);
    LUM_LOG(API_FAILED, "d");
    EXPECT_THAT(platform.syslog, SizeIs(3));
}

TEST_F(LumLog, StopsWhileAMessageIsRateLimited)
{
    platform.rate_limited.insert("API_FAILED");
    LUM_LOG(API_FAILED, "a");
    LUM_LOG(OVLY_ADD);
    EXPECT_THAT(platform.syslog_texts(), ElementsAre("<<%LUM-3-OVLY_ADD>> Failed to add overlay entry"));
}

TEST_F(LumLog, LeavesEarlyMessagesToTheLibrary)
{
    platform.set_facility(false);
    set_level(0);
    platform.set_facility(false);
    LUM_LOG(USAGE);
    EXPECT_THAT(platform.syslog_texts(),
                ElementsAre("<<%LUM-6-USAGE>> Usage: lum [-h] [-d] [-m <memory-in-mb>]"));
}

TEST_F(LumLog, FillsTheParameterBlock)
{
    syslog_vmsg_params.bytes.fill(0xEE);
    LUM_LOG(OVLY_ADD);
    EXPECT_EQ(param(0), 1u);
    EXPECT_EQ(param(1) + param(2) + param(3) + param(4) + param(5), 0u);
    EXPECT_EQ(std::memcmp(&syslog_vmsg_params.bytes[24], syslog_preamble.data(), 40), 0);
    EXPECT_EQ(param(16), 1u);
    EXPECT_EQ(param(17), 0u);
    EXPECT_EQ(std::memcmp(&syslog_vmsg_params.bytes[72], "  \0\0", 4), 0);
    for (std::size_t word = 19; word < 256; ++word)
        ASSERT_EQ(param(word), 0u) << word;
}

TEST_F(LumLog, AsksForATracebackOnlyWhereARecordSaysSo)
{
    LUM_LOG(API_FAILED, "a");
    EXPECT_EQ(platform.called("syslog_traceback"), 0u);
    syslog_msg_full with_traceback = msg_error_LUM_OVLY_ADD;
    with_traceback.severity |= SYSLOG_TRACEBACK;
    lum_log(with_traceback);
    EXPECT_THAT(platform.call_texts({"syslog_traceback"}), ElementsAre("syslog_traceback(LUM, 3, OVLY_ADD)"));
    EXPECT_EQ(platform.syslog.back().severity, 3u);
}

class LumTrace : public LumTest {
protected:
    LumTrace() { platform.debug_console = true; }
};

TEST_F(LumTrace, WritesOneTextToThreeSinks)
{
    lum_event_debug_flag = 1;
    LUM_TRACE_EVENT("value %d\n", 7);
    ASSERT_THAT(platform.traces, SizeIs(1));
    EXPECT_EQ(platform.traces.front().level, 2);
    EXPECT_EQ(platform.traces.front().text, "value 7\n");
    ASSERT_THAT(platform.events, SizeIs(1));
    EXPECT_EQ(platform.events.front().component, 0x730000u);
    EXPECT_EQ(platform.events.front().record,
              fake::bytes().add_host32(120).add({'v', 'a', 'l', 'u', 'e', ' ', '7', '\n', 0}));
    EXPECT_THAT(platform.dbgprints, ElementsAre("value 7\n"));
}

TEST_F(LumTrace, WritesNothingUnderAClearFlag)
{
    LUM_TRACE_EVENT("value\n");
    lum_trace(0, LUM_SITE_EVENT, "value\n");
    EXPECT_THAT(platform.traces, IsEmpty());
    EXPECT_THAT(platform.events, IsEmpty());
    EXPECT_THAT(platform.dbgprints, IsEmpty());
}

TEST_F(LumTrace, EvaluatesNothingUnderAClearFlag)
{
    int evaluated = 0;
    LUM_TRACE_EVENT("value %d\n", ++evaluated);
    EXPECT_EQ(evaluated, 0);
}

TEST_F(LumTrace, NumbersTheSitesOfTheFiveFlags)
{
    lum_packet_debug_flag = lum_learn_debug_flag = lum_internal_debug_flag = lum_event_debug_flag =
        lum_arp_nd_debug_flag = 1;
    LUM_TRACE_PACKET("a");
    LUM_TRACE_LEARN("a");
    LUM_TRACE_INTERNAL("a");
    LUM_TRACE_EVENT("a");
    LUM_TRACE_ARP_ND("a");
    std::vector<std::uint32_t> sites;
    for (const fake::history_event &event : platform.events)
        sites.push_back(event.site);
    EXPECT_THAT(sites, ElementsAre(117, 118, 119, 120, 121));
}

TEST_F(LumTrace, CutsALongTextInTheEventHistoryOnly)
{
    lum_internal_debug_flag = 1;
    for (const std::size_t length : {511u, 512u, 1023u, 1024u, 5000u}) {
        platform.forget();
        const std::string text(length, 'x');
        LUM_TRACE_INTERNAL("%s", text.c_str());
        EXPECT_EQ(platform.traces.front().text, text);
        EXPECT_EQ(platform.dbgprints.front(), text);
        EXPECT_EQ(platform.events.front().text.substr(0, 511), text.substr(0, 511));
        EXPECT_EQ(platform.events.front().record.size(), 4 + std::min<std::size_t>(length, 511) + 1);
        EXPECT_EQ(platform.events.front().record.back(), 0);
    }
}

TEST_F(LumTrace, AsksTheHistoryAndTheConsoleWhetherTheyWantIt)
{
    lum_internal_debug_flag = 1;
    platform.history_kept = false;
    platform.debug_console = false;
    LUM_TRACE_INTERNAL("a");
    EXPECT_THAT(platform.traces, SizeIs(1));
    EXPECT_THAT(platform.events, IsEmpty());
    EXPECT_THAT(platform.dbgprints, IsEmpty());
}

} // namespace
