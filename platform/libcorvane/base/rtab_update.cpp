// Building of route updates in a caller's buffer: one element a next hop of the one route.
#include "../../wire/rtab_update.h"

#include <cstring>

using namespace corvane;

namespace {

template <class T> void put(rtab_update &update, std::size_t at, T value)
{
    std::memcpy(update.buffer + at, &value, sizeof value);
}

std::size_t last_element(const rtab_update &update)
{
    return RTAB_UPDATE_HEADER + (update.records - 1) * RTAB_UPDATE_STRIDE;
}

// Appends an element; null when the buffer is full or was never begun.
std::uint8_t *append(rtab_update &update)
{
    if (update.buffer == nullptr || update.used + RTAB_UPDATE_STRIDE > update.size)
        return nullptr;
    std::uint8_t *element = update.buffer + update.used;
    std::memset(element, 0, RTAB_UPDATE_STRIDE);
    update.used += RTAB_UPDATE_STRIDE;
    ++update.records;
    return element;
}

bool add_route(rtab_update &update, const rtab_mac_info &key, std::uint32_t add, std::uint32_t kind)
{
    if (append(update) == nullptr)
        return false;
    put(update, RTAB_HEADER_KIND, kind);
    const std::size_t at = last_element(update);
    put(update, at + RTAB_ELEMENT_VLAN, key.vlan);
    std::memcpy(update.buffer + at + RTAB_ELEMENT_MAC, key.mac.data(), key.mac.size());
    put(update, at + RTAB_ELEMENT_OPERATION, add != 0 ? RTAB_OPERATION_ADD : RTAB_OPERATION_DELETE);
    put(update, at + RTAB_ELEMENT_LENGTH, static_cast<std::uint16_t>(RTAB_ELEMENT_NEXTHOP));
    return true;
}

} // namespace

bool rtab_begin_route_update(rtab_update &update, std::uint8_t *buffer, std::size_t size)
{
    update = {};
    if (buffer == nullptr || size < RTAB_UPDATE_HEADER)
        return false;
    update.buffer = buffer;
    update.size = size;
    update.used = RTAB_UPDATE_HEADER;
    std::memset(buffer, 0, RTAB_UPDATE_HEADER);
    put(update, RTAB_HEADER_MARK, RTAB_BUILT);
    return true;
}

bool rtab_add_mac_to_buffer(rtab_update &update, const rtab_mac_info &key, std::uint32_t /*a*/, std::uint32_t /*b*/,
                            std::uint32_t add)
{
    return add_route(update, key, add, RTAB_KIND_MAC);
}

bool rtab_add_ip_to_buffer(rtab_update &update, const rtab_mac_info &key, std::uint32_t source, std::uint32_t group,
                           std::uint32_t /*a*/, std::uint32_t /*b*/, std::uint32_t add)
{
    if (!add_route(update, key, add, RTAB_KIND_IP))
        return false;
    put(update, RTAB_HEADER_SOURCE, source);
    put(update, RTAB_HEADER_GROUP, group);
    return true;
}

bool rtab_add_nexthop_to_route(rtab_update &update, const rtab_addr &nexthop)
{
    if (update.records == 0)
        return false;
    std::size_t at = last_element(update);
    if (update.buffer[at + RTAB_ELEMENT_NEXTHOPS] != 0) {    // the route's further next hops: elements of the same key
        const std::size_t first = at;
        if (append(update) == nullptr)
            return false;
        at = last_element(update);
        std::memcpy(update.buffer + at, update.buffer + first, RTAB_ELEMENT_NEXTHOP);
    }
    put(update, at + RTAB_ELEMENT_NEXTHOPS, std::uint8_t{1});
    put(update, at + RTAB_ELEMENT_LENGTH, static_cast<std::uint16_t>(RTAB_UPDATE_STRIDE));
    std::memcpy(update.buffer + at + RTAB_ELEMENT_NEXTHOP, &nexthop, sizeof nexthop);
    return true;
}

bool rtab_add_iod_nexthop_to_route(rtab_update &update, std::uint32_t iod)
{
    rtab_addr nexthop;
    nexthop.kind = 1;
    std::memcpy(nexthop.body.data(), &iod, sizeof iod);
    return rtab_add_nexthop_to_route(update, nexthop);
}

int rtab_end_route_update(rtab_update &update, std::uint32_t flags)
{
    if (update.records == 0)
        return 0;
    return rtab_update_route(update.buffer, static_cast<std::uint16_t>(update.records),
                             static_cast<std::uint32_t>(update.used), flags);
}
