// Records of the route table as lines of text.
#include "rtab_elements.h"

#include <arpa/inet.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>

using namespace corvane;

namespace corvaned {
namespace {

std::string key_text(const rtab_mac_info &key)
{
    char text[40];
    const auto &m = key.mac;
    std::snprintf(text, sizeof text, "%u/%02x:%02x:%02x:%02x:%02x:%02x", key.vlan, m[0], m[1], m[2], m[3], m[4], m[5]);
    return text;
}

std::uint32_t word_of(const rtab_addr &nexthop, std::size_t at)
{
    std::uint32_t value = 0;
    std::memcpy(&value, nexthop.body.data() + at, sizeof value);
    return value;
}

std::string ipv4_text(std::uint32_t address_host)
{
    const in_addr address{htonl(address_host)};
    char text[INET_ADDRSTRLEN] = "";
    return inet_ntop(AF_INET, &address, text, sizeof text);
}

std::string ipv6_text(const std::uint8_t *address)
{
    char text[INET6_ADDRSTRLEN] = "";
    return inet_ntop(AF_INET6, address, text, sizeof text);
}

std::string with_name(const rtab_text &text, std::uint32_t iod)
{
    const std::string name = text.interface_name(iod);
    return name.empty() ? "" : " " + name;
}

std::string nexthop_text(const rtab_addr &nexthop, const rtab_text &text)
{
    const std::uint32_t word = word_of(nexthop, 0);
    switch (nexthop.kind) {
    case 1:
        return "iod " + std::to_string(word) + with_name(text, word);
    case 2:
        return "ifindex " + std::to_string(word);
    case 4:
        return "ip 0 " + ipv4_text(word);
    case 5:
        return "ip 0 " + ipv6_text(nexthop.body.data());
    case 6:
        return "ip " + std::to_string(word) + " " +
               (nexthop.body[4] == 4 ? ipv4_text(word_of(nexthop, 8)) : ipv6_text(nexthop.body.data() + 8)) +
               with_name(text, word);
    default:
        return "kind " + std::to_string(nexthop.kind);
    }
}

std::string origin_text(const rtab_route &route, const rtab_text &text)
{
    if (route.is_static != 0)
        return "static";
    const std::uint64_t now_s = text.now_ns / 1'000'000'000;
    const std::uint64_t age_s = now_s > route.data_seen.seconds ? now_s - route.data_seen.seconds : 0;
    return "learnt " + std::to_string(age_s) + "s";
}

} // namespace

std::string rtab_lines(const rtab_route &route, const rtab_text &text)
{
    std::string lines;
    for (std::size_t i = 0; i < route.nexthop_count; ++i)
        lines += key_text(route.key) + " " + text.owner_name(route.owner) + " " + nexthop_text(route.nexthop[i], text) +
                 " " + origin_text(route, text) + "\n";
    return lines;
}

std::string rtab_lines(const rtab_source_key &source, const oif_set &oifs, const rtab_text &text)
{
    std::string suffix = " static";
    if (source.group != 0)
        suffix += " group " + ipv4_text(source.group);
    if (source.source != 0)
        suffix += " source " + ipv4_text(source.source);
    std::string lines;
    for (std::uint32_t iod = 1; iod < oifs.size(); ++iod)
        if (oifs[iod])
            lines += key_text(rtab_key_info(source.key)) + " " + text.owner_name(source.owner) + " iod " +
                     std::to_string(iod) + with_name(text, iod) + suffix + "\n";
    return lines;
}

} // namespace corvaned
