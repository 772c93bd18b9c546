// ARP over Ethernet for IPv4: reading of packets from outside, building of replies.
#include "arp.h"

#include "bytes_be.h"

#include <algorithm>

using namespace corvane;

namespace {

constexpr std::size_t HARDWARE = 0, PROTOCOL = 2, HARDWARE_SIZE = 4, PROTOCOL_SIZE = 5, OPERATION = 6, SENDER_MAC = 8,
                      SENDER_IP = 14, TARGET_MAC = 18, TARGET_IP = 24;
constexpr std::uint16_t ETHERNET = 1, IPV4 = 0x0800, REQUEST = 1, REPLY = 2;
constexpr std::size_t MAC_SIZE = 6, IP_SIZE = 4;
static_assert(TARGET_IP + IP_SIZE == ARP_PACKET_SIZE);

bool is_arp(packet_view packet)
{
    return packet.size() >= ARP_PACKET_SIZE && be16(packet, HARDWARE) == ETHERNET && be16(packet, PROTOCOL) == IPV4 &&
           packet[HARDWARE_SIZE] == MAC_SIZE && packet[PROTOCOL_SIZE] == IP_SIZE;
}

} // namespace

bool arp_get_source_addresses(std::span<const std::uint8_t> packet, std::uint32_t &ip_host, const std::uint8_t *&mac)
{
    if (!is_arp(packet))
        return false;
    const std::uint16_t operation = be16(packet, OPERATION);
    if (operation != REQUEST && operation != REPLY)
        return false;
    ip_host = be32(packet, SENDER_IP);
    mac = packet.data() + SENDER_MAC;
    return true;
}

bool arp_get_request_target_address(std::span<const std::uint8_t> packet, std::uint32_t &ip_host)
{
    if (!is_arp(packet) || be16(packet, OPERATION) != REQUEST)
        return false;
    ip_host = be32(packet, TARGET_IP);
    return true;
}

std::size_t arp_build_arp_reply(std::span<std::uint8_t> out, std::uint32_t target_ip_host,
                                std::uint32_t requester_ip_host, const std::uint8_t *target_mac,
                                const std::uint8_t *requester_mac)
{
    if (out.size() < ARP_PACKET_SIZE)
        return 0;
    put_be16(out, HARDWARE, ETHERNET);
    put_be16(out, PROTOCOL, IPV4);
    out[HARDWARE_SIZE] = MAC_SIZE;
    out[PROTOCOL_SIZE] = IP_SIZE;
    put_be16(out, OPERATION, REPLY);
    std::copy_n(target_mac, MAC_SIZE, out.begin() + SENDER_MAC);
    put_be32(out, SENDER_IP, target_ip_host);
    std::copy_n(requester_mac, MAC_SIZE, out.begin() + TARGET_MAC);
    put_be32(out, TARGET_IP, requester_ip_host);
    return ARP_PACKET_SIZE;
}
