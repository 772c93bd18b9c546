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

std::vector<std::string> addresses_of(const interface_state &i)
{
    std::vector<std::string> texts;
    if (i.addresses.ipv4() != 0) {
        const in_addr address{htonl(i.addresses.ipv4())};
        char buffer[INET_ADDRSTRLEN];
        texts.emplace_back(inet_ntop(AF_INET, &address, buffer, sizeof buffer));
    }
    if (std::ranges::any_of(i.addresses.ipv6(), [](std::uint8_t byte) { return byte != 0; })) {
        char buffer[INET6_ADDRSTRLEN];
        texts.emplace_back(inet_ntop(AF_INET6, i.addresses.ipv6().data(), buffer, sizeof buffer));
    }
    return texts;
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

// The table is made for a screen of 80 columns: what does not fit behind an interface goes on below, in the last column.
constexpr std::size_t SCREEN = 80, LAST_COLUMN = 44;

// A list of VLANs in lines that fit into the last column, cut behind a comma.
void add_vlans(std::vector<std::string> &cells, std::string_view list)
{
    constexpr std::size_t ROOM = SCREEN - LAST_COLUMN;
    while (list.size() > ROOM) {
        const std::size_t comma = list.rfind(',', ROOM - 1);
        const std::size_t size = comma == std::string_view::npos ? ROOM : comma + 1;
        cells.emplace_back(list.substr(0, size));
        list.remove_prefix(size);
    }
    if (!list.empty())
        cells.emplace_back(list);
}

// One interface: its row, and lines for what the last column has no room for. An address that is longer than the
// column moves to the left, on a line of its own.
void print_interface(command &c, const interface_state &i)
{
    const std::string mode = mode_text(i);                   // "routed", or "trunk 10,20-30"
    const std::size_t blank = std::min(mode.find(' '), mode.size());
    std::vector<std::string> cells;
    add_vlans(cells, std::string_view(mode).substr(std::min(blank + 1, mode.size())));
    for (auto &address : addresses_of(i))
        cells.push_back(std::move(address));
    const bool fits = !cells.empty() && cells.front().size() <= SCREEN - LAST_COLUMN;
    const std::string mtu = i.overlay ? "-" : std::to_string(i.link.mtu), kind = mode.substr(0, blank);
    const std::string last = fits ? cells.front() : cells.empty() ? "-" : "";
    char row[256];
    std::snprintf(row, sizeof row, "%-15s %3u %-5s %5s  %-10s %s\n", i.name.c_str(), i.iod, state_text(i), mtu.c_str(),
                  kind.c_str(), last.c_str());
    c.print(row);
    for (std::size_t n = fits ? 1 : 0; n < cells.size(); ++n) {
        const std::size_t indent = std::min(LAST_COLUMN, SCREEN - std::min(SCREEN - 1, cells[n].size()));
        c.print(std::string(indent, ' ') + cells[n] + "\n");
    }
}

int show_interface(command &c)
{
    c.print("Interface       Iod State   MTU  Mode       VLANs, addresses\n");
    for (const interface_state *i : intfmgr().manager->all())
        print_interface(c, *i);
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
