// The route table in shared memory: corvaned is its only writer; every client maps it and looks up without a lock, a
// system call or an allocation.
//
// How a reader stays right without a lock: a record is never changed where it stands, except for its data time. The
// writer fills an unused slot, links it into its bucket's chain with one store, and unlinks the old slot with another.
// A slot's sequence is odd while it is filled and changes whenever it is, so a reader whose slot was given to another
// record notices and starts again; the bucket's head carries a count of unlinkings, by which a reader that found
// nothing knows that it saw one state of the chain. A writer that dies at any point leaves whole chains behind.
#pragma once

#include "methods.h"

#include "../api/rtab.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace corvane {

inline constexpr const char *RTAB_SHM = "rtab";

inline constexpr std::uint32_t
    RTAB_OPEN = method(METHOD_RTAB, 1),      // u32 flags, text name -> u32 service number of the caller
    RTAB_UPDATE = method(METHOD_RTAB, 2),    // 68 bytes of header, u32 count, count x 52 bytes -> u32 refused elements
    RTAB_DUMP = method(METHOD_RTAB, 3),      // u32 position, 0 first -> u32 next position, 0 at the end; text: lines
    RTAB_SET = method(METHOD_RTAB, 4),       // u32 vlan, 6 bytes MAC, rtab_addr -> -: as another process would
    RTAB_UNSET = method(METHOD_RTAB, 5);     // u32 vlan, 6 bytes MAC -> -: ENOENT when there was none

inline constexpr std::uint32_t RTAB_OPERATOR_SERVICE = 900;  // owner of what RTAB_SET installs
inline constexpr std::uint32_t RTAB_UPDATE_ELEMENTS_MAX = 2000;    // in one call; longer updates take several

inline constexpr std::uint32_t RTAB_BUCKETS = 1u << 17, RTAB_ROUTES_MAX = 128 * 1024,
                               RTAB_SLOTS = RTAB_ROUTES_MAX + 4096;
inline constexpr std::uint32_t RTAB_MCAST_BUCKETS = 1u << 13, RTAB_MCAST_MAX = 16 * 1024,
                               RTAB_MCAST_SLOTS = RTAB_MCAST_MAX + 1024;
inline constexpr std::uint32_t RTAB_SOURCE_SLOTS = 32 * 1024;
inline constexpr std::uint32_t RTAB_VLAN_MAX = 4095, RTAB_OIF_WORDS = 12, RTAB_OIF_BITS = RTAB_OIF_WORDS * 64;

// Words of a slot. `next` is a slot number + 1, 0 at the end of the chain.
template <std::size_t Words, std::size_t Size> struct alignas(64) rtab_slot {
    std::atomic<std::uint32_t> sequence;
    std::atomic<std::uint32_t> next;
    std::atomic<std::uint64_t> word[Words];
    static_assert(8 + 8 * Words <= Size && Size % 64 == 0);
};

// Word 0 of every record: VLAN << 48 | MAC, most significant byte first. Word 1: see rtab_about.
inline std::uint64_t rtab_key(const rtab_mac_info &key)
{
    std::uint64_t mac = 0;
    for (const std::uint8_t byte : key.mac)
        mac = mac << 8 | byte;
    return static_cast<std::uint64_t>(key.vlan) << 48 | mac;
}
inline rtab_mac_info rtab_key_info(std::uint64_t key)
{
    rtab_mac_info info;
    info.vlan = static_cast<std::uint32_t>(key >> 48);
    for (std::size_t i = 0; i < 6; ++i)
        info.mac[i] = static_cast<std::uint8_t>(key >> 8 * (5 - i));
    return info;
}

struct rtab_about {
    std::uint32_t owner = 0;
    std::uint8_t nexthop_count = 0;
    bool is_static = false;
    bool live = false;                                       // linked into a chain, or about to be
};
inline std::uint64_t rtab_about_word(const rtab_about &about)
{
    return about.owner | static_cast<std::uint64_t>(about.nexthop_count) << 32 |
           static_cast<std::uint64_t>(about.is_static) << 40 | static_cast<std::uint64_t>(about.live) << 41;
}
inline rtab_about rtab_about_of(std::uint64_t word)
{
    return {static_cast<std::uint32_t>(word), static_cast<std::uint8_t>(word >> 32), (word >> 40 & 1) != 0,
            (word >> 41 & 1) != 0};
}

// A MAC route: key, about, data time, then four words a next hop. The first next hop fills the slot's cache line;
// further ones stand in an array beside the slots, so that a table of ordinary routes stays small in the caches.
inline constexpr std::size_t RTAB_ROUTE_TIME = 2, RTAB_ROUTE_NEXTHOP = 3, RTAB_NEXTHOP_WORDS = 4;
inline constexpr std::size_t RTAB_ROUTE_WORDS = RTAB_ROUTE_NEXTHOP + RTAB_NEXTHOP_WORDS * RTAB_MAX_NEXTHOPS;
inline constexpr std::size_t RTAB_ROUTE_SLOT_WORDS = RTAB_ROUTE_NEXTHOP + RTAB_NEXTHOP_WORDS;
using rtab_route_slot = rtab_slot<RTAB_ROUTE_SLOT_WORDS, 64>;
static_assert(sizeof(rtab_route_slot) == 64);

// The interfaces that get a group's frames: key, about, 768 bits. One record a key, whatever sources there are.
inline constexpr std::size_t RTAB_MCAST_OIFS = 2, RTAB_MCAST_WORDS = RTAB_MCAST_OIFS + RTAB_OIF_WORDS;
using rtab_mcast_slot = rtab_slot<RTAB_MCAST_WORDS, 128>;
static_assert(sizeof(rtab_mcast_slot) == 128);

// What the records above are folded from, read by the writer only: key, about, source << 32 | group, 768 bits.
inline constexpr std::size_t RTAB_SOURCE_ADDRESSES = 2, RTAB_SOURCE_OIFS = 3,
                             RTAB_SOURCE_WORDS = RTAB_SOURCE_OIFS + RTAB_OIF_WORDS;
using rtab_source_slot = rtab_slot<RTAB_SOURCE_WORDS, 128>;
static_assert(sizeof(rtab_source_slot) == 128);

// A bucket's head: first slot + 1 in the low half, count of unlinkings in the high half.
using rtab_bucket = std::atomic<std::uint64_t>;
inline std::uint32_t rtab_bucket_first(std::uint64_t head) { return static_cast<std::uint32_t>(head); }
inline std::uint32_t rtab_bucket_version(std::uint64_t head) { return static_cast<std::uint32_t>(head >> 32); }

template <class Slot, std::uint32_t Buckets, std::uint32_t Slots> struct rtab_hash {
    using slot_type = Slot;
    static constexpr std::uint32_t buckets = Buckets, slots = Slots;
    std::atomic<std::uint32_t> used;                         // slots from this number on were never filled
    std::uint32_t reserved[15];
    rtab_bucket bucket[Buckets];
    Slot slot[Slots];

    std::atomic<std::uint64_t> &word(std::uint32_t number, std::size_t at) { return slot[number].word[at]; }
};
using rtab_mcasts = rtab_hash<rtab_mcast_slot, RTAB_MCAST_BUCKETS, RTAB_MCAST_SLOTS>;

// The words beyond a slot's own belong to the record like the others: the slot's sequence guards them.
struct rtab_routes : rtab_hash<rtab_route_slot, RTAB_BUCKETS, RTAB_SLOTS> {
    struct further {
        std::atomic<std::uint64_t> word[RTAB_ROUTE_WORDS - RTAB_ROUTE_SLOT_WORDS];
    };
    further more[RTAB_SLOTS];

    std::atomic<std::uint64_t> &word(std::uint32_t number, std::size_t at)
    {
        return at < RTAB_ROUTE_SLOT_WORDS ? slot[number].word[at] : more[number].word[at - RTAB_ROUTE_SLOT_WORDS];
    }
    [[nodiscard]] const std::atomic<std::uint64_t> *nexthop_words(const rtab_route_slot &of, std::size_t n) const
    {
        if (n == 0)
            return of.word + RTAB_ROUTE_NEXTHOP;
        return more[&of - slot].word + RTAB_NEXTHOP_WORDS * (n - 1);
    }
};

// Pages that were never written take no memory, and slots are taken from the front: what is resident follows the
// number of routes, not the capacity.
struct rtab_shared {
    std::atomic<std::uint64_t> magic;
    std::atomic<std::uint64_t> seed;                         // of the hash, so that nobody can aim at one bucket
    std::atomic<std::uint64_t> boot[2];                      // boot the data times belong to
    std::atomic<std::uint64_t> ended;                        // the writer ended in order: routes do not outlive it
    std::atomic<std::uint32_t> sources_used;
    std::uint32_t reserved[5];
    rtab_source_slot source[RTAB_SOURCE_SLOTS];
    rtab_mcasts mcasts;
    rtab_routes routes;
};
inline constexpr std::uint64_t RTAB_MAGIC = 0x4352544142303032;

template <class Hash> std::uint32_t rtab_bucket_of(std::uint64_t key, std::uint64_t seed)
{
    std::uint64_t x = (key ^ seed) * 0x9E3779B97F4A7C15u;
    x = (x ^ x >> 32) * 0xD6E8FEB86659FD93u;
    return static_cast<std::uint32_t>(x >> 32) % Hash::buckets;
}

// A reader starts again when the writer took its slot away; so often only while the writer never pauses.
inline constexpr int RTAB_READ_ATTEMPTS = 1000;

// Finds the first record of `key` and has `copy(slot)` take what it wants with acquire loads; the copy counts only if
// the slot was not refilled meanwhile (then it is called again). False: there is none.
template <class Hash, class Copy> bool rtab_find(const Hash &hash, std::uint64_t seed, std::uint64_t key, Copy copy)
{
    const rtab_bucket &bucket = hash.bucket[rtab_bucket_of<Hash>(key, seed)];
    for (int attempt = 0; attempt < RTAB_READ_ATTEMPTS; ++attempt) {
        const std::uint64_t head = bucket.load(std::memory_order_acquire);
        std::uint32_t at = rtab_bucket_first(head);
        bool disturbed = false;
        for (std::uint32_t step = 0; at != 0 && !disturbed; ++step) {
            if (at > Hash::slots || step > Hash::slots) {
                disturbed = true;
                break;
            }
            const auto &slot = hash.slot[at - 1];
            const std::uint32_t before = slot.sequence.load(std::memory_order_acquire);
            const bool found = slot.word[0].load(std::memory_order_acquire) == key;
            const std::uint32_t next = slot.next.load(std::memory_order_acquire);
            if (found)
                copy(slot);
            disturbed = (before & 1) != 0 || slot.sequence.load(std::memory_order_relaxed) != before;
            if (found && !disturbed)
                return true;
            at = next;
        }
        if (!disturbed && rtab_bucket_version(bucket.load(std::memory_order_relaxed)) == rtab_bucket_version(head))
            return false;
    }
    return false;
}

// Word by word as they are loaded: what is stored in pieces and read back in one must wait until the stores are done,
// and with them for every cache miss before.
inline void rtab_nexthop_load(const rtab_routes &routes, const rtab_route_slot &slot, std::size_t n, rtab_addr &out)
{
    const std::atomic<std::uint64_t> *from = routes.nexthop_words(slot, n);
    auto *to = reinterpret_cast<std::uint8_t *>(&out);
    for (std::size_t i = 0; i + 1 < RTAB_NEXTHOP_WORDS; ++i) {
        const std::uint64_t word = from[i].load(std::memory_order_acquire);
        std::memcpy(to + 8 * i, &word, 8);
    }
    const auto last = static_cast<std::uint32_t>(from[RTAB_NEXTHOP_WORDS - 1].load(std::memory_order_acquire));
    std::memcpy(to + 8 * (RTAB_NEXTHOP_WORDS - 1), &last, sizeof last);
}
static_assert(sizeof(rtab_addr) == 8 * (RTAB_NEXTHOP_WORDS - 1) + 4);

// Data times as they stand in a record: seconds << 32 | nanoseconds.
inline std::uint64_t rtab_time_word(std::uint64_t ns) { return (ns / 1'000'000'000) << 32 | ns % 1'000'000'000; }

// All but the key. An operator's route carries data time 0; its time is the reader's present.
inline void rtab_route_load(const rtab_routes &routes, const rtab_route_slot &slot, rtab_route &out)
{
    const rtab_about about = rtab_about_of(slot.word[1].load(std::memory_order_acquire));
    out.owner = about.owner;
    out.is_static = about.is_static ? 1 : 0;
    const std::uint64_t time = slot.word[RTAB_ROUTE_TIME].load(std::memory_order_acquire);
    out.data_seen = {static_cast<std::uint32_t>(time >> 32), static_cast<std::uint32_t>(time)};
    out.nexthop_count = about.nexthop_count < RTAB_MAX_NEXTHOPS ? about.nexthop_count : RTAB_MAX_NEXTHOPS;
    for (std::size_t i = 0; i < out.nexthop_count; ++i)
        rtab_nexthop_load(routes, slot, i, out.nexthop[i]);
}

// The next live record at or behind slot number `position`, which is moved behind it. Records that are replaced during
// a walk may be seen twice or not at all; all others exactly once.
inline bool rtab_walk(const rtab_routes &routes, std::uint64_t &position, rtab_route &out)
{
    const std::uint64_t used = routes.used.load(std::memory_order_acquire);
    while (position < used && position < rtab_routes::slots) {
        const rtab_route_slot &slot = routes.slot[position++];
        for (int attempt = 0; attempt < RTAB_READ_ATTEMPTS; ++attempt) {
            const std::uint32_t before = slot.sequence.load(std::memory_order_acquire);
            const bool live = rtab_about_of(slot.word[1].load(std::memory_order_acquire)).live;
            if (live) {
                out.key = rtab_key_info(slot.word[0].load(std::memory_order_acquire));
                rtab_route_load(routes, slot, out);
            }
            if ((before & 1) != 0 || slot.sequence.load(std::memory_order_relaxed) != before)
                continue;
            if (live)
                return true;
            break;
        }
    }
    return false;
}

// Equality of tagged addresses: what the kind uses, nothing else; an unknown kind is equal to nothing.
inline bool rtab_addr_equal(const rtab_addr &a, const rtab_addr &b)
{
    const auto same = [&](std::size_t at, std::size_t length) {
        return std::memcmp(a.body.data() + at, b.body.data() + at, length) == 0;
    };
    if (a.kind != b.kind)
        return false;
    switch (a.kind) {
    case 1:
    case 2:
    case 4:
        return same(0, 4);
    case 3:
        return same(0, 10);
    case 5:
        return same(0, 16);
    case 6:
        return same(0, 4) && same(4, 1) && same(8, a.body[4] == 4 ? 4 : 16);
    default:
        return false;
    }
}

} // namespace corvane
