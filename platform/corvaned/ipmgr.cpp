// Control part of the IP stacks: address notifications, and groups that the configuration joins for the edge.
#include "corvaned.h"
#include "intfmgr.h"
#include "intfmgr_addresses.h"

#include "../api/ip.h"
#include "../api/ipv6.h"
#include "../api/svcmgr.h"
#include "../libcorvane/base/ip_groups.h"
#include "../wire/ipmgr.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstring>

using namespace corvane;

namespace corvaned {
namespace {

constexpr int DONE = 0, REJECTED = -500;
constexpr std::uint32_t REMOVED = 0, ADDED = 1;
constexpr std::uint32_t FAMILY_IPV4 = 4, FAMILY_IPV6 = 5;

template <class Message> void send(const Message &m)
{
    bus_notify(IPMGR_SAP, IP_NOTIFY_OPCODE, {reinterpret_cast<const std::uint8_t *>(&m), sizeof m});
}

void send_ipv4(std::uint32_t iod, std::uint32_t change, std::uint32_t address, bool secondary, std::uint32_t reference)
{
    send(ip_address_change{IP_MSG_CLASS, IP_MSG_ADDRESS_CHANGE, iod, secondary ? 1u : 0u, change, reference, address});
}

void send_ipv6(std::uint32_t iod, const ipv6_address &from, const ipv6_address &to)
{
    send(ipv6_address_change{IPV6_MSG_CLASS, IPV6_MSG_ADDRESS_CHANGE, iod, from, to});
}

void address_changed(const interface_info &interface, const address_change &change)
{
    using kind = address_change::kind;
    if (change.what == kind::IPV6_CHANGED)
        send_ipv6(interface.iod, change.old_ipv6, change.new_ipv6);
    else
        send_ipv4(interface.iod, change.what == kind::IPV4_ADDED ? ADDED : REMOVED, change.address, change.secondary,
                  change.current);
}

answer announce(const peer &, byte_view request)
{
    const auto family = byte_reader(request).get<std::uint32_t>();
    for (const interface_info &i : intfmgr_list()) {
        if (family == FAMILY_IPV4 && i.ipv4 != 0)
            send_ipv4(i.iod, ADDED, i.ipv4, false, i.ipv4);
        else if (family == FAMILY_IPV6 && i.ipv6 != ipv6_address{})
            send_ipv6(i.iod, {}, i.ipv6);
    }
    return {};
}

group_memberships &groups()
{
    static group_memberships all([](std::uint32_t iod) { return intfmgr_get(iod).ifindex; });
    return all;
}

bool parse_group(const std::string &text, ip_group &out)
{
    out = {AF_INET, {}};
    if (inet_pton(AF_INET, text.c_str(), out.address.data()) == 1)
        return out.address[0] >> 4 == 0xE;
    out = {AF_INET6, {}};
    return inet_pton(AF_INET6, text.c_str(), out.address.data()) == 1 && out.address[0] == 0xFF;
}

int join_group(command &c)
{
    const std::string *text = c.get("<addr>");
    ip_group group;
    if (text == nullptr || !parse_group(*text, group)) {
        c.print("not a multicast group: " + (text == nullptr ? std::string() : *text) + "\n");
        return REJECTED;
    }
    const std::uint32_t iod = intfmgr_find(c.mode_name);
    if (iod == 0) {
        c.print("no such interface: " + c.mode_name + "\n");
        return c.no ? DONE : REJECTED;
    }
    if (c.no)
        (void)groups().leave(iod, group);
    else if (!groups().join(iod, group)) {
        c.print("cannot join " + *text + " on " + c.mode_name + ": " + std::strerror(errno) + "\n");
        return REJECTED;
    }
    return DONE;
}

} // namespace

void ipmgr_start()
{
    serve_method(IPMGR_REGISTER, announce);
    serve_command("join_group", join_group);
    on_interface_address(address_changed);
    on_interface_state([](const interface_info &) { groups().refresh(); });
    service_hosted(SVC_IP, "ip");
    service_hosted(SVC_IPV6, "ipv6");
    service_hosted(SVC_UDP, "udp");
    service_hosted(SVC_IGMP, "igmp");
}

} // namespace corvaned
