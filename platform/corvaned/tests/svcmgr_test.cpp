// The service manager with real processes: this very program plays the daemon when it is started with a part to play.
#include "platform_process.h"

#include "../loop.h"
#include "../options.h"
#include "../svcmgr.h"

#include "../../api/svcmgr.h"

#include <gmock/gmock.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace corvaned_test {
namespace {

using namespace testing;

constexpr std::uint32_t LUM_QUEUE = 0x10, LUM_SAP = 442;
constexpr const char *PART = "CORVANED_TEST_PART";

// ---- the daemon's side: one blocking connection, one thing after the other

struct actor {
    int fd = -1;
    std::uint64_t id = 0;
    bool deaf = false;                                  // does not stop when told

    bool connected()
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string path = std::string(getenv("CORVANE_ROOT")) + "/" + corvane::BUS_SOCKET;
        std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
        fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
        return connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    }
    void send(std::uint32_t kind, std::uint32_t number, byte_view body)
    {
        const auto packet = packet_of({kind, number, ++id}, body);
        if (::send(fd, packet.data(), packet.size(), MSG_NOSIGNAL) < 0)
            _exit(9);
    }
    void call(std::uint32_t method, byte_view body) { send(corvane::FRAME_CALL, method, body); }

    void introduce()
    {
        send(corvane::FRAME_HELLO, 0, byte_writer().put(corvane::FRAME_VERSION).put(0u).view());
        call(corvane::BUS_BIND,
             byte_writer().put(LUM_QUEUE).put(LUM_SAP).put(64u).put(0u).put(581u).text("LUM MBUS queue").view());
        call(corvane::SVCMGR_HANDSHAKE, byte_writer().put(LUM_QUEUE).put(corvane::SVC_LUM).view());
        beat();
    }
    void beat() { send(corvane::FRAME_ONEWAY, corvane::SVCMGR_HEARTBEAT, byte_writer().put(0u).view()); }

    void take(std::uint32_t opcode)
    {
        if (opcode == corvane::SVCMGR_OPC_CLEANUP_START && !deaf)
            _exit(0);
        if (opcode == corvane::SVCMGR_OPC_SWITCHOVER)
            call(corvane::SVCMGR_SWITCHOVER_DONE, byte_writer().put(std::uint64_t{1}).put(0u).view());
        if (opcode == corvane::HAKIT_OPC_SWITCHOVER)
            call(corvane::SVCMGR_RECOVERY_DONE, byte_writer().put(0u).view());
        if (opcode == corvane::HAKIT_OPC_SWITCHOVER_DONE) {
            std::printf("switchover done\n");
            std::fflush(stdout);
        }
    }
    void serve()
    {
        for (;;) {
            pollfd waiting{fd, POLLIN, 0};
            if (poll(&waiting, 1, 200) == 0) {
                beat();
                continue;
            }
            std::vector<std::uint8_t> packet(corvane::FRAME_MAX);
            const ssize_t size = recv(fd, packet.data(), packet.size(), 0);
            if (size <= 0)
                return;                                 // the platform went away
            corvane::frame_header header;
            std::memcpy(&header, packet.data(), sizeof header);
            if (header.kind != corvane::FRAME_DELIVER)
                continue;
            corvane::delivery_header message;
            std::memcpy(&message, packet.data() + sizeof header, sizeof message);
            take(message.opcode);
        }
    }
};

[[noreturn]] void play(const std::string &part)
{
    std::printf("playing %s\n", part.c_str());
    std::fflush(stdout);
    if (part == "dies")
        _exit(3);
    if (part == "never ready")
        for (;;)
            pause();
    actor a;
    a.deaf = part == "deaf";
    if (a.deaf)
        signal(SIGTERM, SIG_IGN);
    while (!a.connected())
        poll(nullptr, 0, 20);
    a.introduce();
    if (part == "hangs")
        for (;;)
            pause();
    a.serve();
    _exit(0);
}

[[maybe_unused]] const bool played = [] {
    if (const char *part = getenv(PART); part != nullptr)
        play(part);
    return false;
}();

// ---- the test's side

std::string log_since(std::size_t lines)
{
    std::string text;
    for (const std::string &line : corvaned::log_recent(lines))
        text += line + "\n";
    return text;
}

struct ServiceManager : Test {
    platform_process &process = platform_process::the();
    std::size_t log_mark = 0;
    bool running = false;

    static void SetUpTestSuite()
    {
        platform_process::the();
        if (std::filesystem::is_symlink(corvaned::opts().lum))
            return;
        corvaned::svcmgr_serve();
        std::filesystem::create_symlink(std::filesystem::read_symlink("/proc/self/exe"), corvaned::opts().lum);
    }
    void start(const char *part, bool standby = false)
    {
        corvaned::options chosen = corvaned::opts();
        chosen.standby = standby;
        corvaned::options_set(chosen);
        setenv(PART, part, 1);
        corvaned::log_line(7, "mark");
        corvaned::svcmgr_start();
        running = true;
    }
    void stop()
    {
        if (!std::exchange(running, false))
            return;
        bool done = false;
        corvaned::svcmgr_stop([&] { done = true; });
        EXPECT_TRUE(platform_process::until([&] { return done; }));
    }
    void TearDown() override
    {
        stop();
        unsetenv(PART);
        unsetenv("CORVANE_STOP_TIMEOUT_MS");
        unsetenv("CORVANE_HEARTBEAT_TIMEOUT_MS");
        unsetenv("CORVANE_SERVICE_ORDER");
    }
    // What was logged since start().
    static std::string log()
    {
        const std::string text = log_since(2000);
        return text.substr(text.rfind("]: mark\n"));
    }
    static bool logged(const std::string &part)
    {
        return platform_process::until([&] { return log().find(part) != std::string::npos; });
    }
    struct state {
        bool up = false;
        pid_t pid = 0;
    };
    static state of(std::uint32_t service)
    {
        bus_client client;
        const auto answer = client.call(corvane::SVCMGR_SERVICES, {});
        byte_reader in(answer.data);
        for (auto left = in.get<std::uint32_t>(); left > 0; --left) {
            const auto number = in.get<std::uint32_t>();
            const state s{in.get<std::uint32_t>() != 0, static_cast<pid_t>(in.get<std::uint32_t>())};
            in.text();
            if (number == service)
                return s;
        }
        return {};
    }
    static pid_t await_lum(pid_t other_than = 0)
    {
        state s;
        EXPECT_TRUE(platform_process::until([&] {
            s = of(corvane::SVC_LUM);
            return s.up && s.pid != other_than;
        }));
        return s.pid;
    }
    static pid_t in_file(const char *name)
    {
        pid_t pid = 0;
        std::ifstream(corvaned::opts().root + "/" + name) >> pid;
        return pid;
    }
};

TEST_F(ServiceManager, StartsTheDaemonAndReportsItUpAfterItsHandshake)
{
    start("serves");
    EXPECT_EQ(await_lum(), in_file("lum.pid"));
    EXPECT_TRUE(logged("]: playing serves")) << "what it prints goes to the log";
}

TEST_F(ServiceManager, StopsTheDaemonInOrderWithStatusZero)
{
    start("serves");
    const pid_t lum = await_lum();
    stop();
    EXPECT_THAT(log(), HasSubstr("lum (process " + std::to_string(lum) + ") ended with status 0"));
    EXPECT_FALSE(of(corvane::SVC_LUM).up);
    EXPECT_EQ(in_file("lum.pid"), 0);
}

TEST_F(ServiceManager, StartsAKilledDaemonAgain)
{
    start("serves");
    const pid_t first = await_lum();
    kill(first, SIGKILL);
    EXPECT_NE(await_lum(first), first);
    EXPECT_THAT(log(), HasSubstr("was ended by a signal (Killed)"));
}

TEST_F(ServiceManager, WaitsLongerEachTimeForDaemonThatDiesAtOnce)
{
    start("dies");
    const auto starts = [] {
        std::size_t count = 0;
        const std::string text = log();
        for (std::size_t at = text.find(" started\n"); at != std::string::npos; at = text.find(" started\n", at + 1))
            ++count;
        return count;
    };
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(platform_process::until([&] { return starts() == 4; }));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(100 + 200 + 400));
    EXPECT_THAT(log(), HasSubstr("ended with status 3"));
}

TEST_F(ServiceManager, KillsADaemonWhoseHeartbeatsEndAndStartsItAgain)
{
    setenv("CORVANE_HEARTBEAT_TIMEOUT_MS", "2500", 1);
    start("hangs");
    const pid_t first = await_lum();
    EXPECT_TRUE(logged("(process " + std::to_string(first) + ") sends no heartbeats: it is killed"));
    setenv(PART, "serves", 1);
    EXPECT_NE(await_lum(first), first);
}

TEST_F(ServiceManager, KillsADaemonThatDoesNotGetReadyAndStartsItAgain)
{
    setenv("CORVANE_HEARTBEAT_TIMEOUT_MS", "2500", 1);
    start("never ready");
    setenv(PART, "serves", 1);
    EXPECT_TRUE(logged("does not get ready: it is killed") || logged("does not get ready: it is killed"));      // 5 s each
    EXPECT_NE(await_lum(), 0);
}

TEST_F(ServiceManager, InsistsAndKillsADaemonThatDoesNotStop)
{
    setenv("CORVANE_STOP_TIMEOUT_MS", "100", 1);
    start("deaf");
    await_lum();
    stop();
    EXPECT_THAT(log(), AllOf(HasSubstr("does not stop in order"), HasSubstr("did not stop: it is killed")));
}

TEST_F(ServiceManager, MissingProgramIsNamedAndTriedAgain)
{
    corvaned::options chosen = corvaned::opts();
    const std::string lum = chosen.lum;
    chosen.lum = "/nowhere/lum";
    corvaned::options_set(chosen);
    start("serves");
    EXPECT_TRUE(logged("cannot start /nowhere/lum: No such file or directory"));
    chosen.lum = lum;
    corvaned::options_set(chosen);
    EXPECT_NE(await_lum(), 0);
}

TEST_F(ServiceManager, StandbyTakesOverWhenTheActiveOneDies)
{
    start("serves", true);
    const pid_t first = await_lum();
    EXPECT_TRUE(platform_process::until([] { return corvaned::daemon_is_standby(in_file("lum-standby.pid")); }));
    const pid_t second = in_file("lum-standby.pid");
    EXPECT_TRUE(logged("(process " + std::to_string(second) + ") started"));
    // It must have shaken hands before it can take over.
    EXPECT_TRUE(platform_process::until([&] { return corvaned::svcmgr_tell(second, corvane::SVCMGR_SAP, 0, {}); }));

    kill(first, SIGKILL);

    EXPECT_EQ(await_lum(first), second);
    EXPECT_TRUE(logged("lum (process " + std::to_string(second) + ") becomes active"));
    EXPECT_TRUE(logged("]: switchover done"));
    EXPECT_TRUE(corvaned::bus_bound(LUM_SAP));
    EXPECT_TRUE(platform_process::until([&] { return in_file("lum-standby.pid") != 0; })) << "another one stands by";
    EXPECT_EQ(in_file("lum.pid"), second);
}

TEST_F(ServiceManager, SwitchoverOnCommandStopsTheActiveOneInOrder)
{
    start("serves", true);
    const pid_t first = await_lum();
    const auto second_ready = [] {
        const pid_t second = in_file("lum-standby.pid");
        return second != 0 && corvaned::svcmgr_tell(second, corvane::SVCMGR_SAP, 0, {});
    };
    ASSERT_TRUE(platform_process::until(second_ready));
    const pid_t second = in_file("lum-standby.pid");
    EXPECT_EQ(corvaned::daemon_switchover(), "");
    EXPECT_EQ(await_lum(first), second);
    EXPECT_THAT(log(), HasSubstr("lum (process " + std::to_string(first) + ") ended with status 0"));
}

TEST_F(ServiceManager, SwitchoverWithoutStandbyIsRefused)
{
    start("serves");
    await_lum();
    EXPECT_EQ(corvaned::daemon_switchover(), "There is no standing-by lum");
}

TEST_F(ServiceManager, RestartOnCommandStopsInOrderAndStartsAtOnce)
{
    start("serves");
    const pid_t first = await_lum();
    EXPECT_EQ(corvaned::daemon_restart(), "");
    EXPECT_NE(await_lum(first), first);
    EXPECT_THAT(log(), HasSubstr("(process " + std::to_string(first) + ") ended with status 0"));
}

// What happens to the daemon's connection while it asks: the request is sent on a connection of the same process.
struct ServiceClient : ServiceManager {
    bus_client client;
    void introduce(std::uint32_t service)
    {
        ASSERT_EQ(client.bind(LUM_QUEUE, 0), 0u);
        ASSERT_EQ(client.call(corvane::SVCMGR_HANDSHAKE, byte_writer().put(LUM_QUEUE).put(service).view()).error, 0);
    }
    int query(std::uint32_t service, std::uint32_t known = 0)
    {
        return client.call(corvane::SVCMGR_QUERY, byte_writer().put(service).put(known).view()).error;
    }
};

TEST_F(ServiceClient, QueryIsAnsweredByMessageFromTheServiceManager)
{
    corvaned::service_hosted(9001, "nine");
    introduce(9100);
    ASSERT_EQ(query(9001), 0);
    const auto got = client.deliveries();
    ASSERT_THAT(got, SizeIs(1));
    EXPECT_EQ(got[0].header.source_sap, corvane::SVCMGR_SAP);
    EXPECT_EQ(got[0].header.opcode, corvane::SVCMGR_OPC_QUERY_ANSWER);
    EXPECT_EQ(got[0].payload, byte_writer().put(9100u).put(9001u).put(0u).put(1u).take());
}

TEST_F(ServiceClient, ChangesAreToldToThoseWhoAskedAndOnlyTheChanges)
{
    corvaned::service_hosted(9002, "nine");
    introduce(9100);
    ASSERT_EQ(query(9002), 0);
    client.deliveries();
    corvaned::service_set_up(9002, true);
    EXPECT_THAT(client.deliveries(), IsEmpty());
    corvaned::service_set_up(9002, false);
    corvaned::service_set_up(9002, true);
    corvaned::service_set_up(9003, true);
    const auto got = client.deliveries();
    ASSERT_THAT(got, SizeIs(2));
    EXPECT_EQ(got[0].header.opcode, corvane::SVCMGR_OPC_STATE);
    EXPECT_EQ(got[0].payload, byte_writer().put(9002u).put(SVCMGR_STATE_DOWN).take());
    EXPECT_EQ(got[1].payload, byte_writer().put(9002u).put(SVCMGR_STATE_UP).take());
}

TEST_F(ServiceClient, QueryOfAClientThatKnowsTheStateIsAnsweredOnlyWithNews)
{
    corvaned::service_hosted(9004, "nine");
    introduce(9100);
    ASSERT_EQ(query(9004, SVCMGR_STATE_UP), 0);
    EXPECT_THAT(client.deliveries(), IsEmpty());
    ASSERT_EQ(query(9004, SVCMGR_STATE_DOWN), 0);
    const auto got = client.deliveries();
    ASSERT_THAT(got, SizeIs(1));
    EXPECT_EQ(got[0].header.opcode, corvane::SVCMGR_OPC_STATE);
}

TEST_F(ServiceClient, QueryBeforeTheHandshakeIsRefused)
{
    EXPECT_EQ(query(9001), ENOENT);
}

TEST_F(ServiceClient, IsUpFromItsHandshakeToTheEndOfItsConnection)
{
    introduce(9101);
    EXPECT_TRUE(of(9101).up);
    EXPECT_EQ(of(9101).pid, getpid());
    {
        bus_client other;
        ASSERT_EQ(other.bind(LUM_QUEUE, 0), 0u);
        ASSERT_EQ(other.call(corvane::SVCMGR_HANDSHAKE, byte_writer().put(LUM_QUEUE).put(9102u).view()).error, 0);
        EXPECT_TRUE(of(9102).up);
    }
    EXPECT_FALSE(of(9102).up);
}

TEST_F(ServiceClient, ServicesOfTheOrderComeUpInItAfterTheFirstQuery)
{
    setenv("CORVANE_SERVICE_ORDER", "286,@20,582,-286", 1);
    start("serves");
    EXPECT_FALSE(of(286).up);
    introduce(9100);
    ASSERT_EQ(query(582), 0);
    std::vector<std::pair<std::uint32_t, std::uint32_t>> seen;
    EXPECT_TRUE(platform_process::until([&] {
        for (const delivered &d : client.deliveries()) {
            byte_reader in(d.payload);
            if (d.header.opcode == corvane::SVCMGR_OPC_STATE) {
                const auto service = in.get<std::uint32_t>();
                seen.emplace_back(service, in.get<std::uint32_t>());
            }
        }
        return !seen.empty() && !of(286).up;
    }));
    EXPECT_THAT(seen, ElementsAre(Pair(582u, SVCMGR_STATE_UP)));
    corvaned::service_set_up(286, true);
}

TEST_F(ServiceClient, FeatureDisableIsSentToTheDaemonAsItsOpcode)
{
    introduce(corvane::SVC_LUM);
    ASSERT_EQ(client.call(corvane::SVCMGR_FEATURE, byte_writer().put(0u).view()).error, 0);
    const auto got = client.deliveries();
    ASSERT_THAT(got, SizeIs(1));
    EXPECT_EQ(got[0].header.opcode, 0x22DEu);
    EXPECT_EQ(got[0].header.source_sap, corvane::FEATMGR_SAP);
    ASSERT_EQ(client.option(LUM_QUEUE, corvane::FEATMGR_OPC_STATUS, corvane::BUS_OPTION_SUBSCRIBE), 0u);
    ASSERT_EQ(client.call(corvane::SVCMGR_FEATURE_STATUS, byte_writer().put(581u).put(1u).put(0u).view()).error, 0);
    EXPECT_THAT(client.deliveries(), SizeIs(1));
}

TEST_F(ServiceClient, CleanupRequestIsAnsweredWithTheStartOfTheCleanup)
{
    EXPECT_EQ(client.call(corvane::SVCMGR_CLEANUP, byte_writer().put(0u).view()).error, ENOENT) << "no handshake yet";
    introduce(9100);
    EXPECT_EQ(client.call(corvane::SVCMGR_CLEANUP, byte_writer().put(0u).view()).error, 0);
    const auto got = client.deliveries();
    ASSERT_THAT(got, SizeIs(1));
    EXPECT_EQ(got[0].header.opcode, corvane::SVCMGR_OPC_CLEANUP_START);
    byte_reader in(got[0].payload);
    (void)in.get<std::uint64_t>();
    EXPECT_EQ(in.get<std::uint32_t>(), corvane::STOP_REASON_REQUEST);
}

} // namespace
} // namespace corvaned_test
