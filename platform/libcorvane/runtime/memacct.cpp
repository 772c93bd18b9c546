// Memory accounting: a header before each block holds its size; counters and caps are per type. Small blocks that are
// freed are kept by their thread for its next allocation: the frame path takes and returns one a frame.
#include "memacct.h"

#include <array>
#include <atomic>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

namespace {

constexpr std::size_t TYPES_MAX = 32;
// Caps keep a flood of one kind of record from taking the machine's memory; CORVANE_MEMORY_CAPS sets others, as
// LUM_MEM_TYPE_ARP_ND_CACHE=8388608,...  0 is no cap.
constexpr std::size_t CAP_DEFAULT = 32 * 1024 * 1024;

struct alignas(std::max_align_t) block_header {
    std::size_t bytes = 0;
};

struct type_account {
    std::atomic<std::size_t> bytes{0}, blocks{0}, cap{CAP_DEFAULT};
    std::atomic<std::uint64_t> refused{0};
};

std::array<type_account, TYPES_MAX> accounts;
std::atomic<bool> ignore_failures{false};

// Blocks of one thread that wait for their next use, by size class: 64, 128, ... 4096 bytes.
class kept_blocks {
public:
    ~kept_blocks()
    {
        for (auto &of_class : kept_)
            for (std::size_t i = 0; i < of_class.count; ++i)
                std::free(of_class.block[i]);
        alive_ = false;
    }
    static constexpr std::size_t LARGEST = 4096;
    static std::size_t class_of(std::size_t size) { return size <= SMALLEST ? 0 : std::bit_width((size - 1) / SMALLEST); }
    static std::size_t bytes_of(std::size_t size_class) { return SMALLEST << size_class; }

    void *take(std::size_t size_class)
    {
        list &of_class = kept_[size_class];
        return of_class.count == 0 ? nullptr : of_class.block[--of_class.count];
    }
    bool keep(std::size_t size_class, void *block)
    {
        list &of_class = kept_[size_class];
        if (!alive_ || of_class.count == KEPT)
            return false;
        of_class.block[of_class.count++] = block;
        return true;
    }

private:
    static constexpr std::size_t SMALLEST = 64, CLASSES = 7;
#ifdef __SANITIZE_ADDRESS__
    static constexpr std::size_t KEPT = 0;                   // a block used after its free must be seen
#else
    static constexpr std::size_t KEPT = 16;
#endif
    struct list {
        std::size_t count = 0;
        std::array<void *, 16> block{};
    };
    std::array<list, CLASSES> kept_;
    bool alive_ = true;
};
thread_local kept_blocks mine;

// Zeroed memory behind room for a header; null when there is none.
void *take_block(std::size_t size)
{
    if (size > kept_blocks::LARGEST)
        return std::calloc(1, sizeof(block_header) + size);
    const std::size_t size_class = kept_blocks::class_of(size);
    void *raw = mine.take(size_class);
    if (raw == nullptr)
        raw = std::malloc(sizeof(block_header) + kept_blocks::bytes_of(size_class));
    if (raw != nullptr)
        std::memset(raw, 0, sizeof(block_header) + size);
    return raw;
}

void give_block(void *raw, std::size_t size)
{
    if (size > kept_blocks::LARGEST || !mine.keep(kept_blocks::class_of(size), raw))
        std::free(raw);
}

type_account &account(std::uint32_t type)
{
    return accounts[type < TYPES_MAX ? type : 0];
}

void *refuse(type_account &a, std::uint32_t module, std::uint32_t type, std::size_t size)
{
    a.refused.fetch_add(1, std::memory_order_relaxed);
    if (ignore_failures)
        return nullptr;
    std::fprintf(stderr, "module %u: no memory for %zu bytes of type %u\n", module, size, type);
    std::abort();
}

void read_caps(std::span<const char *const> type_names)
{
    const char *given = std::getenv("CORVANE_MEMORY_CAPS");
    std::string_view rest = given == nullptr ? "" : given;
    while (!rest.empty()) {
        const std::string_view word = rest.substr(0, rest.find(','));
        rest.remove_prefix(std::min(word.size() + 1, rest.size()));
        const std::size_t equals = word.find('=');
        if (equals == std::string_view::npos)
            continue;
        for (std::size_t type = 0; type < type_names.size(); ++type)
            if (word.substr(0, equals) == type_names[type])
                memacct_cap_set(static_cast<std::uint32_t>(type),
                                std::strtoull(std::string(word.substr(equals + 1)).c_str(), nullptr, 10));
    }
}

} // namespace

void memacct_init(const char *, std::uint32_t, std::span<const char *const> type_names)
{
    read_caps(type_names.first(std::min(type_names.size(), TYPES_MAX)));
}

void memacct_ignore_alloc_abort(int ignore)
{
    ignore_failures = ignore != 0;
}

void *memacct_alloc(std::uint32_t module, std::uint32_t type, std::size_t size)
{
    type_account &a = account(type);
    const std::size_t cap = a.cap.load(std::memory_order_relaxed);
    const std::size_t used = a.bytes.fetch_add(size, std::memory_order_relaxed) + size;
    void *raw = cap != 0 && used > cap ? nullptr : take_block(size);
    if (raw == nullptr) {
        a.bytes.fetch_sub(size, std::memory_order_relaxed);
        return refuse(a, module, type, size);
    }
    a.blocks.fetch_add(1, std::memory_order_relaxed);
    return new (raw) block_header{size} + 1;
}

void memacct_free(std::uint32_t, std::uint32_t type, void *memory)
{
    if (memory == nullptr)
        return;
    block_header *header = static_cast<block_header *>(memory) - 1;
    type_account &a = account(type);
    a.bytes.fetch_sub(header->bytes, std::memory_order_relaxed);
    a.blocks.fetch_sub(1, std::memory_order_relaxed);
    give_block(header, header->bytes);
}

memacct_usage memacct_usage_get(std::uint32_t type)
{
    const type_account &a = account(type);
    return {a.bytes, a.blocks, a.cap, a.refused};
}

void memacct_cap_set(std::uint32_t type, std::size_t bytes)
{
    account(type).cap = bytes;
}
