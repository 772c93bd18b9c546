// Forwarding decisions: where copies of a frame go. Unicast and multicast follow the route table, broadcast the VLAN's
// member ports and its overlay's group. A frame that cannot be sent is dropped, counted and traced.
#include "lum_packet.h"

#include "drops.h"
#include "lum_inlines.h"

namespace {

void forward_to_port(const lum_frame &frame, std::uint32_t port, const lum_mac_info &source,
                     const lum_mac_info &destination, std::uint32_t arrival) LUM_LOCKED;
void forward_to_port(const lum_frame &frame, std::uint32_t port, const lum_mac_info &source,
                     const lum_mac_info &destination, std::uint32_t arrival)
{
    if (port == arrival)
        return drop_count(drop_reason::FWD_SPLIT_HORIZON);
    lum_output(frame, port, source, destination, 0, nullptr);
}

// Two edges that each believe a host behind the other would pass its frames to and fro for ever: a frame from an
// overlay never goes back into it.
void forward_to_edge(const lum_frame &frame, const lum_addr &next_hop, const lum_mac_info &source,
                     const lum_mac_info &destination, std::uint32_t arrival) LUM_LOCKED;
void forward_to_edge(const lum_frame &frame, const lum_addr &next_hop, const lum_mac_info &source,
                     const lum_mac_info &destination, std::uint32_t arrival)
{
    const std::uint32_t overlay_iod = lum_next_hop_iod(next_hop);
    if (overlay_iod == arrival)
        return drop_count(drop_reason::FWD_SPLIT_HORIZON);
    lum_overlay *overlay = lum_get_overlay(overlay_iod);
    if (overlay == nullptr)
        return drop_count(drop_reason::FWD_NO_OVERLAY);
    lum_encapsulate(frame, source, destination, next_hop, *overlay);
}

// Of the pair of MACs, so that a conversation keeps its path. Mixed once more, since neighbouring addresses differ in
// bits that a choice between few next hops does not look at.
std::uint32_t flow_of(const lum_frame &frame)
{
    return lum_mac_hash(frame.data) * 0x9E3779B1u >> 16;
}

bool may_enter_core(const lum_frame &frame, const lum_mac_info &source, const lum_mac_info &destination) LUM_LOCKED;
bool may_enter_core(const lum_frame &frame, const lum_mac_info &source, const lum_mac_info &destination)
{
    if (lum_filter(frame, source, destination) == 0)
        return true;
    drop_count(drop_reason::FWD_FILTERED);
    return false;
}

} // namespace

void lum_forward(const lum_frame &frame, const lum_mac_info &source, const lum_mac_info &destination,
                 std::uint32_t iod)
{
    lum_addr next_hop;
    lum_text info, text;
    if (rtab_get_route(destination, flow_of(frame), next_hop) == nullptr) {
        // Never flooded, deliberate: a host is known to the route table before it is reachable across the core.
        drop_count(drop_reason::FWD_NO_ROUTE);
        LUM_IF_FRAME_TRACED(source, destination)
            LUM_TRACE_PACKET("Unicast route not found for %s\n", lum_print_mac_info(destination, info));
        return;
    }
    if (next_hop.kind == LUM_ADDR_NEXT_HOP && !may_enter_core(frame, source, destination))
        return;
    LUM_IF_FRAME_TRACED(source, destination)
        LUM_TRACE_PACKET("Forward %s to next-hop: %s\n", lum_print_mac_info(destination, info),
                         lum_print_addr(next_hop, text));

    switch (next_hop.kind) {
    case LUM_ADDR_IOD:
        return forward_to_port(frame, lum_addr_word(next_hop, 0), source, destination, iod);
    case LUM_ADDR_IFINDEX:
        return forward_to_port(frame, intfmgr_get_iod_frm_ifindex(lum_addr_word(next_hop, 0)), source, destination,
                               iod);
    case LUM_ADDR_NEXT_HOP:
        return forward_to_edge(frame, next_hop, source, destination, iod);
    default:
        return drop_count(drop_reason::FWD_BAD_NEXT_HOP);
    }
}

namespace {

void mforward_to(std::uint32_t oif, const lum_frame &frame, const lum_mac_info &source,
                 const lum_mac_info &destination) LUM_LOCKED;
void mforward_to(std::uint32_t oif, const lum_frame &frame, const lum_mac_info &source,
                 const lum_mac_info &destination)
{
    if (intfmgr_is_switchport(oif)) {
        lum_output(frame, oif, source, destination, 0, nullptr);
        return;
    }
    lum_overlay *overlay = lum_get_overlay(oif);
    if (overlay == nullptr)
        return drop_count(drop_reason::FWD_NO_OVERLAY);
    if (may_enter_core(frame, source, destination))
        lum_mencapsulate(frame, source, destination, *overlay);
}

} // namespace

void lum_mforward(const lum_frame &frame, const lum_mac_info &source, const lum_mac_info &destination,
                  std::uint32_t iod)
{
    lum_text info;
    rtab_acquire_rdlock();
    const rtab_mroute *route = rtab_get_mroute(destination);
    if (route == nullptr) {
        rtab_release_rdlock();
        drop_count(drop_reason::FWD_NO_MROUTE);
        LUM_IF_FRAME_TRACED(source, destination)
            LUM_TRACE_PACKET("Multicast route not found for %s\n", lum_print_mac_info(destination, info));
        return;
    }
    const bitfield &oifs = *route->oifs;
    LUM_IF_FRAME_TRACED(source, destination)
        LUM_TRACE_PACKET("Multicast %s, oif-list count: %d\n", lum_print_mac_info(destination, info),
                         static_cast<int>(bitfield_count_set(oifs)));
    // The lock is held across all the copies, so that they follow one state of the route.
    std::uint32_t copies = 0;
    for (std::uint32_t oif = bitfield_find_first_set(oifs); oif != 0; oif = bitfield_find_next_set(oifs, oif))
        if (oif != iod) {
            mforward_to(oif, frame, source, destination);
            ++copies;
        }
    rtab_release_rdlock();
    if (copies == 0)
        drop_count(drop_reason::FWD_NO_COPY);
}

namespace {

// How many copies there were.
std::uint32_t flood_ports(const lum_vlan &entry, const lum_frame &frame, const lum_mac_info &source,
                          const lum_mac_info &destination, std::uint32_t arrival) LUM_LOCKED;
std::uint32_t flood_ports(const lum_vlan &entry, const lum_frame &frame, const lum_mac_info &source,
                          const lum_mac_info &destination, std::uint32_t arrival)
{
    std::uint32_t copies = 0;
    if (entry.ports == nullptr)
        return copies;
    for (std::uint32_t port = bitfield_find_first_set(*entry.ports); port != 0;
         port = bitfield_find_next_set(*entry.ports, port))
        if (port != arrival && !bitfield_test(*entry.blocked, port)) {
            lum_output(frame, port, source, destination, 0, nullptr);
            ++copies;
        }
    return copies;
}

// False: no copy was due. One that was due and could not be sent has been counted.
bool flood_core(lum_overlay *overlay, const lum_frame &frame, const lum_mac_info &source,
                const lum_mac_info &destination, std::uint32_t arrival) LUM_LOCKED;
bool flood_core(lum_overlay *overlay, const lum_frame &frame, const lum_mac_info &source,
                const lum_mac_info &destination, std::uint32_t arrival)
{
    if (overlay == nullptr || overlay->iod == arrival)
        return false;
    std::uint32_t ext_iod = 0;
    const lum_addr *group = lum_get_group_address_from_overlay(overlay, &ext_iod);
    if (group == nullptr) {
        drop_count(drop_reason::ENCAP_NO_SOURCE);
        return true;
    }
    if (!may_enter_core(frame, source, destination))
        return true;
    lum_text text, name;
    LUM_IF_FRAME_TRACED(source, destination)
        LUM_TRACE_PACKET("Broadcast frame to overlay address %s on %s\n", lum_print_addr(*group, text),
                         lum_if_name(ext_iod, name));
    if (lum_get_encap_type(overlay->iod) == LUM_ENCAP_GRE)
        lum_output(frame, overlay->iod, source, destination, 0, nullptr);
    else
        lum_encapsulate(frame, source, destination, *group, *overlay);
    return true;
}

} // namespace

void lum_bforward(const lum_frame &frame, const lum_mac_info &source, const lum_mac_info &destination,
                  std::uint32_t iod)
{
    const lum_vlan *entry = lum_vlan_entry(source.vlan);
    if (entry == nullptr)
        return;
    LUM_IF_FRAME_TRACED(source, destination)
        LUM_TRACE_PACKET("Flood on vlan %d, port count: %d\n", static_cast<int>(source.vlan),
                         entry->ports != nullptr ? static_cast<int>(bitfield_count_set(*entry->ports)) : 0);
    const std::uint32_t copies = flood_ports(*entry, frame, source, destination, iod);
    if (!flood_core(entry->overlay, frame, source, destination, iod) && copies == 0)
        drop_count(drop_reason::FWD_NO_COPY);
}
