// Shells and clients at the command server: what is carried out, kept, refused, and what happens when one side is slow,
// hangs or goes away.
#include "cmdsrv_peers.h"

#include "../loop.h"

#include <gmock/gmock.h>

#include <fstream>
#include <sstream>

using namespace corvaned;
using namespace corvaned_test;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::SizeIs;
using ::testing::StartsWith;

namespace {

using Shell = CommandServer;
using Client = CommandServer;

} // namespace

TEST_F(Shell, IsGreetedWithTheHostName)
{
    fake_shell shell;
    EXPECT_FALSE(shell.host.empty());
    EXPECT_EQ(shell.notice, "");
}

TEST_F(Shell, HearsOfRefusedStartupLines)
{
    load("nonsense\n");
    fake_shell shell;
    EXPECT_EQ(shell.notice, "1 startup lines were refused: show configuration-errors");
    EXPECT_THAT(shell.run("show configuration-errors").out, HasSubstr("startup.test:1: column 1: unknown word"));
}

TEST_F(Shell, MovesThroughTheModes)
{
    fake_shell shell;
    EXPECT_EQ(shell.run("configure terminal").mode, corvane::shell_mode::CONFIGURE);
    EXPECT_EQ(shell.run("interface eth1").mode, corvane::shell_mode::INTERFACE);
    EXPECT_EQ(shell.run("exit").mode, corvane::shell_mode::CONFIGURE);
    EXPECT_EQ(shell.run("interface Overlay1").mode, corvane::shell_mode::INTERFACE);
    EXPECT_EQ(shell.run("end").mode, corvane::shell_mode::EXEC);
    const auto last = shell.run("exit");
    EXPECT_TRUE(last.over);
    EXPECT_TRUE(platform_process::until([&] { return shell.closed(); }));
}

TEST_F(Shell, RefusesTheModeOfAMissingDevice)
{
    fake_shell shell;
    shell.run("configure terminal");
    const auto answer = shell.run("interface eth9");
    EXPECT_EQ(answer.status, corvane::STATUS_REJECTED);
    EXPECT_EQ(answer.error, "no such interface: eth9\n");
    EXPECT_EQ(shell.run("interface Overlay10000").error,
              "no such interface: Overlay10000; overlay interfaces are Overlay0 to Overlay9999\n");
    EXPECT_EQ(answer.mode, corvane::shell_mode::CONFIGURE);
}

TEST_F(Shell, PointsAtTheMistake)
{
    fake_shell shell;
    const auto answer = shell.run("show lum nothing");
    EXPECT_EQ(answer.status, corvane::STATUS_REJECTED);
    EXPECT_EQ(answer.at, 9u);
    EXPECT_THAT(answer.mistake, StartsWith("unknown word \"nothing\"; expected"));
}

TEST_F(Shell, CarriesPlatformCommandsOutInTheModeOfTheInterface)
{
    fake_shell shell;
    shell.run("configure terminal");
    shell.run("interface eth1");
    EXPECT_EQ(shell.run("switchport").status, corvane::STATUS_DONE);
    EXPECT_EQ(shell.run("switchport access vlan 7").status, corvane::STATUS_DONE);
    EXPECT_THAT(platform_did, ElementsAre("[eth1] switchport", "[eth1] switchport_access_vlan <vlan-id>=7"));
    EXPECT_EQ(running(), "interface eth1\n  switchport\n  switchport access vlan 7\n");
}

TEST_F(Shell, KeepsNothingThatWasRefused)
{
    platform_refuses = "switchport";
    fake_shell shell;
    shell.run("configure terminal");
    shell.run("interface eth1");
    const auto answer = shell.run("switchport");
    EXPECT_EQ(answer.status, corvane::STATUS_REJECTED);
    EXPECT_EQ(answer.error, "not today\n");
    EXPECT_EQ(answer.out, "");
    EXPECT_EQ(running(), "");
}

TEST_F(Shell, EntersGlobalLinesFromTheModeOfAnInterface)
{
    fake_shell shell;
    shell.run("configure terminal");
    shell.run("interface eth1");
    EXPECT_EQ(shell.run("chassis generic").mode, corvane::shell_mode::CONFIGURE);
    EXPECT_EQ(running(), "chassis generic\n");
}

TEST_F(Shell, SaysThatTheDaemonIsNotRunning)
{
    fake_shell shell;
    const auto answer = shell.run("show lum vlan");
    EXPECT_EQ(answer.status, corvane::STATUS_REJECTED);
    EXPECT_EQ(answer.error, "lum is not running\n");
}

TEST_F(Shell, PicksAndCountsLines)
{
    fake_shell shell;
    shell.run("configure terminal");
    shell.run("interface eth1");
    shell.run("switchport");
    shell.run("end");
    EXPECT_EQ(shell.run("show running-config | include port").out, "  switchport\n");
    EXPECT_EQ(shell.run("show running-config | exclude port").out, "interface eth1\n");
    EXPECT_EQ(shell.run("show running-config | count").out, "2\n");
    EXPECT_EQ(shell.run("show running-config | inc \"  sw\"").out, "  switchport\n");
    EXPECT_EQ(shell.run("show running-config | include \"  x\"").out, "");
}

TEST_F(Shell, PointsAtAMistakeBehindTheBar)
{
    fake_shell shell;
    auto answer = shell.run("show running-config | grep x");
    EXPECT_EQ(answer.at, 22u);
    EXPECT_THAT(answer.mistake, StartsWith("unknown word \"grep\"; expected include, exclude, count or json"));
    EXPECT_THAT(shell.run("show running-config |").mistake, StartsWith("expected include"));
    EXPECT_EQ(shell.run("show running-config | include").mistake, "expected the text to look for");
    EXPECT_EQ(shell.run("show running-config | count x").mistake, "nothing more is expected here");
    EXPECT_EQ(shell.run("show running-config | count | count").mistake, "one filter a command");
    EXPECT_EQ(shell.run("help | json").mistake, "this command has no JSON form");
    EXPECT_EQ(shell.run("show running-config | count").status, corvane::STATUS_DONE);
}

TEST_F(Shell, CompletesWithInterfacesAndFilters)
{
    fake_shell shell;
    cmdsrv().live.list = [](value_type type) -> std::vector<std::pair<std::string, std::string>> {
        return type == value_type::INTERFACE ? std::vector<std::pair<std::string, std::string>>{{"eth1", "up"}}
                                             : std::vector<std::pair<std::string, std::string>>{};
    };
    shell.run("configure terminal");
    EXPECT_THAT(shell.choices("interface e"), ElementsAre("eth1"));
    EXPECT_THAT(shell.choices("show running-config | "), ElementsAre("include", "exclude", "count", "json"));
    EXPECT_THAT(shell.choices("show running-config | i"), ElementsAre("include"));
    EXPECT_THAT(shell.choices("show running-config | include "), ElementsAre("<text>"));
}

TEST_F(Shell, IsDroppedWhenItSpeaksSomethingElse)
{
    framed_peer silent(corvane::SHELL_SOCKET);
    silent.send(corvane::SHELL_EXECUTE, byte_writer().text("show drops").view());
    EXPECT_TRUE(platform_process::until([&] { return silent.closed(); }));
    framed_peer garbage(corvane::SHELL_SOCKET);
    garbage.send_raw(bytes(std::string(200, '\xee')));
    EXPECT_TRUE(platform_process::until([&] { return garbage.closed(); }));
    fake_shell wrong_kind;
    wrong_kind.send(77);
    EXPECT_TRUE(platform_process::until([&] { return wrong_kind.closed(); }));
    fake_shell cut_short;
    cut_short.send(corvane::SHELL_EXECUTE, bytes("xx"));
    EXPECT_TRUE(platform_process::until([&] { return cut_short.closed(); }));
}

TEST_F(Shell, IsToldThatALineIsTooLong)
{
    fake_shell shell;
    EXPECT_EQ(shell.run(std::string(5000, 'x')).mistake, "the line is too long: 5000 bytes, at most 4096");
    EXPECT_EQ(shell.run("help").status, corvane::STATUS_DONE);
    fake_shell flooding;
    flooding.send(corvane::SHELL_EXECUTE, byte_writer().text(std::string(1024 * 1024, 'x')).view());
    EXPECT_TRUE(platform_process::until([&] { return flooding.closed(); }));
}

TEST_F(Shell, IsRefusedWhenTooManyAreConnected)
{
    std::vector<std::unique_ptr<framed_peer>> shells;
    for (int i = 0; i < 300; ++i) {
        shells.push_back(std::make_unique<framed_peer>(corvane::SHELL_SOCKET));
        platform_process::turns(2);
    }
    framed_peer &last = *shells.back();
    EXPECT_TRUE(platform_process::until([&] {
        last.read();
        return !last.frames.empty();
    }));
    ASSERT_FALSE(last.frames.empty());
    byte_reader in = last.frames.front().in();
    EXPECT_EQ(in.get<std::uint32_t>(), static_cast<std::uint32_t>(EAGAIN));
    EXPECT_THAT(in.text(), StartsWith("too many shells"));
    shells.clear();
    platform_process::turns(50);
    fake_shell again;
    EXPECT_EQ(again.run("help").status, corvane::STATUS_DONE);
}

TEST_F(Client, GetsTheArgumentsOfACommand)
{
    fake_client lum(DAEMON_HANDLERS);
    fake_shell shell;
    shell.begin("show lum overlay Overlay1 summary");
    const auto request = lum.next();
    ASSERT_TRUE(request);
    EXPECT_EQ(request->handler, "lum_show_overlay_cmd");
    EXPECT_FALSE(request->no);
    EXPECT_EQ(request->arguments[3], (std::pair<std::string, std::string>("<if-name>", "Overlay1")));
    lum.print(request->request, "a table\n");
    lum.result(request->request);
    const auto answer = shell.finish();
    EXPECT_EQ(answer.out, "a table\n");
    EXPECT_EQ(answer.status, corvane::STATUS_DONE);
}

TEST_F(Client, GetsTheIodOfTheMode)
{
    fake_client lum(DAEMON_HANDLERS);
    fake_shell shell;
    shell.run("configure terminal");
    shell.run("interface Overlay1");
    shell.begin("lum vpn-name blue");
    const auto request = lum.next();
    ASSERT_TRUE(request);
    EXPECT_EQ(request->mode_iod, 101u);
    EXPECT_EQ(request->interface, "Overlay1");
    lum.result(request->request);
    EXPECT_EQ(shell.finish().status, corvane::STATUS_DONE);
    EXPECT_EQ(running(), "interface Overlay1\n  lum vpn-name blue\n");
}

TEST_F(Client, HasItsRejectionShownAndNotKept)
{
    fake_client lum(DAEMON_HANDLERS);
    fake_shell shell;
    shell.run("configure terminal");
    shell.run("interface Overlay1");
    shell.begin("lum vpn-mgroup-addr 10.0.0.1");
    const auto request = lum.next();
    ASSERT_TRUE(request);
    lum.print(request->request, "Illegal group address\n");
    lum.result(request->request, corvane::STATUS_REJECTED);
    const auto answer = shell.finish();
    EXPECT_EQ(answer.status, corvane::STATUS_REJECTED);
    EXPECT_EQ(answer.error, "Illegal group address\n");
    EXPECT_EQ(running(), "interface Overlay1\n");
}

TEST_F(Client, LeavesTheRunningConfigurationWhenItRunsOutOfMemory)
{
    fake_client lum(DAEMON_HANDLERS);
    fake_shell shell;
    shell.run("configure terminal");
    shell.begin("lum anycast-arp 10.0.0.1");
    lum.result(lum.next()->request, -1);
    EXPECT_EQ(shell.finish().status, -1);
    EXPECT_EQ(running(), "");
}

TEST_F(Client, EndsCommandsThatItLeavesUnanswered)
{
    auto lum = std::make_unique<fake_client>(DAEMON_HANDLERS);
    fake_shell shell;
    shell.begin("show lum vlan");
    ASSERT_TRUE(lum->next());
    lum.reset();
    const auto answer = shell.finish();
    EXPECT_EQ(answer.status, corvane::STATUS_REJECTED);
    EXPECT_EQ(answer.error, "lum stopped before it answered\n");
}

TEST_F(Client, IsDroppedWhenItAnswersWhatWasNotAsked)
{
    fake_client lum(DAEMON_HANDLERS);
    lum.result(4711);
    EXPECT_TRUE(platform_process::until([&] { return lum.closed(); }));
    EXPECT_FALSE(client_ready("lum"));
}

TEST_F(Client, IsDroppedWhenItPrintsMoreThanItWasGranted)
{
    fake_client lum(DAEMON_HANDLERS);
    fake_shell shell;
    shell.begin("show lum vlan");
    const auto request = lum.next();
    ASSERT_TRUE(request);
    // The shell reads nothing meanwhile, so no more is granted once enough waits for it.
    for (int i = 0; i < 200 && !lum.closed(); ++i)
        lum.print(request->request, std::string(60'000, 'x'));
    EXPECT_TRUE(lum.closed());
}

TEST_F(Client, IsGrantedMoreAsTheShellReads)
{
    fake_client lum(DAEMON_HANDLERS);
    fake_shell shell;
    shell.begin("show lum vlan");
    const auto request = lum.next();
    ASSERT_TRUE(request);
    std::uint64_t sent = 0;
    const std::string piece(16'000, 'y');
    while (sent < 4'000'000) {
        while (corvane::CLIENT_FIRST_CREDIT + lum.credit < sent + piece.size()) {
            shell.read();
            (void)lum.waiting();
        }
        lum.print(request->request, piece);
        sent += piece.size();
    }
    lum.result(request->request);
    EXPECT_EQ(shell.finish().out.size(), sent);
}

TEST_F(Client, HearsThatTheShellWantsNoMore)
{
    fake_client lum(DAEMON_HANDLERS);
    fake_shell shell;
    shell.begin("show lum vlan");
    const auto request = lum.next();
    ASSERT_TRUE(request);
    lum.print(request->request, "first\n");
    shell.send(corvane::SHELL_STOP);
    (void)lum.waiting();
    EXPECT_TRUE(lum.stopped);
    lum.print(request->request, "second\n");
    lum.result(request->request, corvane::STATUS_STOPPED);
    const auto answer = shell.finish();
    EXPECT_EQ(answer.out, "first\n");
    EXPECT_EQ(answer.status, corvane::STATUS_STOPPED);
}

TEST_F(Client, HearsThatTheShellWentAway)
{
    fake_client lum(DAEMON_HANDLERS);
    auto shell = std::make_unique<fake_shell>();
    shell->begin("show lum vlan");
    const auto request = lum.next();
    ASSERT_TRUE(request);
    shell.reset();
    (void)lum.waiting();
    EXPECT_TRUE(lum.stopped);
    for (int i = 0; i < 10; ++i) {
        lum.print(request->request, std::string(60'000, 'x'));
        (void)lum.waiting();
    }
    EXPECT_FALSE(lum.closed());
    lum.result(request->request);
    fake_shell other;
    other.begin("show lum vlan");
    EXPECT_TRUE(lum.next());
}

TEST_F(Client, TakesTheStopOfACommandThatIsOverForNothing)
{
    fake_client lum(DAEMON_HANDLERS);
    fake_shell shell;
    EXPECT_EQ(shell.run("help").status, corvane::STATUS_DONE);
    shell.send(corvane::SHELL_STOP);
    shell.begin("show lum vlan");
    const auto request = lum.next();
    ASSERT_TRUE(request);
    lum.print(request->request, "all of it\n");
    lum.result(request->request);
    EXPECT_EQ(shell.finish().out, "all of it\n");
}

TEST_F(Client, CannotTakeTheNamesOfThePlatform)
{
    framed_peer client(corvane::CMDSRV_SOCKET);
    client.send(corvane::CLIENT_HELLO,
                byte_writer().put(corvane::CMDSRV_VERSION).put<std::uint64_t>(1).text("platform").view());
    EXPECT_TRUE(platform_process::until([&] {
        client.read();
        return !client.frames.empty();
    }));
    EXPECT_EQ(client.frames.at(0).in().get<std::uint32_t>(), static_cast<std::uint32_t>(EEXIST));
}

TEST_F(Client, BringsItsOwnCommands)
{
    framed_peer client(corvane::CMDSRV_SOCKET);
    client.send(corvane::CLIENT_HELLO,
                byte_writer().put(corvane::CMDSRV_VERSION).put<std::uint64_t>(99).text("mirror").view());
    client.send(corvane::CLIENT_GRAMMAR,
                byte_writer().text("client mirror\ncommand show_mirror\n  mode exec\n  syntax show mirror\n").view());
    client.send(corvane::CLIENT_HANDLER, byte_writer().text("show_mirror").view());
    client.send(corvane::CLIENT_READY);
    EXPECT_TRUE(platform_process::until([&] { return client_ready("mirror"); }));
    fake_shell shell;
    client.frames.clear();
    shell.begin("show mirror");
    EXPECT_TRUE(platform_process::until([&] {
        client.read();
        return !client.frames.empty() && client.frames.back().kind == corvane::SERVER_EXECUTE;
    }));
    client.close();
    EXPECT_EQ(shell.finish().error, "mirror stopped before it answered\n");
    EXPECT_EQ(shell.run("show mirror").error, "mirror is not running\n");
}

TEST_F(Client, HasTheLinesOfAPortTakenBackBeforeThePortGoes)
{
    fake_client lum(DAEMON_HANDLERS);
    fake_shell shell;
    shell.run("configure terminal");
    shell.run("interface eth1");
    shell.run("switchport");
    for (const char *line : {"lum vlan 10", "lum vlan 20"}) {
        shell.begin(line);
        lum.result(lum.next()->request);
        shell.finish();
    }
    shell.run("switchport access vlan 10");
    platform_did.clear();
    shell.begin("no switchport");
    EXPECT_THAT(lum.serve(), ElementsAre("[eth1] no lum vlan 20", "[eth1] no lum vlan 10"));
    EXPECT_EQ(shell.finish().status, corvane::STATUS_DONE);
    EXPECT_THAT(platform_did, ElementsAre("[eth1] no switchport_access_vlan <vlan-id>=10", "[eth1] no switchport"));
    EXPECT_EQ(running(), "");
}

TEST_F(Client, IsToldThatTheLinesOfAnOverlayWentWithIt)
{
    fake_client lum(DAEMON_HANDLERS);
    fake_shell shell;
    shell.run("configure terminal");
    shell.run("interface Overlay3");
    shell.begin("lum vpn-name blue");
    lum.result(lum.next()->request);
    shell.finish();
    EXPECT_EQ(shell.run("no interface Overlay3").mode, corvane::shell_mode::CONFIGURE);
    (void)lum.waiting();
    EXPECT_THAT(lum.forgotten, ElementsAre("Overlay3"));
    EXPECT_EQ(running(), "");
}
