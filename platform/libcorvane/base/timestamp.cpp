// How long ago, in words.
#include "timestamp.h"

#include <cstdio>

const char *timestamp_elapsed_str(const timestamp &since, char *out, std::size_t size)
{
    constexpr std::uint32_t MINUTE = 60, HOUR = 60 * MINUTE, DAY = 24 * HOUR, WEEK = 7 * DAY;
    const std::uint32_t s = timestamp_elapsed(since).seconds;
    if (s < DAY)
        std::snprintf(out, size, "%02u:%02u:%02u", s / HOUR, s % HOUR / MINUTE, s % MINUTE);
    else if (s < WEEK)
        std::snprintf(out, size, "%ud%02uh", s / DAY, s % DAY / HOUR);
    else
        std::snprintf(out, size, "%uw%ud", s / WEEK, s % WEEK / DAY);
    return out;
}
