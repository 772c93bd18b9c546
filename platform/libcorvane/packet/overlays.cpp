// The table of overlays that the packet service serves.
#include "overlays.h"

#include "../interfaces.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <vector>

namespace corvane {

namespace {

constexpr std::size_t VLANS = 4096;

struct table {
    std::mutex mutex;
    std::vector<overlay_config> overlays;
    std::array<std::uint32_t, VLANS> owner{};
    std::atomic<bool> gre{false};
    std::atomic<std::uint32_t> version{1};

    void changed()
    {
        ++version;
        gre = std::ranges::any_of(overlays, [](const overlay_config &o) { return o.gre; });
    }
    auto find(std::uint32_t iod) { return std::ranges::find(overlays, iod, &overlay_config::iod); }
};
table &the_table()
{
    static table &instance = *new table;
    return instance;
}

bool is_for(const overlay_config &o, std::uint8_t family, const std::uint8_t *destination)
{
    if (family == 4)
        return std::memcmp(o.ipv4.data(), destination, 4) == 0 || std::memcmp(o.ipv4_group.data(), destination, 4) == 0;
    return std::memcmp(o.ipv6.data(), destination, 16) == 0 || std::memcmp(o.ipv6_group.data(), destination, 16) == 0;
}

bool is_group(std::uint8_t family, const std::uint8_t *destination)
{
    return family == 4 ? destination[0] >> 4 == 0xE : destination[0] == 0xFF;
}

} // namespace

bool overlay_get(std::uint32_t iod, overlay_config &out)
{
    table &t = the_table();
    const std::scoped_lock guard(t.mutex);
    const auto found = t.find(iod);
    if (found == t.overlays.end())
        return false;
    out = *found;
    return true;
}

bool overlays_use_gre()
{
    return the_table().gre.load(std::memory_order_relaxed);
}

std::vector<overlay_config> overlays_all()
{
    table &t = the_table();
    const std::scoped_lock guard(t.mutex);
    return t.overlays;
}

std::uint32_t overlays_version()
{
    return the_table().version.load(std::memory_order_relaxed);
}

std::uint32_t overlay_of_packet(std::uint8_t family, const std::uint8_t *destination, std::uint16_t vlan)
{
    table &t = the_table();
    const std::scoped_lock guard(t.mutex);
    std::uint32_t chosen = 0;
    for (const overlay_config &o : t.overlays)
        if (o.gre && is_for(o, family, destination) && (chosen == 0 || t.owner[vlan % VLANS] == o.iod))
            chosen = o.iod;
    if (chosen != 0 || !is_group(family, destination))
        return chosen;
    // A data group: this machine receives it because somebody joined it, and only the VLAN says for whom.
    const auto owner = std::ranges::find_if(t.overlays, [&](const overlay_config &o) {
        return o.gre && o.iod == t.owner[vlan % VLANS];
    });
    return owner != t.overlays.end() ? owner->iod : 0;
}

void overlay_set(const overlay_config &config)
{
    table &t = the_table();
    const std::scoped_lock guard(t.mutex);
    const auto found = t.find(config.iod);
    if (found != t.overlays.end())
        *found = config;
    else
        t.overlays.push_back(config);
    t.changed();
}

void overlays_prune(const interface_table &interfaces)
{
    table &t = the_table();
    const std::scoped_lock guard(t.mutex);
    constexpr std::uint32_t THERE = INTERFACE_PRESENT | INTERFACE_OVERLAY;
    std::erase_if(t.overlays, [&](const overlay_config &o) { return (interface_flags(interfaces, o.iod) & THERE) != THERE; });
    t.changed();
}

void overlay_vlan_set(std::uint16_t vlan, std::uint32_t iod)
{
    table &t = the_table();
    const std::scoped_lock guard(t.mutex);
    t.owner[vlan % VLANS] = iod;
}

} // namespace corvane
