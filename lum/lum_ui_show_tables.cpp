// Show commands of ports, VLANs, the ARP/ND caches, and of what was published to the shared database. The formats are
// an interface: scripts parse them. Command thread; walks give the process lock up between rows.
#include "lum_ui.h"

#include "lum_inlines.h"
#include "lum_overlay.h"

#include <cstdio>
#include <cstring>

namespace
{

constexpr std::size_t PORTS_PER_LINE = 6;

void print_port(cli_cmd *cmd, const lum_port &port)
{
    lum_text name;
    cli_cmd_printf(cmd, "%-15s", lum_if_name(port.iod, name));
    if (port.trunk != 0)
        cli_cmd_printf(cmd, "trunk-port\n");
    else
        cli_cmd_printf(cmd, "%-4d\n", static_cast<int>(port.vlan));
}

// Six ports a line. Deliberate: a list whose length is no multiple of six ends without a newline, any other (the empty
// one too) with one more.
void print_vlan_ports(cli_cmd *cmd, const bitfield &ports)
{
    std::size_t count = 0;
    cli_cmd_printf(cmd, "    ");
    for (std::uint32_t iod = bitfield_find_first_set(ports); iod != 0; iod = bitfield_find_next_set(ports, iod)) {
        lum_text name;
        cli_cmd_printf(cmd, "%s  ", lum_if_name(iod, name));
        if (++count % PORTS_PER_LINE == 0)
            cli_cmd_printf(cmd, "\n");
    }
    if (count % PORTS_PER_LINE == 0)
        cli_cmd_printf(cmd, "\n");
}

void print_vlan(cli_cmd *cmd, std::uint32_t vlan, const lum_vlan &entry, bool detail)
{
    char counts[50];
    std::snprintf(counts, sizeof counts, "%d/%d", static_cast<int>(bitfield_count_set(*entry.ports)),
                  static_cast<int>(bitfield_count_set(*entry.blocked)));
    cli_cmd_printf(cmd, "%-9d%-15s", static_cast<int>(vlan), counts);
    const lum_overlay *overlay = entry.overlay;
    if (overlay == nullptr) {
        cli_cmd_printf(cmd, "\n");
        return;
    }
    lum_text group;
    const bool ipv4 = overlay->encap_family == LUM_FAMILY_IPV4;
    cli_cmd_printf(cmd, "%-10s%-11s%-15s%s\n", overlay->vpn_name, overlay->if_name, overlay->ext_if[0].name,
                   ipv4 ? lum_print_ipv4(lum_overlay_ipv4_group(*overlay), group)
                        : lum_print_ipv6(lum_overlay_ipv6_group(*overlay), group));
    if (detail)
        print_vlan_ports(cmd, *entry.ports);
}

// One overlay's cache. False: the user has stopped the output. The overlay may go during a yield, so only its iod is
// kept across one.
bool print_cache(cli_cmd *cmd, std::uint32_t iod) LUM_LOCKED
{
    const lum_overlay *overlay = lum_get_overlay(iod);
    void *at = overlay != nullptr ? pt_first(overlay->arp_nd_cache) : nullptr;
    while (at != nullptr) {
        const auto &entry = *static_cast<const lum_arp_nd_entry *>(at);
        lum_arp_nd_key key;
        lum_build_key_for_arp_nd_cache(key, entry.mac.vlan, entry.address);
        char elapsed[32];
        lum_text mac, address;
        cli_cmd_printf(cmd, "%-22s%-10s%s\n", lum_print_mac_info(entry.mac, mac),
                       timestamp_elapsed_str(entry.created, elapsed, sizeof elapsed),
                       lum_print_addr(entry.address, address));
        if (!cli_more_output(cmd))
            return false;
        if (plock_sched_may_yield()) {
            plock_sched_yield();
            overlay = lum_get_overlay(iod);
        }
        at = overlay != nullptr ? pt_next(overlay->arp_nd_cache, key.data()) : nullptr;
    }
    return true;
}

// Reads the records of one type, those of another size left out, until `print` says that the user has enough.
template <class Print> void walk_records(lum_sdb_type type, std::size_t size, Print print)
{
    const sdb_iterator_ptr iterator = lum_sdb_iterator_init(0, type, 0);
    if (iterator == nullptr)
        return;
    while (const sdb_record *record = lum_sdb_iterator_get_next(*iterator)) {
        if (record->value_length == size && !print(record->value))
            return;
    }
}

lum_addr adj_address(const std::uint8_t *value)
{
    lum_addr address;
    std::memcpy(&address, value + LUM_SDB_ADJ_ADDRESS.at, sizeof address);
    return address;
}

void print_adj_header(cli_cmd *cmd, std::uint32_t iod)
{
    lum_text name;
    cli_cmd_printf(cmd, "\nOverlay-Interface %s :\n", lum_if_name(iod, name));
    cli_cmd_printf(cmd, "%-20s %-40s %s\n", "System-ID", "Address", "Tunnel-IOD");
}

bool dump_overlay_record(cli_cmd *cmd, const std::uint8_t *value)
{
    char name[LUM_NAME_SIZE];
    std::memcpy(name, value + LUM_SDB_OVERLAY_VPN_NAME.at, sizeof name);
    name[sizeof name - 1] = '\0';
    // The raw field: two words stand in front of the part of the address that is published.
    ipv6_address group6;
    std::memcpy(group6.data(), value + LUM_SDB_OVERLAY_IPV6_GROUP.at, group6.size());
    lum_text text4, text6;
    cli_cmd_printf(cmd, "Overlay iod: %u, name: %s, state: %d, Reason: %d\n",
                   wire_host32(value + LUM_SDB_OVERLAY_IOD.at), name,
                   static_cast<int>(wire_host32(value + LUM_SDB_OVERLAY_STATE.at)),
                   static_cast<int>(wire_host32(value + LUM_SDB_OVERLAY_REASON.at)));
    cli_cmd_printf(cmd, "External iod: %u\n", wire_host32(value + LUM_SDB_OVERLAY_EXT_IODS.at));
    cli_cmd_printf(cmd, "IPv4 group: %s, IPv6 group: %s\n",
                   lum_print_ipv4(wire_host32(value + LUM_SDB_OVERLAY_IPV4_GROUP.at), text4),
                   lum_print_ipv6(group6, text6));
    return cli_more_output(cmd);
}

bool dump_adj_record(cli_cmd *cmd, const std::uint8_t *value)
{
    lum_text mac, address;
    cli_cmd_printf(cmd, "iod: %u, mac: %s, %s\n", wire_host32(value + LUM_SDB_ADJ_IOD.at),
                   lum_print_mac(value + LUM_SDB_ADJ_SYSTEM_ID.at, mac), lum_print_addr(adj_address(value), address));
    return cli_more_output(cmd);
}

} // namespace

int lum_show_overlay_adj_cmd(cli_cmd *cmd)
{
    plock_assert_held();
    cli_cmd_printf(cmd, "Overlay Adjacency database\n");
    bool first = true;
    std::uint32_t current = 0;
    walk_records(LUM_SDB_ADJ, LUM_SDB_ADJ_SIZE, [&](const std::uint8_t *value) {
        const std::uint32_t iod = wire_host32(value + LUM_SDB_ADJ_IOD.at);
        if (first || iod != current)
            print_adj_header(cmd, iod);
        first = false;
        current = iod;
        lum_text mac, address;
        cli_cmd_printf(cmd, "%-20s %-40s %10u\n", lum_print_mac(value + LUM_SDB_ADJ_SYSTEM_ID.at, mac),
                       lum_print_addr(adj_address(value), address), wire_host32(value + LUM_SDB_ADJ_TUNNEL.at));
        return cli_more_output(cmd);
    });
    return CLI_DONE;
}

int lum_show_interface_cmd(cli_cmd *cmd)
{
    plock_assert_held();
    cli_cmd_printf(cmd, "LUM Switchport Information\n");
    cli_cmd_printf(cmd, "Interface      VLAN ID\n");
    void *at = pt_first(lum_interface_pt);
    while (at != nullptr) {
        const lum_port port = *static_cast<const lum_port *>(at);
        print_port(cmd, port);
        if (!cli_more_output(cmd))
            return CLI_STOPPED;
        if (plock_sched_may_yield())
            plock_sched_yield();
        std::array<std::uint8_t, 4> key;         // ports are kept in ascending order of their iods
        wire_set_be32(key.data(), port.iod);
        at = pt_next(lum_interface_pt, key.data());
    }
    return CLI_DONE;
}

int lum_show_vlan_cmd(cli_cmd *cmd)
{
    plock_assert_held();
    const bool detail = cli_is_set(cmd, "detail"), authoritative = cli_is_set(cmd, "authoritative");
    cli_cmd_printf(cmd, "LUM VLAN Configuration Information\n");
    cli_cmd_printf(cmd, "VLAN-ID  Switchport/    VPN Name  Overlay    External       Overlay\n"
                        "         Blocked Count            Interface  Interface      Group\n");
    for (std::uint32_t vlan = 0; vlan < LUM_VLANS; ++vlan) {
        const lum_vlan &entry = lum_vlans[vlan];
        if (entry.in_use == 0 || (authoritative && entry.aed == 0))
            continue;
        print_vlan(cmd, vlan, entry, detail);
        if (!cli_more_output(cmd))
            break;
    }
    return CLI_DONE;
}

int lum_show_arp_nd_cache_cmd(cli_cmd *cmd)
{
    plock_assert_held();
    cli_cmd_printf(cmd, "LUM ARP/ND L3->L2 Address Mapping Cache\n");
    avlt_iterator iterator;
    avlt_iterator_init(iterator, lum_svr.overlays);
    for (;;) {
        avlt_pre_sched_yield(iterator);
        const avlt_node *node = avlt_next(iterator);
        if (node == nullptr)
            break;
        cli_cmd_printf(cmd, "VLAN/MAC Address      Uptime    Layer-3 Address\n");
        if (!print_cache(cmd, reinterpret_cast<const lum_overlay *>(node)->iod) || !cli_more_output(cmd))
            break;
    }
    return CLI_DONE;
}

int lum_show_internal_sdb_cmd(cli_cmd *cmd)
{
    plock_assert_held();
    if (cli_is_set(cmd, "overlay"))
        walk_records(LUM_SDB_OVERLAY, LUM_SDB_OVERLAY_SIZE,
                     [&](const std::uint8_t *value) { return dump_overlay_record(cmd, value); });
    else if (cli_is_set(cmd, "adjacency"))
        walk_records(LUM_SDB_ADJ, LUM_SDB_ADJ_SIZE,
                     [&](const std::uint8_t *value) { return dump_adj_record(cmd, value); });
    return CLI_DONE;
}
