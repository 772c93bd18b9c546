#include "lum_test.h"

#include "vlanmgr.h"

using namespace lum_test;

namespace {

class LumVlan : public LumTest {
protected:
    LumVlan()
    {
        for (const std::uint32_t iod : {PORT_A, PORT_B, PORT_C})
            platform.add_interface(iod, std::string("port") + "?ABC"[iod],     // no device answers to ethA to ethC
                                   {.switchport = true, .short_name = "e" + std::to_string(iod)});
        lum_event_debug_flag = 1;
    }
    static bool member(std::uint32_t iod, std::uint32_t vlan = VLAN)
    {
        return lum_vlans[vlan].ports != nullptr && bitfield_test(*lum_vlans[vlan].ports, iod);
    }
    static bool blocked(std::uint32_t iod, std::uint32_t vlan = VLAN)
    {
        return lum_vlans[vlan].blocked != nullptr && bitfield_test(*lum_vlans[vlan].blocked, iod);
    }
    static int l2_state(std::initializer_list<fake::l2_state> states)
    {
        plock_assert_held();
        mbus_msg msg = platform.message(0xF407, platform.l2_states(states));
        return lum_intfmgr_l2_protocol_state_change(msg);
    }
};

using LumVlanVlandbInit = LumVlan;

TEST_F(LumVlanVlandbInit, MakesBothSetsAndStartsTheMrdTimerAtOnce)
{
    lum_vlan &entry = lum_vlans[VLAN];
    lum_vlan_vlandb_init(entry, VLAN);
    EXPECT_EQ(entry.in_use, 1);
    EXPECT_EQ(entry.vlan, VLAN);
    EXPECT_EQ(entry.mrd_enabled, 1u);
    EXPECT_EQ(entry.site_vlan, 0);
    EXPECT_EQ(entry.ports->bits(), 768u);
    EXPECT_EQ(entry.blocked->bits(), 768u);
    EXPECT_TRUE(platform.timer_running(entry.mrd_timer));
    EXPECT_EQ(platform.timer_ms_left(entry.mrd_timer), 0u);
    EXPECT_THAT(platform.call_texts({"active_timer_create"}), SizeIs(1));
    EXPECT_EQ(platform.calls_of("active_timer_create").front().number(0), lum_at_set_heap);
    EXPECT_EQ(platform.calls_of("active_timer_create").front().number(1), 9u);
}

TEST_F(LumVlanVlandbInit, MarksTheSiteVlan)
{
    lum_svr.site_vlan = VLAN;
    EXPECT_EQ(vlan_entry(VLAN).site_vlan, 1);
    EXPECT_EQ(vlan_entry(VLAN + 1).site_vlan, 0);
}

TEST_F(LumVlanVlandbInit, LeavesTheEntryUnusedWhenItsTimerCannotBeMade)
{
    platform.fail("active_timer_create");
    lum_vlan_vlandb_init(lum_vlans[VLAN], VLAN);
    EXPECT_EQ(lum_vlans[VLAN].in_use, 0);
    EXPECT_EQ(lum_vlans[VLAN].vlan, 0u);
    EXPECT_THAT(platform.syslog_texts(), ElementsAre("<<%LUM-3-TIMER_FAILED>> could not MRD timer creation failed"));
}

TEST_F(LumVlanVlandbInit, LeavesTheEntryUnusedWhenASetCannotBeMade)
{
    const std::size_t timers = platform.timers().size();
    for (const std::size_t nth : {1u, 2u}) {
        platform.fail("bitfield_create", nth);
        lum_vlan_vlandb_init(lum_vlans[VLAN], VLAN);
        EXPECT_EQ(lum_vlans[VLAN].in_use, 0);
        EXPECT_EQ(lum_vlans[VLAN].ports, nullptr);
        EXPECT_EQ(lum_vlans[VLAN].blocked, nullptr);
        EXPECT_THAT(platform.timers(), SizeIs(timers));
    }
}

TEST_F(LumVlanVlandbInit, IsUndoneByRetireWhichLeavesNoTimer)
{
    const std::size_t timers = platform.timers().size();
    lum_vlan &entry = vlan_entry();
    lum_vlan_add_port(entry, PORT_A);
    lum_vlan_vlandb_retire(entry);
    EXPECT_EQ(entry.in_use, 0);
    EXPECT_EQ(entry.vlan, 0u);
    EXPECT_EQ(entry.mrd_enabled, 0u);
    EXPECT_EQ(entry.ports, nullptr);
    EXPECT_EQ(platform.called("active_timer_cancel"), 1u);
    EXPECT_THAT(platform.timers(), SizeIs(timers));
    EXPECT_FALSE(member(PORT_A));
}

TEST_F(LumVlan, HasPortsWhenAnyMemberBitIsSet)
{
    EXPECT_FALSE(lum_vlan_has_ports(nullptr));
    EXPECT_FALSE(lum_vlan_has_ports(&lum_vlans[VLAN]));
    lum_vlan &entry = vlan_entry();
    EXPECT_FALSE(lum_vlan_has_ports(&entry));
    lum_vlan_add_port(entry, 767);
    EXPECT_TRUE(lum_vlan_has_ports(&entry));
    lum_vlan_delete_port(entry, 767);
    EXPECT_FALSE(lum_vlan_has_ports(&entry));
    lum_vlan_add_port(entry, 768);
    EXPECT_FALSE(lum_vlan_has_ports(&entry));
}

TEST_F(LumVlan, BlocksAndForwardsPortsInItsSecondSet)
{
    lum_vlan &entry = vlan_entry();
    lum_vlan_block_port(entry, PORT_A);
    EXPECT_TRUE(blocked(PORT_A));
    EXPECT_FALSE(member(PORT_A));
    lum_vlan_forward_port(entry, PORT_A);
    EXPECT_FALSE(blocked(PORT_A));
}

using LumVlanUpOnPort = LumVlan;

TEST_F(LumVlanUpOnPort, MakesAMemberWithItsPortRecord)
{
    vlan_entry();
    lum_port *port = lum_vlan_up_on_port(PORT_A, VLAN, 1, 1);
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(port->vlan, VLAN);
    EXPECT_EQ(port->trunk, 1);
    EXPECT_TRUE(member(PORT_A));
    EXPECT_FALSE(blocked(PORT_A));
    EXPECT_THAT(platform.trace_texts(), ElementsAre("VLAN 10 up on i/f e1, trunk 1"));
}

TEST_F(LumVlanUpOnPort, BlocksAPortThatIsNotUp)
{
    vlan_entry();
    EXPECT_NE(lum_vlan_up_on_port(PORT_A, VLAN, 0, 0), nullptr);
    EXPECT_TRUE(member(PORT_A));
    EXPECT_TRUE(blocked(PORT_A));
    EXPECT_THAT(platform.trace_texts(), ElementsAre("VLAN 10 down on i/f e1, trunk 0"));
}

TEST_F(LumVlanUpOnPort, NeverClearsABlockedBit)
{
    vlan_entry();
    EXPECT_NE(lum_vlan_up_on_port(PORT_A, VLAN, 0, 0), nullptr);
    EXPECT_NE(lum_vlan_up_on_port(PORT_A, VLAN, 1, 0), nullptr);
    EXPECT_TRUE(blocked(PORT_A));
}

TEST_F(LumVlanUpOnPort, LetsTheLastVlanReportedOnATrunkWin)
{
    vlan_entry(10);
    vlan_entry(20);
    const lum_port *port = lum_vlan_up_on_port(PORT_A, 10, 1, 1);
    EXPECT_EQ(lum_vlan_up_on_port(PORT_A, 20, 1, 1), port);
    EXPECT_EQ(port->vlan, 20u);
    EXPECT_TRUE(member(PORT_A, 10) && member(PORT_A, 20));
}

TEST_F(LumVlanUpOnPort, IgnoresAVlanThatIsNotInUse)
{
    EXPECT_EQ(lum_vlan_up_on_port(PORT_A, VLAN, 1, 0), nullptr);
    EXPECT_EQ(lum_vlan_up_on_port(PORT_A, 4096, 1, 0), nullptr);
    EXPECT_EQ(lum_get_from_pt(PORT_A), nullptr);
}

TEST_F(LumVlanUpOnPort, GivesNoneWhenTheRecordCannotBeMade)
{
    vlan_entry();
    platform.fail("memacct_alloc");
    EXPECT_EQ(lum_vlan_up_on_port(PORT_A, VLAN, 1, 0), nullptr);
    EXPECT_TRUE(member(PORT_A));
}

using LumVlanDownOnPort = LumVlan;

TEST_F(LumVlanDownOnPort, TakesMembershipAndPortRecordAlsoWhenOtherVlansAreUp)
{
    site_port(PORT_A, 10, true);
    site_port(PORT_A, 20, true);
    lum_vlan_block_port(lum_vlans[10], PORT_A);
    platform.forget();
    lum_vlan_down_on_port(PORT_A, 10, 0, 1);
    EXPECT_FALSE(member(PORT_A, 10));
    EXPECT_TRUE(blocked(PORT_A, 10));
    EXPECT_TRUE(member(PORT_A, 20));
    EXPECT_EQ(lum_get_from_pt(PORT_A), nullptr);
    EXPECT_THAT(platform.trace_texts(), ElementsAre("VLAN 10 down on i/f eth1, trunk 1"));
}

TEST_F(LumVlanDownOnPort, DropsOutputUntilALaterUpReportMakesTheRecordAgain)
{
    site_port(PORT_A, 10, true);
    site_port(PORT_A, 20, true);
    fake::bytes frame = fake::tagged(HOST_B, HOST_A, 20, 0x0800, fake::filler(46));
    const lum_frame output{frame.data(), 64};
    lum_vlan_down_on_port(PORT_A, 10, 0, 1);
    EXPECT_EQ(lum_output(output, PORT_A, key(HOST_A, 20), key(HOST_B, 20), 0, nullptr), 0);
    EXPECT_NE(lum_vlan_up_on_port(PORT_A, 20, 1, 1), nullptr);
    EXPECT_EQ(lum_output(output, PORT_A, key(HOST_A, 20), key(HOST_B, 20), 0, nullptr), 1);
}

TEST_F(LumVlanDownOnPort, IgnoresAVlanThatIsNotInUse)
{
    site_port(PORT_A, 10);
    lum_vlan_down_on_port(PORT_A, 20, 0, 0);
    EXPECT_NE(lum_get_from_pt(PORT_A), nullptr);
}

using LumIntfmgrL2ProtocolStateChange = LumVlan;

TEST_F(LumIntfmgrL2ProtocolStateChange, BlocksATrunkWhoseStateIsNotOne)
{
    vlan_entry();
    EXPECT_EQ(l2_state({{PORT_A, 0x100000, 2, {VLAN}, {}}}), 1);
    EXPECT_TRUE(member(PORT_A));
    EXPECT_TRUE(blocked(PORT_A));
    EXPECT_EQ(lum_get_from_pt(PORT_A)->trunk, 1);

    platform.run_timers();
    platform.forget();
    fake::bytes frame = fake::tagged(fake::BROADCAST, HOST_A, VLAN, 0x0800, fake::filler(46));
    lum_bforward({frame.data(), 64}, key(HOST_A), key(fake::BROADCAST), PORT_B);
    EXPECT_TRUE(platform.sent_nothing());
}

TEST_F(LumIntfmgrL2ProtocolStateChange, TakesUpsBeforeDownsInAscendingOrder)
{
    for (const std::uint32_t vlan : {10, 20, 30, 40})
        vlan_entry(vlan);
    l2_state({{PORT_A, 0x100000, 1, {30, 10}, {40, 20}}});
    EXPECT_EQ(platform.trace_texts(),
              (std::vector<std::string>{"Received L2 protocol state change notification",
                                        "VLAN 10 up on i/f e1, trunk 1", "VLAN 30 up on i/f e1, trunk 1",
                                        "VLAN 20 up on i/f e1, trunk 1", "VLAN 40 up on i/f e1, trunk 1"}));
    EXPECT_TRUE(member(PORT_A, 10) && member(PORT_A, 30));
    EXPECT_EQ(lum_get_from_pt(PORT_A), nullptr);             // the downs took the record
}

TEST_F(LumIntfmgrL2ProtocolStateChange, ReadsTheTrunkModeFromTheMessage)
{
    vlan_entry();
    l2_state({{PORT_A, 0x10000, 1, {VLAN}, {}}, {PORT_B, 0x100000, 1, {VLAN}, {}}});
    EXPECT_EQ(lum_get_from_pt(PORT_A)->trunk, 0);
    EXPECT_EQ(lum_get_from_pt(PORT_B)->trunk, 1);
}

TEST_F(LumIntfmgrL2ProtocolStateChange, IgnoresInterfacesThatAreNotSwitchports)
{
    vlan_entry();
    l2_state({{CORE, 0x10000, 1, {VLAN}, {}}, {600, 0x10000, 1, {VLAN}, {}}, {PORT_B, 0x10000, 1, {VLAN}, {}}});
    EXPECT_FALSE(member(CORE));
    EXPECT_TRUE(member(PORT_B));
    EXPECT_THAT(platform.trace_texts(), SizeIs(2));
}

TEST_F(LumIntfmgrL2ProtocolStateChange, OffersAYieldBeforeEachEntry)
{
    vlan_entry();
    l2_state({{PORT_A, 0x10000, 1, {VLAN}, {}}, {PORT_B, 0x10000, 1, {VLAN}, {}}});
    EXPECT_EQ(platform.may_yields, 2u);
}

TEST_F(LumIntfmgrL2ProtocolStateChange, SurvivesNotificationsOfEveryLength)
{
    vlan_entry();
    const fake::bytes whole = platform.l2_states({{PORT_A, 0x10000, 1, {VLAN}, {}}});
    for (std::size_t length = 0; length < whole.size(); ++length) {
        mbus_msg msg = platform.message(0xF407, whole.range(0, length));
        EXPECT_EQ(lum_intfmgr_l2_protocol_state_change(msg), 1);
    }
    EXPECT_FALSE(member(PORT_A));
}

using LumVlanQueryPorts = LumVlan;

TEST_F(LumVlanQueryPorts, AsksTheVlanManagerForOneVlan)
{
    EXPECT_EQ(lum_vlan_query_ports(VLAN), 1);
    ASSERT_THAT(platform.mbus_sent, SizeIs(1));
    const fake::bus_message &sent = platform.mbus_sent.front();
    EXPECT_EQ(sent.from, lum_mbus_q);
    EXPECT_EQ(sent.to.sap, 167u);
    EXPECT_EQ(sent.to.node, 0u);
    EXPECT_EQ(sent.opcode, 23564u);
    EXPECT_EQ(sent.payload, fake::bytes().add_host32(1).add_host32(VLAN));
}

TEST_F(LumVlanQueryPorts, ReportsAQueryThatCannotBeSent)
{
    platform.fail("mbus_send", 1, EAGAIN);
    EXPECT_EQ(lum_vlan_query_ports(VLAN), 0);
    EXPECT_THAT(platform.trace_texts(), ElementsAre("Failed to send vlan mgr query ports message"));
}

TEST_F(LumVlanQueryPorts, ReportsAQueryThatCannotBeBuilt)
{
    platform.fail("vlan_get_per_vlan_memb_info_build_mbus_local");
    EXPECT_EQ(lum_vlan_query_ports(VLAN), 0);
    EXPECT_THAT(platform.trace_texts(), ElementsAre("Failed to build vlan mgr query ports message"));
    EXPECT_THAT(platform.mbus_sent, IsEmpty());
}

class LumVlanSetPorts : public LumVlan {
protected:
    static mbus_msg set_ports(const fake::bytes &reply)
    {
        plock_assert_held();
        mbus_msg msg = platform.message(0x5C0C, reply);
        lum_vlan_set_ports(msg);
        return msg;
    }
};

TEST_F(LumVlanSetPorts, MakesMembersWithoutPortRecordsAndReleasesTheMessage)
{
    vlan_entry();
    const mbus_msg msg = set_ports(platform.membership(VLAN, {{VLAN, 1000 + PORT_A}, {VLAN, 1000 + PORT_B}}));
    EXPECT_TRUE(member(PORT_A) && member(PORT_B));
    EXPECT_FALSE(member(PORT_C));
    EXPECT_EQ(lum_get_from_pt(PORT_A), nullptr);
    EXPECT_EQ(msg, mbus_msg{});
    EXPECT_EQ(platform.messages_dropped, 1u);
    EXPECT_THAT(platform.trace_texts(), ElementsAre("Received VLAN port query from VLAN Manager"));
}

TEST_F(LumVlanSetPorts, TakesPairsLastToFirst)
{
    set_ports(platform.membership(30, {{30, 1000 + PORT_A}, {31, 1000 + PORT_B}}));
    EXPECT_THAT(platform.trace_texts(), ElementsAre("Received VLAN port query from VLAN Manager",
                                                    "VLANDB not init'd for VLAN 31", "VLANDB not init'd for VLAN 30"));
}

TEST_F(LumVlanSetPorts, TracesAnIfindexThatNoInterfaceHas)
{
    vlan_entry();
    set_ports(platform.membership(VLAN, {{VLAN, 0xABC}, {VLAN, 1000 + PORT_A}}));
    EXPECT_THAT(platform.trace_texts(), Contains("No iod for if_index abc"));
    EXPECT_TRUE(member(PORT_A));
}

TEST_F(LumVlanSetPorts, LeavesAnEmptyReplyToItsCaller)
{
    const mbus_msg msg = set_ports(platform.membership(VLAN, {}));
    EXPECT_TRUE(platform.is_outstanding(msg));
    EXPECT_THAT(platform.trace_texts(), Contains("No ports in VLAN 10"));
}

TEST_F(LumVlanSetPorts, LeavesAMalformedReplyToItsCaller)
{
    const fake::bytes whole = platform.membership(VLAN, {{VLAN, 1000 + PORT_A}});
    for (std::size_t length = 0; length < whole.size(); ++length) {
        platform.forget();
        const mbus_msg msg = set_ports(whole.range(0, length));
        EXPECT_TRUE(platform.is_outstanding(msg)) << length;
        EXPECT_THAT(platform.trace_texts(), Contains("Failed to parse vlan mgr query ports reply")) << length;
    }
}

TEST_F(LumVlanSetPorts, SurvivesVlansBeyondTheTable)
{
    set_ports(platform.membership(VLAN, {{4096, 1000 + PORT_A}, {0xFFFFFFFF, 1000 + PORT_A}}));
    EXPECT_THAT(platform.trace_texts(), Contains("VLANDB not init'd for VLAN 4096"));
}

} // namespace
