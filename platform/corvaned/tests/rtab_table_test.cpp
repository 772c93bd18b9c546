// Routes of the route table: learnt and operators', several next hops, groups, and what a dead writer leaves.
#include "rtab_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace corvaned {
namespace {

class RtabRoutes : public rtab_test {};
class RtabGroups : public rtab_test {};
class RtabAdoption : public rtab_test {
protected:
    // A writer died; another one takes the memory over.
    void restart(rtab_table::boot_id boot = BOOT)
    {
        successor = std::make_unique<rtab_table>(shared());
        successor->adopt(boot, SEED + 1, now);
    }
    std::unique_ptr<rtab_table> successor;
};

TEST_F(RtabRoutes, FindsNothingInAnEmptyTable)
{
    EXPECT_FALSE(route(10, 1));
    EXPECT_THAT(walk(), IsEmpty());
}

TEST_F(RtabRoutes, GivesALearntRouteWithItsOwnerAndDataTime)
{
    ASSERT_EQ(table.learn(LUM, key(10, 1), by_iod(5), now), result::DONE);

    const auto found = route(10, 1);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->key, mac(10, 1));
    EXPECT_EQ(found->owner, LUM);
    EXPECT_EQ(found->is_static, 0);
    EXPECT_EQ(found->data_seen, (timestamp{1000, 0}));
    EXPECT_THAT(nexthops(10, 1), ElementsAre(LeadsTo(by_iod(5))));
}

TEST_F(RtabRoutes, KeepsTheSameMacOfTwoVlansApart)
{
    (void)table.learn(LUM, key(10, 1), by_iod(5), now);
    (void)table.learn(LUM, key(20, 1), by_iod(6), now);

    EXPECT_THAT(nexthops(10, 1), ElementsAre(LeadsTo(by_iod(5))));
    EXPECT_THAT(nexthops(20, 1), ElementsAre(LeadsTo(by_iod(6))));
    EXPECT_FALSE(route(30, 1));
}

TEST_F(RtabRoutes, LearningAgainMovesTheDataTimeAndAddsNothing)
{
    (void)table.learn(LUM, key(10, 1), by_iod(5), now);
    (void)table.learn(LUM, key(10, 1), by_iod(5), now + 7 * SECOND);

    EXPECT_EQ(route(10, 1)->data_seen, (timestamp{1007, 0}));
    EXPECT_THAT(walk(), SizeIs(1));
    EXPECT_EQ(table.route_count(), 1u);
}

TEST_F(RtabRoutes, LearningElsewhereReplacesTheNextHop)
{
    (void)table.learn(LUM, key(10, 1), by_iod(5), now);
    (void)table.learn(LUM, key(10, 1), by_iod(6), now + SECOND);

    EXPECT_THAT(nexthops(10, 1), ElementsAre(LeadsTo(by_iod(6))));
    EXPECT_THAT(walk(), SizeIs(1));
}

TEST_F(RtabRoutes, WithdrawsOnlyTheCallersLearntRoute)
{
    (void)table.learn(LUM, key(10, 1), by_iod(5), now);

    EXPECT_EQ(table.withdraw_learnt(OTHER, key(10, 1)), result::REFUSED);
    EXPECT_TRUE(route(10, 1));
    EXPECT_EQ(table.withdraw_learnt(LUM, key(10, 1)), result::DONE);
    EXPECT_FALSE(route(10, 1));
    EXPECT_THAT(walk(), IsEmpty());
}

TEST_F(RtabRoutes, PutsAnOperatorsRouteBeforeALearntOneWhicheverCameFirst)
{
    (void)table.learn(LUM, key(10, 1), by_iod(5), now);
    (void)table.join(LUM, key(10, 1), by_iod(7));
    (void)table.join(LUM, key(10, 2), by_iod(7));
    (void)table.learn(LUM, key(10, 2), by_iod(5), now);

    EXPECT_THAT(nexthops(10, 1), ElementsAre(LeadsTo(by_iod(7))));
    EXPECT_THAT(nexthops(10, 2), ElementsAre(LeadsTo(by_iod(7))));
    EXPECT_EQ(route(10, 1)->is_static, 1);
}

TEST_F(RtabRoutes, ShowsTheLearntRouteAgainWhenTheOperatorsGoes)
{
    (void)table.learn(LUM, key(10, 1), by_iod(5), now);
    (void)table.join(LUM, key(10, 1), by_iod(7));
    (void)table.leave(LUM, key(10, 1), by_iod(7));

    EXPECT_THAT(nexthops(10, 1), ElementsAre(LeadsTo(by_iod(5))));
    EXPECT_EQ(route(10, 1)->is_static, 0);
}

TEST_F(RtabRoutes, AgeingLeavesTheOperatorsRoute)
{
    (void)table.learn(LUM, key(10, 1), by_iod(5), now);
    (void)table.join(LUM, key(10, 1), by_iod(7));
    (void)table.withdraw_learnt(LUM, key(10, 1));

    EXPECT_THAT(nexthops(10, 1), ElementsAre(LeadsTo(by_iod(7))));
}

TEST_F(RtabRoutes, LetsTheLastLearntRouteOfSeveralOwnersStandFirst)
{
    (void)table.learn(LUM, key(10, 1), by_iod(5), now);
    (void)table.learn(OTHER, key(10, 1), by_iod(6), now);
    EXPECT_THAT(nexthops(10, 1), ElementsAre(LeadsTo(by_iod(6))));

    (void)table.learn(LUM, key(10, 1), by_iod(5), now + SECOND);
    EXPECT_THAT(nexthops(10, 1), ElementsAre(LeadsTo(by_iod(5))));
    EXPECT_THAT(walk(), SizeIs(2));

    (void)table.withdraw_learnt(LUM, key(10, 1));
    EXPECT_EQ(route(10, 1)->owner, OTHER);
}

TEST_F(RtabRoutes, CollectsNextHopsOfAnOperatorUpToEight)
{
    for (std::uint32_t iod = 1; iod <= 8; ++iod)
        ASSERT_EQ(table.join(LUM, key(10, 1), by_iod(iod)), result::DONE);

    EXPECT_EQ(table.join(LUM, key(10, 1), by_iod(9)), result::FULL);
    EXPECT_THAT(nexthops(10, 1), SizeIs(8));
    EXPECT_THAT(nexthops(10, 1).back(), LeadsTo(by_iod(8)));
}

TEST_F(RtabRoutes, JoiningANextHopTwiceChangesNothing)
{
    (void)table.join(LUM, key(10, 1), by_ip(3, 0xC0000202));

    EXPECT_EQ(table.join(LUM, key(10, 1), by_ip(3, 0xC0000202)), result::DONE);
    EXPECT_THAT(nexthops(10, 1), SizeIs(1));
}

TEST_F(RtabRoutes, ReplacingSetsExactlyTheGivenNextHops)
{
    (void)table.join(LUM, key(10, 1), by_iod(1));
    const std::vector wanted{by_ip(3, 1), by_iod(2), by_ip(3, 1)};
    ASSERT_EQ(table.replace(LUM, key(10, 1), wanted), result::DONE);

    EXPECT_THAT(nexthops(10, 1), ElementsAre(LeadsTo(by_ip(3, 1)), LeadsTo(by_iod(2))));
}

TEST_F(RtabRoutes, WithdrawsOneNextHopAndTheRouteWithTheLast)
{
    (void)table.join(LUM, key(10, 1), by_iod(1));
    (void)table.join(LUM, key(10, 1), by_iod(2));

    EXPECT_EQ(table.leave(LUM, key(10, 1), by_iod(3)), result::REFUSED);
    EXPECT_EQ(table.leave(LUM, key(10, 1), by_iod(1)), result::DONE);
    EXPECT_THAT(nexthops(10, 1), ElementsAre(LeadsTo(by_iod(2))));
    EXPECT_EQ(table.leave(LUM, key(10, 1), by_iod(2)), result::DONE);
    EXPECT_FALSE(route(10, 1));
    EXPECT_EQ(table.withdraw(LUM, key(10, 1)), result::REFUSED);
}

TEST_F(RtabRoutes, ForgetsEveryNextHopOverAnInterface)
{
    (void)table.learn(LUM, key(10, 1), by_iod(5), now);
    (void)table.learn(LUM, key(10, 2), by_iod(6), now);
    (void)table.join(LUM, key(10, 3), by_ip(5, 1));
    (void)table.join(LUM, key(10, 3), by_ip(6, 1));
    (void)table.join_group({GROUP, LUM, 0, 0}, 5);
    (void)table.join_group({GROUP, LUM, 0, 0}, 6);

    table.forget_iod(5);

    EXPECT_FALSE(route(10, 1));
    EXPECT_TRUE(route(10, 2));
    EXPECT_THAT(nexthops(10, 3), ElementsAre(LeadsTo(by_ip(6, 1))));
    EXPECT_THAT(group_iods(), ElementsAre(6));
}

TEST_F(RtabRoutes, HoldsItsFullCapacityAndRefusesTheNext)
{
    for (std::uint32_t i = 0; i < corvane::RTAB_ROUTES_MAX; ++i)
        ASSERT_EQ(table.learn(LUM, key(i % 4096, i), by_iod(i % 700 + 1), now), result::DONE) << i;

    EXPECT_EQ(table.learn(LUM, key(1, 0xFFFFFF), by_iod(1), now), result::FULL);
    EXPECT_EQ(table.join(LUM, key(1, 0xFFFFFF), by_iod(1)), result::FULL);
    EXPECT_EQ(table.learn(LUM, key(0, 0), by_iod(9), now), result::DONE);
    EXPECT_THAT(nexthops(0, 0), ElementsAre(LeadsTo(by_iod(9))));
    for (std::uint32_t i = 1; i < corvane::RTAB_ROUTES_MAX; i += 997)
        EXPECT_THAT(nexthops(i % 4096, i), ElementsAre(LeadsTo(by_iod(i % 700 + 1)))) << i;
}

TEST_F(RtabRoutes, TakesSlotsAgainThatWereGivenBack)
{
    for (int round = 0; round < 50; ++round) {
        for (std::uint32_t i = 0; i < 1000; ++i)
            (void)table.learn(LUM, key(10, i), by_iod(static_cast<std::uint32_t>(round) % 7 + 1), now);
        for (std::uint32_t i = 0; i < 1000; ++i)
            (void)table.withdraw_learnt(LUM, key(10, i));
    }
    EXPECT_EQ(table.route_count(), 0u);
    EXPECT_LT(shared().routes.used.load(), 1200u);
    EXPECT_THAT(walk(), IsEmpty());
}

TEST_F(RtabRoutes, TakesMemoryForWhatItHoldsOnly)
{
    for (std::uint32_t i = 0; i < 10'000; ++i)
        (void)table.learn(LUM, key(10, i), by_iod(1), now);

    std::vector<unsigned char> pages((sizeof(corvane::rtab_shared) + 4095) / 4096);
    ASSERT_EQ(mincore(&shared(), sizeof(corvane::rtab_shared), pages.data()), 0);
    const auto resident = static_cast<std::size_t>(std::ranges::count_if(pages, [](unsigned char p) { return p & 1; }));
    EXPECT_LT(resident * 4096, 8u * 1024 * 1024);
}

TEST_F(RtabGroups, JoinsInterfacesOfOneKeyFromSeveralSources)
{
    (void)table.join_group({GROUP, LUM, 0xC0000201, 0xE1010203}, 5);
    (void)table.join_group({GROUP, LUM, 0, 0xE1010203}, 6);
    (void)table.join_group({GROUP, OTHER, 0, 0}, 7);

    EXPECT_THAT(group_iods(), ElementsAre(5, 6, 7));
    EXPECT_THAT(group_iods(GROUP + 1), IsEmpty());
}

TEST_F(RtabGroups, LeavingOneSourceKeepsTheInterfaceForAnother)
{
    (void)table.join_group({GROUP, LUM, 1, 2}, 5);
    (void)table.join_group({GROUP, LUM, 3, 2}, 5);

    EXPECT_EQ(table.leave_group({GROUP, LUM, 1, 2}, 5), result::DONE);
    EXPECT_THAT(group_iods(), ElementsAre(5));
    EXPECT_EQ(table.leave_group({GROUP, LUM, 1, 2}, 5), result::REFUSED);
    EXPECT_EQ(table.leave_group({GROUP, LUM, 3, 2}, 5), result::DONE);
    EXPECT_THAT(group_iods(), IsEmpty());
}

TEST_F(RtabGroups, RefusesInterfacesThatCannotBe)
{
    EXPECT_EQ(table.join_group({GROUP, LUM, 0, 0}, 0), result::REFUSED);
    EXPECT_EQ(table.join_group({GROUP, LUM, 0, 0}, 768), result::REFUSED);
    EXPECT_EQ(table.join_group({GROUP, LUM, 0, 0}, 767), result::DONE);
    EXPECT_THAT(group_iods(), ElementsAre(767));
}

TEST_F(RtabGroups, RefusesAGroupBeyondItsCapacityAndKeepsNothingOfIt)
{
    for (std::uint32_t i = 0; i < corvane::RTAB_MCAST_MAX; ++i)
        ASSERT_EQ(table.join_group({GROUP + i, LUM, 0, 0}, 1), result::DONE);

    EXPECT_EQ(table.join_group({GROUP + corvane::RTAB_MCAST_MAX, LUM, 0, 0}, 1), result::FULL);
    EXPECT_EQ(table.sources().size(), corvane::RTAB_MCAST_MAX);
}

TEST_F(RtabAdoption, TakesOverWhatADeadWriterLeft)
{
    (void)table.learn(LUM, key(10, 1), by_iod(5), now);
    (void)table.join(LUM, key(10, 1), by_iod(7));
    (void)table.join_group({GROUP, LUM, 1, 2}, 5);
    restart();

    EXPECT_THAT(nexthops(10, 1), ElementsAre(LeadsTo(by_iod(7))));
    EXPECT_THAT(walk(), SizeIs(2));
    EXPECT_THAT(group_iods(), ElementsAre(5));
    EXPECT_EQ(successor->route_count(), 2u);
    EXPECT_EQ(successor->leave_group({GROUP, LUM, 1, 2}, 5), result::DONE);
    EXPECT_THAT(group_iods(), IsEmpty());
}

TEST_F(RtabAdoption, BeginsEmptyAfterAnOrderlyEnd)
{
    (void)table.learn(LUM, key(10, 1), by_iod(5), now);
    (void)table.join_group({GROUP, LUM, 0, 0}, 5);
    table.end();
    restart();

    EXPECT_FALSE(route(10, 1));
    EXPECT_THAT(group_iods(), IsEmpty());
    EXPECT_THAT(walk(), IsEmpty());
}

TEST_F(RtabAdoption, BeginsEmptyAfterAnotherBoot)
{
    (void)table.learn(LUM, key(10, 1), by_iod(5), now);
    restart({1, 3});

    EXPECT_FALSE(route(10, 1));
}

TEST_F(RtabAdoption, FreesASlotThatWasBeingFilled)
{
    (void)table.learn(LUM, key(10, 1), by_iod(5), now);
    auto &slot = shared().routes.slot[shared().routes.used.fetch_add(1)];
    slot.sequence.store(1);
    slot.word[1].store(corvane::rtab_about_word({.owner = LUM, .nexthop_count = 1, .live = true}));
    restart();

    EXPECT_THAT(walk(), SizeIs(1));
    EXPECT_EQ(successor->route_count(), 1u);
}

TEST_F(RtabAdoption, KeepsTheNewerOfARecordThatWasBeingMoved)
{
    (void)table.learn(LUM, key(10, 1), by_iod(5), now);
    auto &routes = shared().routes;
    const std::uint32_t old = 0, fresh = routes.used.fetch_add(1);
    for (std::size_t i = 0; i < corvane::RTAB_ROUTE_SLOT_WORDS; ++i)
        routes.slot[fresh].word[i].store(routes.slot[old].word[i].load());
    routes.slot[fresh].word[corvane::RTAB_ROUTE_NEXTHOP].store(1 | std::uint64_t{6} << 32);
    routes.slot[fresh].next.store(old + 1);
    auto &bucket = routes.bucket[corvane::rtab_bucket_of<corvane::rtab_routes>(key(10, 1), shared().seed.load())];
    bucket.store(fresh + 1);
    restart();

    EXPECT_THAT(nexthops(10, 1), ElementsAre(LeadsTo(by_iod(6))));
    EXPECT_THAT(walk(), SizeIs(1));
}

TEST_F(RtabAdoption, CutsChainsThatLeadNowhereOrRoundInCircles)
{
    (void)table.learn(LUM, key(10, 1), by_iod(5), now);
    (void)table.learn(LUM, key(10, 2), by_iod(5), now);
    shared().routes.slot[0].next.store(1);
    shared().routes.slot[1].next.store(0x7FFFFFFF);
    restart();

    EXPECT_TRUE(route(10, 1));
    EXPECT_TRUE(route(10, 2));
    EXPECT_FALSE(route(10, 3));
    EXPECT_EQ(successor->learn(LUM, key(10, 3), by_iod(1), now), result::DONE);
    EXPECT_THAT(walk(), SizeIs(3));
}

TEST_F(RtabAdoption, BringsDataTimesOutOfTheFutureToThePresent)
{
    (void)table.learn(LUM, key(10, 1), by_iod(5), now + 50 * SECOND);
    restart();

    EXPECT_EQ(route(10, 1)->data_seen, (timestamp{1000, 0}));
}

} // namespace
} // namespace corvaned
