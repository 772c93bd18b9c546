// Route table: learnt and operator's routes, multicast routes, and the meaning of route updates.
#include "fake_state.h"

#include "../libcorvane/base/fault.h"
#include "../wire/rtab_update.h"

#include <algorithm>
#include <cstring>

namespace fake {

namespace {

using corvane::RTAB_DATA_LEAD_S;
using corvane::RTAB_ELEMENT_MAC;
using corvane::RTAB_ELEMENT_NEXTHOP;
using corvane::RTAB_ELEMENT_NEXTHOPS;
using corvane::RTAB_ELEMENT_OPERATION;
using corvane::RTAB_ELEMENT_UP;
using corvane::RTAB_ELEMENT_VLAN;
using corvane::RTAB_ELEMENT_WORD;

constexpr std::uint32_t KIND_IOD = 1, KIND_NEXT_HOP = 6;
constexpr std::uint32_t PORTS = 768;

bool is_group(const rtab_mac_info &key)
{
    return (key.mac[0] & 1) != 0 && !std::ranges::all_of(key.mac, [](std::uint8_t b) { return b == 0xFF; });
}

std::uint32_t word(const rtab_addr &address, std::size_t at)
{
    std::uint32_t value = 0;
    std::memcpy(&value, address.body.data() + at, sizeof value);
    return value;
}

bool same(const rtab_addr &a, const rtab_addr &b)
{
    if (a.kind != b.kind)
        return false;
    if (a.kind != KIND_NEXT_HOP)
        return word(a, 0) == word(b, 0);
    const std::size_t address_size = word(a, 4) == 4 ? 4 : 16;
    return std::memcmp(a.body.data(), b.body.data(), 8 + address_size) == 0;
}

// The same remote address, whatever overlay interface leads to it.
bool same_address(const rtab_addr &a, const rtab_addr &b)
{
    return a.kind == KIND_NEXT_HOP && b.kind == KIND_NEXT_HOP &&
           std::memcmp(a.body.data() + 4, b.body.data() + 4, a.body.size() - 4) == 0;
}

state &s() { return platform.impl(); }

route_entry &entry(const rtab_mac_info &key)
{
    std::unique_ptr<route_entry> &made = s().routes[key_of(key)];
    if (made == nullptr) {
        made = std::make_unique<route_entry>();
        made->view.key = key;
        made->key = key_of(key);
        s().route_index.insert(made.get());
    }
    return *made;
}

route_entry *find(const rtab_mac_info &key)
{
    const route_key wanted = key_of(key);
    return s().route_index.find(&wanted);
}

void drop_entry(const rtab_mac_info &key)
{
    const route_key gone = key_of(key);
    s().route_index.erase(&gone);
    s().routes.erase(gone);
}

void add_nexthop(rtab_route &view, const route_nexthop &nexthop)
{
    if (view.nexthop_count == RTAB_MAX_NEXTHOPS)
        return;
    if (view.nexthop_count == 0)
        view.owner = nexthop.owner;
    view.nexthop[view.nexthop_count++] = nexthop.address;
}

// What lookups give: the operator's present next hops, else the learnt one; no next hop, no route.
void settle(route_entry &e)
{
    rtab_route &view = e.view;
    view.nexthop_count = 0;
    view.is_static = 0;
    for (const route_nexthop &n : e.fixed)
        if (n.present)
            add_nexthop(view, n);
    if (view.nexthop_count != 0)
        view.is_static = 1;
    else if (e.learnt)
        add_nexthop(view, *e.learnt);
    view.data_seen = e.learnt_seen;
    if (e.fixed.empty() && !e.learnt)
        drop_entry(view.key);
}

const rtab_route *visible(route_entry &e)
{
    if (e.view.nexthop_count == 0)
        return nullptr;
    if (e.view.is_static != 0)
        e.view.data_seen = platform.now;
    return &e.view;
}

void settle(mroute_entry &e)
{
    e.oifs->clear_all();
    for (const auto &[route, iods] : e.iods)
        for (const std::uint32_t iod : iods)
            e.oifs->set(iod);
}

void join(const rtab_mac_info &key, std::pair<std::uint32_t, std::uint32_t> route, std::uint32_t iod)
{
    std::unique_ptr<mroute_entry> &made = s().mroutes[key_of(key)];
    if (made == nullptr) {
        made = std::make_unique<mroute_entry>();
        made->view.key = key;
    }
    made->iods[route].insert(iod);
    settle(*made);
}

// `iod` 0: every one.
void leave(const rtab_mac_info &key, std::pair<std::uint32_t, std::uint32_t> route, std::uint32_t iod)
{
    const auto found = s().mroutes.find(key_of(key));
    if (found == s().mroutes.end())
        return;
    mroute_entry &e = *found->second;
    if (iod == 0)
        e.iods.erase(route);
    else if (const auto at = e.iods.find(route); at != e.iods.end() && at->second.erase(iod) != 0 && at->second.empty())
        e.iods.erase(at);
    settle(e);
    if (e.iods.empty())
        s().mroutes.erase(found);
}

// ---- updates

struct element {
    rtab_mac_info key;
    std::uint8_t up, operation, nexthops;
    std::uint32_t code;
    rtab_addr nexthop;
};

element parse(const bytes &e)
{
    element parsed{};
    parsed.key.vlan = e.host32(RTAB_ELEMENT_VLAN);
    parsed.key.mac = e.mac(RTAB_ELEMENT_MAC);
    parsed.up = e.u8(RTAB_ELEMENT_UP);
    parsed.operation = e.u8(RTAB_ELEMENT_OPERATION);
    parsed.nexthops = e.u8(RTAB_ELEMENT_NEXTHOPS);
    parsed.code = e.host32(RTAB_ELEMENT_WORD);
    parsed.nexthop = e.host<rtab_addr>(RTAB_ELEMENT_NEXTHOP);
    return parsed;
}

bool learn(const element &e)
{
    if (is_group(e.key))                                     // nobody is learnt behind a group address
        return false;
    route_entry &r = entry(e.key);
    r.learnt = route_nexthop{e.nexthop, platform.own_service, true};
    r.learnt_seen = {platform.now.seconds + RTAB_DATA_LEAD_S, platform.now.nanoseconds};
    settle(r);
    return true;
}

void age(const element &e)
{
    route_entry *r = find(e.key);
    if (r == nullptr || !r->learnt || r->learnt->owner != platform.own_service)
        return;
    r->learnt.reset();
    settle(*r);
}

// An operator's next hop whose interface came up, perhaps under another iod, or went down.
void resolve(const element &e)
{
    route_entry &r = entry(e.key);
    std::erase_if(r.fixed, [&](const route_nexthop &n) {
        const bool replaced = e.up != 0 && same_address(n.address, e.nexthop) && !same(n.address, e.nexthop);
        const bool gone = e.up != 0 && e.nexthop.kind == KIND_IOD && n.address.kind == KIND_IOD &&
                          !same(n.address, e.nexthop) && !s().interfaces.contains(word(n.address, 0));
        return replaced || gone;
    });
    const auto known = std::ranges::find_if(r.fixed, [&](const route_nexthop &n) { return same(n.address, e.nexthop); });
    if (known != r.fixed.end())
        known->present = e.up != 0;
    else
        r.fixed.push_back({e.nexthop, platform.own_service, e.up != 0});
    settle(r);
}

void operator_add(const element &e)
{
    if (e.nexthops == 0)
        return;
    if (is_group(e.key)) {
        join(e.key, {0, 0}, word(e.nexthop, 0));
        return;
    }
    route_entry &r = entry(e.key);
    std::erase_if(r.fixed, [&](const route_nexthop &n) { return same(n.address, e.nexthop); });
    r.fixed.push_back({e.nexthop, platform.own_service, true});
    settle(r);
}

void operator_delete(const element &e)
{
    if (is_group(e.key)) {
        leave(e.key, {0, 0}, e.nexthops == 0 ? 0 : word(e.nexthop, 0));
        return;
    }
    route_entry *r = find(e.key);
    if (r == nullptr)
        return;
    std::erase_if(r->fixed, [&](const route_nexthop &n) { return e.nexthops == 0 || same(n.address, e.nexthop); });
    settle(*r);
}

bool apply_by_hand(const element &e)
{
    constexpr std::uint32_t CODE_LEARNT = 11, CODE_OPERATOR = 10;
    if (e.operation == corvane::RTAB_OPERATION_ADD && e.code == CODE_LEARNT)
        return learn(e);
    if (e.operation == corvane::RTAB_OPERATION_NONE)
        resolve(e);
    else if (e.operation == corvane::RTAB_OPERATION_DELETE)
        operator_delete(e);
    else if (e.code == CODE_OPERATOR)
        operator_add(e);
    else
        age(e);
    return true;
}

void apply_built_ip(const route_update &update)
{
    const std::pair route(update.buffer.host32(corvane::RTAB_HEADER_SOURCE),
                          update.buffer.host32(corvane::RTAB_HEADER_GROUP));
    for (std::size_t i = 0; i < update.count; ++i) {
        const element e = parse(update.element(i));
        const std::uint32_t iod = e.nexthops == 0 ? 0 : word(e.nexthop, 0);
        if (e.operation == corvane::RTAB_OPERATION_DELETE)
            leave(e.key, route, iod);
        else if (iod != 0)
            join(e.key, route, iod);
    }
}

bool leads_over_one_that_is_down(const route_nexthop &n)
{
    const std::uint32_t iod = word(n.address, 0);
    return (n.address.kind == KIND_IOD || (n.address.kind == KIND_NEXT_HOP && iod != 0)) && !intfmgr_is_if_up(iod);
}

// Of several next hops those over an interface that is down are left out until re-resolution names them.
void leave_out_those_down(const rtab_mac_info &key)
{
    route_entry *r = find(key);
    if (r == nullptr || std::ranges::all_of(r->fixed, leads_over_one_that_is_down))
        return;
    std::erase_if(r->fixed, leads_over_one_that_is_down);
    settle(*r);
}

void apply_built_mac(const route_update &update)
{
    bool first = true;
    for (std::size_t i = 0; i < update.count; ++i) {
        const element e = parse(update.element(i));
        if (e.operation == corvane::RTAB_OPERATION_DELETE) {
            operator_delete(e);
            continue;
        }
        if (first && !is_group(e.key))
            entry(e.key).fixed.clear();                      // an add names the whole set
        operator_add(e);
        first = false;
    }
    const element e = update.count != 0 ? parse(update.element(0)) : element{};
    if (e.operation == corvane::RTAB_OPERATION_ADD && !is_group(e.key))
        leave_out_those_down(e.key);
}

// False when nothing of it was taken.
bool apply(const route_update &update)
{
    if (update.buffer.host32(corvane::RTAB_HEADER_MARK) != corvane::RTAB_BUILT) {
        bool taken = false;
        for (std::size_t i = 0; i < update.count; ++i)
            taken = apply_by_hand(parse(update.element(i))) || taken;
        return taken;
    }
    if (update.buffer.host32(corvane::RTAB_HEADER_KIND) == corvane::RTAB_KIND_IP)
        apply_built_ip(update);
    else
        apply_built_mac(update);
    return update.count != 0;
}

} // namespace

route_key key_of(const rtab_mac_info &info)
{
    std::uint64_t mac = 0;
    std::memcpy(&mac, info.mac.data(), info.mac.size());
    return std::uint64_t{info.vlan & 0xFFFF} << 48 | __builtin_bswap64(mac) >> 16;
}

namespace {

// The table's own memory: what fails on purpose is the daemon's.
bitfield *create_oifs()
{
    const corvane::base_fault_hook hook = std::exchange(corvane::base_fault, nullptr);
    bitfield *made = bitfield_create({}, PORTS);
    corvane::base_fault = hook;
    return made;
}

} // namespace

mroute_entry::mroute_entry() : oifs(create_oifs()) { view.oifs = oifs; }
mroute_entry::~mroute_entry() { bitfield_destroy(oifs); }

void platform_object::route(const rtab_mac_info &key, std::vector<rtab_addr> nexthops, std::uint32_t owner)
{
    route_entry &r = entry(key);
    r.fixed.clear();
    for (const rtab_addr &nexthop : nexthops)
        r.fixed.push_back({nexthop, owner != 0 ? owner : own_service, true});
    settle(r);
}

void platform_object::route(const rtab_mac_info &key, const rtab_addr &nexthop, std::uint32_t owner)
{
    route(key, std::vector{nexthop}, owner);
}

void platform_object::learnt(const rtab_mac_info &key, std::uint32_t iod, std::uint32_t age_s, std::uint32_t owner)
{
    rtab_addr nexthop;
    nexthop.kind = KIND_IOD;
    std::memcpy(nexthop.body.data(), &iod, sizeof iod);
    route_entry &r = entry(key);
    r.learnt = route_nexthop{nexthop, owner != 0 ? owner : own_service, true};
    r.learnt_seen = {now.seconds - age_s, now.nanoseconds};
    settle(r);
}

void platform_object::mroute(const rtab_mac_info &key, std::initializer_list<std::uint32_t> iods)
{
    for (const std::uint32_t iod : iods)
        join(key, {0, 0}, iod);
}

void platform_object::unroute(const rtab_mac_info &key)
{
    drop_entry(key);
    state_->mroutes.erase(key_of(key));
}

std::size_t platform_object::routes() const
{
    return static_cast<std::size_t>(
        std::ranges::count_if(state_->routes, [](const auto &r) { return r.second->view.nexthop_count != 0; }));
}

const rtab_route *platform_object::find_route(const rtab_mac_info &key) const
{
    route_entry *r = find(key);
    return r == nullptr ? nullptr : visible(*r);
}

std::vector<std::uint32_t> platform_object::mroute_iods(const rtab_mac_info &key) const
{
    std::vector<std::uint32_t> iods;
    if (const rtab_mroute *found = rtab_get_mroute(key))
        for (std::uint32_t iod = found->oifs->next(0); iod != 0; iod = found->oifs->next(iod))
            iods.push_back(iod);
    return iods;
}

} // namespace fake

using namespace fake;

bool rtab_api_init(mbus_q queue, const char *name, std::uint32_t flags)
{
    note("rtab_api_init", queue, name, flags);
    if (refuse("rtab_api_init"))
        return false;
    platform.route_table_open = true;
    return true;
}

bool rtab_api_close()
{
    note("rtab_api_close");
    const bool was_open = platform.route_table_open;
    platform.route_table_open = false;
    return was_open;
}

void rtab_acquire_rdlock()
{
    note("rtab_acquire_rdlock");
    platform.route_lock_held = true;
}

void rtab_release_rdlock()
{
    note("rtab_release_rdlock");
    platform.route_lock_held = false;
}

const rtab_route *rtab_get_route(const rtab_mac_info &key, std::uint32_t flow, rtab_addr &nexthop)
{
    const rtab_route *found = platform.find_route(key);
    if (found != nullptr)
        nexthop = found->nexthop[flow % found->nexthop_count];
    return found;
}

const rtab_mroute *rtab_get_mroute(const rtab_mac_info &key)
{
    const auto &mroutes = platform.impl().mroutes;
    const auto found = mroutes.find(key_of(key));
    return found == mroutes.end() ? nullptr : &found->second->view;
}

const rtab_route *rtab_does_nh_exist(const rtab_mac_info &key, const rtab_addr &nexthop, bool &exists)
{
    const rtab_route *found = platform.find_route(key);
    exists = false;
    for (std::uint32_t i = 0; found != nullptr && i < found->nexthop_count; ++i)
        exists = exists || same(found->nexthop[i], nexthop);
    return found;
}

// The cursor holds the last key + 1.
const rtab_route *rtab_get_each_route(rtab_cursor &cursor)
{
    auto &routes = platform.impl().routes;
    for (auto at = routes.lower_bound(cursor.position); at != routes.end(); ++at) {
        cursor.position = at->first + 1;
        if (const rtab_route *found = visible(*at->second))
            return found;
    }
    return nullptr;
}

bool rtab_is_owner(const rtab_route &route) { return route.owner == platform.own_service; }
timestamp rtab_get_route_timestamp(const rtab_route &route) { return route.data_seen; }

int rtab_update_route(const void *buffer, std::uint16_t count, std::uint32_t length, std::uint32_t flags)
{
    note("rtab_update_route", count, length, flags);
    const std::size_t size = RTAB_UPDATE_HEADER + count * RTAB_UPDATE_STRIDE;
    const route_update update{bytes(std::span(static_cast<const std::uint8_t *>(buffer), size)), count, length, flags};
    platform.route_updates.push_back(update);
    if (refuse("rtab_update_route"))
        return 0;
    return apply(update) ? 1 : 0;
}
