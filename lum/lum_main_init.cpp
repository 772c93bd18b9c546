// The initialisation steps of start-up, in their order. Runs on the process's first thread, before any other.
#include "lum_private.h"

#include "lum_msgs.h"
#include "lum_packet.h"
#include "memacct.h"
#include "svcmgr.h"

#include <cerrno>
#include <cstring>

corvane_pthread_attr lum_thread_attr;
pthread_t lum_ipc_thread;
std::uint32_t lum_ipc_thread_exists;

bool lum_init_plock()
{
    plock_proc_attr attr;
    bool ready = plock_proc_attr_init(attr);
    attr.service = LUM_SERVICE;
    ready = ready && plock_init_proc(attr);
    if (!ready) {
        LUM_LOG(API_FAILED, "plock_init_proc()");
        return false;
    }
    LUM_TRACE_INTERNAL("PLOCK lock initialized");
    return true;
}

bool lum_init_bitfields()
{
    bitfield_set_attr(lum_bf_attr, 0, 0, 0);
    return true;
}

bool lum_init_pt()
{
    constexpr std::uint32_t IOD_KEY_SIZE = 4;
    lum_pt_attr = pt_attr_create(0, 0, IOD_KEY_SIZE);
    if (lum_pt_attr == 0)
        return false;
    pt_init(lum_interface_pt, lum_pt_attr);
    return true;
}

bool lum_init_memacct()
{
    static std::array<const char *, LUM_MEM_TYPE_MAX> names;
    for (std::uint32_t type = 0; type < names.size(); ++type)
        names[type] = __lum_mem_type_t_find(type);
    memacct_init("Lumivar", LUM_SERVICE, names);
    memacct_ignore_alloc_abort(1);
    LUM_TRACE_INTERNAL("memacct initialized");
    return true;
}

bool lum_init_mbus()
{
    const mbus_q_attr attr{.version = 1, .flag = {0, 0}, .depth = 1024, .reserved = {}, .priority = 15, .service = 0};
    lum_mbus_q = mbus_bind(1, LUM_MAIN_SAP, attr, "LUM MBUS queue");
    if (lum_mbus_q == MBUS_Q_INVALID) {
        LUM_LOG(MBUS_BIND, "main mbus-q", std::strerror(errno));
        return false;
    }
    LUM_TRACE_INTERNAL("MBUS initialized");
    return true;
}

namespace {

struct opcode_registration {
    std::uint32_t opcode, option, traced_as;
};
constexpr auto OPCODE_REGISTRATIONS = std::to_array<opcode_registration>({
    {0xF407, 16, 0xF407},
    {0x5C0C, 17, 0x5C0C},
    {0x1340E, 3, 0x1340A},       // the trace names the next opcode, deliberate
    {0x1340A, 17, 0x1340A},
    {0x1340B, 17, 0x1340B},
});

} // namespace

bool lum_register_opcodes()
{
    for (const opcode_registration &row : OPCODE_REGISTRATIONS)
        if (mbus_options_set(lum_mbus_q, row.opcode, row.option) < 0) {
            LUM_TRACE_INTERNAL("ERROR: Could not register opcode 0x%x, reason %s", row.traced_as,
                               std::strerror(errno));
            return false;
        }
    LUM_TRACE_INTERNAL("Registered for MBUS messages");
    return true;
}

namespace {

int compare_overlay_iods(const void *key1, const void *key2)
{
    std::uint32_t first, second;
    std::memcpy(&first, key1, sizeof first);
    std::memcpy(&second, key2, sizeof second);
    if (first == second)
        return AVLT_EQUAL;
    return first > second ? AVLT_GREATER : AVLT_SMALLER;
}

} // namespace

bool lum_init_ds()
{
    constexpr std::uint32_t IOD_SIZE = 4;
    if (!avlt_init(lum_svr.overlays, IOD_SIZE, AVLT_NODE_SIZE, compare_overlay_iods)) {
        LUM_LOG(INIT_FAIL, "overlay avlt init");
        return false;
    }
    lum_svr.pt_attr10 = pt_attr_create(0, 1, 10);
    lum_svr.pt_attr4 = pt_attr_create(0, 1, 4);
    lum_svr.pt_attr16 = pt_attr_create(0, 1, 16);
    lum_svr.site_vlan = 0;
    return true;
}

namespace {

bool timer_failure(const char *what)
{
    LUM_LOG(TIMER_FAILED, what);
    return false;
}

bool api_failure(const char *call)
{
    LUM_LOG(API_FAILED, call);
    return false;
}

} // namespace

bool lum_init_timers()
{
    constexpr std::uint32_t WHEEL_SIZE = 4, HEAP_SIZE = 8, LEARN_TIMER_TYPE = 9;
    if (!active_timer_init(0))
        return timer_failure("start timer thread");
    lum_at_set_wheel = active_timer_new_set_init(WHEEL_SIZE);
    if (lum_at_set_wheel == 0)
        return timer_failure("initialize wheel timer set");
    lum_at_set_heap = active_timer_new_set_init(HEAP_SIZE);
    if (lum_at_set_heap == 0)
        return timer_failure("initialize heap timer set");
    lum_learn_timer = active_timer_create(lum_at_set_heap, LEARN_TIMER_TYPE, lum_process_learn_timer, nullptr);
    if (lum_learn_timer == 0)
        return api_failure("active_timer_create() for lum_learn_timer");
    active_timer_start(lum_learn_timer, LUM_LEARN_PERIOD_S, 0, 0, 0);
    lum_set_next_age_time();
    LUM_TRACE_INTERNAL("Initialized with timer library");
    return true;
}

bool lum_init_ha()
{
    constexpr std::uint32_t PSTORE_KIND = 1, SDB_KIND = 2, SDB_OPCODE1 = 0x1340D, SDB_OPCODE2 = 0x1340E;
    if (!hakit_ha_register_pstore(PSTORE_KIND, "data"))
        return api_failure("Could not register PSTORE with hakit_ha");
    lum_sdb_handle = hakit_ha_register_sdb(SDB_KIND, "lum_sdb_info", SDB_OPCODE1, SDB_OPCODE2);
    LUM_TRACE_INTERNAL("PSTORE initialized");
    hakit_ha_params params;
    params.switchover = lum_switchover;
    params.switchover_done = lum_switchover_done;
    if (!hakit_ha_api_init(params))
        return api_failure("hakit_ha_api_init()");
    LUM_TRACE_INTERNAL("Stateful HA initialized");
    return true;
}

bool lum_init_svcmgr()
{
    constexpr std::uint32_t HEARTBEAT_TIMER_TYPE = 5, FIRST = 1;
    static_cast<void>(svcmgr_handshake(lum_mbus_q, LUM_SERVICE));
    if (!svcmgr_conditional_srv_was_handshake_done() && svcmgr_condition_verified(0, 0))
        return false;
    lum_heartbeat_timer =
        active_timer_create(lum_at_set_wheel, HEARTBEAT_TIMER_TYPE, lum_process_heartbeat_timer, nullptr);
    if (lum_heartbeat_timer == 0)
        return api_failure("active_timer_create in lum_init_svcmgr()");
    svcmgr_heartbeat(FIRST);
    active_timer_start(lum_heartbeat_timer, 0, 0, 0, 0);
    return true;
}

namespace {

bool start_main_thread()
{
    corvane_pthread_attr_init(lum_thread_attr);
    if (corvane_pthread_create(lum_ipc_thread, &lum_thread_attr, lum_main, nullptr, "lum-ipc-thread") != 0) {
        LUM_LOG(PTHREAD_FAILED);
        return false;
    }
    lum_ipc_thread_exists = 1;
    return true;
}

} // namespace

bool lum_init()
{
    lum_chassis_ferrix = hakit_is_chassis_ferrix() ? 1 : 0;
    lum_init_encap_headers();
    lum_init_bitfields();
    if (!lum_init_pt() || !lum_init_memacct() || !lum_init_mbus() || !lum_register_opcodes() || !lum_init_ds() ||
        !lum_init_timers() || !lum_init_ha())
        return false;
    if (!lum_init_svcmgr())
        api_failure("lum_init_svcmgr()");    // start-up goes on, deliberate: an edge forwards also unwatched
    lum_request_component_notifications(lum_sup_state_active);
    return start_main_thread();
}
