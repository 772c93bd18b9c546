// What the units of the overlay control plane share among themselves.
#pragma once

#include "lum_inlines.h"

// Walks the overlays in ascending order of their iods and lets other threads in between two of them when the HA kit
// says that a yield is due. `visit` may delete the overlay that it is given.
template <class Visit> void lum_walk_overlays(Visit visit) LUM_LOCKED
{
    avlt_iterator iterator;
    avlt_iterator_init(iterator, lum_svr.overlays);
    while (avlt_node *node = avlt_next(iterator)) {
        visit(reinterpret_cast<lum_overlay &>(*node));
        if (hakit_should_yield())
            avlt_pre_sched_yield(iterator);
    }
}

// The end of a change of groups or of the external interface: check, publish, tell the parameters, tell a changed
// state. The published record carries the new state.
void lum_check_publish_notify(lum_overlay &overlay) LUM_LOCKED;
// The end of an address change: publish, tell the parameters, check, tell a changed state. Deliberate: record and
// parameters still carry the state from before.
void lum_publish_notify_check(lum_overlay &overlay) LUM_LOCKED;

// The IPv4 group of an overlay, host order, 0 = none.
inline std::uint32_t lum_overlay_ipv4_group(const lum_overlay &o) { return lum_next_hop_ipv4(o.ipv4_group); }
inline ipv6_address lum_overlay_ipv6_group(const lum_overlay &o) { return lum_next_hop_ipv6(o.ipv6_group); }
inline bool lum_is_zero(const ipv6_address &address) { return address == ipv6_address{}; }

// VLANs of an overlay's set in ascending order. VLAN 0 is none of them.
template <class Visit> void lum_walk_vlans(const lum_overlay &overlay, Visit visit) LUM_LOCKED
{
    for (std::uint32_t vlan = bitfield_find_first_set(*overlay.vlans); vlan != 0;
         vlan = bitfield_find_next_set(*overlay.vlans, vlan))
        visit(vlan);
}
