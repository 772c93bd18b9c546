// Packet buffers and their pool.
#include "../core/packet_buffer.h"

#include "packet_frames.h"

#include <gmock/gmock.h>

#include <memory>
#include <thread>

using namespace corvane;
using namespace frames;

namespace {

struct free_mbuf {
    void operator()(mbuf *m) const { m_freem(m); }
};
using mbuf_ptr = std::unique_ptr<mbuf, free_mbuf>;

bytes content(const mbuf *m) { return {m_data(m), m_data(m) + m_length(m)}; }

} // namespace

TEST(Mbuf, StartsEmptyAndGrowsWithWhatIsCopied)
{
    const mbuf_ptr m(m_get(100));
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m_length(m.get()), 0u);
    const bytes first = counting(30), second = counting(5, 99);
    EXPECT_TRUE(m_copyback(m.get(), 0, first.size(), first.data()));
    EXPECT_TRUE(m_copyback(m.get(), 28, second.size(), second.data()));
    EXPECT_EQ(content(m.get()), bytes(first.begin(), first.begin() + 28) + second);
}

TEST(Mbuf, FillsAGapWithZeros)
{
    const mbuf_ptr m(m_get(0));
    const bytes tail = {1, 2};
    EXPECT_TRUE(m_copyback(m.get(), 3, 2, tail.data()));
    EXPECT_EQ(content(m.get()), hex("000000 0102"));
}

TEST(Mbuf, MovesToALargeBufferAndKeepsItsContent)
{
    const mbuf_ptr m(m_get(10));
    const bytes small = counting(1000), large = counting(60000);
    ASSERT_TRUE(m_copyback(m.get(), 0, small.size(), small.data()));
    ASSERT_TRUE(m_copyback(m.get(), 1000, large.size(), large.data()));
    EXPECT_EQ(content(m.get()), small + large);
}

TEST(Mbuf, RefusesMoreThanALargeBufferHolds)
{
    const mbuf_ptr m(m_get(10));
    const bytes data = counting(100);
    EXPECT_FALSE(m_copyback(m.get(), MBUF_LARGE_ROOM - 99, 100, data.data()));
    EXPECT_FALSE(m_copyback(m.get(), ~std::size_t{0}, 100, data.data()));
    EXPECT_TRUE(m_copyback(m.get(), MBUF_LARGE_ROOM - 100, 100, data.data()));
}

TEST(Mbuf, RunsOutAtItsLimitAndRecovers)
{
    std::vector<mbuf_ptr> taken;
    for (mbuf *m = m_get(100); m != nullptr; m = m_get(100))
        taken.emplace_back(m);
    EXPECT_EQ(packet_pool_usage_get().small_made, MBUF_SMALL_MAX);
    EXPECT_LE(taken.size(), MBUF_SMALL_MAX);
    EXPECT_GT(taken.size(), MBUF_SMALL_MAX / 2);
    taken.clear();
    EXPECT_NE(mbuf_ptr(m_get(100)), nullptr);
}

TEST(Mbuf, TravelsBetweenThreadsWithoutGettingLost)
{
    for (int round = 0; round < 20; ++round) {
        std::vector<mbuf_ptr> taken;
        for (int i = 0; i < 1000; ++i) {
            taken.emplace_back(m_get(100));
            ASSERT_NE(taken.back(), nullptr);
        }
        std::thread([&] { taken.clear(); }).join();
    }
    EXPECT_LE(packet_pool_usage_get().small_made, MBUF_SMALL_MAX);
}
