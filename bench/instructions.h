// Instructions and allocations of a piece of work, counted exactly and on any machine.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace bench {

// User-space instructions of one call of `work`, the mean of `calls` of them. They are counted by letting a forked
// copy of this process run them step by step, so neither other processes nor hardware counters matter. Negative when
// the system does not let a process trace its child.
[[nodiscard]] double instructions_per_call(const std::function<void()> &work, std::size_t calls = 64);

// Calls of malloc, calloc and realloc by this process so far.
[[nodiscard]] std::uint64_t allocations();

} // namespace bench
