// Where a core packet goes: a table by destination in front of the kernel's routing.
#include "path.h"

#include "monitor.h"
#include "netlink.h"

#include <algorithm>
#include <cstring>
#include <linux/if_arp.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <vector>

namespace corvane {

namespace {

constexpr std::uint32_t SLOTS = 4096, FILL_LIMIT = SLOTS / 4 * 3;
constexpr std::uint32_t GOOD_SECONDS = 30, BAD_SECONDS = 1;

struct entry {
    core_destination key;
    bool used = false;
    std::uint32_t generation = 0, second = 0;
    core_path path;
};

struct table {
    std::vector<entry> slot = std::vector<entry>(SLOTS);
    std::uint32_t filled = 0;
};
table &the_table()
{
    static table &instance = *new table;
    return instance;
}

std::atomic<std::uint32_t> generation{1};

std::size_t address_length(std::uint8_t family)
{
    return family == AF_INET ? 4 : 16;
}

std::uint32_t hash(const core_destination &d)
{
    std::uint64_t words[2];
    std::memcpy(words, d.address.data(), sizeof words);
    const std::uint64_t mixed = (words[0] ^ words[1] * 0x9E3779B97F4A7C15u ^ d.ifindex) * 0xD6E8FEB86659FD93u;
    return static_cast<std::uint32_t>(mixed >> 32);
}

struct route_answer {
    std::uint8_t family = 0, type = RTN_UNREACHABLE;
    std::uint32_t ifindex = 0, mtu = 0;
    std::uint8_t gateway_family = 0;         // 0: on the link itself
    core_address gateway{};
};

int note_metric(const nlattr *attribute, void *out)
{
    if (mnl_attr_get_type(attribute) == RTAX_MTU && mnl_attr_validate(attribute, MNL_TYPE_U32) >= 0)
        static_cast<route_answer *>(out)->mtu = mnl_attr_get_u32(attribute);
    return MNL_CB_OK;
}

void note_gateway(route_answer &r, std::uint8_t family, const std::uint8_t *address, std::size_t length)
{
    if (length < address_length(family))
        return;
    r.gateway_family = family;
    std::memcpy(r.gateway.data(), address, address_length(family));
}

int note_route(const nlattr *attribute, void *out)
{
    auto &r = *static_cast<route_answer *>(out);
    const auto *bytes = static_cast<const std::uint8_t *>(mnl_attr_get_payload(attribute));
    const std::size_t length = mnl_attr_get_payload_len(attribute);
    switch (mnl_attr_get_type(attribute)) {
    case RTA_OIF:
        if (mnl_attr_validate(attribute, MNL_TYPE_U32) >= 0)
            r.ifindex = mnl_attr_get_u32(attribute);
        break;
    case RTA_GATEWAY:
        note_gateway(r, r.family, bytes, length);
        break;
    case RTA_VIA: {                          // u16 family, address: an IPv6 gateway of an IPv4 route
        std::uint16_t family = 0;
        if (length < sizeof family)
            break;
        std::memcpy(&family, bytes, sizeof family);
        if (family == AF_INET || family == AF_INET6)
            note_gateway(r, static_cast<std::uint8_t>(family), bytes + sizeof family, length - sizeof family);
        break;
    }
    case RTA_METRICS:
        (void)mnl_attr_parse_nested(attribute, note_metric, out);
        break;
    default:
        break;
    }
    return MNL_CB_OK;
}

bool ask_route(const core_destination &d, route_answer &r)
{
    alignas(nlmsghdr) char buffer[256];
    nlmsghdr *request = mnl_nlmsg_put_header(buffer);
    request->nlmsg_type = RTM_GETROUTE;
    auto *header = static_cast<rtmsg *>(mnl_nlmsg_put_extra_header(request, sizeof(rtmsg)));
    header->rtm_family = d.family;
    header->rtm_dst_len = static_cast<std::uint8_t>(address_length(d.family) * 8);
    mnl_attr_put(request, RTA_DST, address_length(d.family), d.address.data());
    r.family = d.family;
    const int error = netlink_ask(request, [&r](const nlmsghdr *answer) {
        if (answer->nlmsg_type != RTM_NEWROUTE || mnl_nlmsg_get_payload_len(answer) < sizeof(rtmsg))
            return;
        r.type = static_cast<const rtmsg *>(mnl_nlmsg_get_payload(answer))->rtm_type;
        (void)mnl_attr_parse(answer, sizeof(rtmsg), note_route, &r);
    });
    return error == 0;
}

struct link_answer {
    bool up = false, ethernet = false, resolves = true;
    std::uint32_t mtu = 0;
    mac_address mac{};
};

int note_link(const nlattr *attribute, void *out)
{
    auto &l = *static_cast<link_answer *>(out);
    if (mnl_attr_get_type(attribute) == IFLA_MTU && mnl_attr_validate(attribute, MNL_TYPE_U32) >= 0)
        l.mtu = mnl_attr_get_u32(attribute);
    if (mnl_attr_get_type(attribute) == IFLA_ADDRESS && mnl_attr_get_payload_len(attribute) == l.mac.size())
        std::memcpy(l.mac.data(), mnl_attr_get_payload(attribute), l.mac.size());
    return MNL_CB_OK;
}

bool ask_link(std::uint32_t ifindex, link_answer &l)
{
    alignas(nlmsghdr) char buffer[256];
    nlmsghdr *request = mnl_nlmsg_put_header(buffer);
    request->nlmsg_type = RTM_GETLINK;
    auto *header = static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(request, sizeof(ifinfomsg)));
    header->ifi_index = static_cast<int>(ifindex);
    const int error = netlink_ask(request, [&l](const nlmsghdr *answer) {
        if (answer->nlmsg_type != RTM_NEWLINK || mnl_nlmsg_get_payload_len(answer) < sizeof(ifinfomsg))
            return;
        const auto *link = static_cast<const ifinfomsg *>(mnl_nlmsg_get_payload(answer));
        l.up = (link->ifi_flags & IFF_UP) != 0;
        l.ethernet = link->ifi_type == ARPHRD_ETHER;
        l.resolves = (link->ifi_flags & IFF_NOARP) == 0;
        (void)mnl_attr_parse(answer, sizeof(ifinfomsg), note_link, &l);
    });
    return error == 0 && l.up;
}

mac_address group_mac(const core_destination &d)
{
    const core_address &a = d.address;
    if (d.family == AF_INET)
        return {0x01, 0x00, 0x5E, static_cast<std::uint8_t>(a[1] & 0x7F), a[2], a[3]};
    return {0x33, 0x33, a[12], a[13], a[14], a[15]};
}

// Device and link address; `r` says which device, and by which gateway.
core_path build(const core_destination &d, const route_answer &r)
{
    constexpr mac_address EVERYBODY = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    core_path path;
    link_answer link;
    if (!ask_link(r.ifindex, link))
        return path;
    path.ifindex = r.ifindex;
    path.mtu = r.mtu != 0 ? std::min(r.mtu, link.mtu) : link.mtu;
    path.source = link.mac;
    if (!link.ethernet) {
        path.kind = path_kind::PLAIN;
    } else if (is_multicast(d) || r.type == RTN_BROADCAST || !link.resolves) {
        path.kind = path_kind::GROUP;
        path.group = is_multicast(d) ? group_mac(d) : EVERYBODY;
    } else {
        const bool direct = r.gateway_family == 0;
        path.next_hop = neighbour_get(r.ifindex, direct ? d.family : r.gateway_family, direct ? d.address : r.gateway);
        path.kind = path.next_hop != nullptr ? path_kind::NEIGHBOUR : path_kind::NONE;
    }
    return path;
}

core_path find_path(const core_destination &d)
{
    route_answer route;
    if (d.ifindex != 0) {
        route.type = is_multicast(d) ? RTN_MULTICAST : RTN_UNICAST;
        route.ifindex = d.ifindex;
        return build(d, route);
    }
    if (!ask_route(d, route))
        return {};
    switch (route.type) {
    case RTN_LOCAL: {
        core_path path;
        path.kind = path_kind::LOCAL;
        return path;
    }
    case RTN_UNICAST:
    case RTN_MULTICAST:
    case RTN_BROADCAST:
        return build(d, route);
    default:
        return {};
    }
}

bool is_current(const entry &e)
{
    const std::uint32_t age = net_seconds.load(std::memory_order_relaxed) - e.second;
    return e.generation == generation.load(std::memory_order_acquire) &&
           age < (e.path.kind == path_kind::NONE ? BAD_SECONDS : GOOD_SECONDS);
}

void fill(entry &e, const core_destination &d)
{
    // Read first: a change that comes while the kernel is being asked must not be missed.
    e.generation = generation.load(std::memory_order_acquire);
    e.second = net_seconds.load(std::memory_order_relaxed);
    e.key = d;
    e.used = true;
    e.path = find_path(d);
}

void forget_all(table &t)
{
    std::fill(t.slot.begin(), t.slot.end(), entry{});
    t.filled = 0;
}

} // namespace

bool is_multicast(const core_destination &d)
{
    return d.family == AF_INET ? d.address[0] >> 4 == 0xE : d.address[0] == 0xFF;
}

const core_path &core_path_get(const core_destination &d)
{
    table &t = the_table();
    std::uint32_t at = hash(d) % SLOTS;
    while (t.slot[at].used && !(t.slot[at].key == d))
        at = (at + 1) % SLOTS;
    entry &found = t.slot[at];
    if (found.used && is_current(found))
        return found.path;
    if (!found.used && ++t.filled > FILL_LIMIT) {
        forget_all(t);
        t.filled = 1;
        at = hash(d) % SLOTS;
    }
    fill(t.slot[at], d);
    return t.slot[at].path;
}

void core_path_event(const nlmsghdr *event)
{
    switch (event->nlmsg_type) {
    case RTM_NEWNEIGH:
    case RTM_DELNEIGH:
        return;
    default:
        core_paths_forget();
    }
}

void core_paths_forget()
{
    generation.fetch_add(1, std::memory_order_acq_rel);
}

} // namespace corvane
