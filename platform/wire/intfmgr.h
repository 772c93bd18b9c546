// The interface table in shared memory: corvaned is its only writer, every client reads it without a lock or a system
// call. One slot an iod; names and ifindexes are found through two small hash indexes.
#pragma once

#include "methods.h"

#include "../api/intfmgr.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace corvane {

inline constexpr const char *INTFMGR_SHM = "interfaces";
inline constexpr std::uint32_t INTFMGR_SAP = 5;              // source of the interface manager's notifications

inline constexpr std::uint32_t
    INTFMGR_ANNOUNCE = method(METHOD_INTFMGR, 1);   // - -> -: announces every interface, created and L3 state, once more

// Bits of the change mask besides those of the client interface.
inline constexpr std::uint32_t INTFMGR_CHANGE_SWITCHPORT = 36, INTFMGR_CHANGE_MTU = 37, INTFMGR_CHANGE_CONTEXT = 38,
                               INTFMGR_CHANGE_MAC = 39;

// Flags of a slot.
inline constexpr std::uint32_t
    INTERFACE_PRESENT = 1,      // the interface exists now; a slot without it only keeps the name's iod
    INTERFACE_UP = 2,           // administratively up, and a device has its link
    INTERFACE_SWITCHPORT = 4,
    INTERFACE_OVERLAY = 8,      // Overlay<N>
    INTERFACE_TUNNEL = 16;      // any tunnel, an overlay's included

struct interface_slot {
    std::atomic<std::uint32_t> sequence;                     // odd while name, addresses and MAC change
    std::atomic<std::uint32_t> flags;
    std::atomic<std::uint32_t> ifindex;                      // 0 for an interface that is gone
    std::atomic<std::uint32_t> context;                      // L3 context: the table of the device's VRF, 0 the default
    std::atomic<std::uint32_t> ipv4;                         // host byte order, 0 = none
    std::atomic<std::uint32_t> mtu;
    std::atomic<std::uint64_t> ipv6[2];                      // network order, all zero = none
    std::atomic<std::uint64_t> mac;                          // first 6 bytes
    std::atomic<std::uint64_t> name[13];                     // zero-terminated
    std::uint64_t reserved[5];
};
static_assert(sizeof(interface_slot) == 192);
static_assert(INTFMGR_NAME_SIZE <= sizeof(interface_slot::name));

inline constexpr std::uint32_t INTERFACE_SLOTS = INTFMGR_IOD_MAX + 1;
// Overlay interfaces are no devices of the kernel: theirs are far above any that it gives.
inline constexpr std::uint32_t INTERFACE_OVERLAY_IFINDEX = 0x40000000;
inline constexpr std::uint32_t INTERFACE_INDEX_SIZE = 2048;  // more than twice the slots: probes stay short

struct interface_table {
    std::atomic<std::uint32_t> magic;
    std::atomic<std::uint32_t> generation;                   // counts changes of any kind
    std::atomic<std::uint32_t> index_sequence;               // odd while the indexes are rebuilt
    std::uint32_t reserved[13];
    std::atomic<std::uint16_t> by_name[INTERFACE_INDEX_SIZE];      // iods, open addressing, 0 = free
    std::atomic<std::uint16_t> by_ifindex[INTERFACE_INDEX_SIZE];
    interface_slot slot[INTERFACE_SLOTS];
};
inline constexpr std::uint32_t INTERFACE_TABLE_MAGIC = 0x49465431;

struct interface_record {                                    // consistent copy of a slot
    std::uint32_t flags = 0, ifindex = 0, context = 0, ipv4 = 0, mtu = 0;
    std::array<std::uint8_t, 16> ipv6{};
    std::array<std::uint8_t, 6> mac{};
    char name[sizeof(interface_slot::name)] = {};
};

inline std::uint32_t interface_name_hash(std::string_view name)
{
    std::uint32_t hash = 2166136261u;
    for (const char c : name)
        hash = (hash ^ static_cast<std::uint8_t>(c)) * 16777619u;
    return (hash ^ hash >> 15) % INTERFACE_INDEX_SIZE;
}
inline std::uint32_t interface_ifindex_hash(std::uint32_t ifindex)
{
    return (ifindex * 2654435761u >> 16) % INTERFACE_INDEX_SIZE;
}

inline std::uint32_t interface_flags(const interface_table &table, std::uint32_t iod)
{
    return iod < INTERFACE_SLOTS ? table.slot[iod].flags.load(std::memory_order_acquire) : 0;
}

// A writer that died in the middle leaves its sequence odd: readers give up after this many looks instead of waiting.
inline constexpr int INTERFACE_READ_ATTEMPTS = 200;

// False: no such slot, or its writer stopped half way.
inline bool interface_read(const interface_table &table, std::uint32_t iod, interface_record &out)
{
    if (iod >= INTERFACE_SLOTS)
        return false;
    const interface_slot &slot = table.slot[iod];
    for (int attempt = 0; attempt < INTERFACE_READ_ATTEMPTS; ++attempt) {
        const std::uint32_t before = slot.sequence.load(std::memory_order_acquire);
        if ((before & 1) != 0)
            continue;
        out.flags = slot.flags.load(std::memory_order_acquire);
        out.ifindex = slot.ifindex.load(std::memory_order_acquire);
        out.context = slot.context.load(std::memory_order_acquire);
        out.ipv4 = slot.ipv4.load(std::memory_order_acquire);
        out.mtu = slot.mtu.load(std::memory_order_acquire);
        for (std::size_t i = 0; i < 2; ++i) {
            const std::uint64_t word = slot.ipv6[i].load(std::memory_order_acquire);
            std::memcpy(out.ipv6.data() + 8 * i, &word, 8);
        }
        const std::uint64_t mac = slot.mac.load(std::memory_order_acquire);
        std::memcpy(out.mac.data(), &mac, out.mac.size());
        for (std::size_t i = 0; i < std::size(slot.name); ++i) {
            const std::uint64_t word = slot.name[i].load(std::memory_order_acquire);
            std::memcpy(out.name + 8 * i, &word, 8);
        }
        out.name[sizeof out.name - 1] = 0;
        if (slot.sequence.load(std::memory_order_relaxed) == before)
            return true;
    }
    return false;
}

namespace interface_index {

// Follows the probes from `start` until `matches` takes an iod; all slots one by one when the writer stopped half way
// through a rebuild of the index.
template <class Matches>
std::uint32_t find(const interface_table &table, const std::atomic<std::uint16_t> (&index)[INTERFACE_INDEX_SIZE],
                   std::uint32_t start, Matches matches)
{
    for (int attempt = 0; attempt < INTERFACE_READ_ATTEMPTS; ++attempt) {
        const std::uint32_t before = table.index_sequence.load(std::memory_order_acquire);
        if ((before & 1) != 0)
            continue;
        std::uint32_t found = 0;
        for (std::uint32_t probe = 0; probe < INTERFACE_INDEX_SIZE; ++probe) {
            const std::uint32_t iod = index[(start + probe) % INTERFACE_INDEX_SIZE].load(std::memory_order_acquire);
            if (iod == 0 || matches(iod)) {
                found = iod;
                break;
            }
        }
        if (table.index_sequence.load(std::memory_order_relaxed) == before)
            return found;
    }
    for (std::uint32_t iod = 1; iod < INTERFACE_SLOTS; ++iod)
        if (matches(iod))
            return iod;
    return 0;
}

} // namespace interface_index

// iod of the interface of that name that exists now, 0 = none.
inline std::uint32_t interface_by_name(const interface_table &table, std::string_view name)
{
    if (name.empty() || name.size() >= INTFMGR_NAME_SIZE)
        return 0;
    return interface_index::find(table, table.by_name, interface_name_hash(name), [&](std::uint32_t iod) {
        interface_record record;
        return (interface_flags(table, iod) & INTERFACE_PRESENT) != 0 && interface_read(table, iod, record) &&
               name == record.name;
    });
}

inline std::uint32_t interface_by_ifindex(const interface_table &table, std::uint32_t ifindex)
{
    if (ifindex == 0)
        return 0;
    return interface_index::find(table, table.by_ifindex, interface_ifindex_hash(ifindex), [&](std::uint32_t iod) {
        return iod < INTERFACE_SLOTS && table.slot[iod].ifindex.load(std::memory_order_acquire) == ifindex;
    });
}

} // namespace corvane
