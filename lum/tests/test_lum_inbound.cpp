// What the interface manager and the IP stacks tell the daemon.
#include "inbound_test.h"

#include "lum_ui.h"

using namespace lum_test;

namespace {

using LumInterfaceCreated = LumInbound;

TEST_F(LumInterfaceCreated, MakesAnOverlayOfAnOverlayInterfaceAndReplaysItsConfiguration)
{
    platform.add_interface(OVERLAY, "Overlay1", {.overlay = true});
    EXPECT_EQ(dispatch(0xF403, platform.changes({{OVERLAY, 0}})), 0);
    ASSERT_NE(find(OVERLAY), nullptr);
    EXPECT_THAT(platform.call_texts({"cli_send_my_if_commands"}), ElementsAre("cli_send_my_if_commands(100)"));
}

TEST_F(LumInterfaceCreated, ResolvesTheExternalInterfaceThatWasWaitedFor)
{
    lum_overlay &waiting = overlay();
    waiting.ext_if[0].iod = 0;
    waiting.ext_ipv4 = 0;
    EXPECT_EQ(dispatch(0xF403, platform.changes({{PORT_A, 0}, {CORE, 0}})), 0);
    EXPECT_EQ(waiting.ext_if[0].iod, CORE);
    EXPECT_EQ(waiting.ext_ipv4, OUR_ADDRESS);
    EXPECT_EQ(find(CORE), nullptr);
    EXPECT_EQ(platform.may_yields, 2u);
}

using LumInterfaceRemoved = LumInbound;

TEST_F(LumInterfaceRemoved, IsAnsweredAtOnceWhenItNamesNoOverlay)
{
    EXPECT_EQ(remove({{PORT_A, 0}, {CORE, 0}}), 0);
    EXPECT_EQ(lum_pending_msg_count, 0u);
    EXPECT_EQ(platform.trace_texts(), std::vector<std::string>{"Received interface delete notification\n"});
}

TEST_F(LumInterfaceRemoved, IsHeldUntilEachOverlayOfTheMessageIsAcknowledged)
{
    plain_overlay(OVERLAY);
    plain_overlay(OVERLAY2);
    EXPECT_EQ(remove({{OVERLAY, 0}, {CORE, 0}, {OVERLAY2, 0}}), 1);
    const mbus_msg held = last_;
    EXPECT_EQ(lum_pending_msg, held);
    EXPECT_EQ(lum_pending_msg_count, 2u);
    EXPECT_EQ(find(OVERLAY)->delete_msg, held);
    EXPECT_EQ(find(OVERLAY2)->delete_msg, held);
    EXPECT_EQ(find(OVERLAY)->reason, LUM_REASON_DELETE_HOLDDOWN);
    EXPECT_THAT(platform.sent_with(DELETED), SizeIs(2));

    EXPECT_EQ(acknowledge(OVERLAY), 0);
    EXPECT_EQ(find(OVERLAY), nullptr);
    EXPECT_EQ(lum_pending_msg_count, 1u);
    EXPECT_TRUE(platform.is_outstanding(held));
    EXPECT_EQ(acknowledge(OVERLAY2), 0);
    EXPECT_EQ(find(OVERLAY2), nullptr);
    EXPECT_EQ(lum_pending_msg_count, 0u);
    EXPECT_FALSE(platform.is_outstanding(held));
}

TEST_F(LumInterfaceRemoved, IsReleasedWithTheThirdOfThreeDeletions)
{
    for (const std::uint32_t iod : {100u, 101u, 102u})
        plain_overlay(iod);
    EXPECT_EQ(remove({{100, 0}, {101, 0}, {102, 0}}), 1);
    const mbus_msg held = last_;
    acknowledge(102);
    acknowledge(100);
    EXPECT_TRUE(platform.is_outstanding(held));
    acknowledge(101);
    EXPECT_FALSE(platform.is_outstanding(held));
}

TEST_F(LumInterfaceRemoved, WaitsOnceForAnInterfaceThatTheMessageNamesTwice)
{
    plain_overlay(OVERLAY);
    EXPECT_EQ(remove({{OVERLAY, 0}, {OVERLAY, 0}}), 1);
    const mbus_msg held = last_;
    EXPECT_EQ(lum_pending_msg_count, 1u);
    acknowledge(OVERLAY);
    EXPECT_FALSE(platform.is_outstanding(held));
}

TEST_F(LumInterfaceRemoved, SupersedesAHeldMessageWhichIsReleased)
{
    plain_overlay(OVERLAY);
    plain_overlay(OVERLAY2);
    EXPECT_EQ(remove({{OVERLAY, 0}}), 1);
    const mbus_msg first = last_;
    EXPECT_EQ(remove({{OVERLAY2, 0}}), 1);
    const mbus_msg second = last_;
    EXPECT_EQ(lum_pending_msg, second);
    EXPECT_EQ(lum_pending_msg_count, 1u);
    EXPECT_FALSE(platform.is_outstanding(first));

    acknowledge(OVERLAY);                                    // carries the first message, which nobody waits for
    EXPECT_EQ(lum_pending_msg_count, 1u);
    EXPECT_TRUE(platform.is_outstanding(second));
    acknowledge(OVERLAY2);
    EXPECT_FALSE(platform.is_outstanding(second));
}

TEST_F(LumInterfaceRemoved, SupersedesAnEarlierRemovalOfTheSameInterface)
{
    plain_overlay(OVERLAY);
    EXPECT_EQ(remove({{OVERLAY, 0}}), 1);
    const mbus_msg first = last_;
    EXPECT_EQ(remove({{OVERLAY, 0}}), 1);
    const mbus_msg second = last_;
    EXPECT_FALSE(platform.is_outstanding(first));
    EXPECT_EQ(find(OVERLAY)->delete_msg, second);
    EXPECT_EQ(lum_pending_msg_count, 1u);
    acknowledge(OVERLAY);
    EXPECT_FALSE(platform.is_outstanding(second));
    EXPECT_EQ(platform.double_drops, 0u);
}

TEST_F(LumInterfaceRemoved, IsHeldAlsoWhenNobodyCouldBeTold)
{
    plain_overlay(OVERLAY);
    platform.fail("mbus_send", 1, EAGAIN);                   // a bus that is full
    EXPECT_EQ(remove({{OVERLAY, 0}}), 1);
    EXPECT_EQ(find(OVERLAY)->notify_pending, 1u);
    EXPECT_THAT(platform.syslog_texts(),
                ElementsAre("<<%LUM-3-MBUS_SEND>> Error returned from mbus_send(), errno: "
                            "Resource temporarily unavailable"));
    const mbus_msg held = last_;
    acknowledge(OVERLAY);
    EXPECT_FALSE(platform.is_outstanding(held));
}

TEST_F(LumInterfaceRemoved, YieldsBehindEachInterface)
{
    remove({{OVERLAY, 0}, {CORE, 0}, {PORT_A, 0}});
    EXPECT_EQ(platform.may_yields, 3u);
    dispatch(0xF414, platform.changes({{OVERLAY, 0}, {CORE, 0}}));
    EXPECT_EQ(platform.may_yields, 5u);
}

TEST_F(LumInterfaceRemoved, SurvivesAMessageOfEveryLength)
{
    plain_overlay(OVERLAY);
    const fake::bytes whole = platform.changes({{OVERLAY, 0}});
    for (std::size_t length = 0; length < whole.size(); ++length)
        EXPECT_EQ(dispatch(0xF404, whole.range(0, length)), 0);
    EXPECT_EQ(find(OVERLAY)->reason, LUM_REASON_NONE);
    EXPECT_EQ(dropped(drop_reason::BUS_MALFORMED), whole.size());
}

using LumL3ParamChange = LumInbound;

TEST_F(LumL3ParamChange, TracesEachInterfaceWithItsMask)
{
    EXPECT_EQ(dispatch(0xF414, platform.changes({{CORE, 5}})), 0);
    EXPECT_THAT(platform.trace_texts(), ElementsAre("Received interface L3 protocol param change notification\n",
                                                    "Received notification for eth0, change mask 0x5\n"));
}

TEST_F(LumL3ParamChange, ReplaysTheConfigurationOfAnOverlayTunnelWhoseEncapsulationChanged)
{
    plain_overlay(OVERLAY);
    EXPECT_EQ(dispatch(0xF414, platform.changes({{OVERLAY, ENCAP_BIT}})), 0);
    EXPECT_EQ(platform.called("cli_send_my_if_commands"), 1u);
    EXPECT_TRUE(platform.traced("Received ENCAP TLV\n"));
    EXPECT_EQ(find(OVERLAY)->state, LUM_OVERLAY_UP);
}

TEST_F(LumL3ParamChange, DeletesTheOverlayOfATunnelThatIsAnOverlayNoMore)
{
    plain_overlay(OVERLAY);
    platform.interface(OVERLAY).overlay = false;
    platform.interface(OVERLAY).tunnel = true;
    EXPECT_EQ(dispatch(0xF414, platform.changes({{OVERLAY, ENCAP_BIT}})), 1);
    const mbus_msg held = last_;
    EXPECT_EQ(lum_pending_msg_count, 1u);
    acknowledge(OVERLAY);
    EXPECT_FALSE(platform.is_outstanding(held));
    EXPECT_EQ(find(OVERLAY), nullptr);
}

TEST_F(LumL3ParamChange, MakesTheOverlayOfATunnelThatBecameOne)
{
    platform.add_interface(OVERLAY, "Overlay1", {.overlay = true});
    EXPECT_EQ(dispatch(0xF414, platform.changes({{OVERLAY, ENCAP_BIT}})), 0);
    ASSERT_NE(find(OVERLAY), nullptr);
    EXPECT_EQ(platform.called("cli_send_my_if_commands"), 1u);
}

TEST_F(LumL3ParamChange, IsHeldForEveryOverlayThatIsNoneAnyMore)
{
    for (const std::uint32_t iod : {OVERLAY, OVERLAY2}) {
        plain_overlay(iod);
        platform.interface(iod).overlay = false;
        platform.interface(iod).tunnel = true;
    }
    EXPECT_EQ(dispatch(0xF414, platform.changes({{OVERLAY, ENCAP_BIT}, {CORE, 1}, {OVERLAY2, ENCAP_BIT}})), 1);
    const mbus_msg held = last_;
    EXPECT_EQ(lum_pending_msg_count, 2u);
    acknowledge(OVERLAY2);
    EXPECT_TRUE(platform.is_outstanding(held));
    acknowledge(OVERLAY);
    EXPECT_FALSE(platform.is_outstanding(held));
}

TEST_F(LumL3ParamChange, LooksOnlyAtTunnelsWhoseEncapsulationChanged)
{
    plain_overlay(OVERLAY);
    platform.interface(OVERLAY).overlay = false;
    EXPECT_EQ(dispatch(0xF414, platform.changes({{OVERLAY, ENCAP_BIT}})), 0);       // no tunnel at all
    platform.interface(OVERLAY).tunnel = true;
    EXPECT_EQ(dispatch(0xF414, platform.changes({{OVERLAY, ~ENCAP_BIT}})), 0);      // every other change
    EXPECT_EQ(find(OVERLAY)->state, LUM_OVERLAY_UP);
    EXPECT_EQ(platform.called("cli_send_my_if_commands"), 0u);
}

using LumL3StateChange = LumInbound;

TEST_F(LumL3StateChange, PublishesAndAnnouncesAnOverlayThatWentDown)
{
    plain_overlay(OVERLAY);
    platform.interface(OVERLAY).up = false;
    EXPECT_EQ(dispatch(0xF408, platform.changes({{OVERLAY, L3_BIT}})), 0);
    EXPECT_EQ(find(OVERLAY)->reason, LUM_REASON_ADMIN_DOWN);
    EXPECT_THAT(platform.sdb_writes, SizeIs(1));
    EXPECT_THAT(platform.sent_with(STATUS), SizeIs(1));
    EXPECT_THAT(platform.sent_with(PARAMETERS), IsEmpty());
    EXPECT_TRUE(platform.traced("Received interface L3 protocol state change notification\n"));
    EXPECT_TRUE(platform.traced("Received notification for Overlay1, change mask 0x800000000\n"));
}

TEST_F(LumL3StateChange, AnnouncesNothingWhenTheStateStays)
{
    plain_overlay(OVERLAY);
    EXPECT_EQ(dispatch(0xF408, platform.changes({{OVERLAY, L3_BIT}})), 0);
    EXPECT_THAT(platform.sdb_writes, IsEmpty());
    EXPECT_THAT(platform.sent_with(STATUS), IsEmpty());
}

TEST_F(LumL3StateChange, ReadsTheAddressesOfAnExternalInterfaceAnew)
{
    lum_overlay &over = plain_overlay(OVERLAY);
    platform.interface(CORE).ipv4 = OUR_ADDRESS + 7;
    EXPECT_EQ(dispatch(0xF408, platform.changes({{CORE, L3_BIT}})), 0);
    EXPECT_EQ(over.ext_ipv4, OUR_ADDRESS + 7);
    EXPECT_THAT(platform.sent_with(PARAMETERS), SizeIs(1));
    EXPECT_THAT(platform.sent_with(STATUS), IsEmpty());
}

TEST_F(LumL3StateChange, ResolvesStaticRoutesBeforeAndOverAnOverlayAlsoBehindItsState)
{
    plain_overlay(OVERLAY);
    for (const std::uint32_t iod : {OVERLAY, CORE}) {
        const lum_addr next_hop = iod == OVERLAY ? lum_addr_next_hop(OVERLAY, REMOTE_EDGE) : lum_addr_iod(CORE);
        lum_add_static_route(key(HOST_A), next_hop, iod == OVERLAY ? "Overlay1" : "eth0");
        platform.forget();
        EXPECT_EQ(dispatch(0xF408, platform.changes({{iod, L3_BIT}})), 0);
        EXPECT_THAT(platform.route_updates, SizeIs(iod == OVERLAY ? 2 : 1));
        lum_delete_static_route(key(HOST_A), next_hop);
    }
}

TEST_F(LumL3StateChange, ShowsBitThirtyFiveAloneWhateverTheMessageSays)
{
    dispatch(0xF408, platform.changes({{CORE, L3_BIT | ENCAP_BIT | 1}}));
    EXPECT_TRUE(platform.traced("Received notification for eth0, change mask 0x800000000\n"));
}

TEST_F(LumL3StateChange, TracesAnInterfaceWithoutOverlay)
{
    EXPECT_EQ(dispatch(0xF408, platform.changes({{PORT_A, L3_BIT}, {CORE, L3_BIT}})), 0);
    EXPECT_TRUE(platform.traced("overlay not locally found, ignore notification\n"));
    EXPECT_EQ(platform.may_yields, 2u);
}

class LumAddressChange : public LumInbound {
protected:
    static fake::bytes ipv4_change(std::uint32_t change, std::uint32_t address, std::uint16_t kind = 13,
                                   std::uint16_t msg_class = IP_MSG_CLASS)
    {
        fake::bytes payload;
        payload.add_host16(msg_class).add_host16(kind).add_host32(CORE).add_host32(0).add_host32(change);
        return payload.add_host32(0).add_host32(address);
    }
    static fake::bytes ipv6_change(const ipv6_address &address, std::uint16_t kind = 7)
    {
        fake::bytes payload;
        payload.add_host16(IPV6_MSG_CLASS).add_host16(kind).add_host32(CORE);
        return payload.add(OUR_ADDRESS6).add(address);
    }
};

TEST_F(LumAddressChange, GivesIpv4ChangesToTheOverlaysOnThatInterface)
{
    lum_overlay &to = plain_overlay(OVERLAY);
    EXPECT_EQ(dispatch(0x14C01, ipv4_change(1, OUR_ADDRESS + 7)), 0);
    EXPECT_EQ(to.ext_ipv4, OUR_ADDRESS + 7);
    EXPECT_TRUE(platform.traced("Received IP msg (4/13)\n"));
}

TEST_F(LumAddressChange, IgnoresOtherKindsOfIpv4Messages)
{
    lum_overlay &to = plain_overlay(OVERLAY);
    EXPECT_EQ(dispatch(0x14C01, ipv4_change(1, OUR_ADDRESS + 7, 12)), 0);
    EXPECT_EQ(to.ext_ipv4, OUR_ADDRESS);
    EXPECT_TRUE(platform.traced("Received IP msg (4/12)\n"));
}

TEST_F(LumAddressChange, GivesIpv6ChangesToTheirOwnHandlerByTheirClass)
{
    lum_overlay &to = plain_overlay(OVERLAY);
    const ipv6_address other = fake::ipv6("2001:db8::77");
    EXPECT_EQ(dispatch(0x14C01, ipv6_change(other, 8)), 0);
    EXPECT_EQ(to.ext_ipv6, OUR_ADDRESS6);
    EXPECT_EQ(dispatch(0x14C01, ipv6_change(other)), 0);
    EXPECT_EQ(to.ext_ipv6, other);
    EXPECT_EQ(to.ext_ipv4, OUR_ADDRESS);
    EXPECT_FALSE(platform.traced("Received IP msg (6/7)\n"));       // the line is of the other family
}

TEST_F(LumAddressChange, ReportsAnUnknownIpv4ChangeType)
{
    lum_overlay &to = plain_overlay(OVERLAY);
    EXPECT_EQ(dispatch(0x14C01, ipv4_change(4, OUR_ADDRESS + 7)), 0);
    EXPECT_EQ(to.ext_ipv4, OUR_ADDRESS);
    EXPECT_THAT(platform.syslog_texts(),
                ElementsAre("<<%LUM-3-UNK_IP_NOTIF>> Unrecognized IP address change notification type 4"));
}

TEST_F(LumAddressChange, NeedsAPayloadAndIgnoresOneThatIsTooShort)
{
    lum_overlay &to = plain_overlay(OVERLAY);
    EXPECT_EQ(dispatch(0x14C01, {}), -1);
    const fake::bytes four = ipv4_change(1, OUR_ADDRESS + 7), six = ipv6_change(fake::ipv6("2001:db8::77"));
    for (std::size_t length = 1; length < four.size(); ++length)
        EXPECT_EQ(dispatch(0x14C01, four.range(0, length)), 0);
    for (std::size_t length = 1; length < six.size(); ++length)
        EXPECT_EQ(dispatch(0x14C01, six.range(0, length)), 0);
    EXPECT_EQ(to.ext_ipv4, OUR_ADDRESS);
    EXPECT_EQ(to.ext_ipv6, OUR_ADDRESS6);
    EXPECT_EQ(dropped(drop_reason::BUS_MALFORMED), four.size() + six.size() - 2);
}

} // namespace
