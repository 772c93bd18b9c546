// The journal: what a sudden end leaves of the running configuration.
#include "cmdsrv_peers.h"

#include "../options.h"

#include <gmock/gmock.h>

#include <fstream>
#include <sstream>
#include <sys/stat.h>

using namespace corvaned;
using namespace corvaned_test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

struct Journal : CommandServer {
    void SetUp() override
    {
        CommandServer::SetUp();
        load("interface eth1\n  switchport\n");
        journal_start();
    }
    void TearDown() override
    {
        CommandServer::TearDown();
        journal_end();
    }
    // As if the process had ended here and begun again, its journal left behind.
    bool end_and_begin()
    {
        const std::string journal = content();
        journal_end();
        std::ofstream(path(), std::ios::binary) << journal;
        return begin_again();
    }
    bool begin_again()
    {
        auto &running = cmdsrv().running;
        std::vector<std::uint64_t> ids;
        running.each([&](config_line &line) { ids.push_back(line.id); });
        for (const auto id : ids)
            running.remove(id);
        platform_did.clear();
        return journal_recover();
    }
    static std::string path() { return platform_process::the().root() + "/running-config"; }
    static std::string content()
    {
        std::ifstream in(path(), std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    static void enter(fake_shell &shell, const std::vector<std::string> &lines)
    {
        for (const auto &line : lines)
            EXPECT_EQ(shell.run(line).status, corvane::STATUS_DONE) << line;
    }
};

} // namespace

TEST_F(Journal, BringsBackWhatWasEnteredAndNotSaved)
{
    fake_shell shell;
    enter(shell, {"configure terminal", "interface eth1", "switchport access vlan 7", "exit", "interface Overlay2",
                  "shutdown", "end"});
    const std::string before = running();
    EXPECT_TRUE(end_and_begin());
    EXPECT_EQ(running(), before);
    EXPECT_THAT(platform_did, ElementsAre("[eth1] switchport", "[eth1] switchport_access_vlan <vlan-id>=7",
                                          "[] interface_overlay <N>=2", "[Overlay2] shutdown"));
}

TEST_F(Journal, DoesNotCarryOutWhatWasTakenBack)
{
    fake_shell shell;
    enter(shell, {"configure terminal", "interface Overlay2", "shutdown", "no interface Overlay2", "interface eth1",
                  "shutdown", "no shutdown"});
    EXPECT_TRUE(end_and_begin());
    EXPECT_EQ(running(), "interface eth1\n  switchport\n  no shutdown\n");
    EXPECT_THAT(platform_did, ElementsAre("[eth1] switchport", "[eth1] no shutdown"));
}

TEST_F(Journal, KeepsTheDaemonsLinesForADaemonThatLivedOn)
{
    {
        fake_client lum(DAEMON_HANDLERS);
        fake_shell shell;
        enter(shell, {"configure terminal"});
        shell.begin("lum anycast-arp 10.0.0.1");
        lum.result(lum.next()->request);
        EXPECT_EQ(shell.finish().status, corvane::STATUS_DONE);
    }
    EXPECT_TRUE(end_and_begin());
    fake_client lum(DAEMON_HANDLERS, "lum", {{"", "lum anycast-arp 10.0.0.1"}});
    EXPECT_THAT(lum.serve(), IsEmpty());
    EXPECT_THAT(running(), HasSubstr("lum anycast-arp 10.0.0.1"));
}

TEST_F(Journal, IsLeftAloneWhenTheStartupFileWasChanged)
{
    fake_shell shell;
    enter(shell, {"configure terminal", "chassis generic"});
    const std::string journal = content();
    std::ofstream(startup_path()) << "chassis ferrix\n! and longer than it was\n";
    journal_end();
    std::ofstream(path()) << journal;
    EXPECT_FALSE(begin_again());
    EXPECT_EQ(running(), "");
}

TEST_F(Journal, BelongsToTheFileThatWasSaved)
{
    fake_shell shell;
    enter(shell, {"configure terminal", "chassis generic", "write"});
    EXPECT_TRUE(end_and_begin());
    EXPECT_THAT(running(), HasSubstr("chassis generic\n"));
}

TEST_F(Journal, TakesALineThatWasCutOffForNotWritten)
{
    fake_shell shell;
    enter(shell, {"configure terminal", "chassis generic"});
    std::ofstream(path(), std::ios::app) << "A\t1\t0\teth1\tshutdo";
    EXPECT_TRUE(end_and_begin());
    EXPECT_EQ(running(), "chassis generic\ninterface eth1\n  switchport\n");
}

TEST_F(Journal, SkipsLinesThatCannotBeRead)
{
    std::ofstream(path(), std::ios::app) << "garbage\n\t\t\t\nZ\t1\t0\t\tx\nA\t1\t0\t\tno such command\n\x01\xff\n"
                                         << "A\t1\t0\t\tchassis generic\n";
    EXPECT_TRUE(end_and_begin());
    EXPECT_EQ(running(), "chassis generic\ninterface eth1\n  switchport\n");
}

TEST_F(Journal, IsGoneAfterAnOrderlyEnd)
{
    journal_end();
    EXPECT_FALSE(begin_again());
    struct stat about {};
    EXPECT_NE(stat(path().c_str(), &about), 0);
}

TEST_F(Journal, IsReadableByItsOwnerOnly)
{
    struct stat about {};
    ASSERT_EQ(stat(path().c_str(), &about), 0);
    EXPECT_EQ(about.st_mode & 0777, 0600u);
}

TEST_F(Journal, StaysShortHoweverOftenALineChanges)
{
    fake_shell shell;
    enter(shell, {"configure terminal", "interface eth1"});
    for (int i = 0; i < 30'000; ++i)
        cmdsrv().running.apply("eth1",
                               parse({&cmdsrv().commands, mode::DEVICE, false, false, nullptr}, "shutdown").command);
    EXPECT_LT(content().size(), 800'000u);
    EXPECT_TRUE(end_and_begin());
    EXPECT_EQ(running(), "interface eth1\n  switchport\n  shutdown\n");
}
