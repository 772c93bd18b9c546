// Addresses of the edges that tunnelled packets may come from, in shared memory: <root>/shm/core-peers. corvaned is the
// writer; the core's receive looks up while `core_peers_known_only` of the platform's settings is set.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace corvane {

inline constexpr const char *PEERS_SHM = "core-peers";
inline constexpr std::uint32_t PEERS_MAX = 16384, PEERS_BUCKETS = 32768;

// An IPv6 address, or an IPv4 one as it is mapped into IPv6. Zero is nobody's address: an unused bucket.
struct peer_address {
    std::uint64_t high = 0, low = 0;
    auto operator<=>(const peer_address &) const = default;
};
inline peer_address peer_ipv4(std::uint32_t address_host) { return {0, 0xFFFF00000000u | address_host}; }
inline peer_address peer_ipv6(const std::uint8_t *address)
{
    peer_address out;
    std::memcpy(&out.high, address, 8);
    std::memcpy(&out.low, address + 8, 8);
    return out;
}

inline std::uint32_t peer_bucket(const peer_address &address)
{
    std::uint64_t x = (address.high * 0x9E3779B97F4A7C15u ^ address.low) * 0xD6E8FEB86659FD93u;
    return static_cast<std::uint32_t>(x >> 32 ^ x >> 49) % PEERS_BUCKETS;
}

struct peer_table {
    struct {
        std::atomic<std::uint64_t> high, low;
    } bucket[PEERS_BUCKETS];
};

// The writer fills the table that is not in use and then counts `version` up, whose lowest bit names the one in use. A
// reader that was held up while both were rewritten sees that the version moved on, and looks again.
struct peers_page {
    std::atomic<std::uint64_t> version;
    std::uint64_t reserved[7];
    peer_table table[2];
};

inline bool peers_contain(const peers_page &page, const peer_address &address)
{
    for (;;) {
        const std::uint64_t version = page.version.load(std::memory_order_acquire);
        const peer_table &table = page.table[version & 1];
        bool found = false;
        std::uint32_t at = peer_bucket(address);
        for (std::uint32_t step = 0; step < PEERS_BUCKETS && !found; ++step, at = (at + 1) % PEERS_BUCKETS) {
            const peer_address here{table.bucket[at].high.load(std::memory_order_acquire),
                                    table.bucket[at].low.load(std::memory_order_acquire)};
            if (here == peer_address{})
                break;
            found = here == address;
        }
        if (page.version.load(std::memory_order_relaxed) == version)
            return found;
    }
}

// The writer's side. `Addresses` without repetition, at most PEERS_MAX of them.
template <class Addresses> void peers_publish(peers_page &page, const Addresses &addresses)
{
    const std::uint64_t version = page.version.load(std::memory_order_relaxed) + 1;
    peer_table &table = page.table[version & 1];
    for (auto &bucket : table.bucket) {
        bucket.high.store(0, std::memory_order_relaxed);
        bucket.low.store(0, std::memory_order_relaxed);
    }
    for (const peer_address &address : addresses) {
        std::uint32_t at = peer_bucket(address);
        while (table.bucket[at].high.load(std::memory_order_relaxed) != 0 ||
               table.bucket[at].low.load(std::memory_order_relaxed) != 0)
            at = (at + 1) % PEERS_BUCKETS;
        table.bucket[at].high.store(address.high, std::memory_order_relaxed);
        table.bucket[at].low.store(address.low, std::memory_order_relaxed);
    }
    page.version.store(version, std::memory_order_release);
}

} // namespace corvane
