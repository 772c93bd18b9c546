// Process lock: the one cooperative lock of a process. A thread runs process code only while it holds the lock; it
// gives it up around blocking calls and at yield points inside long walks. Fair: a yield lets the longest waiting
// thread in. Cheap when nobody waits.
//
// Batches: after a receive that took several frames or datagrams from the kernel at once, the library keeps the lock
// across the next plock_before_yield / plock_after_yield pairs of that thread as long as its next receive is known
// not to block. Output collected meanwhile is flushed when the lock is really given up.
#pragma once

#include "thread_annotations.h"

#include <cstdint>

struct CORVANE_CAPABILITY("process lock") plock_lock {};
extern plock_lock plock_process_lock;

struct plock_proc_attr {
    std::uint32_t service = 0;   // number under which the process is known to the service manager
    std::uint32_t slice_us = 0;  // time slice after which plock_sched_may_yield yields; 0 = the library's default
};

[[nodiscard]] bool plock_proc_attr_init(plock_proc_attr &attr);
[[nodiscard]] bool plock_init_proc(const plock_proc_attr &attr);

void plock_acquire_process_lock() CORVANE_ACQUIRE(plock_process_lock);
void plock_release_process_lock() CORVANE_RELEASE(plock_process_lock);

// Around a call that may block.
void plock_before_yield() CORVANE_RELEASE(plock_process_lock);
void plock_after_yield() CORVANE_ACQUIRE(plock_process_lock);

// Lets every thread that waits for the lock have it once, then takes it back.
void plock_sched_yield() CORVANE_REQUIRES(plock_process_lock);
// Yields as plock_sched_yield does when the caller's time slice is used up and somebody waits. Returns true when the
// slice was used up, so a walk over a table must have noted where it stands before it asks.
bool plock_sched_may_yield() CORVANE_REQUIRES(plock_process_lock);

// Tells the analysis that a callback runs with the lock held; checked in builds with assertions.
void plock_assert_held() CORVANE_ASSERT_HELD(plock_process_lock);

// Gives the lock up for the life of the scope.
class CORVANE_SCOPED plock_yield_scope {
public:
    plock_yield_scope() CORVANE_RELEASE(plock_process_lock) { plock_before_yield(); }
    ~plock_yield_scope() CORVANE_RELEASE() CORVANE_NO_TSA { plock_after_yield(); }
    plock_yield_scope(const plock_yield_scope &) = delete;
    plock_yield_scope &operator=(const plock_yield_scope &) = delete;
};
