// The packet service's client interface: frames of the switchports to and from the packet queue.
#include "net_l2.h"

#include "../core/link_output.h"
#include "../core/monitor.h"
#include "../interfaces.h"
#include "../service_retry.h"
#include "authority.h"
#include "frame_source.h"
#include "gre.h"
#include "overlay_size.h"
#include "overlays.h"
#include "port_vlans.h"
#include "ports.h"
#include "tag.h"

#include "drops.h"
#include "svcmgr.h"
#include "syslog_client.h"

#include <arpa/inet.h>
#include <array>
#include <memory>
#include <mutex>

namespace corvane {

namespace {

// One registration a process: the rings belong to one queue.
struct registration {
    std::mutex mutex;
    net_l2_handle handle = 0, last_handle = 0;
    mbus_q queue = MBUS_Q_INVALID;
    std::unique_ptr<frame_source> source;
};
registration &the_registration()
{
    static registration &instance = *new registration;
    return instance;
}

} // namespace

namespace {

void report_small_cores(const interface_table &table)
{
    constexpr int WARNING = 4;
    static overlay_size_notices &notices = *new overlay_size_notices;
    for (const std::string &line : notices.look(overlays_all(), table))
        krel_syslog(WARNING, "%s", line.c_str());
}

} // namespace

void packet_ports_tick()
{
    static std::uint32_t seen_overlays = 0;
    static std::uint32_t seen_generation = 0;
    static bool seen_gre = false;
    const interface_table *table = interfaces();
    const std::uint32_t generation = table == nullptr ? 0 : table->generation.load(std::memory_order_acquire);
    if (table != nullptr && generation != seen_generation)
        overlays_prune(*table);
    const std::uint32_t overlays = overlays_version();
    if (table != nullptr && (generation != seen_generation || overlays != seen_overlays)) {
        seen_overlays = overlays;
        report_small_cores(*table);
    }
    const bool gre = overlays_use_gre();
    if (generation == seen_generation && gre == seen_gre)
        return;
    seen_generation = generation;
    seen_gre = gre;
    registration &r = the_registration();
    const std::scoped_lock guard(r.mutex);
    if (r.source != nullptr)
        r.source->wake();
}

namespace {

// Interface index 0: no switchport.
link_target switchport(std::uint32_t iod)
{
    constexpr std::uint32_t SERVED = INTERFACE_PRESENT | INTERFACE_SWITCHPORT;
    link_target target;
    const interface_table *table = interfaces();
    if (table == nullptr || (interface_flags(*table, iod) & SERVED) != SERVED)
        return target;
    target.ifindex = table->slot[iod].ifindex.load(std::memory_order_acquire);
    target.merge_mtu = table->slot[iod].mtu.load(std::memory_order_acquire);
    return target;
}

int refuse()                                   // 0 for "not sent"
{
    drop_count(drop_reason::L2_SEND_FAILED);
    return 0;
}

// The frame as on the wire, with room for a tag more; null: counted.
mbuf *wire_frame(const daemon_frame &frame)
{
    mbuf *m = packet_buffer_get(static_cast<std::uint32_t>(frame.length + ETHERNET_HEADER + VLAN_TAG));
    if (m == nullptr) {
        refuse();
        return nullptr;
    }
    m->length = static_cast<std::uint32_t>(tag_to_wire(frame, packet_start(m)));
    if (m->length != 0)
        return m;
    m_freem(m);
    refuse();
    return nullptr;
}

// `vlan` is that of a frame which does not have its tag yet; 0: it leaves as it is.
int send_on_port(const link_target &port, const daemon_frame &frame, std::uint16_t vlan)
{
    mbuf *m = wire_frame(frame);
    if (m != nullptr && vlan != 0)
        m->length = static_cast<std::uint32_t>(tag_on_wire(packet_start(m), m->length, true, vlan));
    return m != nullptr && link_output(m, port) ? 1 : 0;
}

// To every port of the VLAN, on each with or without its tag as the port has it.
int flood(std::uint16_t vlan, const daemon_frame &frame)
{
    std::array<std::uint32_t, INTFMGR_IOD_MAX> ports;
    const std::size_t count = ports_of_vlan(vlan, ports);
    int sent = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const link_target port = switchport(ports[i]);
        mbuf *m = port.ifindex == 0 ? nullptr : wire_frame(frame);
        if (m == nullptr)
            continue;
        m->length = static_cast<std::uint32_t>(tag_on_wire(packet_start(m), m->length, port_tags_vlan(ports[i], vlan), vlan));
        sent |= link_output(m, port) ? 1 : 0;
    }
    return sent;
}

bool held_back(std::uint32_t iod, std::uint16_t vlan)
{
    if (!authority_holds_back(vlan != 0 ? vlan : port_vlan(iod)))
        return false;
    drop_count(drop_reason::L2_NOT_AUTHORITATIVE);
    return true;
}

} // namespace

} // namespace corvane

using namespace corvane;

net_l2_handle net_l2_register(const net_l2_registration &wanted)
{
    registration &r = the_registration();
    const std::scoped_lock guard(r.mutex);
    if (r.handle != 0)
        return 0;
    auto source = std::make_unique<frame_source>();
    if (!overlays_follow() || !source->ready() || !mbus_local_attach(wanted.queue, source.get())) {
        service_failed(SVC_PKTMGR);
        return 0;
    }
    source->follow_ports();
    r.source = std::move(source);
    r.queue = wanted.queue;
    r.handle = ++r.last_handle;
    net_monitor_start();
    return r.handle;
}

void net_l2_unregister(net_l2_handle handle)
{
    registration &r = the_registration();
    const std::scoped_lock guard(r.mutex);
    if (handle == 0 || handle != r.handle)
        return;
    mbus_local_detach(r.queue);
    r.source.reset();
    r.handle = 0;
}

int net_l2_send(net_l2_handle handle, const net_l2_header &header, const net_l2_send_request &request,
                const std::uint8_t *payload, std::uint16_t length)
{
    if (handle == 0)
        return refuse();
    const daemon_frame frame{header.destination.data(),  header.source.data(), ntohs(header.ethertype_be), payload, length,
                             request.untagged != 0, ntohs(request.snap_type_be)};
    const std::uint32_t iod = ntohl(request.iod_be);
    const link_target port = switchport(iod);
    const std::uint16_t vlan = ntohs(header.vlan_be);
    // A frame that names no VLAN is a reply of the daemon's own, to the frame in hand.
    const std::uint16_t asked_in = vlan == 0 ? vlan_of_frame_in_hand(iod, frame.destination) : std::uint16_t{0};
    if ((request.flood != 0 || port.ifindex != 0) && held_back(iod, vlan != 0 ? vlan : asked_in))
        return 0;
    if (request.flood != 0)
        return flood(vlan, frame);
    if (port.ifindex != 0)
        return send_on_port(port, frame, asked_in);
    overlay_config overlay;
    return overlay_get(iod, overlay) && overlay.gre ? gre_send(overlay, request, frame) : refuse();
}
