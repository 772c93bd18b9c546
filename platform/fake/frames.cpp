// Builders of frames and packets.
#include "frames.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <numeric>
#include <stdexcept>
#include <string>

namespace fake {

namespace {

constexpr std::uint16_t TYPE_TAG = 0x8100, SNAP_LIMIT = 0x600;
constexpr std::uint8_t PROTOCOL_UDP = 17, PROTOCOL_ICMPV6 = 58, PROTOCOL_VRRP = 112;
constexpr std::uint8_t NEIGHBOUR_SOLICITATION = 135, NEIGHBOUR_ADVERTISEMENT = 136;

std::uint16_t finish(std::uint32_t sum)
{
    while (sum >> 16 != 0)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<std::uint16_t>(~sum);
}

std::uint32_t add_up(std::span<const std::uint8_t> data)
{
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < data.size(); ++i)
        sum += i % 2 == 0 ? std::uint32_t{data[i]} << 8 : data[i];
    return sum;
}

std::uint16_t pseudo_checksum(const ipv6_address &source, const ipv6_address &destination, std::uint8_t protocol,
                              const bytes &message)
{
    return finish(add_up(source) + add_up(destination) + static_cast<std::uint32_t>(message.size()) + protocol +
                  add_up(message));
}

bytes tag_control(std::uint16_t vlan)
{
    return bytes().add8(vlan & 0xFF).add8(vlan >> 8 & 0x0F);
}

rtab_addr address(std::uint32_t kind, const bytes &body)
{
    rtab_addr made;
    made.kind = kind;
    std::ranges::copy(body, made.body.begin());
    return made;
}

bytes icmpv6_packet(const ipv6_address &source, const ipv6_address &destination, bytes message)
{
    message.set_be16(2, pseudo_checksum(source, destination, PROTOCOL_ICMPV6, message));
    return ipv6_packet_of(PROTOCOL_ICMPV6, source, destination, message, 255);
}

void add_link_layer_option(bytes &message, std::uint8_t kind, const mac_address *option)
{
    if (option != nullptr)
        message.add8(kind).add8(1).add(*option);
}

bytes arp(unsigned operation, const mac_address &sender, std::uint32_t sender_ip, const mac_address &target,
          std::uint32_t target_ip)
{
    bytes packet;
    packet.add_be16(1).add_be16(0x0800).add8(6).add8(4).add_be16(operation);
    return packet.add(sender).add_be32(sender_ip).add(target).add_be32(target_ip);
}

// The overlay's header behind the outer IP header: UDP to its port, checksum zero, four bytes of shim.
bytes overlay_udp(const bytes &frame)
{
    bytes made;
    made.add_be16(0x1234).add_be16(8472).add_be16(static_cast<unsigned>(12 + frame.size())).add_be16(0);
    return made.add_zeros(4).add(frame);
}

} // namespace

ipv6_address ipv6(std::string_view text)
{
    ipv6_address parsed{};
    if (inet_pton(AF_INET6, std::string(text).c_str(), parsed.data()) != 1)
        throw std::invalid_argument("no IPv6 address: " + std::string(text));
    return parsed;
}

mac_address mac(std::string_view text)
{
    const bytes parsed = hex(text);
    if (parsed.size() != 6)
        throw std::invalid_argument("no MAC address: " + std::string(text));
    return parsed.mac(0);
}

mac_address group_mac(std::uint32_t group)
{
    return bytes().add({0x01, 0x00, 0x5E}).add8(group >> 16 & 0x7F).add_be16(group & 0xFFFF).mac(0);
}
mac_address group_mac(const ipv6_address &group)
{
    return bytes().add({0x33, 0x33, group[12], group[13], group[14], group[15]}).mac(0);
}

rtab_addr local(std::uint32_t iod) { return address(1, bytes().add_host32(iod)); }
rtab_addr local_ifindex(std::uint32_t ifindex) { return address(2, bytes().add_host32(ifindex)); }
rtab_addr remote(std::uint32_t overlay_iod, std::uint32_t ipv4_host)
{
    return address(6, bytes().add_host32(overlay_iod).add_host32(4).add_host32(ipv4_host));
}
rtab_addr remote(std::uint32_t overlay_iod, const ipv6_address &ip)
{
    return address(6, bytes().add_host32(overlay_iod).add_host32(5).add(ip));
}
rtab_addr ip_addr(std::uint32_t ipv4_host) { return address(4, bytes().add_host32(ipv4_host)); }
rtab_addr ip_addr(const ipv6_address &ip) { return address(5, bytes().add(ip)); }

bytes ethernet(const mac_address &destination, const mac_address &source, std::uint16_t type, const bytes &payload)
{
    return bytes().add(destination).add(source).add_be16(type).add(payload);
}

bytes tagged(const mac_address &destination, const mac_address &source, std::uint16_t vlan, std::uint16_t type,
             const bytes &payload)
{
    return with_tag(ethernet(destination, source, type, payload), vlan);
}

bytes snap(const mac_address &destination, const mac_address &source, std::uint16_t type, const bytes &payload)
{
    bytes frame = ethernet(destination, source, static_cast<std::uint16_t>(8 + payload.size()));
    return frame.add({0xAA, 0xAA, 0x03, 0x00, 0x00, 0x00}).add_be16(type).add(payload);
}

bytes tagged_snap(const mac_address &destination, const mac_address &source, std::uint16_t vlan, std::uint16_t type,
                  const bytes &payload)
{
    return with_tag(snap(destination, source, type, payload), vlan);
}

bytes with_tag(const bytes &untagged, std::uint16_t vlan)
{
    const std::size_t type_at = untagged.be16(12) <= SNAP_LIMIT ? 20 : 12;
    bytes frame = untagged.range(0, type_at);
    return frame.add_be16(TYPE_TAG).add(tag_control(vlan)).add(untagged.from(type_at));
}

bytes wire_tagged(const mac_address &destination, const mac_address &source, std::uint16_t tci, std::uint16_t type,
                  const bytes &payload)
{
    return bytes().add(destination).add(source).add_be16(TYPE_TAG).add_be16(tci).add_be16(type).add(payload);
}

bytes padded(bytes frame, std::size_t length)
{
    frame.resize(std::max(frame.size(), length));
    return frame;
}

bytes filler(std::size_t length)
{
    bytes data(length, std::uint8_t{0});
    std::iota(data.begin(), data.end(), std::uint8_t{0});
    return data;
}

bytes arp_request(const mac_address &sender, std::uint32_t sender_ip, std::uint32_t target_ip)
{
    return arp(1, sender, sender_ip, mac_address{}, target_ip);
}
bytes arp_reply(const mac_address &sender, std::uint32_t sender_ip, const mac_address &target, std::uint32_t target_ip)
{
    return arp(2, sender, sender_ip, target, target_ip);
}

ipv6_address solicited_node(const ipv6_address &target)
{
    ipv6_address group = ipv6("ff02::1:ff00:0");
    std::copy(target.begin() + 13, target.end(), group.begin() + 13);
    return group;
}

bytes neighbour_solicitation(const ipv6_address &source, const ipv6_address &target, const mac_address *option)
{
    bytes message;
    message.add8(NEIGHBOUR_SOLICITATION).add_zeros(7).add(target);
    add_link_layer_option(message, 1, option);
    return icmpv6_packet(source, solicited_node(target), std::move(message));
}

bytes neighbour_advertisement(const ipv6_address &source, const ipv6_address &destination, const ipv6_address &target,
                              const mac_address *option)
{
    bytes message;
    message.add8(NEIGHBOUR_ADVERTISEMENT).add_zeros(3).add8(0x60).add_zeros(3).add(target);
    add_link_layer_option(message, 2, option);
    return icmpv6_packet(source, destination, std::move(message));
}

bytes ip_packet_of(std::uint8_t protocol, std::uint32_t source, std::uint32_t destination, const bytes &payload,
                   std::uint8_t ttl)
{
    bytes packet;
    packet.add8(0x45).add8(0).add_be16(static_cast<unsigned>(20 + payload.size())).add_be16(0).add_be16(0);
    packet.add8(ttl).add8(protocol).add_be16(0).add_be32(source).add_be32(destination);
    packet.set_be16(10, internet_checksum(packet));
    return packet.add(payload);
}

bytes ipv6_packet_of(std::uint8_t next_header, const ipv6_address &source, const ipv6_address &destination,
                     const bytes &payload, std::uint8_t hop_limit)
{
    bytes packet;
    packet.add_be32(0x60000000).add_be16(static_cast<unsigned>(payload.size())).add8(next_header).add8(hop_limit);
    return packet.add(source).add(destination).add(payload);
}

bytes udp(std::uint16_t source_port, std::uint16_t destination_port, const bytes &payload)
{
    bytes made;
    made.add_be16(source_port).add_be16(destination_port).add_be16(static_cast<unsigned>(8 + payload.size()));
    return made.add_be16(0).add(payload);
}

bytes vrrp_hello(std::uint32_t source)
{
    return ip_packet_of(PROTOCOL_VRRP, source, ipv4(224, 0, 0, 18), hex("21 01 64 01 00 01 ba 52 c0 00 02 01"), 255);
}
bytes hsrp_hello(std::uint32_t source)
{
    const bytes hello = hex("00 00 10 03 0a 78 01 00 73 69 74 65 31 00 00 00 c0 00 02 01");
    return ip_packet_of(PROTOCOL_UDP, source, ipv4(224, 0, 0, 2), udp(1985, 1985, hello), 1);
}
bytes glbp_hello(std::uint32_t source)
{
    return ip_packet_of(PROTOCOL_UDP, source, ipv4(224, 0, 0, 102), udp(3222, 3222, filler(60)), 255);
}
bytes vrrp_hello(const ipv6_address &source)
{
    return ipv6_packet_of(PROTOCOL_VRRP, source, ipv6("ff02::12"), hex("31 01 64 01 00 64 00 00"), 255);
}
bytes hsrp_hello(const ipv6_address &source)
{
    return ipv6_packet_of(PROTOCOL_UDP, source, ipv6("ff02::66"), udp(1985, 1985, filler(52)), 255);
}
bytes glbp_hello(const ipv6_address &source)
{
    return ipv6_packet_of(PROTOCOL_UDP, source, ipv6("ff02::66"), udp(3222, 3222, filler(60)), 255);
}

bytes core_packet(std::uint32_t source, std::uint32_t destination, const bytes &frame)
{
    return ip_packet_of(PROTOCOL_UDP, source, destination, overlay_udp(frame), 128);
}
bytes core_packet(const ipv6_address &source, const ipv6_address &destination, const bytes &frame)
{
    return ipv6_packet_of(PROTOCOL_UDP, source, destination, overlay_udp(frame), 128);
}

std::uint16_t internet_checksum(const bytes &data) { return finish(add_up(data)); }

} // namespace fake
