// Notices about core interfaces that are too small.
#include "overlay_size.h"

#include "gre.h"

#include "../interfaces.h"

#include <algorithm>
#include <cstdio>

namespace corvane {

namespace {

constexpr std::uint32_t FULL_FRAME = 1514 + VLAN_TAG;
constexpr std::uint32_t IPV4_HEADER = 20, IPV6_HEADER = 40, UDP_HEADER = 8, OVERLAY_HEADER = 4;
constexpr std::uint8_t FAMILY_IPV6 = 5;

std::string line(const interface_record &overlay, std::uint32_t needed, const interface_record &core)
{
    char text[2 * sizeof core.name + 128];
    std::snprintf(text, sizeof text,
                  "%s: full frames take packets of %u bytes, the MTU of %s is %u: they leave in fragments",
                  overlay.name, needed, core.name, core.mtu);
    return text;
}

} // namespace

std::uint32_t overlay_full_packet(const overlay_config &overlay)
{
    const std::uint32_t ip = overlay.family == FAMILY_IPV6 ? IPV6_HEADER : IPV4_HEADER;
    return ip + (overlay.gre ? static_cast<std::uint32_t>(GRE_HEADER) : UDP_HEADER + OVERLAY_HEADER) + FULL_FRAME;
}

void overlay_size_notices::forget(std::uint32_t overlay_iod)
{
    std::erase_if(given_, [&](const notice &n) { return n.overlay_iod == overlay_iod; });
}

bool overlay_size_notices::is_news(const notice &now)
{
    if (std::ranges::find(given_, now) != given_.end())
        return false;
    forget(now.overlay_iod);
    given_.push_back(now);
    return true;
}

std::vector<std::string> overlay_size_notices::look(std::span<const overlay_config> overlays,
                                                    const interface_table &table)
{
    std::erase_if(given_, [&](const notice &n) {
        return std::ranges::find(overlays, n.overlay_iod, &overlay_config::iod) == overlays.end();
    });
    std::vector<std::string> lines;
    for (const overlay_config &o : overlays) {
        interface_record overlay, core;
        const bool known = interface_read(table, o.iod, overlay) && interface_read(table, o.core_iod, core);
        if (!o.up || !known || core.mtu == 0)
            continue;
        const std::uint32_t needed = overlay_full_packet(o);
        if (needed <= core.mtu)
            forget(o.iod);
        else if (is_news({o.iod, o.core_iod, needed, core.mtu}))
            lines.push_back(line(overlay, needed, core));
    }
    return lines;
}

} // namespace corvane
