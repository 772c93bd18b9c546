// Pool of packet buffers. Small ones are made in slabs; a thread takes and returns them in lots through its own list.
#include "packet_buffer.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <new>

namespace {

using corvane::MBUF_HEADROOM;
using corvane::MBUF_LARGE_MAX;
using corvane::MBUF_LARGE_ROOM;
using corvane::MBUF_SMALL_MAX;
using corvane::MBUF_SMALL_ROOM;

constexpr std::uint32_t LOT = 32, SLAB = 64;

struct free_list {
    mbuf *head = nullptr;
    std::uint32_t count = 0;

    void push(mbuf *m)
    {
        m->next = head;
        head = m;
        ++count;
    }
    mbuf *pop()
    {
        mbuf *m = head;
        if (m != nullptr) {
            head = m->next;
            --count;
        }
        return m;
    }
    void move_to(free_list &other, std::uint32_t lot)
    {
        while (lot-- != 0 && head != nullptr)
            other.push(pop());
    }
};

struct pool {
    std::mutex mutex;
    free_list small, large;
    std::uint32_t small_made = 0, large_made = 0;

    // Slabs live as long as the process: what flows back goes to the list.
    void make_small()
    {
        constexpr std::size_t BYTES = MBUF_HEADROOM + MBUF_SMALL_ROOM;
        if (small_made + SLAB > MBUF_SMALL_MAX)
            return;
        auto *buffers = new (std::nothrow) mbuf[SLAB];
        auto *bytes = static_cast<std::uint8_t *>(::operator new(SLAB * BYTES, std::align_val_t{64}, std::nothrow));
        if (buffers == nullptr || bytes == nullptr) {
            delete[] buffers;
            ::operator delete(bytes, std::align_val_t{64});
            return;
        }
        small_made += SLAB;
        for (std::uint32_t i = 0; i < SLAB; ++i) {
            buffers[i].base = bytes + i * BYTES;
            buffers[i].capacity = BYTES;
            small.push(&buffers[i]);
        }
    }
    void make_large()
    {
        if (large_made == MBUF_LARGE_MAX)
            return;
        auto *m = new (std::nothrow) mbuf;
        auto *bytes = static_cast<std::uint8_t *>(::operator new(MBUF_HEADROOM + MBUF_LARGE_ROOM, std::nothrow));
        if (m == nullptr || bytes == nullptr) {
            delete m;
            ::operator delete(bytes);
            return;
        }
        ++large_made;
        m->base = bytes;
        m->capacity = MBUF_HEADROOM + MBUF_LARGE_ROOM;
        m->large = true;
        large.push(m);
    }
};

// Never destroyed: threads give their buffers back at their end, whenever that is.
pool &the_pool()
{
    static pool &instance = *new pool;
    return instance;
}

struct thread_stock {
    free_list small;

    ~thread_stock()
    {
        pool &p = the_pool();
        const std::scoped_lock guard(p.mutex);
        small.move_to(p.small, small.count);
    }
};
thread_local thread_stock stock;

void refill()
{
    pool &p = the_pool();
    const std::scoped_lock guard(p.mutex);
    if (p.small.count < LOT)
        p.make_small();
    p.small.move_to(stock.small, LOT);
}

void give_back_a_lot()
{
    pool &p = the_pool();
    const std::scoped_lock guard(p.mutex);
    stock.small.move_to(p.small, LOT);
}

mbuf *take_large()
{
    pool &p = the_pool();
    const std::scoped_lock guard(p.mutex);
    if (p.large.count == 0)
        p.make_large();
    return p.large.pop();
}

mbuf *take_small()
{
    if (stock.small.count == 0)
        refill();
    return stock.small.pop();
}

// Gives `m` the storage of a large buffer; the small storage goes back in its place.
bool grow(mbuf *m)
{
    mbuf *bigger = m->large ? nullptr : take_large();
    if (bigger == nullptr)
        return false;
    std::memcpy(bigger->base + MBUF_HEADROOM, m->base + m->head, m->length);
    m->head = MBUF_HEADROOM;
    std::swap(m->base, bigger->base);
    std::swap(m->capacity, bigger->capacity);
    std::swap(m->large, bigger->large);
    m_freem(bigger);
    return true;
}

} // namespace

namespace corvane {

mbuf *packet_buffer_get(std::uint32_t room)
{
    if (room > MBUF_LARGE_ROOM)
        return nullptr;
    mbuf *m = room <= MBUF_SMALL_ROOM ? take_small() : take_large();
    if (m != nullptr) {
        m->next = nullptr;
        m->head = MBUF_HEADROOM;
        m->length = 0;
    }
    return m;
}

packet_pool_usage packet_pool_usage_get()
{
    pool &p = the_pool();
    const std::scoped_lock guard(p.mutex);
    return {p.small_made, p.large_made};
}

} // namespace corvane

mbuf *m_get(std::size_t size_hint)
{
    return corvane::packet_buffer_get(static_cast<std::uint32_t>(std::min<std::size_t>(size_hint, MBUF_LARGE_ROOM)));
}

bool m_copyback(mbuf *m, std::size_t offset, std::size_t length, const void *data)
{
    if (offset > MBUF_LARGE_ROOM || length > MBUF_LARGE_ROOM - offset)
        return false;
    const auto end = static_cast<std::uint32_t>(offset + length);
    if (end > corvane::packet_room(m) && (!grow(m) || end > corvane::packet_room(m)))
        return false;
    std::uint8_t *start = corvane::packet_start(m);
    if (offset > m->length)
        std::memset(start + m->length, 0, offset - m->length);
    std::memcpy(start + offset, data, length);
    m->length = std::max(m->length, end);
    return true;
}

void m_freem(mbuf *m)
{
    if (m == nullptr)
        return;
    if (m->large) {
        pool &p = the_pool();
        const std::scoped_lock guard(p.mutex);
        p.large.push(m);
        return;
    }
    stock.small.push(m);
    if (stock.small.count >= 3 * LOT)
        give_back_a_lot();
}

std::size_t m_length(const mbuf *m)
{
    return m->length;
}

const std::uint8_t *m_data(const mbuf *m)
{
    return m->base + m->head;
}
