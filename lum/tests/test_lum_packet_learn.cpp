#include "lum_test.h"

using namespace lum_test;

namespace {

class LumLearn : public LumTest {
protected:
    LumLearn()
    {
        platform.add_interface(PORT_A, "eth1", {.switchport = true});
        platform.add_interface(PORT_B, "eth2", {.switchport = true});
        lum_learn_debug_flag = 1;
    }
    static void learn(const fake::mac_address &mac, std::uint32_t iod)
    {
        plock_assert_held();
        lum_learn(key(mac), iod);
    }
    static fake::bytes record(std::size_t index)
    {
        return fake::bytes(std::span<const std::uint8_t>(lum_rtab_buffer)).range(68 + 52 * index, 52);
    }
    static fake::mac_address numbered(std::uint32_t n)
    {
        return {0x02, 0x11, 0, static_cast<std::uint8_t>(n >> 16), static_cast<std::uint8_t>(n >> 8),
                static_cast<std::uint8_t>(n)};
    }
    static void fill(std::uint32_t records)
    {
        for (std::uint32_t n = 0; n < records; ++n)
            learn(numbered(n), PORT_A);
    }
};

TEST_F(LumLearn, AddsOneRecordForANewMacAndTracesIt)
{
    learn(HOST_A, PORT_A);
    EXPECT_EQ(lum_rtab_buffer_count, 1u);
    fake::bytes expected;
    expected.add_host32(VLAN).add(HOST_A).add_zeros(2);
    expected.add8(1).add8(1).add_zeros(2);                   // marker, has next hop
    expected.add_host32(11).add_host16(52).add_zeros(2);     // route code, record length
    expected.add_host32(1).add_host32(PORT_A).add_zeros(20); // next hop: interface
    EXPECT_EQ(record(0), expected);
    EXPECT_THAT(platform.trace_texts(), ElementsAre("Learn new 10/02:00:00:00:00:0a on eth1, buffer count 1\n"));
}

TEST_F(LumLearn, LeavesTheHeaderZeroAndThePlatformUntouched)
{
    learn(HOST_A, PORT_A);
    EXPECT_EQ(fake::bytes(std::span<const std::uint8_t>(lum_rtab_buffer)).range(0, 68), fake::bytes().add_zeros(68));
    EXPECT_THAT(platform.route_updates, IsEmpty());
}

TEST_F(LumLearn, ChangesTheRecordOfAMacThatMovesBeforeTheFlush)
{
    learn(HOST_A, PORT_A);
    learn(HOST_A, PORT_B);
    EXPECT_EQ(lum_rtab_buffer_count, 1u);
    EXPECT_EQ(record(0).host32(28), PORT_B);
    EXPECT_THAT(platform.trace_texts(), Contains("Change buffer entry for 10/02:00:00:00:00:0a, eth1 -> eth2\n"));
}

TEST_F(LumLearn, ChangesNothingForAFurtherFrameOnTheSamePort)
{
    learn(HOST_A, PORT_A);
    platform.forget();
    learn(HOST_A, PORT_A);
    EXPECT_EQ(lum_rtab_buffer_count, 1u);
    EXPECT_THAT(platform.traces, IsEmpty());
}

TEST_F(LumLearn, TakesTheSameMacInTwoVlansAsTwoKeys)
{
    lum_learn(key(HOST_A, 10), PORT_A);
    lum_learn(key(HOST_A, 20), PORT_A);
    EXPECT_EQ(lum_rtab_buffer_count, 2u);
}

TEST_F(LumLearn, AddsNothingWhileTheRouteHasSeenDataInTheLastMinute)
{
    platform.learnt(key(HOST_A), PORT_A, 59);
    learn(HOST_A, PORT_A);
    EXPECT_EQ(lum_rtab_buffer_count, 0u);
    EXPECT_THAT(platform.traces, IsEmpty());
}

TEST_F(LumLearn, RefreshesARouteWhoseDataIsAMinuteOld)
{
    platform.learnt(key(HOST_A), PORT_A, 60);
    learn(HOST_A, PORT_A);
    EXPECT_EQ(lum_rtab_buffer_count, 1u);
    EXPECT_THAT(platform.trace_texts(),
                ElementsAre("Update data timestamp for 10/02:00:00:00:00:0a on eth1, buffer count 1\n"));
}

TEST_F(LumLearn, RefreshesOnceOnlyBetweenTwoFlushes)
{
    platform.learnt(key(HOST_A), PORT_A, 60);
    learn(HOST_A, PORT_A);
    platform.forget();
    learn(HOST_A, PORT_A);
    EXPECT_EQ(lum_rtab_buffer_count, 1u);
    EXPECT_THAT(platform.traces, IsEmpty());
}

TEST_F(LumLearn, GivesAMovedMacARecordWithoutATrace)
{
    platform.learnt(key(HOST_A), PORT_A, 5);
    learn(HOST_A, PORT_B);
    EXPECT_EQ(lum_rtab_buffer_count, 1u);
    EXPECT_EQ(record(0).host32(28), PORT_B);
    EXPECT_THAT(platform.traces, IsEmpty());
}

TEST_F(LumLearn, LeavesARefreshOutOfARecordThatNamesAnotherPort)
{
    learn(HOST_A, PORT_A);
    platform.learnt(key(HOST_A), PORT_B, 60);
    learn(HOST_A, PORT_B);
    EXPECT_EQ(record(0).host32(28), PORT_A);
}

TEST_F(LumLearn, SuppressesAFurtherMacWhenTheBufferIsFull)
{
    fill(1000);
    ASSERT_EQ(lum_rtab_buffer_count, 1000u);
    platform.forget();
    learn(HOST_A, PORT_A);
    EXPECT_EQ(lum_rtab_buffer_count, 1000u);
    EXPECT_THAT(platform.trace_texts(),
                ElementsAre("Learn update suppressed for 10/02:00:00:00:00:0a, buffer full\n"));
    EXPECT_EQ(dropped(drop_reason::LEARN_BUFFER_FULL), 1u);
    EXPECT_EQ(platform.called("rtab_acquire_rdlock"), 0u);
}

TEST_F(LumLearn, OffersASuppressedMacAgainAfterTheFlush)
{
    fill(1000);
    learn(HOST_A, PORT_A);
    lum_send_buffer_to_rtab("Learn");
    learn(HOST_A, PORT_A);
    EXPECT_EQ(lum_rtab_buffer_count, 1u);
}

TEST_F(LumLearn, HoldsTheReadersLockForTheLookupOnly)
{
    learn(HOST_A, PORT_A);
    EXPECT_THAT(platform.call_texts({"rtab_acquire_rdlock", "rtab_release_rdlock"}), SizeIs(2));
    EXPECT_FALSE(platform.route_lock_held);
}

using LumFindRouteInLearnBuffer = LumLearn;

TEST_F(LumFindRouteInLearnBuffer, PointsAtTheRecordOrAtTheFirstFreeSlot)
{
    fill(3);
    std::uint8_t *found = nullptr;
    EXPECT_EQ(lum_find_route_in_learn_buffer(key(numbered(1)), &found), 1);
    EXPECT_EQ(found, lum_rtab_buffer.data() + 68 + 52);
    EXPECT_EQ(lum_find_route_in_learn_buffer(key(HOST_A), &found), 0);
    EXPECT_EQ(found, lum_rtab_buffer.data() + 68 + 3 * 52);
}

TEST_F(LumFindRouteInLearnBuffer, FindsEachOfAThousandRecords)
{
    fill(1000);
    std::uint8_t *found = nullptr;
    for (std::uint32_t n = 0; n < 1000; ++n) {
        ASSERT_EQ(lum_find_route_in_learn_buffer(key(numbered(n)), &found), 1) << n;
        ASSERT_EQ(found, lum_rtab_buffer.data() + 68 + n * 52) << n;
    }
    EXPECT_EQ(lum_find_route_in_learn_buffer(key(HOST_A), &found), 0);
    EXPECT_EQ(found, nullptr);
}

TEST_F(LumFindRouteInLearnBuffer, FindsNothingOnceTheBufferWasHandedOver)
{
    fill(1000);
    lum_send_buffer_to_rtab("Learn");
    std::uint8_t *found = nullptr;
    EXPECT_EQ(lum_find_route_in_learn_buffer(key(numbered(5)), &found), 0);
    EXPECT_EQ(found, lum_rtab_buffer.data() + 68);
}

} // namespace
