// The kernel's links and addresses, in a network namespace of the test's own.
#include "../netlink.h"

#include "network_namespace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <linux/if.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

using testing::Contains;
using testing::ElementsAre;

namespace corvaned {
namespace {

class Netlink : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(space.entered());
        ASSERT_TRUE(client.open());
    }
    // Everything the kernel has said by now: it says it before the command that brings it about ends.
    bool read() { return client.read_events(handler); }
    std::optional<link_info> link_of(const std::string &name)
    {
        netlink_snapshot all;
        EXPECT_TRUE(client.snapshot(all));
        const auto at = std::ranges::find_if(all.links, [&](const link_info &l) { return l.name == name; });
        return at == all.links.end() ? std::nullopt : std::optional(*at);
    }

    network_namespace space;
    netlink_client client;
    std::vector<std::string> seen;
    netlink_handler handler{
        [this](const link_info &link) { seen.push_back("link " + link.name); },
        [this](std::uint32_t) { seen.push_back("gone"); },
        [this](const address_info &a, bool added) {
            seen.push_back((added ? "+" : "-") + std::to_string(a.address[0]) + "/" + std::to_string(a.prefix_length));
        }};
};

TEST_F(Netlink, ListsLinksWithTheirKindsAndAddresses)
{
    ip("link add eth1 mtu 1400 address 02:00:00:00:00:09 type veth peer name peer1");
    ip("address add 192.0.2.1/24 dev eth1");
    ip("link set lo up");

    const auto eth1 = link_of("eth1");
    ASSERT_TRUE(eth1);
    EXPECT_EQ(eth1->kind, "veth");
    EXPECT_EQ(eth1->mtu, 1400u);
    EXPECT_THAT(eth1->mac, ElementsAre(2, 0, 0, 0, 0, 9));
    EXPECT_EQ(eth1->flags & IFF_UP, 0u);
    EXPECT_NE(link_of("lo")->flags & IFF_UP, 0u);

    netlink_snapshot all;
    ASSERT_TRUE(client.snapshot(all));
    const auto address = std::ranges::find_if(all.addresses, [&](const auto &a) { return a.ifindex == eth1->ifindex; });
    ASSERT_NE(address, all.addresses.end());
    EXPECT_EQ(address->family, AF_INET);
    EXPECT_EQ(address->address[3], 1);
    EXPECT_EQ(address->scope, RT_SCOPE_UNIVERSE);
}

TEST_F(Netlink, HearsOfLinksAndAddressesThatComeAndGo)
{
    ip("link add eth1 type veth peer name peer1");
    ip("address add 192.0.2.1/24 dev eth1");
    ip("address del 192.0.2.1/24 dev eth1");
    ip("link del eth1");

    ASSERT_TRUE(read());
    EXPECT_THAT(seen, Contains("link eth1"));
    EXPECT_THAT(seen, Contains("+192/24"));
    EXPECT_THAT(seen, Contains("-192/24"));
    EXPECT_EQ(std::ranges::count(seen, "gone"), 2);
}

TEST_F(Netlink, DoesNotTakeADeviceThatLeavesABridgeForGone)
{
    ip("link add br0 type bridge");
    ip("link add eth1 type veth peer name peer1");
    ip("link set eth1 master br0");
    ASSERT_TRUE(read());
    seen.clear();
    ip("link set eth1 nomaster");

    ASSERT_TRUE(read());
    EXPECT_EQ(std::ranges::count(seen, "gone"), 0);
    EXPECT_THAT(seen, Contains("link eth1"));
}

TEST_F(Netlink, NoticesThatNotificationsWereLost)
{
    const int small = 1;
    ASSERT_EQ(setsockopt(client.events_fd(), SOL_SOCKET, SO_RCVBUFFORCE, &small, sizeof small), 0);
    for (int i = 0; i < 20; ++i)
        ip("link set lo " + std::string(i % 2 == 0 ? "up" : "down"));

    EXPECT_FALSE(read());
    seen.clear();
    ip("link add eth1 type veth peer name peer1");
    EXPECT_TRUE(link_of("eth1"));
}

TEST_F(Netlink, ReadsTheOwnAddressOfAPointToPointLink)
{
    ip("link add eth1 type veth peer name peer1");
    ip("address add 192.0.2.1 peer 198.51.100.9/32 dev eth1");
    netlink_snapshot all;

    ASSERT_TRUE(client.snapshot(all));
    EXPECT_EQ(all.addresses.back().address[0], 192);
}

TEST_F(Netlink, SetsFlagsOfALink)
{
    ip("link add eth1 type veth peer name peer1");
    const std::uint32_t ifindex = link_of("eth1")->ifindex;

    EXPECT_EQ(client.set_link_flags(ifindex, IFF_UP | IFF_NOARP, IFF_UP | IFF_NOARP), 0);
    EXPECT_EQ(link_of("eth1")->flags & (IFF_UP | IFF_NOARP), static_cast<unsigned>(IFF_UP | IFF_NOARP));
    EXPECT_EQ(client.set_link_flags(ifindex, 0, IFF_NOARP), 0);
    EXPECT_EQ(link_of("eth1")->flags & (IFF_UP | IFF_NOARP), static_cast<unsigned>(IFF_UP));
    EXPECT_EQ(client.set_link_flags(9999, IFF_UP, IFF_UP), ENODEV);
}

TEST_F(Netlink, GivesAndTakesAlternativeNames)
{
    const std::uint32_t lo = link_of("lo")->ifindex;

    EXPECT_EQ(client.set_altname(lo, "eth7", true), 0);
    ip("link show dev eth7 > /dev/null");
    EXPECT_NE(client.set_altname(lo, "eth7", true), 0);
    EXPECT_EQ(client.set_altname(lo, "eth7", false), 0);
    EXPECT_NE(client.set_altname(lo, "eth7", false), 0);
}

TEST_F(Netlink, AddsAndRemovesAddresses)
{
    ip("link add eth1 type veth peer name peer1");
    address_info address;
    address.ifindex = link_of("eth1")->ifindex;
    address.family = AF_INET6;
    address.prefix_length = 64;
    address.address = {0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};

    EXPECT_EQ(client.set_address(address, true), 0);
    ip("-6 address show dev eth1 | grep -q 2001:db8::1/64");
    EXPECT_EQ(client.set_address(address, false), 0);
    EXPECT_NE(client.set_address(address, false), 0);
}

TEST(NetlinkMessages, ThatAreCutShortChangeNothing)
{
    alignas(nlmsghdr) char space[256] = {};
    auto *message = reinterpret_cast<nlmsghdr *>(space);
    const netlink_handler handler{[](const link_info &) { FAIL(); }, [](std::uint32_t) { FAIL(); },
                                  [](const address_info &, bool) { FAIL(); }};
    for (const std::uint16_t type : {RTM_NEWLINK, RTM_DELLINK, RTM_NEWADDR, RTM_DELADDR}) {
        for (std::uint32_t payload = 0; payload < 8; ++payload) {
            message->nlmsg_type = type;
            message->nlmsg_len = static_cast<std::uint32_t>(sizeof(nlmsghdr)) + payload;
            netlink_parse(message, handler);
        }
    }
}

TEST(NetlinkMessages, TellTheTableOfAVrf)
{
    alignas(nlmsghdr) char space[256] = {};
    auto *message = reinterpret_cast<nlmsghdr *>(space);
    message->nlmsg_type = RTM_NEWLINK;
    std::size_t used = sizeof(nlmsghdr) + sizeof(ifinfomsg);
    const auto put = [&](std::uint16_t type, const void *data, std::size_t length) {
        const rtattr header{static_cast<unsigned short>(sizeof(rtattr) + length), type};
        std::memcpy(space + used, &header, sizeof header);
        std::memcpy(space + used + sizeof header, data, length);
        used += sizeof header + (length + 3) / 4 * 4;
    };
    const std::uint32_t table = 100;
    put(IFLA_IFNAME, "red", 4);
    const std::size_t info = used;
    put(IFLA_LINKINFO, "", 0);
    put(IFLA_INFO_KIND, "vrf", 4);
    const std::size_t data = used;
    put(IFLA_INFO_DATA, "", 0);
    put(1, &table, sizeof table);
    const auto close_nest = [&](std::size_t at) {
        const auto length = static_cast<unsigned short>(used - at);
        std::memcpy(space + at, &length, sizeof length);
    };
    close_nest(data);
    close_nest(info);
    message->nlmsg_len = static_cast<std::uint32_t>(used);

    link_info link;
    netlink_parse(message, {[&](const link_info &l) { link = l; }, [](std::uint32_t) {}, [](const address_info &, bool) {}});
    EXPECT_EQ(link.name, "red");
    EXPECT_EQ(link.kind, "vrf");
    EXPECT_EQ(link.vrf_table, 100u);
}

} // namespace
} // namespace corvaned
