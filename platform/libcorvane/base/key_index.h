// Hash index of records by a key of a fixed length: what makes exact lookup independent of the number of records.
// Open addressing with linear probing; a removal closes its gap, so there are no tombstones and lookups stay short.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace corvane {

inline std::uint64_t key_mix(std::uint64_t h)
{
    h ^= h >> 32;
    h *= 0xD6E8FEB86659FD93u;
    return h ^ h >> 32;
}

inline std::uint64_t key_hash(const void *key, std::size_t length)
{
    const auto *p = static_cast<const std::uint8_t *>(key);
    std::uint64_t h = length;
    for (; length >= 8; p += 8, length -= 8) {
        std::uint64_t word = 0;
        std::memcpy(&word, p, 8);
        h = key_mix(h ^ word);
    }
    std::uint64_t rest = 0;
    std::memcpy(&rest, p, length);
    return key_mix(h ^ rest);
}

// Entries are pointers; `KeyOf` gives the key of one.
template <class Entry, class KeyOf> class key_index {
public:
    key_index(std::size_t key_length, KeyOf key_of) : key_length_(key_length), key_of_(key_of) {}

    [[nodiscard]] Entry *find(const void *key) const
    {
        if (count_ == 0)
            return nullptr;
        const std::uint64_t hash = key_hash(key, key_length_);
        for (std::size_t i = hash & mask(); slots_[i].entry != nullptr; i = (i + 1) & mask())
            if (slots_[i].hash == hash && std::memcmp(key_of_(slots_[i].entry), key, key_length_) == 0)
                return slots_[i].entry;
        return nullptr;
    }

    void insert(Entry *entry)                                // its key is not there yet; may throw std::bad_alloc
    {
        if ((count_ + 1) * 2 > slots_.size())
            grow();
        place({key_hash(key_of_(entry), key_length_), entry});
        ++count_;
    }

    void erase(const void *key)
    {
        if (count_ == 0)
            return;
        const std::uint64_t hash = key_hash(key, key_length_);
        for (std::size_t i = hash & mask(); slots_[i].entry != nullptr; i = (i + 1) & mask()) {
            if (slots_[i].hash != hash || std::memcmp(key_of_(slots_[i].entry), key, key_length_) != 0)
                continue;
            close_gap(i);
            --count_;
            return;
        }
    }

private:
    struct slot {
        std::uint64_t hash = 0;
        Entry *entry = nullptr;
    };
    [[nodiscard]] std::size_t mask() const { return slots_.size() - 1; }

    void place(slot s)
    {
        std::size_t i = s.hash & mask();
        while (slots_[i].entry != nullptr)
            i = (i + 1) & mask();
        slots_[i] = s;
    }

    void grow()
    {
        std::vector<slot> old(slots_.empty() ? 16 : slots_.size() * 2);
        old.swap(slots_);
        for (const slot &s : old)
            if (s.entry != nullptr)
                place(s);
    }

    void close_gap(std::size_t gap)
    {
        for (std::size_t i = (gap + 1) & mask(); slots_[i].entry != nullptr; i = (i + 1) & mask()) {
            const std::size_t home = slots_[i].hash & mask();
            if (((i - home) & mask()) < ((i - gap) & mask()))
                continue;                                    // between its home and here there is no gap
            slots_[gap] = slots_[i];
            gap = i;
        }
        slots_[gap] = slot{};
    }

    std::vector<slot> slots_;
    std::size_t count_ = 0;
    std::size_t key_length_;
    KeyOf key_of_;
};

} // namespace corvane
