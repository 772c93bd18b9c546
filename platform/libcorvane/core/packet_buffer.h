// Packet buffers as the output code of this library sees them: a packet with room in front for a link header. They come
// from a pool that is filled once and grows up to its limit; each thread keeps a few at hand, so that a buffer costs
// neither a lock nor the heap while traffic flows.
#pragma once

#include "mbuf.h"

#include <cstddef>
#include <cstdint>

// Small buffers carry every packet that fits a network; large ones super-frames and what callers grow beyond.
struct mbuf {
    mbuf *next = nullptr;              // in the pool's lists and in queues; the holder's to use
    std::uint8_t *base = nullptr;
    std::uint32_t capacity = 0;        // bytes at base
    std::uint32_t head = 0;            // where the packet starts
    std::uint32_t length = 0;
    bool large = false;
};

namespace corvane {

inline constexpr std::uint32_t MBUF_HEADROOM = 64;             // a fresh buffer's: offload header, Ethernet, tags
inline constexpr std::uint32_t MBUF_SMALL_ROOM = 2048 - MBUF_HEADROOM, MBUF_LARGE_ROOM = 66 * 1024;
inline constexpr std::uint32_t MBUF_SMALL_MAX = 4096, MBUF_LARGE_MAX = 32;

// A buffer for a packet of up to `room` bytes; null when the pool is exhausted or `room` is above MBUF_LARGE_ROOM.
[[nodiscard]] mbuf *packet_buffer_get(std::uint32_t room);

[[nodiscard]] inline std::uint8_t *packet_start(mbuf *m) { return m->base + m->head; }
[[nodiscard]] inline std::uint32_t packet_room(const mbuf *m) { return m->capacity - m->head; }
// `bytes` more in front of the packet. Callers stay within MBUF_HEADROOM.
inline std::uint8_t *packet_prepend(mbuf *m, std::uint32_t bytes)
{
    m->head -= bytes;
    m->length += bytes;
    return packet_start(m);
}

struct packet_pool_usage {
    std::uint32_t small_made, large_made;
};
[[nodiscard]] packet_pool_usage packet_pool_usage_get();

} // namespace corvane
