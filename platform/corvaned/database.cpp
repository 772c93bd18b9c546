// Persistent state: one SQLite file in WAL mode. What was committed survives the end of any process at any moment.
#include "database.h"

#include "loop.h"
#include "rpc.h"
#include "shm.h"

#include <ctime>
#include <map>
#include <memory>
#include <sqlite3.h>

namespace corvaned {
namespace {

struct statement_closer {
    void operator()(sqlite3_stmt *s) const { sqlite3_finalize(s); }
};
using statement = std::unique_ptr<sqlite3_stmt, statement_closer>;

struct table_statements {
    statement put, erase, get, range;
};

struct database_state {
    sqlite3 *db = nullptr;
    bool grouped = false;
    std::uint64_t failed_commits = 0;
    std::map<std::string, table_statements> tables;
};

database_state &state()
{
    static database_state the_database;
    return the_database;
}

std::string file_path()
{
    return opts().state + "/corvane.db";
}

bool run(const char *sql)
{
    return sqlite3_exec(state().db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

bool open_file()
{
    if (sqlite3_open_v2(file_path().c_str(), &state().db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) != SQLITE_OK)
        return false;
    sqlite3_busy_timeout(state().db, 2000);
    return run("PRAGMA journal_mode=WAL") && run("PRAGMA synchronous=NORMAL") && run("PRAGMA quick_check") &&
           run("CREATE TABLE IF NOT EXISTS corvane_schema (version INTEGER)");
}

// A damaged file is kept for whoever wants to look at it; the platform starts with a fresh one.
void set_aside()
{
    const std::string aside = file_path() + ".damaged-" + std::to_string(std::time(nullptr));
    sqlite3_close(state().db);
    state().db = nullptr;
    std::rename(file_path().c_str(), aside.c_str());
    std::rename((file_path() + "-wal").c_str(), (aside + "-wal").c_str());
    std::rename((file_path() + "-shm").c_str(), (aside + "-shm").c_str());
    log_line(2, "the database was damaged; it was set aside as " + aside + " and a new one is used");
}

std::string quoted(const std::string &name)
{
    std::string result = "\"";
    for (const char c : name)
        result += c == '"' ? std::string("\"\"") : std::string(1, c);
    return result + "\"";
}

statement prepare(const std::string &sql)
{
    sqlite3_stmt *raw = nullptr;
    if (state().db == nullptr || sqlite3_prepare_v3(state().db, sql.c_str(), static_cast<int>(sql.size()),
                                                    SQLITE_PREPARE_PERSISTENT, &raw, nullptr) != SQLITE_OK)
        log_line(2, std::string("database: ") + (state().db == nullptr ? "not open" : sqlite3_errmsg(state().db)));
    return statement(raw);
}

table_statements &of_table(const std::string &name)
{
    table_statements &t = state().tables[name];
    if (t.put != nullptr)
        return t;
    const std::string table = quoted(name);
    run(("CREATE TABLE IF NOT EXISTS " + table + " (key BLOB PRIMARY KEY, value BLOB NOT NULL) WITHOUT ROWID").c_str());
    t.put = prepare("INSERT INTO " + table + " (key, value) VALUES (?1, ?2) ON CONFLICT (key) DO UPDATE SET value = ?2");
    t.erase = prepare("DELETE FROM " + table + " WHERE key = ?1");
    t.get = prepare("SELECT value FROM " + table + " WHERE key = ?1");
    t.range = prepare("SELECT key, value FROM " + table + " WHERE key >= ?1 AND key > ?2 ORDER BY key LIMIT ?3");
    return t;
}

void bind(sqlite3_stmt *s, int at, byte_view bytes)
{
    // An empty blob, not NULL.
    const void *data = bytes.empty() ? static_cast<const void *>("") : bytes.data();
    sqlite3_bind_blob(s, at, data, static_cast<int>(bytes.size()), SQLITE_STATIC);
}

std::vector<std::uint8_t> column(sqlite3_stmt *s, int at)
{
    const auto *data = static_cast<const std::uint8_t *>(sqlite3_column_blob(s, at));
    return {data, data + sqlite3_column_bytes(s, at)};
}

bool execute(sqlite3_stmt *s)
{
    if (s == nullptr)
        return false;
    const int result = sqlite3_step(s);
    sqlite3_reset(s);
    sqlite3_clear_bindings(s);
    if (result != SQLITE_DONE)
        log_line(2, std::string("database: ") + sqlite3_errmsg(state().db));
    platform().database_failed = result == SQLITE_DONE ? 0 : 1;
    return result == SQLITE_DONE;
}

} // namespace

bool database_open(std::string &why)
{
    if (!open_file()) {
        const int code = sqlite3_errcode(state().db) & 0xFF;
        why = file_path() + ": " + sqlite3_errmsg(state().db);
        if (code != SQLITE_CORRUPT && code != SQLITE_NOTADB)
            return false;
        set_aside();
        if (!open_file()) {
            why = file_path() + ": " + sqlite3_errmsg(state().db);
            return false;
        }
    }
    return true;
}

void database_close()
{
    database_commit();
    state().tables.clear();
    sqlite3_close(state().db);
    state().db = nullptr;
}

void database_group()
{
    if (!state().grouped && state().db != nullptr)
        state().grouped = run("BEGIN IMMEDIATE");
}

bool database_commit()
{
    if (!state().grouped)
        return true;
    state().grouped = false;
    if (run("COMMIT"))
        return true;
    log_line(2, std::string("database: ") + sqlite3_errmsg(state().db));
    run("ROLLBACK");
    platform().database_failed = 1;
    ++state().failed_commits;
    return false;
}

std::uint64_t database_failed_commits()
{
    return state().failed_commits;
}

void database_start()
{
    before_answers([] { database_commit(); });
    at_turn_end([] { database_commit(); });
}

kv_store::kv_store(std::string name) : table(std::move(name)) {}

bool kv_store::put(byte_view key, byte_view value)
{
    sqlite3_stmt *s = of_table(table).put.get();
    bind(s, 1, key);
    bind(s, 2, value);
    return execute(s);
}

bool kv_store::erase(byte_view key)
{
    sqlite3_stmt *s = of_table(table).erase.get();
    bind(s, 1, key);
    return execute(s) && sqlite3_changes(state().db) != 0;
}

bool kv_store::get(byte_view key, std::vector<std::uint8_t> &value)
{
    sqlite3_stmt *s = of_table(table).get.get();
    if (s == nullptr)
        return false;
    bind(s, 1, key);
    const bool found = sqlite3_step(s) == SQLITE_ROW;
    if (found)
        value = column(s, 0);
    sqlite3_reset(s);
    sqlite3_clear_bindings(s);
    return found;
}

std::vector<kv_store::record> kv_store::range(byte_view prefix, byte_view after, std::size_t limit)
{
    std::vector<record> result;
    sqlite3_stmt *s = of_table(table).range.get();
    if (s == nullptr)
        return result;
    // Keys are never empty, so "greater than the empty key" is no limit.
    bind(s, 1, prefix);
    bind(s, 2, after);
    sqlite3_bind_int64(s, 3, static_cast<sqlite3_int64>(limit));
    while (sqlite3_step(s) == SQLITE_ROW) {
        record r{column(s, 0), column(s, 1)};
        if (r.key.size() < prefix.size() || !std::equal(prefix.begin(), prefix.end(), r.key.begin()))
            break;
        result.push_back(std::move(r));
    }
    sqlite3_reset(s);
    sqlite3_clear_bindings(s);
    return result;
}

} // namespace corvaned
