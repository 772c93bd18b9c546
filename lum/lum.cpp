// Main message loop: every control message of the daemon is received, offered to the platform's dispatchers and handed
// to its handler by opcode. Thread "lum-ipc-thread"; the process lock is given up only while it waits.
#include "lum_private.h"

#include "drops.h"
#include "evhist.h"
#include "lum_inlines.h"
#include "lum_msgs.h"
#include "svcmgr.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

mbus_msg lum_pending_msg;
std::uint32_t lum_pending_msg_count;

namespace {

struct adjacency {
    std::uint32_t iod = 0, site = 0, extra = 0;
    lum_system_id system_id{};
    lum_addr address;
};

bool read_adjacency(const mbus_msg &msg, adjacency &adj)
{
    std::size_t length = 0;
    const std::uint8_t *payload = mbus_payload_get(msg, &length);
    if (payload == nullptr || length < LUM_ADJ_REQUEST_SIZE) {
        drop_count(drop_reason::BUS_MALFORMED);
        LUM_TRACE_INTERNAL("Adjacency message of %d bytes is too short\n", static_cast<int>(length));
        return false;
    }
    adj.iod = wire_host32(payload + LUM_ADJ_REQUEST_IOD.at);
    std::copy_n(payload + LUM_ADJ_REQUEST_SYSTEM_ID.at, adj.system_id.size(), adj.system_id.begin());
    std::memcpy(&adj.address, payload + LUM_ADJ_REQUEST_ADDRESS.at, sizeof adj.address);
    adj.site = wire_host32(payload + LUM_ADJ_REQUEST_SITE.at);
    adj.extra = wire_host32(payload + LUM_ADJ_REQUEST_LOCAL.at);
    return true;
}

int add_adjacency(mbus_msg &msg) LUM_LOCKED;
int add_adjacency(mbus_msg &msg)
{
    adjacency adj;
    if (!read_adjacency(msg, adj))
        return LUM_DONE;
    if (adj.site != 0)
        lum_add_site_adj_internal(adj.iod, adj.system_id, 0, adj.extra);
    else
        lum_add_overlay_adj_internal(adj.iod, adj.system_id, adj.address);
    return LUM_DONE;
}

int delete_adjacency(mbus_msg &msg) LUM_LOCKED;
int delete_adjacency(mbus_msg &msg)
{
    adjacency adj;
    if (!read_adjacency(msg, adj))
        return LUM_DONE;
    if (adj.site != 0)
        lum_delete_site_adj_internal(adj.iod, adj.system_id);
    else
        lum_delete_overlay_adj_internal(adj.iod, adj.system_id, adj.address);
    return LUM_DONE;
}

int control_event_history(mbus_msg &msg)
{
    return evhist_process_msg(lum_mbus_q, msg) == 0 ? LUM_DONE : LUM_NOT_HANDLED;
}

int clean_up_conditionally(mbus_msg &)
{
    return svcmgr_conditional_srv_cleanup(0);
}

// These three are reported as not handled although their work is done, deliberate: the loop logs and drops them.
int set_vlan_ports(mbus_msg &msg) LUM_LOCKED;
int set_vlan_ports(mbus_msg &msg)
{
    lum_vlan_set_ports(msg);
    return LUM_NOT_HANDLED;
}
int change_l2_state(mbus_msg &msg) LUM_LOCKED;
int change_l2_state(mbus_msg &msg)
{
    lum_intfmgr_l2_protocol_state_change(msg);
    return LUM_NOT_HANDLED;
}
int leave_to_sdb_client(mbus_msg &)
{
    return LUM_NOT_HANDLED;
}

int notify_of_route_table(mbus_msg &)
{
    return lum_mcast_process_rtab_notify() != 0 ? LUM_DONE : LUM_NOT_HANDLED;
}

struct lum_opcode {
    std::int32_t opcode;
    int (*handle)(mbus_msg &msg);
};
constexpr auto lum_opcodes = std::to_array<lum_opcode>({
    {0x000B9, control_event_history},
    {0x009F2, clean_up_conditionally},
    {0x022DD, lum_handle_featmgr_enable_msg},
    {0x022DE, lum_handle_featmgr_disable_msg},
    {0x05C0C, set_vlan_ports},
    {0x0F403, lum_process_if_create_msg},
    {0x0F404, lum_process_if_delete_msg},
    {0x0F407, change_l2_state},
    {0x0F408, lum_process_l3_state_change_msg},
    {0x0F414, lum_process_l3_param_change_msg},
    {0x13404, lum_process_overlay_delete_notify_msg},
    {0x1340A, add_adjacency},
    {0x1340B, delete_adjacency},
    {0x1340C, lum_process_send_packet_msg},
    {0x1340D, leave_to_sdb_client},
    {0x1340E, leave_to_sdb_client},
    {0x13806, notify_of_route_table},
    {0x14C01, lum_process_ip_msg},
});
static_assert(std::ranges::is_sorted(lum_opcodes, {}, &lum_opcode::opcode));

int report_unknown(std::int32_t opcode)
{
    LUM_LOG(UNKNOWN_LUM_MAJOR, opcode);
    return LUM_NOT_HANDLED;
}

} // namespace

int lum_dispatch(mbus_msg &msg)
{
    const auto opcode = static_cast<std::int32_t>(mbus_opc_get(msg));
    if (const std::uint32_t event = mbus_sync_event_get(msg); event != 0) {
        LUM_TRACE_INTERNAL("Received MBUS sync message, opcde %d, event %d\n", opcode, static_cast<int>(event));
        return LUM_DONE;
    }
    const auto row = std::ranges::lower_bound(lum_opcodes, opcode, {}, &lum_opcode::opcode);
    if (row != lum_opcodes.end() && row->opcode == opcode)
        return row->handle(msg);
    drop_count(drop_reason::BUS_UNKNOWN_OPCODE);
    return report_unknown(opcode);
}

namespace {

// The first of the platform's dispatchers that knows the message settles it; else it is the daemon's own.
int handle(mbus_msg &msg) LUM_LOCKED;
int handle(mbus_msg &msg)
{
    constexpr std::uint32_t HISTORY_KIND_RECEIVED = 3;
    evhist_hist_mbus_event(HISTORY_KIND_RECEIVED, msg);
    if (const int result = svcmgr_dispatch(msg); result != LUM_NOT_HANDLED)
        return result;
    if (fsrv_sdb_process_msg(lum_mbus_q, msg) == SDB_MSG_HANDLED)
        return LUM_DONE;
    if (const int result = hakit_ha_dispatch(msg); result != LUM_NOT_HANDLED)
        return result;

    const auto opcode = static_cast<std::int32_t>(mbus_opc_get(msg));
    LUM_TRACE_INTERNAL("Received MBUS message with opcode %d from SAP %d", opcode,
                       static_cast<int>(mbus_saddr_get(msg).sap));
    const int result = lum_dispatch(msg);
    return result == LUM_NOT_HANDLED ? report_unknown(opcode) : result;
}

void drop(mbus_msg &msg)
{
    if (mbus_drop(lum_mbus_q, msg) == -1)
        LUM_LOG(MBUS_DROP, std::strerror(errno));
}

enum class receive_result { MESSAGE, NOTHING, UNBINDING };

receive_result receive(mbus_msg &msg) LUM_LOCKED;
receive_result receive(mbus_msg &msg)
{
    plock_before_yield();
    const int received = mbus_recv(lum_mbus_q, msg);
    const int error = errno;
    plock_after_yield();
    if (received != -1)
        return receive_result::MESSAGE;
    return mbus_is_pre_unbind(lum_mbus_q) && error == EPIPE ? receive_result::UNBINDING : receive_result::NOTHING;
}

} // namespace

void *lum_main(void *)
{
    plock_acquire_process_lock();
    mbus_msg msg{};
    int previous = LUM_KEEP;
    for (;;) {
        plock_sched_may_yield();
        if (previous != LUM_KEEP)
            drop(msg);
        const receive_result received = receive(msg);
        if (received == receive_result::UNBINDING)
            break;
        previous = received == receive_result::MESSAGE ? handle(msg) : LUM_KEEP;
    }
    LUM_TRACE_INTERNAL("Draining MBUS lum_mbus_q\n");
    plock_release_process_lock();
    return nullptr;
}
