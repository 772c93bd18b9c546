// Encapsulation of frames towards the core in UDP over IPv4 or IPv6, core groups of multicast MACs, and the way back:
// the receive threads' entry points. In GRE format the platform encapsulates and no header is built here.
#include "lum_packet.h"

#include "drops.h"
#include "lum_inlines.h"
#include "memacct.h"

#include <cstring>

namespace {

// Outer header of UDP over IPv4: {offset, width} in bytes.
constexpr wire_field IP_VERSION_LENGTH{0, 1};
constexpr wire_field IP_TOS{1, 1};
constexpr wire_field IP_LENGTH{2, 2};                // 32 + frame; host order, deliberate: the IP stack swaps it
constexpr wire_field IP_TTL{8, 1};
constexpr wire_field IP_PROTOCOL{9, 1};
constexpr wire_field IP_CHECKSUM{10, 2};             // over bytes 0-19, filled last
constexpr wire_field IP_SOURCE{12, 4};
constexpr wire_field IP_DESTINATION{16, 4};
constexpr wire_field IP_UDP_SOURCE{20, 2};           // frame hash
constexpr wire_field IP_UDP_DESTINATION{22, 2};
constexpr wire_field IP_UDP_LENGTH{24, 2};           // 12 + frame; the checksum behind it stays 0
constexpr wire_field IP_GRE_TYPE{22, 2};
constexpr std::size_t IP_HEADER_SIZE = 20;

// Outer header of UDP over IPv6.
constexpr wire_field IPV6_VERSION{0, 1};
constexpr wire_field IPV6_LENGTH{4, 2};              // 12 + frame
constexpr wire_field IPV6_NEXT_HEADER{6, 1};
constexpr wire_field IPV6_HOP_LIMIT{7, 1};
constexpr wire_field IPV6_SOURCE{8, 16};
constexpr wire_field IPV6_DESTINATION{24, 16};
constexpr wire_field IPV6_UDP_SOURCE{40, 2};
constexpr wire_field IPV6_UDP_DESTINATION{42, 2};
constexpr wire_field IPV6_UDP_LENGTH{44, 2};
constexpr wire_field IPV6_GRE_TYPE{42, 2};

constexpr std::uint32_t UDP_AND_SHIM = 12;
constexpr std::uint8_t TTL = 128, PROTOCOL_UDP = 17, PROTOCOL_GRE = 47;
constexpr std::uint32_t PACKET_MAX = 65535;

template <std::size_t N> void init_ipv4(std::array<std::uint8_t, N> &header, std::uint8_t protocol)
{
    const std::span<std::uint8_t, N> out{header};
    header.fill(0);
    wire_put_be<IP_VERSION_LENGTH>(out, std::uint8_t{0x45});
    wire_put_be<IP_TOS>(out, std::uint8_t{0xC0});
    wire_put_be<IP_TTL>(out, TTL);
    wire_put_be<IP_PROTOCOL>(out, protocol);
}

// The traffic class stays 0 although IPv4 has TOS 0xC0: deliberate, receivers have always seen it so.
template <std::size_t N> void init_ipv6(std::array<std::uint8_t, N> &header, std::uint8_t next_header)
{
    const std::span<std::uint8_t, N> out{header};
    header.fill(0);
    wire_put_be<IPV6_VERSION>(out, std::uint8_t{0x60});
    wire_put_be<IPV6_NEXT_HEADER>(out, next_header);
    wire_put_be<IPV6_HOP_LIMIT>(out, TTL);
}

} // namespace

std::array<std::uint8_t, 32> lum_ip_encap;
std::array<std::uint8_t, 52> lum_ipv6_encap;
std::array<std::uint8_t, 28> lum_ip_e8_encap;
std::array<std::uint8_t, 48> lum_ipv6_e8_encap;

void lum_init_encap_headers()
{
    init_ipv4(lum_ip_encap, PROTOCOL_UDP);
    wire_put_be<IP_UDP_DESTINATION>(std::span{lum_ip_encap}, LUM_UDP_PORT);
    init_ipv6(lum_ipv6_encap, PROTOCOL_UDP);
    wire_put_be<IPV6_UDP_DESTINATION>(std::span{lum_ipv6_encap}, LUM_UDP_PORT);

    // No send path reads the GRE templates. Their protocol type is 0x8847 in little-endian order, deliberate.
    constexpr std::uint16_t GRE_TYPE = 0x4788;
    init_ipv4(lum_ip_e8_encap, PROTOCOL_GRE);
    wire_put_be<IP_GRE_TYPE>(std::span{lum_ip_e8_encap}, GRE_TYPE);
    init_ipv6(lum_ipv6_e8_encap, PROTOCOL_GRE);
    wire_put_be<IPV6_GRE_TYPE>(std::span{lum_ipv6_e8_encap}, GRE_TYPE);
}

std::uint16_t lum_mac_hash(const std::uint8_t *frame)
{
    const auto le32 = [](const std::uint8_t *p) {
        return p[0] | std::uint32_t{p[1]} << 8 | std::uint32_t{p[2]} << 16 | std::uint32_t{p[3]} << 24;
    };
    const std::uint32_t mixed = le32(frame) ^ le32(frame + 4) ^ le32(frame + 8);
    return static_cast<std::uint16_t>(mixed ^ mixed >> 16);
}

namespace {

// One packet under construction: the header space, and the frame copied behind it. Accounted as packet memory.
class scratch_packet {
public:
    scratch_packet(std::size_t header_size, const lum_frame &frame)
        : size_(header_size + frame.length),
          data_(static_cast<std::uint8_t *>(memacct_alloc(LUM_SERVICE, LUM_MEM_TYPE_PACKET, size_)))
    {
        if (data_ != nullptr)
            std::memcpy(data_ + header_size, frame.data, frame.length);
    }
    ~scratch_packet()
    {
        if (data_ != nullptr)
            memacct_free(LUM_SERVICE, LUM_MEM_TYPE_PACKET, data_);
    }
    scratch_packet(const scratch_packet &) = delete;
    scratch_packet &operator=(const scratch_packet &) = delete;

    [[nodiscard]] explicit operator bool() const { return data_ != nullptr; }
    template <std::size_t N> std::span<std::uint8_t, N> header() { return std::span<std::uint8_t, N>{data_, N}; }
    // The finished packet in a buffer of the stack's; null when there is none or it does not take the packet.
    [[nodiscard]] mbuf *to_mbuf() const
    {
        mbuf *m = m_get(size_);
        if (m != nullptr && m_copyback(m, 0, size_, data_))
            return m;
        if (m != nullptr)
            m_freem(m);
        return nullptr;
    }

private:
    std::size_t size_;
    std::uint8_t *data_;
};

std::uint32_t ext_iod(const lum_overlay &overlay)
{
    return overlay.ext_if[0].iod;
}

bool encapsulation_traced()
{
    return lum_packet_debug_flag != 0 && lum_packet_debug_unicast != 0;
}

void encapsulate_ipv4(const lum_frame &frame, std::uint32_t destination, const lum_overlay &overlay) LUM_LOCKED;
void encapsulate_ipv4(const lum_frame &frame, std::uint32_t destination, const lum_overlay &overlay)
{
    if (overlay.ext_ipv4 == 0)
        return drop_count(drop_reason::ENCAP_NO_SOURCE);
    scratch_packet packet(lum_ip_encap.size(), frame);
    if (!packet)
        return drop_count(drop_reason::ENCAP_NO_MEMORY);

    const auto header = packet.header<lum_ip_encap.size()>();
    std::memcpy(header.data(), lum_ip_encap.data(), lum_ip_encap.size());
    wire_put_be<IP_UDP_SOURCE>(header, lum_mac_hash(frame.data));
    wire_put_be<IP_UDP_LENGTH>(header, static_cast<std::uint16_t>(UDP_AND_SHIM + frame.length));
    wire_put_host<IP_LENGTH>(header, static_cast<std::uint16_t>(lum_ip_encap.size() + frame.length));
    wire_put_be<IP_SOURCE>(header, overlay.ext_ipv4);
    wire_put_be<IP_DESTINATION>(header, destination);
    wire_put_host<IP_CHECKSUM>(header, ip_checksum(header.data(), IP_HEADER_SIZE));

    mbuf *m = packet.to_mbuf();
    if (m == nullptr)
        return drop_count(drop_reason::ENCAP_NO_MEMORY);
    if (encapsulation_traced()) {
        lum_text from, to;
        LUM_TRACE_PACKET("UDP/IP encapsulate packet %s -> %s on overlay %s, length: %d\n",
                         lum_print_ipv4(overlay.ext_ipv4, from), lum_print_ipv4(destination, to), overlay.if_name,
                         static_cast<int>(frame.length));
    }
    const bool multicast = destination >> 28 == 0xE;
    ip_cl_output(lum_ip_client, m, multicast ? ext_iod(overlay) : 0);
}

void encapsulate_ipv6(const lum_frame &frame, const ipv6_address &destination, const lum_overlay &overlay) LUM_LOCKED;
void encapsulate_ipv6(const lum_frame &frame, const ipv6_address &destination, const lum_overlay &overlay)
{
    scratch_packet packet(lum_ipv6_encap.size(), frame);
    if (!packet)
        return drop_count(drop_reason::ENCAP_NO_MEMORY);

    const auto header = packet.header<lum_ipv6_encap.size()>();
    std::memcpy(header.data(), lum_ipv6_encap.data(), lum_ipv6_encap.size());
    const auto udp_length = static_cast<std::uint16_t>(UDP_AND_SHIM + frame.length);
    wire_put_be<IPV6_UDP_SOURCE>(header, lum_mac_hash(frame.data));
    wire_put_be<IPV6_UDP_LENGTH>(header, udp_length);
    wire_put_be<IPV6_LENGTH>(header, udp_length);
    wire_put_bytes<IPV6_SOURCE>(header, overlay.ext_ipv6);
    wire_put_bytes<IPV6_DESTINATION>(header, destination);

    mbuf *m = packet.to_mbuf();
    if (m == nullptr)
        return drop_count(drop_reason::ENCAP_NO_MEMORY);
    if (encapsulation_traced()) {
        lum_text from, to;
        LUM_TRACE_PACKET("UDP/IPv6 encapsulate packet %s -> %s on overlay %s, length: %d\n",
                         lum_print_ipv6(overlay.ext_ipv6, from), lum_print_ipv6(destination, to), overlay.if_name,
                         static_cast<int>(frame.length));
    }
    static constexpr ipv6_address NO_HINT{};
    const bool multicast = destination[0] == 0xFF;
    ipv6_client_output(lum_ipv6_client, m, NO_HINT, multicast ? ext_iod(overlay) : 0);
}

} // namespace

void lum_encapsulate(const lum_frame &frame, const lum_mac_info &source, const lum_mac_info &destination,
                     const lum_addr &address, lum_overlay &overlay)
{
    if (address.kind != LUM_ADDR_NEXT_HOP)
        return drop_count(drop_reason::FWD_BAD_NEXT_HOP);
    if (overlay.encap_type == LUM_ENCAP_GRE) {
        lum_output(frame, overlay.iod, source, destination, 0, &address);
        return;
    }
    if (frame.length > PACKET_MAX - lum_ipv6_encap.size())
        return drop_count(drop_reason::CORE_TOO_BIG);
    switch (lum_next_hop_family(address)) {
    case LUM_FAMILY_IPV4:
        return encapsulate_ipv4(frame, lum_next_hop_ipv4(address), overlay);
    case LUM_FAMILY_IPV6:
        return encapsulate_ipv6(frame, lum_next_hop_ipv6(address), overlay);
    default:
        return drop_count(drop_reason::FWD_BAD_NEXT_HOP);
    }
}

namespace {

lum_addr ipv4_core_group(const lum_overlay &overlay, const std::uint8_t *mac)
{
    const std::uint32_t mask = ip_bits2mask(overlay.data_group.length);
    return lum_addr_next_hop(overlay.iod, (wire_be32(mac + 2) & ~mask) | overlay.data_group.base);
}

// Unlike the IPv4 rule the MAC's bytes are taken in little-endian order and the base's last four bytes are discarded:
// deliberate, both ends must derive the same group.
lum_addr ipv6_core_group(const lum_overlay &overlay, const std::uint8_t *mac)
{
    const std::uint32_t length = overlay.data_group6.length;
    const std::uint32_t mask = ip_bits2mask(length > 96 ? length - 96 : 0);
    ipv6_address group = overlay.data_group6.base;
    for (std::uint32_t i = 0; i < 4; ++i)
        group[12 + i] = static_cast<std::uint8_t>(mac[2 + i] & ~(mask >> 8 * i));
    return lum_addr_next_hop(overlay.iod, group);
}

} // namespace

int lum_build_core_group_address(const lum_overlay &overlay, const lum_mac_info &destination, lum_addr &address)
{
    const std::uint8_t *mac = destination.mac.data();
    if (mac[0] == 0x01 && mac[1] == 0x00 && mac[2] == 0x5E)
        address = ipv4_core_group(overlay, mac);
    else if (mac[0] == 0x33 && mac[1] == 0x33)
        address = ipv6_core_group(overlay, mac);
    else
        return 0;
    return 1;
}

void lum_mencapsulate(const lum_frame &frame, const lum_mac_info &source, const lum_mac_info &destination,
                      lum_overlay &overlay)
{
    lum_addr group;
    if (lum_build_core_group_address(overlay, destination, group) == 0)
        group = overlay.encap_family == LUM_FAMILY_IPV4 ? overlay.ipv4_group : overlay.ipv6_group;
    lum_encapsulate(frame, source, destination, group, overlay);
}

// Nothing of the outer headers is taken on trust, so nothing but the addresses for the trace is read.
void lum_ip_decapsulate(std::uint8_t *packet, std::uint32_t length)
{
    if (length < lum_ip_encap.size())
        return drop_count(drop_reason::DECAP_SHORT);
    if (encapsulation_traced()) {
        lum_text from, to;
        LUM_TRACE_PACKET("UDP/IP decapsulate packet %s -> %s, length: %d\n",
                         lum_print_ipv4(wire_be32(packet + IP_SOURCE.at), from),
                         lum_print_ipv4(wire_be32(packet + IP_DESTINATION.at), to), static_cast<int>(length));
    }
    lum_input(packet + lum_ip_encap.size(), length - static_cast<std::uint32_t>(lum_ip_encap.size()), 0);
}

void lum_ipv6_decapsulate(std::uint8_t *packet, std::uint32_t length)
{
    if (length < lum_ipv6_encap.size())
        return drop_count(drop_reason::DECAP_SHORT);
    if (encapsulation_traced()) {
        ipv6_address source, destination;
        std::memcpy(source.data(), packet + IPV6_SOURCE.at, source.size());
        std::memcpy(destination.data(), packet + IPV6_DESTINATION.at, destination.size());
        lum_text from, to;
        LUM_TRACE_PACKET("UDP/IPv6 decapsulate packet, %s -> %s, length: %d\n", lum_print_ipv6(source, from),
                         lum_print_ipv6(destination, to), static_cast<int>(length));
    }
    lum_input(packet + lum_ipv6_encap.size(), length - static_cast<std::uint32_t>(lum_ipv6_encap.size()), 0);
}
