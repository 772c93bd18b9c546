// Interfaces as the kernel and the configuration bring them about: numbers, table, notifications.
#include "intfmgr_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

namespace corvaned {
namespace {

class Interfaces : public interface_manager_test {};
class OverlayInterfaces : public interface_manager_test {};
class InterfaceNumbers : public interface_manager_test {};
class InterfaceContexts : public interface_manager_test {};

TEST_F(Interfaces, AnnouncesADeviceThatIsUpAsCreatedAndThenItsState)
{
    manager->link(device(7, "eth1"));

    EXPECT_THAT(told, ElementsAre(created(1), l3_state(1)));
    EXPECT_THAT(events, ElementsAre("eth1 created", "eth1 up"));
    EXPECT_EQ(iod("eth1"), 1u);
    EXPECT_EQ(corvane::interface_by_ifindex(*table, 7), 1u);
    EXPECT_EQ(flags(1), corvane::INTERFACE_PRESENT | corvane::INTERFACE_UP);
}

TEST_F(Interfaces, AnnouncesADeviceThatIsDownAsCreatedOnly)
{
    manager->link(device(7, "eth1", 0));

    EXPECT_THAT(told, ElementsAre(created(1)));
    EXPECT_EQ(flags(1), corvane::INTERFACE_PRESENT);
}

TEST_F(Interfaces, CountsADeviceWithoutItsLinkAsDown)
{
    manager->link(device(7, "eth1", DOWN_FLAGS));

    EXPECT_EQ(flags(1), corvane::INTERFACE_PRESENT);
}

TEST_F(Interfaces, AnnouncesEveryChangeOfTheLinkWithBit35)
{
    manager->link(device(7, "eth1"));
    told.clear();
    manager->link(device(7, "eth1", DOWN_FLAGS));
    manager->link(device(7, "eth1", DOWN_FLAGS));
    manager->link(device(7, "eth1"));

    EXPECT_THAT(told, ElementsAre(l3_state(1), l3_state(1)));
    EXPECT_THAT(events, ElementsAre("eth1 created", "eth1 up", "eth1 down", "eth1 up"));
}

TEST_F(Interfaces, TakesADeviceDownBeforeItIsRemoved)
{
    manager->link(device(7, "eth1"));
    told.clear();
    manager->link_gone(7);

    EXPECT_THAT(told, ElementsAre(l3_state(1), removed(1)));
    EXPECT_EQ(iod("eth1"), 0u);
    EXPECT_EQ(flags(1), 0u);
    EXPECT_EQ(corvane::interface_by_ifindex(*table, 7), 0u);
    EXPECT_STREQ(record_of(1).name, "eth1");
}

TEST_F(Interfaces, GivesADeviceThatComesBackItsNumberWithTheNewIfindex)
{
    manager->link(device(7, "eth1"));
    manager->link(device(8, "eth2"));
    manager->link_gone(7);
    told.clear();
    manager->link(device(9, "eth1"));

    EXPECT_THAT(told, ElementsAre(created(1), l3_state(1)));
    EXPECT_EQ(record_of(1).ifindex, 9u);
}

TEST_F(Interfaces, RemovesTheOldDeviceWhenAnotherTakesItsNameUnseen)
{
    manager->link(device(7, "eth1"));
    told.clear();
    manager->link(device(9, "eth1"));
    manager->link_gone(7);

    EXPECT_THAT(told, ElementsAre(l3_state(1), removed(1), created(1), l3_state(1)));
    EXPECT_EQ(record_of(1).ifindex, 9u);
}

TEST_F(Interfaces, TakesARenamedDeviceForAnotherInterfaceThatKeepsItsAddress)
{
    manager->link(device(7, "eth1"));
    manager->address(address_of(7, "192.0.2.1"), true);
    told.clear();
    manager->link(device(7, "wan"));

    EXPECT_THAT(told, ElementsAre(l3_state(1), removed(1), created(2), l3_state(2)));
    EXPECT_EQ(record_of(2).ipv4, 0xC0000201u);
    EXPECT_EQ(corvane::interface_by_ifindex(*table, 7), 2u);
}

TEST_F(Interfaces, AnnouncesChangedParametersOfADevice)
{
    manager->link(device(7, "eth1"));
    told.clear();
    link_info changed = device(7, "eth1");
    changed.mtu = 1600;
    manager->link(changed);

    EXPECT_THAT(told, ElementsAre(l3_param(1, corvane::INTFMGR_CHANGE_MTU)));
    EXPECT_EQ(record_of(1).mtu, 1600u);
}

TEST_F(Interfaces, AnnouncesChangedEncapsulationOfATunnelWithBit42)
{
    link_info tunnel = device(7, "vx1");
    tunnel.kind = "vxlan";
    tunnel.kind_data = {1};
    manager->link(tunnel);
    EXPECT_EQ(flags(1), corvane::INTERFACE_PRESENT | corvane::INTERFACE_UP | corvane::INTERFACE_TUNNEL);
    told.clear();
    tunnel.kind_data = {2};
    manager->link(tunnel);

    EXPECT_THAT(told, ElementsAre(l3_param(1, INTFMGR_CHANGE_ENCAP)));
}

TEST_F(Interfaces, SnapshotRemovesWhatItLacksAndTellsNothingOfWhatStays)
{
    manager->link(device(7, "eth1"));
    manager->link(device(8, "eth2"));
    manager->address(address_of(8, "192.0.2.1"), true);
    told.clear();
    addresses.clear();
    manager->snapshot({{device(8, "eth2"), device(9, "eth3")}, {address_of(8, "192.0.2.1"), address_of(9, "192.0.2.9")}});

    EXPECT_THAT(told, ElementsAre(l3_state(1), removed(1), created(3), l3_state(3)));
    EXPECT_THAT(addresses, ElementsAre("eth3 + 192.0.2.9"));
}

TEST_F(Interfaces, HaveTheirAddressInTheTableWhenTheyAreAnnounced)
{
    std::uint32_t seen = 0;
    manager->on_event([&](const interface_state &i, interface_event event) {
        if (event == interface_event::CREATED)
            seen = record_of(i.iod).ipv4;
    });
    manager->snapshot({{device(9, "eth3")}, {address_of(9, "192.0.2.9")}});

    EXPECT_EQ(seen, 0xC0000209u);
}

TEST_F(Interfaces, AreAnnouncedOnceMoreOnRequest)
{
    manager->link(device(7, "eth1"));
    manager->make_overlay("Overlay1");
    manager->link(device(8, "eth2"));
    manager->link_gone(8);
    told.clear();
    manager->announce_all();

    EXPECT_THAT(told, ElementsAre(notification{INTFMGR_OPC_CREATE, {{1, 0}, {2, 0}}},
                                  notification{INTFMGR_OPC_L3_STATE, {{1, L3_STATE_BIT}, {2, L3_STATE_BIT}}}));
}

TEST_F(Interfaces, SaySilentlyNothingWhenThereAreNone)
{
    manager->announce_all();
    EXPECT_THAT(told, IsEmpty());
}

TEST_F(Interfaces, MarkSwitchportsAndKeepTheMarkWhileTheDeviceIsAway)
{
    manager->link(device(7, "eth1"));
    told.clear();
    manager->set_switchport("eth1", true);
    manager->set_switchport("eth1", true);

    EXPECT_THAT(told, ElementsAre(l3_param(1, corvane::INTFMGR_CHANGE_SWITCHPORT)));
    EXPECT_NE(flags(1) & corvane::INTERFACE_SWITCHPORT, 0u);
    manager->link_gone(7);
    EXPECT_EQ(flags(1), corvane::INTERFACE_SWITCHPORT);
    manager->link(device(9, "eth1"));
    EXPECT_NE(flags(1) & corvane::INTERFACE_SWITCHPORT, 0u);
    manager->set_switchport("eth1", false);
    EXPECT_EQ(flags(1) & corvane::INTERFACE_SWITCHPORT, 0u);
}

TEST_F(Interfaces, IgnoreAddressesOfUnknownDevices)
{
    manager->address(address_of(7, "192.0.2.1"), true);
    manager->link_gone(7);

    EXPECT_THAT(told, IsEmpty());
    EXPECT_THAT(addresses, IsEmpty());
}

TEST_F(Interfaces, TellTheAddressesOfADeviceThatGoesAsRemoved)
{
    manager->link(device(7, "eth1"));
    manager->address(address_of(7, "192.0.2.1"), true);
    manager->address(address_of(7, "2001:db8::1"), true);
    addresses.clear();
    manager->link_gone(7);

    EXPECT_THAT(addresses, ElementsAre("eth1 - 192.0.2.1", "eth1 2001:db8::1 -> ::"));
    EXPECT_EQ(record_of(1).ipv4, 0u);
}

TEST_F(OverlayInterfaces, AreCreatedUpOnceAndAnnounced)
{
    EXPECT_EQ(manager->make_overlay("Overlay1"), 1u);
    EXPECT_EQ(manager->make_overlay("Overlay1"), 1u);

    EXPECT_THAT(told, ElementsAre(created(1), l3_state(1)));
    EXPECT_EQ(flags(1), corvane::INTERFACE_PRESENT | corvane::INTERFACE_UP | corvane::INTERFACE_OVERLAY |
                            corvane::INTERFACE_TUNNEL);
}

TEST_F(OverlayInterfaces, HaveAnIfindexThatNoDeviceHas)
{
    manager->make_overlay("Overlay1");
    const std::uint32_t ifindex = record_of(1).ifindex;

    EXPECT_GE(ifindex, corvane::INTERFACE_OVERLAY_IFINDEX);
    EXPECT_EQ(corvane::interface_by_ifindex(*table, ifindex), 1u);
    manager->remove_overlay("Overlay1");
    EXPECT_EQ(corvane::interface_by_ifindex(*table, ifindex), 0u);
}

TEST_F(OverlayInterfaces, GoWithTheDeletionAlone)
{
    manager->make_overlay("Overlay1");
    told.clear();

    EXPECT_TRUE(manager->remove_overlay("Overlay1"));
    EXPECT_THAT(told, ElementsAre(removed(1)));
    EXPECT_FALSE(manager->remove_overlay("Overlay1"));
    EXPECT_THAT(told, SizeIs(1));
}

TEST_F(OverlayInterfaces, ComeBackUpUnderTheirNumber)
{
    manager->make_overlay("Overlay1");
    manager->make_overlay("Overlay2");
    manager->shut_overlay("Overlay1", true);
    manager->remove_overlay("Overlay1");
    told.clear();

    EXPECT_EQ(manager->make_overlay("Overlay1"), 1u);
    EXPECT_THAT(told, ElementsAre(created(1), l3_state(1)));
}

TEST_F(OverlayInterfaces, ChangeTheirStateByShutdownOnly)
{
    manager->make_overlay("Overlay1");
    told.clear();
    manager->shut_overlay("Overlay1", true);
    EXPECT_EQ(flags(1) & corvane::INTERFACE_UP, 0u);
    manager->shut_overlay("Overlay1", true);
    manager->shut_overlay("Overlay1", false);

    EXPECT_THAT(told, ElementsAre(l3_state(1), l3_state(1)));
    EXPECT_NE(flags(1) & corvane::INTERFACE_UP, 0u);
}

TEST_F(OverlayInterfaces, SurviveASnapshotOfTheKernels)
{
    manager->make_overlay("Overlay1");
    told.clear();
    manager->snapshot({});

    EXPECT_THAT(told, IsEmpty());
    EXPECT_EQ(iod("Overlay1"), 1u);
}

TEST_F(OverlayInterfaces, HaveCanonicalNames)
{
    for (const char *name : {"Overlay0", "Overlay1", "Overlay65535"})
        EXPECT_TRUE(is_overlay_name(name)) << name;
    for (const char *name : {"Overlay", "Overlay01", "Overlay65536", "Overlay-1", "Overlay1x", "overlay1", "eth1", ""})
        EXPECT_FALSE(is_overlay_name(name)) << name;
    EXPECT_EQ(manager->make_overlay("Overlay01"), 0u);
}

TEST_F(OverlayInterfaces, AreNotTakenForADeviceOfThatName)
{
    manager->make_overlay("Overlay1");
    told.clear();
    manager->link(device(7, "Overlay1"));
    manager->link(device(7, "Overlay1"));
    manager->link_gone(7);

    EXPECT_THAT(told, IsEmpty());
    EXPECT_THAT(logged, SizeIs(1));
    EXPECT_EQ(iod("Overlay1"), 1u);
}

TEST_F(InterfaceNumbers, AreTheLowestFreeOnesAndKept)
{
    manager->link(device(7, "eth1"));
    manager->link(device(8, "eth2"));

    EXPECT_THAT(stored, ElementsAre(Pair("eth1", 1), Pair("eth2", 2)));
}

TEST_F(InterfaceNumbers, AreTheSameAfterARestartWhateverTheOrder)
{
    begin({{"eth1", 5}, {"eth2", 3}});
    manager->link(device(8, "eth2"));
    manager->link(device(9, "eth3"));
    manager->link(device(7, "eth1"));

    EXPECT_EQ(iod("eth1"), 5u);
    EXPECT_EQ(iod("eth2"), 3u);
    EXPECT_EQ(iod("eth3"), 1u);
}

TEST_F(InterfaceNumbers, OutOfRangeOrTwiceAreNotTakenOver)
{
    stored = {{"a", 0}, {"b", 768}, {"c", 4}, {"d", 4}};
    begin({{"a", 0}, {"b", 768}, {"c", 4}, {"d", 4}});

    EXPECT_THAT(stored, ElementsAre(Pair("c", 4)));
    manager->link(device(7, "d"));
    EXPECT_EQ(iod("d"), 1u);
}

TEST_F(InterfaceNumbers, ReportsThoseThatMeanAnotherInterfaceThanTheTableSays)
{
    manager->link(device(7, "eth1"));
    manager->link(device(8, "eth2"));
    begin({{"eth1", 1}, {"eth3", 2}});

    EXPECT_THAT(lost, ElementsAre(2));
}

TEST_F(InterfaceNumbers, GoFromTheNameThatWasUnusedLongestWhenAllAreTaken)
{
    for (std::uint32_t n = 1; n <= INTFMGR_IOD_MAX; ++n)
        manager->link(device(n, "d" + std::to_string(n)));
    manager->link(device(1000, "late"));
    EXPECT_EQ(iod("late"), 0u);
    EXPECT_THAT(logged, SizeIs(1));

    manager->link_gone(20);
    manager->link_gone(10);
    manager->link(device(1001, "later"));
    EXPECT_EQ(iod("later"), 10u);
    EXPECT_THAT(lost, ElementsAre(10));
    EXPECT_FALSE(stored.contains("d10"));
    EXPECT_EQ(stored["later"], 10u);
}

TEST_F(InterfaceContexts, AreTheTableOfTheVrfThatADeviceBelongsTo)
{
    link_info vrf = device(7, "red");
    vrf.kind = "vrf";
    vrf.vrf_table = 100;
    link_info member = device(8, "eth1");
    member.master = 7;
    manager->link(member);
    EXPECT_EQ(record_of(1).context, 0u);
    told.clear();
    manager->link(vrf);

    EXPECT_EQ(record_of(1).context, 100u);
    EXPECT_EQ(record_of(2).context, 100u);
    EXPECT_THAT(told, ElementsAre(created(2), l3_state(2), l3_param(1, corvane::INTFMGR_CHANGE_CONTEXT)));
    manager->link_gone(7);
    EXPECT_EQ(record_of(1).context, 0u);
}

TEST_F(InterfaceContexts, AreTheDefaultForMembersOfABridge)
{
    link_info bridge = device(7, "br0");
    bridge.kind = "bridge";
    manager->link(bridge);
    link_info member = device(8, "eth1");
    member.master = 7;
    manager->link(member);

    EXPECT_EQ(record_of(iod("eth1")).context, 0u);
}

} // namespace
} // namespace corvaned
