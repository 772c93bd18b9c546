// Interface manager service: the kernel's word into the manager, the manager's word to the clients and services.
#include "intfmgr_service.h"

#include "rtab.h"
#include "vlanmgr.h"

#include "../api/svcmgr.h"
#include "../wire/intfmgr.h"

#include <linux/if.h>
#include <sys/epoll.h>

#include <cstring>

using namespace corvane;
using namespace std::chrono_literals;

namespace corvaned {
namespace {

const std::string IOD_PREFIX = "iod/", PORT_PREFIX = "port/";

// A client that is told that a switchport's VLANs went has to find a switchport when it reads the message.
constexpr auto SWITCHPORT_GRACE = 500ms;
// The startup configuration has been replayed long before: what it does not name any more is given back.
constexpr auto UNCONFIRMED_AFTER = 15s;
constexpr auto SNAPSHOT_RETRY = 1s;

byte_view key_of(const std::string &text)
{
    return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()};
}

std::vector<std::pair<std::string, std::uint32_t>> kept_iods()
{
    std::vector<std::pair<std::string, std::uint32_t>> result;
    for (const auto &record : intfmgr().store.range(key_of(IOD_PREFIX), {}, 100'000)) {
        const std::string name(record.key.begin() + static_cast<std::ptrdiff_t>(IOD_PREFIX.size()), record.key.end());
        result.emplace_back(name, byte_reader(record.value).get<std::uint32_t>());
    }
    return result;
}

interface_manager::environment manager_environment()
{
    interface_manager::environment e;
    e.notify = [](std::uint32_t opcode, byte_view payload) { bus_notify(INTFMGR_SAP, opcode, payload); };
    e.log = log_line;
    e.iod_lost = rtab_forget_iod;
    e.iods.put = [](const std::string &name, std::uint32_t iod) {
        if (!intfmgr().store.put(key_of(IOD_PREFIX + name), byte_writer().put(iod).view()))
            log_line(3, "interface " + name + ": its number cannot be kept");
    };
    e.iods.erase = [](const std::string &name) { (void)intfmgr().store.erase(key_of(IOD_PREFIX + name)); };
    return e;
}

switchport_keeper::environment keeper_environment()
{
    return {intfmgr().netlink,
            [](const std::string &name, std::vector<std::uint8_t> &record) {
                return intfmgr().store.get(key_of(PORT_PREFIX + name), record);
            },
            [](const std::string &name, byte_view record) {
                if (!intfmgr().store.put(key_of(PORT_PREFIX + name), record))
                    log_line(3, "interface " + name + ": what it was cannot be kept");
            },
            [](const std::string &name) { (void)intfmgr().store.erase(key_of(PORT_PREFIX + name)); }, log_line};
}

void resynchronise()
{
    netlink_snapshot all;
    if (intfmgr().netlink.snapshot(all)) {
        intfmgr().manager->snapshot(all);
        return;
    }
    log_line(4, "interface manager: the kernel's list of links changes faster than it can be read");
    after(SNAPSHOT_RETRY, resynchronise);
}

void read_events()
{
    const netlink_handler handler{
        [](const link_info &link) { intfmgr().manager->link(link); },
        [](std::uint32_t ifindex) { intfmgr().manager->link_gone(ifindex); },
        [](const address_info &address, bool added) { intfmgr().manager->address(address, added); }};
    if (!intfmgr().netlink.read_events(handler))
        resynchronise();
}

const interface_state *lo()
{
    for (const interface_state *interface : intfmgr().manager->all())
        if ((interface->link.flags & IFF_LOOPBACK) != 0)
            return interface;
    return nullptr;
}

// A device that went may have been the one that answered to another's alternative name.
void renew_altnames()
{
    for (const auto &[name, config] : intfmgr().config)
        if (const interface_state *device = intfmgr().manager->find(name); config.switchport && device != nullptr)
            intfmgr().keeper->ensure_altname(name, *device);
    for (const std::string &name : intfmgr().altnames)
        if (lo() != nullptr)
            intfmgr().keeper->ensure_altname(name, *lo());
}

// A device that comes (back) gets what the configuration says of it.
void apply_config(const interface_state &device)
{
    const auto config = intfmgr().config.find(device.name);
    if (config == intfmgr().config.end() || device.overlay)
        return;
    if (config->second.switchport)
        (void)intfmgr_take_switchport(device);
    else if (config->second.shut)
        (void)intfmgr().netlink.set_link_flags(device.link.ifindex, 0, IFF_UP);
}

void follow(const interface_state &interface, interface_event event)
{
    if (event == interface_event::CREATED)
        apply_config(interface);
    if (event != interface_event::REMOVED)
        return;
    if (interface.overlay && intfmgr().altnames.erase(interface.name) != 0)
        intfmgr().keeper->drop_altname(interface.name, lo());
    renew_altnames();
}

// A former corvaned's switchports stay what they are until the configuration has been replayed: the daemon may have
// gone on forwarding on them all the time.
void adopt_switchports()
{
    for (const interface_state *device : intfmgr().manager->all()) {
        if (device->overlay || !intfmgr().keeper->is_on_record(*device))
            continue;
        intfmgr().config[device->name].switchport = true;
        intfmgr().manager->set_switchport(device->name, true);
    }
}

void drop_unconfirmed()
{
    for (const auto &record : intfmgr().store.range(key_of(PORT_PREFIX), {}, 100'000)) {
        const std::string name(record.key.begin() + static_cast<std::ptrdiff_t>(PORT_PREFIX.size()), record.key.end());
        const auto config = intfmgr().config.find(name);
        if (config != intfmgr().config.end() && config->second.confirmed)
            continue;
        log_line(5, "interface " + name + " is no switchport in the configuration any more: it is given back");
        intfmgr_drop_switchport(name);
        intfmgr().keeper->forget(name);
    }
}

interface_info info_of(const interface_state &i)
{
    return {i.iod,           i.name,           i.overlay, i.switchport, i.up(), i.link.ifindex, i.addresses.ipv4(),
            i.addresses.ipv6()};
}

void hook_event(interface_event wanted, std::function<void(const interface_info &)> hook)
{
    intfmgr().manager->on_event([wanted, hook = std::move(hook)](const interface_state &i, interface_event event) {
        if (event == wanted)
            hook(info_of(i));
    });
}

} // namespace

interface_service &intfmgr()
{
    static interface_service service;
    return service;
}

int intfmgr_take_switchport(const interface_state &device)
{
    interface_config &config = intfmgr().config[device.name];
    const int error = intfmgr().keeper->take(device, !config.shut);
    if (error == 0) {
        config.switchport = true;
        intfmgr().manager->set_switchport(device.name, true);
    }
    return error;
}

void intfmgr_drop_switchport(const std::string &name)
{
    intfmgr().config[name].switchport = false;
    const bool told = vlanmgr_clear(name);
    if (const interface_state *device = intfmgr().manager->find(name); device != nullptr)
        intfmgr().keeper->give_back(*device);
    const auto finish = [name] {
        if (!intfmgr().config[name].switchport)
            intfmgr().manager->set_switchport(name, false);
    };
    if (told)
        after(SWITCHPORT_GRACE, finish);
    else
        finish();
}

std::vector<interface_info> intfmgr_list()
{
    std::vector<interface_info> result;
    for (const interface_state *interface : intfmgr().manager->all())
        result.push_back(info_of(*interface));
    return result;
}

std::uint32_t intfmgr_find(const std::string &name)
{
    const interface_state *interface = intfmgr().manager->find(name);
    return interface == nullptr ? 0 : interface->iod;
}

interface_info intfmgr_get(std::uint32_t iod)
{
    const interface_state *interface = intfmgr().manager->find(iod);
    return interface == nullptr ? interface_info{} : info_of(*interface);
}

std::string intfmgr_name(std::uint32_t iod) { return intfmgr_get(iod).name; }
bool intfmgr_exists(std::uint32_t iod) { return intfmgr().manager->find(iod) != nullptr; }
bool intfmgr_up(std::uint32_t iod) { return intfmgr_get(iod).up; }

void on_interface_created(std::function<void(const interface_info &)> hook)
{
    hook_event(interface_event::CREATED, std::move(hook));
}
void on_interface_up(std::function<void(const interface_info &)> hook)
{
    hook_event(interface_event::UP, std::move(hook));
}
void on_interface_removed(std::function<void(const interface_info &)> hook)
{
    hook_event(interface_event::REMOVED, std::move(hook));
}
void on_interface_state(std::function<void(const interface_info &)> hook)
{
    intfmgr().manager->on_event([hook = std::move(hook)](const interface_state &i, interface_event) { hook(info_of(i)); });
}
void on_interface_address(std::function<void(const interface_info &, const address_change &)> hook)
{
    intfmgr().manager->on_address(
        [hook = std::move(hook)](const interface_state &i, const address_change &change) { hook(info_of(i), change); });
}

void intfmgr_announce(std::uint32_t opcode, byte_view payload) { bus_notify(INTFMGR_SAP, opcode, payload); }

bool intfmgr_ensure_altname(const std::string &name)
{
    if (intfmgr().manager == nullptr)                        // not started: there is no device yet
        return false;
    const interface_state *interface = intfmgr().manager->find(name);
    const interface_state *device = interface != nullptr && interface->overlay ? lo() : interface;
    if (device == nullptr)
        return false;
    if (interface->overlay)
        intfmgr().altnames.insert(name);
    return intfmgr().keeper->ensure_altname(name, *device);
}

void intfmgr_start()
{
    interface_service &service = intfmgr();
    auto *table = static_cast<interface_table *>(make_shared(INTFMGR_SHM, sizeof(interface_table)));
    static auto *fallback = table == nullptr ? new interface_table{} : nullptr;      // the other services need a manager
    service.manager = std::make_unique<interface_manager>(table == nullptr ? *fallback : *table, manager_environment());
    service.keeper = std::make_unique<switchport_keeper>(keeper_environment());
    service.manager->start(kept_iods());
    service.manager->on_event(follow);
    if (service.netlink.open()) {
        watch(service.netlink.events_fd(), EPOLLIN, [](std::uint32_t) { read_events(); });
        resynchronise();
    } else {
        log_line(2, std::string("interface manager: no rtnetlink: ") + std::strerror(errno));
    }
    adopt_switchports();
    after(UNCONFIRMED_AFTER, drop_unconfirmed);
    serve_method(INTFMGR_ANNOUNCE, [](const peer &, byte_view) {
        intfmgr().manager->announce_all();
        return answer{};
    });
    intfmgr_commands_start();
    service_hosted(SVC_INTFMGR, "intfmgr");
}

void intfmgr_started()
{
    intfmgr().manager->started();
}

} // namespace corvaned
