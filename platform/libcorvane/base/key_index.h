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

template <class Word> Word key_word(const void *p)
{
    Word word = 0;
    std::memcpy(&word, p, sizeof word);
    return word;
}

// Keys of 4 and 8 bytes, those that every frame looks up, are words and take no loop.
inline std::uint64_t key_hash(const void *key, std::size_t length)
{
    if (length == 4)
        return key_mix(key_word<std::uint32_t>(key));
    if (length == 8)
        return key_mix(key_word<std::uint64_t>(key));
    const auto *p = static_cast<const std::uint8_t *>(key);
    std::uint64_t h = length;
    for (; length >= 8; p += 8, length -= 8)
        h = key_mix(h ^ key_word<std::uint64_t>(p));
    if (length >= 4) {
        h = key_mix(h ^ key_word<std::uint32_t>(p));
        p += 4;
        length -= 4;
    }
    std::uint64_t rest = 0;
    for (; length != 0; ++p, --length)
        rest = rest << 8 | *p;
    return key_mix(h ^ rest);
}

inline bool key_equal(const void *a, const void *b, std::size_t length)
{
    if (length == 4)
        return key_word<std::uint32_t>(a) == key_word<std::uint32_t>(b);
    if (length == 8)
        return key_word<std::uint64_t>(a) == key_word<std::uint64_t>(b);
    return std::memcmp(a, b, length) == 0;
}

// Entries are pointers; `KeyOf` gives the key of one. A key length known when compiling spares each lookup its tests.
template <class Entry, class KeyOf, std::size_t KeyLength = 0> class key_index {
public:
    key_index(std::size_t key_length, KeyOf key_of) : own_key_length_(key_length), key_of_(key_of) {}

    [[nodiscard]] Entry *find(const void *key) const
    {
        if (count_ == 0)
            return nullptr;
        const std::uint64_t hash = key_hash(key, key_length());
        for (std::size_t i = hash & mask(); slots_[i].entry != nullptr; i = (i + 1) & mask())
            if (slots_[i].hash == hash && key_equal(key_of_(slots_[i].entry), key, key_length()))
                return slots_[i].entry;
        return nullptr;
    }

    void insert(Entry *entry)                                // its key is not there yet; may throw std::bad_alloc
    {
        if ((count_ + 1) * 2 > slots_.size())
            grow();
        place({key_hash(key_of_(entry), key_length()), entry});
        ++count_;
    }

    void erase(const void *key)
    {
        if (count_ == 0)
            return;
        const std::uint64_t hash = key_hash(key, key_length());
        for (std::size_t i = hash & mask(); slots_[i].entry != nullptr; i = (i + 1) & mask()) {
            if (slots_[i].hash != hash || !key_equal(key_of_(slots_[i].entry), key, key_length()))
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
    [[nodiscard]] std::size_t key_length() const { return KeyLength != 0 ? KeyLength : own_key_length_; }
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
    std::size_t own_key_length_;
    KeyOf key_of_;
};

} // namespace corvane
