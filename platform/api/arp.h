// ARP over Ethernet for IPv4 (RFC 826): `packet` begins at the hardware type. Lengths are checked.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

inline constexpr std::size_t ARP_PACKET_SIZE = 28;

// Sender addresses of a request or a reply; `mac` points into the packet. False: not such a packet.
[[nodiscard]] bool arp_get_source_addresses(std::span<const std::uint8_t> packet, std::uint32_t &ip_host,
                                            const std::uint8_t *&mac);
[[nodiscard]] bool arp_get_request_target_address(std::span<const std::uint8_t> packet, std::uint32_t &ip_host);
// Builds the reply "target_ip is at target_mac" for the requester. Result: its length.
std::size_t arp_build_arp_reply(std::span<std::uint8_t> out, std::uint32_t target_ip_host,
                                std::uint32_t requester_ip_host, const std::uint8_t *target_mac,
                                const std::uint8_t *requester_mac);
