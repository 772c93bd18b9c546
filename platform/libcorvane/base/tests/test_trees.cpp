// Trees, bit fields, queues.
#include "avlt.h"
#include "bitfield.h"
#include "pt.h"
#include "rqueue.h"
#include "support.h"

#include "../fault.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <set>

using testing::ElementsAre;
using testing::IsEmpty;

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

bool refuse_everything(const char * /*call*/) { return true; }

class Avlt : public testing::Test {
protected:
    Avlt() { EXPECT_TRUE(avlt_init(tree, 4, AVLT_NODE_SIZE, compare)); }
    ~Avlt() override
    {
        avlt_destroy(tree);
        corvane::base_fault = nullptr;
        support::reset();
    }
    record &add(std::uint32_t key)
    {
        records.push_back(std::make_unique<record>());
        records.back()->key = key;
        EXPECT_TRUE(avlt_insert(tree, &records.back()->node));
        return *records.back();
    }
    record *find(std::uint32_t key) { return reinterpret_cast<record *>(avlt_find(tree, &key)); }
    std::vector<std::uint32_t> walk(const std::function<void(std::uint32_t)> &visit = {})
    {
        std::vector<std::uint32_t> keys;
        avlt_iterator iterator;
        avlt_iterator_init(iterator, tree);
        while (const avlt_node *node = avlt_next(iterator)) {
            keys.push_back(reinterpret_cast<const record *>(node)->key);
            if (visit)
                visit(keys.back());
        }
        return keys;
    }
    avlt_tree tree;
    std::vector<std::unique_ptr<record>> records;
};

TEST_F(Avlt, WalksInTheOrderOfItsComparison)
{
    for (const std::uint32_t key : {300u, 2u, 70000u, 256u, 1u})
        add(key);
    EXPECT_THAT(walk(), ElementsAre(1, 2, 256, 300, 70000));
    EXPECT_EQ(avlt_count(tree), 5u);
}

TEST_F(Avlt, FindsWhatIsThereAndNothingElse)
{
    record &seven = add(7);
    EXPECT_EQ(find(7), &seven);
    EXPECT_EQ(find(8), nullptr);
}

TEST_F(Avlt, RefusesASecondRecordOfAKey)
{
    record &first = add(7);
    record second;
    second.key = 7;
    EXPECT_FALSE(avlt_insert(tree, &second.node));
    EXPECT_EQ(find(7), &first);
}

TEST_F(Avlt, RemovesOnlyTheRecordItHolds)
{
    record &held = add(7);
    record stranger;
    stranger.key = 7;
    EXPECT_FALSE(avlt_remove(tree, &stranger.node));
    EXPECT_TRUE(avlt_remove(tree, &held.node));
    EXPECT_FALSE(avlt_remove(tree, &held.node));
    EXPECT_EQ(held.node.word[0], 0u);
    EXPECT_THAT(walk(), IsEmpty());
}

TEST_F(Avlt, WalkSurvivesTheRemovalOfTheRecordItStandsOn)
{
    for (const std::uint32_t key : {1u, 2u, 3u})
        add(key);
    EXPECT_THAT(walk([&](std::uint32_t key) { avlt_remove(tree, &find(key)->node); }), ElementsAre(1, 2, 3));
    EXPECT_EQ(avlt_count(tree), 0u);
}

TEST_F(Avlt, WalkMeetsARecordInsertedAheadAndNoneTwice)
{
    add(1);
    add(5);
    EXPECT_THAT(walk([&](std::uint32_t key) {
                    if (key == 1) {
                        add(0);
                        add(3);
                    }
                }),
                ElementsAre(1, 3, 5));
}

TEST_F(Avlt, YieldLetsOthersInAndKeepsThePlace)
{
    add(1);
    add(2);
    add(3);
    support::on_yield = [&] { avlt_remove(tree, &find(2)->node); };
    avlt_iterator iterator;
    avlt_iterator_init(iterator, tree);
    ASSERT_NE(avlt_next(iterator), nullptr);
    avlt_pre_sched_yield(iterator);
    const avlt_node *next = avlt_next(iterator);
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(reinterpret_cast<const record *>(next)->key, 3u);
}

TEST_F(Avlt, SaysSoWhenThereIsNoMemory)
{
    corvane::base_fault = refuse_everything;
    avlt_tree other;
    EXPECT_FALSE(avlt_init(other, 4, AVLT_NODE_SIZE, compare));
    record one;
    EXPECT_FALSE(avlt_insert(tree, &one.node));
    EXPECT_EQ(avlt_count(tree), 0u);
}

TEST(AvltUnmade, HoldsNothing)
{
    avlt_tree tree;
    record one;
    EXPECT_EQ(avlt_find(tree, &one.key), nullptr);
    EXPECT_FALSE(avlt_insert(tree, &one.node));
    EXPECT_FALSE(avlt_init(tree, 33, 16, compare)) << "an iterator could not remember such a key";
}

// Inserts and removals in random order against a plain map: what the hash index forgets or invents shows.
TEST_F(Avlt, AgreesWithAMapThroughThousandsOfRandomChanges)
{
    std::mt19937 random(7);
    std::map<std::uint32_t, std::unique_ptr<record>> model;
    for (int i = 0; i < 20000; ++i) {
        const auto key = static_cast<std::uint32_t>(random() % 500 * 64);
        if (random() % 2 == 0) {
            auto made = std::make_unique<record>();
            made->key = key;
            ASSERT_EQ(avlt_insert(tree, &made->node), !model.contains(key));
            model.emplace(key, std::move(made));
        } else if (const auto held = model.find(key); held != model.end()) {
            ASSERT_TRUE(avlt_remove(tree, &held->second->node));
            model.erase(held);
        }
        ASSERT_EQ(avlt_count(tree), model.size());
        const auto probe = static_cast<std::uint32_t>(random() % 500 * 64);
        const auto expected = model.find(probe);
        ASSERT_EQ(find(probe), expected == model.end() ? nullptr : expected->second.get());
    }
    std::vector<std::uint32_t> keys;
    for (const auto &[key, held] : model)
        keys.push_back(key);
    EXPECT_EQ(walk(), keys);
}

// ---- pt

using key20 = std::array<std::uint8_t, 20>;

class Pt : public testing::Test {
protected:
    Pt() { pt_init(tree, pt_attr_create(0, 1, 20)); }
    ~Pt() override
    {
        pt_destroy(tree);
        corvane::base_fault = nullptr;
    }
    static key20 key(std::uint8_t first, std::uint8_t last)
    {
        key20 k{};
        k[0] = first;
        k[19] = last;
        return k;
    }
    pt_tree tree;
    int a = 0, b = 0, c = 0;
};

TEST_F(Pt, FindsByEveryByteOfTheKey)
{
    ASSERT_TRUE(pt_insert(tree, key(1, 1).data(), &a));
    ASSERT_TRUE(pt_insert(tree, key(1, 2).data(), &b));
    EXPECT_EQ(pt_find(tree, key(1, 1).data()), &a);
    EXPECT_EQ(pt_find(tree, key(1, 2).data()), &b);
    EXPECT_EQ(pt_find(tree, key(2, 1).data()), nullptr);
    EXPECT_EQ(pt_count(tree), 2u);
}

TEST_F(Pt, WalksInByteOrderFromAnyKey)
{
    ASSERT_TRUE(pt_insert(tree, key(9, 0).data(), &c));
    ASSERT_TRUE(pt_insert(tree, key(1, 2).data(), &b));
    ASSERT_TRUE(pt_insert(tree, key(1, 1).data(), &a));
    EXPECT_EQ(pt_first(tree), &a);
    EXPECT_EQ(pt_next(tree, key(1, 1).data()), &b);
    EXPECT_EQ(pt_next(tree, key(5, 0).data()), &c) << "the key itself need not be there";
    EXPECT_EQ(pt_next(tree, key(9, 0).data()), nullptr);
}

TEST_F(Pt, RefusesASecondRecordOfAKeyAndRemovesOnce)
{
    ASSERT_TRUE(pt_insert(tree, key(1, 1).data(), &a));
    EXPECT_FALSE(pt_insert(tree, key(1, 1).data(), &b));
    EXPECT_EQ(pt_remove(tree, key(1, 1).data()), 0);
    EXPECT_EQ(pt_remove(tree, key(1, 1).data()), -1);
    EXPECT_EQ(pt_find(tree, key(1, 1).data()), nullptr);
}

TEST_F(Pt, EmptyTreeAnswersEverything)
{
    EXPECT_EQ(pt_find(tree, key(1, 1).data()), nullptr);
    EXPECT_EQ(pt_first(tree), nullptr);
    EXPECT_EQ(pt_next(tree, key(1, 1).data()), nullptr);
    EXPECT_EQ(pt_remove(tree, key(1, 1).data()), -1);
    EXPECT_EQ(pt_count(tree), 0u);
}

TEST_F(Pt, SaysSoWhenThereIsNoMemory)
{
    corvane::base_fault = refuse_everything;
    EXPECT_FALSE(pt_insert(tree, key(1, 1).data(), &a));
    EXPECT_EQ(pt_attr_create(0, 1, 4), 0u);
}

TEST(PtAttr, TakesKeysUpTo32Bytes)
{
    EXPECT_NE(pt_attr_create(0, 0, 4), 0u);
    EXPECT_NE(pt_attr_create(0, 1, 32), 0u);
    EXPECT_EQ(pt_attr_create(0, 1, 33), 0u);
    EXPECT_EQ(pt_attr_create(0, 1, 0), 0u);
}

TEST_F(Pt, AgreesWithAMapThroughThousandsOfRandomChanges)
{
    std::mt19937 random(11);
    std::map<key20, int *> model;
    std::vector<int> values(1000);
    for (int i = 0; i < 20000; ++i) {
        const key20 k = key(static_cast<std::uint8_t>(random() % 32), static_cast<std::uint8_t>(random() % 32));
        int *value = &values[random() % values.size()];
        if (random() % 2 == 0)
            ASSERT_EQ(pt_insert(tree, k.data(), value), model.emplace(k, value).second);
        else
            ASSERT_EQ(pt_remove(tree, k.data()), model.erase(k) != 0 ? 0 : -1);
        const auto expected = model.find(k);
        ASSERT_EQ(pt_find(tree, k.data()), expected == model.end() ? nullptr : expected->second);
    }
    ASSERT_EQ(pt_count(tree), model.size());
    void *at = pt_first(tree);
    for (const auto &[k, value] : model) {
        ASSERT_EQ(at, value);
        at = pt_next(tree, k.data());
    }
    EXPECT_EQ(at, nullptr);
}

// ---- bit fields

std::vector<std::uint32_t> members(const bitfield &field)
{
    std::vector<std::uint32_t> found;
    for (std::uint32_t bit = bitfield_find_first_set(field); bit != 0; bit = bitfield_find_next_set(field, bit))
        found.push_back(bit);
    return found;
}

struct field_of : std::unique_ptr<bitfield, void (*)(bitfield *)> {
    explicit field_of(std::uint32_t bits) : unique_ptr(bitfield_create({}, bits), bitfield_destroy) {}
};

TEST(Bitfield, WalksItsBitsInOrderAcrossWords)
{
    const field_of f(768);
    for (const std::uint32_t bit : {767u, 1u, 63u, 64u, 65u, 128u})
        bitfield_set(*f, bit);
    EXPECT_THAT(members(*f), ElementsAre(1, 63, 64, 65, 128, 767));
    EXPECT_EQ(bitfield_count_set(*f), 6u);
    bitfield_clear(*f, 64);
    EXPECT_FALSE(bitfield_test(*f, 64));
    EXPECT_THAT(members(*f), ElementsAre(1, 63, 65, 128, 767));
}

TEST(Bitfield, NeverNamesBitZeroInAWalk)
{
    const field_of f(64);
    bitfield_set(*f, 0);
    EXPECT_TRUE(bitfield_test(*f, 0));
    EXPECT_THAT(members(*f), IsEmpty());
    EXPECT_EQ(bitfield_count_set(*f), 1u);
}

TEST(Bitfield, IgnoresBitsBeyondItsEnd)
{
    const field_of f(70);
    bitfield_set(*f, 70);
    bitfield_set(*f, 71);
    bitfield_set(*f, 100000);
    EXPECT_FALSE(bitfield_test(*f, 71));
    EXPECT_EQ(bitfield_count_set(*f), 0u);
    EXPECT_EQ(f->bits(), 70u);
}

TEST(Bitfield, StartsClearAndIsClearedWhole)
{
    const field_of f(4096);
    EXPECT_EQ(f->count(), 0u);
    for (std::uint32_t bit = 0; bit < 4096; ++bit)
        f->set(bit);
    EXPECT_EQ(f->count(), 4096u);
    f->clear_all();
    EXPECT_EQ(f->count(), 0u);
}

// ---- queue

TEST(Rqueue, AppendsAndUnlinksAnywhere)
{
    std::array<rqueue_link, 4> links;
    rqueue queue;
    for (int i = 0; i < 3; ++i)
        renqueue(queue, &links[static_cast<std::size_t>(i)]);
    EXPECT_EQ(queue.count, 3u);
    runqueue(queue, &links[1]);
    EXPECT_EQ(queue.head, &links[0]);
    EXPECT_EQ(links[0].next, &links[2]);
    runqueue(queue, &links[2]);
    EXPECT_EQ(queue.tail, &links[0]);
    renqueue(queue, &links[3]);
    EXPECT_EQ(links[0].next, &links[3]);
    runqueue(queue, &links[0]);
    runqueue(queue, &links[3]);
    EXPECT_EQ(queue.head, nullptr);
    EXPECT_EQ(queue.tail, nullptr);
    EXPECT_EQ(queue.count, 0u);
}

TEST(Rqueue, LeavesAnElementAloneThatIsNotInIt)
{
    rqueue_link in, out;
    rqueue queue;
    renqueue(queue, &in);
    runqueue(queue, &out);
    EXPECT_EQ(queue.count, 1u);
    EXPECT_EQ(queue.head, &in);
}

} // namespace
