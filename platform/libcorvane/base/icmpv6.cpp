// IPv6 neighbour discovery: reading of packets from outside, building of advertisements.
#include "icmpv6.h"

#include "checksum.h"

#include <algorithm>
#include <optional>

using namespace corvane;

namespace {

constexpr std::size_t IP_PAYLOAD_LENGTH = 4, IP_NEXT_HEADER = 6, IP_HOP_LIMIT = 7, IP_SOURCE = 8, IP_DESTINATION = 24,
                      IP_SIZE = 40, ADDRESS_SIZE = 16, MAC_SIZE = 6;
constexpr std::uint8_t ICMPV6 = 58, HOP_LIMIT = 255;         // anything lower was forwarded, and neighbours are on-link
constexpr std::size_t TYPE = 0, CODE = 1, CHECKSUM = 2, FLAGS = 4, TARGET = 8, OPTIONS = 24;
constexpr std::uint8_t SOLICITATION = 135, ADVERTISEMENT = 136;
constexpr std::uint8_t SOURCE_LINK_LAYER = 1, TARGET_LINK_LAYER = 2;
constexpr std::uint8_t FLAG_SOLICITED = 0x40, FLAG_OVERRIDE = 0x20;
constexpr std::size_t LINK_LAYER_OPTION_SIZE = 8;
static_assert(IP_SIZE + OPTIONS + LINK_LAYER_OPTION_SIZE == ICMPV6_NA_PACKET_SIZE);

// Options are units of 8 bytes and none is empty (RFC 4861, 4.6); a message with any other is not valid.
bool options_valid(packet_view options)
{
    while (!options.empty()) {
        if (options.size() < 8)
            return false;
        const std::size_t length = std::size_t{options[1]} * 8;
        if (length == 0 || length > options.size())
            return false;
        options = options.subspan(length);
    }
    return true;
}

const std::uint8_t *find_link_layer_address(packet_view options, std::uint8_t kind)
{
    while (!options.empty()) {
        if (options[0] == kind)
            return options.data() + 2;
        options = options.subspan(std::size_t{options[1]} * 8);
    }
    return nullptr;
}

packet_view source_of(packet_view packet) { return packet.subspan(IP_SOURCE, ADDRESS_SIZE); }
packet_view destination_of(packet_view packet) { return packet.subspan(IP_DESTINATION, ADDRESS_SIZE); }

// The ICMPv6 message of a solicitation or advertisement, options included. The header's payload length says where it
// ends: the caller's length may count padding of the frame, or miss bytes.
std::optional<packet_view> nd_message(packet_view packet)
{
    if (packet.size() < IP_SIZE + OPTIONS || packet[0] >> 4 != 6)
        return std::nullopt;
    if (packet[IP_NEXT_HEADER] != ICMPV6 || packet[IP_HOP_LIMIT] != HOP_LIMIT)
        return std::nullopt;
    const std::size_t length = be16(packet, IP_PAYLOAD_LENGTH);
    if (length < OPTIONS || length > packet.size() - IP_SIZE)
        return std::nullopt;
    const packet_view message = packet.subspan(IP_SIZE, length);
    if ((message[TYPE] != SOLICITATION && message[TYPE] != ADVERTISEMENT) || message[CODE] != 0)
        return std::nullopt;
    if (message[TARGET] == 0xFF)                             // a multicast target
        return std::nullopt;
    if (!options_valid(message.subspan(OPTIONS)))
        return std::nullopt;
    if (checksum_ipv6(source_of(packet), destination_of(packet), ICMPV6, message) != 0)
        return std::nullopt;
    return message;
}

bool is_unspecified(packet_view address)
{
    return std::ranges::all_of(address, [](std::uint8_t byte) { return byte == 0; });
}

} // namespace

bool icmpv6_get_nd_source_addresses(std::span<const std::uint8_t> packet, ipv6_address &address,
                                    const std::uint8_t *&mac)
{
    const auto message = nd_message(packet);
    if (!message)
        return false;
    const bool solicitation = (*message)[TYPE] == SOLICITATION;
    const packet_view from = solicitation ? source_of(packet) : message->subspan(TARGET, ADDRESS_SIZE);
    if (is_unspecified(from))                                // duplicate address detection maps nothing yet
        return false;
    std::ranges::copy(from, address.begin());
    mac = find_link_layer_address(message->subspan(OPTIONS), solicitation ? SOURCE_LINK_LAYER : TARGET_LINK_LAYER);
    return true;
}

const std::uint8_t *icmpv6_get_ns_target_address(std::span<const std::uint8_t> packet)
{
    const auto message = nd_message(packet);
    if (!message || (*message)[TYPE] != SOLICITATION)
        return nullptr;
    return message->data() + TARGET;
}

std::size_t icmpv6_nd_build_na(std::span<std::uint8_t> out, const ipv6_address &target, const ipv6_address &requester,
                               const std::uint8_t *target_mac, const std::uint8_t * /*requester_mac*/)
{
    if (out.size() < ICMPV6_NA_PACKET_SIZE)
        return 0;
    out = out.first(ICMPV6_NA_PACKET_SIZE);
    std::ranges::fill(out, std::uint8_t{0});
    out[0] = 0x60;
    put_be16(out, IP_PAYLOAD_LENGTH, ICMPV6_NA_PACKET_SIZE - IP_SIZE);
    out[IP_NEXT_HEADER] = ICMPV6;
    out[IP_HOP_LIMIT] = HOP_LIMIT;
    std::ranges::copy(target, out.begin() + IP_SOURCE);
    std::ranges::copy(requester, out.begin() + IP_DESTINATION);
    const std::span<std::uint8_t> message = out.subspan(IP_SIZE);
    message[TYPE] = ADVERTISEMENT;
    message[FLAGS] = FLAG_SOLICITED | FLAG_OVERRIDE;
    std::ranges::copy(target, message.begin() + TARGET);
    message[OPTIONS] = TARGET_LINK_LAYER;
    message[OPTIONS + 1] = 1;
    std::copy_n(target_mac, MAC_SIZE, message.begin() + OPTIONS + 2);
    put_be16(message, CHECKSUM, checksum_ipv6(source_of(out), destination_of(out), ICMPV6, message));
    return ICMPV6_NA_PACKET_SIZE;
}
