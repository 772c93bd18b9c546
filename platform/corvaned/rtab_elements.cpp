// What the elements of a route update mean.
#include "rtab_elements.h"

#include "../wire/rtab_update.h"

#include <algorithm>
#include <cstring>

using namespace corvane;

namespace corvaned {
namespace {

using result = rtab_table::result;

struct element {
    std::uint64_t key = 0;
    std::uint8_t up = 0, operation = 0;
    bool has_nexthop = false;
    std::uint32_t word = 0;
    rtab_addr nexthop;
};

template <class T> T value_at(byte_view bytes, std::size_t at) { return byte_reader(bytes.subspan(at)).get<T>(); }

bool read_element(byte_view bytes, element &out)
{
    out.up = bytes[RTAB_ELEMENT_UP];
    out.operation = bytes[RTAB_ELEMENT_OPERATION];
    out.has_nexthop = bytes[RTAB_ELEMENT_NEXTHOPS] != 0;
    out.word = value_at<std::uint32_t>(bytes, RTAB_ELEMENT_WORD);
    out.nexthop = value_at<rtab_addr>(bytes, RTAB_ELEMENT_NEXTHOP);
    return rtab_read_key(bytes, out.key) && (!out.has_nexthop || rtab_is_nexthop(out.nexthop));
}

std::uint32_t iod_of(const rtab_addr &nexthop)
{
    return nexthop.kind == 1 || nexthop.kind == 6 ? value_at<std::uint32_t>(nexthop.body, 0) : 0;
}

// An operator's next hop comes or goes: one of a unicast MAC's route, or an interface that gets a group's frames.
result operator_adds(rtab_table &table, std::uint32_t owner, const element &e)
{
    return rtab_is_group(e.key) ? table.join_group({e.key, owner, 0, 0}, iod_of(e.nexthop))
                                : table.join(owner, e.key, e.nexthop);
}
result operator_withdraws(rtab_table &table, std::uint32_t owner, const element &e)
{
    if (rtab_is_group(e.key))
        return e.has_nexthop ? table.leave_group({e.key, owner, 0, 0}, iod_of(e.nexthop))
                             : table.withdraw_group({e.key, owner, 0, 0});
    return e.has_nexthop ? table.leave(owner, e.key, e.nexthop) : table.withdraw(owner, e.key);
}

// What stood for the same next hop while its interface had another iod.
bool is_predecessor(const rtab_addr &old, const rtab_addr &fresh, const rtab_caller &caller)
{
    const bool same_end = old.kind == 1 || std::equal(old.body.begin() + 4, old.body.end(), fresh.body.begin() + 4);
    return old.kind == fresh.kind && (old.kind == 1 || old.kind == 6) && same_end && iod_of(old) != iod_of(fresh) &&
           !caller.interface_exists(iod_of(old));
}

// A next hop that is absent may be gone already: that is no refusal.
result resolve(rtab_table &table, const rtab_caller &caller, const element &e)
{
    if (!e.has_nexthop)
        return result::REFUSED;
    if (e.up == 0) {
        (void)operator_withdraws(table, caller.owner, e);
        return result::DONE;
    }
    const result done = operator_adds(table, caller.owner, e);
    for (const rtab_addr &old : table.operator_nexthops(caller.owner, e.key))
        if (is_predecessor(old, e.nexthop, caller))
            (void)table.leave(caller.owner, e.key, old);
    return done;
}

constexpr std::uint32_t WORD_OPERATOR = 10;

result apply_plain(rtab_table &table, const rtab_caller &caller, const element &e)
{
    const std::uint32_t owner = caller.owner;
    switch (e.operation) {
    case RTAB_OPERATION_NONE:
        return resolve(table, caller, e);
    case RTAB_OPERATION_ADD:
        if (e.word == WORD_OPERATOR)
            return e.has_nexthop ? operator_adds(table, owner, e) : result::REFUSED;
        if (rtab_is_group(e.key))                            // nobody is learnt behind a group address
            return result::REFUSED;
        return e.has_nexthop ? table.learn(owner, e.key, e.nexthop, caller.now_ns) : table.withdraw_learnt(owner, e.key);
    case RTAB_OPERATION_DELETE:
        return operator_withdraws(table, owner, e);
    default:
        return result::REFUSED;
    }
}

// Whoever adds a next hop names the others again, also those whose interface is down: flows that fall on one of them
// would be lost while there is another way. Re-resolution adds them when their interface comes up.
void leave_out_those_down(std::vector<rtab_addr> &nexthops, const rtab_caller &caller)
{
    const auto is_down = [&](const rtab_addr &nexthop) {
        const bool by_interface = nexthop.kind == 1 || (nexthop.kind == 6 && iod_of(nexthop) != 0);
        return by_interface && !caller.interface_up(iod_of(nexthop));
    };
    if (!std::ranges::all_of(nexthops, is_down))
        std::erase_if(nexthops, is_down);
}

// The next hops of one unicast route, which an add replaces.
std::uint32_t replace_nexthops(rtab_table &table, const rtab_caller &caller, const std::vector<element> &elements)
{
    std::vector<rtab_addr> nexthops;
    for (const element &e : elements)
        if (e.has_nexthop && e.key == elements.front().key)
            nexthops.push_back(e.nexthop);
    const std::size_t meant = nexthops.size();
    leave_out_those_down(nexthops, caller);
    const bool done = table.replace(caller.owner, elements.front().key, nexthops) == result::DONE;
    return static_cast<std::uint32_t>(done ? elements.size() - meant : elements.size());
}

result apply_to_source(rtab_table &table, const rtab_source_key &source, const element &e)
{
    if (e.operation == RTAB_OPERATION_ADD)
        return table.join_group(source, e.has_nexthop ? iod_of(e.nexthop) : 0);
    return e.has_nexthop ? table.leave_group(source, iod_of(e.nexthop)) : table.withdraw_group(source);
}

std::uint32_t apply_built(rtab_table &table, const rtab_caller &caller, byte_view header,
                          const std::vector<element> &elements)
{
    const std::uint32_t owner = caller.owner;
    const bool of_ip = value_at<std::uint32_t>(header, RTAB_HEADER_KIND) == RTAB_KIND_IP;
    if (!of_ip && !rtab_is_group(elements.front().key) && elements.front().operation == RTAB_OPERATION_ADD)
        return replace_nexthops(table, caller, elements);
    const auto source = value_at<std::uint32_t>(header, RTAB_HEADER_SOURCE);
    const auto group = value_at<std::uint32_t>(header, RTAB_HEADER_GROUP);
    std::uint32_t refused = 0;
    for (const element &e : elements) {
        result done = result::REFUSED;
        if (of_ip)
            done = apply_to_source(table, {e.key, owner, source, group}, e);
        else if (e.operation == RTAB_OPERATION_ADD)
            done = operator_adds(table, owner, e);
        else
            done = operator_withdraws(table, owner, e);
        refused += done == result::DONE ? 0 : 1;
    }
    return refused;
}

} // namespace

bool rtab_read_key(byte_view bytes, std::uint64_t &key)
{
    rtab_mac_info info;
    byte_reader in(bytes);
    info.vlan = in.get<std::uint32_t>();
    info.mac = in.get<decltype(info.mac)>();
    key = rtab_key(info);
    return in.ok() && info.vlan <= RTAB_VLAN_MAX;
}

bool rtab_is_group(std::uint64_t key)
{
    constexpr std::uint64_t BROADCAST = 0xFFFFFFFFFFFF;
    return (key >> 40 & 1) != 0 && (key & BROADCAST) != BROADCAST;
}

bool rtab_is_nexthop(const rtab_addr &nexthop)
{
    if (nexthop.kind == 6)
        return nexthop.body[4] == 4 || nexthop.body[4] == 5;
    return nexthop.kind >= 1 && nexthop.kind <= 5;
}

std::uint32_t rtab_apply(rtab_table &table, const rtab_caller &caller, byte_view header, byte_view elements,
                         std::uint32_t count)
{
    const bool built = value_at<std::uint32_t>(header, RTAB_HEADER_MARK) == RTAB_BUILT;
    std::uint32_t refused = 0;
    std::vector<element> route;
    for (std::uint32_t n = 0; n < count; ++n) {
        element e;
        if ((n + 1) * RTAB_UPDATE_STRIDE > elements.size() ||
            !read_element(elements.subspan(n * RTAB_UPDATE_STRIDE, RTAB_UPDATE_STRIDE), e))
            ++refused;
        else if (built)
            route.push_back(e);
        else
            refused += apply_plain(table, caller, e) == result::DONE ? 0 : 1;
    }
    return route.empty() ? refused : refused + apply_built(table, caller, header, route);
}

} // namespace corvaned
