// What route updates mean, element by element, as the daemon writes them; and the lines of the dump.
#include "rtab_fixture.h"

#include "../rtab_elements.h"

#include "../../wire/rtab_update.h"

#include <set>

using corvane::byte_view;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

// Where the builder of updates hands them over.
std::vector<std::uint8_t> handed_over;
std::uint32_t handed_over_count;

} // namespace

int rtab_update_route(const void *buffer, std::uint16_t count, std::uint32_t /*length*/, std::uint32_t /*flags*/)
{
    const auto *bytes = static_cast<const std::uint8_t *>(buffer);
    handed_over.assign(bytes, bytes + RTAB_UPDATE_HEADER + count * RTAB_UPDATE_STRIDE);
    handed_over_count = count;
    return 1;
}

namespace corvaned {
namespace {

struct fields {
    rtab_mac_info key = mac(10, 1);
    std::uint8_t up = 0, operation = 0;
    std::optional<rtab_addr> nexthop;
    std::uint32_t word = 0;
};

class RtabUpdate : public rtab_test {
protected:
    static std::vector<std::uint8_t> element(const fields &f)
    {
        std::vector<std::uint8_t> bytes(RTAB_UPDATE_STRIDE);
        std::memcpy(bytes.data(), &f.key.vlan, 4);
        std::memcpy(bytes.data() + 4, f.key.mac.data(), 6);
        bytes[11] = f.up;
        bytes[12] = f.operation;
        bytes[13] = f.nexthop ? 1 : 0;
        std::memcpy(bytes.data() + 16, &f.word, 4);
        if (f.nexthop)
            std::memcpy(bytes.data() + 24, &*f.nexthop, 28);
        return bytes;
    }
    std::uint32_t apply(std::initializer_list<fields> all, std::uint32_t owner = LUM)
    {
        std::vector<std::uint8_t> bytes;
        for (const fields &f : all) {
            const auto one = element(f);
            bytes.insert(bytes.end(), one.begin(), one.end());
        }
        const std::vector<std::uint8_t> header(RTAB_UPDATE_HEADER);
        return rtab_apply(table, caller(owner), header, bytes, static_cast<std::uint32_t>(all.size()));
    }
    std::uint32_t apply_built()
    {
        const byte_view bytes = handed_over;
        return rtab_apply(table, caller(LUM), bytes.first(RTAB_UPDATE_HEADER), bytes.subspan(RTAB_UPDATE_HEADER),
                          handed_over_count);
    }
    rtab_caller caller(std::uint32_t owner)
    {
        const auto exists = [this](std::uint32_t iod) { return gone_iod != iod; };
        return {owner, now, exists, [=, this](std::uint32_t iod) { return exists(iod) && down_iods.count(iod) == 0; }};
    }

    static fields learnt(const rtab_mac_info &key, std::uint32_t iod) { return {key, 0, 1, by_iod(iod), 11}; }
    static fields aged(const rtab_mac_info &key) { return {key, 0, 1, std::nullopt, 0}; }
    static fields resolved(const rtab_mac_info &key, const rtab_addr &nexthop, bool up)
    {
        return {key, static_cast<std::uint8_t>(up), 0, nexthop, 0};
    }
    static fields tested(const rtab_mac_info &key, bool add, std::optional<rtab_addr> nexthop)
    {
        return {key, 0, static_cast<std::uint8_t>(add ? 1 : 2), nexthop, add ? 10u : 0u};
    }
    static void begin() { handed_over.clear(); }

    std::uint32_t gone_iod = 0;
    std::set<std::uint32_t> down_iods;
    std::uint8_t buffer[572] = {};
    rtab_update update;
};

TEST_F(RtabUpdate, LearnsRoutesOfOneBatch)
{
    EXPECT_EQ(apply({learnt(mac(10, 1), 5), learnt(mac(20, 2), 6)}), 0u);

    EXPECT_THAT(nexthops(10, 1), ElementsAre(LeadsTo(by_iod(5))));
    EXPECT_THAT(nexthops(20, 2), ElementsAre(LeadsTo(by_iod(6))));
    EXPECT_EQ(route(10, 1)->owner, LUM);
}

TEST_F(RtabUpdate, AgesTheCallersLearntRouteOnly)
{
    apply({learnt(mac(10, 1), 5), tested(mac(10, 2), true, by_iod(7))});
    apply({learnt(mac(10, 3), 5)}, OTHER);

    EXPECT_EQ(apply({aged(mac(10, 1)), aged(mac(10, 2)), aged(mac(10, 3))}), 2u);
    EXPECT_FALSE(route(10, 1));
    EXPECT_TRUE(route(10, 2));
    EXPECT_TRUE(route(10, 3));
}

TEST_F(RtabUpdate, CountsElementsAndReadsNothingBehindThem)
{
    std::vector<std::uint8_t> bytes = element(learnt(mac(10, 1), 5));
    const auto behind = element(learnt(mac(10, 2), 5));
    bytes.insert(bytes.end(), behind.begin(), behind.end());
    const std::vector<std::uint8_t> header(RTAB_UPDATE_HEADER);

    EXPECT_EQ(rtab_apply(table, caller(LUM), header, bytes, 1), 0u);
    EXPECT_FALSE(route(10, 2));
    EXPECT_EQ(rtab_apply(table, caller(LUM), header, bytes, 3), 1u);
}

TEST_F(RtabUpdate, ResolvesOneNextHopAndLeavesTheOthers)
{
    apply({tested(mac(10, 1), true, by_ip(3, 1)), tested(mac(10, 1), true, by_ip(3, 2))});

    EXPECT_EQ(apply({resolved(mac(10, 1), by_ip(3, 1), false)}), 0u);
    EXPECT_THAT(nexthops(10, 1), ElementsAre(LeadsTo(by_ip(3, 2))));
    EXPECT_EQ(apply({resolved(mac(10, 1), by_ip(3, 1), true)}), 0u);
    EXPECT_THAT(nexthops(10, 1), ElementsAre(LeadsTo(by_ip(3, 2)), LeadsTo(by_ip(3, 1))));
}

TEST_F(RtabUpdate, InstallsTheNextHopOfAnInterfaceThatCameUpAsAnOperators)
{
    apply({resolved(mac(10, 1), by_iod(5), true)});

    EXPECT_EQ(route(10, 1)->is_static, 1);
    EXPECT_EQ(apply({resolved(mac(10, 2), by_iod(5), false)}), 0u);
    EXPECT_FALSE(route(10, 2));
}

TEST_F(RtabUpdate, DropsTheNextHopThatStoodForTheSameEndUnderAnotherIod)
{
    apply({resolved(mac(10, 1), by_ip(3, 1), true), resolved(mac(10, 1), by_ip(3, 2), true)});
    gone_iod = 3;
    apply({resolved(mac(10, 1), by_ip(4, 1), true)});

    EXPECT_THAT(nexthops(10, 1), ElementsAre(LeadsTo(by_ip(3, 2)), LeadsTo(by_ip(4, 1))));
}

TEST_F(RtabUpdate, KeepsTheSameEndOverTwoInterfacesThatBothExist)
{
    apply({resolved(mac(10, 1), by_ip(3, 1), true), resolved(mac(10, 1), by_ip(4, 1), true)});

    EXPECT_THAT(nexthops(10, 1), SizeIs(2));
}

TEST_F(RtabUpdate, AddsAndWithdrawsForTheTestCommand)
{
    EXPECT_EQ(apply({tested(mac(10, 1), true, by_iod(5))}), 0u);
    EXPECT_EQ(apply({tested(mac(10, 1), true, by_ip(3, 9))}), 0u);
    EXPECT_THAT(nexthops(10, 1), SizeIs(2));
    EXPECT_EQ(route(10, 1)->is_static, 1);

    EXPECT_EQ(apply({tested(mac(10, 1), false, by_iod(5))}), 0u);
    EXPECT_THAT(nexthops(10, 1), ElementsAre(LeadsTo(by_ip(3, 9))));
    EXPECT_EQ(apply({tested(mac(10, 1), false, std::nullopt)}), 0u);
    EXPECT_FALSE(route(10, 1));
    EXPECT_EQ(apply({tested(mac(10, 1), false, std::nullopt)}), 1u);
    EXPECT_EQ(apply({tested(mac(10, 1), true, std::nullopt)}), 1u);
}

TEST_F(RtabUpdate, TakesTheBroadcastAddressAsUnicastAndOtherGroupsAsMulticast)
{
    const rtab_mac_info broadcast{10, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}};
    apply({tested(broadcast, true, by_ip(3, 1)), tested(GROUP_MAC, true, by_iod(5)), tested(GROUP_MAC, true, by_iod(6))});

    EXPECT_TRUE(look_up(shared(), corvane::rtab_key(broadcast)));
    EXPECT_FALSE(look_up(shared(), GROUP));
    EXPECT_THAT(group_iods(), ElementsAre(5, 6));
    EXPECT_EQ(apply({tested(GROUP_MAC, false, by_iod(5))}), 0u);
    EXPECT_THAT(group_iods(), ElementsAre(6));
    EXPECT_EQ(apply({learnt(GROUP_MAC, 5)}), 1u);
}

TEST_F(RtabUpdate, RefusesWhatHasNoMeaningAndAppliesTheRest)
{
    rtab_addr odd = by_iod(5);
    odd.kind = 7;
    rtab_addr no_family = by_ip(3, 1);
    no_family.body[4] = 6;
    const rtab_mac_info no_vlan{4096, {2, 0, 0, 0, 0, 1}};

    EXPECT_EQ(apply({tested(mac(10, 1), true, odd), tested(mac(10, 1), true, no_family), learnt(no_vlan, 5),
                     {mac(10, 1), 0, 3, by_iod(5), 0}, {mac(10, 1), 1, 0, std::nullopt, 0}, learnt(mac(10, 2), 5)}),
              5u);
    EXPECT_THAT(walk(), SizeIs(1));
}

TEST_F(RtabUpdate, BuiltAddReplacesTheOperatorsNextHopsOfAUnicastMac)
{
    apply({tested(mac(10, 1), true, by_iod(9)), learnt(mac(10, 1), 5)});
    ASSERT_TRUE(rtab_begin_route_update(update, buffer, sizeof buffer));
    ASSERT_TRUE(rtab_add_mac_to_buffer(update, mac(10, 1), 0, 1, 1));
    for (std::uint32_t n = 1; n <= 4; ++n)
        ASSERT_TRUE(rtab_add_nexthop_to_route(update, by_ip(3, n)));
    ASSERT_NE(rtab_end_route_update(update, 0), 0);

    EXPECT_EQ(apply_built(), 0u);
    EXPECT_THAT(nexthops(10, 1), ElementsAre(LeadsTo(by_ip(3, 1)), LeadsTo(by_ip(3, 2)), LeadsTo(by_ip(3, 3)),
                                             LeadsTo(by_ip(3, 4))));
    EXPECT_EQ(table.withdraw_learnt(LUM, key(10, 1)), result::DONE);
}

TEST_F(RtabUpdate, BuiltAddLeavesOutNextHopsWhoseInterfaceIsDownOrGoneWhileThereAreOthers)
{
    down_iods = {4};
    gone_iod = 6;
    const auto add = [&](std::initializer_list<rtab_addr> nexthops) {
        begin();
        ASSERT_TRUE(rtab_begin_route_update(update, buffer, sizeof buffer));
        ASSERT_TRUE(rtab_add_mac_to_buffer(update, mac(10, 1), 0, 1, 1));
        for (const rtab_addr &nexthop : nexthops)
            ASSERT_TRUE(rtab_add_nexthop_to_route(update, nexthop));
        ASSERT_NE(rtab_end_route_update(update, 0), 0);
        EXPECT_EQ(apply_built(), 0u);
    };
    add({by_iod(4), by_ip(4, 1), by_ip(6, 1), by_ip(0, 2), by_iod(3), by_ip(5, 1)});
    EXPECT_THAT(nexthops(10, 1), ElementsAre(LeadsTo(by_ip(0, 2)), LeadsTo(by_iod(3)), LeadsTo(by_ip(5, 1))));
    add({by_iod(4), by_ip(6, 1)});
    EXPECT_THAT(nexthops(10, 1), ElementsAre(LeadsTo(by_iod(4)), LeadsTo(by_ip(6, 1))));

    add({by_iod(4), by_iod(3)});
    EXPECT_EQ(apply({resolved(mac(10, 1), by_iod(4), true)}), 0u);
    EXPECT_THAT(nexthops(10, 1), ElementsAre(LeadsTo(by_iod(3)), LeadsTo(by_iod(4))));
}

TEST_F(RtabUpdate, BuiltDeleteWithdrawsTheNextHopsGiven)
{
    apply({tested(mac(10, 1), true, by_iod(1)), tested(mac(10, 1), true, by_iod(2))});
    (void)rtab_begin_route_update(update, buffer, sizeof buffer);
    (void)rtab_add_mac_to_buffer(update, mac(10, 1), 0, 1, 0);
    (void)rtab_add_nexthop_to_route(update, by_iod(1));
    (void)rtab_end_route_update(update, 0);

    EXPECT_EQ(apply_built(), 0u);
    EXPECT_THAT(nexthops(10, 1), ElementsAre(LeadsTo(by_iod(2))));
    EXPECT_EQ(apply_built(), 1u);
}

TEST_F(RtabUpdate, BuiltAddJoinsOneInterfaceToAMulticastMac)
{
    for (const std::uint32_t iod : {5u, 6u}) {
        (void)rtab_begin_route_update(update, buffer, sizeof buffer);
        (void)rtab_add_mac_to_buffer(update, GROUP_MAC, 0, 1, 1);
        (void)rtab_add_nexthop_to_route(update, by_iod(iod));
        (void)rtab_end_route_update(update, 0);
        EXPECT_EQ(apply_built(), 0u);
    }
    EXPECT_THAT(group_iods(), ElementsAre(5, 6));
}

TEST_F(RtabUpdate, BuiltIpRoutesOfOneMacAreKeptApartBySourceAndGroup)
{
    const auto change = [&](std::uint32_t source, std::uint32_t iod, std::uint32_t add) {
        (void)rtab_begin_route_update(update, buffer, sizeof buffer);
        (void)rtab_add_ip_to_buffer(update, GROUP_MAC, source, 0xE1010203, 0, 1, add);
        (void)rtab_add_iod_nexthop_to_route(update, iod);
        (void)rtab_end_route_update(update, 0);
        return apply_built();
    };
    EXPECT_EQ(change(0, 5, 1), 0u);
    EXPECT_EQ(change(0xC0000201, 5, 1), 0u);
    EXPECT_EQ(change(0xC0000201, 6, 1), 0u);
    EXPECT_THAT(group_iods(), ElementsAre(5, 6));

    EXPECT_EQ(change(0xC0000201, 5, 0), 0u);
    EXPECT_THAT(group_iods(), ElementsAre(5, 6));
    EXPECT_EQ(change(0, 5, 0), 0u);
    EXPECT_THAT(group_iods(), ElementsAre(6));
    EXPECT_EQ(change(0, 5, 0), 1u);
}

TEST_F(RtabUpdate, BuiltAddOfMoreNextHopsThanARouteHoldsChangesNothing)
{
    apply({tested(mac(10, 1), true, by_iod(9))});
    (void)rtab_begin_route_update(update, buffer, sizeof buffer);
    (void)rtab_add_mac_to_buffer(update, mac(10, 1), 0, 1, 1);
    std::uint32_t fitting = 0;
    while (rtab_add_nexthop_to_route(update, by_ip(3, fitting + 1)))
        ++fitting;
    (void)rtab_end_route_update(update, 0);

    EXPECT_EQ(fitting, 9u);
    EXPECT_EQ(apply_built(), 9u);
    EXPECT_THAT(nexthops(10, 1), ElementsAre(LeadsTo(by_iod(9))));
}

class RtabLines : public rtab_test {
protected:
    rtab_text text{[](std::uint32_t owner) { return owner == LUM ? std::string("lum") : std::to_string(owner); },
                   [](std::uint32_t iod) { return iod == 5 ? std::string("eth1") : std::string(); }, 1012 * SECOND};
};

TEST_F(RtabLines, NameKeyOwnerAndEachNextHop)
{
    (void)table.learn(LUM, key(10, 0xb10), by_iod(5), now);
    EXPECT_EQ(rtab_lines(*route(10, 0xb10), text), "10/02:00:00:00:0b:10 lum iod 5 eth1 learnt 12s\n");

    rtab_addr ipv6 = by_ip(5, 0);
    ipv6.body[4] = 5;
    ipv6.body[8] = 0x20;
    ipv6.body[23] = 1;
    const std::vector both{by_ip(7, 0xC0000202), ipv6};
    (void)table.replace(OTHER, key(10, 2), both);
    EXPECT_EQ(rtab_lines(*route(10, 2), text), "10/02:00:00:00:00:02 900 ip 7 192.0.2.2 static\n"
                                               "10/02:00:00:00:00:02 900 ip 5 2000::1 eth1 static\n");
}

TEST_F(RtabLines, ListTheInterfacesOfAGroupWithItsSource)
{
    oif_set oifs;
    oifs.set(5);
    oifs.set(6);
    EXPECT_EQ(rtab_lines({GROUP, LUM, 0xC0000201, 0xE1010203}, oifs, text),
              "10/01:00:5e:01:02:03 lum iod 5 eth1 static group 225.1.2.3 source 192.0.2.1\n"
              "10/01:00:5e:01:02:03 lum iod 6 static group 225.1.2.3 source 192.0.2.1\n");
}

} // namespace
} // namespace corvaned
