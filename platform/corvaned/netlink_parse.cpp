// Link and address messages of rtnetlink as records.
#include "netlink.h"

#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

namespace corvaned {
namespace {

using each_attribute = std::function<void(const nlattr *)>;

int run_callback(const nlattr *attribute, void *data)
{
    (*static_cast<const each_attribute *>(data))(attribute);
    return MNL_CB_OK;
}

void for_each(const nlmsghdr *message, unsigned header_size, const each_attribute &run)
{
    mnl_attr_parse(message, header_size, run_callback, const_cast<each_attribute *>(&run));
}
void for_each_nested(const nlattr *nest, const each_attribute &run)
{
    mnl_attr_parse_nested(nest, run_callback, const_cast<each_attribute *>(&run));
}

std::string text_of(const nlattr *attribute)
{
    const auto *text = static_cast<const char *>(mnl_attr_get_payload(attribute));
    return {text, strnlen(text, mnl_attr_get_payload_len(attribute))};
}

std::uint32_t word_of(const nlattr *attribute)
{
    std::uint32_t value = 0;
    if (mnl_attr_get_payload_len(attribute) >= sizeof value)
        std::memcpy(&value, mnl_attr_get_payload(attribute), sizeof value);
    return value;
}

template <std::size_t N> void copy_bytes(const nlattr *attribute, std::array<std::uint8_t, N> &out)
{
    std::memcpy(out.data(), mnl_attr_get_payload(attribute),
                std::min<std::size_t>(N, mnl_attr_get_payload_len(attribute)));
}

void read_kind_data(const nlattr *data, link_info &link)
{
    const auto *bytes = static_cast<const std::uint8_t *>(mnl_attr_get_payload(data));
    link.kind_data.assign(bytes, bytes + mnl_attr_get_payload_len(data));
    if (link.kind != "vrf")
        return;
    for_each_nested(data, [&](const nlattr *attribute) {
        if (mnl_attr_get_type(attribute) == IFLA_VRF_TABLE)
            link.vrf_table = word_of(attribute);
    });
}

void read_link_kind(const nlattr *info, link_info &link)
{
    const nlattr *data = nullptr;
    for_each_nested(info, [&](const nlattr *attribute) {
        if (mnl_attr_get_type(attribute) == IFLA_INFO_KIND)
            link.kind = text_of(attribute);
        else if (mnl_attr_get_type(attribute) == IFLA_INFO_DATA)
            data = attribute;
    });
    if (data != nullptr)
        read_kind_data(data, link);
}

void read_link(const nlmsghdr *message, const netlink_handler &handler)
{
    if (mnl_nlmsg_get_payload_len(message) < sizeof(ifinfomsg))
        return;
    const auto *header = static_cast<const ifinfomsg *>(mnl_nlmsg_get_payload(message));
    // A device that leaves a bridge is told as a removed link of the bridge's family; the device is still there.
    if (header->ifi_family != AF_UNSPEC)
        return;
    if (message->nlmsg_type == RTM_DELLINK) {
        handler.link_gone(static_cast<std::uint32_t>(header->ifi_index));
        return;
    }
    link_info link;
    link.ifindex = static_cast<std::uint32_t>(header->ifi_index);
    link.flags = header->ifi_flags;
    link.type = header->ifi_type;
    for_each(message, sizeof *header, [&](const nlattr *attribute) {
        switch (mnl_attr_get_type(attribute)) {
        case IFLA_IFNAME:
            link.name = text_of(attribute);
            break;
        case IFLA_MTU:
            link.mtu = word_of(attribute);
            break;
        case IFLA_MASTER:
            link.master = word_of(attribute);
            break;
        case IFLA_ADDRESS:
            copy_bytes(attribute, link.mac);
            break;
        case IFLA_LINKINFO:
            read_link_kind(attribute, link);
            break;
        default:
            break;
        }
    });
    if (!link.name.empty())
        handler.link(link);
}

// On a point-to-point link IFA_ADDRESS is the other end, and IFA_LOCAL the own address.
void read_address(const nlmsghdr *message, const netlink_handler &handler)
{
    if (mnl_nlmsg_get_payload_len(message) < sizeof(ifaddrmsg))
        return;
    const auto *header = static_cast<const ifaddrmsg *>(mnl_nlmsg_get_payload(message));
    if (header->ifa_family != AF_INET && header->ifa_family != AF_INET6)
        return;
    address_info address;
    address.ifindex = header->ifa_index;
    address.family = header->ifa_family;
    address.prefix_length = header->ifa_prefixlen;
    address.scope = header->ifa_scope;
    address.flags = header->ifa_flags;
    bool has_local = false, has_address = false;
    for_each(message, sizeof *header, [&](const nlattr *attribute) {
        const auto type = mnl_attr_get_type(attribute);
        if (type == IFA_FLAGS)
            address.flags = word_of(attribute);
        if (type == IFA_LOCAL || (type == IFA_ADDRESS && !has_local))
            copy_bytes(attribute, address.address);
        has_local = has_local || type == IFA_LOCAL;
        has_address = has_address || type == IFA_LOCAL || type == IFA_ADDRESS;
    });
    if (has_address)
        handler.address(address, message->nlmsg_type == RTM_NEWADDR);
}

} // namespace

void netlink_parse(const nlmsghdr *message, const netlink_handler &handler)
{
    switch (message->nlmsg_type) {
    case RTM_NEWLINK:
    case RTM_DELLINK:
        read_link(message, handler);
        break;
    case RTM_NEWADDR:
    case RTM_DELADDR:
        read_address(message, handler);
        break;
    default:
        break;
    }
}

} // namespace corvaned
