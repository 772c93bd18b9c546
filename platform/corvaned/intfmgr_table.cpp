// Writer of the interface table. Its readers never wait: see wire/intfmgr.h.
#include "intfmgr_table.h"

#include <algorithm>
#include <cstring>
#include <utility>

using namespace corvane;

namespace corvaned {
namespace {

// Odd while what the sequence guards changes; a writer that died left it odd, the next one makes it even again.
class changing {
public:
    explicit changing(std::atomic<std::uint32_t> &sequence) : sequence_(sequence)
    {
        value_ = sequence_.load(std::memory_order_relaxed) | 1;
        sequence_.store(value_, std::memory_order_relaxed);
    }
    ~changing() { sequence_.store(value_ + 1, std::memory_order_release); }
    changing(const changing &) = delete;
    changing &operator=(const changing &) = delete;

private:
    std::atomic<std::uint32_t> &sequence_;
    std::uint32_t value_;
};

template <std::size_t N>
void store_bytes(std::atomic<std::uint64_t> (&words)[N], const void *bytes, std::size_t length)
{
    std::array<std::uint64_t, N> copy{};
    std::memcpy(copy.data(), bytes, std::min(length, sizeof copy));
    for (std::size_t i = 0; i < N; ++i)
        words[i].store(copy[i], std::memory_order_release);
}

} // namespace

interface_table_writer::interface_table_writer(interface_table &table) : table_(table) {}

std::string interface_table_writer::name_of(std::uint32_t iod) const
{
    interface_record record;
    const bool valid = table_.magic.load() == INTERFACE_TABLE_MAGIC && interface_read(table_, iod, record);
    return valid ? record.name : "";
}

void interface_table_writer::clear()
{
    for (std::uint32_t iod = 0; iod < INTERFACE_SLOTS; ++iod)
        write(iod, {});
    rebuild_index();
    table_.magic.store(INTERFACE_TABLE_MAGIC);
}

void interface_table_writer::clear_held()
{
    if (table_.magic.load() != INTERFACE_TABLE_MAGIC) {
        clear();
        return;
    }
    values_ = {};
    held_ = true;
}

void interface_table_writer::publish()
{
    if (!std::exchange(held_, false))
        return;
    for (std::uint32_t iod = 0; iod < INTERFACE_SLOTS; ++iod)
        store(iod);
    rebuild_index();
    table_.generation.fetch_add(1, std::memory_order_release);
}

void interface_table_writer::store(std::uint32_t iod)
{
    const slot_values &values = values_[iod];
    interface_slot &slot = table_.slot[iod];
    const changing guard(slot.sequence);
    slot.flags.store(values.flags, std::memory_order_release);
    slot.ifindex.store(values.ifindex, std::memory_order_release);
    slot.context.store(values.context, std::memory_order_release);
    slot.ipv4.store(values.ipv4, std::memory_order_release);
    slot.mtu.store(values.mtu, std::memory_order_release);
    store_bytes(slot.ipv6, values.ipv6.data(), values.ipv6.size());
    std::uint64_t mac = 0;
    std::memcpy(&mac, values.mac.data(), values.mac.size());
    slot.mac.store(mac, std::memory_order_release);
    store_bytes(slot.name, values.name.data(), std::min(values.name.size(), sizeof slot.name - 1));
}

void interface_table_writer::write(std::uint32_t iod, const slot_values &values)
{
    slot_values &old = values_[iod];
    const bool reindex = old.name != values.name || old.ifindex != values.ifindex;
    old = values;
    if (held_)
        return;
    store(iod);
    if (reindex)
        rebuild_index();
    table_.generation.fetch_add(1, std::memory_order_release);
}

void interface_table_writer::put(std::atomic<std::uint16_t> *index, std::uint32_t iod, std::uint32_t at)
{
    while (index[at % INTERFACE_INDEX_SIZE].load(std::memory_order_relaxed) != 0)
        ++at;
    index[at % INTERFACE_INDEX_SIZE].store(static_cast<std::uint16_t>(iod), std::memory_order_release);
}

void interface_table_writer::rebuild_index()
{
    const changing guard(table_.index_sequence);
    for (std::uint32_t i = 0; i < INTERFACE_INDEX_SIZE; ++i) {
        table_.by_name[i].store(0, std::memory_order_release);
        table_.by_ifindex[i].store(0, std::memory_order_release);
    }
    for (std::uint32_t iod = 1; iod < INTERFACE_SLOTS; ++iod) {
        const slot_values &values = values_[iod];
        if (!values.name.empty())
            put(table_.by_name, iod, interface_name_hash(values.name));
        if (values.ifindex != 0)
            put(table_.by_ifindex, iod, interface_ifindex_hash(values.ifindex));
    }
}

} // namespace corvaned
