// ARP/ND suppression: mappings are gleaned from every ARP and ND packet of an overlay's VLANs, and requests of site
// hosts are answered from them. Requests for anycast addresses are not forwarded at all.
#include "lum_packet.h"

#include "arp.h"
#include "drops.h"
#include "icmpv6.h"
#include "lum_inlines.h"

#include <algorithm>
#include <optional>

namespace {

constexpr int HANDLED = 1, NOT_HANDLED = 0;
constexpr std::uint16_t TYPE_ARP = 0x0806, TYPE_IPV6 = 0x86DD;
constexpr std::size_t IPV6_NEXT_HEADER_AT = 6;
constexpr std::uint8_t NEXT_HEADER_ICMPV6 = 58;

std::uint16_t type_behind(const std::uint8_t *tag)
{
    return wire_be16(tag + 2);
}

// What follows the type behind the tag, to the frame's end and not a byte further.
std::span<const std::uint8_t> payload_behind(const lum_frame &frame, const std::uint8_t *tag)
{
    const std::uint8_t *payload = tag + 4;
    return {payload, static_cast<std::size_t>(frame.data + frame.length - payload)};
}

// Sender of an ARP or ND packet: one of the two addresses, and a MAC.
struct sender {
    std::uint32_t ipv4 = 0;                                  // host order; 0: IPv6
    ipv6_address ipv6{};
    const std::uint8_t *mac = nullptr;
};

// None for any other packet, and for a probe: a host that asks whether an address is free has none yet, so 0.0.0.0
// and :: must neither be cached nor answered.
std::optional<sender> find_sender(std::uint16_t type, std::span<const std::uint8_t> payload)
{
    sender found;
    if (type == TYPE_ARP) {
        if (!arp_get_source_addresses(payload, found.ipv4, found.mac) || found.ipv4 == 0)
            return std::nullopt;
    } else if (type == TYPE_IPV6) {
        if (!icmpv6_get_nd_source_addresses(payload, found.ipv6, found.mac) || found.ipv6 == ipv6_address{})
            return std::nullopt;
    }
    if (found.mac == nullptr)
        return std::nullopt;
    return found;
}

std::optional<ipv6_address> solicited_address(std::span<const std::uint8_t> payload)
{
    const std::uint8_t *target = icmpv6_get_ns_target_address(payload);
    if (target == nullptr)
        return std::nullopt;
    ipv6_address address;
    std::copy_n(target, address.size(), address.begin());
    return address;
}

} // namespace

int lum_send_arp_reply(lum_overlay &overlay, const lum_mac_info &requester, std::uint32_t iod,
                       std::uint32_t requester_ip, std::uint32_t target_ip)
{
    const lum_arp_nd_entry *entry =
        lum_get_from_arp_nd_cache(overlay.arp_nd_cache, lum_addr_ipv4(target_ip), requester.vlan);
    if (entry == nullptr)
        return NOT_HANDLED;
    const std::uint8_t *target_mac = entry->mac.mac.data();
    std::array<std::uint8_t, ARP_PACKET_SIZE> reply;
    const std::size_t length = arp_build_arp_reply(reply, target_ip, requester_ip, target_mac, requester.mac.data());
    if (lum_arp_nd_debug_flag != 0) {
        lum_text ip, info, target, mac;
        LUM_TRACE_ARP_ND("Send proxy ARP-Reply to %s (%s) for target IP %s with target MAC %s\n",
                         lum_print_ipv4(requester_ip, ip), lum_print_mac_info(requester, info),
                         lum_print_ipv4(target_ip, target), lum_print_mac(target_mac, mac));
    }
    return lum_send(reply.data(), static_cast<std::uint32_t>(length), target_mac, requester.mac.data(), TYPE_ARP, iod);
}

int lum_send_nd_reply(lum_overlay &overlay, const lum_mac_info &requester, std::uint32_t iod,
                      const ipv6_address &requester_ip, const ipv6_address &target_ip)
{
    const lum_arp_nd_entry *entry =
        lum_get_from_arp_nd_cache(overlay.arp_nd_cache, lum_addr_ipv6(target_ip), requester.vlan);
    if (entry == nullptr)
        return NOT_HANDLED;
    const std::uint8_t *target_mac = entry->mac.mac.data();
    std::array<std::uint8_t, ICMPV6_NA_PACKET_SIZE> reply;
    const std::size_t length = icmpv6_nd_build_na(reply, target_ip, requester_ip, target_mac, requester.mac.data());
    if (lum_arp_nd_debug_flag != 0) {
        lum_text ip, info, target, mac;
        LUM_TRACE_ARP_ND("Send proxy ND NA-message to %s (%s) for target IPv6 %s with target MAC %s\n",
                         lum_print_ipv6(requester_ip, ip), lum_print_mac_info(requester, info),
                         lum_print_ipv6(target_ip, target), lum_print_mac(target_mac, mac));
    }
    return lum_send(reply.data(), static_cast<std::uint32_t>(length), target_mac, requester.mac.data(), TYPE_IPV6, iod);
}

int lum_suppress_arp_nd(std::uint32_t iod, const lum_mac_info &source, const lum_mac_info & /*destination*/,
                        const lum_frame &frame, const std::uint8_t *tag, lum_overlay *overlay)
{
    if (overlay == nullptr)
        overlay = lum_vlans[source.vlan].overlay;
    const std::uint16_t type = type_behind(tag);
    if (overlay == nullptr || overlay->suppress_arp == 0 || (type != TYPE_ARP && type != TYPE_IPV6))
        return NOT_HANDLED;

    const std::span<const std::uint8_t> payload = payload_behind(frame, tag);
    const std::optional<sender> from = find_sender(type, payload);
    if (!from)
        return NOT_HANDLED;
    lum_cache_arp_nd(*overlay, from->ipv4, from->ipv6, source.vlan, from->mac);
    if (lum_get_overlay(iod) != nullptr)                     // only site hosts get proxy replies
        return NOT_HANDLED;

    // A request for the sender's own address is answered from what was cached just now; deliberate, like any other.
    if (type == TYPE_IPV6) {
        const std::optional<ipv6_address> target = solicited_address(payload);
        return target ? lum_send_nd_reply(*overlay, source, iod, from->ipv6, *target) : NOT_HANDLED;
    }
    std::uint32_t target = 0;
    return arp_get_request_target_address(payload, target)
               ? lum_send_arp_reply(*overlay, source, iod, from->ipv4, target)
               : NOT_HANDLED;
}

namespace {

// Address that an ARP request or a neighbour solicitation asks for; kind LUM_ADDR_EMPTY for any other packet.
lum_addr requested_address(std::uint16_t type, std::span<const std::uint8_t> payload)
{
    std::uint32_t ipv4 = 0;
    if (type == TYPE_ARP && arp_get_request_target_address(payload, ipv4))
        return lum_addr_ipv4(ipv4);
    if (type == TYPE_IPV6 && payload.size() > IPV6_NEXT_HEADER_AT && payload[IPV6_NEXT_HEADER_AT] == NEXT_HEADER_ICMPV6)
        if (const std::optional<ipv6_address> target = solicited_address(payload))
            return lum_addr_ipv6(*target);
    return {};
}

} // namespace

int lum_filter_arp_nd(const lum_mac_info &source, const lum_mac_info &destination, const lum_frame &frame,
                      const std::uint8_t *tag)
{
    if (lum_any_anycast_arp_addrs == 0)
        return NOT_HANDLED;
    const lum_addr target = requested_address(type_behind(tag), payload_behind(frame, tag));
    if (target.kind == LUM_ADDR_EMPTY)
        return NOT_HANDLED;

    const bool is_arp = target.kind == LUM_ADDR_IPV4;
    lum_text text;
    // "ND NA" also for solicitations, deliberate: the text is what operators search for.
    LUM_TRACE_ARP_ND("Doing Anycast-ARP/ND processing for %s message for target %s\n",
                     is_arp ? "ARP-Request" : "ND NA", lum_print_addr(target, text));
    const std::uint32_t ipv4 = lum_addr_word(target, 0);
    const ipv6_address ipv6 = lum_addr_ipv6_bytes(target);
    const bool found = lum_is_addr_anycast_arp(is_arp ? &ipv4 : nullptr, is_arp ? nullptr : &ipv6) != 0;
    LUM_TRACE_ARP_ND("%s %s in configured anycast address list\n", lum_print_addr(target, text),
                     found ? "found" : "not found");
    if (!found)
        return NOT_HANDLED;
    drop_count(drop_reason::FWD_ANYCAST);
    LUM_IF_FRAME_TRACED(source, destination)
        LUM_TRACE_PACKET("Filter %s packet due to anycast-ARP/NS configuration\n", is_arp ? "ARP" : "NS");
    return HANDLED;
}
