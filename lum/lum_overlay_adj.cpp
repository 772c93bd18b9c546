// Adjacencies. Overlay adjacencies (edge devices of other sites) are published and announced, never kept. Site
// adjacencies (edge devices of our own site) are kept per overlay in the order of their system ids, because they elect,
// VLAN by VLAN, the authoritative edge device. Main thread, under the process lock.
#include "lum_msgs.h"
#include "lum_overlay.h"

#include "memacct.h"

#include <cstring>
#include <new>

namespace
{

using adj_key = std::array<std::uint8_t, LUM_SDB_KEY_SIZE>;
using adj_value = std::array<std::uint8_t, LUM_SDB_ADJ_SIZE>;

adj_key build_adj_key(std::uint32_t iod, const lum_addr &address)
{
    adj_key key{};
    wire_put_host<LUM_KEY_TYPE>(std::span{key}, static_cast<std::uint8_t>(LUM_SDB_ADJ));
    wire_put_host<LUM_KEY_OVERLAY_IOD>(std::span{key}, iod);
    if (address.kind == LUM_FAMILY_IPV4)
        std::memcpy(&key[LUM_KEY_ADJ_IPV4.at], address.body.data(), LUM_KEY_ADJ_IPV4.width);
    else if (address.kind == LUM_FAMILY_IPV6)
        std::memcpy(&key[LUM_KEY_ADJ_IPV6.at], address.body.data(), LUM_KEY_ADJ_IPV6.width);
    return key;
}

// The address record is a tagged address: its kind word is the family.
adj_value build_adj_value(std::uint32_t iod, const lum_system_id &id, const lum_addr &address, std::uint32_t tunnel_iod)
{
    static_assert(sizeof(lum_addr) == LUM_ADDRESS_SIZE);
    adj_value value{};
    wire_put_host<LUM_SDB_ADJ_IOD>(std::span{value}, iod);
    std::memcpy(&value[LUM_SDB_ADJ_ADDRESS.at], &address, LUM_SDB_ADJ_ADDRESS.width);
    wire_put_bytes<LUM_SDB_ADJ_SYSTEM_ID>(std::span{value}, id);
    wire_put_host<LUM_SDB_ADJ_TUNNEL>(std::span{value}, tunnel_iod);
    return value;
}

// Interface of the static tunnel to this address, 0 = none.
std::uint32_t tunnel_to(const lum_addr &address) LUM_LOCKED
{
    const lum_static_entry *tunnel = lum_get_static_tunnel(address);
    if (tunnel == nullptr)
        return 0;
    char name[sizeof tunnel->if_name + 1] = {};
    std::memcpy(name, tunnel->if_name, sizeof tunnel->if_name);
    const std::uint32_t iod = intfmgr_get_if_by_name(name);
    lum_text text;
    LUM_TRACE_INTERNAL("overlay_adj %s tunnel %lu %s", lum_print_addr(address, text), static_cast<unsigned long>(iod),
                       name);
    return iod;
}

// Which ordinal is authoritative for a VLAN among n edge devices.
std::uint32_t election_hash(std::uint32_t vlan, std::uint32_t n)
{
    return n == 0 ? 0 : ((vlan ^ vlan >> 8) & 0xFF) % n;
}

int compare_ids(const lum_system_id &a, const lum_system_id &b) { return std::memcmp(a.data(), b.data(), a.size()); }

// Links a record in front of `before`, at the tail when that is null.
void link_before(lum_overlay &overlay, lum_site_adj *adj, lum_site_adj *before)
{
    adj->next = before;
    adj->previous = before != nullptr ? before->previous : overlay.adj_tail;
    (adj->previous != nullptr ? adj->previous->next : overlay.adj_head) = adj;
    (before != nullptr ? before->previous : overlay.adj_tail) = adj;
    ++overlay.adj_count;
}

} // namespace

int lum_add_overlay_adj_internal(std::uint32_t iod, const lum_system_id &id, const lum_addr &address)
{
    lum_text name, sid, addr;
    LUM_TRACE_INTERNAL("Received add overlay_adj: %s sid %s, addr %s", lum_if_name(iod, name),
                       lum_print_mac(id.data(), sid), lum_print_addr(address, addr));
    const adj_key key = build_adj_key(iod, address);
    const adj_value value = build_adj_value(iod, id, address, tunnel_to(address));
    if (hakit_sdb_update(lum_sdb_handle, key.data(), key.size(), value.data(), value.size(), 1) == 0) {
        LUM_TRACE_INTERNAL("Overlay-adj SDB update failed\n");
        return 0;
    }
    lum_mcast_process_add_delete_adjacency();
    lum_send_overlay_adj_msg(value, LUM_OPC_OVERLAY_ADJ, false);
    return 1;
}

int lum_delete_overlay_adj_internal(std::uint32_t iod, const lum_system_id &id, const lum_addr &address)
{
    lum_text name, sid, addr;
    LUM_TRACE_INTERNAL("Received delete overlay_adj: %s sid %s, addr %s", lum_if_name(iod, name),
                       lum_print_mac(id.data(), sid), lum_print_addr(address, addr));
    const adj_key key = build_adj_key(iod, address);
    const adj_value value = build_adj_value(iod, id, address, 0);
    if (hakit_sdb_delete(lum_sdb_handle, key.data(), key.size()) == 0) {
        LUM_TRACE_INTERNAL("Overlay-adj SDB delete failed\n");
        return 0;
    }
    lum_mcast_process_add_delete_adjacency();
    lum_send_overlay_adj_msg(value, LUM_OPC_OVERLAY_ADJ, true);
    return 1;
}

int lum_add_site_adj_internal(std::uint32_t iod, const lum_system_id &id, std::uint32_t adder_value,
                              std::uint32_t local)
{
    lum_text name, sid;
    LUM_TRACE_INTERNAL("Received add site_adj: %s sid %s", lum_if_name(iod, name), lum_print_mac(id.data(), sid));
    lum_overlay *overlay = lum_get_overlay(iod);
    if (overlay == nullptr) {
        LUM_TRACE_INTERNAL("Site-adj update failed, no overlay for iod %lu\n", static_cast<unsigned long>(iod));
        return 0;
    }
    // Deliberate: an entry that is there keeps its local flag, and the election runs all the same.
    if (lum_get_site_adj(*overlay, id, nullptr) == nullptr) {
        lum_site_adj *adj = lum_create_site_adj(id);
        if (adj == nullptr)
            return 0;
        adj->adder_value = adder_value;
        adj->local = local;
        if (!lum_insert_site_adj(*overlay, adj)) {
            LUM_TRACE_INTERNAL("Site-adj update failed\n");
            lum_destroy_site_adj(adj);
            return 0;
        }
    }
    lum_recompute_aed(*overlay);
    return 1;
}

int lum_delete_site_adj_internal(std::uint32_t iod, const lum_system_id &id)
{
    lum_text name, sid;
    LUM_TRACE_INTERNAL("Received delete site_adj: %s sid %s", lum_if_name(iod, name), lum_print_mac(id.data(), sid));
    lum_overlay *overlay = lum_get_overlay(iod);
    if (overlay == nullptr) {
        LUM_TRACE_INTERNAL("Site-adj delete failed, no overlay for iod %lu\n", static_cast<unsigned long>(iod));
        return 0;
    }
    if (lum_site_adj *adj = lum_get_site_adj(*overlay, id, nullptr); adj != nullptr) {
        lum_remove_site_adj(*overlay, adj);
        lum_destroy_site_adj(adj);
    }
    lum_recompute_aed(*overlay);
    return 1;
}

lum_site_adj *lum_create_site_adj(const lum_system_id &id)
{
    void *memory = memacct_alloc(LUM_SERVICE, LUM_MEM_TYPE_ADJ, sizeof(lum_site_adj));
    if (memory == nullptr)
        return nullptr;
    lum_site_adj *adj = new (memory) lum_site_adj{};
    adj->system_id = id;
    return adj;
}

void lum_destroy_site_adj(lum_site_adj *adj) { memacct_free(LUM_SERVICE, LUM_MEM_TYPE_ADJ, adj); }

lum_site_adj *lum_get_site_adj(const lum_overlay &overlay, const lum_system_id &id, lum_site_adj **previous)
{
    lum_site_adj *before = nullptr;
    lum_site_adj *adj = overlay.adj_head;
    while (adj != nullptr && compare_ids(adj->system_id, id) < 0) {
        before = adj;
        adj = adj->next;
    }
    if (previous != nullptr)
        *previous = before;
    return adj != nullptr && adj->system_id == id ? adj : nullptr;
}

bool lum_insert_site_adj(lum_overlay &overlay, lum_site_adj *adj)
{
    lum_site_adj *at = overlay.adj_head;
    while (at != nullptr && compare_ids(at->system_id, adj->system_id) < 0)
        at = at->next;
    if (at == nullptr || at->system_id != adj->system_id)
        link_before(overlay, adj, at);
    return true;                 // also for a system id that is there: nothing is linked
}

void lum_remove_site_adj(lum_overlay &overlay, lum_site_adj *adj)
{
    (adj->previous != nullptr ? adj->previous->next : overlay.adj_head) = adj->next;
    (adj->next != nullptr ? adj->next->previous : overlay.adj_tail) = adj->previous;
    adj->next = adj->previous = nullptr;
    --overlay.adj_count;
}

void lum_reassign_ordinals(lum_overlay &overlay)
{
    std::uint32_t ordinal = 0;
    for (lum_site_adj *adj = overlay.adj_head; adj != nullptr; adj = adj->next) {
        adj->ordinal = ordinal++;
        if (adj->local != 0)
            overlay.local_ordinal = adj->ordinal;
    }
    // Deliberate: without a local entry the ordinal of before stays.
}

void lum_recompute_aed(lum_overlay &overlay)
{
    lum_reassign_ordinals(overlay);
    lum_walk_vlans(overlay, [&](std::uint32_t vlan) {
        plock_assert_held();
        lum_vlan &entry = lum_vlans[vlan];
        const bool aed = election_hash(vlan, overlay.adj_count) == overlay.local_ordinal;
        if ((entry.aed != 0) == aed)
            return;
        entry.aed = aed ? 1 : 0;
        lum_process_aed_change(overlay, entry);
        entry.notify = 1;
    });
    lum_send_vlan_notification();
}

void lum_process_aed_change(lum_overlay &, lum_vlan &entry) { lum_sdb_update_vlan(entry, 1); }

void lum_send_vlan_notification()
{
    static std::array<lum_vlan_triple, LUM_VLANS> triples;      // 48 KiB: too much for a thread's stack
    std::size_t count = 0;
    for (std::uint32_t vlan = 0; vlan < LUM_VLANS; ++vlan) {
        lum_vlan &entry = lum_vlans[vlan];
        if (entry.notify == 0)
            continue;
        entry.notify = 0;
        triples[count++] = {vlan, entry.overlay != nullptr ? entry.overlay->iod : 0, entry.aed};
    }
    lum_send_vlan_params_msg(std::span{triples}.first(count));
}
