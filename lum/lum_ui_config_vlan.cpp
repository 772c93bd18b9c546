// Configuration commands of VLANs: those an overlay carries, the site VLAN, membership of a port. Command thread, under
// the process lock.
#include "lum_ui.h"

#include "lum_inlines.h"
#include "lum_overlay.h"

#include <bitset>

namespace
{

using vlan_set = std::bitset<LUM_VLANS>;

// VLANs that a command has changed, for the notification.
struct vlan_changes {
    std::array<lum_vlan_triple, LUM_VLANS> triple;
    std::size_t count = 0;
    void add(std::uint32_t vlan, std::uint32_t iod, std::uint32_t aed) { triple[count++] = {vlan, iod, aed}; }
};

// False after it has said why the ranges are refused. In the "no" form the set stays empty, whatever was given.
bool read_ranges(cli_cmd *cmd, bool enable, vlan_set &wanted)
{
    cli_vlan_ranges ranges;
    if (!cli_get_vlan_mrange(cmd, "<vlan-range>", ranges)) {
        cli_cmd_printf(cmd, "Error in getting vlan range\n");
        return false;
    }
    if (ranges.count > LUM_VLAN_RANGES) {
        cli_cmd_printf(cmd, "Too many vlan ranges\n");
        return false;
    }
    for (std::uint32_t i = 0; enable && i < ranges.count; ++i) {
        for (std::uint32_t vlan = ranges.ranges[i].first; vlan <= ranges.ranges[i].last && vlan < LUM_VLANS; ++vlan)
            wanted.set(vlan);
    }
    return true;
}

void extend_vlan(lum_overlay &overlay, std::uint32_t vlan, vlan_changes &changes) LUM_LOCKED
{
    lum_vlan &entry = lum_vlans[vlan];
    if (entry.in_use == 0)
        lum_vlan_vlandb_init(entry, vlan);
    bitfield_set(*overlay.vlans, vlan);
    entry.overlay = &overlay;
    ++overlay.vlan_refcount;
    lum_sdb_update_vlan(entry, 1);
    changes.add(vlan, overlay.iod, entry.aed);
    lum_vlan_query_ports(vlan);
}

void withdraw_vlan(lum_overlay &overlay, std::uint32_t vlan, vlan_changes &changes) LUM_LOCKED
{
    lum_vlan &entry = lum_vlans[vlan];
    bitfield_clear(*overlay.vlans, vlan);
    entry.overlay = nullptr;
    --overlay.vlan_refcount;
    lum_sdb_update_vlan(entry, 0);
    changes.add(vlan, 0, 0);
    if (entry.in_use != 0 && !lum_vlan_has_ports(&entry))
        lum_vlan_vlandb_retire(entry);
}

// What lum_vlan_cmd may have to put back.
struct port_before {
    bool vlan_in_use, member, known;
    lum_port port;
};

port_before remember_port(std::uint32_t iod, const lum_vlan *entry) LUM_LOCKED
{
    const lum_port *port = lum_get_from_pt(iod);
    const bool in_use = entry != nullptr && entry->in_use != 0;
    return {in_use, in_use && bitfield_test(*entry->ports, iod), port != nullptr, port != nullptr ? *port : lum_port{}};
}

void leave_vlan(std::uint32_t iod, lum_vlan &entry) LUM_LOCKED
{
    lum_vlan_delete_port(entry, iod);
    if (!lum_vlan_has_ports(&entry))
        lum_vlan_vlandb_retire(entry);
}

// A rejected command leaves nothing behind.
void restore_port(std::uint32_t iod, lum_vlan *entry, const port_before &before) LUM_LOCKED
{
    if (lum_port *port = lum_get_from_pt(iod); port != nullptr && before.known)
        *port = before.port;
    else if (port != nullptr)
        lum_delete_from_pt(port);
    if (entry == nullptr || entry->in_use == 0 || before.member)
        return;
    lum_vlan_delete_port(*entry, iod);
    if (!before.vlan_in_use)
        lum_vlan_vlandb_retire(*entry);
}

// `entry` is null for a trunk port, which joins its VLANs by the platform's reports.
int add_port(std::uint32_t iod, std::uint32_t vlan, lum_vlan *entry, bool trunk) LUM_LOCKED
{
    const port_before before = remember_port(iod, entry);
    lum_port *port = lum_get_from_pt(iod);
    if (port == nullptr)
        port = lum_add_to_pt(iod);
    if (port == nullptr)
        return CLI_NO_MEMORY;
    if (entry != nullptr) {
        if (entry->in_use == 0)
            lum_vlan_vlandb_init(*entry, vlan);
        if (entry->in_use != 0)
            lum_vlan_add_port(*entry, iod);
    }
    port->trunk = trunk ? 1 : 0;
    port->vlan = vlan;
    if (lum_promiscuous(iod, 1) != 0)
        return CLI_DONE;
    restore_port(iod, entry, before);
    return CLI_REJECTED;         // deliberate: without a message
}

int remove_port(std::uint32_t iod, lum_vlan *entry) LUM_LOCKED
{
    if (entry != nullptr && entry->in_use != 0)
        leave_vlan(iod, *entry);
    if (lum_port *port = lum_get_from_pt(iod); port != nullptr)
        lum_delete_from_pt(port);
    lum_promiscuous(iod, 0);     // the port may be gone, which is no reason to keep its configuration
    return CLI_DONE;
}

} // namespace

// Deliberate: the plain form replaces the overlay's whole set, and the "no" form empties it whatever ranges it names.
int lum_vpn_vlan_cmd(cli_cmd *cmd)
{
    plock_assert_held();
    lum_overlay *overlay = lum_cli_mode_overlay(cmd);
    if (overlay == nullptr) {
        cli_cmd_printf(cmd, "No such overlay\n");
        return CLI_REJECTED;
    }
    vlan_set wanted;
    if (!read_ranges(cmd, !cli_noed(cmd), wanted))
        return CLI_REJECTED;
    static vlan_changes changes;                 // 48 KiB: too much for a thread's stack
    changes.count = 0;
    for (std::uint32_t vlan = 0; vlan < LUM_VLANS; ++vlan) {
        const bool carried = bitfield_test(*overlay->vlans, vlan);
        if (wanted[vlan] && !carried)
            extend_vlan(*overlay, vlan, changes);
        else if (!wanted[vlan] && carried)
            withdraw_vlan(*overlay, vlan, changes);
    }
    lum_update_overlay_vlans(*overlay);
    lum_send_vlan_params_msg(std::span{changes.triple}.first(changes.count));
    return CLI_DONE;
}

// Deliberate: a new site VLAN leaves the mark of the old one in place.
int lum_vpn_site_vlan_cmd(cli_cmd *cmd)
{
    plock_assert_held();
    const bool enable = !cli_noed(cmd);
    std::uint32_t vlan = lum_svr.site_vlan;
    if (enable)
        static_cast<void>(cli_get_integer(cmd, "<vlan-id>", vlan));
    lum_svr.site_vlan = enable ? vlan : 0;
    lum_vlan *entry = lum_vlan_entry(vlan);
    if (entry == nullptr || entry->in_use == 0)
        return CLI_DONE;
    entry->site_vlan = enable ? 1 : 0;
    lum_sdb_update_geninfo();
    lum_sdb_update_vlan(*entry, 1);
    return CLI_DONE;
}

int lum_vlan_cmd(cli_cmd *cmd)
{
    plock_assert_held();
    const bool enable = !cli_noed(cmd);
    const std::uint32_t iod = cli_get_mode_iod(cmd);
    if (!intfmgr_is_switchport(iod) && !intfmgr_is_lum_tunnel(iod)) {
        if (!enable)
            return CLI_DONE;
        cli_cmd_printf(cmd, "LUM can be configured on switchports only\n");
        return CLI_REJECTED;
    }
    std::uint32_t vlan = 0;
    static_cast<void>(cli_get_integer(cmd, "<vlan-id>", vlan));
    const bool trunk = cli_is_set(cmd, "trunk-port");
    if (vlan >= LUM_VLANS)
        return CLI_REJECTED;     // the grammar lets none through
    lum_vlan *entry = trunk ? nullptr : lum_vlan_entry(vlan);
    return enable ? add_port(iod, vlan, entry, trunk) : remove_port(iod, entry);
}
