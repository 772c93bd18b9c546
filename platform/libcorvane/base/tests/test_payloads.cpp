// Payloads of the interface and VLAN manager, route updates, option dispatch, texts.
#include "cmdopt.h"
#include "drops.h"
#include "intfmgr.h"
#include "rtab.h"
#include "support.h"
#include "timestamp.h"
#include "vlanmgr.h"

#include "../fault.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::SizeIs;

namespace {

class Payloads : public testing::Test {
protected:
    ~Payloads() override
    {
        support::reset();
        corvane::base_fault = nullptr;
    }
    template <class... T> static void payload(T... values)
    {
        support::payload.clear();
        (append(support::payload, values), ...);
    }
    const mbus_msg msg{};
};

constexpr std::uint32_t u32(std::uint32_t v) { return v; }
constexpr std::uint16_t u16(unsigned v) { return static_cast<std::uint16_t>(v); }

TEST_F(Payloads, ChangeListIsReadInOrder)
{
    payload(u32(2), u32(7), std::uint64_t{1} << 35, u32(9), std::uint64_t{1} << 42);
    intfmgr_change_iterator iterator;
    ASSERT_TRUE(intfmgr_parse_change_iterator_init(iterator, msg));
    intfmgr_change change;
    ASSERT_TRUE(intfmgr_parse_change_iterate(iterator, change));
    EXPECT_EQ(change.iod, 7u);
    EXPECT_EQ(change.mask, std::uint64_t{1} << 35);
    ASSERT_TRUE(intfmgr_parse_change_iterate(iterator, change));
    EXPECT_EQ(change.iod, 9u);
    EXPECT_FALSE(intfmgr_parse_change_iterate(iterator, change));
}

TEST_F(Payloads, ChangeListOfTheWrongLengthIsMalformed)
{
    payload(u32(2), u32(7), std::uint64_t{1});
    const bytes whole = support::payload;
    intfmgr_change_iterator iterator;
    intfmgr_change change;
    for (std::size_t length = 0; length <= whole.size(); ++length) {
        support::payload.assign(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
        EXPECT_FALSE(intfmgr_parse_change_iterator_init(iterator, msg)) << length;
        EXPECT_FALSE(intfmgr_parse_change_iterate(iterator, change)) << length;
    }
    payload(u32(0x15555556), u32(7), std::uint64_t{1});       // times 12 wraps a 32-bit size around
    EXPECT_FALSE(intfmgr_parse_change_iterator_init(iterator, msg));
}

TEST_F(Payloads, ChangeMaskIsHexadecimal)
{
    std::array<char, 32> out{};
    EXPECT_STREQ(intfmgr_change_mask_str(std::uint64_t{1} << 42, out.data(), out.size()), "0x40000000000");
}

TEST_F(Payloads, L2StateCarriesBothSetsOfEachPort)
{
    payload(u32(2), u32(3), INTFMGR_MODE_TRUNK, u32(1), u16(2), u16(1), u16(10), u16(4095), u16(20), //
            u32(4), INTFMGR_MODE_ACCESS, u32(0), u16(0), u16(1), u16(30));
    intfmgr_l2_state_iterator iterator;
    ASSERT_TRUE(intfmgr_parse_l2_protocol_state_change_iterator_init(iterator, msg));
    intfmgr_l2_state state;
    ASSERT_TRUE(intfmgr_parse_l2_protocol_state_change_iterate(iterator, state));
    EXPECT_EQ(state.iod, 3u);
    EXPECT_EQ(state.mode, INTFMGR_MODE_TRUNK);
    EXPECT_EQ(state.state, INTFMGR_L2_STATE_UP);
    EXPECT_EQ(state.vlans_up->count(), 2u);
    EXPECT_TRUE(state.vlans_up->test(4095));
    EXPECT_TRUE(state.vlans_down->test(20));
    ASSERT_TRUE(intfmgr_parse_l2_protocol_state_change_iterate(iterator, state));
    EXPECT_EQ(state.iod, 4u);
    EXPECT_EQ(state.vlans_up->count(), 0u) << "the first port's VLANs are not the second's";
    EXPECT_TRUE(state.vlans_down->test(30));
    EXPECT_FALSE(intfmgr_parse_l2_protocol_state_change_iterate(iterator, state));
}

TEST_F(Payloads, L2StateCutAnywhereIsMalformed)
{
    payload(u32(1), u32(3), INTFMGR_MODE_TRUNK, u32(1), u16(2), u16(1), u16(10), u16(20), u16(30));
    const bytes whole = support::payload;
    for (std::size_t length = 0; length < whole.size(); ++length) {
        support::payload.assign(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
        intfmgr_l2_state_iterator iterator;
        intfmgr_l2_state state;
        EXPECT_FALSE(intfmgr_parse_l2_protocol_state_change_iterator_init(iterator, msg)) << length;
        EXPECT_FALSE(intfmgr_parse_l2_protocol_state_change_iterate(iterator, state)) << length;
    }
}

TEST_F(Payloads, L2StateWithoutMemoryIsNotRead)
{
    payload(u32(0));
    corvane::base_fault = [](const char *) { return true; };
    intfmgr_l2_state_iterator iterator;
    EXPECT_FALSE(intfmgr_parse_l2_protocol_state_change_iterator_init(iterator, msg));
}

TEST_F(Payloads, MembershipQueryNamesItsVlans)
{
    const std::array<std::uint32_t, 2> vlans{10, 300};
    vlan_memb_payload query;
    ASSERT_TRUE(vlan_get_per_vlan_memb_info_build_mbus_local(vlans, query));
    bytes expected;
    append(expected, u32(2));
    append(expected, u32(10));
    append(expected, u32(300));
    EXPECT_EQ(bytes(query.data, query.data + query.length), expected);
    vlan_memb_payload_free(query);
    EXPECT_EQ(query.data, nullptr);
    corvane::base_fault = [](const char *) { return true; };
    EXPECT_FALSE(vlan_get_per_vlan_memb_info_build_mbus_local(vlans, query));
}

TEST_F(Payloads, MembershipReplyGivesItsPairsAndTheVlanAskedFor)
{
    std::array<vlan_memb_pair, 4> pairs{};
    std::uint32_t vlan = 0;
    std::size_t count = 9;
    payload(u32(10), u32(2), u32(10), u32(1001), u32(10), u32(1002));
    ASSERT_TRUE(vlan_get_per_vlan_memb_info_parse_reply_local(msg, vlan, pairs, count));
    EXPECT_EQ(vlan, 10u);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(pairs[1].ifindex, 1002u);
    payload(u32(77), u32(0));
    ASSERT_TRUE(vlan_get_per_vlan_memb_info_parse_reply_local(msg, vlan, pairs, count));
    EXPECT_EQ(vlan, 77u);
    EXPECT_EQ(count, 0u);
}

TEST_F(Payloads, MembershipReplyOfAnotherLengthOrTooManyPairsIsMalformed)
{
    std::array<vlan_memb_pair, 1> pairs{};
    std::uint32_t vlan = 0;
    std::size_t count = 0;
    payload(u32(10), u32(1), u32(10));
    EXPECT_FALSE(vlan_get_per_vlan_memb_info_parse_reply_local(msg, vlan, pairs, count));
    payload(u32(10), u32(2), u32(10), u32(1001), u32(10), u32(1002));
    EXPECT_FALSE(vlan_get_per_vlan_memb_info_parse_reply_local(msg, vlan, pairs, count));
    support::payload.clear();
    EXPECT_FALSE(vlan_get_per_vlan_memb_info_parse_reply_local(msg, vlan, pairs, count));
    EXPECT_EQ(count, 0u);
}

// ---- route updates

constexpr rtab_mac_info HOST{10, {2, 0, 0, 0, 0, 1}};

rtab_addr next_hop(std::uint32_t iod)
{
    rtab_addr address;
    address.kind = 1;
    std::memcpy(address.body.data(), &iod, sizeof iod);
    return address;
}

TEST_F(Payloads, RouteWithTwoNextHopsIsTwoElementsOfItsKey)
{
    std::array<std::uint8_t, 572> buffer{};
    rtab_update update;
    ASSERT_TRUE(rtab_begin_route_update(update, buffer.data(), buffer.size()));
    ASSERT_TRUE(rtab_add_mac_to_buffer(update, HOST, 0, 1, 1));
    ASSERT_TRUE(rtab_add_nexthop_to_route(update, next_hop(3)));
    ASSERT_TRUE(rtab_add_iod_nexthop_to_route(update, 4));
    EXPECT_EQ(rtab_end_route_update(update, 0), 1);
    ASSERT_THAT(support::route_updates, SizeIs(1));
    const bytes &sent = support::route_updates[0];
    ASSERT_EQ(sent.size(), 68u + 2 * 52);
    for (const std::size_t at : {68u, 120u}) {
        EXPECT_EQ(bytes(sent.begin() + static_cast<int>(at) + 4, sent.begin() + static_cast<int>(at) + 10),
                  from_hex("020000000001"));
        EXPECT_EQ(sent[at + 12], 1);
        EXPECT_EQ(sent[at + 13], 1);
    }
    EXPECT_EQ(sent[68 + 28], 3);
    EXPECT_EQ(sent[120 + 28], 4);
}

TEST_F(Payloads, RouteUpdateStopsAtTheEndOfItsBuffer)
{
    std::array<std::uint8_t, 572> buffer{};
    rtab_update update;
    ASSERT_TRUE(rtab_begin_route_update(update, buffer.data(), buffer.size()));
    EXPECT_FALSE(rtab_add_nexthop_to_route(update, next_hop(1))) << "no route was begun";
    ASSERT_TRUE(rtab_add_ip_to_buffer(update, HOST, 1, 2, 0, 1, 0));
    for (std::uint32_t i = 0; i < 9; ++i)
        EXPECT_TRUE(rtab_add_iod_nexthop_to_route(update, i)) << i;
    EXPECT_FALSE(rtab_add_iod_nexthop_to_route(update, 9));
    EXPECT_EQ(update.used, 536u);
    rtab_update none;
    EXPECT_FALSE(rtab_begin_route_update(none, buffer.data(), 67));
    EXPECT_FALSE(rtab_add_mac_to_buffer(none, HOST, 0, 1, 1));
    EXPECT_EQ(rtab_end_route_update(none, 0), 0);
}

// ---- options

std::vector<std::string> seen;

int take(const char *argument)
{
    seen.emplace_back(argument == nullptr ? "-" : argument);
    return 1;
}
int refuse(const char * /*argument*/) { return 0; }

int dispatch(std::vector<std::string> words)
{
    static constexpr std::array<cmdopt_option, 3> table{{{"-h", 0, refuse, 0}, {"-d", 0, take, 0}, {"-t", 0, take, 0}}};
    seen.clear();
    std::vector<char *> argv;
    for (std::string &word : words)
        argv.push_back(word.data());
    return cmdopt_dispatch(static_cast<int>(argv.size()), argv.data(), table.data(), 3, 0, nullptr);
}

TEST(Cmdopt, HandsAnOptionTheWordBehindIt)
{
    EXPECT_EQ(dispatch({"lum", "-d", "-t", "tag"}), 1);
    EXPECT_THAT(seen, ElementsAre("-", "tag"));
    EXPECT_EQ(dispatch({"lum"}), 1);
}

TEST(Cmdopt, EndsAtUnknownOptionsStrayWordsAndRefusals)
{
    EXPECT_EQ(dispatch({"lum", "-m", "64"}), 0);
    EXPECT_EQ(dispatch({"lum", "stray"}), 0);
    EXPECT_EQ(dispatch({"lum", "-h", "-d"}), 0);
    EXPECT_THAT(seen, SizeIs(0));
}

// ---- texts

std::string elapsed(std::uint32_t seconds)
{
    support::elapsed = {seconds, 0};
    std::array<char, 16> out{};
    return timestamp_elapsed_str({}, out.data(), out.size());
}

TEST(ElapsedText, ChangesItsFormWithADayAndAWeek)
{
    EXPECT_EQ(elapsed(0), "00:00:00");
    EXPECT_EQ(elapsed(83), "00:01:23");
    EXPECT_EQ(elapsed(86399), "23:59:59");
    EXPECT_EQ(elapsed(86400), "1d00h");
    EXPECT_EQ(elapsed(86400 + 7200), "1d02h");
    EXPECT_EQ(elapsed(604799), "6d23h");
    EXPECT_EQ(elapsed(604800), "1w0d");
    EXPECT_EQ(elapsed(17 * 86400), "2w3d");
    EXPECT_LT(elapsed(0xFFFFFFFF).size(), 16u);
}

TEST(DropText, NamesEveryReason)
{
    EXPECT_STREQ(drop_reason_str(drop_reason::FWD_NO_ROUTE), "unknown unicast: no route");
    EXPECT_STREQ(drop_reason_str(drop_reason::COUNT), "unknown");
}

TEST(DropCount, AddsUpOnAPageOfItsOwnBeforeSharedMemoryIsThere)
{
    ASSERT_NE(drop_counters, nullptr);
    const auto count = [] {
        return drop_counters->count[static_cast<std::size_t>(drop_reason::BUS_MALFORMED)].load();
    };
    const std::uint64_t before = count();
    drop_count(drop_reason::BUS_MALFORMED, 3);
    EXPECT_EQ(count(), before + 3);
}

} // namespace
