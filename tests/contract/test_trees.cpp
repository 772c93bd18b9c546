// Trees: walks that give the process lock up and go on where they stood.
#include "contract_test.h"

#include "avlt.h"
#include "pt.h"

#include <array>
#include <atomic>
#include <thread>

using namespace contract;
using testing::ElementsAre;

namespace {

struct record {
    avlt_node node;
    std::uint32_t key = 0;
};

int compare(const void *a, const void *b)
{
    std::uint32_t x = 0, y = 0;
    std::memcpy(&x, a, sizeof x);
    std::memcpy(&y, b, sizeof y);
    return x == y ? AVLT_EQUAL : x > y ? AVLT_GREATER : AVLT_SMALLER;
}

class ContractTrees : public ContractTest {
protected:
    ContractTrees()
    {
        EXPECT_TRUE(avlt_init(tree, 4, AVLT_NODE_SIZE, compare));
        for (std::uint32_t i = 0; i < records.size(); ++i) {
            records[i].key = i + 1;
            EXPECT_TRUE(avlt_insert(tree, &records[i].node));
        }
    }
    ~ContractTrees() override { avlt_destroy(tree); }
    std::array<record, 4> records;
    avlt_tree tree;
};

TEST_F(ContractTrees, AWalkThatYieldsSeesWhatAnotherThreadChanged)
{
    avlt_iterator iterator;
    avlt_iterator_init(iterator, tree);
    std::vector<std::uint32_t> met{reinterpret_cast<record *>(avlt_next(iterator))->key};
    std::atomic<bool> waiting{false};
    std::thread other([&]() CORVANE_NO_TSA {
        waiting = true;
        plock_acquire_process_lock();
        avlt_remove(tree, &records[0].node);                 // the one the walk stands on
        avlt_remove(tree, &records[2].node);
        plock_release_process_lock();
    });
    while (!waiting)
        std::this_thread::yield();
    std::this_thread::sleep_for(milliseconds(30));           // it stands in the lock's queue by now
    avlt_pre_sched_yield(iterator);
    other.join();
    while (const avlt_node *node = avlt_next(iterator))
        met.push_back(reinterpret_cast<const record *>(node)->key);
    EXPECT_THAT(met, ElementsAre(1, 2, 4));
}

TEST_F(ContractTrees, AnExactMatchTreeResumesFromAKeyThatIsGone)
{
    pt_tree ports;
    pt_init(ports, pt_attr_create(0, 0, 4));
    for (record &r : records)
        ASSERT_TRUE(pt_insert(ports, &r.key, &r));
    EXPECT_EQ(pt_first(ports), &records[0]);
    plock_sched_yield();
    EXPECT_EQ(pt_remove(ports, &records[0].key), 0);
    EXPECT_EQ(pt_next(ports, &records[0].key), &records[1]);
    EXPECT_EQ(pt_count(ports), 3u);
    pt_destroy(ports);
}

} // namespace
