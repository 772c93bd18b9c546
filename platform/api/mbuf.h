// Packet buffers of the IP stacks, from a pool.
#pragma once

#include <cstddef>
#include <cstdint>

struct mbuf;
[[nodiscard]] mbuf *m_get(std::size_t size_hint);       // null when the pool is exhausted
[[nodiscard]] bool m_copyback(mbuf *m, std::size_t offset, std::size_t length, const void *data);   // grows the packet
void m_freem(mbuf *m);
[[nodiscard]] std::size_t m_length(const mbuf *m);
[[nodiscard]] const std::uint8_t *m_data(const mbuf *m);
