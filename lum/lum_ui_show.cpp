// Show commands of overlays and sites, and the version. The formats are an interface: scripts parse them. Command
// thread; walks give the process lock up between rows.
#include "lum_ui.h"

#include "lum_inlines.h"
#include "lum_overlay.h"

namespace
{

using ulong = unsigned long;

void print_line(cli_cmd *cmd, const char *label, const char *text) { cli_cmd_printf(cmd, "%-25s : %s\n", label, text); }
void print_line(cli_cmd *cmd, const char *label, std::uint32_t number)
{
    cli_cmd_printf(cmd, "%-25s : %lu\n", label, ulong{number});
}

const char *encap_text(const lum_overlay &overlay)
{
    const bool ipv4 = overlay.encap_family == LUM_FAMILY_IPV4;
    if (overlay.encap_type == LUM_ENCAP_GRE)
        return ipv4 ? "GRE/IPv4" : "GRE/IPv6";
    return ipv4 ? "UDP/IPv4" : "UDP/IPv6";
}

void print_summary_row(cli_cmd *cmd, const lum_overlay *overlay)
{
    if (overlay == nullptr || overlay->iod == 0)
        return;
    cli_cmd_printf(cmd, "%-15s%-20s%9lu    %-8s%s\n", overlay->if_name, overlay->vpn_name, ulong{overlay->iod},
                   lum_overlay_state_str(overlay->state), lum_overlay_reason_str(overlay->reason));
}

// The lines without a label are deliberate: they belong to the state above them.
void print_state(cli_cmd *cmd, const lum_overlay &overlay)
{
    print_line(cmd, " State", lum_overlay_state_str(overlay.state));
    if (overlay.state != LUM_OVERLAY_DOWN)
        return;
    print_line(cmd, " ", lum_overlay_reason_str(overlay.reason));
    if (overlay.notify_pending != 0)
        print_line(cmd, " ", "Notification pending");
}

void print_addresses(cli_cmd *cmd, const lum_overlay &overlay)
{
    lum_text text;
    const std::uint32_t group4 = lum_overlay_ipv4_group(overlay);
    const ipv6_address group6 = lum_overlay_ipv6_group(overlay);
    print_line(cmd, " IPv4 multicast group", group4 != 0 ? lum_print_ipv4(group4, text) : "[None]");
    print_line(cmd, " IPv6 multicast group", !lum_is_zero(group6) ? lum_print_ipv6(group6, text) : "[None]");
    print_line(cmd, " External interface(s)", overlay.ext_if_count != 0 ? overlay.ext_if[0].name : "");
    print_line(cmd, " External IPv4 address", lum_print_ipv4(overlay.ext_ipv4, text));
    print_line(cmd, " External IPv6 address", lum_print_ipv6(overlay.ext_ipv6, text));
}

void print_detail(cli_cmd *cmd, const lum_overlay *overlay)
{
    if (overlay == nullptr || overlay->iod == 0)
        return;
    cli_cmd_printf(cmd, "Overlay Interface %s\n", overlay->if_name);
    print_line(cmd, " VPN Name", overlay->vpn_name[0] != '\0' ? overlay->vpn_name : "[None]");
    print_line(cmd, " VPN ID", overlay->vpn_id);
    print_state(cmd, *overlay);
    print_addresses(cmd, *overlay);
    print_line(cmd, " Encapsulation format", encap_text(*overlay));
    print_line(cmd, " Site-vlan", lum_svr.site_vlan);
    cli_tty_printf(cmd, "\n");
}

} // namespace

void lum_show_overlay_walker(cli_cmd *cmd, lum_overlay_printer print)
{
    avlt_iterator iterator;
    avlt_iterator_init(iterator, lum_svr.overlays);
    // The yield comes before the record is fetched, so that none is printed that was freed meanwhile.
    for (;;) {
        avlt_pre_sched_yield(iterator);
        const avlt_node *node = avlt_next(iterator);
        if (node == nullptr)
            return;
        print(cmd, reinterpret_cast<const lum_overlay *>(node));
        if (!cli_more_output(cmd))
            return;
    }
}

void lum_show_selected_overlays(cli_cmd *cmd, lum_overlay_printer print)
{
    if (cli_is_set(cmd, "<if-name>") || cli_is_set(cmd, "<overlay-name>"))
        print(cmd, lum_exec_get_overlay(cmd));
    else
        lum_show_overlay_walker(cmd, print);
}

int lum_show_overlay_cmd(cli_cmd *cmd)
{
    plock_assert_held();
    const bool summary = cli_is_set(cmd, "summary");
    cli_cmd_printf(cmd, "LUM Overlay Information\n\n");
    if (summary)
        cli_tty_printf(cmd, "%-15s%-20s%9s    %-8s%s\n", "Interface", "Name", "IOD", "State", "Reason");
    lum_show_selected_overlays(cmd, summary ? print_summary_row : print_detail);
    return CLI_DONE;
}

void lum_show_one_overlay_site_adjs(cli_cmd *cmd, const lum_overlay *overlay)
{
    cli_cmd_printf(cmd, "Overlay: %s, Adjacencies: %d\n", lum_overlay_display_name(overlay),
                   overlay != nullptr ? static_cast<int>(overlay->adj_count) : 0);
    cli_cmd_printf(cmd, "  %-20s %15s %10s\n", "System-ID", "Priority", "Ordinal");
    if (overlay == nullptr)
        return;
    for (const lum_site_adj *adj = overlay->adj_head; adj != nullptr; adj = adj->next) {
        lum_text id;
        cli_cmd_printf(cmd, "%s %-20s %15d %10u\n", adj->local != 0 ? "*" : " ",
                       lum_print_mac(adj->system_id.data(), id), static_cast<int>(adj->adder_value), adj->ordinal);
        if (!cli_more_output(cmd))
            return;
    }
}

int lum_show_site_cmd(cli_cmd *cmd)
{
    plock_assert_held();
    print_line(cmd, " Site-VLAN", lum_svr.site_vlan);
    cli_tty_printf(cmd, "\n");
    cli_cmd_printf(cmd, "Site Adjacency database\n");
    lum_show_selected_overlays(cmd, lum_show_one_overlay_site_adjs);
    return CLI_DONE;
}

int launcher_show_process_version_cmd(cli_cmd *cmd)
{
    cli_print_build_info(cmd, "lum", lum_version_block.version, lum_version_block.revision, lum_version_block);
    return CLI_DONE;
}
