// Time stamps on the monotonic clock.
#pragma once

#include <cstddef>
#include <cstdint>

struct timestamp {
    std::uint32_t seconds = 0;
    std::uint32_t nanoseconds = 0;
    bool operator==(const timestamp &) const = default;
};

[[nodiscard]] int vemo_sys_mclock_get(timestamp &now);          // 0, or -1 when the clock cannot be read
[[nodiscard]] bool timestamp_expired(const timestamp &when);    // `when` is not in the future
[[nodiscard]] timestamp timestamp_elapsed(const timestamp &since);
// "00:01:23" up to a day, "1d02h" up to a week, "2w3d" beyond; `out` holds at least 16 bytes.
const char *timestamp_elapsed_str(const timestamp &since, char *out, std::size_t size);
