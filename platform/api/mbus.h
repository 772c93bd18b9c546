// Message bus client: queues bound to SAPs (service access points), messages with an opcode and a payload. A queue
// receives what is sent to its SAP and the notifications of the opcodes it subscribed to. Functions set errno.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

using mbus_q = std::uint32_t;
inline constexpr mbus_q MBUS_Q_INVALID = 0xFFFFFFFF;          // result of a failed mbus_bind, and of nothing else

inline constexpr std::uint32_t MBUS_OPC_ANY = 0xFFFFFFFF;
inline constexpr std::uint32_t MBUS_NOTIFY_DESTINATION = 0xFE000000;  // every queue subscribed to the opcode

struct mbus_addr {
    std::uint32_t node = 0;      // 0: this machine; MBUS_NOTIFY_DESTINATION: the subscribers of the opcode
    std::uint32_t sap = 0;
};

// Handle of a received message, 20 bytes, comparable byte for byte. It names the message in the client library, does
// not own it, and is all zero when it names none. A handle that outlives its message is recognised (never reused).
struct mbus_msg {
    std::array<std::uint32_t, 5> word{};
    bool operator==(const mbus_msg &) const = default;
};
static_assert(sizeof(mbus_msg) == 20);

struct mbus_q_attr {
    std::uint32_t version = 1;
    std::uint8_t flag[2] = {0, 0};            // flag[0] 1: frames of the packet service come on this queue
    std::uint32_t depth = 1024;               // messages that may wait; a full queue refuses further ones (EAGAIN)
    std::array<std::uint8_t, 8> reserved{};
    std::uint32_t priority = 15;
    std::uint32_t service = 0;                // service number of the owner, 0 = that of the process
};

struct mbus_segment {
    const void *data = nullptr;
    std::size_t length = 0;
};

// Options of a send: zeroed but for the version.
struct mbus_send_options {
    std::uint32_t version = 1;
    std::uint8_t want_ack = 0;                // the sender waits for an answer (deletion notifications)
    std::uint32_t sync_event = 0;             // non-zero: a synchronisation message
    const mbus_segment *segments = nullptr;   // payload in pieces, instead of the inline payload
    std::uint32_t segment_count = 0;
};

// Binds a queue. `version` is 1. Fails with MBUS_Q_INVALID: EADDRINUSE (SAP taken), ENOTCONN (no bus), EMFILE.
[[nodiscard]] mbus_q mbus_bind(std::uint32_t version, std::uint32_t sap, const mbus_q_attr &attr, const char *name);
int mbus_unbind(mbus_q queue, std::uint32_t flags);

// Registers the queue for an opcode: 3 keeps the last message for a late subscriber, 16 subscribes to notifications,
// 17 subscribes and also takes messages of that opcode addressed to the SAP. MBUS_OPC_ANY subscribes to every opcode.
// 0, or -1 with errno.
[[nodiscard]] int mbus_options_set(mbus_q queue, std::uint32_t opcode, std::uint32_t option);

// Waits for the next message. 0, or -1 with errno; EPIPE once the queue is in pre-unbind state and empty.
[[nodiscard]] int mbus_recv(mbus_q queue, mbus_msg &msg);
// Releases the message and empties the handle; an empty handle is released already, so a second drop does nothing
// (0). -1 with EINVAL for a handle that never named a message of this queue.
int mbus_drop(mbus_q queue, mbus_msg &msg);

[[nodiscard]] std::uint32_t mbus_opc_get(const mbus_msg &msg);
[[nodiscard]] mbus_addr mbus_saddr_get(const mbus_msg &msg);
[[nodiscard]] std::uint32_t mbus_sync_event_get(const mbus_msg &msg);
// Payload, writable and owned by the library until the drop; null when there is none. `length` in bytes.
[[nodiscard]] std::uint8_t *mbus_payload_get(const mbus_msg &msg, std::size_t *length = nullptr);

// Sends. 0, or -1 with errno: ENOENT (no such SAP), EAGAIN (its queue is full), EMSGSIZE, ENOTCONN (no bus now).
// A notification without subscribers succeeds.
[[nodiscard]] int mbus_send(mbus_q from, const mbus_addr &to, std::uint32_t opcode, const void *payload,
                            std::size_t length, const mbus_send_options &options);

// Pre-unbind: a receive that waits on the queue, and each later one once the queue is empty, fails with EPIPE.
int mbus_pre_unbind(mbus_q queue);
[[nodiscard]] bool mbus_is_pre_unbind(mbus_q queue);
