// MAC learning: site source addresses are collected in the learn buffer, which the learn timer hands to the route
// table in one batch. Runs on the packet thread and, for the flush and the ager, on the timer thread.
#include "lum_packet.h"

#include "drops.h"
#include "lum_inlines.h"

#include <cstring>

std::array<std::uint8_t, LUM_LEARN_HEADER + LUM_LEARN_RECORDS * LUM_LEARN_RECORD> lum_rtab_buffer;
std::uint32_t lum_rtab_buffer_count;

namespace {

constexpr std::uint16_t LEARNT_LENGTH = 52;
constexpr std::uint32_t LEARNT_CODE = 11;

// Index over the buffer's records, so that a frame does not search all of them: slot numbers plus one by a hash of the
// key, open addressing, at most half full. It is emptied with the buffer.
constexpr std::size_t INDEX_SIZE = 2048;
static_assert(INDEX_SIZE >= 2 * LUM_LEARN_RECORDS);
std::array<std::uint16_t, INDEX_SIZE> slot_index;

std::uint8_t *record_at(std::uint32_t slot)
{
    return lum_rtab_buffer.data() + LUM_LEARN_HEADER + slot * LUM_LEARN_RECORD;
}

std::size_t hash_of(const lum_mac_info &info)
{
    std::uint32_t low;
    std::memcpy(&low, info.mac.data() + 2, sizeof low);
    const std::uint64_t mixed = (std::uint64_t{info.vlan} << 48 ^ std::uint64_t{info.mac[0]} << 40 ^
                                 std::uint64_t{info.mac[1]} << 32 ^ low) *
                                0x9E3779B97F4A7C15u;
    return mixed >> 40 & (INDEX_SIZE - 1);
}

bool key_equals(const std::uint8_t *record, const lum_mac_info &info)
{
    return wire_host32(record) == info.vlan && std::memcmp(record + 4, info.mac.data(), info.mac.size()) == 0;
}

// The index entry of the key, or the empty entry where it belongs.
std::uint16_t &index_entry(const lum_mac_info &info)
{
    std::size_t at = hash_of(info);
    while (slot_index[at] != 0 && !key_equals(record_at(slot_index[at] - 1u), info))
        at = (at + 1) & (INDEX_SIZE - 1);
    return slot_index[at];
}

enum class route_match { NEW, REFRESH, MOVED, CURRENT };

route_match match_route(const lum_mac_info &source, std::uint32_t iod)
{
    rtab_acquire_rdlock();
    bool same_next_hop = false;
    const rtab_route *route = rtab_does_nh_exist(source, lum_addr_iod(iod), same_next_hop);
    route_match match = route_match::NEW;
    if (route != nullptr && !same_next_hop)
        match = route_match::MOVED;
    else if (route != nullptr)
        match = lum_data_in_last_minute(rtab_get_route_timestamp(*route)) ? route_match::CURRENT : route_match::REFRESH;
    rtab_release_rdlock();
    return match;
}

void trace_learnt(route_match match, const lum_mac_info &source, std::uint32_t iod)
{
    lum_text info, name;
    if (match == route_match::REFRESH)
        LUM_TRACE_LEARN("Update data timestamp for %s on %s, buffer count %d\n", lum_print_mac_info(source, info),
                        lum_if_name(iod, name), static_cast<int>(lum_rtab_buffer_count));
    else if (match == route_match::NEW)
        LUM_TRACE_LEARN("Learn %s %s on %s%sbuffer count %d\n", "new", lum_print_mac_info(source, info),
                        lum_if_name(iod, name), ", ", static_cast<int>(lum_rtab_buffer_count));
}

void add_record(const lum_mac_info &source, std::uint32_t iod) LUM_LOCKED;
void add_record(const lum_mac_info &source, std::uint32_t iod)
{
    std::uint8_t *record = lum_append_to_learn_buffer(source);
    record[LUM_LEARN_MARKER] = 1;
    record[LUM_LEARN_HAS_NEXT_HOP] = 1;
    wire_set_host32(record + LUM_LEARN_CODE, LEARNT_CODE);
    std::memcpy(record + LUM_LEARN_LENGTH, &LEARNT_LENGTH, sizeof LEARNT_LENGTH);
    wire_set_host32(record + LUM_LEARN_KIND, LUM_ADDR_IOD);
    wire_set_host32(record + LUM_LEARN_IOD, iod);
}

void change_record(std::uint8_t *record, const lum_mac_info &source, std::uint32_t iod)
{
    const std::uint32_t old_iod = wire_host32(record + LUM_LEARN_IOD);
    if (old_iod == iod)
        return;
    if (lum_learn_debug_flag != 0) {
        lum_text info, old_name, new_name;
        LUM_TRACE_LEARN("Change buffer entry for %s, %s -> %s\n", lum_print_mac_info(source, info),
                        lum_if_name(old_iod, old_name), lum_if_name(iod, new_name));
    }
    wire_set_host32(record + LUM_LEARN_IOD, iod);
}

} // namespace

int lum_find_route_in_learn_buffer(const lum_mac_info &info, std::uint8_t **record)
{
    const std::uint16_t entry = index_entry(info);
    if (entry != 0) {
        *record = record_at(entry - 1u);
        return 1;
    }
    *record = lum_rtab_buffer_count < LUM_LEARN_RECORDS ? record_at(lum_rtab_buffer_count) : nullptr;
    return 0;
}

std::uint8_t *lum_append_to_learn_buffer(const lum_mac_info &info)
{
    std::uint16_t &entry = index_entry(info);
    std::uint8_t *record = record_at(lum_rtab_buffer_count);
    wire_set_host32(record, info.vlan);
    std::memcpy(record + 4, info.mac.data(), info.mac.size());
    entry = static_cast<std::uint16_t>(++lum_rtab_buffer_count);
    return record;
}

void lum_clear_learn_buffer()
{
    lum_rtab_buffer.fill(0);
    lum_rtab_buffer_count = 0;
    slot_index.fill(0);
}

void lum_learn(const lum_mac_info &source, std::uint32_t iod)
{
    if (lum_rtab_buffer_count == LUM_LEARN_RECORDS) {
        // Lost on purpose: the host's next frame offers the address again, and the next flush is seconds away.
        drop_count(drop_reason::LEARN_BUFFER_FULL);
        lum_text info;
        LUM_TRACE_LEARN("Learn update suppressed for %s, buffer full\n", lum_print_mac_info(source, info));
        return;
    }
    const route_match match = match_route(source, iod);
    if (match == route_match::CURRENT)
        return;

    std::uint8_t *record = nullptr;
    if (lum_find_route_in_learn_buffer(source, &record) == 0) {
        add_record(source, iod);
        if (lum_learn_debug_flag != 0)
            trace_learnt(match, source, iod);
    } else if (match != route_match::REFRESH) {
        change_record(record, source, iod);
    }
}
