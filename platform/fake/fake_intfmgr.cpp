// Interface manager and VRF manager: a table that tests fill.
#include "fake_state.h"

#include <cstdio>
#include <stdexcept>

namespace fake {

namespace {

const interface_options *find(std::uint32_t iod)
{
    const auto &table = platform.impl().interface_by_iod;
    return iod < table.size() ? table[iod] : nullptr;
}

bool copy_name(const std::string &name, char *out, std::size_t size)
{
    std::snprintf(out, size, "%s", name.c_str());
    return true;
}

} // namespace

void platform_object::add_interface(std::uint32_t iod, std::string name, interface_options options)
{
    if (iod == 0 || iod > INTFMGR_IOD_MAX)
        throw std::logic_error("no iod of an interface: " + std::to_string(iod));
    options.name = std::move(name);
    if (options.ifindex == 0)
        options.ifindex = 1000 + iod;
    if (options.short_name.empty())
        options.short_name = options.name;
    interface_options &stored = state_->interfaces[iod];
    stored = std::move(options);
    state_->interface_by_iod[iod] = &stored;
}

void platform_object::remove_interface(std::uint32_t iod)
{
    state_->interface_by_iod.at(iod) = nullptr;
    state_->interfaces.erase(iod);
}

interface_options &platform_object::interface(std::uint32_t iod) { return state_->interfaces.at(iod); }

bytes platform_object::changes(std::initializer_list<intfmgr_change> list)
{
    bytes payload;
    payload.add_host32(static_cast<std::uint32_t>(list.size()));
    for (const intfmgr_change &change : list)
        payload.add_host(change.iod).add_host(change.mask);
    return payload;
}

bytes platform_object::l2_states(std::initializer_list<l2_state> list)
{
    bytes payload;
    payload.add_host32(static_cast<std::uint32_t>(list.size()));
    for (const l2_state &port : list) {
        payload.add_host(port.iod).add_host(port.mode).add_host(port.state);
        payload.add_host16(static_cast<std::uint16_t>(port.ups.size()));
        payload.add_host16(static_cast<std::uint16_t>(port.downs.size()));
        for (const std::uint16_t vlan : port.ups)
            payload.add_host16(vlan);
        for (const std::uint16_t vlan : port.downs)
            payload.add_host16(vlan);
    }
    return payload;
}

bytes platform_object::membership(std::uint32_t vlan, std::initializer_list<vlan_memb_pair> pairs)
{
    bytes payload;
    payload.add_host(vlan).add_host32(static_cast<std::uint32_t>(pairs.size()));
    for (const vlan_memb_pair &pair : pairs)
        payload.add_host(pair.vlan).add_host(pair.ifindex);
    return payload;
}

} // namespace fake

using namespace fake;

std::uint32_t intfmgr_ext_sbcr_init(std::uint32_t service, mbus_q queue, const char *name, const char **error)
{
    note("intfmgr_ext_sbcr_init", service, queue, name);
    const bool refused = refuse("intfmgr_ext_sbcr_init");
    *error = refused ? "subscription refused" : "";
    return refused ? 0x41130001 : 0;
}

bool intfmgr_is_switchport(std::uint32_t iod)
{
    const interface_options *found = find(iod);
    return found != nullptr && found->switchport;
}

bool intfmgr_is_tunnel(std::uint32_t iod)
{
    const interface_options *found = find(iod);
    return found != nullptr && (found->tunnel || found->overlay);
}

bool intfmgr_is_lum_tunnel(std::uint32_t iod)
{
    const interface_options *found = find(iod);
    return found != nullptr && found->overlay;
}

bool intfmgr_is_if_up(std::uint32_t iod)
{
    const interface_options *found = find(iod);
    return found != nullptr && found->up;
}

bool intfmgr_get_if_name(std::uint32_t iod, char *out, std::size_t size)
{
    const interface_options *found = find(iod);
    copy_name(found == nullptr ? "" : found->name, out, size);
    return found != nullptr;
}

bool intfmgr_get_if_short_name(std::uint32_t iod, char *out, std::size_t size)
{
    const interface_options *found = find(iod);
    copy_name(found == nullptr ? "" : found->short_name, out, size);
    return found != nullptr;
}

std::uint32_t intfmgr_get_if_by_name(const char *name)
{
    for (const auto &[iod, options] : platform.impl().interfaces)
        if (options.name == name)
            return iod;
    return 0;
}

bool intfmgr_get_ifindex(std::uint32_t iod, std::uint32_t &ifindex)
{
    const interface_options *found = find(iod);
    if (refuse("intfmgr_get_ifindex") || found == nullptr)
        return false;
    ifindex = found->ifindex;
    return true;
}

std::uint32_t intfmgr_get_iod_frm_ifindex(std::uint32_t ifindex)
{
    for (const auto &[iod, options] : platform.impl().interfaces)
        if (options.ifindex == ifindex)
            return iod;
    return 0;
}

bool vrfmgr_api_init()
{
    note("vrfmgr_api_init");
    return !refuse("vrfmgr_api_init");
}

std::uint32_t vrfmgr_if_get_context_id(std::uint32_t iod)
{
    note("vrfmgr_if_get_context_id", iod);
    const interface_options *found = find(iod);
    return found == nullptr ? 0 : found->context;
}
