// Route table client: lookups in shared memory, updates to corvaned.
#include "rtab.h"
#include "svcmgr.h"

#include "client.h"
#include "service_retry.h"
#include "../wire/rtab.h"
#include "../wire/rtab_update.h"

#include <algorithm>
#include <atomic>
#include <ctime>
#include <mutex>
#include <utility>
#include <vector>

using namespace corvane;

namespace {

// Null while the client is closed.
std::atomic<const rtab_shared *> table{nullptr};
std::atomic<std::uint32_t> own_service{0};

std::mutex open_mutex;
std::uint32_t open_count = 0;                                // the test command opens a second time

// Updates of a client whose opening failed: it opens again later, and its owner does not say twice what the operator
// configured meanwhile. Guarded by the open mutex.
struct kept_update {
    std::vector<std::uint8_t> header, elements;
};
constexpr std::size_t KEPT_MAX = 65536;
bool opening_failed = false;
std::vector<kept_update> kept;

struct group_answer {
    std::uint64_t words[RTAB_OIF_WORDS] = {};
    rtab_mroute route;
};

// Answers, valid until the thread's next call of the same function.
constinit thread_local rtab_route answer_get{}, answer_exists{}, answer_each{};
constinit thread_local group_answer answer_group{};

// A tick of the coarse clock is precise enough for "data is seen all the time", and costs a few nanoseconds.
timestamp present()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return {static_cast<std::uint32_t>(now.tv_sec), static_cast<std::uint32_t>(now.tv_nsec)};
}

// `also(slot)` takes more of the record that is found, as part of the same copy.
template <class Also> bool find(const rtab_mac_info &key, rtab_route &out, Also also)
{
    const rtab_shared *shared = table.load(std::memory_order_acquire);
    if (shared == nullptr || key.vlan > RTAB_VLAN_MAX)
        return false;
    const auto copy = [&](const rtab_route_slot &slot) {
        rtab_route_load(shared->routes, slot, out);
        also(shared->routes, slot);
    };
    if (!rtab_find(shared->routes, shared->seed.load(std::memory_order_relaxed), rtab_key(key), copy))
        return false;
    out.key = key;
    if (out.is_static != 0)
        out.data_seen = present();
    return true;
}

bool send(byte_view header, byte_view elements)
{
    const auto count = static_cast<std::uint32_t>(elements.size() / RTAB_UPDATE_STRIDE);
    const reply answer = call(RTAB_UPDATE, byte_writer().raw(header).put(count).raw(elements).view());
    if (answer.error != 0)
        return false;
    return byte_reader(answer.data).get<std::uint32_t>() < count;
}

bool send_all(byte_view header, byte_view elements)
{
    bool taken = true;
    while (!elements.empty()) {
        const std::size_t share = std::min(elements.size(), RTAB_UPDATE_ELEMENTS_MAX * RTAB_UPDATE_STRIDE);
        taken = send(header, elements.first(share)) && taken;
        elements = elements.subspan(share);
    }
    return taken;
}

bool keep(byte_view header, byte_view elements)
{
    const std::lock_guard guard(open_mutex);
    if (!opening_failed || kept.size() == KEPT_MAX)
        return false;
    kept.push_back({{header.begin(), header.end()}, {elements.begin(), elements.end()}});
    return true;
}

} // namespace

bool rtab_api_init(mbus_q /*queue*/, const char *name, std::uint32_t flags)
{
    const reply answer = call(RTAB_OPEN, byte_writer().put(flags).text(name == nullptr ? "" : name).view());
    const auto *shared = static_cast<const rtab_shared *>(map_shared(RTAB_SHM, sizeof(rtab_shared), false));
    std::unique_lock lock(open_mutex);
    if (answer.error != 0 || shared == nullptr) {
        opening_failed = open_count == 0;
        service_failed(SVC_RTAB);
        return false;
    }
    ++open_count;
    opening_failed = false;
    own_service.store(byte_reader(answer.data).get<std::uint32_t>());
    table.store(shared, std::memory_order_release);
    const auto updates = std::exchange(kept, {});
    lock.unlock();
    for (const kept_update &update : updates)
        (void)send_all(update.header, update.elements);
    return true;
}

bool rtab_api_close()
{
    const std::lock_guard guard(open_mutex);
    if (open_count == 0)
        return false;
    if (--open_count == 0)
        table.store(nullptr, std::memory_order_release);
    return true;
}

// Every answer is a copy of one state of its route, so there is nothing that a reader could hold up.
void rtab_acquire_rdlock() {}
void rtab_release_rdlock() {}

const rtab_route *rtab_get_route(const rtab_mac_info &key, std::uint32_t flow, rtab_addr &nexthop)
{
    rtab_route &route = answer_get;
    const auto choose = [&](const rtab_routes &routes, const rtab_route_slot &slot) {
        const std::uint32_t count = route.nexthop_count;
        rtab_nexthop_load(routes, slot, count <= 1 ? 0 : flow % count, nexthop);
    };
    return find(key, route, choose) ? &route : nullptr;
}

const rtab_mroute *rtab_get_mroute(const rtab_mac_info &key)
{
    // The answer's fields lead to each other, so every thread has to tie them at its own place.
    thread_local bitfield oifs(answer_group.words, RTAB_OIF_BITS);
    group_answer &found = answer_group;
    const rtab_shared *shared = table.load(std::memory_order_acquire);
    if (shared == nullptr || key.vlan > RTAB_VLAN_MAX)
        return nullptr;
    const std::uint64_t seed = shared->seed.load(std::memory_order_relaxed);
    const auto copy = [&](const rtab_mcast_slot &slot) {
        for (std::size_t i = 0; i < RTAB_OIF_WORDS; ++i)
            found.words[i] = slot.word[RTAB_MCAST_OIFS + i].load(std::memory_order_acquire);
    };
    if (!rtab_find(shared->mcasts, seed, rtab_key(key), copy))
        return nullptr;
    found.route.key = key;
    found.route.oifs = &oifs;
    return &found.route;
}

const rtab_route *rtab_does_nh_exist(const rtab_mac_info &key, const rtab_addr &nexthop, bool &exists)
{
    rtab_route &route = answer_exists;
    exists = false;
    if (!find(key, route, [](const rtab_routes &, const rtab_route_slot &) {}))
        return nullptr;
    const auto end = route.nexthop.begin() + route.nexthop_count;
    exists = std::any_of(route.nexthop.begin(), end, [&](const rtab_addr &n) { return rtab_addr_equal(n, nexthop); });
    return &route;
}

const rtab_route *rtab_get_each_route(rtab_cursor &cursor)
{
    const rtab_shared *shared = table.load(std::memory_order_acquire);
    if (shared == nullptr || !rtab_walk(shared->routes, cursor.position, answer_each))
        return nullptr;
    if (answer_each.is_static != 0)
        answer_each.data_seen = present();
    return &answer_each;
}

bool rtab_is_owner(const rtab_route &route) { return route.owner == own_service.load(std::memory_order_relaxed); }

timestamp rtab_get_route_timestamp(const rtab_route &route)
{
    return route.is_static != 0 ? present() : route.data_seen;
}

// The length argument is some clients' 4 bytes too long and others' too short; the count says what there is.
int rtab_update_route(const void *buffer, std::uint16_t count, std::uint32_t /*length*/, std::uint32_t /*flags*/)
{
    if (buffer == nullptr || count == 0)
        return 0;
    const auto *bytes = static_cast<const std::uint8_t *>(buffer);
    const byte_view header{bytes, RTAB_UPDATE_HEADER};
    const byte_view elements{bytes + RTAB_UPDATE_HEADER, count * RTAB_UPDATE_STRIDE};
    const bool taken = table.load() == nullptr ? keep(header, elements) : send_all(header, elements);
    return taken ? 1 : 0;
}
