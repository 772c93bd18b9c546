// The client of the command server against a server that the test plays: registration, arguments, output that waits
// for a slow reader with the process lock free, the stop, and the server going away and coming back.
#include "../cli_connection.h"

#include "../client.h"

#include "../../api/cli.h"
#include "../../api/plock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

using namespace corvane;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

constexpr int PATIENCE_MS = 5000;

struct received {
    std::uint32_t kind = 0;
    std::vector<std::uint8_t> record;
    [[nodiscard]] byte_reader in() const { return byte_reader(record); }
};

// The command server's end, played by hand.
class played_server {
public:
    explicit played_server(const std::string &path)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
        unlink(path.c_str());
        listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(bind(listener_, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener_, 4), 0);
    }
    ~played_server()
    {
        hang_up();
        close(listener_);
    }
    played_server(const played_server &) = delete;
    played_server &operator=(const played_server &) = delete;

    void hang_up()
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = -1;
        splitter_ = {};
    }
    // The client blocks in its greeting until this is answered, so the answer is sent ahead.
    void accept_and_welcome(std::uint32_t error = 0)
    {
        ASSERT_TRUE(readable(listener_));
        fd_ = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        ASSERT_GE(fd_, 0);
        send(SERVER_WELCOME, byte_writer().put(error).text("").view());
    }
    void send(std::uint32_t kind, byte_view record)
    {
        std::vector<std::uint8_t> bytes;
        append_frame(bytes, kind, record);
        EXPECT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    std::optional<received> next(int patience_ms = PATIENCE_MS)
    {
        std::uint32_t kind = 0;
        byte_view record;
        while (!splitter_.next(kind, record)) {
            std::array<std::uint8_t, 4096> buffer;
            if (!readable(fd_, patience_ms))
                return std::nullopt;
            const ssize_t size = recv(fd_, buffer.data(), buffer.size(), 0);
            if (size <= 0)
                return std::nullopt;
            splitter_.feed({buffer.data(), static_cast<std::size_t>(size)});
        }
        return received{kind, {record.begin(), record.end()}};
    }
    // Frames up to the one that ends the registration.
    std::vector<received> registration()
    {
        std::vector<received> all;
        while (auto frame = next()) {
            all.push_back(std::move(*frame));
            if (all.back().kind == CLIENT_READY)
                return all;
        }
        ADD_FAILURE() << "the registration does not end";
        return all;
    }
    void execute(std::uint64_t request, const std::string &handler, execute_record record = {})
    {
        record.request = request;
        record.handler = handler;
        byte_writer out;
        put_execute(out, record);
        send(SERVER_EXECUTE, out.view());
    }
    // What is printed for the request, up to its result.
    std::pair<std::string, int> outcome(std::uint64_t request)
    {
        std::string text;
        while (auto frame = next()) {
            byte_reader in = frame->in();
            EXPECT_EQ(in.get<std::uint64_t>(), request);
            if (frame->kind == CLIENT_RESULT)
                return {text, in.get<std::int32_t>()};
            const byte_view piece = in.rest();
            text.append(reinterpret_cast<const char *>(piece.data()), piece.size());
        }
        ADD_FAILURE() << "no result";
        return {text, -1};
    }

private:
    static bool readable(int fd, int patience_ms = PATIENCE_MS)
    {
        pollfd wanted{fd, POLLIN, 0};
        return poll(&wanted, 1, patience_ms) > 0;
    }
    int listener_ = -1, fd_ = -1;
    frame_splitter splitter_;
};

std::atomic<bool> more_was_wanted{true};
std::atomic<std::size_t> rows_printed{0};
std::vector<std::string> noted;

int say_hello(cli_cmd *cmd)
{
    cli_tty_printf(cmd, "head\n");
    cli_cmd_printf(cmd, "%s %d\n", "row", 7);
    return CLI_DONE;
}

int refuse(cli_cmd *cmd)
{
    cli_cmd_printf(cmd, "not that\n");
    return CLI_REJECTED;
}

int read_arguments(cli_cmd *cmd)
{
    noted.clear();
    std::uint32_t number = 0, address = 0, length = 0;
    const char *text = nullptr;
    ipv6_address six{};
    cli_ipv6_prefix prefix;
    cli_vlan_ranges ranges;
    noted.push_back(cli_noed(cmd) ? "no" : "plain");
    noted.push_back(cli_is_set(cmd, "word") ? "word" : "-");
    noted.push_back(cli_is_set(cmd, "other") ? "other" : "-");
    noted.push_back(cli_get_string(cmd, "<text>", text) ? text : "-");
    noted.push_back(cli_get_integer(cmd, "<n>", number) ? std::to_string(number) : "-");
    noted.push_back(cli_get_ipaddr(cmd, "<ip>", address) ? std::to_string(address) : "-");
    noted.push_back(cli_get_ipv6addr(cmd, "<ip6>", six) ? std::to_string(six[15]) : "-");
    noted.push_back(cli_get_ipprefix(cmd, "<p>", address, length) ? std::to_string(length) : "-");
    noted.push_back(cli_get_ipv6prefix(cmd, "<p6>", prefix) ? std::to_string(prefix.mask_length) : "-");
    noted.push_back(cli_get_vlan_mrange(cmd, "<v>", ranges)
                        ? std::to_string(ranges.count) + ":" + std::to_string(ranges.ranges[1].first) + "-" +
                              std::to_string(ranges.ranges[1].last)
                        : "-");
    noted.push_back(std::to_string(cli_get_mode_iod(cmd)));
    noted.push_back(cli_get_integer(cmd, "<missing>", number) ? "there" : "-");
    noted.push_back(cli_get_integer(cmd, "<text>", number) ? "a number" : "-");
    return CLI_DONE;
}

int print_much(cli_cmd *cmd)
{
    rows_printed = 0;
    for (int i = 0; i < 100'000 && cli_more_output(cmd); ++i, ++rows_printed)
        cli_cmd_printf(cmd, "row %08d of a table that is long\n", i);
    more_was_wanted = cli_more_output(cmd);
    return more_was_wanted ? CLI_DONE : CLI_STOPPED;
}

int ask_replay(cli_cmd *)
{
    cli_send_my_if_commands(42);
    return CLI_DONE;
}

int long_line(cli_cmd *cmd)
{
    cli_cmd_printf(cmd, "%s\n", std::string(70'000, 'x').c_str());
    return CLI_DONE;
}

std::string test_root()
{
    static const std::string path = [] {
        char name[] = "/tmp/cli-client-XXXXXX";
        const char *made = mkdtemp(name);
        setenv("CORVANE_ROOT", made, 1);
        return std::string(made);
    }();
    return path;
}

struct CliClient : ::testing::Test {
    std::optional<played_server> server;

    void SetUp() override
    {
        const std::string path = test_root() + "/" + CMDSRV_SOCKET;
        ASSERT_EQ(root(), test_root());
        static const bool once = [] {
            plock_proc_attr attributes;
            return plock_proc_attr_init(attributes) && plock_init_proc(attributes);
        }();
        ASSERT_TRUE(once);
        server.emplace(path);
        plock_acquire_process_lock();
        start();
    }
    void TearDown() override
    {
        cli_exit_thread();
        plock_release_process_lock();
        server.reset();
        std::filesystem::remove(test_root() + "/" + CMDSRV_SOCKET);
    }
    void start()
    {
        std::thread greeting([this] { server->accept_and_welcome(); });
        EXPECT_EQ(cli_init("tester", 0, 0), 0);
        greeting.join();
        EXPECT_EQ(cli_ready("tester", 0), 0);
        for (const auto &[name, handler] : handlers)
            EXPECT_EQ(cli_register_cmd(name, handler, 0), 0);
        EXPECT_EQ(cli_send_my_commands(), 0);
        registered = server->registration();
    }
    // Gives the lock up while the handler runs, as the process's other threads do.
    template <class Act> auto unlocked(Act act)
    {
        const plock_yield_scope free;
        return act();
    }
    std::pair<std::string, int> run(std::uint64_t request, const std::string &handler, execute_record record = {})
    {
        return unlocked([&] {
            server->execute(request, handler, std::move(record));
            return server->outcome(request);
        });
    }

    static constexpr std::array<std::pair<const char *, cli_handler>, 6> handlers = {{
        {"hello", say_hello},
        {"refuse", refuse},
        {"arguments", read_arguments},
        {"much", print_much},
        {"replay", ask_replay},
        {"long", long_line},
    }};
    std::vector<received> registered;
};

} // namespace

TEST_F(CliClient, NamesItselfAndItsHandlersInOrder)
{
    ASSERT_THAT(registered, SizeIs(8));
    byte_reader hello = registered[0].in();
    EXPECT_EQ(hello.get<std::uint32_t>(), CMDSRV_VERSION);
    EXPECT_NE(hello.get<std::uint64_t>(), 0u);
    EXPECT_EQ(hello.text(), "tester");
    EXPECT_EQ(registered[1].in().text(), "hello");
    EXPECT_EQ(registered[6].in().text(), "long");
    EXPECT_EQ(registered[7].kind, CLIENT_READY);
}

TEST_F(CliClient, RefusesASecondStartAndLateHandlers)
{
    EXPECT_NE(cli_init("tester", 0, 0), 0);
    EXPECT_NE(cli_register_cmd("late", say_hello, 0), 0);
    EXPECT_NE(cli_ready("another", 0), 0);
}

TEST_F(CliClient, SendsWhatAHandlerPrintsAndItsStatus)
{
    EXPECT_EQ(run(1, "hello"), (std::pair<std::string, int>("head\nrow 7\n", CLI_DONE)));
    EXPECT_EQ(run(2, "refuse"), (std::pair<std::string, int>("not that\n", CLI_REJECTED)));
    EXPECT_EQ(run(3, "nobody"), (std::pair<std::string, int>("", CLI_REJECTED)));
}

TEST_F(CliClient, SendsAPieceThatIsLongerThanAnyBuffer)
{
    const auto answer = unlocked([&] {
        server->execute(1, "long");
        server->send(SERVER_CREDIT, byte_writer().put<std::uint64_t>(1).put<std::uint32_t>(1'000'000).view());
        return server->outcome(1);
    });
    EXPECT_TRUE(answer.first == std::string(70'000, 'x') + "\n") << answer.first.size() << " bytes";
}

TEST_F(CliClient, ReadsEveryKindOfArgument)
{
    execute_record record;
    record.no = true;
    record.mode_iod = 9;
    record.arguments = {{"word", "word"},          {"<text>", "two words"},  {"<n>", "4095"},
                        {"<ip>", "192.0.2.1"},     {"<ip6>", "2001:db8::7"}, {"<p>", "232.1.0.0/16"},
                        {"<p6>", "ff05::1:0:0/96"}, {"<v>", "10,20-30"}};
    EXPECT_EQ(run(1, "arguments", record).second, CLI_DONE);
    EXPECT_THAT(noted, ElementsAre("no", "word", "-", "two words", "4095", "3221225985", "7", "16", "96", "2:20-30", "9",
                                   "-", "-"));
}

TEST_F(CliClient, WaitsForASlowReaderWithTheProcessLockFree)
{
    server->execute(1, "much");
    std::uint64_t got = 0;
    unlocked([&] {
        while (const auto frame = server->next(500))
            got += frame->record.size() - sizeof(std::uint64_t);
    });
    // The handler is in the middle of its table and waits; the lock is free for others, as this one shows.
    EXPECT_GT(got, CLIENT_FIRST_CREDIT / 2);
    EXPECT_LE(got, CLIENT_FIRST_CREDIT);
    unlocked([] {});
    server->send(SERVER_CREDIT, byte_writer().put<std::uint64_t>(1).put<std::uint32_t>(16'000'000).view());
    const auto rest = unlocked([&] { return server->outcome(1); });
    EXPECT_EQ(rest.second, CLI_DONE);
    EXPECT_EQ(got + rest.first.size(), 100'000u * std::strlen("row 00000000 of a table that is long\n"));
}

TEST_F(CliClient, TellsTheHandlerThatNoMoreIsWanted)
{
    server->execute(1, "much");
    const auto answer = unlocked([&] {
        while (server->next(500))
            continue;
        server->send(SERVER_STOP, byte_writer().put<std::uint64_t>(1).view());
        return server->outcome(1);
    });
    EXPECT_EQ(answer.second, CLI_STOPPED);
    EXPECT_FALSE(more_was_wanted);
    EXPECT_LT(rows_printed, 100'000u);
}

TEST_F(CliClient, TakesAStopThatComesBeforeTheCommandBegins)
{
    // The process lock is held here, so neither command has begun when the stop of the second one arrives.
    server->execute(1, "hello");
    server->execute(2, "much");
    server->send(SERVER_STOP, byte_writer().put<std::uint64_t>(2).view());
    EXPECT_EQ(unlocked([&] { return server->outcome(1); }).second, CLI_DONE);
    EXPECT_EQ(unlocked([&] { return server->outcome(2); }), (std::pair<std::string, int>("", CLI_STOPPED)));
    EXPECT_EQ(rows_printed, 0u);
}

TEST_F(CliClient, ForgetsAStopOfAnEarlierCommand)
{
    EXPECT_EQ(run(1, "hello").second, CLI_DONE);
    server->send(SERVER_STOP, byte_writer().put<std::uint64_t>(1).view());
    EXPECT_EQ(run(2, "hello").first, "head\nrow 7\n");
}

TEST_F(CliClient, EndsAHandlerWhoseServerWentAwayAndComesBackWithWhatIsInEffect)
{
    execute_record line;
    line.change = applied_change::APPEND;
    line.line = "say hello";
    EXPECT_EQ(run(1, "hello", line).second, CLI_DONE);
    line.line = "say what is refused";
    EXPECT_EQ(run(2, "refuse", line).second, CLI_REJECTED);
    server->execute(3, "much");
    unlocked([&] {
        ASSERT_TRUE(server->next());
        server->hang_up();
        server->accept_and_welcome();
        registered = server->registration();
    });
    std::vector<std::string> applied;
    for (const auto &frame : registered)
        if (frame.kind == CLIENT_APPLIED) {
            byte_reader in = frame.in();
            EXPECT_EQ(in.text(), "");
            applied.push_back(in.text());
        }
    EXPECT_THAT(applied, ElementsAre("say hello"));
    EXPECT_EQ(run(4, "hello").second, CLI_DONE);
}

TEST_F(CliClient, KeepsItsInstanceOverReconnections)
{
    const auto instance_of = [](const std::vector<received> &frames) {
        byte_reader in = frames.at(0).in();
        (void)in.get<std::uint32_t>();
        return in.get<std::uint64_t>();
    };
    const auto before = instance_of(registered);
    unlocked([&] {
        server->hang_up();
        server->accept_and_welcome();
        registered = server->registration();
    });
    EXPECT_EQ(instance_of(registered), before);
}

TEST_F(CliClient, AsksForAnInterfacesLinesBeforeTheResultOfTheCommandThatAsked)
{
    const auto frames = unlocked([&] {
        server->execute(8, "replay");
        std::vector<received> got;
        for (int i = 0; i < 2; ++i)
            if (auto frame = server->next())
                got.push_back(std::move(*frame));
        return got;
    });
    ASSERT_THAT(frames, SizeIs(2));
    EXPECT_EQ(frames[0].kind, CLIENT_REPLAY);
    byte_reader in = frames[0].in();
    EXPECT_EQ(in.get<std::uint32_t>(), 42u);
    EXPECT_EQ(in.get<std::uint64_t>(), 8u);
    EXPECT_EQ(frames[1].kind, CLIENT_RESULT);
}

TEST_F(CliClient, AsksForAnInterfacesLinesFromAnyThread)
{
    EXPECT_EQ(cli_send_my_if_commands(7), 0);
    const auto frame = unlocked([&] { return server->next(); });
    ASSERT_TRUE(frame);
    byte_reader in = frame->in();
    EXPECT_EQ(in.get<std::uint32_t>(), 7u);
    EXPECT_EQ(in.get<std::uint64_t>(), 0u);
}

TEST_F(CliClient, EndsItsThreadWhileAHandlerWaitsForAReader)
{
    server->execute(1, "much");
    unlocked([&] { ASSERT_TRUE(server->next()); });
    cli_exit_thread();
    cli_exit_thread();
    EXPECT_LT(rows_printed, 100'000u);
}

TEST(CliInit, FailsWhereNoServerIsThere)
{
    (void)test_root();
    std::filesystem::remove(test_root() + "/" + CMDSRV_SOCKET);
    EXPECT_NE(cli_init("tester", 0, 0), 0);
    EXPECT_NE(cli_send_my_commands(), 0);
    EXPECT_NE(cli_init("", 0, 0), 0);
}

TEST(CliInit, FailsWhenTheServerRefusesTheClient)
{
    played_server server(test_root() + "/" + CMDSRV_SOCKET);
    std::thread refusal([&] { server.accept_and_welcome(EEXIST); });
    EXPECT_EQ(cli_init("tester", 0, 0), EEXIST);
    refusal.join();
}
