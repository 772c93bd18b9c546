// Every trace text and every catalogued message is emitted by some test of this program. What the tests emitted is
// looked at when all of them have run; a run of chosen tests checks nothing.
#include "fake_test.h"
#include "lum_msgs.h"

#include <algorithm>
#include <array>
#include <regex.h>

namespace {

struct text_row {
    const char *area, *text;             // in the lists of exceptions: the text or tag, and the reason
};

constexpr auto TRACES = std::to_array<text_row>({
#define TRACE_TEXT(area, text) {#area, text},
#include "trace_texts.def"
#undef TRACE_TEXT
});

constexpr auto MESSAGES = std::to_array<text_row>({
#define LUM_MESSAGE_ROW(tag, severity, format) {#tag, format},
    LUM_MESSAGES(LUM_MESSAGE_ROW)
#undef LUM_MESSAGE_ROW
});

// Deliberate: the catalogue holds messages that nothing raises, since readers of the log know them.
constexpr auto NEVER_RAISED = std::to_array<text_row>({
    {"MBUS_RECV", "the main loop ends without a message when its queue fails"},
    {"SVCMGR_DISPATCH", "the result of the service manager's dispatcher is not looked at"},
    {"UNKNOWN_LUM_MINOR", "messages are dispatched by their whole number"},
    {"ASSERT", "assertions end the process by themselves"},
    {"SDB_READ", "a record that cannot be read is left out"},
});

// Traces of paths that cannot be taken.
constexpr auto NEVER_TRACED = std::to_array<text_row>({
    {"Site-adj update failed\n", "an entry is only inserted after none was found under its id"},
});

template <std::size_t N> bool named(const std::array<text_row, N> &rows, const char *name)
{
    return std::ranges::any_of(rows, [&](const text_row &row) { return std::string(row.area) == name; });
}

// A text that a format can print: its conversions as patterns, all else as it stands.
std::string printed(const std::string &format)
{
    std::string pattern = "^";
    for (std::size_t i = 0; i < format.size(); ++i) {
        if (format[i] != '%') {
            pattern += std::string_view("\\^$.|?*+()[]{}").find(format[i]) == std::string_view::npos ? "" : "\\";
            pattern += format[i];
            continue;
        }
        i = format.find_first_of("sdxup", i + 1);
        pattern += format[i] == 's' ? ".*" : format[i] == 'p' ? "0x[0-9a-f]+" : format[i] == 'x' ? "[0-9a-f]+" : "-?[0-9]+";
    }
    return pattern + '$';
}

bool matches_any(const std::string &pattern, const std::set<std::string> &texts)
{
    regex_t compiled;
    EXPECT_EQ(regcomp(&compiled, pattern.c_str(), REG_EXTENDED | REG_NOSUB), 0) << pattern;
    const bool found = std::ranges::any_of(
        texts, [&](const std::string &text) { return regexec(&compiled, text.c_str(), 0, nullptr, 0) == 0; });
    regfree(&compiled);
    return found;
}

class EmittedTexts : public ::testing::Environment {
    void TearDown() override
    {
        const auto *run = ::testing::UnitTest::GetInstance();
        if (::testing::GTEST_FLAG(filter) != "*" || run->test_to_run_count() != run->total_test_count())
            return;
        const auto emitted = fake::emitted_texts();
        for (const auto &row : TRACES) {
            EXPECT_EQ(matches_any(printed(row.text), emitted), !named(NEVER_TRACED, row.text)) << row.area << " trace: " << row.text;
        }
        for (const auto &row : MESSAGES)
            EXPECT_EQ(emitted.contains(row.area), !named(NEVER_RAISED, row.area)) << row.area << ": " << row.text;
    }
};

[[maybe_unused]] const auto *const registered = ::testing::AddGlobalTestEnvironment(new EmittedTexts);

} // namespace

TEST(TraceTexts, AreEachListedOnce)
{
    std::set<std::string> texts;
    for (const auto &row : TRACES)
        EXPECT_TRUE(texts.insert(row.text).second) << row.text;
    EXPECT_THAT(texts, ::testing::Not(::testing::IsEmpty()));
}
