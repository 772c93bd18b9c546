// Group memberships of this process.
#include "igmp.h"
#include "ip.h"
#include "ipv6.h"
#include "svcmgr.h"

#include "base/ip_groups.h"
#include "interfaces.h"
#include "service_retry.h"

#include <cstring>
#include <netinet/in.h>

using namespace corvane;

namespace {

std::uint32_t ifindex_of(std::uint32_t iod)
{
    const interface_table *table = interfaces();
    return table != nullptr && iod < INTERFACE_SLOTS ? table->slot[iod].ifindex.load(std::memory_order_acquire) : 0;
}

// Never destroyed: memberships last as long as the process.
group_memberships &memberships()
{
    static auto *all = new group_memberships(ifindex_of);
    return *all;
}

ip_group ipv4_group(std::uint32_t address_host)
{
    ip_group group{AF_INET, {}};
    const std::uint32_t address_be = htonl(address_host);
    std::memcpy(group.address.data(), &address_be, sizeof address_be);
    return group;
}

// "No group" is asked for too; there is nothing to do then.
bool is_multicast(const ip_group &group)
{
    return group.family == AF_INET ? group.address[0] >> 4 == 0xE : group.address[0] == 0xFF;
}

void join(std::uint32_t iod, const ip_group &group)
{
    memberships().refresh();
    if (iod != 0 && is_multicast(group))
        (void)memberships().join(iod, group);
}

void leave(std::uint32_t iod, const ip_group &group)
{
    memberships().refresh();
    (void)memberships().leave(iod, group);
}

} // namespace

bool igmp_api_init()
{
    if (interfaces() == nullptr)
        service_failed(SVC_IGMP);
    return interfaces() != nullptr;
}

void ip_group_join(std::uint32_t iod, std::uint32_t group) { join(iod, ipv4_group(group)); }
void ip_group_leave(std::uint32_t iod, std::uint32_t group) { leave(iod, ipv4_group(group)); }
void ipv6_group_join(std::uint32_t iod, const ipv6_address &group) { join(iod, {AF_INET6, group}); }
void ipv6_group_leave(std::uint32_t iod, const ipv6_address &group) { leave(iod, {AF_INET6, group}); }
