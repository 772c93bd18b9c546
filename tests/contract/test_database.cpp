// Shared database and persistent store.
#include "contract_test.h"

#include "hakit.h"
#include "pstore.h"
#include "sdb.h"

using namespace contract;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

constexpr const char *NAME = "contract_info";
constexpr std::uint32_t CHANGED = 0x70010, CONTEXT = 0x70011;

class ContractDatabase : public ContractTest {
protected:
    ContractDatabase() : own(hakit_ha_register_sdb(2, NAME, CHANGED, CONTEXT))
    {
        EXPECT_NE(own, 0u);
        for (const auto &[key, value] : records({}))
            EXPECT_NE(hakit_sdb_delete(own, key.data(), key.size()), 0);
    }
    int put(const bytes &key, const bytes &value)
    {
        return hakit_sdb_update(own, key.data(), key.size(), value.data(), value.size(), 1);
    }
    int erase(const bytes &key) { return hakit_sdb_delete(own, key.data(), key.size()); }
    // As any other process reads it: opened by name, once everything written is there.
    std::vector<std::pair<bytes, bytes>> records(const bytes &prefix)
    {
        EXPECT_NE(sdb_write_done(own), 0);
        const sdb_handle reader = sdb_open(NAME);
        EXPECT_NE(reader, 0u);
        std::vector<std::pair<bytes, bytes>> found;
        const sdb_iterator_ptr iterator = sdb_iterator_create(reader, prefix.data(), prefix.size());
        if (iterator == nullptr)
            return found;
        while (const sdb_record *record = sdb_iterator_next(*iterator))
            found.emplace_back(bytes(record->key, record->key + record->key_length),
                               bytes(record->value, record->value + record->value_length));
        sdb_close(reader);
        return found;
    }
    hakit_sdb own;
};

TEST_F(ContractDatabase, KeepsRecordsInByteOrderOfTheirKeys)
{
    EXPECT_NE(put({2, 0}, text("b")), 0);
    EXPECT_NE(put({1, 0xFF}, text("a")), 0);
    EXPECT_NE(put({2}, text("c")), 0);
    EXPECT_THAT(records({}),
                ElementsAre(Pair(bytes{1, 0xFF}, text("a")), Pair(bytes{2}, text("c")), Pair(bytes{2, 0}, text("b"))));
}

TEST_F(ContractDatabase, WalksOnlyThePrefixAskedFor)
{
    put({1, 1}, text("a"));
    put({2, 1}, text("b"));
    put({2, 0xFF}, text("c"));
    put({3}, text("d"));
    EXPECT_THAT(records({2}), ElementsAre(Pair(bytes{2, 1}, text("b")), Pair(bytes{2, 0xFF}, text("c"))));
    EXPECT_THAT(records({4}), IsEmpty());
}

TEST_F(ContractDatabase, OverwritesAndDeletes)
{
    put({1}, text("old"));
    put({1}, text("new value"));
    EXPECT_THAT(records({}), ElementsAre(Pair(bytes{1}, text("new value"))));
    EXPECT_NE(erase({1}), 0);
    EXPECT_THAT(records({}), IsEmpty());
    EXPECT_NE(erase({1}), 0) << "what is gone already is no failure";
}

TEST_F(ContractDatabase, TakesKeysAndValuesUpToTheirLimits)
{
    const bytes key(SDB_KEY_MAX, 7), value = counting(SDB_VALUE_MAX);
    EXPECT_NE(put(key, value), 0);
    EXPECT_THAT(records({}), ElementsAre(Pair(key, value)));
    EXPECT_EQ(put(bytes(SDB_KEY_MAX + 1, 7), value), 0);
    EXPECT_EQ(put(key, counting(SDB_VALUE_MAX + 1)), 0);
}

TEST_F(ContractDatabase, AWalkSurvivesChangesMadeMeanwhile)
{
    for (std::uint8_t i = 0; i < 200; ++i)
        put({9, i}, {i});
    ASSERT_NE(sdb_write_done(own), 0);
    const sdb_handle reader = sdb_open(NAME);
    const bytes prefix{9};
    const sdb_iterator_ptr iterator = sdb_iterator_create(reader, prefix.data(), prefix.size());
    ASSERT_NE(iterator, nullptr);
    int last = -1, met = 0;
    while (const sdb_record *record = sdb_iterator_next(*iterator)) {
        EXPECT_GT(record->key[1], last);
        last = record->key[1];
        ++met;
        erase({9, static_cast<std::uint8_t>(last)});
    }
    EXPECT_EQ(met, 200);
    sdb_close(reader);
    EXPECT_THAT(records({9}), IsEmpty());
}

TEST_F(ContractDatabase, KnowsOnlyWhatWasRegistered)
{
    EXPECT_EQ(sdb_open("no such database"), 0u);
    EXPECT_EQ(hakit_sdb_update(0, "k", 1, "v", 1, 1), 0);
}

TEST_F(ContractDatabase, GivesAContextOfTheLastWrite)
{
    put({5, 6}, text("v"));
    std::size_t length = 0;
    ASSERT_NE(sdb_get_context_len(own, &length), 0);
    EXPECT_EQ(length, 100u);
    bytes context(length, 0xEE);
    ASSERT_NE(sdb_set_context(own, context.data(), length), 0);
    EXPECT_EQ(sdb_get_context_len(999, &length), 0);
    EXPECT_EQ(sdb_set_context(999, context.data(), length), 0);
    EXPECT_EQ(sdb_write_done(999), 0);
}

TEST_F(ContractDatabase, LeavesMessagesThatAreNotItsOwn)
{
    const mbus_q queue = bind(630);
    ASSERT_EQ(send(queue, 630, 0x70001), 0);
    mbus_msg msg;
    ASSERT_TRUE(receive(queue, msg));
    EXPECT_NE(fsrv_sdb_process_msg(queue, msg), SDB_MSG_HANDLED);
    mbus_drop(queue, msg);
}

// ---- persistent store

class ContractStore : public ContractTest {
protected:
    ContractStore() : store(pstore_open("contract"))
    {
        EXPECT_NE(store, 0u);
        (void)pstore_delete(store, "key", 3);
    }
    ~ContractStore() override { pstore_close(store); }
    pstore_handle store;
};

TEST_F(ContractStore, GivesBackWhatWasWritten)
{
    const bytes value = counting(1000);
    EXPECT_NE(pstore_write(store, "key", 3, value.data(), value.size()), 0);
    bytes read(2000);
    ASSERT_EQ(pstore_read(store, "key", 3, read.data(), read.size()), 1000);
    read.resize(1000);
    EXPECT_EQ(read, value);
}

TEST_F(ContractStore, TellsTheWholeLengthOfAValueItCuts)
{
    EXPECT_NE(pstore_write(store, "key", 3, "abcdef", 6), 0);
    bytes read(4, 'x');
    EXPECT_EQ(pstore_read(store, "key", 3, read.data(), 3), 6);
    EXPECT_EQ(read, text("abcx"));
}

TEST_F(ContractStore, SaysWhatIsNotThere)
{
    bytes read(4);
    EXPECT_EQ(pstore_read(store, "key", 3, read.data(), read.size()), -1);
    EXPECT_EQ(pstore_delete(store, "key", 3), 0);
    EXPECT_NE(pstore_write(store, "key", 3, "v", 1), 0);
    EXPECT_NE(pstore_delete(store, "key", 3), 0);
    EXPECT_EQ(pstore_read(store, "key", 3, read.data(), read.size()), -1);
}

TEST_F(ContractStore, KeepsStoresApart)
{
    const pstore_handle other = pstore_open("other");
    ASSERT_NE(other, 0u);
    EXPECT_NE(pstore_write(store, "key", 3, "v", 1), 0);
    bytes read(4);
    EXPECT_EQ(pstore_read(other, "key", 3, read.data(), read.size()), -1);
    pstore_close(other);
}

} // namespace
