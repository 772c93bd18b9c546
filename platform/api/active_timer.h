// Timers: callbacks run on the timer library's thread, holding the process lock. One shot; a callback starts its
// timer again when it wants to.
#pragma once

#include <cstdint>

using active_timer = std::uint32_t;                           // handle; 0 = none
using active_timer_callback = void (*)(void *argument);

[[nodiscard]] bool active_timer_init(std::uint32_t flags);
[[nodiscard]] std::uint8_t active_timer_new_set_init(std::uint32_t size);           // set id, 0 = failed
[[nodiscard]] active_timer active_timer_create(std::uint8_t set, std::uint32_t type, active_timer_callback callback,
                                               void *argument);
// Starts, or starts again. All zero: expires at once. The three units add up.
void active_timer_start(active_timer timer, std::uint32_t seconds, std::uint32_t milliseconds,
                        std::uint32_t microseconds, std::uint32_t flags);
// After a cancel or delete that was called with the process lock held, the callback does not run any more.
void active_timer_cancel(active_timer timer);
void active_timer_delete(active_timer timer);
