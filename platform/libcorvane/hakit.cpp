// HA kit: what a process asks of its platform at start, its shared database and persistent store, and the callbacks of
// a switchover.
#include "hakit.h"

#include "client.h"
#include "evhist_ring.h"
#include "plock_batch.h"
#include "pstore.h"
#include "runtime/shared_memory.h"
#include "sdb_client.h"
#include "svcmgr.h"
#include "syslog_client.h"

#include "../wire/svcmgr.h"

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <sched.h>

namespace {

using namespace corvane;

constexpr int HANDLED = 0, NOT_HANDLED = -1;

struct named_number {
    std::uint32_t number;
    const char *text;
};

constexpr auto start_types = std::to_array<named_number>({
    {START_REASON_COLD, "cold start"},
    {START_REASON_RESTART, "restart"},
    {START_REASON_SWITCHOVER, "switchover"},
    {START_REASON_STANDBY, "start of a standby"},
});
constexpr auto stop_types = std::to_array<named_number>({
    {STOP_REASON_REQUEST, "process request"},
    {STOP_REASON_SHUTDOWN, "platform shutdown"},
    {STOP_REASON_RESTART, "restart"},
    {STOP_REASON_SWITCHOVER, "switchover"},
});
constexpr auto service_names = std::to_array<named_number>({
    {SVC_CMDSRV, "cmdsrv"}, {SVC_PKTMGR, "pktmgr"}, {SVC_IP, "ip"},           {SVC_IPV6, "ipv6"},
    {SVC_UDP, "udp"},       {SVC_IGMP, "igmp"},     {SVC_INTFMGR, "intfmgr"}, {SVC_VRFMGR, "vrfmgr"},
    {SVC_LUM, "lum"},       {SVC_RTAB, "rtab"},     {SVC_SVCMGR, "svcmgr"},   {SVC_SDB, "sdb"},
    {SVC_FEATMGR, "featmgr"},
});

template <std::size_t N> const char *text_of(const std::array<named_number, N> &table, std::uint32_t number)
{
    for (const named_number &row : table)
        if (row.number == number)
            return row.text;
    return "unknown";
}

hakit_ha_params params;
std::atomic<bool> open_for_callbacks{false}, debugging{false};
std::atomic<pstore_handle> debug_elements{0};

void note(const char *what)
{
    if (debugging)
        krel_syslog(2, "HA kit: %s", what);
}

int call_back(int (*callback)())
{
    if (open_for_callbacks && callback != nullptr)
        callback();
    return HANDLED;
}

byte_view view(const void *data, std::size_t length)
{
    return {static_cast<const std::uint8_t *>(data), length};
}

} // namespace

bool hakit_evhist_init(std::uint32_t entries, const char *name, const char *, std::uint32_t max_element,
                       const char *facility)
{
    return evhist_open(entries, name, max_element, facility);
}

void hakit_evhist_close()
{
    evhist_close();
}

void hakit_evhist_set_elem(cli_cmd *, std::uint32_t element, std::uint32_t value)
{
    if (debug_elements == 0)
        debug_elements = pstore_open("debug-elements");
    (void)pstore_write(debug_elements, &element, sizeof element, &value, sizeof value);
}

std::uint32_t hakit_get_start_reason()
{
    const reply answer = call(SVCMGR_INFO, {});
    byte_reader in(answer.data);
    (void)in.get<std::uint32_t>();
    const auto reason = in.get<std::uint32_t>();
    return answer.error == 0 && in.ok() ? reason : START_REASON_COLD;
}

const char *hakit_start_type_str(std::uint32_t reason)
{
    return text_of(start_types, reason);
}

const char *hakit_stop_type_str(std::uint32_t reason)
{
    return text_of(stop_types, reason);
}

const char *hakit_syserr2str(std::uint32_t status)
{
    return status == 0 ? "success" : std::strerror(static_cast<int>(status));
}

int hakit_get_rsw_sched_policy(std::uint32_t)
{
    return std::getenv("CORVANE_REALTIME") != nullptr || platform_settings().sched_realtime.load() != 0 ? 1 : 0;
}

bool hakit_set_sched_policy_priority(std::uint32_t policy, std::uint32_t priority)
{
    sched_param parameters{};
    parameters.sched_priority = static_cast<int>(priority);
    return sched_setscheduler(0, policy == 1 ? SCHED_FIFO : SCHED_OTHER, &parameters) == 0;
}

bool hakit_is_chassis_ferrix()
{
    return platform_settings().chassis.load() == static_cast<std::uint32_t>(chassis_kind::FERRIX);
}

const char *hakit_get_name_from_uuid(std::uint32_t service)
{
    return text_of(service_names, service);
}

bool hakit_should_yield()
{
    return plock_slice_used();
}

bool hakit_ha_register_pstore(std::uint32_t, const char *name)
{
    return pstore_open(name) != 0;
}

hakit_sdb hakit_ha_register_sdb(std::uint32_t, const char *name, std::uint32_t opcode1, std::uint32_t opcode2)
{
    return sdb_register(name, opcode1, opcode2);
}

bool hakit_ha_api_init(const hakit_ha_params &given)
{
    params = given;
    open_for_callbacks = true;
    return true;
}

void hakit_ha_api_close()
{
    open_for_callbacks = false;
}

int hakit_ha_dispatch(mbus_msg &msg)
{
    const std::uint32_t opcode = mbus_opc_get(msg);
    if (mbus_saddr_get(msg).sap == HAKIT_SAP && opcode == HAKIT_OPC_SWITCHOVER) {
        note("switchover");
        return call_back(params.switchover);
    }
    if (mbus_saddr_get(msg).sap == HAKIT_SAP && opcode == HAKIT_OPC_SWITCHOVER_DONE) {
        note("switchover done");
        if (open_for_callbacks && params.switchover_done != nullptr)
            params.switchover_done();
        return HANDLED;
    }
    return sdb_is_message_of(msg) ? HANDLED : NOT_HANDLED;
}

int hakit_ha_recovery_done(std::uint32_t status)
{
    return call(SVCMGR_RECOVERY_DONE, byte_writer().put(status).view()).error;
}

// What the one that was active left in the database is not trusted: this process publishes everything anew.
void hakit_ha_disable_all()
{
    note("disabled");
    sdb_clear_own();
}

void hakit_ha_enable_debug()
{
    debugging = true;
}

void hakit_ha_disable_debug()
{
    debugging = false;
}

int hakit_sdb_update(hakit_sdb handle, const void *key, std::size_t key_length, const void *value,
                     std::size_t value_length, int)
{
    return sdb_queue_write(handle, view(key, key_length), view(value, value_length));
}

int hakit_sdb_delete(hakit_sdb handle, const void *key, std::size_t key_length)
{
    return sdb_queue_delete(handle, view(key, key_length));
}
