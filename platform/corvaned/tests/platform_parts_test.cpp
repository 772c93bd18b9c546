// Command line, root folder, loop, shared memory, database file and log.
#include "platform_process.h"

#include "../database.h"
#include "../log.h"
#include "../loop.h"
#include "../options.h"
#include "../shm.h"

#include "../../wire/log.h"

#include <gmock/gmock.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace corvaned_test {
namespace {

using namespace testing;

std::string parse(std::vector<std::string> words)
{
    const corvaned::options before = corvaned::opts();
    std::vector<char *> argv;
    words.insert(words.begin(), "corvaned");
    for (std::string &word : words)
        argv.push_back(word.data());
    std::string error;
    if (corvaned::options_parse(static_cast<int>(argv.size()), argv.data(), error)) {
        const corvaned::options &o = corvaned::opts();
        error = o.root + " " + o.state + " " + o.config + " " + o.log + " " + (o.standby ? "standby" : "");
    }
    corvaned::options_set(before);
    return error;
}

TEST(CommandLine, TakesTheOptionsInAnyOrderAndFillsInTheRest)
{
    EXPECT_EQ(parse({"--standby", "--root", "/r/", "--config", "c"}), "/r /r/state c  standby");
    EXPECT_EQ(parse({"--root=/r", "--state=/s", "--log", "l"}), "/r /s  l ");
}

TEST(CommandLine, SaysWhatIsWrongWithIt)
{
    EXPECT_EQ(parse({"--bogus"}), "unknown option '--bogus'");
    EXPECT_EQ(parse({"stray"}), "unknown option 'stray'");
    EXPECT_EQ(parse({"--root"}), "option --root needs a value");
    EXPECT_EQ(parse({"--root", ""}), "option --root needs a value");
}

TEST(RootFolder, RefusesASecondPlatformAndNamesTheFirst)
{
    platform_process::the();
    std::string error;
    EXPECT_FALSE(corvaned::root_prepare(error));
    EXPECT_THAT(error, AllOf(HasSubstr("another corvaned is running on"), HasSubstr(std::to_string(getpid()))));
}

TEST(RootFolder, IsClosedToOthers)
{
    const std::filesystem::path root = platform_process::the().root();
    const auto others = std::filesystem::perms::others_all;
    for (const char *part : {"shm", "state", corvane::BUS_SOCKET, "shm/drops", "shm/platform", "state/corvane.db"})
        EXPECT_EQ(std::filesystem::status(root / part).permissions() & others, std::filesystem::perms::none) << part;
}

TEST(Loop, RunsTimersInTheOrderTheyAreDueAndNoCancelledOne)
{
    platform_process::the();
    std::vector<int> ran;
    corvaned::after(std::chrono::milliseconds(2), [&] { ran.push_back(2); });
    corvaned::after(std::chrono::milliseconds(1), [&] { ran.push_back(1); });
    corvaned::cancel(corvaned::after(std::chrono::milliseconds(1), [&] { ran.push_back(9); }));
    EXPECT_TRUE(platform_process::until([&] { return ran.size() == 2; }));
    EXPECT_THAT(ran, ElementsAre(1, 2));
}

TEST(Loop, TimerThatStartsItselfAtOnceDoesNotKeepTheTurnFromEnding)
{
    platform_process::the();
    int runs = 0;
    std::function<void()> again = [&] {
        if (++runs < 3)
            corvaned::after(std::chrono::milliseconds(0), again);
    };
    corvaned::after(std::chrono::milliseconds(0), again);
    corvaned::loop_turn(0);
    EXPECT_EQ(runs, 1);
    EXPECT_TRUE(platform_process::until([&] { return runs == 3; }));
}

TEST(Loop, CallbackMayUnwatchItsOwnDescriptor)
{
    platform_process::the();
    const int fd = eventfd(1, EFD_NONBLOCK);
    int calls = 0;
    corvaned::watch(fd, EPOLLIN, [&, fd](std::uint32_t) {
        corvaned::unwatch(fd);
        ++calls;
    });
    platform_process::turns();
    EXPECT_EQ(calls, 1);
    close(fd);
}

TEST(SharedMemory, KeepsFileOfTheSameSizeAndReplacesAnother)
{
    platform_process::the();
    auto *first = static_cast<std::uint32_t *>(corvaned::make_shared("part-test", 4096));
    ASSERT_NE(first, nullptr);
    *first = 7;
    const auto *same = static_cast<std::uint32_t *>(corvaned::make_shared("part-test", 4096));
    ASSERT_NE(same, nullptr);
    EXPECT_EQ(*same, 7u);
    const auto *larger = static_cast<std::uint32_t *>(corvaned::make_shared("part-test", 8192));
    ASSERT_NE(larger, nullptr);
    EXPECT_EQ(*larger, 0u);
    EXPECT_EQ(*first, 7u) << "whoever has the old file mapped keeps it";
}

TEST(PlatformPage, SaysFerrixAndLevelSixUnlessConfigured)
{
    platform_process::the();
    EXPECT_EQ(corvaned::platform().chassis, 0u);
    EXPECT_EQ(corvaned::platform().log_level, 6u);
}

TEST(DatabaseFile, DamagedOneIsSetAsideAndANewOneUsed)
{
    platform_process &process = platform_process::the();
    corvaned::kv_store store("damage-test");
    ASSERT_TRUE(store.put(bytes("k"), bytes("v")));
    corvaned::database_close();
    const std::string path = process.root() + "/state/corvane.db";
    std::filesystem::remove(path + "-wal");
    std::ofstream(path, std::ios::trunc) << std::string(8192, 'x');

    std::string why;
    ASSERT_TRUE(corvaned::database_open(why)) << why;

    std::vector<std::uint8_t> value;
    EXPECT_FALSE(store.get(bytes("k"), value));
    EXPECT_TRUE(store.put(bytes("k"), bytes("again")));
    EXPECT_THAT(corvaned::log_recent(5), Contains(HasSubstr("the database was damaged; it was set aside as")));
}

TEST(DatabaseFile, GroupedWritesAreThereTogether)
{
    platform_process::the();
    corvaned::kv_store store("group-test");
    corvaned::database_group();
    ASSERT_TRUE(store.put(bytes("a"), bytes("1")));
    ASSERT_TRUE(store.put(bytes("b"), bytes("2")));
    EXPECT_TRUE(corvaned::database_commit());
    EXPECT_TRUE(corvaned::database_commit()) << "nothing is open any more";
    EXPECT_THAT(store.range({}, {}, 10), SizeIs(2));
}

TEST(Log, WritesOneLineForEachMessageWithItsProcess)
{
    platform_process &process = platform_process::the();
    bus_client client;
    client.oneway(corvane::LOG_LINE, byte_writer().put(3u).text("lum").text("two\nlines and \x1B[31m\n").view());
    platform_process::turns();
    const auto recent = corvaned::log_recent(1);
    ASSERT_THAT(recent, SizeIs(1));
    EXPECT_THAT(recent[0], MatchesRegex("[0-9T:.-]+ lum\\[" + std::to_string(getpid()) +
                                        "\\]: two\\\\nlines and \\?\\[31m"));
    std::ifstream file(process.root() + "/log");
    const std::string text((std::istreambuf_iterator<char>(file)), {});
    EXPECT_THAT(text, EndsWith(recent[0] + "\n"));
}

TEST(Log, CutsEndlessLines)
{
    platform_process::the();
    corvaned::log_line(6, std::string(100'000, 'a'));
    EXPECT_LT(corvaned::log_recent(1).at(0).size(), corvane::LOG_LINE_MAX + 200);
}

TEST(Log, KeepsTheLastLinesOnly)
{
    platform_process::the();
    for (int i = 0; i < 3000; ++i)
        corvaned::log_line(6, "line " + std::to_string(i));
    const auto all = corvaned::log_recent(1'000'000);
    EXPECT_EQ(all.size(), 2000u);
    EXPECT_THAT(all.back(), EndsWith("line 2999"));
    EXPECT_THAT(corvaned::log_recent(3).front(), EndsWith("line 2997"));
}

TEST(Log, IsOpenedAgainAfterTheFileWasMovedAway)
{
    platform_process &process = platform_process::the();
    const std::string path = process.root() + "/log";
    std::filesystem::rename(path, path + ".1");
    corvaned::log_reopen();
    corvaned::log_line(6, "in the new file");
    std::ifstream file(path);
    const std::string text((std::istreambuf_iterator<char>(file)), {});
    EXPECT_THAT(text, HasSubstr("in the new file"));
}

} // namespace
} // namespace corvaned_test
