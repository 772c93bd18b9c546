// The interface table between one writer and its readers.
#include "../intfmgr_table.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>

using namespace corvane;

namespace corvaned {
namespace {

class InterfaceTable : public testing::Test {
protected:
    void SetUp() override { writer.clear(); }
    static interface_table_writer::slot_values named(const std::string &name, std::uint32_t ifindex)
    {
        return {.name = name, .flags = INTERFACE_PRESENT, .ifindex = ifindex, .ipv4 = ifindex};
    }
    std::unique_ptr<interface_table> table = std::make_unique<interface_table>();
    interface_table_writer writer{*table};
};

TEST_F(InterfaceTable, FindsEverySlotByNameAndIfindexWhenItIsFull)
{
    for (std::uint32_t iod = 1; iod <= INTFMGR_IOD_MAX; ++iod)
        writer.write(iod, named("port" + std::to_string(iod), 10'000 + iod));

    for (std::uint32_t iod = 1; iod <= INTFMGR_IOD_MAX; ++iod) {
        EXPECT_EQ(interface_by_name(*table, "port" + std::to_string(iod)), iod);
        EXPECT_EQ(interface_by_ifindex(*table, 10'000 + iod), iod);
    }
    EXPECT_EQ(interface_by_name(*table, "port768"), 0u);
    EXPECT_EQ(interface_by_ifindex(*table, 1), 0u);
}

TEST_F(InterfaceTable, FindsNoneForNoNameOrNoIfindex)
{
    EXPECT_EQ(interface_by_name(*table, ""), 0u);
    EXPECT_EQ(interface_by_name(*table, std::string(300, 'x')), 0u);
    EXPECT_EQ(interface_by_ifindex(*table, 0), 0u);
    EXPECT_EQ(interface_flags(*table, 768), 0u);
    EXPECT_EQ(interface_flags(*table, 0xFFFFFFFF), 0u);
}

TEST_F(InterfaceTable, ForgetsTheIfindexOfADeviceThatWentAndItsName)
{
    writer.write(1, named("eth1", 7));
    writer.write(1, {.name = "eth1"});

    EXPECT_EQ(interface_by_name(*table, "eth1"), 0u);
    EXPECT_EQ(interface_by_ifindex(*table, 7), 0u);
    EXPECT_EQ(writer.name_of(1), "eth1");
}

TEST_F(InterfaceTable, CountsChanges)
{
    const std::uint32_t before = table->generation.load();
    writer.write(1, named("eth1", 7));
    EXPECT_GT(table->generation.load(), before);
}

TEST_F(InterfaceTable, AnswersReadersWhoseWriterDiedHalfWay)
{
    writer.write(1, named("eth1", 7));
    table->index_sequence.fetch_or(1);
    EXPECT_EQ(interface_by_name(*table, "eth1"), 1u);
    EXPECT_EQ(interface_by_ifindex(*table, 7), 1u);

    table->slot[1].sequence.fetch_or(1);
    interface_record record;
    EXPECT_FALSE(interface_read(*table, 1, record));
    EXPECT_EQ(interface_flags(*table, 1), INTERFACE_PRESENT);

    interface_table_writer successor(*table);
    successor.clear();
    successor.write(1, named("eth1", 7));
    EXPECT_TRUE(interface_read(*table, 1, record));
}

TEST_F(InterfaceTable, ShowsWhatAFormerWriterLeftUntilItsSuccessorHasStarted)
{
    writer.write(1, named("eth1", 7));
    writer.write(2, named("eth2", 8));
    const std::uint32_t before = table->generation.load();

    interface_table_writer successor(*table);
    successor.clear_held();
    successor.write(1, named("eth1", 7));
    interface_record record;
    EXPECT_TRUE(interface_read(*table, 2, record));
    EXPECT_STREQ(record.name, "eth2");
    EXPECT_EQ(interface_by_name(*table, "eth2"), 2u);
    EXPECT_EQ(table->generation.load(), before);

    successor.publish();
    EXPECT_EQ(interface_by_name(*table, "eth1"), 1u);
    EXPECT_EQ(interface_by_name(*table, "eth2"), 0u);
    ASSERT_TRUE(interface_read(*table, 2, record));
    EXPECT_STREQ(record.name, "");
    EXPECT_GT(table->generation.load(), before);
}

TEST_F(InterfaceTable, IsShownAtOnceWhenNobodyWroteItBefore)
{
    auto fresh = std::make_unique<interface_table>();
    interface_table_writer first(*fresh);
    first.clear_held();
    first.write(1, named("eth1", 7));
    EXPECT_EQ(interface_by_name(*fresh, "eth1"), 1u);
}

TEST_F(InterfaceTable, NeverShowsHalfASlot)
{
    writer.write(1, named("aaaaaaaaaaaaaaaaaaaaaaaaaaaa", 1));
    std::atomic<bool> stop{false};
    std::atomic<std::uint32_t> torn{0}, reads{0};
    std::thread reader([&] {
        interface_record record;
        while (!stop.load()) {
            if (!interface_read(*table, 1, record))
                continue;
            const char expected = record.ipv4 == 1 ? 'a' : 'b';
            for (const char *c = record.name; *c != '\0'; ++c)
                torn += *c == expected ? 0 : 1;
            ++reads;
        }
    });
    for (std::uint32_t i = 0; i < 2000 || reads.load() < 1000; ++i)
        writer.write(1, i % 2 == 0 ? named("bbbbbbbbbbbbbb", 2) : named("aaaaaaaaaaaaaaaaaaaaaaaaaaaa", 1));
    stop = true;
    reader.join();
    EXPECT_EQ(torn.load(), 0u);
}

} // namespace
} // namespace corvaned
