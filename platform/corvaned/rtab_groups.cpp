// The route table's writer: multicast routes. Each (VLAN, MAC, owner, source, group) has its own set of interfaces;
// readers see the union of a key's sets.
#include "rtab_table.h"

#include <algorithm>

using namespace corvane;

namespace corvaned {
namespace {

void put_oifs(std::uint64_t *words, const oif_set &oifs)
{
    for (std::size_t bit = 0; bit < oifs.size(); ++bit)
        if (oifs[bit])
            words[bit / 64] |= std::uint64_t{1} << bit % 64;
}

oif_set oifs_of(const rtab_source_slot &slot)
{
    oif_set oifs;
    for (std::size_t bit = 0; bit < oifs.size(); ++bit)
        oifs[bit] = (slot.word[RTAB_SOURCE_OIFS + bit / 64].load(std::memory_order_relaxed) >> bit % 64 & 1) != 0;
    return oifs;
}

} // namespace

void rtab_table::adopt_sources()
{
    const std::uint32_t filled = std::min(shared_.sources_used.load(), RTAB_SOURCE_SLOTS);
    shared_.sources_used.store(filled);
    oifs_.clear();
    source_slot_.clear();
    free_sources_.clear();
    for (std::uint32_t number = 0; number < filled; ++number) {
        rtab_source_slot &slot = shared_.source[number];
        const rtab_about about = rtab_slot_about(slot);
        const std::uint64_t addresses = slot.word[RTAB_SOURCE_ADDRESSES].load();
        const rtab_source_key key{slot.word[0].load(), about.owner, static_cast<std::uint32_t>(addresses >> 32),
                                  static_cast<std::uint32_t>(addresses)};
        const oif_set oifs = oifs_of(slot);
        const bool sound = about.live && (slot.sequence.load() & 1) == 0 && oifs.any() && key.key >> 48 <= RTAB_VLAN_MAX;
        if (!sound || !oifs_.emplace(key, oifs).second) {
            rtab_clear_live(slot);
            free_sources_.push_back(number);
        } else {
            source_slot_[key] = number;
        }
    }
    // Folded records may be older than what they are folded from: those that stay are made anew, in their place.
    mcasts_.adopt([&](const rtab_mcast_slot &slot, const std::vector<std::uint32_t> &earlier) {
        const std::uint64_t key = slot.word[0].load();
        const auto known = oifs_.lower_bound({key, 0, 0, 0});
        const bool twice = std::ranges::any_of(earlier, [&](std::uint32_t n) { return mcasts_.key_of(n) == key; });
        return !twice && (slot.sequence.load() & 1) == 0 && known != oifs_.end() && known->first.key == key;
    });
    for (auto at = oifs_.begin(); at != oifs_.end(); at = oifs_.lower_bound({at->first.key + 1, 0, 0, 0}))
        (void)fold(at->first.key);
}

rtab_table::result rtab_table::store_source(const rtab_source_key &source, const oif_set &oifs)
{
    auto place = source_slot_.find(source);
    if (oifs.none()) {
        rtab_clear_live(shared_.source[place->second]);
        free_sources_.push_back(place->second);
        source_slot_.erase(place);
        oifs_.erase(source);
        return fold(source.key);
    }
    if (place == source_slot_.end()) {
        std::uint32_t number = shared_.sources_used.load();
        if (!free_sources_.empty()) {
            number = free_sources_.back();
            free_sources_.pop_back();
        } else if (number >= RTAB_SOURCE_SLOTS) {
            return result::FULL;
        } else {
            shared_.sources_used.store(number + 1);
        }
        place = source_slot_.emplace(source, number).first;
    }
    std::array<std::uint64_t, RTAB_SOURCE_WORDS> words{};
    words[0] = source.key;
    words[1] = rtab_about_word({.owner = source.owner, .is_static = true, .live = true});
    words[RTAB_SOURCE_ADDRESSES] = static_cast<std::uint64_t>(source.source) << 32 | source.group;
    put_oifs(words.data() + RTAB_SOURCE_OIFS, oifs);
    rtab_fill(shared_.source[place->second], words);
    oifs_[source] = oifs;
    return fold(source.key);
}

rtab_table::result rtab_table::fold(std::uint64_t key)
{
    oif_set all;
    for (auto at = oifs_.lower_bound({key, 0, 0, 0}); at != oifs_.end() && at->first.key == key; ++at)
        all |= at->second;
    const auto old = mcasts_.find(key, [](const rtab_mcast_slot &) { return true; });
    if (all.none()) {
        if (old.slot != RTAB_NO_SLOT)
            mcasts_.remove(old);
        return result::DONE;
    }
    std::array<std::uint64_t, RTAB_MCAST_WORDS> words{};
    words[0] = key;
    words[1] = rtab_about_word({.is_static = true, .live = true});
    put_oifs(words.data() + RTAB_MCAST_OIFS, all);
    if (old.slot != RTAB_NO_SLOT)
        return mcasts_.replace(old, words) ? result::DONE : result::FULL;
    if (mcasts_.live() >= RTAB_MCAST_MAX)
        return result::FULL;
    return mcasts_.insert(RTAB_NO_SLOT, words) ? result::DONE : result::FULL;
}

rtab_table::result rtab_table::join_group(const rtab_source_key &source, std::uint32_t iod)
{
    if (iod == 0 || iod >= RTAB_OIF_BITS)
        return result::REFUSED;
    const auto known = oifs_.find(source);
    oif_set oifs = known == oifs_.end() ? oif_set{} : known->second;
    oifs.set(iod);
    const result stored = store_source(source, oifs);
    if (stored == result::FULL && known == oifs_.end() && oifs_.contains(source))
        (void)store_source(source, {});                      // it fits in as a source but not as a route: neither
    return stored;
}

rtab_table::result rtab_table::leave_group(const rtab_source_key &source, std::uint32_t iod)
{
    const auto known = oifs_.find(source);
    if (known == oifs_.end() || iod >= RTAB_OIF_BITS || !known->second.test(iod))
        return result::REFUSED;
    oif_set oifs = known->second;
    oifs.reset(iod);
    return store_source(source, oifs);
}

rtab_table::result rtab_table::withdraw_group(const rtab_source_key &source)
{
    return oifs_.contains(source) ? store_source(source, {}) : result::REFUSED;
}

void rtab_table::forget_in_groups(std::uint32_t iod)
{
    std::vector<rtab_source_key> by_iod;
    for (const auto &[source, oifs] : oifs_)
        if (iod < oifs.size() && oifs.test(iod))
            by_iod.push_back(source);
    for (const rtab_source_key &source : by_iod)
        (void)leave_group(source, iod);
}

} // namespace corvaned
