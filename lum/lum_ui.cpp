// Registration of the command handlers with the command server, and the overlay that a command's mode stands for.
#include "lum_ui.h"

#include "lum_msgs.h"

#include <array>

namespace
{

constexpr char CLIENT[] = "lum";

struct command {
    const char *name;
    cli_handler handler;
};

// In the order in which they are registered. The names are the command server's, also where ours would differ.
constexpr auto commands = std::to_array<command>({
    {"lum_show_overlay_cmd", lum_show_overlay_cmd},
    {"lum_show_overlay_adj_cmd", lum_show_overlay_adj_cmd},
    {"lum_show_interface_cmd", lum_show_interface_cmd},
    {"lum_show_vlan_cmd", lum_show_vlan_cmd},
    {"lum_show_internal_sdb_cmd", lum_show_internal_sdb_cmd},
    {"lum_show_arp_nd_cache_cmd", lum_show_arp_nd_cache_cmd},
    {"lum_show_site_cmd", lum_show_site_cmd},
    {"launcher_show_process_version_cmd", launcher_show_process_version_cmd},
    {"lum_vpn_name_cmd", lum_vpn_name_cmd},
    {"lum_vpn_ext_if_cmd", lum_vpn_ext_if_cmd},
    {"lum_vpn_mgroup_addr_cmd", lum_vpn_mgroup_addr_cmd},
    {"lum_vpn_encap_format_cmd", lum_vpn_encap_format_cmd},
    {"lum_vpn_vlan_cmd", lum_vpn_vlan_cmd},
    {"lum_vpn_site_vlan_cmd", lum_vpn_site_vlan_cmd},
    {"lum_vlan_cmd", lum_vlan_cmd},
    {"lum_auth_election_cmd", lum_auth_election_cmd},
    {"lum_route_cmd", lum_route_cmd},
    {"lum_mroute_cmd", lum_mroute_cmd},
    {"lum_static_tunnel_cmd", lum_static_tunnel_cmd},
    {"lum_anycast_arp_cmd", lum_anycast_arp_cmd},
    {"lum_filter_fhrp_cmd", lum_filter_fhrp_cmd},
    {"lum_suppress_arp_cmd", lum_suppress_arp_cmd},
    {"lum_core_group_cmd", lum_core_group_cmd},
    {"lum_debug_packet_command", lum_debug_packet_command},
    {"lum_debug_learn_command", lum_debug_learn_command},
    {"lum_debug_internal_command", lum_debug_internal_command},
    {"lum_debug_event_command", lum_debug_event_command},
    {"lum_debug_arp_nd_command", lum_debug_arp_nd_command},
    {"lum_rtab_command", lum_rtab_command},
});
static_assert(commands.size() == 29);

} // namespace

int lum_cli_init()
{
    if (lum_cli_initialized != 0)
        return 1;
    if (cli_init(CLIENT, 0, 0) != 0)
        return 0;
    cli_ready(CLIENT, 0);
    for (const command &row : commands)
        cli_register_cmd(row.name, row.handler, 0);
    cli_send_my_commands();
    lum_cli_initialized = 1;
    LUM_TRACE_INTERNAL("Initialized with CMDSRV");
    return 1;
}

lum_overlay *lum_cli_mode_overlay(cli_cmd *cmd)
{
    const std::uint32_t iod = cli_get_mode_iod(cmd);
    if (lum_overlay *overlay = lum_get_overlay(iod); overlay != nullptr)
        return overlay;
    lum_create_or_init_overlay(iod);             // its interface exists, and we have not heard of it yet
    if (lum_overlay *overlay = lum_get_overlay(iod); overlay != nullptr)
        return overlay;
    LUM_TRACE_INTERNAL("Unknown overlay, iod %lu\n", static_cast<unsigned long>(iod));
    return nullptr;
}
