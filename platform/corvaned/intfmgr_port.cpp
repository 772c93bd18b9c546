// Devices as switchports.
#include "intfmgr_port.h"

#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

using namespace corvane;

namespace corvaned {
namespace {

constexpr std::uint32_t KEPT_FLAGS = IFF_UP | IFF_NOARP;

std::string ipv6_setting(const std::string &name) { return "/proc/sys/net/ipv6/conf/" + name + "/disable_ipv6"; }

bool read_setting(const std::string &path, std::int32_t &value)
{
    std::ifstream file(path);
    return static_cast<bool>(file >> value);
}

bool write_setting(const std::string &path, std::int32_t value)
{
    std::ofstream file(path);
    file << value << '\n';
    return static_cast<bool>(file.flush());
}

std::string boot_id()
{
    std::string text;
    std::ifstream("/proc/sys/kernel/random/boot_id") >> text;
    return text;
}

// As a client that looks a device up by name finds it: alternative names count.
bool device_answers(const std::string &name)
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    name.copy(request.ifr_name, sizeof request.ifr_name - 1);
    const bool found = fd >= 0 && ioctl(fd, SIOCGIFINDEX, &request) == 0;
    if (fd >= 0)
        close(fd);
    return found;
}

std::string altname_of(const std::string &name) { return std::string("eth") + name.back(); }

bool is_lasting_ipv6(const address_info &a)
{
    return a.family == AF_INET6 && a.scope < RT_SCOPE_LINK && (a.flags & IFA_F_PERMANENT) != 0;
}

} // namespace

void switchport_keeper::warn(const std::string &what, const std::string &name, int error)
{
    environment_.log(4, "interface " + name + ": " + what + ": " + std::strerror(error));
}

std::optional<switchport_keeper::record> switchport_keeper::load(const std::string &name)
{
    std::vector<std::uint8_t> bytes;
    if (!environment_.load(name, bytes))
        return std::nullopt;
    byte_reader in(bytes);
    record r;
    r.ifindex = in.get<std::uint32_t>();
    r.flags = in.get<std::uint32_t>();
    r.disable_ipv6 = in.get<std::int32_t>();
    r.boot = in.text();
    r.altname = in.text();
    while (in.ok() && !in.rest().empty())
        r.ipv6.push_back(in.get<address_info>());
    return in.ok() ? std::optional(r) : std::nullopt;
}

void switchport_keeper::save(const std::string &name, const record &r)
{
    byte_writer out;
    out.put(r.ifindex).put(r.flags).put(r.disable_ipv6).text(r.boot).text(r.altname);
    for (const address_info &address : r.ipv6)
        out.put(address);
    environment_.save(name, out.view());
}

bool switchport_keeper::is_on_record(const interface_state &device)
{
    const auto known = load(device.name);
    return known && known->ifindex == device.link.ifindex && known->boot == boot_id();
}

void switchport_keeper::forget(const std::string &name) { environment_.erase(name); }

switchport_keeper::record switchport_keeper::remember(const interface_state &device)
{
    record r;
    r.ifindex = device.link.ifindex;
    r.flags = device.link.flags & KEPT_FLAGS;
    r.boot = boot_id();
    if (!read_setting(ipv6_setting(device.name), r.disable_ipv6))
        r.disable_ipv6 = UNKNOWN;
    for (const address_info &address : device.addresses.all())
        if (is_lasting_ipv6(address))
            r.ipv6.push_back(address);
    return r;
}

int switchport_keeper::take(const interface_state &device, bool up)
{
    if (!is_on_record(device))
        save(device.name, remember(device));
    silence_ipv6(device);                                    // first: a device that comes up solicits at once
    const std::uint32_t mask = up ? IFF_NOARP | IFF_UP : IFF_NOARP;
    if (const int error = environment_.netlink.set_link_flags(device.link.ifindex, mask, mask); error != 0) {
        give_back(device);
        return error;
    }
    ensure_altname(device.name, device);
    return 0;
}

// Where settings cannot be written (a container), the device is kept from making addresses and loses those it has.
void switchport_keeper::silence_ipv6(const interface_state &device)
{
    std::int32_t now = 0;
    const std::string setting = ipv6_setting(device.name);
    if (!read_setting(setting, now))
        return;                                              // a kernel without IPv6
    if (now == 1 || write_setting(setting, 1))
        return;
    if (const int error = environment_.netlink.set_address_generation(device.link.ifindex, false); error != 0)
        warn("IPv6 stays active", device.name, error);
    for (const address_info &address : device.addresses.all())
        if (address.family == AF_INET6)
            (void)environment_.netlink.set_address(address, false);
}

void switchport_keeper::restore_ipv6(const interface_state &device, const record &r)
{
    std::int32_t now = 0;
    const std::string setting = ipv6_setting(device.name);
    if (r.disable_ipv6 == UNKNOWN || !read_setting(setting, now))
        return;
    if (now == r.disable_ipv6 && now == 0)                   // it was silenced the other way
        (void)environment_.netlink.set_address_generation(device.link.ifindex, true);
    else if (now != r.disable_ipv6 && !write_setting(setting, r.disable_ipv6))
        warn("IPv6 cannot be given back", device.name, errno);
    for (const address_info &address : r.ipv6)
        if (const int error = environment_.netlink.set_address(address, true); error != 0)
            warn("an IPv6 address cannot be given back", device.name, error);
}

void switchport_keeper::give_back(const interface_state &device)
{
    const auto known = load(device.name);
    if (!known || !is_on_record(device)) {
        forget(device.name);
        return;
    }
    const std::uint32_t ifindex = device.link.ifindex;
    if (const int error = environment_.netlink.set_link_flags(ifindex, known->flags, KEPT_FLAGS); error != 0)
        warn("flags cannot be given back", device.name, error);
    restore_ipv6(device, *known);
    if (!known->altname.empty()) {
        given_.erase(known->altname);
        (void)environment_.netlink.set_altname(ifindex, known->altname, false);
    }
    forget(device.name);
}

bool switchport_keeper::ensure_altname(const std::string &for_name, const interface_state &device)
{
    const std::string wanted = altname_of(for_name);
    if (device_answers(wanted))
        return true;
    if (const int error = environment_.netlink.set_altname(device.link.ifindex, wanted, true); error != 0) {
        warn("cannot be named " + wanted, device.name, error);
        return false;
    }
    given_.insert(wanted);
    if (auto known = load(for_name); known && is_on_record(device)) {
        known->altname = wanted;
        save(for_name, *known);
    }
    return true;
}

void switchport_keeper::drop_altname(const std::string &for_name, const interface_state *device)
{
    const std::string name = altname_of(for_name);
    if (device != nullptr && given_.erase(name) != 0)
        (void)environment_.netlink.set_altname(device->link.ifindex, name, false);
}

} // namespace corvaned
