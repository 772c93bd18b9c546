// VLANs of switchports.
#include "vlan_ports.h"

#include "../api/intfmgr.h"
#include "../api/vlanmgr.h"

#include <charconv>

using namespace corvane;

namespace corvaned {
namespace {

constexpr std::uint32_t VLAN_FIRST = 1, VLAN_LAST = 4094;
constexpr std::size_t PAYLOAD_LIMIT = 32 * 1024;
constexpr std::uint32_t L2_STATE_DOWN = 0;

bool parse_number(std::string_view &text, std::uint32_t &value)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || value < VLAN_FIRST || value > VLAN_LAST)
        return false;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return true;
}

bool parse_range(std::string_view &text, vlan_set &out)
{
    std::uint32_t first = 0, last = 0;
    if (!parse_number(text, first))
        return false;
    last = first;
    if (text.starts_with('-')) {
        text.remove_prefix(1);
        if (!parse_number(text, last) || last < first)
            return false;
    }
    for (std::uint32_t vlan = first; vlan <= last; ++vlan)
        out.set(vlan);
    return true;
}

void put_vlans(byte_writer &out, const vlan_set &vlans)
{
    for (std::uint16_t vlan = 0; vlan < vlans.size(); ++vlan)
        if (vlans[vlan])
            out.put(vlan);
}

void put_state(byte_writer &out, const vlan_ports::state &state)
{
    out.put(state.iod).put(state.mode == port_mode::TRUNK ? INTFMGR_MODE_TRUNK : INTFMGR_MODE_ACCESS);
    out.put(state.up ? INTFMGR_L2_STATE_UP : L2_STATE_DOWN);
    out.put(static_cast<std::uint16_t>(state.ups.count())).put(static_cast<std::uint16_t>(state.downs.count()));
    put_vlans(out, state.ups);
    put_vlans(out, state.downs);
}

} // namespace

bool vlan_list_parse(std::string_view text, vlan_set &out)
{
    vlan_set vlans;
    if (!parse_range(text, vlans))
        return false;
    while (text.starts_with(',')) {
        text.remove_prefix(1);
        if (!parse_range(text, vlans))
            return false;
    }
    if (!text.empty())
        return false;
    out = vlans;
    return true;
}

std::string vlan_list_text(const vlan_set &vlans)
{
    std::string text;
    for (std::size_t first = 0; first < vlans.size(); ++first) {
        if (!vlans[first])
            continue;
        std::size_t last = first;
        while (last + 1 < vlans.size() && vlans[last + 1])
            ++last;
        text += (text.empty() ? "" : ",") + std::to_string(first);
        text += last > first ? "-" + std::to_string(last) : "";
        first = last;
    }
    return text;
}

std::vector<std::vector<std::uint8_t>> l2_state_payloads(const std::vector<vlan_ports::state> &states)
{
    std::vector<std::vector<std::uint8_t>> payloads;
    byte_writer entries;
    std::uint32_t count = 0;
    const auto flush = [&] {
        if (count != 0)
            payloads.push_back(byte_writer().put(count).raw(entries.view()).take());
        entries = {};
        count = 0;
    };
    for (const vlan_ports::state &state : states) {
        put_state(entries, state);
        ++count;
        if (entries.size() >= PAYLOAD_LIMIT)
            flush();
    }
    flush();
    return payloads;
}

// A blocked mark that a client has set for a VLAN is never taken back by it, so VLANs come up with the port's state up
// or not at all. A report of VLANs that went takes the port's record at the client, whatever else is up there: what
// stays is announced again behind it.
void vlan_ports::update(port &p, const std::string &name)
{
    const link now = environment_.link_of(name);
    const vlan_set wanted = now.usable ? p.vlans : vlan_set{};
    const vlan_set gone = p.announced & ~wanted;
    std::vector<state> states;
    if (gone.any())
        states.push_back({p.iod, p.mode, now.usable, {}, gone});
    if (wanted.any() && (gone.any() || (wanted & ~p.announced).any()))
        states.push_back({now.iod, p.mode, true, wanted, {}});
    p.announced = wanted;
    p.iod = now.iod;
    if (!states.empty())
        environment_.announce(states);
}

void vlan_ports::configure(const std::string &name, port_mode mode, const vlan_set &vlans)
{
    port &p = ports_[name];
    if (p.mode != mode && p.announced.any()) {               // another kind of port: the old one goes as what it was
        p.vlans.reset();
        update(p, name);
    }
    p.mode = mode;
    p.vlans = vlans;
    update(p, name);
}

bool vlan_ports::clear(const std::string &name)
{
    const auto at = ports_.find(name);
    if (at == ports_.end())
        return false;
    const bool announced = at->second.announced.any();
    at->second.vlans.reset();
    update(at->second, name);
    ports_.erase(at);
    return announced;
}

void vlan_ports::refresh(const std::string &name)
{
    if (const auto at = ports_.find(name); at != ports_.end())
        update(at->second, name);
}

bool vlan_ports::query(byte_view request, const std::function<void(byte_view)> &reply)
{
    byte_reader in(request);
    const auto count = in.get<std::uint32_t>();
    if (!in.ok() || count > vlan_set{}.size() || in.rest().size() != count * sizeof(std::uint32_t))
        return false;
    vlan_set asked;
    for (std::uint32_t i = 0; i < count; ++i) {
        const auto vlan = in.get<std::uint32_t>();
        byte_writer pairs;
        std::uint32_t members = 0;
        for (const auto &[name, p] : ports_) {
            if (vlan >= p.announced.size() || !p.announced[vlan] || members == VLAN_MEMB_PAIRS_MAX)
                continue;
            pairs.put(vlan).put(environment_.link_of(name).ifindex);
            asked.set(vlan);
            ++members;
        }
        reply(byte_writer().put(vlan).put(members).raw(pairs.view()).view());
    }
    std::vector<state> states;
    for (const auto &[name, p] : ports_)
        if ((p.announced & asked).any())
            states.push_back({p.iod, p.mode, true, p.announced, {}});
    if (!states.empty())
        environment_.announce(states);
    return true;
}

std::string vlan_ports::mode_text(const std::string &name) const
{
    const auto at = ports_.find(name);
    if (at == ports_.end() || at->second.vlans.none())
        return "";
    return (at->second.mode == port_mode::TRUNK ? "trunk " : "access ") + vlan_list_text(at->second.vlans);
}

bool vlan_ports::has_mode(const std::string &name, port_mode mode) const
{
    const auto at = ports_.find(name);
    return at != ports_.end() && at->second.vlans.any() && at->second.mode == mode;
}

} // namespace corvaned
