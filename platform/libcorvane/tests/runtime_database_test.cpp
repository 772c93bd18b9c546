// The shared database and the persistent store, seen from a process.
#include "runtime_process.h"

#include "../../wire/sdb.h"

#include "pstore.h"
#include "sdb.h"

#include <cstring>

namespace corvane_test {
namespace {

struct Database : Process {
    hakit_sdb handle = 0;
    void SetUp() override
    {
        Process::SetUp();
        handle = hakit_ha_register_sdb(2, "lum_sdb_info", 0x1340D, 0x1340E);
        ASSERT_NE(handle, 0u);
    }
    void TearDown() override
    {
        commit(~0ull);
        settle();
        Process::TearDown();
    }
    void commit(std::uint64_t sequence)
    {
        server.send(corvane::FRAME_EVENT, corvane::EVENT_SDB_COMMITTED, byte_writer().put(sequence).view());
    }
    static std::uint64_t sequence_of(const request &r) { return byte_reader(r.body).get<std::uint64_t>(); }
};

TEST_F(Database, RegistersNameAndOpcodes)
{
    const request *made = server.await(corvane::SDB_REGISTER);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->body, byte_writer().text("lum_sdb_info").put(0x1340Du).put(0x1340Eu).take());
}

TEST_F(Database, UpdateAndDeleteGoOutInOrderWithoutWaiting)
{
    EXPECT_NE(hakit_sdb_update(handle, "key", 3, "value", 5, 1), 0);
    EXPECT_NE(hakit_sdb_delete(handle, "key", 3), 0);
    const request *write = server.await(corvane::SDB_WRITE);
    const request *erase = server.await(corvane::SDB_DELETE);
    ASSERT_NE(write, nullptr);
    ASSERT_NE(erase, nullptr);
    EXPECT_EQ(write->kind, corvane::FRAME_ONEWAY);
    EXPECT_LT(sequence_of(*write), sequence_of(*erase));
    byte_reader in(write->body);
    (void)in.get<std::uint64_t>();
    EXPECT_EQ(in.text(), "lum_sdb_info");
    EXPECT_EQ(in.text(), "key");
    EXPECT_EQ(in.text(), "value");
}

TEST_F(Database, RefusesRecordsThatAreNoneAndHandlesThatAreNone)
{
    EXPECT_EQ(hakit_sdb_update(handle, "", 0, "v", 1, 1), 0);
    const std::vector<std::uint8_t> large(SDB_VALUE_MAX + 1);
    EXPECT_EQ(hakit_sdb_update(handle, "k", 1, large.data(), large.size(), 1), 0);
    EXPECT_EQ(hakit_sdb_update(handle + 50, "k", 1, "v", 1, 1), 0);
    EXPECT_EQ(hakit_sdb_update(0, "k", 1, "v", 1, 1), 0);
}

TEST_F(Database, WritesThatWereNotCommittedAreSentAgainAfterAReconnect)
{
    ASSERT_NE(hakit_sdb_update(handle, "a", 1, "1", 1, 1), 0);
    ASSERT_NE(hakit_sdb_update(handle, "b", 1, "2", 1, 1), 0);
    const request *first = server.await(corvane::SDB_WRITE, 1);
    const request *second = server.await(corvane::SDB_WRITE, 2);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    const auto expected = second->body;
    commit(sequence_of(*first));
    settle();
    server.forget();

    server.disconnect();

    const request *again = server.await(corvane::SDB_WRITE);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->body, expected);
    EXPECT_NE(server.await(corvane::SDB_REGISTER), nullptr);
    settle();
    EXPECT_EQ(server.count(corvane::SDB_WRITE), 1u);
}

TEST_F(Database, WritesWhileThePlatformIsGoneAreSentWhenItComesBack)
{
    server.stop();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (corvane::connection_up() && std::chrono::steady_clock::now() < deadline)
        poll(nullptr, 0, 1);
    EXPECT_NE(hakit_sdb_update(handle, "late", 4, "x", 1, 1), 0);
    server.forget();
    server.start();
    const request *write = server.await(corvane::SDB_WRITE);
    ASSERT_NE(write, nullptr);
    byte_reader in(write->body);
    (void)in.get<std::uint64_t>();
    (void)in.text();
    EXPECT_EQ(in.text(), "late");
}

TEST_F(Database, RefusedWritesAreSentAgainWhenAskedFor)
{
    ASSERT_NE(hakit_sdb_update(handle, "a", 1, "1", 1, 1), 0);
    ASSERT_NE(server.await(corvane::SDB_WRITE), nullptr);
    server.send(corvane::FRAME_EVENT, corvane::EVENT_SDB_RESEND, {});
    const request *again = server.await(corvane::SDB_WRITE, 2);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->body, server.await(corvane::SDB_WRITE)->body);
}

TEST_F(Database, IteratorReadsPageAfterPage)
{
    server.answer_with(corvane::SDB_PAGE, [](byte_view request) {
        byte_reader in(request);
        (void)in.text();
        EXPECT_EQ(in.text(), "\x02");
        const std::string after = in.text();
        if (after.empty())
            return answer{0, byte_writer().put(2u).text("\x02" "a").text("1").text("\x02" "b").text("2").take()};
        if (after == "\x02" "b")
            return answer{0, byte_writer().put(1u).text("\x02" "c").text("3").take()};
        return answer{0, byte_writer().put(0u).take()};
    });
    const sdb_handle reader = sdb_open("lum_sdb_info");
    ASSERT_NE(reader, 0u);
    const sdb_iterator_ptr it = sdb_iterator_create(reader, "\x02", 1);
    std::string seen;
    while (const sdb_record *record = sdb_iterator_next(*it))
        seen += std::string(record->key + 1, record->key + record->key_length) +
                std::string(record->value, record->value + record->value_length);
    EXPECT_EQ(seen, "a1b2c3");
    EXPECT_EQ(sdb_iterator_next(*it), nullptr) << "the end stays the end";
    sdb_close(reader);
    EXPECT_EQ(sdb_write(reader, "k", 1, "v", 1), 0);
}

TEST_F(Database, ReadersCloseTheirOwnHandleAndGiveItBack)
{
    const sdb_handle one = sdb_open("lum"), other = sdb_open("lum");
    EXPECT_NE(one, other);
    sdb_close(one);
    sdb_close(one);
    const auto read = [&](sdb_handle reader) {
        EXPECT_EQ(sdb_iterator_next(*sdb_iterator_create(reader, nullptr, 0)), nullptr);
        return server.count(corvane::SDB_PAGE);
    };
    EXPECT_EQ(read(one), 0u);
    EXPECT_EQ(read(other), 1u);
    for (int i = 0; i < 100; ++i) {
        const sdb_handle again = sdb_open("lum");
        EXPECT_EQ(again, one);
        sdb_close(again);
    }
    sdb_close(other);
}

TEST_F(Database, UnknownDatabaseCannotBeOpened)
{
    server.answer_with(corvane::SDB_OPEN, [](byte_view) { return answer{ENOENT, {}}; });
    EXPECT_EQ(sdb_open("nobody"), 0u);
}

TEST_F(Database, ContextOfAWriteNamesDatabaseOperationAndKey)
{
    ASSERT_NE(sdb_write(handle, "key", 3, "v", 1), 0);
    std::size_t length = 0;
    ASSERT_NE(sdb_get_context_len(handle, &length), 0);
    EXPECT_EQ(length, 100u);
    std::vector<std::uint8_t> context(length);
    ASSERT_NE(sdb_set_context(handle, context.data(), length), 0);
    EXPECT_STREQ(reinterpret_cast<const char *>(context.data()), "lum_sdb_info");
    EXPECT_EQ(context[corvane::SDB_CONTEXT_OPERATION], corvane::SDB_OPERATION_WRITE);
    EXPECT_EQ(context[corvane::SDB_CONTEXT_KEY_LENGTH], 3);
    EXPECT_EQ(std::memcmp(&context[corvane::SDB_CONTEXT_KEY], "key", 3), 0);
    EXPECT_NE(sdb_write_done(handle), 0);
    EXPECT_EQ(sdb_get_context_len(0, &length), 0);
    EXPECT_EQ(sdb_write_done(0), 0);
}

TEST_F(Database, TakesItsOwnMessagesAndLeavesOthers)
{
    mbus_msg refused = message(corvane::SDB_OPC_REFUSED, byte_writer().text("lum_sdb_info").view(), corvane::SDB_SAP);
    EXPECT_EQ(fsrv_sdb_process_msg(queue, refused), SDB_MSG_HANDLED);
    mbus_drop(queue, refused);
    mbus_msg other = message(0x1340E, {}, corvane::SDB_SAP);
    EXPECT_NE(fsrv_sdb_process_msg(queue, other), SDB_MSG_HANDLED);
    EXPECT_EQ(hakit_ha_dispatch(other), 0) << "the opcodes a database was registered with are the kit's";
    mbus_drop(queue, other);
}

TEST_F(Database, PersistentStoreReadsWritesAndDeletes)
{
    server.answer_with(corvane::PSTORE_READ, [](byte_view) { return answer{0, byte_writer().text("stored").take()}; });
    const pstore_handle store = pstore_open("data");
    ASSERT_NE(store, 0u);
    char value[4] = {};
    EXPECT_EQ(pstore_read(store, "k", 1, value, sizeof value), 6) << "the whole length, though the value is cut";
    EXPECT_EQ(std::string(value, 4), "stor");
    EXPECT_NE(pstore_write(store, "k", 1, "v", 1), 0);
    EXPECT_NE(pstore_delete(store, "k", 1), 0);
    server.answer_with(corvane::PSTORE_READ, [](byte_view) { return answer{ENOENT, {}}; });
    EXPECT_EQ(pstore_read(store, "k", 1, value, sizeof value), -1);
    server.answer_with(corvane::PSTORE_WRITE, [](byte_view) { return answer{EIO, {}}; });
    EXPECT_EQ(pstore_write(store, "k", 1, "v", 1), 0);
    pstore_close(store);
    EXPECT_EQ(pstore_read(store, "k", 1, value, sizeof value), -1);
}

} // namespace
} // namespace corvane_test
