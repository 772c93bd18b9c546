// Taking static routes back: whatever has become of their interface, a route that has been taken back stays away.
#include "control_test.h"

using namespace fake;
using namespace testing;

namespace
{

constexpr char HOST[] = "10/02:00:00:00:0b:10", GROUP_MAC[] = "10/01:00:5e:01:01:01";
const lum_mac_info HOST_INFO{10, mac("02:00:00:00:0b:10")}, GROUP_INFO{10, mac("01:00:5e:01:01:01")};

struct LumRouteRemoval : ControlTest {
    static constexpr std::uint32_t OTHER_PORT = 60;

    static void route(const command_arguments &arguments, bool no = false)
    {
        platform.forget();
        const command_result result = platform.command(lum_route_cmd, arguments, no);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.output, "");
    }
    static void remove(const command_arguments &arguments) { route(arguments, true); }
    static void interface_changes(std::uint32_t iod, bool up)
    {
        platform.interface(iod).up = up;
        lum_resolve_static_routes(iod);
    }
    // The interface goes and is made again under another iod.
    static void make_again(std::uint32_t old_iod, std::uint32_t iod, const std::string &name)
    {
        interface_changes(old_iod, false);
        platform.remove_interface(old_iod);
        platform.add_interface(iod, name, {.switchport = true});
        interface_changes(iod, true);
    }
};

TEST_F(LumRouteRemoval, WhileTheInterfaceIsGoneKeepsTheRouteAwayForGood)
{
    route({{"<mac-info>", HOST}, {"<if-name>", "eth1"}});
    interface_changes(PORT, false);
    platform.remove_interface(PORT);
    remove({{"<mac-info>", HOST}, {"<if-name>", "eth1"}});
    EXPECT_EQ(lum_staticQ.count, 0u);
    EXPECT_EQ(lum_get_static_ecmp(HOST_INFO), 0u);
    EXPECT_THAT(platform.route_updates, IsEmpty());

    platform.add_interface(PORT, "eth1", {.switchport = true});
    interface_changes(PORT, true);
    EXPECT_THAT(platform.route_updates, IsEmpty());
    EXPECT_EQ(platform.find_route(HOST_INFO), nullptr);
}

TEST_F(LumRouteRemoval, OfARouteOlderThanItsInterfaceWorksWhileThatIsDown)
{
    route({{"<mac-info>", HOST}, {"<if-name>", "port9"}});
    platform.add_interface(OTHER_PORT, "port9", {.switchport = true});
    platform.interface(OTHER_PORT).up = false;
    remove({{"<mac-info>", HOST}, {"<if-name>", "port9"}});
    EXPECT_EQ(lum_staticQ.count, 0u);
}

TEST_F(LumRouteRemoval, WhileTheInterfaceIsGoneTakesTheRouteToTheNamedEdgeAndNoOther)
{
    route({{"<mac-info>", HOST}, {"<if-name>", "eth1"}, {"<nh>", "198.51.100.1"}});
    route({{"<mac-info>", HOST}, {"<if-name>", "eth1"}, {"<nh>", "198.51.100.2"}});
    route({{"<mac-info>", HOST}, {"<if-name>", "eth1"}, {"<nh6>", "2001:db8::2"}});
    route({{"<mac-info>", HOST}, {"<if-name>", "eth1"}});
    platform.remove_interface(PORT);

    remove({{"<mac-info>", HOST}, {"<if-name>", "eth1"}, {"<nh>", "198.51.100.2"}});
    EXPECT_EQ(lum_get_static_ecmp(HOST_INFO), 3u);
    EXPECT_EQ(lum_get_static_route(HOST_INFO, lum_addr_next_hop(PORT, ipv4(198, 51, 100, 2))), nullptr);
    remove({{"<mac-info>", HOST}, {"<if-name>", "eth1"}, {"<nh6>", "2001:db8::2"}});
    EXPECT_EQ(lum_get_static_route(HOST_INFO, lum_addr_next_hop(PORT, ipv6("2001:db8::2"))), nullptr);
    remove({{"<mac-info>", HOST}, {"<if-name>", "eth1"}});
    ASSERT_EQ(lum_get_static_ecmp(HOST_INFO), 1u);
    EXPECT_NE(lum_get_static_route(HOST_INFO, lum_addr_next_hop(PORT, ipv4(198, 51, 100, 1))), nullptr);
}

TEST_F(LumRouteRemoval, LooksAtTheNameOfTheInterfaceToo)
{
    route({{"<mac-info>", HOST}, {"<if-name>", "port8"}});
    remove({{"<mac-info>", HOST}, {"<if-name>", "eth1"}});
    remove({{"<mac-info>", HOST}, {"<nh>", "198.51.100.2"}});
    remove({{"<mac-info>", HOST}});
    EXPECT_EQ(lum_staticQ.count, 1u);
    remove({{"<mac-info>", "11/02:00:00:00:0b:10"}, {"<if-name>", "port8"}});
    EXPECT_EQ(lum_staticQ.count, 1u);
    remove({{"<mac-info>", HOST}, {"<if-name>", "port8"}});
    EXPECT_EQ(lum_staticQ.count, 0u);
}

TEST_F(LumRouteRemoval, AfterTheInterfaceCameBackUnderAnotherIodWithdrawsTheNewNextHop)
{
    route({{"<mac-info>", HOST}, {"<if-name>", "eth1"}});
    make_again(PORT, OTHER_PORT, "eth1");
    ASSERT_NE(platform.find_route(HOST_INFO), nullptr);
    remove({{"<mac-info>", HOST}, {"<if-name>", "eth1"}});
    EXPECT_EQ(lum_staticQ.count, 0u);
    EXPECT_EQ(platform.find_route(HOST_INFO), nullptr);
}

TEST_F(LumRouteRemoval, OfAGroupWithdrawsTheIodThatItWasSentWith)
{
    route({{"<mac-info>", GROUP_MAC}, {"<if-name>", "eth1"}});
    ASSERT_THAT(platform.mroute_iods(GROUP_INFO), ElementsAre(PORT));
    platform.remove_interface(PORT);
    remove({{"<mac-info>", GROUP_MAC}, {"<if-name>", "eth1"}});
    EXPECT_THAT(platform.mroute_iods(GROUP_INFO), IsEmpty());
    EXPECT_EQ(lum_staticQ.count, 0u);
}

TEST_F(LumRouteRemoval, OfARouteWithoutAnyNextHopMakesRoomForOthers)
{
    for (int i = 0; i < 4; ++i)
        route({{"<mac-info>", HOST}});
    for (int i = 0; i < 4; ++i)
        remove({{"<mac-info>", HOST}});
    EXPECT_EQ(lum_staticQ.count, 0u);
    route({{"<mac-info>", HOST}, {"<if-name>", "eth1"}});
    EXPECT_NE(platform.find_route(HOST_INFO), nullptr);
}

TEST_F(LumRouteRemoval, WithoutANextHopTakesNoneThatHasOne)
{
    route({{"<mac-info>", HOST}, {"<nh>", "198.51.100.1"}});
    route({{"<mac-info>", HOST}, {"<if-name>", "eth1"}});
    remove({{"<mac-info>", HOST}});
    EXPECT_EQ(lum_get_static_ecmp(HOST_INFO), 2u);
    ASSERT_NE(platform.find_route(HOST_INFO), nullptr);
    EXPECT_EQ(platform.find_route(HOST_INFO)->nexthop_count, 2u);
}

TEST_F(LumRouteRemoval, OfTheInterfaceTakesItsNextHopsOutOfTheTableUntilItIsBack)
{
    route({{"<mac-info>", HOST}, {"<if-name>", "Overlay1"}, {"<nh>", "198.51.100.1"}});
    route({{"<mac-info>", HOST}, {"<if-name>", "Overlay2"}, {"<nh>", "198.51.100.2"}});
    platform.interface(OVERLAY).up = false;
    mbus_msg msg = platform.message(0xF404, platform.changes({{OVERLAY, 0}}));
    EXPECT_EQ(lum_process_if_delete_msg(msg), LUM_DONE);
    ASSERT_NE(platform.find_route(HOST_INFO), nullptr);
    EXPECT_EQ(platform.find_route(HOST_INFO)->nexthop_count, 1u);
    EXPECT_TRUE(lum_addr_equal(platform.find_route(HOST_INFO)->nexthop[0], remote(OVERLAY2, ipv4(198, 51, 100, 2))));

    interface_changes(OVERLAY, true);
    EXPECT_EQ(platform.find_route(HOST_INFO)->nexthop_count, 2u);
}

TEST_F(LumRouteRemoval, OfANextHopGivenTwiceTakesTheFirstAndLeavesTheSecond)
{
    route({{"<mac-info>", HOST}, {"<nh>", "198.51.100.1"}});
    route({{"<mac-info>", HOST}, {"<nh>", "198.51.100.2"}});
    route({{"<mac-info>", HOST}, {"<nh>", "198.51.100.1"}});
    const lum_static_entry *first = lum_first_static_route(HOST_INFO);
    remove({{"<mac-info>", HOST}, {"<nh>", "198.51.100.1"}});
    EXPECT_NE(lum_first_static_route(HOST_INFO), first);
    EXPECT_EQ(lum_get_static_ecmp(HOST_INFO), 2u);
    EXPECT_NE(lum_get_static_route(HOST_INFO, lum_addr_next_hop(0, ipv4(198, 51, 100, 1))), nullptr);
}

} // namespace
