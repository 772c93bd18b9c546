// Promiscuous reception, on real devices in a network namespace of the test's own (as root).
#include "control_test.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

using namespace fake;
using namespace testing;

namespace
{

struct LumPromiscuous : ControlTest {
    int home = -1;

    void SetUp() override
    {
        home = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
        ASSERT_GE(home, 0);
        ASSERT_EQ(unshare(CLONE_NEWNET), 0) << "needs root";
    }
    void TearDown() override
    {
        EXPECT_EQ(setns(home, CLONE_NEWNET), 0);
        close(home);
    }

    static void shell(const std::string &line)
    {
        ASSERT_EQ(std::system((line + " >/dev/null 2>&1").c_str()), 0) << line;
    }
    static void add_device(const std::string &name, const std::string &more = "")
    {
        shell("ip link add " + name + " " + more + " type veth peer name p" + name);
        shell("ip link set " + name + " up");
    }

    // How many users hold the device promiscuous, -1 when there is no such device.
    static int promiscuity(const std::string &device)
    {
        const std::string command = "ip -d link show dev " + device + " 2>&1";
        const std::unique_ptr<FILE, int (*)(FILE *)> pipe(popen(command.c_str(), "r"), pclose);
        std::string text;
        std::array<char, 4096> chunk;
        while (const std::size_t n = fread(chunk.data(), 1, chunk.size(), pipe.get()))
            text.append(chunk.data(), n);
        const std::size_t at = text.find("promiscuity ");
        return at == std::string::npos ? -1 : std::atoi(text.c_str() + at + 12);
    }

    // Raw sockets of this namespace: protocol (as the kernel prints it) and device index.
    static std::vector<std::pair<std::string, unsigned>> raw_sockets()
    {
        std::ifstream file("/proc/thread-self/net/packet");
        std::string line;
        std::getline(file, line);
        std::vector<std::pair<std::string, unsigned>> list;
        while (std::getline(file, line)) {
            std::istringstream fields(line);
            std::string sk, refs, type, protocol;
            unsigned device = 0;
            fields >> sk >> refs >> type >> protocol >> device;
            list.emplace_back(protocol, device);
        }
        return list;
    }
    static std::size_t descriptors()
    {
        return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
    }

    // Each test has a port of its own: sockets outlive a test.
    static std::uint32_t port(std::uint32_t iod, const std::string &name)
    {
        platform.add_interface(iod, name, {.switchport = true});
        return iod;
    }
};

TEST_F(LumPromiscuous, GoesOnAndOff)
{
    add_device("eth3");
    const std::uint32_t iod = port(31, "eth3");
    EXPECT_EQ(lum_promiscuous(iod, 1), 1);
    EXPECT_EQ(promiscuity("eth3"), 1);
    EXPECT_EQ(lum_promiscuous(iod, 0), 1);
    EXPECT_EQ(promiscuity("eth3"), 0);
}

TEST_F(LumPromiscuous, OnTwiceGoesOffAtOnce)
{
    add_device("eth3");
    const std::uint32_t iod = port(32, "eth3");
    EXPECT_EQ(lum_promiscuous(iod, 1), 1);
    EXPECT_EQ(lum_promiscuous(iod, 1), 1);
    EXPECT_EQ(promiscuity("eth3"), 1);
    EXPECT_EQ(lum_promiscuous(iod, 0), 1);
    EXPECT_EQ(promiscuity("eth3"), 0);
    EXPECT_EQ(lum_promiscuous(iod, 0), 1);
    EXPECT_EQ(lum_promiscuous(iod, 1), 1);
    EXPECT_EQ(promiscuity("eth3"), 1);
}

TEST_F(LumPromiscuous, ListensToItsDeviceAndToAProtocolThatNeverArrives)
{
    add_device("eth3");
    lum_promiscuous(port(33, "eth3"), 1);
    EXPECT_THAT(raw_sockets(), ElementsAre(Pair("ffff", if_nametoindex("eth3"))));
}

TEST_F(LumPromiscuous, AnOffBeforeAnyOnIsSilentToo)
{
    add_device("eth3");
    EXPECT_EQ(lum_promiscuous(port(34, "eth3"), 0), 1);
    EXPECT_THAT(raw_sockets(), ElementsAre(Pair("ffff", if_nametoindex("eth3"))));
}

TEST_F(LumPromiscuous, FlapsOpenOneSocketAPort)
{
    add_device("eth3");
    const std::uint32_t iod = port(35, "eth3");
    lum_promiscuous(iod, 1);
    const std::size_t before = descriptors();
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(lum_promiscuous(iod, 0), 1);
        EXPECT_EQ(lum_promiscuous(iod, 1), 1);
    }
    EXPECT_EQ(descriptors(), before);
    EXPECT_EQ(promiscuity("eth3"), 1);
}

TEST_F(LumPromiscuous, TakesTheDeviceNamedByTheLastCharacterOfThePort)
{
    add_device("eth7");
    EXPECT_EQ(lum_promiscuous(port(36, "uplink-17"), 1), 1);
    EXPECT_EQ(promiscuity("eth7"), 1);
}

TEST_F(LumPromiscuous, FailsForAnUnknownPortAndWithoutADevice)
{
    EXPECT_EQ(lum_promiscuous(400, 1), 0);
    EXPECT_EQ(lum_promiscuous(768, 1), 0);
    EXPECT_EQ(lum_promiscuous(port(37, "eth9"), 1), 0);
    EXPECT_EQ(lum_promiscuous(37, 0), 0);
    EXPECT_THAT(raw_sockets(), ElementsAre(Pair("ffff", 0u)));       // silent all the same
}

TEST_F(LumPromiscuous, ADeviceThatAppearsLaterIsTaken)
{
    const std::uint32_t iod = port(38, "eth9");
    EXPECT_EQ(lum_promiscuous(iod, 1), 0);
    add_device("eth9");
    EXPECT_EQ(lum_promiscuous(iod, 1), 1);
    EXPECT_EQ(promiscuity("eth9"), 1);
    EXPECT_THAT(raw_sockets(), ElementsAre(Pair("ffff", if_nametoindex("eth9"))));
}

TEST_F(LumPromiscuous, ADeviceMadeAgainIsTakenUnderAnotherIndex)
{
    add_device("eth3");
    const std::uint32_t iod = port(39, "eth3");
    lum_promiscuous(iod, 1);
    shell("ip link del eth3");
    add_device("eth3", "index 500");
    EXPECT_EQ(lum_promiscuous(iod, 1), 1);
    EXPECT_EQ(promiscuity("eth3"), 1);
    EXPECT_EQ(lum_promiscuous(iod, 0), 1);
    EXPECT_EQ(promiscuity("eth3"), 0);
}

TEST_F(LumPromiscuous, ADeviceMadeAgainIsTakenUnderTheSameIndex)
{
    add_device("eth3", "index 600");
    const std::uint32_t iod = port(40, "eth3");
    lum_promiscuous(iod, 1);
    shell("ip link del eth3");
    add_device("eth3", "index 600");
    EXPECT_EQ(promiscuity("eth3"), 0);
    EXPECT_EQ(lum_promiscuous(iod, 1), 1);
    EXPECT_EQ(promiscuity("eth3"), 1);
    EXPECT_EQ(lum_promiscuous(iod, 0), 1);
    EXPECT_EQ(promiscuity("eth3"), 0);
}

TEST_F(LumPromiscuous, APortThatMovesToAnotherDeviceLeavesTheFirst)
{
    add_device("eth3");
    add_device("eth4");
    const std::uint32_t iod = port(41, "eth3");
    lum_promiscuous(iod, 1);
    platform.interface(iod).name = "eth4";
    EXPECT_EQ(lum_promiscuous(iod, 1), 1);
    EXPECT_EQ(promiscuity("eth3"), 0);
    EXPECT_EQ(promiscuity("eth4"), 1);
}

TEST_F(LumPromiscuous, TheVlanCommandAddsThePortToItsVlanAndSwitchesReception)
{
    add_device("eth3");
    const std::uint32_t iod = port(42, "eth3");
    EXPECT_EQ(platform.command(lum_vlan_cmd, {{"<vlan-id>", "10"}}, false, iod).status, 0);
    EXPECT_EQ(lum_vlans[10].in_use, 1);
    EXPECT_TRUE(bitfield_test(*lum_vlans[10].ports, iod));
    ASSERT_NE(lum_get_from_pt(iod), nullptr);
    EXPECT_EQ(lum_get_from_pt(iod)->vlan, 10u);
    EXPECT_EQ(lum_get_from_pt(iod)->trunk, 0);
    EXPECT_EQ(promiscuity("eth3"), 1);

    EXPECT_EQ(platform.command(lum_vlan_cmd, {{"<vlan-id>", "10"}}, true, iod).status, 0);
    EXPECT_EQ(lum_vlans[10].in_use, 0);
    EXPECT_EQ(lum_get_from_pt(iod), nullptr);
    EXPECT_EQ(promiscuity("eth3"), 0);
}

TEST_F(LumPromiscuous, TheVlanCommandOfATrunkTouchesNoVlanButRecordsThePort)
{
    add_device("eth3");
    const std::uint32_t iod = port(43, "eth3");
    EXPECT_EQ(platform.command(lum_vlan_cmd, {{"<vlan-id>", "10"}, {"trunk-port", ""}}, false, iod).status, 0);
    EXPECT_EQ(lum_vlans[10].in_use, 0);
    ASSERT_NE(lum_get_from_pt(iod), nullptr);
    EXPECT_EQ(lum_get_from_pt(iod)->trunk, 1);
    EXPECT_EQ(lum_get_from_pt(iod)->vlan, 10u);
}

TEST_F(LumPromiscuous, TheVlanCommandOfAnotherVlanMovesTheRecordAndKeepsTheFirstMembership)
{
    add_device("eth3");
    const std::uint32_t iod = port(44, "eth3");
    platform.command(lum_vlan_cmd, {{"<vlan-id>", "10"}}, false, iod);
    platform.command(lum_vlan_cmd, {{"<vlan-id>", "20"}}, false, iod);
    EXPECT_TRUE(bitfield_test(*lum_vlans[10].ports, iod));
    EXPECT_TRUE(bitfield_test(*lum_vlans[20].ports, iod));
    EXPECT_EQ(lum_get_from_pt(iod)->vlan, 20u);
}

TEST_F(LumPromiscuous, TheVlanCommandWorksOnAnOverlayInterface)
{
    add_device("eth1");
    EXPECT_EQ(platform.command(lum_vlan_cmd, {{"<vlan-id>", "10"}, {"trunk-port", ""}}, false, OVERLAY).status, 0);
    ASSERT_NE(lum_get_from_pt(OVERLAY), nullptr);
    EXPECT_EQ(lum_get_from_pt(OVERLAY)->trunk, 1);
}

} // namespace
