// The startup file, replays to clients that come and come back, lines that wait for their interface, files that are
// applied and saved.
#include "cmdsrv_peers.h"

#include "../options.h"

#include <gmock/gmock.h>

#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

using namespace corvaned;
using namespace corvaned_test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

namespace {

using Startup = CommandServer;
using Replay = CommandServer;
using Apply = CommandServer;
using Save = CommandServer;

std::string errors()
{
    std::string all;
    for (const auto &line : cmdsrv().load_errors)
        all += line.substr(line.rfind("startup.test")) + "\n";
    return all;
}

std::string content(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

} // namespace

TEST_F(Startup, CarriesPlatformLinesOutAndKeepsTheOthersForTheirClient)
{
    load("! the edge\n"
         "interface eth1\n"
         "  switchport\n"
         "  lum vlan 10\n"
         "interface Overlay1\n"
         "  lum vpn-name blue   ! its name\n"
         "\n"
         "lum filter-fhrp\n"
         "no lum filter-fhrp\n");
    EXPECT_THAT(platform_did, ElementsAre("[eth1] switchport", "[] interface_overlay <N>=1"));
    EXPECT_EQ(running(), "interface eth1\n  switchport\n  lum vlan 10\n"
                         "interface Overlay1\n  lum vpn-name blue\nno lum filter-fhrp\n");
    EXPECT_EQ(cmdsrv().load_error_count, 0u);
}

TEST_F(Startup, ReportsEachBadLineAndTakesTheRest)
{
    load("  lum vpn-name early\n"
         "show drops\n"
         "interface eth1\n"
         "  switchprt\n"
         "\tlum vlan 4096\n"
         "  switchport\n"
         "lum vpn-site-vlan\n");
    EXPECT_EQ(errors(), "startup.test:1: 'lum vpn-name early' is indented and no interface line is above it\n"
                        "startup.test:2: column 1: unknown word \"show\"; expected chassis, end, exit, help, interface, "
                        "logging or lum in 'show drops'\n"
                        "startup.test:4: column 3: unknown word \"switchprt\"; expected end, exit, help, join-group, "
                        "lum, shutdown or switchport in 'switchprt'\n"
                        "startup.test:5: column 11: expected a VLAN id, 0 to 4095 in 'lum vlan 4096'\n"
                        "startup.test:7: column 18: incomplete command; expected <vlan-id> (a VLAN id, 0 to 4095, as "
                        "10) in 'lum vpn-site-vlan'\n");
    EXPECT_EQ(running(), "interface eth1\n  switchport\n");
}

TEST_F(Startup, SurvivesAFileOfGarbage)
{
    std::string garbage;
    for (int i = 0; i < 100'000; ++i)
        garbage += static_cast<char>(i * 41 % 256);
    load(garbage + "\nchassis generic\n" + std::string(1'000'000, 'x') + "\n");
    EXPECT_GT(cmdsrv().load_error_count, 100u);
    EXPECT_EQ(running(), "chassis generic\n");
}

TEST_F(Startup, ReportsAFileThatCannotBeRead)
{
    options chosen = opts();
    chosen.config = "/nonexistent/edge.conf";
    options_set(chosen);
    load_startup();
    EXPECT_THAT(cmdsrv().load_errors, ElementsAre("cannot read /nonexistent/edge.conf: No such file or directory"));
    chosen.config = "/dev";
    options_set(chosen);
    load_startup();
    EXPECT_EQ(cmdsrv().load_errors.back(), "cannot read /dev: not a file");
}

TEST_F(Startup, DropsALineThatThePlatformRefuses)
{
    platform_refuses = "switchport";
    load("interface eth1\n  switchport\n");
    EXPECT_EQ(errors(), "startup.test:2: 'switchport': not today\n");
    EXPECT_EQ(running(), "");
}

TEST_F(Startup, KeepsALineWhoseDeviceIsMissingAndOffersItWhenThatComes)
{
    load("interface eth9\n  switchport\n");
    EXPECT_EQ(errors(), "startup.test:2: 'switchport': no such interface: eth9 (waits for its interface)\n");
    EXPECT_EQ(running(), "interface eth9\n  switchport\n");
    EXPECT_THAT(platform_did, IsEmpty());
    interface("eth9", 9);
    replay_interface_created(interfaces["eth9"]);
    EXPECT_THAT(platform_did, ElementsAre("[eth9] switchport"));
}

TEST_F(Startup, KeepsADaemonsLineThatIsRefusedWhileItsInterfaceIsDown)
{
    interface("eth5", 5, false);
    load("lum mroute 10 239.1.1.1 interface eth5\n");
    fake_client lum(DAEMON_HANDLERS);
    const std::string line = "lum mroute 10 239.1.1.1 interface eth5";
    EXPECT_THAT(lum.serve({{line, "Interface down\n"}}), ElementsAre("[] " + line));
    EXPECT_EQ(errors(), "startup.test:1: '" + line + "': Interface down (waits for its interface)\n");
    EXPECT_EQ(running(), line + "\n");
    interfaces["eth5"].up = true;
    replay_interface_up(interfaces["eth5"]);
    EXPECT_THAT(lum.serve(), ElementsAre("[] " + line));
    replay_interface_up(interfaces["eth5"]);
    EXPECT_THAT(lum.serve(), IsEmpty());
    EXPECT_EQ(cmdsrv().load_error_count, 1u);
}

TEST_F(Startup, DropsADaemonsLineThatIsRefusedForAnotherReason)
{
    load("lum route 5000/02:00:00:00:00:01 interface eth1\n");
    fake_client lum(DAEMON_HANDLERS);
    lum.serve({{"lum route 5000/02:00:00:00:00:01 interface eth1", "Illegal VLAN-id\n"}});
    EXPECT_EQ(errors(),
              "startup.test:1: 'lum route 5000/02:00:00:00:00:01 interface eth1': Illegal VLAN-id\n");
    EXPECT_EQ(running(), "");
}

TEST_F(Startup, LetsAWaitingLineBeGivenUp)
{
    load("lum mroute 10 239.1.1.1 interface eth9\n");
    fake_client lum(DAEMON_HANDLERS);
    lum.serve({{"lum mroute 10 239.1.1.1 interface eth9", "Interface down\n"}});
    fake_shell shell;
    shell.run("configure terminal");
    shell.begin("no lum mroute 10 239.1.1.1 interface eth9");
    const auto request = lum.next();
    ASSERT_TRUE(request);
    lum.print(request->request, "Interface down\n");
    lum.result(request->request, corvane::STATUS_REJECTED);
    EXPECT_EQ(shell.finish().status, corvane::STATUS_DONE);
    EXPECT_EQ(running(), "");
}

TEST_F(Startup, TakesAHundredThousandLines)
{
    std::string text;
    for (int i = 0; i < 100'000; ++i) {
        char line[80];
        std::snprintf(line, sizeof line, "lum route 10/02:00:00:%02x:%02x:%02x interface eth1\n", i >> 16, i >> 8 & 255,
                      i & 255);
        text += line;
    }
    load(text);
    EXPECT_EQ(cmdsrv().running.size(), 100'000u);
    EXPECT_EQ(cmdsrv().load_error_count, 0u);
}

TEST_F(Replay, BringsANewClientEverythingInOrder)
{
    load("lum anycast-arp 10.0.0.1\n"
         "interface Overlay1\n"
         "  lum vpn-name blue\n"
         "  lum vpn-vlan 10\n"
         "interface eth1\n"
         "  lum vlan 10\n");
    fake_client lum(DAEMON_HANDLERS);
    EXPECT_THAT(lum.serve(), ElementsAre("[Overlay1] lum vpn-name blue", "[Overlay1] lum vpn-vlan 10",
                                         "[eth1] lum vlan 10", "[] lum anycast-arp 10.0.0.1"));
}

TEST_F(Replay, BringsItToTheNextProcessOfAClientThatDied)
{
    load("lum anycast-arp 10.0.0.1\n");
    {
        fake_client lum(DAEMON_HANDLERS);
        EXPECT_THAT(lum.serve(), SizeIs(1));
    }
    fake_client again(DAEMON_HANDLERS);
    EXPECT_THAT(again.serve(), ElementsAre("[] lum anycast-arp 10.0.0.1"));
}

TEST_F(Replay, SkipsWhatTheClientHasAlreadyAndTakesBackWhatIsNotConfigured)
{
    load("lum anycast-arp 10.0.0.1\n"
         "lum anycast-arp 10.0.0.2\n"
         "lum anycast-arp 10.0.0.2\n"
         "interface Overlay1\n"
         "  lum vpn-name blue\n");
    fake_client lum(DAEMON_HANDLERS, "lum",
                    {{"", "lum anycast-arp 10.0.0.2"}, {"", "lum anycast-arp 10.0.0.9"}, {"", "no lum filter-fhrp"},
                     {"Overlay1", "lum vpn-name blue"}});
    EXPECT_THAT(lum.serve(), ElementsAre("[] no lum anycast-arp 10.0.0.9", "[] lum filter-fhrp",
                                         "[] lum anycast-arp 10.0.0.1", "[] lum anycast-arp 10.0.0.2"));
}

TEST_F(Replay, GivesAnInterfacesLinesAgainWhenTheClientAsks)
{
    load("interface Overlay1\n  lum vpn-name blue\n  lum vpn-vlan 10\ninterface eth1\n  lum vlan 10\n");
    fake_client lum(DAEMON_HANDLERS);
    lum.serve();
    lum.send(corvane::CLIENT_REPLAY, byte_writer().put<std::uint32_t>(101).put<std::uint64_t>(0).view());
    EXPECT_THAT(lum.serve(), ElementsAre("[Overlay1] lum vpn-name blue", "[Overlay1] lum vpn-vlan 10"));
}

TEST_F(Replay, EndsWhereAHandlerAsksForItsOwnReplayEachTime)
{
    load("interface Overlay1\n  lum vpn-name blue\n");
    fake_client lum(DAEMON_HANDLERS);
    lum.serve();
    lum.send(corvane::CLIENT_REPLAY, byte_writer().put<std::uint32_t>(101).put<std::uint64_t>(0).view());
    int carried_out = 0;
    while (const auto request = lum.next()) {
        lum.send(corvane::CLIENT_REPLAY, byte_writer().put<std::uint32_t>(101).put(request->request).view());
        lum.result(request->request);
        ASSERT_LT(++carried_out, 10);
    }
    EXPECT_EQ(carried_out, 2);
}

TEST_F(Replay, SendsALineAsItIsNowNotAsItWasWhenTheReplayBegan)
{
    std::string text = "interface Overlay1\n";
    for (int i = 0; i < 60; ++i)
        text += "  lum vlan " + std::to_string(i) + "\n";
    load(text + "  lum vpn-name old\n");
    fake_client lum(DAEMON_HANDLERS);
    ASSERT_THAT(lum.waiting(), SizeIs(32));
    fake_shell shell;
    shell.run("configure terminal");
    shell.run("interface Overlay1");
    shell.begin("lum vpn-name new");
    std::vector<std::string> names;
    for (const auto &line : lum.serve())
        if (line.find("vpn-name") != std::string::npos)
            names.push_back(line);
    EXPECT_THAT(names, ElementsAre("[Overlay1] lum vpn-name new"));
    EXPECT_EQ(shell.finish().status, corvane::STATUS_DONE);
}

TEST_F(Replay, LetsACommandPassALongReplay)
{
    std::string text;
    for (int i = 0; i < 200; ++i)
        text += "lum anycast-arp 10.0.0." + std::to_string(i) + "\n";
    load(text);
    fake_client lum(DAEMON_HANDLERS);
    fake_shell shell;
    shell.begin("show lum vlan");
    platform_process::turns();
    const auto lines = lum.serve();
    ASSERT_THAT(lines, SizeIs(201));
    EXPECT_EQ(lines[32], "[] show lum vlan");
}

TEST_F(Replay, GoesToTheOtherProcessWhenTheActiveOneDies)
{
    load("lum anycast-arp 10.0.0.1\n");
    auto active = std::make_unique<fake_client>(DAEMON_HANDLERS);
    active->serve();
    fake_client standby(DAEMON_HANDLERS);
    EXPECT_THAT(standby.serve(), IsEmpty());
    active.reset();
    EXPECT_THAT(standby.serve(), ElementsAre("[] lum anycast-arp 10.0.0.1"));
}

TEST_F(Replay, LeavesAProcessThatStandsByAloneUntilItIsActive)
{
    load("lum anycast-arp 10.0.0.1\n");
    cmdsrv().stands_by = [](pid_t) { return true; };
    fake_shell shell;
    framed_peer waiting(corvane::CMDSRV_SOCKET);
    waiting.send(corvane::CLIENT_HELLO,
                 byte_writer().put(corvane::CMDSRV_VERSION).put<std::uint64_t>(77).text("lum").view());
    waiting.send(corvane::CLIENT_HANDLER, byte_writer().text("lum_anycast_arp_cmd").view());
    waiting.send(corvane::CLIENT_READY);
    platform_process::turns(20);
    waiting.read();
    EXPECT_THAT(waiting.frames, SizeIs(1));
    EXPECT_EQ(shell.run("show lum vlan").error, "lum is not running\n");
    clients_set_active("lum", getpid());
    platform_process::turns();
    waiting.read();
    ASSERT_THAT(waiting.frames, SizeIs(2));
    EXPECT_EQ(corvane::get_execute(waiting.frames[1].record)->line, "lum anycast-arp 10.0.0.1");
}

TEST_F(Replay, GivesADeviceThatCameBackItsLinesAgain)
{
    load("interface eth1\n  switchport\n  lum vlan 10\n");
    fake_client lum(DAEMON_HANDLERS);
    lum.serve();
    platform_did.clear();
    replay_interface_created(interfaces["eth1"]);
    EXPECT_THAT(platform_did, ElementsAre("[eth1] switchport"));
    EXPECT_THAT(lum.serve(), ElementsAre("[eth1] lum vlan 10"));
}

TEST_F(Apply, EntersOnlyWhatDiffers)
{
    load("chassis generic\ninterface eth1\n  switchport\n  lum vlan 10\nlum anycast-arp 10.0.0.1\n");
    fake_client lum(DAEMON_HANDLERS);
    lum.serve();
    platform_did.clear();
    fake_shell shell;
    shell.file = "chassis generic\ninterface eth1\n  switchport\n  lum vlan 20\n";
    std::vector<std::string> lines;
    shell.begin("configure file some.conf");
    const auto answer = shell.finish([&] {
        for (const auto &line : lum.serve())
            lines.push_back(line);
    });
    EXPECT_EQ(answer.status, corvane::STATUS_DONE);
    EXPECT_THAT(lines, ElementsAre("[] no lum anycast-arp 10.0.0.1", "[eth1] no lum vlan 10", "[eth1] lum vlan 20"));
    EXPECT_THAT(platform_did, IsEmpty());
    EXPECT_EQ(running(), "chassis generic\ninterface eth1\n  switchport\n  lum vlan 20\n");
}

TEST_F(Apply, SaysWhatWouldChangeAndChangesNothing)
{
    load("chassis generic\ninterface eth1\n  switchport\nlum vpn-site-vlan 3\n");
    platform_did.clear();
    fake_shell shell;
    shell.file = "interface eth1\n  switchport\n  shutdown\nlum vpn-site-vlan 5\n";
    const auto answer = shell.run("configure file some.conf --check");
    EXPECT_EQ(answer.out, "- chassis generic\n- lum vpn-site-vlan 3\n+ interface eth1: shutdown\n+ lum vpn-site-vlan 5\n");
    EXPECT_EQ(answer.status, corvane::STATUS_DONE);
    EXPECT_THAT(platform_did, IsEmpty());
    EXPECT_EQ(running(), "chassis generic\ninterface eth1\n  switchport\nlum vpn-site-vlan 3\n");
}

TEST_F(Apply, ChangesNothingWhenTheFileHasMistakes)
{
    load("chassis generic\n");
    fake_shell shell;
    shell.file = "interface eth1\n  swtichport\n";
    const auto answer = shell.run("configure file some.conf");
    EXPECT_EQ(answer.status, corvane::STATUS_REJECTED);
    EXPECT_THAT(answer.out, StartsWith("some.conf:2: column 3: unknown word \"swtichport\""));
    EXPECT_THAT(answer.out, HasSubstr("nothing was changed"));
    EXPECT_EQ(running(), "chassis generic\n");
}

TEST_F(Apply, SaysWhyTheFileCannotBeRead)
{
    fake_shell shell;
    const auto answer = shell.run("configure file some.conf");
    EXPECT_EQ(answer.status, corvane::STATUS_REJECTED);
    EXPECT_EQ(answer.out, "some.conf: No such file or directory\n");
}

TEST_F(Apply, ReportsLinesThatAreRefusedAndGoesOn)
{
    platform_refuses = "chassis";
    fake_shell shell;
    shell.file = "chassis generic\ninterface eth1\n  switchport\n";
    const auto answer = shell.run("configure file some.conf");
    EXPECT_EQ(answer.status, corvane::STATUS_REJECTED);
    EXPECT_EQ(answer.out, "chassis generic: not today\n");
    EXPECT_EQ(running(), "interface eth1\n  switchport\n");
}

TEST_F(Apply, TakesAFileOfManyPieces)
{
    fake_shell shell;
    for (int i = 1; i < 3000; ++i)
        shell.file += "interface Overlay" + std::to_string(i) + "\n  shutdown\n";
    EXPECT_EQ(shell.run("configure file some.conf").status, corvane::STATUS_DONE);
    EXPECT_THAT(platform_did, SizeIs(2 * 2999));
    EXPECT_EQ(running(), shell.file);
}

TEST_F(Save, WritesTheRunningConfigurationToTheStartupFile)
{
    load("chassis generic\nbad line\n");
    fake_shell shell;
    shell.run("configure terminal");
    shell.run("interface eth1");
    shell.run("switchport");
    EXPECT_EQ(shell.run("write").status, corvane::STATUS_DONE);
    EXPECT_THAT(content(startup_path()), HasSubstr("\nchassis generic\ninterface eth1\n  switchport\n"));
}

TEST_F(Save, LeavesTheOldFileWhenTheNewOneCannotBeWritten)
{
    options chosen = opts();
    chosen.config = "/proc/nowhere/edge.conf";
    options_set(chosen);
    fake_shell shell;
    const auto answer = shell.run("write");
    EXPECT_EQ(answer.status, corvane::STATUS_REJECTED);
    EXPECT_THAT(answer.out + answer.error, StartsWith("cannot write /proc/nowhere/edge.conf: "));
}

TEST_F(Save, KeepsALinkALink)
{
    load("chassis generic\n");
    options chosen = opts();
    const std::string real = chosen.config;
    chosen.config += ".link";
    unlink(chosen.config.c_str());
    ASSERT_EQ(symlink(real.c_str(), chosen.config.c_str()), 0);
    options_set(chosen);
    std::string error;
    EXPECT_TRUE(save_running(error)) << error;
    struct stat about {};
    ASSERT_EQ(lstat(chosen.config.c_str(), &about), 0);
    EXPECT_TRUE(S_ISLNK(about.st_mode));
    EXPECT_THAT(content(real), HasSubstr("chassis generic\n"));
}
