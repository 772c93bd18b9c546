// External interface and core groups of overlays: names to iods, own addresses, group membership. Main thread and
// command thread, under the process lock.
#include "lum_msgs.h"
#include "lum_overlay.h"

#include "vrfmgr.h"

#include <cstring>

namespace
{

// Leaves and joins on the overlay's external interface. Deliberate: the group that is left is the given one and never
// the current one, so what is sent to the previous group is received until the interface goes.
void change_ipv4_group(const lum_overlay &overlay, std::uint32_t group)
{
    const std::uint32_t iod = overlay.ext_if[0].iod, current = lum_overlay_ipv4_group(overlay);
    if (current != 0 && current != group)
        ip_group_leave(iod, group);
    ip_group_join(iod, group);
}

void change_ipv6_group(const lum_overlay &overlay, const ipv6_address &group)
{
    const std::uint32_t iod = overlay.ext_if[0].iod;
    const ipv6_address current = lum_overlay_ipv6_group(overlay);
    if (!lum_is_zero(current) && current != group)
        ipv6_group_leave(iod, group);
    ipv6_group_join(iod, group);
}

void join_own_groups(lum_overlay &overlay) LUM_LOCKED
{
    const std::uint32_t ipv4 = lum_overlay_ipv4_group(overlay);
    const ipv6_address ipv6 = lum_overlay_ipv6_group(overlay);
    lum_join_leave_group(overlay, &ipv4, nullptr, 1);
    lum_join_leave_group(overlay, nullptr, &ipv6, 0);
}

void read_external_addresses(lum_overlay &overlay)
{
    const std::uint32_t iod = overlay.ext_if[0].iod;
    overlay.ext_ipv4 = ip_if_address_get(iod);
    overlay.ext_ipv6 = ipv6_if_address_get(iod);
    overlay.context_id = vrfmgr_if_get_context_id(iod);
}

void trace_resolved(const lum_overlay &overlay, std::uint32_t previous) LUM_LOCKED
{
    const lum_ext_if &ext_if = overlay.ext_if[0];
    if (ext_if.iod == previous)
        LUM_TRACE_INTERNAL("%s external interface %s resolved, remained iod %lu\n", lum_overlay_display_name(&overlay),
                           ext_if.name, static_cast<unsigned long>(ext_if.iod));
    else
        LUM_TRACE_INTERNAL("%s external interface %s resolved to iod %lu\n", lum_overlay_display_name(&overlay),
                           ext_if.name, static_cast<unsigned long>(ext_if.iod));
}

void trace_external_addresses(const lum_overlay &overlay) LUM_LOCKED
{
    lum_text ipv4, ipv6;
    LUM_TRACE_INTERNAL("%s external addrs %s %s context-id %lu\n", lum_overlay_display_name(&overlay),
                       lum_print_ipv4(overlay.ext_ipv4, ipv4), lum_print_ipv6(overlay.ext_ipv6, ipv6),
                       static_cast<unsigned long>(overlay.context_id));
}

bool is_link_local(const ipv6_address &address) { return address[0] == 0xFE && (address[1] & 0xC0) == 0x80; }

bool uses_external_interface(const lum_overlay &overlay, std::uint32_t iod)
{
    return iod != 0 && overlay.ext_if[0].iod == iod;
}

enum ipv4_change : std::uint32_t { IPV4_REMOVED = 0, IPV4_ADDED = 1, IPV4_CHANGE_MAX = 3 };

void apply_ipv4_change(lum_overlay &overlay, const ip_address_change &change) LUM_LOCKED
{
    std::uint32_t before = change.reference;
    if (change.change <= IPV4_ADDED) {
        before = overlay.ext_ipv4;
        overlay.ext_ipv4 = change.change == IPV4_ADDED ? change.address : 0;
    } else if (change.change > IPV4_CHANGE_MAX) {
        LUM_LOG(UNK_IP_NOTIF, static_cast<unsigned long>(change.change));
    }
    // Deliberate: the removal of the very address that was in use clears the field and tells nobody.
    if (before != change.address)
        lum_publish_notify_check(overlay);
}

} // namespace

int lum_update_overlay_group(lum_overlay &overlay, const lum_addr &group)
{
    if (lum_next_hop_family(group) == LUM_FAMILY_IPV4)
        overlay.ipv4_group = group;
    else if (lum_next_hop_family(group) == LUM_FAMILY_IPV6)
        overlay.ipv6_group = group;
    lum_check_publish_notify(overlay);
    return 1;
}

void lum_join_leave_group(lum_overlay &overlay, const std::uint32_t *ipv4, const ipv6_address *ipv6,
                          std::uint32_t is_ipv4)
{
    if (overlay.ext_if[0].iod == 0)
        return;
    if (is_ipv4 != 0 && ipv4 != nullptr)
        change_ipv4_group(overlay, *ipv4);
    else if (is_ipv4 == 0 && ipv6 != nullptr)
        change_ipv6_group(overlay, *ipv6);
}

void lum_resolve_ext_if(lum_overlay &overlay)
{
    lum_ext_if &ext_if = overlay.ext_if[0];
    const std::uint32_t previous = ext_if.iod;
    const std::uint32_t iod = ext_if.name[0] != '\0' ? intfmgr_get_if_by_name(ext_if.name) : 0;
    // Without addresses both calls do nothing, so no group is left on the previous interface: deliberate.
    lum_join_leave_group(overlay, nullptr, nullptr, 1);
    lum_join_leave_group(overlay, nullptr, nullptr, 0);
    ext_if.iod = iod;
    join_own_groups(overlay);
    trace_resolved(overlay, previous);
    if (iod == previous)
        return;
    read_external_addresses(overlay);
    trace_external_addresses(overlay);
    lum_check_publish_notify(overlay);
}

void lum_resolve_overlay_external_if_name(std::uint32_t iod)
{
    char name[LUM_NAME_SIZE];
    if (!intfmgr_get_if_name(iod, name, sizeof name))
        return;                  // an unknown interface has no name, and must not match overlays that have none
    lum_walk_overlays([&](lum_overlay &overlay) {
        plock_assert_held();
        if (std::strcmp(overlay.ext_if[0].name, name) != 0)
            return;
        overlay.ext_if[0].iod = iod;
        join_own_groups(overlay);
        read_external_addresses(overlay);
        lum_check_publish_notify(overlay);
    });
}

void lum_process_ipv6_address_change(std::uint32_t iod, const ipv6_address &old_address,
                                     const ipv6_address &new_address)
{
    if (is_link_local(old_address) || is_link_local(new_address))
        return;
    lum_walk_overlays([&](lum_overlay &overlay) {
        plock_assert_held();
        if (!uses_external_interface(overlay, iod))
            return;
        lum_text before, after;
        LUM_TRACE_EVENT("IPv6 address change, old %s new %s\n", lum_print_ipv6(old_address, before),
                        lum_print_ipv6(new_address, after));
        const bool changed = overlay.ext_ipv6 != new_address;
        overlay.ext_ipv6 = new_address;
        if (changed)
            lum_publish_notify_check(overlay);
    });
}

void lum_process_ipv4_address_change(const ip_address_change &change)
{
    if (change.secondary != 0)
        return;
    lum_walk_overlays([&](lum_overlay &overlay) {
        plock_assert_held();
        if (uses_external_interface(overlay, change.iod))
            apply_ipv4_change(overlay, change);
    });
}
