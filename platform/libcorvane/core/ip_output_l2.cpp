// IP multicast packets in frames of their own, out of a switchport: what the router-discovery hellos need.
#include "ip.h"

#include "../interfaces.h"
#include "../packet/authority.h"
#include "../packet/port_vlans.h"
#include "../packet/tag.h"
#include "link_output.h"

#include "drops.h"

#include <cstring>

namespace corvane {

namespace {

constexpr std::size_t IPV4_HEADER = 20, IPV4_DESTINATION = 16;

int refuse()
{
    drop_count(drop_reason::L2_SEND_FAILED);
    return -1;
}

bool is_group_packet(const mbuf *packet)
{
    return packet->length >= IPV4_HEADER && packet->base[packet->head] >> 4 == 4 &&
           packet->base[packet->head + IPV4_DESTINATION] >> 4 == 0xE;
}

void put_ethernet(std::uint8_t *frame, const std::uint8_t *group, const std::array<std::uint8_t, 6> &source)
{
    const std::uint8_t destination[6] = {0x01, 0x00, 0x5E, static_cast<std::uint8_t>(group[1] & 0x7F), group[2], group[3]};
    std::memcpy(frame, destination, sizeof destination);
    std::memcpy(frame + 6, source.data(), source.size());
    frame[12] = TYPE_IPV4 >> 8;
    frame[13] = TYPE_IPV4 & 0xFF;
}

int send_on(const mbuf *packet, const interface_record &port, bool tagged, std::uint16_t vlan)
{
    mbuf *frame = packet_buffer_get(static_cast<std::uint32_t>(ETHERNET_HEADER + VLAN_TAG + packet->length));
    if (frame == nullptr)
        return refuse();
    const std::uint8_t *bytes = packet->base + packet->head;
    std::uint8_t *out = packet_start(frame);
    put_ethernet(out, bytes + IPV4_DESTINATION, port.mac);
    std::memcpy(out + ETHERNET_HEADER, bytes, packet->length);
    frame->length = static_cast<std::uint32_t>(tag_on_wire(out, ETHERNET_HEADER + packet->length, tagged, vlan));
    return link_output(frame, {port.ifindex, 0}) ? 0 : -1;
}

bool read_port(std::uint32_t iod, interface_record &port)
{
    constexpr std::uint32_t SERVED = INTERFACE_PRESENT | INTERFACE_SWITCHPORT;
    const interface_table *table = interfaces();
    return table != nullptr && interface_read(*table, iod, port) && (port.flags & SERVED) == SERVED && port.ifindex != 0;
}

int send_on_iod(const mbuf *packet, std::uint32_t iod, std::uint16_t vlan)
{
    interface_record port;
    return read_port(iod, port) ? send_on(packet, port, port_tags_vlan(iod, vlan), vlan) : refuse();
}

int flood(const mbuf *packet, std::uint16_t vlan)
{
    std::array<std::uint32_t, INTFMGR_IOD_MAX> ports;
    const std::size_t count = ports_of_vlan(vlan, ports);
    int result = count == 0 ? -1 : 0;
    for (std::size_t i = 0; i < count; ++i)
        result |= send_on_iod(packet, ports[i], vlan);
    return result;
}

} // namespace

} // namespace corvane

using namespace corvane;

int ip_cl_output_l2(mbuf *packet, std::uint32_t vlan, std::uint32_t iod, std::uint32_t flooded, std::uint32_t /*a*/,
                    std::uint32_t /*b*/)
{
    if (!is_group_packet(packet))
        return refuse();
    const auto id = static_cast<std::uint16_t>(vlan);
    if (authority_holds_back(id)) {
        drop_count(drop_reason::L2_NOT_AUTHORITATIVE);
        return -1;
    }
    return flooded != 0 ? flood(packet, id) : send_on_iod(packet, iod, id);
}
