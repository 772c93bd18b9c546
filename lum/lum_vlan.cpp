// VLAN port membership: which site ports a VLAN has, which of them get no flooded frames, and the port records that
// say how frames are tagged. Fed by the VLAN manager's replies and the interface manager's notifications, on the main
// thread.
#include "lum_private.h"

#include "lum_inlines.h"
#include "lum_msgs.h"
#include "vlanmgr.h"

std::array<lum_vlan, LUM_VLANS> lum_vlans;

namespace {

constexpr std::uint32_t MRD_TIMER_TYPE = 9;

void destroy_sets(lum_vlan &entry)
{
    bitfield_destroy(entry.ports);
    bitfield_destroy(entry.blocked);
    entry.ports = entry.blocked = nullptr;
}

bool create_sets(lum_vlan &entry)
{
    entry.ports = bitfield_create(lum_bf_attr, LUM_PORTS);
    entry.blocked = bitfield_create(lum_bf_attr, LUM_PORTS);
    if (entry.ports != nullptr && entry.blocked != nullptr)
        return true;
    destroy_sets(entry);
    return false;
}

} // namespace

void lum_vlan_vlandb_init(lum_vlan &entry, std::uint32_t vlan)
{
    entry.mrd_timer = active_timer_create(lum_at_set_heap, MRD_TIMER_TYPE, lum_process_mrd_timer, &entry);
    if (entry.mrd_timer == 0) {
        LUM_LOG(TIMER_FAILED, "MRD timer creation failed");
        return;
    }
    if (!create_sets(entry)) {
        active_timer_delete(entry.mrd_timer);
        entry.mrd_timer = 0;
        return;
    }
    entry.in_use = 1;
    entry.vlan = vlan;
    entry.mrd_enabled = 1;
    active_timer_start(entry.mrd_timer, 0, 0, 0, 0);
    entry.site_vlan = vlan == lum_svr.site_vlan ? 1 : 0;
}

void lum_vlan_vlandb_retire(lum_vlan &entry)
{
    destroy_sets(entry);
    entry.in_use = 0;
    entry.vlan = 0;
    entry.mrd_enabled = 0;
    active_timer_cancel(entry.mrd_timer);
    active_timer_delete(entry.mrd_timer);
    entry.mrd_timer = 0;
}

void lum_vlan_add_port(lum_vlan &entry, std::uint32_t iod)
{
    if (entry.ports != nullptr)
        bitfield_set(*entry.ports, iod);
}

void lum_vlan_delete_port(lum_vlan &entry, std::uint32_t iod)
{
    if (entry.ports != nullptr)
        bitfield_clear(*entry.ports, iod);
}

void lum_vlan_block_port(lum_vlan &entry, std::uint32_t iod)
{
    if (entry.blocked != nullptr)
        bitfield_set(*entry.blocked, iod);
}

// No caller, deliberate: a port that was blocked once stays so until its VLAN's entry is retired.
void lum_vlan_forward_port(lum_vlan &entry, std::uint32_t iod)
{
    if (entry.blocked != nullptr)
        bitfield_clear(*entry.blocked, iod);
}

bool lum_vlan_has_ports(const lum_vlan *entry)
{
    return entry != nullptr && entry->ports != nullptr && bitfield_count_set(*entry->ports) != 0;
}

namespace {

void trace_report(std::uint32_t iod, std::uint32_t vlan, std::uint32_t up, std::uint32_t trunk)
{
    if (lum_event_debug_flag == 0)
        return;
    lum_text name;
    intfmgr_get_if_short_name(iod, name.data(), name.size());
    LUM_TRACE_EVENT("VLAN %d %s on i/f %s, trunk %d", static_cast<int>(vlan), up != 0 ? "up" : "down", name.data(),
                    static_cast<int>(trunk));
}

lum_vlan *entry_in_use(std::uint32_t vlan)
{
    lum_vlan *entry = lum_vlan_entry(vlan);
    return entry != nullptr && entry->in_use != 0 ? entry : nullptr;
}

} // namespace

lum_port *lum_vlan_up_on_port(std::uint32_t iod, std::uint32_t vlan, std::uint32_t up, std::uint32_t trunk)
{
    trace_report(iod, vlan, up, trunk);
    lum_vlan *entry = entry_in_use(vlan);
    if (entry == nullptr)
        return nullptr;
    lum_vlan_add_port(*entry, iod);
    if (up == 0)
        lum_vlan_block_port(*entry, iod);

    lum_port *port = lum_get_from_pt(iod);
    if (port == nullptr)
        port = lum_add_to_pt(iod);
    if (port == nullptr)
        return nullptr;
    port->trunk = trunk != 0 ? 1 : 0;
    port->vlan = vlan;                       // on a trunk the last VLAN reported wins
    return port;
}

void lum_vlan_down_on_port(std::uint32_t iod, std::uint32_t vlan, std::uint32_t up, std::uint32_t trunk)
{
    trace_report(iod, vlan, up, trunk);
    lum_vlan *entry = entry_in_use(vlan);
    if (entry == nullptr)
        return;
    lum_vlan_delete_port(*entry, iod);
    // Also while other VLANs are up on the port, deliberate: the next up report makes the record again.
    if (lum_port *port = lum_get_from_pt(iod); port != nullptr)
        lum_delete_from_pt(port);
}

namespace {

void apply_l2_state(const intfmgr_l2_state &state) LUM_LOCKED;
void apply_l2_state(const intfmgr_l2_state &state)
{
    const std::uint32_t trunk = state.mode == INTFMGR_MODE_TRUNK ? 1 : 0;
    const std::uint32_t up = state.state == INTFMGR_L2_STATE_UP ? 1 : 0;
    for (std::uint32_t vlan = bitfield_find_first_set(*state.vlans_up); vlan != 0;
         vlan = bitfield_find_next_set(*state.vlans_up, vlan))
        static_cast<void>(lum_vlan_up_on_port(state.iod, vlan, up, trunk));
    for (std::uint32_t vlan = bitfield_find_first_set(*state.vlans_down); vlan != 0;
         vlan = bitfield_find_next_set(*state.vlans_down, vlan))
        lum_vlan_down_on_port(state.iod, vlan, up, trunk);
    lum_promiscuous(state.iod, up);
}

} // namespace

int lum_intfmgr_l2_protocol_state_change(mbus_msg &msg)
{
    LUM_TRACE_EVENT("Received L2 protocol state change notification");
    intfmgr_l2_state_iterator iterator;
    intfmgr_parse_l2_protocol_state_change_iterator_init(iterator, msg);
    intfmgr_l2_state state;
    while (intfmgr_parse_l2_protocol_state_change_iterate(iterator, state)) {
        plock_sched_may_yield();
        if (intfmgr_is_switchport(state.iod))
            apply_l2_state(state);
    }
    return 1;
}

int lum_vlan_query_ports(std::uint32_t vlan)
{
    vlan_memb_payload query;
    if (!vlan_get_per_vlan_memb_info_build_mbus_local(std::span{&vlan, 1}, query)) {
        LUM_TRACE_EVENT("Failed to build vlan mgr query ports message");
        return 0;
    }
    const int sent = mbus_send(lum_mbus_q, {.sap = VLANMGR_SAP}, VLANMGR_OPC_MEMBERSHIP, query.data, query.length, {});
    vlan_memb_payload_free(query);
    if (sent == -1) {
        LUM_TRACE_EVENT("Failed to send vlan mgr query ports message");
        return 0;
    }
    return 1;
}

namespace {

void add_member(const vlan_memb_pair &pair) LUM_LOCKED;
void add_member(const vlan_memb_pair &pair)
{
    const std::uint32_t iod = intfmgr_get_iod_frm_ifindex(pair.ifindex);
    if (iod == 0) {
        LUM_TRACE_EVENT("No iod for if_index %0x", pair.ifindex);
        return;
    }
    // A member only: how the port tags is told by its L2 state, which is announced behind the reply.
    if (lum_vlan *entry = entry_in_use(pair.vlan); entry != nullptr)
        lum_vlan_add_port(*entry, iod);
    else
        LUM_TRACE_EVENT("VLANDB not init'd for VLAN %d", static_cast<int>(pair.vlan));
}

} // namespace

void lum_vlan_set_ports(mbus_msg &msg)
{
    LUM_TRACE_EVENT("Received VLAN port query from VLAN Manager");
    static std::array<vlan_memb_pair, VLAN_MEMB_PAIRS_MAX> pairs;
    std::uint32_t vlan = 0;
    std::size_t count = 0;
    if (!vlan_get_per_vlan_memb_info_parse_reply_local(msg, vlan, pairs, count)) {
        LUM_TRACE_EVENT("Failed to parse vlan mgr query ports reply");
        return;
    }
    if (count == 0) {
        LUM_TRACE_EVENT("No ports in VLAN %d", static_cast<int>(vlan));
        return;
    }
    for (std::size_t i = count; i-- > 0;)
        add_member(pairs[i]);
    // Only this path releases the message; the loop's own drop then finds an empty handle.
    mbus_drop(lum_mbus_q, msg);
}
