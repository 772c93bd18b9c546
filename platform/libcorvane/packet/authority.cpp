// Authority over VLANs: what the daemon elected, as two bits a VLAN that the frame path reads.
#include "authority.h"

#include "../mbus_observe.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <vector>

namespace corvane {

namespace {

constexpr std::size_t VLANS = 4096, PORTS = 768;

// Adjacency message: host byte order, unaligned.
constexpr std::uint32_t OPCODE_ADD = 78858, OPCODE_DELETE = 78859;
constexpr std::size_t ADJ_SYSTEM_ID = 4, ADJ_SITE = 39, ADJ_SIZE = 47;

std::array<std::atomic<std::uint64_t>, VLANS / 64> held;       // what the frame path reads
std::array<std::atomic<std::uint16_t>, PORTS> untagged_vlan;

struct pending_adjacency {
    std::uint32_t overlay_iod;
    adjacency_id system_id;
    bool present;
};
struct state {
    std::mutex mutex;
    std::map<std::uint32_t, std::set<adjacency_id>> adjacencies;       // by overlay
    std::vector<pending_adjacency> pending;
    std::array<vlan_authority, VLANS> vlans;
    std::uint16_t site_vlan = 0;
};
state &the_state()
{
    static state &instance = *new state;
    return instance;
}

void set_held(std::uint16_t vlan, bool hold)
{
    const std::uint64_t bit = std::uint64_t{1} << vlan % 64;
    if (hold)
        held[vlan / 64].fetch_or(bit, std::memory_order_relaxed);
    else
        held[vlan / 64].fetch_and(~bit, std::memory_order_relaxed);
}

void apply_pending(state &s)
{
    for (const pending_adjacency &p : s.pending) {
        if (p.present)
            s.adjacencies[p.overlay_iod].insert(p.system_id);
        else if (const auto found = s.adjacencies.find(p.overlay_iod); found != s.adjacencies.end())
            found->second.erase(p.system_id);
    }
    s.pending.clear();
    std::erase_if(s.adjacencies, [](const auto &overlay) { return overlay.second.empty(); });
}

void recompute(state &s)
{
    for (std::uint16_t vlan = 1; vlan < VLANS; ++vlan) {
        const vlan_authority &v = s.vlans[vlan];
        set_held(vlan, v.overlay_iod != 0 && !v.authoritative && vlan != s.site_vlan &&
                           s.adjacencies.contains(v.overlay_iod));
    }
}

} // namespace

bool authority_holds_back(std::uint16_t vlan)
{
    return vlan < VLANS && (held[vlan / 64].load(std::memory_order_relaxed) >> vlan % 64 & 1) != 0;
}

std::uint16_t vlan_of_frame(std::uint32_t iod, const std::uint8_t *frame, std::size_t length)
{
    constexpr std::size_t TYPE_AT = 12, SNAP_TYPE_AT = 20;
    const auto be16 = [&](std::size_t at) { return static_cast<std::uint16_t>(frame[at] << 8 | frame[at + 1]); };
    if (length < ETHERNET_HEADER)
        return 0;
    const std::size_t type_at = be16(TYPE_AT) <= LAST_802_3_LENGTH ? SNAP_TYPE_AT : TYPE_AT;
    if (length < type_at + VLAN_TAG || be16(type_at) != TYPE_VLAN)
        return port_vlan(iod);
    return static_cast<std::uint16_t>((frame[type_at + 3] & 0x0F) << 8 | frame[type_at + 2]);
}

void port_vlan_set(std::uint32_t iod, std::uint16_t vlan)
{
    if (iod < PORTS)
        untagged_vlan[iod].store(vlan, std::memory_order_relaxed);
}

void port_vlan_clear(std::uint32_t iod, std::uint16_t vlan)
{
    if (iod < PORTS)
        untagged_vlan[iod].compare_exchange_strong(vlan, 0, std::memory_order_relaxed);
}

void port_vlan_configured(const std::string &handler, std::uint32_t iod, bool no,
                          const std::vector<std::pair<std::string, std::string>> &arguments)
{
    if (handler != "lum_vlan_cmd")
        return;
    std::uint16_t vlan = 0;
    for (const auto &[name, value] : arguments) {
        if (name == "trunk-port")
            return;
        if (name == "<vlan-id>")
            vlan = static_cast<std::uint16_t>(std::strtoul(value.c_str(), nullptr, 10));
    }
    if (no)
        port_vlan_clear(iod, vlan);
    else
        port_vlan_set(iod, vlan);
}

std::uint16_t port_vlan(std::uint32_t iod)
{
    return iod < PORTS ? untagged_vlan[iod].load(std::memory_order_relaxed) : std::uint16_t{0};
}

void authority_adjacency(std::uint32_t overlay_iod, const adjacency_id &system_id, bool present)
{
    state &s = the_state();
    const std::scoped_lock guard(s.mutex);
    s.pending.push_back({overlay_iod, system_id, present});
}

void authority_site_vlan(std::uint16_t vlan)
{
    state &s = the_state();
    const std::scoped_lock guard(s.mutex);
    s.site_vlan = vlan;
    recompute(s);
}

void authority_vlans(std::span<const vlan_authority> vlans, bool after_election)
{
    state &s = the_state();
    const std::scoped_lock guard(s.mutex);
    if (after_election)
        apply_pending(s);
    for (const vlan_authority &v : vlans)
        if (v.vlan < VLANS)
            s.vlans[v.vlan] = v;
    recompute(s);
}

void authority_take_message(const mbus_msg &msg)
{
    std::size_t length = 0;
    const std::uint8_t *payload = mbus_payload_get(msg, &length);
    if (payload == nullptr || length < ADJ_SIZE)
        return;
    std::uint32_t overlay_iod = 0, site = 0;
    std::memcpy(&overlay_iod, payload, sizeof overlay_iod);
    std::memcpy(&site, payload + ADJ_SITE, sizeof site);
    adjacency_id system_id{};
    std::memcpy(system_id.data(), payload + ADJ_SYSTEM_ID, system_id.size());
    if (site != 0)
        authority_adjacency(overlay_iod, system_id, mbus_opc_get(msg) == OPCODE_ADD);
}

void authority_watch_messages()
{
    mbus_observe(OPCODE_ADD, OPCODE_DELETE, authority_take_message);
}

} // namespace corvane
