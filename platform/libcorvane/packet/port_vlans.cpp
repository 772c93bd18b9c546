// VLANs of the switchports.
#include "port_vlans.h"

#include "../interfaces.h"
#include "authority.h"

#include "intfmgr.h"

#include <bitset>
#include <map>
#include <mutex>
#include <vector>

namespace corvane {

namespace {

constexpr std::size_t VLANS = 4096;

struct port {
    bool trunk = false, up = false;
    std::bitset<VLANS> vlans;
};
struct table {
    std::mutex mutex;
    std::map<std::uint32_t, port> ports;
};
table &the_table()
{
    static table &instance = *new table;
    return instance;
}

bool is_usable(std::uint32_t iod)
{
    constexpr std::uint32_t USABLE = INTERFACE_PRESENT | INTERFACE_SWITCHPORT | INTERFACE_UP;
    const interface_table *table = interfaces();
    return table != nullptr && (interface_flags(*table, iod) & USABLE) == USABLE;
}

std::vector<std::uint16_t> members(const bitfield &vlans)
{
    std::vector<std::uint16_t> out;
    for (std::uint32_t v = vlans.next(0); v != 0; v = vlans.next(v))
        out.push_back(static_cast<std::uint16_t>(v));
    return out;
}

} // namespace

void port_vlans_take(const mbus_msg &notification)
{
    intfmgr_l2_state_iterator walk;
    intfmgr_l2_state state;
    if (!intfmgr_parse_l2_protocol_state_change_iterator_init(walk, notification))
        return;
    while (intfmgr_parse_l2_protocol_state_change_iterate(walk, state))
        port_vlans_set(state.iod, state.mode == INTFMGR_MODE_TRUNK, state.state == INTFMGR_L2_STATE_UP,
                       members(*state.vlans_up), members(*state.vlans_down));
}

void port_vlans_set(std::uint32_t iod, bool trunk, bool up, std::span<const std::uint16_t> came,
                    std::span<const std::uint16_t> went)
{
    table &t = the_table();
    const std::scoped_lock guard(t.mutex);
    port &p = t.ports[iod];
    p.trunk = trunk;
    p.up = up;
    for (const std::uint16_t vlan : went) {
        p.vlans.reset(vlan % VLANS);
        port_vlan_clear(iod, vlan);
    }
    for (const std::uint16_t vlan : came) {
        p.vlans.set(vlan % VLANS);
        if (!trunk)
            port_vlan_set(iod, vlan);
    }
    if (p.vlans.none())
        t.ports.erase(iod);
}

bool port_tags_vlan(std::uint32_t iod, std::uint16_t vlan)
{
    table &t = the_table();
    const std::scoped_lock guard(t.mutex);
    const auto found = t.ports.find(iod);
    return found != t.ports.end() && found->second.trunk && found->second.vlans[vlan % VLANS];
}

std::size_t ports_of_vlan(std::uint16_t vlan, std::span<std::uint32_t> iods)
{
    table &t = the_table();
    const std::scoped_lock guard(t.mutex);
    const auto carries = [&](std::uint32_t iod) {
        const auto announced = t.ports.find(iod);
        if (announced == t.ports.end())
            return port_vlan(iod) == vlan && is_usable(iod);
        return announced->second.up && (announced->second.vlans[vlan % VLANS] || port_vlan(iod) == vlan);
    };
    std::size_t n = 0;
    for (std::uint32_t iod = 1; iod <= INTFMGR_IOD_MAX && n < iods.size(); ++iod)
        if (carries(iod))
            iods[n++] = iod;
    return n;
}

} // namespace corvane
