// Shared database and persistent store: tables of the database, one a name. Writes of the shared database come
// without waiting for an answer; what one turn of the loop brings is committed at once and then acknowledged, and a
// client sends what was not acknowledged again when it has lost its connection.
#include "corvaned.h"

#include "bus.h"
#include "database.h"
#include "loop.h"
#include "rpc.h"
#include "svcmgr.h"

#include "../wire/sdb.h"
#include "../wire/svcmgr.h"

#include "../api/sdb.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <utility>

namespace corvaned {
namespace {

struct shared_database {
    explicit shared_database(const std::string &name) : store("sdb." + name) {}
    kv_store store;
    std::uint32_t change_opcode = 0;               // 0: nobody is told
};

constexpr std::chrono::milliseconds RESEND_DELAY{1000};

struct last_write {
    std::uint64_t sequence = 0;
    std::string database;
};

struct sdb_state {
    std::map<std::string, shared_database> databases;
    std::map<std::string, std::unique_ptr<kv_store>> stores;
    std::map<std::uint64_t, last_write> unacknowledged;         // by connection, of this turn
    std::uint64_t known_failures = 0;
    std::set<std::uint64_t> resend_asked;                       // connections
};

sdb_state &state()
{
    static sdb_state the_state;
    return the_state;
}

kv_store &names()
{
    static kv_store table("sdb-names");
    return table;
}

byte_view bytes(const std::string &text)
{
    return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()};
}

bool good_name(const std::string &name)
{
    return !name.empty() && name.size() <= corvane::STORE_NAME_MAX &&
           std::ranges::all_of(name, [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || strchr("_.-", c); });
}

bool good_record(byte_view key, byte_view value)
{
    return !key.empty() && key.size() <= corvane::STORE_KEY_MAX && value.size() <= corvane::STORE_VALUE_MAX;
}

// A database that was made before this corvaned started is found in the table of names.
shared_database *find(const std::string &name)
{
    if (const auto found = state().databases.find(name); found != state().databases.end())
        return &found->second;
    std::vector<std::uint8_t> opcode;
    if (!good_name(name) || !names().get(bytes(name), opcode))
        return nullptr;
    shared_database &made = state().databases.try_emplace(name, name).first->second;
    if (opcode.size() == sizeof made.change_opcode)
        std::memcpy(&made.change_opcode, opcode.data(), sizeof made.change_opcode);
    return &made;
}

answer handle_register(const peer &, byte_view request)
{
    byte_reader in(request);
    const std::string name = in.text();
    (void)in.get<std::uint32_t>();
    const auto change_opcode = in.get<std::uint32_t>();
    if (!in.done() || !good_name(name))
        return {EINVAL, {}};
    if (!names().put(bytes(name), byte_writer().put(change_opcode).view()))
        return {EIO, {}};
    state().databases.try_emplace(name, name).first->second.change_opcode = change_opcode;
    return {};
}

answer handle_open(const peer &, byte_view request)
{
    byte_reader in(request);
    const std::string name = in.text();
    if (!in.done())
        return {EINVAL, {}};
    return {find(name) != nullptr ? 0 : ENOENT, {}};
}

void announce(const std::string &name, const shared_database &db, std::uint32_t operation, byte_view key)
{
    if (db.change_opcode == 0 || bus_subscribers(db.change_opcode) == 0)
        return;
    std::vector<std::uint8_t> context(corvane::SDB_CONTEXT_SIZE);
    std::memcpy(&context[corvane::SDB_CONTEXT_NAME], name.data(),
                std::min(name.size(), corvane::SDB_CONTEXT_NAME_SIZE - 1));
    const auto length = static_cast<std::uint32_t>(std::min(key.size(), SDB_KEY_MAX));
    std::memcpy(&context[corvane::SDB_CONTEXT_OPERATION], &operation, sizeof operation);
    std::memcpy(&context[corvane::SDB_CONTEXT_KEY_LENGTH], &length, sizeof length);
    std::memcpy(&context[corvane::SDB_CONTEXT_KEY], key.data(), length);
    bus_announce(corvane::SDB_SAP, db.change_opcode, context);
}

// What was refused is not acknowledged: the client is asked for it again a little later.
void refused(const peer &who, const std::string &name)
{
    const std::uint64_t connection = who.connection;
    if (!state().resend_asked.insert(connection).second)
        return;
    svcmgr_tell(who.pid, corvane::SDB_SAP, corvane::SDB_OPC_REFUSED, byte_writer().text(name).view());
    after(RESEND_DELAY, [connection] {
        state().resend_asked.erase(connection);
        connection_send(connection, corvane::FRAME_EVENT, corvane::EVENT_SDB_RESEND, 0, {});
    });
}

answer handle_change(const peer &who, byte_view request, bool write)
{
    byte_reader in(request);
    const auto sequence = in.get<std::uint64_t>();
    const std::string name = in.text();
    const byte_view key = in.blob();
    const byte_view value = write ? in.blob() : byte_view{};
    shared_database *db = in.done() ? find(name) : nullptr;
    if (db == nullptr || !good_record(key, value))
        return {in.done() && db == nullptr ? ENOENT : EINVAL, {}};
    database_group();
    const bool done = write ? db->store.put(key, value) : db->store.erase(key);
    if (!done && write) {
        refused(who, name);
        return {EIO, {}};
    }
    state().unacknowledged[who.connection] = {sequence, name};
    announce(name, *db, write ? corvane::SDB_OPERATION_WRITE : corvane::SDB_OPERATION_DELETE, key);
    return {};
}

void acknowledge()
{
    if (state().unacknowledged.empty())
        return;
    database_commit();
    const bool kept = database_failed_commits() == std::exchange(state().known_failures, database_failed_commits());
    for (const auto &[connection, write] : state().unacknowledged) {
        const peer *who = connection_peer(connection);
        if (who == nullptr)
            continue;
        // Behind a write that was refused nothing is acknowledged, so that all of it comes again in its order.
        if (!kept)
            refused(peer(*who), write.database);
        else if (!state().resend_asked.contains(connection))
            connection_send(connection, corvane::FRAME_EVENT, corvane::EVENT_SDB_COMMITTED, 0,
                            byte_writer().put(write.sequence).view());
    }
    state().unacknowledged.clear();
}

answer handle_page(const peer &, byte_view request)
{
    byte_reader in(request);
    const std::string name = in.text();
    const byte_view prefix = in.blob();
    const byte_view after = in.blob();
    const auto limit = std::min<std::size_t>(in.get<std::uint32_t>(), corvane::SDB_PAGE_MAX);
    if (!in.done())
        return {EINVAL, {}};
    shared_database *db = find(name);
    if (db == nullptr)
        return {ENOENT, {}};
    byte_writer records;
    std::uint32_t count = 0;
    for (const kv_store::record &r : db->store.range(prefix, after, limit)) {
        if (count != 0 && records.size() + r.key.size() + r.value.size() > corvane::FRAME_MAX / 2)
            break;
        records.blob(r.key).blob(r.value);
        ++count;
    }
    return {0, byte_writer().put(count).raw(records.view()).take()};
}

answer handle_clear(const peer &, byte_view request)
{
    byte_reader in(request);
    const std::string name = in.text();
    shared_database *db = in.done() ? find(name) : nullptr;
    if (db == nullptr)
        return {ENOENT, {}};
    database_group();
    for (auto page = db->store.range({}, {}, corvane::SDB_PAGE_MAX); !page.empty();
         page = db->store.range({}, {}, corvane::SDB_PAGE_MAX))
        for (const kv_store::record &r : page) {
            if (!db->store.erase(r.key))
                return {EIO, {}};
            announce(name, *db, corvane::SDB_OPERATION_DELETE, r.key);
        }
    return {};
}

kv_store &store_of(const std::string &name)
{
    auto &store = state().stores[name];
    if (store == nullptr)
        store = std::make_unique<kv_store>("pstore." + name);
    return *store;
}

answer handle_store_open(const peer &, byte_view request)
{
    byte_reader in(request);
    const std::string name = in.text();
    return {in.done() && good_name(name) ? 0 : EINVAL, {}};
}

answer handle_store_write(const peer &, byte_view request)
{
    byte_reader in(request);
    const std::string name = in.text();
    const byte_view key = in.blob();
    const byte_view value = in.blob();
    if (!in.done() || !good_name(name) || !good_record(key, value))
        return {EINVAL, {}};
    return {store_of(name).put(key, value) ? 0 : EIO, {}};
}

answer handle_store_read(const peer &, byte_view request)
{
    byte_reader in(request);
    const std::string name = in.text();
    const byte_view key = in.blob();
    if (!in.done() || !good_name(name))
        return {EINVAL, {}};
    std::vector<std::uint8_t> value;
    if (!store_of(name).get(key, value))
        return {ENOENT, {}};
    return {0, byte_writer().blob(value).take()};
}

answer handle_store_delete(const peer &, byte_view request)
{
    byte_reader in(request);
    const std::string name = in.text();
    const byte_view key = in.blob();
    if (!in.done() || !good_name(name))
        return {EINVAL, {}};
    return {store_of(name).erase(key) ? 0 : ENOENT, {}};
}

} // namespace

void sdb_start()
{
    serve_method(corvane::SDB_REGISTER, handle_register);
    serve_method(corvane::SDB_OPEN, handle_open);
    serve_method(corvane::SDB_WRITE, [](const peer &who, byte_view in) { return handle_change(who, in, true); });
    serve_method(corvane::SDB_DELETE, [](const peer &who, byte_view in) { return handle_change(who, in, false); });
    serve_method(corvane::SDB_PAGE, handle_page);
    serve_method(corvane::SDB_SYNC, [](const peer &, byte_view) { return answer{database_commit() ? 0 : EIO, {}}; });
    serve_method(corvane::SDB_CLEAR, handle_clear);
    serve_method(corvane::PSTORE_OPEN, handle_store_open);
    serve_method(corvane::PSTORE_WRITE, handle_store_write);
    serve_method(corvane::PSTORE_READ, handle_store_read);
    serve_method(corvane::PSTORE_DELETE, handle_store_delete);
    at_turn_end(acknowledge);
    on_disconnect([](const peer &who) {
        state().unacknowledged.erase(who.connection);
        state().resend_asked.erase(who.connection);
    });
}

} // namespace corvaned
