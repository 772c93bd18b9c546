// HA kit, shared database, persistent store.
#include "fake_state.h"

#include <algorithm>
#include <cstring>

namespace fake {

namespace {

bytes copy(const void *data, std::size_t length)
{
    return bytes(std::span(static_cast<const std::uint8_t *>(data), length));
}

// Handles are places in a list of names, counted from 1. A name keeps its handle.
std::uint32_t handle_of(std::vector<std::string> &names, const std::string &name)
{
    const auto found = std::ranges::find(names, name);
    if (found != names.end())
        return static_cast<std::uint32_t>(found - names.begin()) + 1;
    names.push_back(name);
    return static_cast<std::uint32_t>(names.size());
}

const std::string *name_of(const std::vector<std::string> &names, std::uint32_t handle)
{
    return handle == 0 || handle > names.size() ? nullptr : &names[handle - 1];
}

int write(const char *call, std::uint32_t handle, const bytes &key, const bytes &value, int create)
{
    note(call, handle, key, value.size());
    const std::string *name = name_of(platform.impl().databases, handle);
    const bool refused = refuse(call) || name == nullptr || key.size() > SDB_KEY_MAX || value.size() > SDB_VALUE_MAX;
    platform.sdb_writes.push_back({name == nullptr ? "" : *name, key, value, false, refused, create});
    if (!refused)
        platform.sdb[*name][key] = value;
    return refused ? 0 : 1;
}

int erase(const char *call, std::uint32_t handle, const bytes &key)
{
    note(call, handle, key);
    const std::string *name = name_of(platform.impl().databases, handle);
    const bool refused = refuse(call) || name == nullptr;
    platform.sdb_writes.push_back({name == nullptr ? "" : *name, key, {}, true, refused, 0});
    if (!refused)
        platform.sdb[*name].erase(key);
    return refused ? 0 : 1;
}

} // namespace

const bytes *platform_object::sdb_value(const bytes &key) const
{
    for (const auto &[name, records] : sdb)
        if (const auto found = records.find(key); found != records.end())
            return &found->second;
    return nullptr;
}

} // namespace fake

using namespace fake;

std::uint32_t hakit_get_start_reason() { return platform.start_reason; }

const char *hakit_start_type_str(std::uint32_t reason)
{
    return reason == 1 ? "cold start" : reason == 2 ? "restart" : "switchover";
}
const char *hakit_stop_type_str(std::uint32_t reason) { return reason == 1 ? "requested" : "other"; }
const char *hakit_syserr2str(std::uint32_t status) { return status == 0 ? "success" : "failure"; }

int hakit_get_rsw_sched_policy(std::uint32_t /*service*/) { return platform.sched_policy; }

bool hakit_set_sched_policy_priority(std::uint32_t policy, std::uint32_t priority)
{
    note("hakit_set_sched_policy_priority", policy, priority);
    return !refuse("hakit_set_sched_policy_priority");
}

bool hakit_is_chassis_ferrix() { return platform.chassis_ferrix; }

const char *hakit_get_name_from_uuid(std::uint32_t service)
{
    const auto found = platform.service_names.find(service);
    return found == platform.service_names.end() ? "unknown" : found->second.c_str();
}

bool hakit_should_yield() { return platform.should_yield; }

bool hakit_ha_register_pstore(std::uint32_t kind, const char *name)
{
    note("hakit_ha_register_pstore", kind, name);
    return !refuse("hakit_ha_register_pstore");
}

hakit_sdb hakit_ha_register_sdb(std::uint32_t kind, const char *name, std::uint32_t opcode1, std::uint32_t opcode2)
{
    note("hakit_ha_register_sdb", kind, name, opcode1, opcode2);
    if (refuse("hakit_ha_register_sdb"))
        return 0;
    platform.ha_opcodes.insert({opcode1, opcode2});
    return handle_of(platform.impl().databases, name);
}

bool hakit_ha_api_init(const hakit_ha_params &params)
{
    note("hakit_ha_api_init");
    if (refuse("hakit_ha_api_init"))
        return false;
    platform.ha_params = params;
    return true;
}

void hakit_ha_api_close() { note("hakit_ha_api_close"); }
int hakit_ha_dispatch(mbus_msg &msg) { return platform.ha_opcodes.contains(mbus_opc_get(msg)) ? 0 : -1; }

int hakit_ha_recovery_done(std::uint32_t status)
{
    note("hakit_ha_recovery_done", status);
    return refuse("hakit_ha_recovery_done") ? errno : 0;
}

void hakit_ha_disable_all()
{
    note("hakit_ha_disable_all");
    platform.ha_disabled = true;
}

void hakit_ha_enable_debug() { note("hakit_ha_enable_debug"); }
void hakit_ha_disable_debug() { note("hakit_ha_disable_debug"); }

int hakit_sdb_update(hakit_sdb handle, const void *key, std::size_t key_length, const void *value,
                     std::size_t value_length, int create)
{
    return write("hakit_sdb_update", handle, copy(key, key_length), copy(value, value_length), create);
}

int hakit_sdb_delete(hakit_sdb handle, const void *key, std::size_t key_length)
{
    return erase("hakit_sdb_delete", handle, copy(key, key_length));
}

sdb_handle sdb_open(const char *name)
{
    note("sdb_open", name);
    state &s = platform.impl();
    const bool known = platform.sdb.contains(name) || std::ranges::find(s.databases, name) != s.databases.end();
    return refuse("sdb_open") || !known ? 0 : handle_of(s.databases, name);
}

void sdb_close(sdb_handle handle) { note("sdb_close", handle); }

struct sdb_iterator {
    std::string database;
    bytes prefix;
    bytes last;
    bool started = false;
    sdb_record record{};
};

void sdb_iterator_deleter::operator()(sdb_iterator *iterator) const { delete iterator; }

sdb_iterator_ptr sdb_iterator_create(sdb_handle handle, const void *prefix, std::size_t prefix_length)
{
    const std::string *name = name_of(platform.impl().databases, handle);
    if (refuse("sdb_iterator_create") || name == nullptr)
        return nullptr;
    auto made = std::make_unique<sdb_iterator>();
    made->database = *name;
    made->prefix = copy(prefix, prefix_length);
    return sdb_iterator_ptr(made.release());
}

const sdb_record *sdb_iterator_next(sdb_iterator &iterator)
{
    const std::map<bytes, bytes> &records = platform.sdb[iterator.database];
    const auto at = iterator.started ? records.upper_bound(iterator.last) : records.lower_bound(iterator.prefix);
    if (at == records.end() || at->first.size() < iterator.prefix.size() ||
        !std::equal(iterator.prefix.begin(), iterator.prefix.end(), at->first.begin()))
        return nullptr;
    iterator.started = true;
    iterator.last = at->first;
    std::ranges::copy(at->first, iterator.record.key);
    iterator.record.key_length = at->first.size();
    std::ranges::copy(at->second, iterator.record.value);
    iterator.record.value_length = at->second.size();
    return &iterator.record;
}

int sdb_write(sdb_handle handle, const void *key, std::size_t key_length, const void *value, std::size_t value_length)
{
    return write("sdb_write", handle, copy(key, key_length), copy(value, value_length), 0);
}

int sdb_delete(sdb_handle handle, const void *key, std::size_t key_length)
{
    return erase("sdb_delete", handle, copy(key, key_length));
}

int sdb_get_context_len(sdb_handle handle, std::size_t *length)
{
    note("sdb_get_context_len", handle);
    if (refuse("sdb_get_context_len") || name_of(platform.impl().databases, handle) == nullptr)
        return 0;
    *length = 100;
    return 1;
}

int sdb_set_context(sdb_handle handle, void *context, std::size_t length)
{
    note("sdb_set_context", handle, length);
    if (refuse("sdb_set_context") || name_of(platform.impl().databases, handle) == nullptr)
        return 0;
    std::memset(context, 0, length);
    return 1;
}

int sdb_write_done(sdb_handle handle)
{
    note("sdb_write_done", handle);
    return refuse("sdb_write_done") || name_of(platform.impl().databases, handle) == nullptr ? 0 : 1;
}

std::uint32_t fsrv_sdb_process_msg(mbus_q /*queue*/, mbus_msg &msg)
{
    return platform.sdb_client_opcodes.contains(mbus_opc_get(msg)) ? SDB_MSG_HANDLED : 0;
}

pstore_handle pstore_open(const char *name)
{
    note("pstore_open", name);
    return refuse("pstore_open") ? 0 : handle_of(platform.impl().stores, name);
}

void pstore_close(pstore_handle handle) { note("pstore_close", handle); }

int pstore_write(pstore_handle handle, const void *key, std::size_t key_length, const void *value,
                 std::size_t value_length)
{
    const std::string *name = name_of(platform.impl().stores, handle);
    if (refuse("pstore_write") || name == nullptr)
        return 0;
    platform.pstore[*name][copy(key, key_length)] = copy(value, value_length);
    return 1;
}

long pstore_read(pstore_handle handle, const void *key, std::size_t key_length, void *value, std::size_t size)
{
    const std::string *name = name_of(platform.impl().stores, handle);
    if (refuse("pstore_read") || name == nullptr)
        return -1;
    const auto &records = platform.pstore[*name];
    const auto found = records.find(copy(key, key_length));
    if (found == records.end())
        return -1;
    const std::size_t length = std::min(size, found->second.size());
    if (length != 0)
        std::memcpy(value, found->second.data(), length);
    return static_cast<long>(found->second.size());
}

int pstore_delete(pstore_handle handle, const void *key, std::size_t key_length)
{
    const std::string *name = name_of(platform.impl().stores, handle);
    if (refuse("pstore_delete") || name == nullptr)
        return 0;
    return platform.pstore[*name].erase(copy(key, key_length)) != 0 ? 1 : 0;
}
