// Batches under the process lock, for the receive code of the packet service and of the UDP sockets.
#pragma once

#include <cstdint>

namespace corvane {

inline constexpr std::uint32_t PLOCK_BATCH_MAX = 64;

// Of the calling thread: its next `pairs` plock_before_yield / plock_after_yield pairs keep the lock, because the
// receives between them are answered from memory. Called by a receive that took pairs + 1 messages at once; cut to
// PLOCK_BATCH_MAX. A pair that is in progress is not affected.
void plock_batch_begin(std::uint32_t pairs);
// Pairs left; a receive that runs dry early sets it to 0 with plock_batch_end.
[[nodiscard]] std::uint32_t plock_batch_left();
void plock_batch_end();
// True between a plock_before_yield that kept the lock and its plock_after_yield: the receive must not block.
[[nodiscard]] bool plock_batch_kept();

// Called on each thread that really gives the lock up, right after it did: sends what this thread collected. Hooks
// stay for the life of the process; at most 8. Cheap when there is nothing to send: a look at a thread-local count.
void plock_on_release(void (*hook)());

// Where holds that somebody waited for are noted from now on; a page of the process itself before. Holds that nobody
// waits for cost nothing.
struct lock_page;
void plock_report_to(lock_page *page);

// The thread has held the lock longer than its time slice.
[[nodiscard]] bool plock_slice_used();

} // namespace corvane
