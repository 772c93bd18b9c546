// The list of anycast addresses, for which ARP and neighbour requests stay at their site. Command thread, under the
// process lock.
#include "lum_ui.h"

#include "lum_inlines.h"

namespace
{

bool read_address(cli_cmd *cmd, lum_addr &address)
{
    if (std::uint32_t ipv4 = 0; cli_get_ipaddr(cmd, "<addr>", ipv4)) {
        address = lum_addr_ipv4(ipv4);
        return true;
    }
    if (ipv6_address ipv6{}; cli_get_ipv6addr(cmd, "<addr6>", ipv6)) {
        address = lum_addr_ipv6(ipv6);
        return true;
    }
    return false;
}

int add_address(cli_cmd *cmd, const lum_addr &address, lum_addr *free_entry)
{
    if (free_entry == nullptr) {
        cli_cmd_printf(cmd, "Can only store %d anycast-arp addresses, command rejected\n",
                       static_cast<int>(LUM_ANYCAST_ADDRS));
        return CLI_REJECTED;
    }
    *free_entry = address;
    lum_any_anycast_arp_addrs = 1;
    return CLI_DONE;
}

int remove_address(cli_cmd *cmd, const lum_addr &address, lum_addr *match, std::size_t used)
{
    if (match == nullptr) {
        lum_text text;
        cli_cmd_printf(cmd, "Anycast-ARP address %s not found\n", lum_print_addr(address, text));
        return CLI_REJECTED;
    }
    match->kind = LUM_ADDR_EMPTY;
    lum_any_anycast_arp_addrs = used > 1 ? 1 : 0;
    return CLI_DONE;
}

} // namespace

// Deliberate: the last free entry is filled and the last match removed, and an address given twice takes two entries.
int lum_anycast_arp_cmd(cli_cmd *cmd)
{
    plock_assert_held();
    lum_addr address;
    if (!read_address(cmd, address))
        return CLI_DONE;
    lum_addr *free_entry = nullptr, *match = nullptr;
    std::size_t used = 0;
    for (lum_addr &entry : lum_anycast_arp_addrs) {
        if (entry.kind == LUM_ADDR_EMPTY) {
            free_entry = &entry;
            continue;
        }
        ++used;
        if (lum_addr_equal(entry, address))
            match = &entry;
    }
    return cli_noed(cmd) ? remove_address(cmd, address, match, used) : add_address(cmd, address, free_entry);
}
