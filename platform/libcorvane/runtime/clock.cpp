// Time stamps on the monotonic clock.
#include "timestamp.h"

#include <ctime>

int vemo_sys_mclock_get(timestamp &now)
{
    timespec spec{};
    if (clock_gettime(CLOCK_MONOTONIC, &spec) != 0)
        return -1;
    now = {static_cast<std::uint32_t>(spec.tv_sec), static_cast<std::uint32_t>(spec.tv_nsec)};
    return 0;
}

bool timestamp_expired(const timestamp &when)
{
    timestamp now;
    if (vemo_sys_mclock_get(now) != 0)
        return false;
    return now.seconds != when.seconds ? now.seconds > when.seconds : now.nanoseconds >= when.nanoseconds;
}

timestamp timestamp_elapsed(const timestamp &since)
{
    timestamp now;
    if (vemo_sys_mclock_get(now) != 0 || !timestamp_expired(since))
        return {};
    timestamp result{now.seconds - since.seconds, now.nanoseconds - since.nanoseconds};
    if (now.nanoseconds < since.nanoseconds) {
        --result.seconds;
        result.nanoseconds += 1'000'000'000u;
    }
    return result;
}
