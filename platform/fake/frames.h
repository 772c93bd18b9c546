// Frames, packets and addresses for tests, built from readable arguments. Tags are low byte first in the control
// field, the way frames stand towards the daemon; the platform turns them on the wire.
#pragma once

#include "fake_bytes.h"

#include "rtab.h"

#include <array>
#include <cstdint>
#include <string_view>

namespace fake {

using mac_address = std::array<std::uint8_t, 6>;

// ---- addresses
[[nodiscard]] constexpr std::uint32_t ipv4(unsigned a, unsigned b, unsigned c, unsigned d)   // host order
{
    return a << 24 | b << 16 | c << 8 | d;
}
[[nodiscard]] ipv6_address ipv6(std::string_view text);                      // "2001:db8::1"
[[nodiscard]] mac_address mac(std::string_view text);                        // "02:00:00:00:00:0a"
inline constexpr mac_address BROADCAST{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
[[nodiscard]] mac_address group_mac(std::uint32_t group);                    // 01:00:5e and the group's low 23 bits
[[nodiscard]] mac_address group_mac(const ipv6_address &group);              // 33:33 and the group's last 4 bytes

// ---- next hops, as routes hold them
[[nodiscard]] rtab_addr local(std::uint32_t iod);
[[nodiscard]] rtab_addr local_ifindex(std::uint32_t ifindex);
[[nodiscard]] rtab_addr remote(std::uint32_t overlay_iod, std::uint32_t ipv4_host);
[[nodiscard]] rtab_addr remote(std::uint32_t overlay_iod, const ipv6_address &address);
[[nodiscard]] rtab_addr ip_addr(std::uint32_t ipv4_host);                    // kind 4
[[nodiscard]] rtab_addr ip_addr(const ipv6_address &address);                // kind 5

// ---- frames
[[nodiscard]] bytes ethernet(const mac_address &destination, const mac_address &source, std::uint16_t type,
                             const bytes &payload = {});
[[nodiscard]] bytes tagged(const mac_address &destination, const mac_address &source, std::uint16_t vlan,
                           std::uint16_t type, const bytes &payload = {});
// 802.3 with LLC AA-AA-03 and a SNAP header; the length field counts what follows it.
[[nodiscard]] bytes snap(const mac_address &destination, const mac_address &source, std::uint16_t type,
                         const bytes &payload = {});
[[nodiscard]] bytes tagged_snap(const mac_address &destination, const mac_address &source, std::uint16_t vlan,
                                std::uint16_t type, const bytes &payload = {});
[[nodiscard]] bytes with_tag(const bytes &untagged, std::uint16_t vlan);     // of any of the above
// The standard 802.1Q order, as a tagged frame stands on the wire.
[[nodiscard]] bytes wire_tagged(const mac_address &destination, const mac_address &source, std::uint16_t tci,
                                std::uint16_t type, const bytes &payload = {});
[[nodiscard]] bytes padded(bytes frame, std::size_t length);                 // zeros up to that length
[[nodiscard]] bytes filler(std::size_t length);                              // 0, 1, 2 ...

// ---- ARP and neighbour discovery: the payload behind the frame's type
[[nodiscard]] bytes arp_request(const mac_address &sender, std::uint32_t sender_ip, std::uint32_t target_ip);
[[nodiscard]] bytes arp_reply(const mac_address &sender, std::uint32_t sender_ip, const mac_address &target,
                              std::uint32_t target_ip);
// Without `option`, no link-layer option.
[[nodiscard]] bytes neighbour_solicitation(const ipv6_address &source, const ipv6_address &target,
                                           const mac_address *option = nullptr);
[[nodiscard]] bytes neighbour_advertisement(const ipv6_address &source, const ipv6_address &destination,
                                            const ipv6_address &target, const mac_address *option = nullptr);
[[nodiscard]] ipv6_address solicited_node(const ipv6_address &target);

// ---- IP packets
[[nodiscard]] bytes ip_packet_of(std::uint8_t protocol, std::uint32_t source, std::uint32_t destination,
                                 const bytes &payload = {}, std::uint8_t ttl = 64);
[[nodiscard]] bytes ipv6_packet_of(std::uint8_t next_header, const ipv6_address &source,
                                   const ipv6_address &destination, const bytes &payload = {},
                                   std::uint8_t hop_limit = 64);
[[nodiscard]] bytes udp(std::uint16_t source_port, std::uint16_t destination_port, const bytes &payload = {});
// Hellos of the first-hop redundancy protocols, whole IP packets.
[[nodiscard]] bytes vrrp_hello(std::uint32_t source);
[[nodiscard]] bytes hsrp_hello(std::uint32_t source);                        // UDP port 1985
[[nodiscard]] bytes glbp_hello(std::uint32_t source);                        // UDP port 3222
[[nodiscard]] bytes vrrp_hello(const ipv6_address &source);
[[nodiscard]] bytes hsrp_hello(const ipv6_address &source);
[[nodiscard]] bytes glbp_hello(const ipv6_address &source);

// ---- what a receive thread gets: outer IP and UDP headers, shim, frame
[[nodiscard]] bytes core_packet(std::uint32_t source, std::uint32_t destination, const bytes &frame);
[[nodiscard]] bytes core_packet(const ipv6_address &source, const ipv6_address &destination, const bytes &frame);

// Checksum that the bytes ought to sum to (0 when a checksum within them is right).
[[nodiscard]] std::uint16_t internet_checksum(const bytes &data);

} // namespace fake
