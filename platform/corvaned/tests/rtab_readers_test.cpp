// Readers beside a writer that never rests: what they get is of one state, and what stays is always found.
#include "rtab_fixture.h"

#include <atomic>
#include <thread>

namespace corvaned {
namespace {

class RtabReaders : public rtab_test {
protected:
    static constexpr std::uint32_t STEADY = 64, CHURNED = 64;

    // Next hops of one version of a route all carry its number and the key's.
    static std::uint32_t tag(std::uint32_t number, std::uint32_t of_key) { return number * STEADY + of_key; }
    static std::uint32_t length(std::uint32_t number) { return number % RTAB_MAX_NEXTHOPS + 1; }
    static std::vector<rtab_addr> version(std::uint32_t number, std::uint32_t of_key)
    {
        std::vector<rtab_addr> nexthops;
        for (std::uint32_t i = 0; i < length(number); ++i)
            nexthops.push_back(by_ip(i, tag(number, of_key)));
        return nexthops;
    }
    static bool of_one_version(const rtab_route &route, std::uint32_t of_key)
    {
        std::uint32_t tagged = 0;
        std::memcpy(&tagged, route.nexthop[0].body.data() + 8, 4);
        bool whole = tagged % STEADY == of_key && route.nexthop_count == length(tagged / STEADY);
        for (std::uint32_t i = 0; i < route.nexthop_count; ++i)
            whole = whole && corvane::rtab_addr_equal(route.nexthop[i], by_ip(i, tagged));
        return whole;
    }
    void write_rounds(std::uint32_t rounds)
    {
        for (std::uint32_t round = 1; round <= rounds; ++round) {
            for (std::uint32_t i = 0; i < STEADY; ++i)
                (void)table.replace(LUM, key(10, i), version(round + i, i));
            for (std::uint32_t i = 0; i < CHURNED; ++i)
                (void)table.replace(LUM, key(20, i), version(round, i));
            for (std::uint32_t i = 0; i < CHURNED; ++i)
                (void)table.withdraw(LUM, key(20, i));
        }
    }
};

TEST_F(RtabReaders, AlwaysFindWhatStaysAndNeverSeeHalfARoute)
{
    for (std::uint32_t i = 0; i < STEADY; ++i)
        (void)table.replace(LUM, key(10, i), version(i, i));
    std::atomic<bool> stop{false};
    std::atomic<std::uint32_t> missed{0}, torn{0}, wrong{0};
    std::atomic<std::uint64_t> looks{0};
    const auto read = [&] {
        while (!stop.load()) {
            for (std::uint32_t i = 0; i < STEADY; ++i) {
                const auto steady = look_up(shared(), key(10, i));
                missed += steady ? 0 : 1;
                torn += steady && !of_one_version(*steady, i) ? 1 : 0;
                const auto churned = look_up(shared(), key(20, i));
                torn += churned && !of_one_version(*churned, i) ? 1 : 0;
                wrong += look_up(shared(), key(30, i)) ? 1 : 0;
            }
            looks += STEADY;
        }
    };
    std::thread first(read), second(read);
    write_rounds(300);
    while (looks.load() < 2000)
        write_rounds(10);
    stop = true;
    first.join();
    second.join();

    EXPECT_EQ(missed.load(), 0u);
    EXPECT_EQ(torn.load(), 0u);
    EXPECT_EQ(wrong.load(), 0u);
}

TEST_F(RtabReaders, WalkEveryRouteThatIsNotChangedMeanwhile)
{
    for (std::uint32_t i = 0; i < STEADY; ++i)
        (void)table.learn(LUM, key(10, i), by_iod(3), now);
    std::atomic<bool> stop{false};
    std::atomic<std::uint32_t> wrong{0}, walks{0};
    std::thread reader([&] {
        while (!stop.load()) {
            std::uint32_t seen = 0;
            for (const rtab_route &route : walk())
                seen += route.key.vlan == 10 ? 1 : 0;
            wrong += seen == STEADY ? 0 : 1;
            ++walks;
        }
    });
    const auto churn = [&] {
        for (std::uint32_t i = 0; i < CHURNED; ++i)
            (void)table.replace(LUM, key(20, i), version(i, i));
        for (std::uint32_t i = 0; i < CHURNED; ++i)
            (void)table.withdraw(LUM, key(20, i));
    };
    for (int round = 0; round < 300 || walks.load() < 50; ++round)
        churn();
    stop = true;
    reader.join();
    EXPECT_EQ(wrong.load(), 0u);
}

TEST_F(RtabReaders, GiveUpOnASlotWhoseWriterDiedInIt)
{
    (void)table.learn(LUM, key(10, 1), by_iod(5), now);
    shared().routes.slot[0].sequence.fetch_or(1);

    EXPECT_FALSE(look_up(shared(), key(10, 1)));
    EXPECT_TRUE(walk().empty());
}

} // namespace
} // namespace corvaned
