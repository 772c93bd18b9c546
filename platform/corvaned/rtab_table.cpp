// The route table's writer: MAC routes. The multicast part is in rtab_groups.cpp.
#include "rtab_table.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>

using namespace corvane;

namespace corvaned {
namespace {

using route_words = std::array<std::uint64_t, RTAB_ROUTE_WORDS>;

std::span<const std::uint64_t> build(route_words &words, std::uint64_t key, rtab_about about, std::uint64_t time,
                                     std::span<const rtab_addr> nexthops)
{
    about.nexthop_count = static_cast<std::uint8_t>(nexthops.size());
    about.live = true;
    words[0] = key;
    words[1] = rtab_about_word(about);
    words[RTAB_ROUTE_TIME] = time;
    std::size_t at = RTAB_ROUTE_NEXTHOP;
    for (const rtab_addr &nexthop : nexthops) {
        words[at + RTAB_NEXTHOP_WORDS - 1] = 0;
        std::memcpy(words.data() + at, &nexthop, sizeof nexthop);
        at += RTAB_NEXTHOP_WORDS;
    }
    return std::span(words).first(at);
}

std::vector<rtab_addr> nexthops_of(const rtab_routes &routes, const rtab_route_slot &slot)
{
    std::vector<rtab_addr> result(std::min<std::size_t>(rtab_slot_about(slot).nexthop_count, RTAB_MAX_NEXTHOPS));
    for (std::size_t i = 0; i < result.size(); ++i)
        rtab_nexthop_load(routes, slot, i, result[i]);
    return result;
}

bool leads_over(const rtab_addr &nexthop, std::uint32_t iod)
{
    std::uint32_t by = 0;
    std::memcpy(&by, nexthop.body.data(), sizeof by);
    return (nexthop.kind == 1 || nexthop.kind == 6) && by == iod;
}

bool same_route(const rtab_route_slot &a, const rtab_route_slot &b)
{
    const rtab_about x = rtab_slot_about(a), y = rtab_slot_about(b);
    return a.word[0].load(std::memory_order_relaxed) == b.word[0].load(std::memory_order_relaxed) &&
           x.owner == y.owner && x.is_static == y.is_static;
}

} // namespace

rtab_table::rtab_table(rtab_shared &shared)
    : shared_(shared), routes_(shared.routes, shared.seed), mcasts_(shared.mcasts, shared.seed)
{
}

bool rtab_table::usable(const boot_id &boot) const
{
    return shared_.magic.load() == RTAB_MAGIC && shared_.ended.load() == 0 && shared_.boot[0].load() == boot[0] &&
           shared_.boot[1].load() == boot[1];
}

void rtab_table::clear(const boot_id &boot, std::uint64_t seed)
{
    // Giving the pages back keeps what was never used from becoming resident; private memory (tests) refuses it.
    if (madvise(&shared_, sizeof shared_, MADV_REMOVE) != 0)
        std::memset(static_cast<void *>(&shared_), 0, sizeof shared_);
    shared_.seed.store(seed);
    shared_.boot[0].store(boot[0]);
    shared_.boot[1].store(boot[1]);
    shared_.magic.store(RTAB_MAGIC);
}

void rtab_table::adopt(const boot_id &boot, std::uint64_t seed, std::uint64_t now_ns)
{
    if (!usable(boot))
        clear(boot, seed);
    adopt_routes(now_ns);
    adopt_sources();
}

void rtab_table::end() { shared_.ended.store(1); }

void rtab_table::adopt_routes(std::uint64_t now_ns)
{
    routes_.adopt([&](rtab_route_slot &slot, const std::vector<std::uint32_t> &earlier) {
        const rtab_about about = rtab_slot_about(slot);
        const bool sound = (slot.sequence.load() & 1) == 0 && slot.word[0].load() >> 48 <= RTAB_VLAN_MAX &&
                           about.nexthop_count >= 1 && about.nexthop_count <= RTAB_MAX_NEXTHOPS;
        // A writer that died while it moved a record leaves two of them; the first is the newer.
        const bool twice = std::ranges::any_of(
            earlier, [&](std::uint32_t other) { return same_route(routes_.at(other), slot); });
        if (sound && slot.word[RTAB_ROUTE_TIME].load() > rtab_time_word(now_ns))
            slot.word[RTAB_ROUTE_TIME].store(rtab_time_word(now_ns));
        return sound && !twice;
    });
}

rtab_table::routes_writer::place rtab_table::find(std::uint32_t owner, std::uint64_t key, bool is_static)
{
    return routes_.find(key, [&](const rtab_route_slot &slot) {
        const rtab_about about = rtab_slot_about(slot);
        return about.owner == owner && about.is_static == is_static;
    });
}

// Where a learnt route goes in: behind the operators' routes of the key, before the other learnt ones.
std::uint32_t rtab_table::learnt_place(std::uint64_t key)
{
    std::uint32_t before = RTAB_NO_SLOT, place = RTAB_NO_SLOT;
    for (std::uint32_t slot = routes_.first(key); slot != RTAB_NO_SLOT; slot = routes_.next(slot)) {
        if (routes_.key_of(slot) == key) {
            if (!rtab_slot_about(routes_.at(slot)).is_static)
                return before;
            place = slot;
        }
        before = slot;
    }
    return place;
}

rtab_table::result rtab_table::learn(std::uint32_t owner, std::uint64_t key, const rtab_addr &nexthop,
                                     std::uint64_t now_ns)
{
    const auto old = find(owner, key, false);
    const bool stands_first = old.slot == RTAB_NO_SLOT || learnt_place(key) == old.before;
    if (old.slot != RTAB_NO_SLOT && stands_first) {
        rtab_route_slot &slot = routes_.at(old.slot);
        if (rtab_addr_equal(nexthops_of(shared_.routes, slot).front(), nexthop)) {
            slot.word[RTAB_ROUTE_TIME].store(rtab_time_word(now_ns), std::memory_order_release);
            return result::DONE;
        }
    } else if (old.slot == RTAB_NO_SLOT && routes_.live() >= RTAB_ROUTES_MAX) {
        return result::FULL;
    }
    route_words words;
    const auto record = build(words, key, {.owner = owner}, rtab_time_word(now_ns), {&nexthop, 1});
    if (old.slot != RTAB_NO_SLOT && stands_first)
        return routes_.replace(old, record) ? result::DONE : result::FULL;
    if (!routes_.insert(learnt_place(key), record))
        return result::FULL;
    if (old.slot != RTAB_NO_SLOT)                            // another owner's stood before it: it moved to the front
        routes_.remove(routes_.find(key, [&](const rtab_route_slot &slot) { return &slot == &routes_.at(old.slot); }));
    return result::DONE;
}

rtab_table::result rtab_table::withdraw_learnt(std::uint32_t owner, std::uint64_t key)
{
    const auto old = find(owner, key, false);
    if (old.slot == RTAB_NO_SLOT)
        return result::REFUSED;
    routes_.remove(old);
    return result::DONE;
}

rtab_table::result rtab_table::put_static(std::uint32_t owner, std::uint64_t key, std::span<const rtab_addr> nexthops)
{
    const auto old = find(owner, key, true);
    if (nexthops.empty()) {
        if (old.slot == RTAB_NO_SLOT)
            return result::REFUSED;
        routes_.remove(old);
        return result::DONE;
    }
    route_words words;
    const auto record = build(words, key, {.owner = owner, .is_static = true}, 0, nexthops);
    if (old.slot != RTAB_NO_SLOT)
        return routes_.replace(old, record) ? result::DONE : result::FULL;
    if (routes_.live() >= RTAB_ROUTES_MAX || !routes_.insert(RTAB_NO_SLOT, record))
        return result::FULL;
    return result::DONE;
}

rtab_table::result rtab_table::replace(std::uint32_t owner, std::uint64_t key, std::span<const rtab_addr> nexthops)
{
    std::vector<rtab_addr> distinct;
    for (const rtab_addr &nexthop : nexthops)
        if (std::ranges::none_of(distinct, [&](const rtab_addr &n) { return rtab_addr_equal(n, nexthop); }))
            distinct.push_back(nexthop);
    if (distinct.size() > RTAB_MAX_NEXTHOPS)
        return result::FULL;
    return distinct.empty() ? result::REFUSED : put_static(owner, key, distinct);
}

rtab_table::result rtab_table::join(std::uint32_t owner, std::uint64_t key, const rtab_addr &nexthop)
{
    std::vector<rtab_addr> nexthops = operator_nexthops(owner, key);
    if (std::ranges::any_of(nexthops, [&](const rtab_addr &n) { return rtab_addr_equal(n, nexthop); }))
        return result::DONE;
    if (nexthops.size() == RTAB_MAX_NEXTHOPS)
        return result::FULL;
    nexthops.push_back(nexthop);
    return put_static(owner, key, nexthops);
}

rtab_table::result rtab_table::leave(std::uint32_t owner, std::uint64_t key, const rtab_addr &nexthop)
{
    std::vector<rtab_addr> nexthops = operator_nexthops(owner, key);
    if (std::erase_if(nexthops, [&](const rtab_addr &n) { return rtab_addr_equal(n, nexthop); }) == 0)
        return result::REFUSED;
    return put_static(owner, key, nexthops);
}

rtab_table::result rtab_table::withdraw(std::uint32_t owner, std::uint64_t key) { return put_static(owner, key, {}); }

std::vector<rtab_addr> rtab_table::operator_nexthops(std::uint32_t owner, std::uint64_t key)
{
    const auto route = find(owner, key, true);
    return route.slot == RTAB_NO_SLOT ? std::vector<rtab_addr>{} : nexthops_of(shared_.routes, routes_.at(route.slot));
}

void rtab_table::forget_iod(std::uint32_t iod)
{
    forget_in_routes(iod);
    forget_in_groups(iod);
}

void rtab_table::forget_in_routes(std::uint32_t iod)
{
    for (std::uint32_t number = 0; number < routes_.used(); ++number) {
        rtab_route_slot &slot = routes_.at(number);
        const rtab_about about = rtab_slot_about(slot);
        if (!about.live)
            continue;
        std::vector<rtab_addr> nexthops = nexthops_of(shared_.routes, slot);
        if (std::erase_if(nexthops, [&](const rtab_addr &n) { return leads_over(n, iod); }) == 0)
            continue;
        const std::uint64_t key = routes_.key_of(number);
        if (about.is_static)
            put_static(about.owner, key, nexthops);
        else
            withdraw_learnt(about.owner, key);
    }
}

} // namespace corvaned
