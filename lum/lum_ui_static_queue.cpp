// The queues of static MAC routes and static tunnels. Routes are found through an index by MAC besides, since a
// configuration may hold a hundred thousand of them. Command thread and main thread, under the process lock.
#include "lum_ui.h"

#include "lum_inlines.h"

#include "memacct.h"

#include <cstring>
#include <new>

rqueue lum_staticQ, lum_static_tunnelQ;

namespace
{

// Each place holds the routes that fall on it, in queue order.
struct index_place {
    lum_static_entry *first = nullptr, *last = nullptr;
};
constexpr std::size_t INDEX_PLACES = 8192;
std::array<index_place, INDEX_PLACES> route_index;

index_place &place_of(const lum_mac_info &mac)
{
    std::uint64_t bits = mac.vlan;
    for (const std::uint8_t byte : mac.mac)
        bits = bits << 8 | byte;
    bits *= 0x9E3779B97F4A7C15;                  // spreads runs of addresses
    return route_index[bits >> 51];
}
static_assert(INDEX_PLACES == std::size_t{1} << (64 - 51));

void add_to_index(lum_static_entry *entry)
{
    index_place &place = place_of(entry->mac);
    (place.last != nullptr ? place.last->chain : place.first) = entry;
    place.last = entry;
}

void remove_from_index(lum_static_entry *entry)
{
    index_place &place = place_of(entry->mac);
    lum_static_entry *before = nullptr;
    for (lum_static_entry *at = place.first; at != entry; at = at->chain)
        before = at;
    (before != nullptr ? before->chain : place.first) = entry->chain;
    if (place.last == entry)
        place.last = before;
}

lum_static_entry *skip_to(lum_static_entry *entry, const lum_mac_info &mac)
{
    while (entry != nullptr && entry->mac != mac)
        entry = entry->chain;
    return entry;
}

lum_static_entry *append_entry(rqueue &queue, const lum_mac_info &mac, const lum_addr &next_hop, const char *if_name)
{
    void *memory = memacct_alloc(LUM_SERVICE, LUM_MEM_TYPE_STATIC, sizeof(lum_static_entry));
    if (memory == nullptr)
        return nullptr;
    lum_static_entry *entry = new (memory) lum_static_entry{};
    entry->mac = mac;
    entry->next_hop = next_hop;
    if (if_name != nullptr)
        std::memcpy(entry->if_name, if_name, strnlen(if_name, sizeof entry->if_name));
    renqueue(queue, &entry->link);
    return entry;
}

void free_entry(rqueue &queue, lum_static_entry *entry)
{
    runqueue(queue, &entry->link);
    memacct_free(LUM_SERVICE, LUM_MEM_TYPE_STATIC, entry);
}

// As the next hops were entered: the iod is that of the interface's name at the time.
bool same_but_for_iod(const lum_addr &a, const lum_addr &b)
{
    if (a.kind != b.kind)
        return false;
    if (a.kind != LUM_ADDR_NEXT_HOP)
        return a.kind == LUM_ADDR_IOD || a.kind == LUM_ADDR_EMPTY;
    lum_addr other = b;
    lum_addr_set_word(other, 0, lum_next_hop_iod(a));
    return lum_addr_equal(a, other);
}

} // namespace

lum_static_entry *lum_first_static_route(const lum_mac_info &mac) { return skip_to(place_of(mac).first, mac); }
lum_static_entry *lum_next_static_route(const lum_static_entry *entry) { return skip_to(entry->chain, entry->mac); }

lum_static_entry *lum_get_static_route(const lum_mac_info &mac, const lum_addr &next_hop)
{
    lum_static_entry *entry = lum_first_static_route(mac);
    while (entry != nullptr && !lum_addr_equal(entry->next_hop, next_hop))
        entry = lum_next_static_route(entry);
    return entry;
}

std::uint32_t lum_get_static_ecmp(const lum_mac_info &mac)
{
    std::uint32_t count = 0;
    for (const lum_static_entry *entry = lum_first_static_route(mac); entry != nullptr;
         entry = lum_next_static_route(entry))
        ++count;
    return count;
}

lum_static_entry *lum_add_static_route(const lum_mac_info &mac, const lum_addr &next_hop, const char *if_name)
{
    lum_static_entry *entry = append_entry(lum_staticQ, mac, next_hop, if_name);
    if (entry != nullptr)
        add_to_index(entry);
    return entry;
}

void lum_delete_static_route(const lum_mac_info &mac, const lum_addr &next_hop)
{
    if (lum_static_entry *entry = lum_get_static_route(mac, next_hop); entry != nullptr)
        lum_remove_static_route(entry);
}

void lum_remove_static_route(lum_static_entry *entry)
{
    remove_from_index(entry);
    free_entry(lum_staticQ, entry);
}

bool lum_static_entry_has_name(const lum_static_entry &entry, const char *if_name)
{
    return std::strncmp(entry.if_name, if_name, sizeof entry.if_name) == 0;
}

lum_static_entry *lum_get_static_route_as_entered(const lum_mac_info &mac, const lum_addr &next_hop,
                                                  const char *if_name)
{
    if (lum_static_entry *entry = lum_get_static_route(mac, next_hop); entry != nullptr)
        return entry;
    lum_static_entry *entry = lum_first_static_route(mac);
    while (entry != nullptr && !(same_but_for_iod(entry->next_hop, next_hop) &&
                                 lum_static_entry_has_name(*entry, if_name != nullptr ? if_name : "")))
        entry = lum_next_static_route(entry);
    return entry;
}

lum_static_entry *lum_get_static_tunnel(const lum_addr &address)
{
    for (rqueue_link *link = lum_static_tunnelQ.head; link != nullptr; link = link->next) {
        auto *entry = reinterpret_cast<lum_static_entry *>(link);
        if (lum_addr_equal(entry->next_hop, address))
            return entry;
    }
    return nullptr;
}

lum_static_entry *lum_add_static_tunnel(const lum_addr &address, const char *if_name)
{
    return append_entry(lum_static_tunnelQ, {}, address, if_name);
}

void lum_delete_static_tunnel(const lum_addr &address)
{
    if (lum_static_entry *entry = lum_get_static_tunnel(address); entry != nullptr)
        free_entry(lum_static_tunnelQ, entry);
}
