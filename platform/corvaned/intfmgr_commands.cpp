// Commands of the interface manager.
#include "intfmgr_service.h"

#include "vlanmgr.h"

#include <arpa/inet.h>
#include <linux/if.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace corvaned {
namespace {

constexpr int DONE = 0, REJECTED = -500;

int reject(command &c, const std::string &text)
{
    c.print(text + "\n");
    return REJECTED;
}

int switchport(command &c)
{
    if (c.no) {
        const auto config = intfmgr().config.find(c.mode_name);
        if (config != intfmgr().config.end() && config->second.switchport)
            intfmgr_drop_switchport(c.mode_name);
        return DONE;
    }
    const interface_state *device = intfmgr().manager->find(c.mode_name);
    if (device == nullptr)
        return reject(c, "no such interface: " + c.mode_name);
    if (device->overlay || (device->link.flags & IFF_LOOPBACK) != 0)
        return reject(c, c.mode_name + " cannot be a switchport");
    if (const int error = intfmgr_take_switchport(*device); error != 0)
        return reject(c, c.mode_name + " cannot be a switchport: " + std::strerror(error));
    intfmgr().config[c.mode_name].confirmed = true;
    return DONE;
}

int shutdown(command &c)
{
    const interface_state *interface = intfmgr().manager->find(c.mode_name);
    if (interface == nullptr)
        return reject(c, "no such interface: " + c.mode_name);
    if (interface->overlay) {
        intfmgr().manager->shut_overlay(c.mode_name, !c.no);
        return DONE;
    }
    const int error = intfmgr().netlink.set_link_flags(interface->link.ifindex, c.no ? IFF_UP : 0, IFF_UP);
    if (error != 0)
        return reject(c, c.mode_name + ": " + std::strerror(error));
    intfmgr().config[c.mode_name].shut = !c.no;
    return DONE;
}

int interface_overlay(command &c)
{
    const std::string *number = c.get("<N>");
    const std::string name = number == nullptr ? "" : "Overlay" + *number;
    if (!is_overlay_name(name))
        return reject(c, "not an overlay interface: " + name);
    if (c.no) {
        (void)intfmgr().manager->remove_overlay(name);
        return DONE;
    }
    if (intfmgr().manager->make_overlay(name) == 0)
        return reject(c, "no number is left for " + name);
    return DONE;
}

std::string addresses_text(const interface_state &i)
{
    std::string text;
    if (i.addresses.ipv4() != 0) {
        const in_addr address{htonl(i.addresses.ipv4())};
        char buffer[INET_ADDRSTRLEN];
        text = inet_ntop(AF_INET, &address, buffer, sizeof buffer);
    }
    if (std::ranges::any_of(i.addresses.ipv6(), [](std::uint8_t byte) { return byte != 0; })) {
        char buffer[INET6_ADDRSTRLEN];
        text += text.empty() ? "" : " ";
        text += inet_ntop(AF_INET6, i.addresses.ipv6().data(), buffer, sizeof buffer);
    }
    return text.empty() ? "-" : text;
}

std::string mode_text(const interface_state &i)
{
    if (i.overlay)
        return "overlay";
    const auto config = intfmgr().config.find(i.name);
    if (config == intfmgr().config.end() || !config->second.switchport)
        return i.tunnel() ? "tunnel" : "routed";
    const std::string vlans = vlanmgr_mode_text(i.name);
    return vlans.empty() ? "switchport" : vlans;
}

const char *state_text(const interface_state &i)
{
    if (i.up())
        return "up";
    const bool shut = i.overlay ? i.shut : (i.link.flags & IFF_UP) == 0;
    return shut ? "shut" : "down";
}

int show_interface(command &c)
{
    char line[512];
    std::snprintf(line, sizeof line, "%-16s %4s  %-5s %6s  %-16s %s\n", "Interface", "Iod", "State", "MTU", "Mode",
                  "Addresses");
    c.print(line);
    for (const interface_state *i : intfmgr().manager->all()) {
        const std::string mtu = i->overlay ? "-" : std::to_string(i->link.mtu);
        std::snprintf(line, sizeof line, "%-16s %4u  %-5s %6s  %-16s %s\n", i->name.c_str(), i->iod, state_text(*i),
                      mtu.c_str(), mode_text(*i).c_str(), addresses_text(*i).c_str());
        c.print(line);
    }
    return DONE;
}

} // namespace

void intfmgr_commands_start()
{
    serve_command("switchport", switchport);
    serve_command("shutdown", shutdown);
    serve_command("interface_overlay", interface_overlay);
    serve_command("show_interface", show_interface);
}

} // namespace corvaned
