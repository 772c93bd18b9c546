// Local sources: what the library itself receives (frames of the packet service) is handed out by mbus_recv on the
// queue a source is attached to, in place, without passing through corvaned. Calls come from the thread that uses the
// queue; nothing here takes a lock.
#pragma once

#include "mbus.h"

namespace corvane {

// A handle with this bit in word[0] belongs to a local source; the low bits of word[0] name the queue. mbus_recv sets
// word[0], the source fills words 1 to 3 as it likes (not all zero is not required) and word[4] with the opcode.
inline constexpr std::uint32_t MBUS_LOCAL_MARK = 0x80000000;
inline constexpr std::size_t MBUS_LOCAL_OPCODE_WORD = 4;

enum class local_receive {
    MESSAGE,     // `out` names a message
    WOKEN,       // the wake descriptor is readable: a bus message, pre-unbind, or a source that changed; mbus_recv looks
    FAILED,      // errno tells
};

struct mbus_local_source {
    // Waits for the next message, and no longer than until `wake_fd` (an eventfd of the queue) is readable. May return
    // a message that is there already without looking at wake_fd: mbus_recv itself looks for bus messages before each
    // call. The caller has given the process lock up, unless the call is inside a batch (plock_batch.h).
    virtual local_receive receive(mbus_msg &out, int wake_fd) = 0;
    [[nodiscard]] virtual std::uint8_t *payload(const mbus_msg &msg, std::size_t *length) = 0;   // null: dropped already
    // 0, or -1 with EINVAL for a handle that never named a message of this source. mbus_drop empties the handle.
    virtual int drop(const mbus_msg &msg) = 0;

protected:
    ~mbus_local_source() = default;
};

// One source a queue. False: no such queue, or it has one. The source must outlive mbus_local_detach, which returns
// when no mbus_recv is inside it any more.
[[nodiscard]] bool mbus_local_attach(mbus_q queue, mbus_local_source *source);
void mbus_local_detach(mbus_q queue);

} // namespace corvane
