// Commands of static MAC routes, static multicast routes and static tunnels. Command thread, under the process lock.
#include "lum_ui.h"

#include "lum_inlines.h"

namespace
{

constexpr std::uint32_t STATIC_NEXT_HOPS_MAX = 4;

// Next hop of a command: a later argument overrides an earlier one.
struct route_arguments {
    lum_addr next_hop{};
    const char *if_name = nullptr;
    std::uint32_t iod = 0;
};

route_arguments read_route_arguments(cli_cmd *cmd)
{
    route_arguments arguments;
    if (cli_get_interface(cmd, "<if-name>", arguments.if_name)) {
        arguments.iod = intfmgr_get_if_by_name(arguments.if_name);
        arguments.next_hop = lum_addr_iod(arguments.iod);
    } else {
        arguments.if_name = nullptr;
    }
    if (std::uint32_t ipv4 = 0; cli_get_ipaddr(cmd, "<nh>", ipv4))
        arguments.next_hop = lum_addr_next_hop(arguments.iod, ipv4);
    if (ipv6_address ipv6{}; cli_get_ipv6addr(cmd, "<nh6>", ipv6))
        arguments.next_hop = lum_addr_next_hop(arguments.iod, ipv6);
    return arguments;
}

// A unicast route through an interface waits for it; it is sent when the interface comes up.
bool must_wait(const route_arguments &arguments, bool multicast)
{
    return !multicast && arguments.if_name != nullptr && (arguments.iod == 0 || !intfmgr_is_if_up(arguments.iod));
}

int delete_route(const lum_mac_info &mac, const route_arguments &arguments, bool multicast) LUM_LOCKED
{
    lum_addr next_hop = arguments.next_hop;
    if (auto *entry = lum_get_static_route_as_entered(mac, next_hop, arguments.if_name); entry != nullptr) {
        next_hop = entry->next_hop;
        lum_remove_static_route(entry);
    }
    if (!must_wait(arguments, multicast))
        lum_delete_from_rtab(mac, next_hop);
    return CLI_DONE;
}

int add_route(cli_cmd *cmd, const lum_mac_info &mac, const route_arguments &arguments, bool multicast) LUM_LOCKED
{
    // A next hop given twice counts twice, deliberate: routes are not compared with those that are there.
    if (!multicast && lum_get_static_ecmp(mac) >= STATIC_NEXT_HOPS_MAX) {
        cli_cmd_printf(cmd, "Maximum supported next-hops for static entries is %d\n",
                       static_cast<int>(STATIC_NEXT_HOPS_MAX));
        return CLI_REJECTED;
    }
    lum_add_static_route(mac, arguments.next_hop, arguments.if_name);
    if (!must_wait(arguments, multicast))
        lum_add_to_rtab(mac, arguments.next_hop, multicast);
    return CLI_DONE;
}

bool is_ipv4_multicast(std::uint32_t address) { return address >> 28 == 0xE; }

std::array<std::uint8_t, 6> ipv4_multicast_mac(std::uint32_t group)
{
    return {0x01, 0x00, 0x5E, static_cast<std::uint8_t>(group >> 16 & 0x7F), static_cast<std::uint8_t>(group >> 8),
            static_cast<std::uint8_t>(group)};
}

} // namespace

int lum_route_cmd(cli_cmd *cmd)
{
    plock_assert_held();
    const char *text = "";
    lum_mac_info mac;
    if (!cli_get_string(cmd, "<mac-info>", text) || !lum_copy_from_mac_info_string(text, mac)) {
        cli_cmd_printf(cmd, "Illegal VLAN-id\n");
        return CLI_REJECTED;
    }
    const route_arguments arguments = read_route_arguments(cmd);
    const bool multicast = lum_mac_is_multicast(mac.mac.data());     // broadcast counts as unicast, deliberate
    if (multicast && arguments.next_hop.kind != LUM_ADDR_IOD) {
        cli_cmd_printf(cmd, "Invalid next-hop for multicast MAC address\n");
        return CLI_REJECTED;
    }
    return cli_noed(cmd) ? delete_route(mac, arguments, multicast) : add_route(cmd, mac, arguments, multicast);
}

int lum_mroute_cmd(cli_cmd *cmd)
{
    plock_assert_held();
    lum_mac_info mac;
    static_cast<void>(cli_get_integer(cmd, "<vlan-id>", mac.vlan));
    std::uint32_t group = 0, source = 0, iod = 0;
    if (cli_get_ipaddr(cmd, "<ga>", group)) {
        static_cast<void>(cli_get_ipaddr(cmd, "<sa>", source));
    } else if (cli_is_set(cmd, "<ga6>")) {
        cli_cmd_printf(cmd, "To be implemented\n");                  // deliberate: IPv6 groups are refused
        return CLI_REJECTED;
    }
    if (is_ipv4_multicast(group))
        mac.mac = ipv4_multicast_mac(group);
    if (const char *name = nullptr; cli_get_interface(cmd, "<if-name>", name)) {
        iod = intfmgr_get_if_by_name(name);
        if (!intfmgr_is_if_up(iod)) {
            cli_cmd_printf(cmd, "Interface down\n");
            return CLI_REJECTED;
        }
    }
    if (cli_noed(cmd))
        lum_delete_ip_from_rtab(mac, source, group, iod);
    else
        lum_add_ip_to_rtab(mac, source, group, iod);
    return CLI_DONE;
}

int lum_static_tunnel_cmd(cli_cmd *cmd)
{
    plock_assert_held();
    lum_addr address{};
    if (std::uint32_t ipv4 = 0; cli_get_ipaddr(cmd, "<nh>", ipv4))
        address = lum_addr_ipv4(ipv4);
    if (ipv6_address ipv6{}; cli_get_ipv6addr(cmd, "<nh6>", ipv6))
        address = lum_addr_ipv6(ipv6);
    const char *if_name = nullptr;
    if (!cli_get_interface(cmd, "<if-name>", if_name))
        if_name = nullptr;
    if (cli_noed(cmd))
        lum_delete_static_tunnel(address);
    else
        lum_add_static_tunnel(address, if_name);
    return CLI_DONE;
}
