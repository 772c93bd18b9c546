// Records of the shared database, byte for byte. The offsets are written out here and not taken from the headers that
// the daemon builds its records from.
#include "control_test.h"

#include <cstring>

using namespace fake;
using namespace testing;

namespace
{

struct LumSdbOverlay : ControlTest {};

TEST_F(LumSdbOverlay, WritesEveryFieldAtItsPlaceAndZeroElsewhere)
{
    lum_overlay &overlay = make_overlay();
    std::strcpy(overlay.vpn_name, "blue");
    set_external(overlay, "eth5", CORE);
    overlay.ipv4_group = lum_addr_next_hop(OVERLAY, GROUP);
    overlay.ipv6_group = lum_addr_next_hop(OVERLAY, ipv6("ff05:1:2:3:4:5:6:7"));
    overlay.vlan_ranges = {3, {{10, 12}, {20, 20}}};
    overlay.state = 2;
    overlay.reason = 0;
    overlay.encap_type = 1;
    overlay.encap_family = 5;
    overlay.ext_ipv4 = CORE_IPV4;
    overlay.ext_ipv6 = ipv6("2001:db8::5");
    overlay.context_id = 7;

    EXPECT_EQ(lum_sdb_update_overlay(overlay), 1);

    bytes value;
    value.add_host32(100).add_host32(1100).add_zeros(4);         // 0 iod, 4 ifindex, 8
    value.add_host32(5).add_zeros(8 * 4);                        // 12 external interfaces
    value.add({'b', 'l', 'u', 'e'}).add_zeros(97);               // 48 name
    value.add_host32(4).add_host32(0xEF010101).add_zeros(20);    // 149, 153, 157
    value.add_host32(5).add_zeros(8);                            // 177, 181
    value.add_host32(100).add_host32(5);                         // 189 overlay iod, 193 family
    value.add({0xFF, 5, 0, 1, 0, 2, 0, 3}).add8(0);              // 197 first half of the address, 205
    value.add_host16(3).add_host16(10).add_host16(12).add_host16(20).add_host16(20).add_zeros(14 * 4);   // 206
    value.add_host32(2).add_host32(0).add_host32(1).add_host32(5);           // 272 .. 284
    value.add_host32(0xC0000201).add(ipv6("2001:db8::5")).add_host32(7);     // 288, 292, 308
    ASSERT_EQ(value.size(), 312u);
    ASSERT_THAT(platform.sdb_writes, SizeIs(1));
    EXPECT_EQ(to_hex(platform.sdb_writes[0].value), to_hex(value));
    EXPECT_EQ(platform.sdb_writes[0].key, overlay_key());
    EXPECT_EQ(platform.sdb_writes[0].key.size(), 33u);
    EXPECT_EQ(platform.sdb_writes[0].database, "lum_sdb_info");
    EXPECT_EQ(platform.sdb_writes[0].create, 1);
}

TEST_F(LumSdbOverlay, WithoutExternalInterfaceHasZeroInAllIodWordsAndIsDown)
{
    lum_overlay &overlay = make_overlay();
    overlay.ext_if[0].iod = CORE;                // a stale iod behind a count of 0
    lum_sdb_update_overlay(overlay);
    const bytes &value = platform.sdb_writes.at(0).value;
    EXPECT_EQ(value.range(12, 36), bytes(36));
    EXPECT_EQ(value.host32(272), 1u);
    EXPECT_EQ(value.host32(276), 1u);
}

TEST_F(LumSdbOverlay, WithoutIpv6GroupHasSixteenZeroBytesInItsPlace)
{
    lum_sdb_update_overlay(make_overlay());
    EXPECT_EQ(platform.sdb_writes.at(0).value.range(181, 25), bytes(25));
}

TEST_F(LumSdbOverlay, ANameOfAHundredCharactersKeepsItsTerminator)
{
    lum_overlay &overlay = make_overlay();
    std::memset(overlay.vpn_name, 'x', 100);
    lum_sdb_update_overlay(overlay);
    const bytes &value = platform.sdb_writes.at(0).value;
    EXPECT_EQ(value.text(48, 101), std::string(100, 'x'));
    EXPECT_EQ(value.u8(148), 0);
    EXPECT_EQ(value.host32(149), 4u);
}

TEST_F(LumSdbOverlay, ACountBeyondTheSlotsWritesNineIodsOnly)
{
    lum_overlay &overlay = make_overlay();
    overlay.ext_if_count = 400;
    for (lum_ext_if &slot : overlay.ext_if)
        slot.iod = 3;
    lum_sdb_update_overlay(overlay);
    EXPECT_EQ(platform.sdb_writes.at(0).value.host32(44), 3u);
    EXPECT_EQ(platform.sdb_writes.at(0).value.u8(48), 0);
}

TEST_F(LumSdbOverlay, TracesWhatItDoesAndWhatFailed)
{
    lum_overlay &overlay = make_overlay();
    lum_internal_debug_flag = 1;
    platform.fail("hakit_sdb_update");
    platform.fail("hakit_sdb_delete");
    EXPECT_EQ(lum_sdb_update_overlay(overlay), 0);
    EXPECT_EQ(lum_sdb_delete_overlay(overlay), 0);
    EXPECT_EQ(lum_sdb_delete_overlay(overlay), 1);
    EXPECT_THAT(platform.trace_texts(),
                ElementsAre("Updating overlay Overlay1 to SDB\n", "SDB update failed for overlay Overlay1\n",
                            "Deleting overlay Overlay1 from SDB\n", "SDB delete failed for overlay Overlay1\n",
                            "Deleting overlay Overlay1 from SDB\n"));
    EXPECT_THAT(platform.syslog_texts(), IsEmpty());
}

TEST_F(LumSdbOverlay, DeletionTakesTheRecordOut)
{
    lum_overlay &overlay = make_overlay();
    lum_sdb_update_overlay(overlay);
    EXPECT_NE(platform.sdb_value(overlay_key()), nullptr);
    lum_sdb_delete_overlay(overlay);
    EXPECT_EQ(platform.sdb_value(overlay_key()), nullptr);
}

struct LumSdbVlan : ControlTest {};

TEST_F(LumSdbVlan, WritesNumberOverlayAedAndSiteFlagAsWords)
{
    lum_overlay &overlay = make_overlay();
    carry_vlan(overlay, 4095);
    lum_vlans[4095].aed = 1;
    lum_vlans[4095].site_vlan = 1;
    EXPECT_EQ(lum_sdb_update_vlan(lum_vlans[4095], 1), 1);
    bytes value;
    value.add_host32(4095).add_host32(100).add_host32(1).add_host32(1);
    EXPECT_EQ(platform.sdb_writes.at(0).value, value);
    EXPECT_EQ(platform.sdb_writes.at(0).key, key(3, 4095));
    EXPECT_EQ(platform.sdb_writes.at(0).key.host32(1), 4095u);
}

TEST_F(LumSdbVlan, AVlanWithoutOverlayIsWrittenWithNone)
{
    lum_vlan_vlandb_init(lum_vlans[10], 10);
    EXPECT_EQ(lum_sdb_update_vlan(lum_vlans[10], 1), 1);
    EXPECT_EQ(platform.sdb_writes.at(0).value.host32(4), 0u);
}

TEST_F(LumSdbVlan, ARetiredEntryIsStillKnownByItsPlace)
{
    lum_sdb_update_vlan(lum_vlans[77], 0);       // its number is 0 by now
    EXPECT_EQ(platform.sdb_writes.at(0).key, key(3, 77));
    EXPECT_TRUE(platform.sdb_writes.at(0).deletion);
}

TEST_F(LumSdbVlan, AnEntryOutsideTheTableIsKnownByItsNumber)
{
    lum_vlan entry{};
    entry.vlan = 78;
    lum_sdb_update_vlan(entry, 1);
    EXPECT_EQ(platform.sdb_writes.at(0).key, key(3, 78));
    EXPECT_EQ(platform.sdb_writes.at(0).value.host32(0), 78u);
}

TEST_F(LumSdbVlan, TracesWhatItDoesAndWhatFailed)
{
    lum_internal_debug_flag = 1;
    platform.fail("hakit_sdb_update");
    platform.fail("hakit_sdb_delete");
    EXPECT_EQ(lum_sdb_update_vlan(lum_vlans[10], 1), 0);
    EXPECT_EQ(lum_sdb_update_vlan(lum_vlans[11], 0), 0);
    EXPECT_EQ(lum_sdb_update_vlan(lum_vlans[11], 0), 1);
    EXPECT_THAT(platform.trace_texts(),
                ElementsAre("Updating vlan 10 to SDB\n", "SDB update failed for vlan 10\n", "Updating vlan 11 to SDB\n",
                            "SDB delete failed for vlan 11\n", "Updating vlan 11 to SDB\n"));
}

struct LumSdbGeninfo : ControlTest {};

TEST_F(LumSdbGeninfo, IsTheSiteVlanUnderABareKey)
{
    lum_svr.site_vlan = 300;
    EXPECT_EQ(lum_sdb_update_geninfo(), 1);
    EXPECT_EQ(platform.sdb_writes.at(0).key, key(4));
    EXPECT_EQ(platform.sdb_writes.at(0).value, bytes().add_host32(300));
}

TEST_F(LumSdbGeninfo, TracesWhatItDoesAndWhatFailed)
{
    lum_internal_debug_flag = 1;
    platform.fail("hakit_sdb_update");
    EXPECT_EQ(lum_sdb_update_geninfo(), 0);
    EXPECT_THAT(platform.trace_texts(), ElementsAre("Updating geninfo in SDB\n", "SDB update failed for geninfo\n"));
}

// ---- VLAN ranges

struct LumVlanRanges : ControlTest {
    lum_overlay &overlay = make_overlay();

    void set(std::initializer_list<std::uint32_t> vlans)
    {
        overlay.vlans->clear_all();
        for (const std::uint32_t vlan : vlans)
            bitfield_set(*overlay.vlans, vlan);
    }
    std::pair<int, int> range(std::size_t i) const
    {
        return {overlay.vlan_ranges.range[i].first, overlay.vlan_ranges.range[i].last};
    }
};

TEST_F(LumVlanRanges, ConsecutiveVlansMakeOneRange)
{
    set({10, 11, 12, 20, 30, 31});
    lum_update_overlay_vlans(overlay);
    EXPECT_EQ(overlay.vlan_ranges.count, 3);
    EXPECT_EQ(range(0), std::pair(10, 12));
    EXPECT_EQ(range(1), std::pair(20, 20));
    EXPECT_EQ(range(2), std::pair(30, 31));
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78854"));
}

TEST_F(LumVlanRanges, VlanOneBeginsARangeAndVlanZeroIsNone)
{
    set({0, 1, 2, 4095});
    lum_update_overlay_vlans(overlay);
    EXPECT_EQ(overlay.vlan_ranges.count, 2);
    EXPECT_EQ(range(0), std::pair(1, 2));
    EXPECT_EQ(range(1), std::pair(4095, 4095));
}

TEST_F(LumVlanRanges, TwoRebuildsOfOneRangeLeaveACountOfTwo)
{
    set({10});
    lum_update_overlay_vlans(overlay);
    lum_update_overlay_vlans(overlay);
    EXPECT_EQ(overlay.vlan_ranges.count, 2);
    EXPECT_EQ(range(0), std::pair(10, 10));
    EXPECT_EQ(range(1), std::pair(0, 0));        // slots follow the walk, not the count
    EXPECT_EQ(platform.sdb_writes.back().value.host16(206), 2);
}

TEST_F(LumVlanRanges, OfAnEmptySetRangeZeroEndsAtZero)
{
    set({10, 11});
    lum_update_overlay_vlans(overlay);
    set({});
    lum_update_overlay_vlans(overlay);
    EXPECT_EQ(overlay.vlan_ranges.count, 1);
    EXPECT_EQ(range(0), std::pair(10, 0));
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78854", "publish 2", "notify 78854"));
}

TEST_F(LumVlanRanges, MoreRangesThanSlotsStayInBounds)
{
    for (std::uint32_t vlan = 1; vlan < 100; vlan += 2)
        bitfield_set(*overlay.vlans, vlan);
    bitfield *const vlans = overlay.vlans;       // what stands behind the list in the record
    lum_update_overlay_vlans(overlay);
    EXPECT_EQ(overlay.vlan_ranges.count, 50);
    EXPECT_EQ(range(15), std::pair(31, 31));
    EXPECT_EQ(overlay.vlans, vlans);
}

// ---- the entry point for writes past the HA kit

struct LumUpdateOneSdb : ControlTest {
    const bytes record_key = key(9, 1), record_value{1, 2, 3};
    int update(std::uint32_t present)
    {
        return lum_update_one_sdb(lum_sdb_handle, record_key, record_value, present);
    }
};

TEST_F(LumUpdateOneSdb, WritesAnnouncesTheContextAndMarksTheWriteDone)
{
    EXPECT_EQ(update(1), 1);
    EXPECT_EQ(*platform.sdb_value(record_key), record_value);
    ASSERT_THAT(platform.mbus_sent, SizeIs(1));
    const bus_message &sent = platform.mbus_sent[0];
    EXPECT_EQ(sent.opcode, 78862u);
    EXPECT_EQ(sent.to.node, 0xFE000000u);
    EXPECT_EQ(sent.to.sap, 0u);
    EXPECT_EQ(sent.from_sap, 442u);
    EXPECT_EQ(sent.payload.size(), 100u);
    EXPECT_TRUE(sent.want_ack);
    EXPECT_EQ(sent.options_version, 1u);
    std::vector<std::string> order;
    for (const call_record &call : platform.calls)
        order.push_back(call.name);
    EXPECT_THAT(order,
                ElementsAre("sdb_write", "sdb_get_context_len", "sdb_set_context", "mbus_send", "sdb_write_done"));
    EXPECT_THAT(platform.traces, IsEmpty());
}

TEST_F(LumUpdateOneSdb, AbsentDeletesTheKey)
{
    update(1);
    EXPECT_EQ(update(0), 1);
    EXPECT_EQ(platform.sdb_value(record_key), nullptr);
    EXPECT_THAT(platform.mbus_sent, SizeIs(2));
}

TEST_F(LumUpdateOneSdb, LogsEachStepThatFailsAndGoesOn)
{
    for (const char *name : {"sdb_write", "sdb_get_context_len", "sdb_set_context", "sdb_write_done"})
        platform.fail(name);
    platform.fail("mbus_send", 1, ENOTCONN);
    EXPECT_EQ(update(1), 0);
    EXPECT_THAT(platform.trace_texts(),
                ElementsAre("SDB write fail\n", "SDB get context fail\n", "SDB set context fail\n",
                            "MBUS send fail - Transport endpoint is not connected\n", "SDB write done fail\n"));
}

TEST_F(LumUpdateOneSdb, LogsADeletionThatFails)
{
    platform.fail("sdb_delete");
    EXPECT_EQ(update(0), 0);
    EXPECT_THAT(platform.trace_texts(), ElementsAre("SDB write fail\n"));
}

// ---- reading back

struct LumSdbIterator : ControlTest {};

TEST_F(LumSdbIterator, WalksTheRecordsOfOneType)
{
    lum_sdb_update_overlay(make_overlay(OVERLAY2));
    lum_sdb_update_overlay(make_overlay(OVERLAY));
    lum_sdb_update_geninfo();
    const sdb_iterator_ptr iterator = lum_sdb_iterator_init(0, 2, 0);
    std::vector<std::uint32_t> iods;
    while (const sdb_record *record = lum_sdb_iterator_get_next(*iterator))
        iods.push_back(wire_host32(record->value));
    EXPECT_THAT(iods, ElementsAre(OVERLAY, OVERLAY2));
}

} // namespace
