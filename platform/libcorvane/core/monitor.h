// The thread "corvane-net": follows the kernel's notifications and the interface table, and keeps a coarse clock.
#pragma once

#include <atomic>
#include <cstdint>

namespace corvane {

// Starts the thread once; later calls do nothing.
void net_monitor_start();

// Seconds since the thread started.
extern std::atomic<std::uint32_t> net_seconds;

} // namespace corvane
