// Choice of an interface's address.
#include "intfmgr_addresses.h"

#include <arpa/inet.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

namespace corvaned {
namespace {

using kind = address_change::kind;

std::uint32_t host_of(const address_info &address)
{
    std::uint32_t value = 0;
    std::memcpy(&value, address.address.data(), sizeof value);
    return ntohl(value);
}

bool is_global_ipv4(const address_info &a) { return a.family == AF_INET && a.scope < RT_SCOPE_LINK && host_of(a) != 0; }

// An address that is still being probed for a double is not usable yet; the kernel tells again when it is.
bool is_global_ipv6(const address_info &a)
{
    const bool settled = (a.flags & (IFA_F_TENTATIVE | IFA_F_DADFAILED)) == 0 || (a.flags & IFA_F_OPTIMISTIC) != 0;
    return a.family == AF_INET6 && a.scope < RT_SCOPE_LINK && settled;
}

// Lasting addresses before those made for privacy or on their way out.
int rank_ipv6(const address_info &a)
{
    return ((a.flags & IFA_F_DEPRECATED) != 0 ? 2 : 0) + ((a.flags & IFA_F_TEMPORARY) != 0 ? 1 : 0);
}

} // namespace

void interface_addresses::choose_ipv4(std::vector<address_change> &changes)
{
    const auto first = std::ranges::find_if(all_, is_global_ipv4);
    const bool stays = std::ranges::any_of(all_, [&](const auto &a) { return is_global_ipv4(a) && host_of(a) == ipv4_; });
    if (stays)
        return;
    ipv4_ = first == all_.end() ? 0 : host_of(*first);
    if (ipv4_ != 0)
        changes.push_back({.what = kind::IPV4_ADDED, .address = ipv4_, .secondary = false, .current = ipv4_});
}

void interface_addresses::choose_ipv6(std::vector<address_change> &changes)
{
    const auto usable = [&](const address_info &a) { return is_global_ipv6(a) && a.address == ipv6_; };
    if (std::ranges::any_of(all_, usable))
        return;
    const std::array<std::uint8_t, 16> old = ipv6_;
    const address_info *best = nullptr;
    for (const address_info &a : all_)
        if (is_global_ipv6(a) && (best == nullptr || rank_ipv6(a) < rank_ipv6(*best)))
            best = &a;
    ipv6_ = best == nullptr ? std::array<std::uint8_t, 16>{} : best->address;
    if (ipv6_ != old)
        changes.push_back({.what = kind::IPV6_CHANGED, .old_ipv6 = old, .new_ipv6 = ipv6_});
}

std::vector<address_change> interface_addresses::put(const address_info &address)
{
    std::vector<address_change> changes;
    const auto known = std::ranges::find_if(all_, [&](const auto &a) { return a.same_address(address); });
    if (known != all_.end()) {
        *known = address;
    } else {
        all_.push_back(address);
        if (is_global_ipv4(address) && ipv4_ != 0)
            changes.push_back(
                {.what = kind::IPV4_ADDED, .address = host_of(address), .secondary = true, .current = ipv4_});
    }
    choose_ipv4(changes);
    choose_ipv6(changes);
    return changes;
}

void interface_addresses::note_removed(const address_info &address, std::vector<address_change> &changes)
{
    const auto same = [&](const address_info &a) { return is_global_ipv4(a) && host_of(a) == host_of(address); };
    if (!is_global_ipv4(address) || std::ranges::any_of(all_, same))
        return;                                              // or it is still there with another prefix
    const bool was_first = host_of(address) == ipv4_;
    if (was_first)
        ipv4_ = 0;
    changes.push_back(
        {.what = kind::IPV4_REMOVED, .address = host_of(address), .secondary = !was_first, .current = ipv4_});
}

std::vector<address_change> interface_addresses::remove(const address_info &address)
{
    std::vector<address_change> changes;
    const auto known = std::ranges::find_if(all_, [&](const auto &a) { return a.same_address(address); });
    if (known == all_.end())
        return changes;
    const address_info gone = *known;
    all_.erase(known);
    note_removed(gone, changes);
    choose_ipv4(changes);
    choose_ipv6(changes);
    return changes;
}

std::vector<address_change> interface_addresses::replace(const std::vector<address_info> &all)
{
    std::vector<address_change> changes;
    const std::vector<address_info> before = all_;
    // What is new comes first: an interface that has had an address throughout is never shown without one.
    for (const address_info &address : all)
        std::ranges::move(put(address), std::back_inserter(changes));
    for (const address_info &old : before)
        if (std::ranges::none_of(all, [&](const auto &a) { return a.same_address(old); }))
            std::ranges::move(remove(old), std::back_inserter(changes));
    return changes;
}

} // namespace corvaned
