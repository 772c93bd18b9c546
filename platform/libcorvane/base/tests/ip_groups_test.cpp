// Multicast memberships, as the kernel's own tables show them, in a network namespace of the test's own.
#include "../ip_groups.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <net/if.h>
#include <sched.h>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

using corvane::group_memberships;
using corvane::ip_group;

namespace {

constexpr std::uint32_t IOD = 5, OTHER_IOD = 6;

class GroupMemberships : public testing::Test {
protected:
    void SetUp() override
    {
        before = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
        ASSERT_EQ(unshare(CLONE_NEWNET), 0);
        make_device();
    }
    void TearDown() override
    {
        groups.reset();
        ASSERT_EQ(setns(before, CLONE_NEWNET), 0);
        close(before);
    }
    void make_device()
    {
        ASSERT_EQ(std::system("ip link add eth1 type veth peer name peer1 && ip link set eth1 up && ip link set peer1 up"), 0);
        devices[IOD] = if_nametoindex("eth1");
    }
    static ip_group group(const char *text)
    {
        ip_group g{std::string(text).find(':') == std::string::npos ? AF_INET : AF_INET6, {}};
        EXPECT_EQ(inet_pton(g.family, text, g.address.data()), 1);
        return g;
    }
    static std::string lines_of(const char *path)
    {
        std::ostringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }
    // The groups of one device in /proc/net/igmp, which writes addresses in the machine's byte order.
    static bool kernel_has(const ip_group &g, const std::string &device = "eth1")
    {
        if (g.family == AF_INET6) {
            std::string digits;
            for (const std::uint8_t byte : g.address) {
                char text[3];
                std::snprintf(text, sizeof text, "%02x", byte);
                digits += text;
            }
            std::istringstream lines(lines_of("/proc/net/igmp6"));
            for (std::string line; std::getline(lines, line);)
                if (line.find(" " + device + " ") != std::string::npos && line.find(digits) != std::string::npos)
                    return true;
            return false;
        }
        char wanted[9];
        std::snprintf(wanted, sizeof wanted, "%02X%02X%02X%02X", g.address[3], g.address[2], g.address[1], g.address[0]);
        std::istringstream lines(lines_of("/proc/net/igmp"));
        bool on_device = false;
        for (std::string line; std::getline(lines, line);) {
            if (line[0] != '\t')
                on_device = line.find("\t" + device + " ") != std::string::npos;
            else if (on_device && line.find(wanted) != std::string::npos)
                return true;
        }
        return false;
    }

    int before = -1;
    std::map<std::uint32_t, std::uint32_t> devices;
    std::unique_ptr<group_memberships> groups =
        std::make_unique<group_memberships>([this](std::uint32_t iod) { return devices[iod]; });
};

TEST_F(GroupMemberships, AreJoinedAndLeftInTheKernel)
{
    for (const char *text : {"239.1.1.1", "ff0e::1:1"}) {
        EXPECT_FALSE(kernel_has(group(text)));
        EXPECT_TRUE(groups->join(IOD, group(text)));
        EXPECT_TRUE(kernel_has(group(text))) << text;
        EXPECT_TRUE(groups->leave(IOD, group(text)));
        EXPECT_FALSE(kernel_has(group(text))) << text;
        EXPECT_FALSE(groups->leave(IOD, group(text)));
    }
}

TEST_F(GroupMemberships, AreOneHoweverOftenJoined)
{
    EXPECT_TRUE(groups->join(IOD, group("239.1.1.1")));
    EXPECT_TRUE(groups->join(IOD, group("239.1.1.1")));
    EXPECT_TRUE(groups->leave(IOD, group("239.1.1.1")));
    EXPECT_FALSE(kernel_has(group("239.1.1.1")));
}

TEST_F(GroupMemberships, AreMoreThanOneSocketMayHave)
{
    for (int i = 1; i <= 100; ++i)
        ASSERT_TRUE(groups->join(IOD, group(("239.1.1." + std::to_string(i)).c_str()))) << i;

    EXPECT_TRUE(kernel_has(group("239.1.1.1")));
    EXPECT_TRUE(kernel_has(group("239.1.1.100")));
    for (int i = 1; i <= 100; ++i)
        ASSERT_TRUE(groups->leave(IOD, group(("239.1.1." + std::to_string(i)).c_str())));
    EXPECT_FALSE(kernel_has(group("239.1.1.100")));
}

TEST_F(GroupMemberships, FollowTheirInterfaceToAnotherDevice)
{
    ASSERT_TRUE(groups->join(IOD, group("239.1.1.1")));
    ASSERT_TRUE(groups->join(IOD, group("ff0e::1:1")));
    ASSERT_EQ(std::system("ip link del eth1"), 0);
    devices[IOD] = 0;
    groups->refresh();
    make_device();
    EXPECT_FALSE(kernel_has(group("239.1.1.1")));
    groups->refresh();

    EXPECT_TRUE(kernel_has(group("239.1.1.1")));
    EXPECT_TRUE(kernel_has(group("ff0e::1:1")));
    EXPECT_TRUE(groups->leave(IOD, group("239.1.1.1")));
    EXPECT_FALSE(kernel_has(group("239.1.1.1")));
}

TEST_F(GroupMemberships, AreMadeAnewByJoiningOnceMore)
{
    ASSERT_TRUE(groups->join(IOD, group("239.1.1.1")));
    ASSERT_EQ(std::system("ip link del eth1"), 0);
    make_device();
    EXPECT_TRUE(groups->join(IOD, group("239.1.1.1")));

    EXPECT_TRUE(kernel_has(group("239.1.1.1")));
}

TEST_F(GroupMemberships, WaitForAnInterfaceThatIsAway)
{
    EXPECT_TRUE(groups->join(OTHER_IOD, group("239.1.1.1")));
    devices[OTHER_IOD] = devices[IOD];
    groups->refresh();

    EXPECT_TRUE(kernel_has(group("239.1.1.1")));
}

TEST_F(GroupMemberships, RefuseWhatIsNoGroup)
{
    EXPECT_FALSE(groups->join(IOD, group("192.0.2.1")));
    EXPECT_FALSE(groups->leave(IOD, group("192.0.2.1")));
}

} // namespace
