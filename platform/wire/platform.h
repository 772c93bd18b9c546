// Settings of the platform as a whole, in shared memory so that they are live in every process: <root>/shm/platform.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace corvane {

inline constexpr const char *PLATFORM_SHM = "platform";

enum class chassis_kind : std::uint32_t { FERRIX = 0, GENERIC = 1 };       // 0 is what a new page says

struct platform_page {
    std::atomic<std::uint32_t> made;                  // PLATFORM_PAGE_MADE once the values below are set
    std::atomic<std::uint32_t> chassis;               // chassis_kind
    std::atomic<std::uint32_t> log_level;             // of the facility lum, 0 to 7
    std::atomic<std::uint32_t> core_peers_known_only; // 1: packets from unknown edges are refused
    std::atomic<std::uint32_t> database_failed;       // 1: the database takes no writes
    std::atomic<std::uint32_t> sched_realtime;        // 1: clients ask for real-time scheduling
    std::atomic<std::uint32_t> instance;              // counts starts of corvaned on this root
    std::uint32_t reserved[25];
};
static_assert(sizeof(platform_page) == 128);
inline constexpr std::uint32_t PLATFORM_PAGE_MADE = 0x43565031, PLATFORM_LOG_LEVEL_DEFAULT = 6;

inline constexpr const char *DROPS_SHM = "drops";

// How clients hold their process locks, written by them: what a thread waited for at most.
struct lock_page {
    std::atomic<std::uint64_t> longest_hold_ns;       // of a hold at whose end somebody waited; a reader may clear it
    std::atomic<std::uint64_t> waited_for;            // such holds
    std::uint64_t reserved[6];
};
static_assert(sizeof(lock_page) == 64);
inline constexpr const char *LOCKS_SHM = "locks";

} // namespace corvane
