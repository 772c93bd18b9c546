// Memory accounting and packet buffers.
#include "fake_state.h"

#include <array>
#include <cstdlib>
#include <cstring>

namespace fake {

namespace {

constexpr std::uint32_t TYPES = 64;
constexpr std::uint64_t BLOCK_MARK = 0x4D454D4143435421;

struct alignas(std::max_align_t) block_header {
    std::uint64_t mark;
    std::size_t size;
    std::uint32_t module, type;
    std::uint64_t generation;
    bool pooled;
};

std::array<memacct_usage, TYPES> usage{};
std::uint64_t generation = 1;    // of blocks: one that outlives a reset is no longer counted when it is freed

// While only counting, blocks of the frame path come from here, as they come from a pool on the real platform.
constexpr std::size_t POOLED_SIZE = 4096, POOLED_BLOCKS = 16;
struct block_pool {
    std::array<void *, POOLED_BLOCKS> free{};
    std::size_t count = 0;
    ~block_pool()
    {
        while (count != 0)
            std::free(free[--count]);
    }
};
block_pool blocks;

void *get_block(std::size_t size)
{
    const bool pooled = !recording() && size <= POOLED_SIZE;
    return std::calloc(1, sizeof(block_header) + (pooled ? POOLED_SIZE : size));
}

void put_block(block_header *block)
{
    if (block->pooled && blocks.count < POOLED_BLOCKS)
        blocks.free[blocks.count++] = block;
    else
        std::free(block);
}

struct buffer_pool {
    std::vector<mbuf *> free;
    std::size_t out = 0;
    ~buffer_pool();
};
buffer_pool pool;

} // namespace

void reset_memory()
{
    usage = {};
    ++generation;
    pool.out = 0;
}

std::size_t platform_object::memory_blocks(std::uint32_t type) const { return usage.at(type).blocks; }
std::size_t platform_object::mbufs_out() const { return pool.out; }

} // namespace fake

using namespace fake;

struct mbuf {
    std::uint64_t generation = 0;
    std::size_t length = 0;
    std::array<std::uint8_t, 16384> data{};
};

fake::buffer_pool::~buffer_pool()
{
    for (const mbuf *m : free)
        delete m;
}

void memacct_init(const char *description, std::uint32_t module, std::span<const char *const> type_names)
{
    note("memacct_init", description, module, type_names.size());
}

void memacct_ignore_alloc_abort(int ignore) { note("memacct_ignore_alloc_abort", ignore); }

void *memacct_alloc(std::uint32_t module, std::uint32_t type, std::size_t size)
{
    if (!recording() && size <= POOLED_SIZE && blocks.count != 0) {
        auto *header = static_cast<block_header *>(blocks.free[--blocks.count]);
        *header = {BLOCK_MARK, size, module, type, 0, true};     // of no generation: not counted
        std::memset(header + 1, 0, size);
        return header + 1;
    }
    memacct_usage &of_type = usage.at(type);
    const bool over = of_type.cap_bytes != 0 && of_type.bytes + size > of_type.cap_bytes;
    if (refuse("memacct_alloc") || over) {
        ++of_type.refused;
        return nullptr;
    }
    void *block = get_block(size);
    if (block == nullptr)
        return nullptr;
    *static_cast<block_header *>(block) = {BLOCK_MARK, size, module, type, generation,
                                                  !recording() && size <= POOLED_SIZE};
    of_type.bytes += size;
    ++of_type.blocks;
    return static_cast<block_header *>(block) + 1;
}

void memacct_free(std::uint32_t module, std::uint32_t type, void *memory)
{
    if (memory == nullptr)
        return;
    auto *header = static_cast<block_header *>(memory) - 1;
    if (header->mark != BLOCK_MARK || header->module != module || header->type != type)
        std::abort();                                        // freed twice, as another type, or never allocated here
    if (header->generation == generation) {
        usage[type].bytes -= header->size;
        --usage[type].blocks;
    }
    header->mark = 0;
    put_block(header);
}

memacct_usage memacct_usage_get(std::uint32_t type) { return usage.at(type); }
void memacct_cap_set(std::uint32_t type, std::size_t bytes) { usage.at(type).cap_bytes = bytes; }

mbuf *m_get(std::size_t /*size_hint*/)
{
    if (refuse("m_get") || pool.out >= platform.mbuf_limit)
        return nullptr;
    mbuf *m = nullptr;
    if (pool.free.empty()) {
        m = new mbuf;
    } else {
        m = pool.free.back();
        pool.free.pop_back();
    }
    m->generation = generation;
    m->length = 0;
    ++pool.out;
    return m;
}

bool m_copyback(mbuf *m, std::size_t offset, std::size_t length, const void *data)
{
    if (refuse("m_copyback") || offset + length > m->data.size())
        return false;
    if (offset > m->length)
        std::memset(m->data.data() + m->length, 0, offset - m->length);
    std::memcpy(m->data.data() + offset, data, length);
    m->length = std::max(m->length, offset + length);
    return true;
}

void m_freem(mbuf *m)
{
    if (m == nullptr)
        return;
    if (m->generation == generation)
        --pool.out;
    pool.free.push_back(m);
}

std::size_t m_length(const mbuf *m) { return m->length; }
const std::uint8_t *m_data(const mbuf *m) { return m->data.data(); }
