// Devices as switchports, on real devices in a network namespace of the test's own.
#include "../intfmgr_port.h"

#include "intfmgr_fixture.h"
#include "network_namespace.h"

#include <fstream>
#include <map>

namespace corvaned {
namespace {

class Switchport : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(space.entered());
        ASSERT_TRUE(netlink.open());
        ip("link set lo up");
        ip("link add site-a3 type veth peer name host");
        ip("link set host up");
        make_keeper();
    }
    void make_keeper()
    {
        keeper = std::make_unique<switchport_keeper>(switchport_keeper::environment{
            netlink,
            [this](const std::string &name, std::vector<std::uint8_t> &record) {
                record = records[name];
                return !record.empty();
            },
            [this](const std::string &name, corvane::byte_view record) {
                records[name].assign(record.begin(), record.end());
            },
            [this](const std::string &name) { records.erase(name); },
            [this](int, const std::string &text) { logged.push_back(text); }});
    }
    // The device as it stands now.
    interface_state state_of(const std::string &name)
    {
        netlink_snapshot all;
        EXPECT_TRUE(netlink.snapshot(all));
        interface_state state;
        state.name = name;
        for (const link_info &link : all.links)
            if (link.name == name)
                state.link = link;
        state.present = state.link.ifindex != 0;
        std::vector<address_info> own;
        for (const address_info &address : all.addresses)
            if (address.ifindex == state.link.ifindex)
                own.push_back(address);
        (void)state.addresses.replace(own);
        return state;
    }
    std::uint32_t flags() { return state_of("site-a3").link.flags & (IFF_UP | IFF_NOARP); }
    static int disable_ipv6()
    {
        int value = -1;
        std::ifstream("/proc/sys/net/ipv6/conf/site-a3/disable_ipv6") >> value;
        return value;
    }
    static bool answers(const std::string &name)
    {
        return std::system(("ip link show dev " + name + " > /dev/null 2>&1").c_str()) == 0;
    }

    network_namespace space;
    netlink_client netlink;
    std::map<std::string, std::vector<std::uint8_t>> records;
    std::vector<std::string> logged;
    std::unique_ptr<switchport_keeper> keeper;
    static constexpr std::uint32_t SILENT = IFF_UP | IFF_NOARP;
};

TEST_F(Switchport, IsUpAndSilentAndFoundByItsLastCharacter)
{
    ASSERT_EQ(keeper->take(state_of("site-a3"), true), 0);

    EXPECT_EQ(flags(), SILENT);
    EXPECT_EQ(disable_ipv6(), 1);
    EXPECT_TRUE(answers("eth3"));
    EXPECT_TRUE(state_of("site-a3").addresses.all().empty());
}

TEST_F(Switchport, StaysDownWhenItIsShut)
{
    ASSERT_EQ(keeper->take(state_of("site-a3"), false), 0);
    EXPECT_EQ(flags(), static_cast<std::uint32_t>(IFF_NOARP));
}

TEST_F(Switchport, IsGivenBackAsItWas)
{
    ip("address add 2001:db8::3/64 dev site-a3 nodad");
    ip("address add 192.0.2.3/24 dev site-a3");
    ASSERT_EQ(keeper->take(state_of("site-a3"), true), 0);
    keeper->give_back(state_of("site-a3"));

    EXPECT_EQ(flags(), 0u);
    EXPECT_EQ(disable_ipv6(), 0);
    EXPECT_FALSE(answers("eth3"));
    const interface_state now = state_of("site-a3");
    EXPECT_EQ(now.addresses.ipv4(), 0xC0000203u);
    EXPECT_EQ(now.addresses.ipv6()[15], 3);
    EXPECT_TRUE(records.empty());
}

TEST_F(Switchport, IsGivenBackUpAndSilentIfItWasSo)
{
    ip("link set site-a3 arp off up");
    std::ofstream("/proc/sys/net/ipv6/conf/site-a3/disable_ipv6") << "1\n";
    ASSERT_EQ(keeper->take(state_of("site-a3"), true), 0);
    keeper->give_back(state_of("site-a3"));

    EXPECT_EQ(flags(), SILENT);
    EXPECT_EQ(disable_ipv6(), 1);
}

TEST_F(Switchport, IsGivenBackByALaterKeeperThatTookItAgain)
{
    ASSERT_EQ(keeper->take(state_of("site-a3"), true), 0);
    make_keeper();
    EXPECT_TRUE(keeper->is_on_record(state_of("site-a3")));
    ASSERT_EQ(keeper->take(state_of("site-a3"), true), 0);
    keeper->give_back(state_of("site-a3"));

    EXPECT_EQ(flags(), 0u);
    EXPECT_EQ(disable_ipv6(), 0);
    EXPECT_FALSE(answers("eth3"));
}

TEST_F(Switchport, OfTheSameNameIsAnotherDeviceWhenItWasMadeAnew)
{
    ASSERT_EQ(keeper->take(state_of("site-a3"), true), 0);
    ip("link del site-a3");
    ip("link add site-a3 type veth peer name host");
    ip("link set site-a3 up");
    EXPECT_FALSE(keeper->is_on_record(state_of("site-a3")));
    keeper->give_back(state_of("site-a3"));
    EXPECT_EQ(flags(), static_cast<std::uint32_t>(IFF_UP));

    ASSERT_EQ(keeper->take(state_of("site-a3"), true), 0);
    EXPECT_EQ(flags(), SILENT);
    keeper->give_back(state_of("site-a3"));
    EXPECT_EQ(flags(), static_cast<std::uint32_t>(IFF_UP));
}

TEST_F(Switchport, GetsNoNameThatADeviceAnswersTo)
{
    ip("link add eth3 type veth peer name other");
    ASSERT_EQ(keeper->take(state_of("site-a3"), true), 0);
    keeper->give_back(state_of("site-a3"));

    EXPECT_TRUE(answers("eth3"));
}

TEST_F(Switchport, ThatIsGoneIsRefused)
{
    interface_state gone = state_of("site-a3");
    ip("link del site-a3");

    EXPECT_EQ(keeper->take(gone, true), ENODEV);
    EXPECT_TRUE(records.empty());
}

TEST_F(Switchport, AnswersNoArpAndSolicitsNothing)
{
    ip("address add 192.0.2.3/24 dev site-a3");
    ip("address add 192.0.2.1/24 dev host");
    ASSERT_EQ(keeper->take(state_of("site-a3"), true), 0);
    const int probe = std::system("ip neigh flush dev host; ping -c 1 -W 1 -I host 192.0.2.3 > /dev/null 2>&1");
    const int resolved = std::system("ip neigh show dev host | grep -q lladdr");

    EXPECT_NE(probe, 0);
    EXPECT_NE(resolved, 0);
}

TEST_F(Switchport, AltnameOfAnOverlayInterfaceIsAnyDevices)
{
    EXPECT_TRUE(keeper->ensure_altname("Overlay5", state_of("lo")));
    EXPECT_TRUE(answers("eth5"));
    EXPECT_TRUE(keeper->ensure_altname("Overlay5", state_of("lo")));
    const interface_state lo = state_of("lo");
    keeper->drop_altname("Overlay5", &lo);
    EXPECT_FALSE(answers("eth5"));
}

TEST_F(Switchport, RecordThatIsDamagedIsNone)
{
    records["site-a3"] = {1, 2, 3};
    EXPECT_FALSE(keeper->is_on_record(state_of("site-a3")));
    ASSERT_EQ(keeper->take(state_of("site-a3"), true), 0);
    keeper->give_back(state_of("site-a3"));
    EXPECT_EQ(flags(), 0u);
}

} // namespace
} // namespace corvaned
