// Shared database and persistent store, as their clients see them.
#include "platform_process.h"

#include "../database.h"

#include "../../wire/sdb.h"
#include "../../wire/svcmgr.h"

#include <gmock/gmock.h>

#include <cstring>

namespace corvaned_test {
namespace {

using namespace testing;
using corvaned::answer;

using record = std::pair<std::vector<std::uint8_t>, std::vector<std::uint8_t>>;
constexpr std::uint32_t CHANGE_OPCODE = 0x1340E;

struct Sdb : Test {
    platform_process &process = platform_process::the();
    bus_client client;
    std::uint64_t sequence = 0;
    std::string name = std::string("db-") + UnitTest::GetInstance()->current_test_info()->name();

    void SetUp() override
    {
        ASSERT_EQ(client.call(corvane::SDB_REGISTER, byte_writer().text(name).put(0x1340Du).put(CHANGE_OPCODE).view()).error, 0);
    }
    void write(std::string_view key, std::string_view value)
    {
        client.oneway(corvane::SDB_WRITE,
                      byte_writer().put(++sequence).text(name).blob(bytes(key)).blob(bytes(value)).view());
    }
    void erase(std::string_view key)
    {
        client.oneway(corvane::SDB_DELETE, byte_writer().put(++sequence).text(name).blob(bytes(key)).view());
    }
    std::vector<record> page(std::string_view prefix, std::string_view after = {}, std::uint32_t limit = 64)
    {
        const answer a = client.call(
            corvane::SDB_PAGE, byte_writer().text(name).blob(bytes(prefix)).blob(bytes(after)).put(limit).view());
        EXPECT_EQ(a.error, 0);
        byte_reader in(a.data);
        std::vector<record> records;
        for (auto left = in.get<std::uint32_t>(); left > 0; --left) {
            const byte_view key = in.blob();
            const byte_view value = in.blob();
            records.emplace_back(std::vector(key.begin(), key.end()), std::vector(value.begin(), value.end()));
        }
        EXPECT_TRUE(in.done());
        return records;
    }
    std::uint64_t acknowledged()
    {
        std::uint64_t last = 0;
        for (const frame &event : client.events())
            if (event.header.number == corvane::EVENT_SDB_COMMITTED)
                last = event.read().get<std::uint64_t>();
        return last;
    }
    static record of(std::string_view key, std::string_view value) { return {bytes(key), bytes(value)}; }
};

TEST_F(Sdb, WritesAreReadBackInByteOrderOfTheirKeys)
{
    write("b", "2");
    write("a", "1");
    write("\xFF", "3");
    acknowledged();
    EXPECT_THAT(page(""), ElementsAre(of("a", "1"), of("b", "2"), of("\xFF", "3")));
}

TEST_F(Sdb, WriteReplacesAndDeleteRemoves)
{
    write("k", "old");
    write("k", "new");
    write("gone", "x");
    erase("gone");
    acknowledged();
    EXPECT_THAT(page(""), ElementsAre(of("k", "new")));
}

TEST_F(Sdb, PageHoldsThePrefixOnlyAndGoesOnBehindAKey)
{
    for (const char *key : {"a1", "b1", "b2", "b3", "c1"})
        write(key, "");
    acknowledged();
    EXPECT_THAT(page("b", "", 2), ElementsAre(of("b1", ""), of("b2", "")));
    EXPECT_THAT(page("b", "b2", 2), ElementsAre(of("b3", "")));
    EXPECT_THAT(page("b", "b3", 2), IsEmpty());
}

TEST_F(Sdb, AcknowledgesWhatIsCommittedByItsSequence)
{
    write("a", "1");
    write("b", "2");
    EXPECT_EQ(acknowledged(), 2u);
    EXPECT_EQ(corvaned::database_failed_commits(), 0u);
}

TEST_F(Sdb, AnswerToACallComesAfterTheCommitOfWritesBeforeIt)
{
    write("a", "1");
    EXPECT_EQ(client.call(corvane::SDB_SYNC, {}).error, 0);
    EXPECT_THAT(page(""), SizeIs(1));
}

TEST_F(Sdb, OpenFindsRegisteredDatabaseAndNoOther)
{
    EXPECT_EQ(client.call(corvane::SDB_OPEN, byte_writer().text(name).view()).error, 0);
    EXPECT_EQ(client.call(corvane::SDB_OPEN, byte_writer().text("nobody").view()).error, ENOENT);
    EXPECT_EQ(client.call(corvane::SDB_OPEN, byte_writer().text("../x").view()).error, ENOENT);
}

TEST_F(Sdb, NamesThatAreNoNamesAreRefused)
{
    for (const char *bad : {"", "a b", "x\"y", "a/b"})
        EXPECT_EQ(client.call(corvane::SDB_REGISTER, byte_writer().text(bad).put(0u).put(0u).view()).error, EINVAL) << bad;
}

TEST_F(Sdb, ChangeIsAnnouncedToSubscribersWithItsContext)
{
    ASSERT_EQ(client.bind(1, 0), 0u);
    ASSERT_EQ(client.option(1, CHANGE_OPCODE, corvane::BUS_OPTION_SUBSCRIBE), 0u);
    write("key", "v");
    erase("key");
    const auto got = client.deliveries();
    ASSERT_THAT(got, SizeIs(2));
    ASSERT_THAT(got[0].payload, SizeIs(corvane::SDB_CONTEXT_SIZE));
    EXPECT_EQ(got[0].header.source_sap, corvane::SDB_SAP);
    EXPECT_STREQ(reinterpret_cast<const char *>(got[0].payload.data()), name.substr(0, 27).c_str());
    EXPECT_EQ(got[0].payload[corvane::SDB_CONTEXT_OPERATION], corvane::SDB_OPERATION_WRITE);
    EXPECT_EQ(got[1].payload[corvane::SDB_CONTEXT_OPERATION], corvane::SDB_OPERATION_DELETE);
    EXPECT_EQ(got[1].payload[corvane::SDB_CONTEXT_KEY_LENGTH], 3);
    EXPECT_EQ(std::memcmp(&got[1].payload[corvane::SDB_CONTEXT_KEY], "key", 3), 0);
}

TEST_F(Sdb, ChangeIsNotAnnouncedToMonitorsOfEverything)
{
    ASSERT_EQ(client.bind(1, 0), 0u);
    ASSERT_EQ(client.option(1, corvane::BUS_OPCODE_ALL, corvane::BUS_OPTION_SUBSCRIBE), 0u);
    write("key", "v");
    EXPECT_THAT(client.deliveries(), IsEmpty());
}

TEST_F(Sdb, ClearingRemovesEveryRecordOfThatDatabaseAlone)
{
    for (int i = 0; i < 200; ++i)
        write("k" + std::to_string(i), "v");
    ASSERT_EQ(client.call(corvane::SDB_REGISTER, byte_writer().text("other").put(0u).put(0u).view()).error, 0);
    client.oneway(corvane::SDB_WRITE, byte_writer().put(++sequence).text("other").blob(bytes("k")).blob(bytes("v")).view());
    ASSERT_EQ(client.call(corvane::SDB_CLEAR, byte_writer().text(name).view()).error, 0);
    EXPECT_THAT(page(""), IsEmpty());
    name = "other";
    EXPECT_THAT(page(""), SizeIs(1));
}

TEST_F(Sdb, MalformedWritesChangeNothing)
{
    client.oneway(corvane::SDB_WRITE, byte_writer().put(++sequence).text(name).blob({}).blob(bytes("v")).view());
    client.oneway(corvane::SDB_WRITE, byte_writer().put(++sequence).text(name).view());
    client.oneway(corvane::SDB_WRITE, byte_writer().put(++sequence).text("nobody").blob(bytes("k")).blob({}).view());
    const std::vector<std::uint8_t> long_key(corvane::STORE_KEY_MAX + 1, 'k');
    client.oneway(corvane::SDB_WRITE, byte_writer().put(++sequence).text(name).blob(long_key).blob({}).view());
    EXPECT_EQ(acknowledged(), 0u);
    EXPECT_THAT(page(""), IsEmpty());
}

TEST_F(Sdb, DatabaseOfAnEarlierRunIsFoundWithItsRecords)
{
    write("k", "v");
    ASSERT_EQ(acknowledged(), 1u);
    std::string why;
    corvaned::database_close();
    ASSERT_TRUE(corvaned::database_open(why)) << why;
    EXPECT_THAT(page(""), ElementsAre(of("k", "v")));
}

struct Pstore : Sdb {};

TEST_F(Pstore, KeepsWhatWasWrittenUntilItIsDeleted)
{
    const auto key = byte_writer().text("data").blob(bytes("k")).take();
    EXPECT_EQ(client.call(corvane::PSTORE_READ, key).error, ENOENT);
    EXPECT_EQ(client.call(corvane::PSTORE_WRITE, byte_writer().raw(key).blob(bytes("value")).view()).error, 0);
    const answer found = client.call(corvane::PSTORE_READ, key);
    ASSERT_EQ(found.error, 0);
    EXPECT_EQ(byte_reader(found.data).text(), "value");
    EXPECT_EQ(client.call(corvane::PSTORE_DELETE, key).error, 0);
    EXPECT_EQ(client.call(corvane::PSTORE_DELETE, key).error, ENOENT);
}

TEST_F(Pstore, StoresOfDifferentNamesDoNotMix)
{
    EXPECT_EQ(client.call(corvane::PSTORE_WRITE, byte_writer().text("one").blob(bytes("k")).blob(bytes("1")).view()).error, 0);
    EXPECT_EQ(client.call(corvane::PSTORE_READ, byte_writer().text("two").blob(bytes("k")).view()).error, ENOENT);
}

} // namespace
} // namespace corvaned_test
