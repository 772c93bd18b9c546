// Command handlers, by the names under which the command server knows them. Each is called on the command thread with
// the process lock held and returns CLI_DONE, CLI_REJECTED after it has printed why, or CLI_NO_MEMORY.
#pragma once

#include "lum_private.h"

extern const cli_version_block lum_version_block;

// ---- lum_ui_show*
int lum_show_overlay_cmd(cli_cmd *cmd);
int lum_show_overlay_adj_cmd(cli_cmd *cmd);
int lum_show_interface_cmd(cli_cmd *cmd);        // CLI_STOPPED when the user stops the output
int lum_show_vlan_cmd(cli_cmd *cmd);
int lum_show_internal_sdb_cmd(cli_cmd *cmd);
int lum_show_arp_nd_cache_cmd(cli_cmd *cmd);
int lum_show_site_cmd(cli_cmd *cmd);
int launcher_show_process_version_cmd(cli_cmd *cmd);

using lum_overlay_printer = void (*)(cli_cmd *cmd, const lum_overlay *overlay);
// Prints every overlay in ascending order of the iods until the user stops the output.
void lum_show_overlay_walker(cli_cmd *cmd, lum_overlay_printer print) LUM_LOCKED;
// Prints the overlay that the command names, which may be none, or walks all when it names none.
void lum_show_selected_overlays(cli_cmd *cmd, lum_overlay_printer print) LUM_LOCKED;
void lum_show_one_overlay_site_adjs(cli_cmd *cmd, const lum_overlay *overlay);

// ---- lum_ui_config*
int lum_vpn_name_cmd(cli_cmd *cmd);
int lum_vpn_ext_if_cmd(cli_cmd *cmd);
int lum_vpn_mgroup_addr_cmd(cli_cmd *cmd);
int lum_vpn_encap_format_cmd(cli_cmd *cmd);
int lum_vpn_vlan_cmd(cli_cmd *cmd);
int lum_vpn_site_vlan_cmd(cli_cmd *cmd);
int lum_vlan_cmd(cli_cmd *cmd);
int lum_auth_election_cmd(cli_cmd *cmd);
int lum_anycast_arp_cmd(cli_cmd *cmd);
int lum_filter_fhrp_cmd(cli_cmd *cmd);
int lum_suppress_arp_cmd(cli_cmd *cmd);
int lum_core_group_cmd(cli_cmd *cmd);

// ---- lum_ui_static*
int lum_route_cmd(cli_cmd *cmd);
int lum_mroute_cmd(cli_cmd *cmd);
int lum_static_tunnel_cmd(cli_cmd *cmd);
int lum_rtab_command(cli_cmd *cmd);

// Static MAC routes, a queue in the order in which they were configured. Lookups by MAC do not grow with its length.
lum_static_entry *lum_first_static_route(const lum_mac_info &mac) LUM_LOCKED;
lum_static_entry *lum_next_static_route(const lum_static_entry *entry) LUM_LOCKED;   // of the same MAC, in queue order
lum_static_entry *lum_get_static_route(const lum_mac_info &mac, const lum_addr &next_hop) LUM_LOCKED;
std::uint32_t lum_get_static_ecmp(const lum_mac_info &mac) LUM_LOCKED;       // routes of this MAC
lum_static_entry *lum_add_static_route(const lum_mac_info &mac, const lum_addr &next_hop, const char *if_name)
    LUM_LOCKED;                                                              // null: no memory
void lum_delete_static_route(const lum_mac_info &mac, const lum_addr &next_hop) LUM_LOCKED;
void lum_remove_static_route(lum_static_entry *entry) LUM_LOCKED;            // unlinks and frees it
// The first route that this command would make: by its next hop, else by the interface's name, which may have had
// another iod then, or none. Otherwise a route whose interface is gone could not be taken back.
lum_static_entry *lum_get_static_route_as_entered(const lum_mac_info &mac, const lum_addr &next_hop,
                                                  const char *if_name) LUM_LOCKED;
bool lum_static_entry_has_name(const lum_static_entry &entry, const char *if_name);
lum_static_entry *lum_add_static_tunnel(const lum_addr &address, const char *if_name) LUM_LOCKED;
void lum_delete_static_tunnel(const lum_addr &address) LUM_LOCKED;

// One update of the route table each. An added unicast route carries all its static next hops, the given one last.
void lum_add_to_rtab(const lum_mac_info &mac, const lum_addr &next_hop, bool multicast) LUM_LOCKED;
void lum_delete_from_rtab(const lum_mac_info &mac, const lum_addr &next_hop) LUM_LOCKED;
void lum_add_ip_to_rtab(const lum_mac_info &mac, std::uint32_t source, std::uint32_t group, std::uint32_t iod);
void lum_delete_ip_from_rtab(const lum_mac_info &mac, std::uint32_t source, std::uint32_t group, std::uint32_t iod);

// ---- lum_ui_debug
int lum_debug_packet_command(cli_cmd *cmd);
int lum_debug_learn_command(cli_cmd *cmd);
int lum_debug_internal_command(cli_cmd *cmd);
int lum_debug_event_command(cli_cmd *cmd);
int lum_debug_arp_nd_command(cli_cmd *cmd);
