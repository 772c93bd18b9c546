// Shared database client. Writes go out without waiting for their answer and are kept until corvaned has committed
// them; after a reconnect those that were not are sent again, in order.
#include "sdb.h"

#include "client.h"
#include "runtime/connection.h"
#include "runtime/shared_memory.h"
#include "sdb_client.h"
#include "syslog_client.h"

#include "../wire/sdb.h"
#include "../wire/svcmgr.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <mutex>
#include <utility>

namespace {

using namespace corvane;

// Beyond this many unacknowledged bytes a write waits for corvaned; without a connection it fails.
constexpr std::size_t KEPT_BYTES_MAX = 8 * 1024 * 1024;

struct open_database {
    std::string name;
    bool owner = false;
    std::uint32_t opcode = 0, change_opcode = 0;
    std::vector<std::uint8_t> context = std::vector<std::uint8_t>(SDB_CONTEXT_SIZE);
};

struct kept_write {
    std::uint64_t sequence = 0;
    std::uint32_t method = 0;
    std::vector<std::uint8_t> request;
};

struct sdb_client {
    std::mutex mutex;
    std::deque<open_database> open;                    // a handle is its place plus one
    std::deque<kept_write> kept;
    std::size_t kept_bytes = 0;
    std::uint64_t last_sequence = 0;
    bool started = false;
    bool live = false;                                 // the connection takes writes, everything kept was sent on it
};

sdb_client &the()
{
    static auto *client = new sdb_client;
    return *client;
}

void forget_committed(byte_view event)
{
    byte_reader in(event);
    const auto sequence = in.get<std::uint64_t>();
    const std::lock_guard guard(the().mutex);
    while (in.ok() && !the().kept.empty() && the().kept.front().sequence <= sequence) {
        the().kept_bytes -= the().kept.front().request.size();
        the().kept.pop_front();
    }
}

std::vector<std::uint8_t> registration(const open_database &db)
{
    return byte_writer().text(db.name).put(db.opcode).put(db.change_opcode).take();
}

void send_kept()
{
    the().live = true;
    for (const kept_write &w : the().kept)
        the().live = the().live && send_oneway_now(w.method, w.request, true) == 0;
}

// On the connection's thread, which must not wait for the mutex while a holder waits for the connection: holders
// only use send_oneway_now.
void send_kept_again()
{
    std::unique_lock lock(the().mutex);
    std::vector<std::vector<std::uint8_t>> owned;
    for (const open_database &db : the().open)
        if (db.owner)
            owned.push_back(registration(db));
    lock.unlock();
    for (const auto &request : owned)
        (void)call(SDB_REGISTER, request);
    lock.lock();
    send_kept();
}

// corvaned could not keep them a moment ago.
void send_refused_again(byte_view)
{
    const std::lock_guard guard(the().mutex);
    if (the().live)
        send_kept();
}

void connection_lost()
{
    const std::lock_guard guard(the().mutex);
    the().live = false;
}

// Before the mutex is taken: it may start the connection, which runs the hooks.
bool start()
{
    bool first = false;
    {
        const std::lock_guard guard(the().mutex);
        first = !std::exchange(the().started, true);
        if (first) {
            on_event(EVENT_SDB_COMMITTED, forget_committed);
            on_event(EVENT_SDB_RESEND, send_refused_again);
            on_connected_at(connect_stage::SERVICES, send_kept_again);
            on_lost(connection_lost);
        }
    }
    const bool up = connection_ensure();
    if (first && up) {
        const std::lock_guard guard(the().mutex);      // the connection may have come up before the hook was there
        the().live = true;
    }
    return up;
}

open_database *find(sdb_handle handle)
{
    return handle != 0 && handle <= the().open.size() && !the().open[handle - 1].name.empty() ? &the().open[handle - 1]
                                                                                              : nullptr;
}

std::string name_of(sdb_handle handle)
{
    const std::lock_guard guard(the().mutex);
    const open_database *db = find(handle);
    return db == nullptr ? std::string{} : db->name;
}

sdb_handle add(open_database db)
{
    const std::lock_guard guard(the().mutex);
    for (std::size_t i = 0; i < the().open.size(); ++i) {
        open_database &place = the().open[i];
        // An owner registers again under the handle it has; each reader has one of its own, which closing gives back.
        if (db.owner ? place.owner && place.name == db.name : place.name.empty()) {
            place = std::move(db);
            return static_cast<sdb_handle>(i + 1);
        }
    }
    the().open.push_back(std::move(db));
    return static_cast<sdb_handle>(the().open.size());
}

void remember_context(open_database &db, std::uint32_t operation, byte_view key)
{
    std::ranges::fill(db.context, std::uint8_t{0});
    std::memcpy(&db.context[SDB_CONTEXT_NAME], db.name.data(), std::min(db.name.size(), SDB_CONTEXT_NAME_SIZE - 1));
    const auto length = static_cast<std::uint32_t>(key.size());
    std::memcpy(&db.context[SDB_CONTEXT_OPERATION], &operation, sizeof operation);
    std::memcpy(&db.context[SDB_CONTEXT_KEY_LENGTH], &length, sizeof length);
    std::memcpy(&db.context[SDB_CONTEXT_KEY], key.data(), key.size());
}

bool good(byte_view key, byte_view value)
{
    return !key.empty() && key.size() <= SDB_KEY_MAX && value.size() <= SDB_VALUE_MAX;
}

enum class queued : std::uint8_t { REFUSED, SENT, WAITS };

// A connection that takes nothing now is about to be lost or far behind: what is kept goes out with the next one, and
// until then everything behind it is kept too, so that the order stays.
queued queue_write(sdb_handle handle, bool write, byte_view key, byte_view value)
{
    const std::lock_guard guard(the().mutex);
    open_database *db = find(handle);
    if (db == nullptr || the().kept_bytes > KEPT_BYTES_MAX)
        return queued::REFUSED;
    kept_write w{++the().last_sequence, write ? SDB_WRITE : SDB_DELETE, {}};
    byte_writer request;
    request.put(w.sequence).text(db->name).blob(key);
    if (write)
        request.blob(value);
    w.request = request.take();
    remember_context(*db, write ? SDB_OPERATION_WRITE : SDB_OPERATION_DELETE, key);
    const bool sent = the().live && send_oneway_now(w.method, w.request, true) == 0;
    the().live = sent;
    the().kept_bytes += w.request.size();
    the().kept.push_back(std::move(w));
    return sent ? queued::SENT : queued::WAITS;
}

bool synced()
{
    return call(SDB_SYNC, {}).error == 0;
}

// While the database takes no writes each one asks how it went.
int change(sdb_handle handle, bool write, byte_view key, byte_view value)
{
    if (!good(key, value))
        return 0;
    start();
    const queued how = queue_write(handle, write, key, value);
    if (how == queued::REFUSED)
        return 0;
    if (how == queued::SENT && platform_settings().database_failed.load(std::memory_order_relaxed) != 0)
        return synced() && platform_settings().database_failed.load(std::memory_order_relaxed) == 0 ? 1 : 0;
    return 1;
}

byte_view view(const void *data, std::size_t length)
{
    return {static_cast<const std::uint8_t *>(data), length};
}

} // namespace

namespace corvane {

sdb_handle sdb_register(const char *name, std::uint32_t opcode, std::uint32_t change_opcode)
{
    start();
    open_database db;
    db.name = name;
    db.owner = true;
    db.opcode = opcode;
    db.change_opcode = change_opcode;
    if (call(SDB_REGISTER, registration(db)).error != 0)
        return 0;
    return add(std::move(db));
}

int sdb_queue_write(sdb_handle handle, byte_view key, byte_view value)
{
    return change(handle, true, key, value);
}

int sdb_queue_delete(sdb_handle handle, byte_view key)
{
    return change(handle, false, key, {});
}

void sdb_clear_own()
{
    std::vector<std::string> owned;
    {
        const std::lock_guard guard(the().mutex);
        for (const open_database &db : the().open)
            if (db.owner)
                owned.push_back(db.name);
    }
    for (const std::string &name : owned)
        (void)call(SDB_CLEAR, byte_writer().text(name).view());
}

bool sdb_is_message_of(const mbus_msg &msg)
{
    const std::uint32_t opcode = mbus_opc_get(msg);
    const std::lock_guard guard(the().mutex);
    return std::ranges::any_of(the().open, [&](const open_database &db) {
        return db.owner && opcode != 0 && (opcode == db.opcode || opcode == db.change_opcode);
    });
}

} // namespace corvane

sdb_handle sdb_open(const char *name)
{
    start();
    if (name == nullptr || call(SDB_OPEN, byte_writer().text(name).view()).error != 0)
        return 0;
    open_database db;
    db.name = name;
    return add(std::move(db));
}

void sdb_close(sdb_handle handle)
{
    const std::lock_guard guard(the().mutex);
    if (open_database *db = find(handle); db != nullptr)
        db->name.clear();
}

struct sdb_iterator {
    std::string name;
    std::vector<std::uint8_t> prefix, last;
    std::deque<std::pair<std::vector<std::uint8_t>, std::vector<std::uint8_t>>> page;
    bool ended = false;
    sdb_record record{};
};

namespace {

void read_page(sdb_iterator &it)
{
    const reply answer =
        call(SDB_PAGE,
             byte_writer().text(it.name).blob(it.prefix).blob(it.last).put(static_cast<std::uint32_t>(SDB_PAGE_MAX)).view());
    byte_reader in(answer.data);
    const auto count = answer.error == 0 ? in.get<std::uint32_t>() : 0;
    for (std::uint32_t i = 0; i < count && in.ok(); ++i) {
        const byte_view key = in.blob();
        const byte_view value = in.blob();
        if (in.ok())
            it.page.emplace_back(std::vector<std::uint8_t>(key.begin(), key.end()),
                                 std::vector<std::uint8_t>(value.begin(), value.end()));
    }
    it.ended = it.page.empty();
}

} // namespace

sdb_iterator_ptr sdb_iterator_create(sdb_handle handle, const void *prefix, std::size_t prefix_length)
{
    auto it = sdb_iterator_ptr(new sdb_iterator);
    it->name = name_of(handle);
    const byte_view bytes = view(prefix, prefix_length);
    it->prefix.assign(bytes.begin(), bytes.end());
    it->ended = it->name.empty();
    return it;
}

void sdb_iterator_deleter::operator()(sdb_iterator *iterator) const
{
    delete iterator;
}

const sdb_record *sdb_iterator_next(sdb_iterator &it)
{
    if (it.page.empty() && !it.ended)
        read_page(it);
    if (it.page.empty())
        return nullptr;
    const auto [key, value] = std::move(it.page.front());
    it.page.pop_front();
    it.record.key_length = std::min(key.size(), SDB_KEY_MAX);
    it.record.value_length = std::min(value.size(), SDB_VALUE_MAX);
    std::memcpy(it.record.key, key.data(), it.record.key_length);
    std::memcpy(it.record.value, value.data(), it.record.value_length);
    it.last = key;
    return &it.record;
}

int sdb_write(sdb_handle handle, const void *key, std::size_t key_length, const void *value, std::size_t value_length)
{
    return change(handle, true, view(key, key_length), view(value, value_length));
}

int sdb_delete(sdb_handle handle, const void *key, std::size_t key_length)
{
    return change(handle, false, view(key, key_length), {});
}

int sdb_get_context_len(sdb_handle handle, std::size_t *length)
{
    if (name_of(handle).empty())
        return 0;
    *length = SDB_CONTEXT_SIZE;
    return 1;
}

int sdb_set_context(sdb_handle handle, void *context, std::size_t length)
{
    const std::lock_guard guard(the().mutex);
    const open_database *db = find(handle);
    if (db == nullptr || context == nullptr)
        return 0;
    std::memcpy(context, db->context.data(), std::min(length, db->context.size()));
    return 1;
}

int sdb_write_done(sdb_handle handle)
{
    return !name_of(handle).empty() && synced() ? 1 : 0;
}

std::uint32_t fsrv_sdb_process_msg(mbus_q, mbus_msg &msg)
{
    // Change announcements are for the subscriber itself; what the database tells the owner is taken here.
    if (mbus_saddr_get(msg).sap != SDB_SAP || mbus_opc_get(msg) != SDB_OPC_REFUSED)
        return 0;
    std::size_t length = 0;
    const std::uint8_t *payload = mbus_payload_get(msg, &length);
    byte_reader in({payload, length});
    const std::string name = in.text();
    krel_syslog(3, "shared database %s takes no writes: they are kept and tried again", name.c_str());
    return SDB_MSG_HANDLED;
}
