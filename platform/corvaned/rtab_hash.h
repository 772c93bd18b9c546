// Writer's side of a hash of the route table: slots are filled while nobody sees them, linked with one store, and
// retired when no chain leads to them any more. One thread.
#pragma once

#include "../wire/rtab.h"

#include <cstdint>
#include <deque>
#include <span>
#include <vector>

namespace corvaned {

inline constexpr std::uint32_t RTAB_NO_SLOT = 0xFFFFFFFF;

// Marks the slot as unsteady while its words change; readers that were in it start again.
template <class Slot> void rtab_fill(Slot &slot, std::span<const std::uint64_t> words)
{
    const std::uint32_t sequence = slot.sequence.load(std::memory_order_relaxed);
    slot.sequence.store(sequence | 1, std::memory_order_relaxed);
    for (std::size_t i = 0; i < words.size(); ++i)
        slot.word[i].store(words[i], std::memory_order_release);
    slot.sequence.store((sequence | 1) + 1, std::memory_order_release);
}

template <class Slot> corvane::rtab_about rtab_slot_about(const Slot &slot)
{
    return corvane::rtab_about_of(slot.word[1].load(std::memory_order_relaxed));
}

// The record stays readable for who is in the slot already, but no walk counts it any more.
template <class Slot> void rtab_clear_live(Slot &slot)
{
    corvane::rtab_about about = rtab_slot_about(slot);
    about.live = false;
    const std::uint64_t words[] = {slot.word[0].load(std::memory_order_relaxed), corvane::rtab_about_word(about)};
    rtab_fill(slot, words);
}

template <class Hash> class rtab_hash_writer {
public:
    using slot_type = typename Hash::slot_type;
    struct place {
        std::uint32_t before = RTAB_NO_SLOT;                 // the slot that leads here; none: the bucket itself
        std::uint32_t slot = RTAB_NO_SLOT;                   // none: nothing was found
    };

    explicit rtab_hash_writer(Hash &hash, const std::atomic<std::uint64_t> &seed) : hash_(hash), seed_(seed) {}

    [[nodiscard]] slot_type &at(std::uint32_t slot) { return hash_.slot[slot]; }
    [[nodiscard]] std::uint32_t live() const { return live_; }
    [[nodiscard]] std::uint32_t used() const { return hash_.used.load(std::memory_order_relaxed); }
    [[nodiscard]] std::uint64_t key_of(std::uint32_t slot) { return at(slot).word[0].load(std::memory_order_relaxed); }

    // First slot of the key's chain, and the one behind a slot.
    [[nodiscard]] std::uint32_t first(std::uint64_t key)
    {
        return corvane::rtab_bucket_first(bucket(key).load(std::memory_order_relaxed)) - 1;
    }
    [[nodiscard]] std::uint32_t next(std::uint32_t slot) { return at(slot).next.load(std::memory_order_relaxed) - 1; }

    // First record of the key that `wanted(slot)` takes.
    template <class Wanted> [[nodiscard]] place find(std::uint64_t key, Wanted wanted)
    {
        place found;
        for (std::uint32_t slot = first(key); slot != RTAB_NO_SLOT; slot = next(slot)) {
            if (key_of(slot) == key && wanted(at(slot))) {
                found.slot = slot;
                return found;
            }
            found.before = slot;
        }
        return {};
    }

    // Links a new record behind `before` (none: at the front of its chain). False: no slot is left.
    [[nodiscard]] bool insert(std::uint32_t before, std::span<const std::uint64_t> words)
    {
        const std::uint32_t slot = take();
        if (slot == RTAB_NO_SLOT)
            return false;
        const std::uint64_t key = words[0];
        const std::uint32_t follower = before == RTAB_NO_SLOT ? first(key) : next(before);
        put(slot, follower, words);
        lead_to(key, before, slot);
        ++live_;
        return true;
    }

    // Puts another version of a record in its place.
    [[nodiscard]] bool replace(const place &old, std::span<const std::uint64_t> words)
    {
        const std::uint32_t slot = take();
        if (slot == RTAB_NO_SLOT)
            return false;
        put(slot, next(old.slot), words);
        lead_to(words[0], old.before, slot);
        retire(words[0], old.slot);
        return true;
    }

    void remove(const place &old)
    {
        const std::uint64_t key = key_of(old.slot);
        lead_to(key, old.before, next(old.slot));
        retire(key, old.slot);
        --live_;
    }

    // Takes over the chains as they stand. `keep(slot, key's earlier slots in the chain)` says which records are sound;
    // what it refuses, what no chain leads to and what a chain reaches a second time becomes free.
    template <class Keep> void adopt(Keep keep)
    {
        const std::uint32_t filled = std::min(used(), Hash::slots);
        std::vector<bool> linked(filled, false);
        hash_.used.store(filled, std::memory_order_relaxed);
        free_.clear();
        live_ = 0;
        for (std::uint32_t number = 0; number < Hash::buckets; ++number)
            adopt_chain(number, linked, keep);
        for (std::uint32_t slot = 0; slot < filled; ++slot) {
            if (linked[slot])
                continue;
            rtab_clear_live(at(slot));
            free_.push_back(slot);
        }
    }

private:
    // Slots rest for a while before they are used again: fewer readers have to start again.
    static constexpr std::size_t RESTING_SLOTS = 64;

    [[nodiscard]] std::uint32_t bucket_number(std::uint64_t key) const
    {
        return corvane::rtab_bucket_of<Hash>(key, seed_.load(std::memory_order_relaxed));
    }
    [[nodiscard]] corvane::rtab_bucket &bucket(std::uint64_t key) { return hash_.bucket[bucket_number(key)]; }

    [[nodiscard]] std::uint32_t take()
    {
        const std::uint32_t fresh = used();
        if (free_.size() > RESTING_SLOTS || (fresh >= Hash::slots && !free_.empty())) {
            const std::uint32_t slot = free_.front();
            free_.pop_front();
            return slot;
        }
        if (fresh >= Hash::slots)
            return RTAB_NO_SLOT;
        hash_.used.store(fresh + 1, std::memory_order_release);
        return fresh;
    }

    void put(std::uint32_t slot, std::uint32_t follower, std::span<const std::uint64_t> words)
    {
        slot_type &target = at(slot);
        const std::uint32_t sequence = target.sequence.load(std::memory_order_relaxed) | 1;
        target.sequence.store(sequence, std::memory_order_relaxed);
        target.next.store(follower + 1, std::memory_order_release);
        for (std::size_t i = 0; i < words.size(); ++i)
            hash_.word(slot, i).store(words[i], std::memory_order_release);
        target.sequence.store(sequence + 1, std::memory_order_release);
    }

    void lead_to(std::uint64_t key, std::uint32_t before, std::uint32_t slot)
    {
        if (before != RTAB_NO_SLOT) {
            at(before).next.store(slot + 1, std::memory_order_release);
            return;
        }
        corvane::rtab_bucket &head = bucket(key);
        const std::uint64_t version = head.load(std::memory_order_relaxed) >> 32 << 32;
        head.store(version | (slot + 1), std::memory_order_release);
    }

    // The count of unlinkings rises before the slot can be filled with anything else.
    void retire(std::uint64_t key, std::uint32_t slot)
    {
        bucket(key).fetch_add(std::uint64_t{1} << 32, std::memory_order_release);
        rtab_clear_live(at(slot));
        free_.push_back(slot);
    }

    template <class Keep> void adopt_chain(std::uint32_t number, std::vector<bool> &linked, Keep keep)
    {
        std::vector<std::uint32_t> chain;
        bool whole = true;
        for (std::uint32_t slot = corvane::rtab_bucket_first(hash_.bucket[number].load(std::memory_order_relaxed)) - 1;
             slot != RTAB_NO_SLOT; slot = next(slot)) {
            if (slot >= linked.size() || linked[slot]) {
                whole = false;
                break;
            }
            if (bucket_number(key_of(slot)) == number && rtab_slot_about(at(slot)).live && keep(at(slot), chain)) {
                linked[slot] = true;
                chain.push_back(slot);
            } else {
                whole = false;
            }
        }
        live_ += static_cast<std::uint32_t>(chain.size());
        if (!whole)
            relink(number, chain);
    }

    void relink(std::uint32_t number, const std::vector<std::uint32_t> &chain)
    {
        std::uint32_t follower = RTAB_NO_SLOT;
        for (auto slot = chain.rbegin(); slot != chain.rend(); ++slot) {
            at(*slot).next.store(follower + 1, std::memory_order_release);
            follower = *slot;
        }
        const std::uint64_t head = hash_.bucket[number].load(std::memory_order_relaxed);
        const std::uint64_t version = (head >> 32) + 1;
        hash_.bucket[number].store(version << 32 | (follower + 1), std::memory_order_release);
    }

    Hash &hash_;
    const std::atomic<std::uint64_t> &seed_;
    std::deque<std::uint32_t> free_;
    std::uint32_t live_ = 0;
};

} // namespace corvaned
