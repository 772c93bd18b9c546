// Debug commands: five flags, and the filters of packet traces. Each setting is recorded with the event history.
#include "lum_inlines.h"
#include "lum_msgs.h"
#include "lum_ui.h"

namespace
{

// Sets a flag and records it under its number, which is that of its trace site too.
std::uint32_t set_flag(cli_cmd *cmd, std::uint32_t &flag, std::uint32_t element)
{
    flag = cli_noed(cmd) ? 0 : 1;
    hakit_evhist_set_elem(cmd, element, flag);
    return flag;
}

void clear_packet_filters()
{
    lum_packet_debug_sa = {};
    lum_packet_debug_da = {};
    lum_packet_debug_unicast = lum_packet_debug_multicast = lum_packet_debug_broadcast = 0;
}

enum class mac_argument { absent, given, malformed };

mac_argument read_mac_argument(cli_cmd *cmd, const char *name, lum_mac_info &info)
{
    const char *text = nullptr;
    if (!cli_get_string(cmd, name, text))
        return mac_argument::absent;
    if (lum_copy_from_mac_info_string(text, info))
        return mac_argument::given;
    cli_cmd_printf(cmd, "Illegal VLAN-id\n");
    return mac_argument::malformed;
}

void set_kind_filters(cli_cmd *cmd, bool with_mac)
{
    lum_packet_debug_unicast = cli_is_set(cmd, "unicast") ? 1 : 0;
    lum_packet_debug_multicast = cli_is_set(cmd, "multicast") ? 1 : 0;
    lum_packet_debug_broadcast = cli_is_set(cmd, "broadcast") ? 1 : 0;
    const bool with_kind =
        (lum_packet_debug_unicast | lum_packet_debug_multicast | lum_packet_debug_broadcast) != 0;
    if (!with_mac && !with_kind)
        lum_packet_debug_unicast = lum_packet_debug_multicast = lum_packet_debug_broadcast = 1;
}

} // namespace

int lum_debug_packet_command(cli_cmd *cmd)
{
    plock_assert_held();
    const bool enable = !cli_noed(cmd);
    clear_packet_filters();
    lum_mac_info source, destination;
    const mac_argument with_source = read_mac_argument(cmd, "<smac-info>", source);
    if (with_source == mac_argument::malformed)
        return CLI_DONE;         // deliberate: the flag as it was, the filters cleared
    if (with_source == mac_argument::given && enable)
        lum_packet_debug_sa = lum_addr_mac(source);

    const mac_argument with_destination = read_mac_argument(cmd, "<dmac-info>", destination);
    if (with_destination == mac_argument::malformed)
        return CLI_DONE;
    if (with_destination == mac_argument::given && enable)
        lum_packet_debug_da = lum_addr_mac(destination);

    if (enable)
        set_kind_filters(cmd, with_source == mac_argument::given || with_destination == mac_argument::given);
    set_flag(cmd, lum_packet_debug_flag, LUM_SITE_PACKET);
    return CLI_DONE;
}

int lum_debug_learn_command(cli_cmd *cmd)
{
    plock_assert_held();
    set_flag(cmd, lum_learn_debug_flag, LUM_SITE_LEARN);
    return CLI_DONE;
}

int lum_debug_internal_command(cli_cmd *cmd)
{
    plock_assert_held();
    if (set_flag(cmd, lum_internal_debug_flag, LUM_SITE_INTERNAL) != 0)
        hakit_ha_enable_debug();
    else
        hakit_ha_disable_debug();
    return CLI_DONE;
}

int lum_debug_event_command(cli_cmd *cmd)
{
    plock_assert_held();
    set_flag(cmd, lum_event_debug_flag, LUM_SITE_EVENT);
    return CLI_DONE;
}

int lum_debug_arp_nd_command(cli_cmd *cmd)
{
    plock_assert_held();
    set_flag(cmd, lum_arp_nd_debug_flag, LUM_SITE_ARP_ND);
    return CLI_DONE;
}
