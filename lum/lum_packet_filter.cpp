// Frame filters: control frames of a site that must never cross into the core. Consulted for copies that would be
// encapsulated; copies to local ports are not filtered.
#include "lum_packet.h"

#include "lum_inlines.h"

#include <array>

std::uint32_t lum_filter_fhrp = 1;

namespace {

constexpr int FILTERED = 1, PASSES = 0;
constexpr std::uint16_t SNAP_LIMIT = 0x600, TYPE_8021Q = 0x8100;
constexpr std::uint16_t TYPE_IPV4 = 0x0800, TYPE_IPV6 = 0x86DD, TYPE_ISIS = 0xFEFE;
constexpr std::uint8_t PROTOCOL_VRRP = 112, PROTOCOL_UDP = 17;
constexpr std::uint16_t PORT_HSRP = 1985, PORT_GLBP = 3222;
constexpr int ISIS_LOG_LEVEL = 2;

// The IPv4 header is taken to have 20 bytes and UDP to follow the IPv6 header directly.
struct ip_layout {
    std::uint32_t protocol_at, port_at;
    const char *vrrp, *hsrp, *glbp;
};
constexpr ip_layout IPV4_LAYOUT{9, 22, "IPv4/VRRP", "IPv4/HSRP", "IPv4/GLBP"};
constexpr ip_layout IPV6_LAYOUT{6, 42, "IPv6/VRRP", "IPv6/HSRP", "IPv6/GLBP"};

struct network_header {
    std::uint16_t type = 0;
    const std::uint8_t *data = nullptr;
    std::uint32_t length = 0;
};

network_header find_network_header(const lum_frame &frame)
{
    std::uint32_t type_at = frame.length >= 14 && wire_be16(frame.data + 12) <= SNAP_LIMIT ? 20 : 12;
    if (frame.length < type_at + 2)
        return {};
    if (wire_be16(frame.data + type_at) == TYPE_8021Q)
        type_at += 4;
    if (frame.length < type_at + 2)
        return {};
    const std::uint32_t at = type_at + 2;
    return {wire_be16(frame.data + type_at), frame.data + at, frame.length - at};
}

// Name of the first-hop redundancy protocol whose hello this is, null for any other packet.
const char *hello_name(const network_header &header, const ip_layout &layout)
{
    if (header.length <= layout.protocol_at)
        return nullptr;
    if (header.data[layout.protocol_at] == PROTOCOL_VRRP)
        return layout.vrrp;
    if (header.data[layout.protocol_at] != PROTOCOL_UDP || header.length < layout.port_at + 2)
        return nullptr;
    switch (wire_be16(header.data + layout.port_at)) {
    case PORT_HSRP:
        return layout.hsrp;
    case PORT_GLBP:
        return layout.glbp;
    default:
        return nullptr;
    }
}

const char *filter_name(const network_header &header)
{
    switch (header.type) {
    case TYPE_IPV4:
        return lum_filter_fhrp != 0 ? hello_name(header, IPV4_LAYOUT) : nullptr;
    case TYPE_IPV6:
        // Whatever lum_filter_fhrp says, deliberate: the command governs the IPv4 hellos only.
        return hello_name(header, IPV6_LAYOUT);
    case 0x2000:
        return "CDP";
    case 0x4242:
        return "STP";
    case TYPE_ISIS:
        return "IS-IS";
    default:
        return nullptr;
    }
}

} // namespace

int lum_filter(const lum_frame &frame, const lum_mac_info &source, const lum_mac_info &destination)
{
    const network_header header = find_network_header(frame);
    const char *name = filter_name(header);
    if (header.type == TYPE_ISIS)
        krel_syslog(ISIS_LOG_LEVEL, "Filter ISIS packet\n");     // every time, whatever the debug flags
    if (name == nullptr)
        return PASSES;
    LUM_IF_FRAME_TRACED(source, destination)
        LUM_TRACE_PACKET("Filter %s frame\n", name);
    return FILTERED;
}
