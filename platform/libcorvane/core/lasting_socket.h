// A socket for the life of the process, made when it is first needed.
#pragma once

#include <atomic>
#include <mutex>

namespace corvane {

class lasting_socket {
public:
    // The descriptor, made by `open` unless that was done before. Any thread. -1: `open` failed; the next call tries
    // again, since descriptors and memory come back without notice.
    template <class Open> int get(Open open)
    {
        if (const int fd = fd_.load(std::memory_order_acquire); fd >= 0)
            return fd;
        const std::scoped_lock guard(opening_);
        if (fd_.load(std::memory_order_relaxed) < 0)
            fd_.store(open(), std::memory_order_release);
        return fd_.load(std::memory_order_relaxed);
    }

private:
    std::atomic<int> fd_{-1};
    std::mutex opening_;
};

} // namespace corvane
