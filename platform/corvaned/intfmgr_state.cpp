// The interfaces and what is told about them.
#include "intfmgr_state.h"

#include <linux/if.h>
#include <linux/if_arp.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <string_view>

using namespace corvane;

namespace corvaned {
namespace {

constexpr std::string_view OVERLAY_PREFIX = "Overlay";
constexpr std::uint32_t OVERLAY_NUMBER_MAX = 65535;

constexpr auto TUNNEL_KINDS = std::to_array<std::string_view>({
    "erspan", "geneve", "gre", "gretap", "ip6erspan", "ip6gre", "ip6gretap", "ip6tnl", "ipip", "sit", "vti", "vti6",
    "vxlan",
});

constexpr std::uint64_t bit(std::uint32_t number) { return std::uint64_t{1} << number; }

bool is_tunnel(const link_info &link)
{
    return std::ranges::find(TUNNEL_KINDS, link.kind) != TUNNEL_KINDS.end() || link.type == ARPHRD_TUNNEL ||
           link.type == ARPHRD_TUNNEL6 || link.type == ARPHRD_SIT || link.type == ARPHRD_IPGRE ||
           link.type == ARPHRD_IP6GRE;
}

} // namespace

bool is_overlay_name(const std::string &name)
{
    if (!name.starts_with(OVERLAY_PREFIX))
        return false;
    const std::string_view number = std::string_view(name).substr(OVERLAY_PREFIX.size());
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), value);
    return !number.empty() && error == std::errc{} && end == number.data() + number.size() &&
           value <= OVERLAY_NUMBER_MAX && (number[0] != '0' || number.size() == 1);
}

bool interface_state::up() const
{
    constexpr std::uint32_t WORKING = IFF_UP | IFF_RUNNING;
    return present && (overlay ? !shut : (link.flags & WORKING) == WORKING);
}

bool interface_state::tunnel() const { return overlay || is_tunnel(link); }

interface_manager::interface_manager(interface_table &table, environment given)
    : environment_(std::move(given)), table_(table), iods_(environment_.iods)
{
}

void interface_manager::start(const std::vector<std::pair<std::string, std::uint32_t>> &kept_iods)
{
    for (const auto &[name, iod] : kept_iods)
        iods_.load(name, iod);
    const auto &names = iods_.names();
    for (std::uint32_t iod = 1; iod <= INTFMGR_IOD_MAX; ++iod) {
        const std::string before = table_.name_of(iod);
        const auto now = names.find(iod);
        if (!before.empty() && (now == names.end() || now->second != before))
            environment_.iod_lost(iod);
    }
    table_.clear_held();
    for (const auto &[iod, name] : names)
        table_.write(iod, {.name = name});
}

// ---- lookups

const interface_state *interface_manager::find(std::uint32_t iod) const
{
    const auto at = interfaces_.find(iod);
    return at == interfaces_.end() || !at->second.present ? nullptr : &at->second;
}

const interface_state *interface_manager::find(const std::string &name) const
{
    const auto at = std::ranges::find_if(interfaces_, [&](const auto &i) { return i.second.name == name; });
    return at == interfaces_.end() || !at->second.present ? nullptr : &at->second;
}

const interface_state *interface_manager::find_ifindex(std::uint32_t ifindex) const
{
    const auto at = devices_.find(ifindex);
    return at == devices_.end() ? nullptr : find(at->second);
}

interface_state *interface_manager::find_device(std::uint32_t ifindex)
{
    return const_cast<interface_state *>(find_ifindex(ifindex));
}

std::vector<const interface_state *> interface_manager::all() const
{
    std::vector<const interface_state *> result;
    for (const auto &[iod, interface] : interfaces_)
        if (interface.present)
            result.push_back(&interface);
    return result;
}

// ---- what is told

void interface_manager::on_event(std::function<void(const interface_state &, interface_event)> hook)
{
    event_hooks_.push_back(std::move(hook));
}

void interface_manager::on_address(std::function<void(const interface_state &, const address_change &)> hook)
{
    address_hooks_.push_back(std::move(hook));
}

void interface_manager::notify(std::uint32_t opcode, const std::vector<change> &changes)
{
    byte_writer payload;
    payload.put(static_cast<std::uint32_t>(changes.size()));
    for (const auto &[iod, mask] : changes)
        payload.put(iod).put(mask);
    if (!changes.empty())
        environment_.notify(opcode, payload.view());
}

void interface_manager::tell(const interface_state &interface, interface_event event)
{
    for (const auto &hook : event_hooks_)
        hook(interface, event);
}

void interface_manager::tell(interface_state &interface, const std::vector<address_change> &changes)
{
    publish(interface);
    for (const address_change &one : changes)
        for (const auto &hook : address_hooks_)
            hook(interface, one);
}

// A switchport that is gone keeps its mark: clients still have to read what is told about its last state.
void interface_manager::publish(const interface_state &interface)
{
    interface_table_writer::slot_values values{.name = interface.name, .mtu = interface.link.mtu};
    const auto flag = [&](bool set, std::uint32_t value) { values.flags |= set ? value : 0; };
    flag(interface.present, INTERFACE_PRESENT);
    flag(interface.up(), INTERFACE_UP);
    flag(interface.switchport, INTERFACE_SWITCHPORT);
    flag(interface.present && interface.overlay, INTERFACE_OVERLAY);
    flag(interface.present && interface.tunnel(), INTERFACE_TUNNEL);
    if (interface.present) {
        values.ifindex = interface.overlay ? INTERFACE_OVERLAY_IFINDEX | interface.iod : interface.link.ifindex;
        values.context = interface.context;
        values.ipv4 = interface.addresses.ipv4();
        values.ipv6 = interface.addresses.ipv6();
        values.mac = interface.link.mac;
    }
    table_.write(interface.iod, values);
}

void interface_manager::announce_all()
{
    std::vector<change> created, states;
    for (const interface_state *interface : all()) {
        created.emplace_back(interface->iod, 0);
        states.emplace_back(interface->iod, bit(INTFMGR_CHANGE_L3_STATE));
    }
    notify(INTFMGR_OPC_CREATE, created);
    notify(INTFMGR_OPC_L3_STATE, states);
}

// ---- coming and going

interface_state *interface_manager::add(const std::string &name)
{
    const auto in_use = [&](std::uint32_t iod) { return find(iod) != nullptr; };
    const std::uint32_t iod = iods_.assign(name, in_use, [&](std::uint32_t lost) {
        interfaces_.erase(lost);
        environment_.iod_lost(lost);
    });
    if (iod == 0)
        return nullptr;
    interface_state &interface = interfaces_[iod];
    interface.iod = iod;
    interface.name = name;
    interface.present = true;
    return &interface;
}

void interface_manager::appear(interface_state &interface)
{
    publish(interface);
    notify(INTFMGR_OPC_CREATE, {{interface.iod, 0}});
    if (interface.up())
        notify(INTFMGR_OPC_L3_STATE, {{interface.iod, bit(INTFMGR_CHANGE_L3_STATE)}});
    tell(interface, interface_event::CREATED);
    if (interface.up())
        tell(interface, interface_event::UP);
}

void interface_manager::state_changed(interface_state &interface)
{
    notify(INTFMGR_OPC_L3_STATE, {{interface.iod, bit(INTFMGR_CHANGE_L3_STATE)}});
    tell(interface, interface.up() ? interface_event::UP : interface_event::DOWN);
}

void interface_manager::disappear(interface_state &interface)
{
    const bool was_up = interface.up();
    tell(interface, interface.addresses.replace({}));
    devices_.erase(interface.link.ifindex);
    interface.present = false;
    publish(interface);
    // Deletion alone says everything about an overlay interface; what leads over a device goes before the device.
    if (was_up && interface.overlay)
        tell(interface, interface_event::DOWN);
    else if (was_up)
        state_changed(interface);
    notify(INTFMGR_OPC_DELETE, {{interface.iod, 0}});
    tell(interface, interface_event::REMOVED);
    interface.link = {};
    interface.context = 0;
}

// ---- what the kernel says

std::uint32_t interface_manager::context_of(const link_info &link) const
{
    if (link.kind == "vrf")
        return link.vrf_table;
    const auto master = devices_.find(link.master);
    const interface_state *interface = master == devices_.end() ? nullptr : find(master->second);
    return interface == nullptr || interface->link.kind != "vrf" ? 0 : interface->link.vrf_table;
}

void interface_manager::contexts_changed()
{
    std::vector<change> changes;
    for (auto &[iod, interface] : interfaces_) {
        const std::uint32_t context = interface.present && !interface.overlay ? context_of(interface.link) : 0;
        if (!interface.present || context == interface.context)
            continue;
        interface.context = context;
        publish(interface);
        changes.emplace_back(iod, bit(INTFMGR_CHANGE_CONTEXT));
    }
    notify(INTFMGR_OPC_L3_PARAM, changes);
}

void interface_manager::change_link(interface_state &interface, const link_info &link)
{
    const bool was_up = interface.up();
    const link_info old = interface.link;
    interface.link = link;
    const std::uint32_t context = context_of(link);
    std::uint64_t mask = 0;
    mask |= old.mtu != link.mtu ? bit(INTFMGR_CHANGE_MTU) : 0;
    mask |= old.mac != link.mac ? bit(INTFMGR_CHANGE_MAC) : 0;
    mask |= context != interface.context ? bit(INTFMGR_CHANGE_CONTEXT) : 0;
    const bool tunnel = is_tunnel(old) || is_tunnel(link);
    mask |= tunnel && (old.kind != link.kind || old.kind_data != link.kind_data) ? bit(INTFMGR_CHANGE_ENCAP) : 0;
    interface.context = context;
    publish(interface);
    if (mask != 0)
        notify(INTFMGR_OPC_L3_PARAM, {{interface.iod, mask}});
    if (was_up != interface.up())
        state_changed(interface);
    if (link.kind == "vrf" && old.vrf_table != link.vrf_table)
        contexts_changed();
}

// A device that is there for the first time under this name. Its addresses are in the table before anyone hears of it.
void interface_manager::bring(const link_info &link, const std::vector<address_info> &addresses)
{
    interface_state *interface = is_overlay_name(link.name) ? nullptr : add(link.name);
    if (interface == nullptr) {
        if (refused_.insert(link.ifindex).second)
            environment_.log(4, "interface " + link.name + " is left alone: no number or name for it");
        return;
    }
    interface->link = link;
    interface->overlay = false;
    devices_[link.ifindex] = interface->iod;
    interface->context = context_of(link);
    const auto changes = interface->addresses.replace(addresses);
    appear(*interface);
    if (!changes.empty())
        tell(*interface, changes);
    if (link.kind == "vrf")
        contexts_changed();
}

void interface_manager::link(const link_info &link) { update(link, {}); }

void interface_manager::update(const link_info &link, std::vector<address_info> addresses)
{
    interface_state *known = find_device(link.ifindex);
    if (known != nullptr && known->name == link.name) {
        change_link(*known, link);
        return;
    }
    if (known != nullptr) {                                  // renamed: it keeps its addresses
        if (addresses.empty())
            addresses = known->addresses.all();
        disappear(*known);
    }
    // Another device of that name: the one that had it is gone, even if the kernel's word of that is still to come.
    const interface_state *namesake = is_overlay_name(link.name) ? nullptr : find(link.name);
    if (namesake != nullptr)
        disappear(const_cast<interface_state &>(*namesake));
    bring(link, addresses);
}

void interface_manager::link_gone(std::uint32_t ifindex)
{
    refused_.erase(ifindex);
    interface_state *interface = find_device(ifindex);
    if (interface == nullptr)
        return;
    const bool was_vrf = interface->link.kind == "vrf";
    disappear(*interface);
    if (was_vrf)
        contexts_changed();
}

void interface_manager::address(const address_info &address, bool added)
{
    interface_state *interface = find_device(address.ifindex);
    if (interface == nullptr)
        return;
    const auto changes = added ? interface->addresses.put(address) : interface->addresses.remove(address);
    if (!changes.empty())
        tell(*interface, changes);
}

void interface_manager::snapshot(const netlink_snapshot &all)
{
    std::set<std::uint32_t> there;
    for (const link_info &link : all.links)
        there.insert(link.ifindex);
    std::vector<std::uint32_t> gone;
    for (const auto &[ifindex, iod] : devices_)
        if (!there.contains(ifindex))
            gone.push_back(ifindex);
    for (const std::uint32_t ifindex : gone)
        link_gone(ifindex);
    std::map<std::uint32_t, std::vector<address_info>> addresses;
    for (const address_info &address : all.addresses)
        addresses[address.ifindex].push_back(address);
    for (const link_info &link : all.links) {
        update(link, addresses[link.ifindex]);
        interface_state *interface = find_device(link.ifindex);
        if (interface == nullptr)
            continue;
        if (const auto changes = interface->addresses.replace(addresses[link.ifindex]); !changes.empty())
            tell(*interface, changes);
    }
    contexts_changed();
}

// ---- what the configuration says

std::uint32_t interface_manager::make_overlay(const std::string &name)
{
    if (const interface_state *known = find(name); known != nullptr)
        return known->iod;
    interface_state *interface = is_overlay_name(name) ? add(name) : nullptr;
    if (interface == nullptr)
        return 0;
    interface->overlay = true;
    interface->shut = false;
    appear(*interface);
    return interface->iod;
}

bool interface_manager::remove_overlay(const std::string &name)
{
    const interface_state *known = find(name);
    if (known == nullptr || !known->overlay)
        return false;
    disappear(const_cast<interface_state &>(*known));
    return true;
}

void interface_manager::shut_overlay(const std::string &name, bool shut)
{
    auto *interface = const_cast<interface_state *>(find(name));
    if (interface == nullptr || !interface->overlay || interface->shut == shut)
        return;
    interface->shut = shut;
    publish(*interface);
    state_changed(*interface);
}

void interface_manager::set_switchport(const std::string &name, bool switchport)
{
    const auto at = std::ranges::find_if(interfaces_, [&](const auto &i) { return i.second.name == name; });
    if (at == interfaces_.end() || at->second.switchport == switchport)
        return;
    at->second.switchport = switchport;
    publish(at->second);
    if (at->second.present)
        notify(INTFMGR_OPC_L3_PARAM, {{at->first, bit(INTFMGR_CHANGE_SWITCHPORT)}});
}

} // namespace corvaned
