// Configuration commands of an overlay, and those of the whole device. Each one checks everything before it changes
// anything. Command thread, under the process lock.
#include "lum_ui.h"

#include "lum_inlines.h"
#include "lum_overlay.h"

#include <cstdio>
#include <cstring>

namespace
{

constexpr std::uint32_t IPV6_RANGE_MIN_LENGTH = 96;

int no_such_overlay(cli_cmd *cmd)
{
    cli_cmd_printf(cmd, "No such overlay\n");
    return CLI_REJECTED;
}

void publish_and_notify(lum_overlay &overlay) LUM_LOCKED
{
    lum_sdb_update_overlay(overlay);
    lum_send_overlay_params_msg(overlay);
}

lum_addr empty_group(const lum_overlay &overlay)
{
    lum_addr group{};
    group.kind = LUM_ADDR_NEXT_HOP;
    lum_addr_set_word(group, 0, overlay.iod);
    return group;
}

// True when the address may be a core group; otherwise says why not.
bool check_ipv4_group(cli_cmd *cmd, std::uint32_t group)
{
    constexpr std::uint32_t ssm_reserved = 0xE8000000;           // 232.0.0.0
    if (group >> 28 != 0xE) {
        cli_cmd_printf(cmd, "Illegal group address\n");
        return false;
    }
    if (group >> 8 == 0xE00000) {
        cli_cmd_printf(cmd, "Cannot be link-local group address\n");
        return false;
    }
    if (group == ssm_reserved) {
        lum_text text;
        cli_cmd_printf(cmd, "Cannot be SSM reserved group %s\n", lum_print_ipv4(group, text));
        return false;
    }
    return true;
}

int no_such_group(cli_cmd *cmd)
{
    cli_cmd_printf(cmd, "No such group\n");
    return CLI_REJECTED;
}

int set_ipv4_group(cli_cmd *cmd, lum_overlay &overlay, std::uint32_t group, bool enable) LUM_LOCKED
{
    if (!check_ipv4_group(cmd, group))
        return CLI_REJECTED;
    const bool same = group == lum_overlay_ipv4_group(overlay);
    if (enable && same)
        return CLI_DONE;
    if (!enable && !same)
        return no_such_group(cmd);
    const std::uint32_t wanted = enable ? group : 0;
    lum_join_leave_group(overlay, &wanted, nullptr, 1);
    lum_update_overlay_group(overlay, lum_addr_next_hop(overlay.iod, wanted));
    return CLI_DONE;
}

// No range check, deliberate: unlike IPv4, any address is taken.
int set_ipv6_group(cli_cmd *cmd, lum_overlay &overlay, const ipv6_address &group, bool enable) LUM_LOCKED
{
    const bool same = group == lum_overlay_ipv6_group(overlay);
    if (enable && same)
        return CLI_DONE;
    if (!enable && !same)
        return no_such_group(cmd);
    const ipv6_address wanted = enable ? group : ipv6_address{};
    lum_join_leave_group(overlay, nullptr, &wanted, 0);
    lum_update_overlay_group(overlay, lum_addr_next_hop(overlay.iod, wanted));
    return CLI_DONE;
}

int group_not_configured(cli_cmd *cmd)
{
    cli_cmd_printf(cmd, "Group not configured, command rejected\n");
    return CLI_REJECTED;
}

// The range that the command makes of the current one; the prefix may be absent, which leaves it as it is.
int read_ipv4_range(cli_cmd *cmd, bool enable, lum_ipv4_range &range)
{
    std::uint32_t address = 0, length = 0;
    if (!cli_get_ipprefix(cmd, "<prefix>", address, length))
        return CLI_DONE;
    if (!enable && (address != range.base || length != range.length))
        return group_not_configured(cmd);
    if (enable)
        range = {address, static_cast<std::uint8_t>(length)};
    else
        lum_get_default_ipv4_core_group(range);
    return CLI_DONE;
}

int read_ipv6_range(cli_cmd *cmd, bool enable, lum_ipv6_range &range)
{
    cli_ipv6_prefix prefix;
    if (!cli_get_ipv6prefix(cmd, "<prefix6>", prefix))
        return CLI_DONE;
    if (!enable && (prefix.mask_length != range.length || prefix.address != range.base))
        return group_not_configured(cmd);
    if (enable && prefix.mask_length < IPV6_RANGE_MIN_LENGTH) {
        cli_cmd_printf(cmd, "Mask-length can be >- %d, command rejected\n", static_cast<int>(IPV6_RANGE_MIN_LENGTH));
        return CLI_REJECTED;
    }
    if (enable)
        range = {prefix.address, static_cast<std::uint8_t>(prefix.mask_length)};
    else
        lum_get_default_ipv6_core_group(range);
    return CLI_DONE;
}

} // namespace

int lum_vpn_name_cmd(cli_cmd *cmd)
{
    plock_assert_held();
    lum_overlay *overlay = lum_cli_mode_overlay(cmd);
    if (overlay == nullptr)
        return no_such_overlay(cmd);
    const char *name = "";
    const bool given = cli_get_string(cmd, "<vpn-name>", name);
    const bool same = std::strcmp(name, overlay->vpn_name) == 0;
    if (cli_noed(cmd)) {
        if (given && !same) {
            cli_cmd_printf(cmd, "Invalid overlay name\n");
            return CLI_REJECTED;
        }
        name = "";
    } else if (same) {
        return CLI_DONE;
    }
    std::snprintf(overlay->vpn_name, sizeof overlay->vpn_name, "%s", name);
    publish_and_notify(*overlay);
    return CLI_DONE;
}

int lum_vpn_ext_if_cmd(cli_cmd *cmd)
{
    plock_assert_held();
    lum_overlay *overlay = lum_cli_mode_overlay(cmd);
    if (overlay == nullptr)
        return no_such_overlay(cmd);
    const bool enable = !cli_noed(cmd);
    const char *name = "";
    if (enable)
        static_cast<void>(cli_get_interface(cmd, "<ext_if>", name));
    std::snprintf(overlay->ext_if[0].name, LUM_NAME_SIZE, "%s", name);
    overlay->ext_if_count = enable ? 1 : 0;
    lum_resolve_ext_if(*overlay);
    return CLI_DONE;
}

int lum_vpn_mgroup_addr_cmd(cli_cmd *cmd)
{
    plock_assert_held();
    lum_overlay *overlay = lum_cli_mode_overlay(cmd);
    if (overlay == nullptr)
        return no_such_overlay(cmd);
    const bool enable = !cli_noed(cmd);
    if (std::uint32_t group = 0; cli_get_ipaddr(cmd, "<maddr>", group))
        return set_ipv4_group(cmd, *overlay, group, enable);
    if (ipv6_address group{}; cli_get_ipv6addr(cmd, "<maddr6>", group))
        return set_ipv6_group(cmd, *overlay, group, enable);
    if (!enable) {               // no address: changes no group, but publishes and tells
        lum_update_overlay_group(*overlay, empty_group(*overlay));
        lum_join_leave_group(*overlay, nullptr, nullptr, 1);
    }
    return CLI_DONE;
}

int lum_vpn_encap_format_cmd(cli_cmd *cmd)
{
    plock_assert_held();
    lum_overlay *overlay = lum_cli_mode_overlay(cmd);
    if (overlay == nullptr)
        return no_such_overlay(cmd);
    const bool enable = !cli_noed(cmd);
    const bool gre = enable && cli_is_set(cmd, "gre") && !cli_is_set(cmd, "udp");
    const bool ipv6 = enable && cli_is_set(cmd, "ipv6");
    const std::uint32_t type = gre ? LUM_ENCAP_GRE : LUM_ENCAP_UDP;
    const std::uint32_t family = ipv6 ? LUM_FAMILY_IPV6 : LUM_FAMILY_IPV4;
    if (type == overlay->encap_type && family == overlay->encap_family)
        return CLI_DONE;
    overlay->encap_type = type;
    overlay->encap_family = family;
    publish_and_notify(*overlay);
    return CLI_DONE;
}

// Deliberate: accepted in both forms and without effect, so that configurations which name it still load.
int lum_auth_election_cmd(cli_cmd *) { return CLI_DONE; }

int lum_filter_fhrp_cmd(cli_cmd *cmd)
{
    lum_filter_fhrp = cli_noed(cmd) ? 0 : 1;
    return CLI_DONE;
}

int lum_suppress_arp_cmd(cli_cmd *cmd)
{
    plock_assert_held();
    lum_overlay *overlay = lum_cli_mode_overlay(cmd);
    if (overlay == nullptr)
        return no_such_overlay(cmd);
    overlay->suppress_arp = cli_noed(cmd) ? 0 : 1;
    return CLI_DONE;
}

int lum_core_group_cmd(cli_cmd *cmd)
{
    plock_assert_held();
    lum_overlay *overlay = lum_cli_mode_overlay(cmd);
    if (overlay == nullptr)
        return no_such_overlay(cmd);
    const bool enable = !cli_noed(cmd);
    lum_ipv4_range range = overlay->data_group;
    lum_ipv6_range range6 = overlay->data_group6;
    if (read_ipv4_range(cmd, enable, range) != CLI_DONE || read_ipv6_range(cmd, enable, range6) != CLI_DONE)
        return CLI_REJECTED;
    overlay->data_group = range;
    overlay->data_group6 = range6;
    return CLI_DONE;
}
