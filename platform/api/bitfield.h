// Bit fields of a fixed size. Bit 0 is never a member in the walks: find_first and find_next return 0 for "no more".
#pragma once

#include <bit>
#include <cstdint>
#include <memory>

struct bitfield_attr {
    std::uint32_t word[3] = {0, 0, 0};
};

class bitfield;
void bitfield_set_attr(bitfield_attr &attr, std::uint32_t a, std::uint32_t b, std::uint32_t c);
[[nodiscard]] bitfield *bitfield_create(const bitfield_attr &attr, std::uint32_t bits);     // null: no memory
void bitfield_destroy(bitfield *field);                                                     // null is fine

// A bit outside the field reads as clear; setting it does nothing.
class bitfield {
public:
    bitfield(std::uint64_t *words, std::uint32_t bits) : words_(words), bits_(bits) {}
    [[nodiscard]] std::uint32_t bits() const { return bits_; }
    [[nodiscard]] bool test(std::uint32_t bit) const { return bit < bits_ && (words_[bit / 64] >> bit % 64 & 1) != 0; }
    void set(std::uint32_t bit) { if (bit < bits_) words_[bit / 64] |= std::uint64_t{1} << bit % 64; }
    void clear(std::uint32_t bit) { if (bit < bits_) words_[bit / 64] &= ~(std::uint64_t{1} << bit % 64); }
    void clear_all() { for (std::uint32_t i = 0; i < words(); ++i) words_[i] = 0; }
    [[nodiscard]] std::uint32_t count() const
    {
        std::uint32_t n = 0;
        for (std::uint32_t i = 0; i < words(); ++i)
            n += static_cast<std::uint32_t>(std::popcount(words_[i]));
        return n;
    }
    [[nodiscard]] std::uint32_t next(std::uint32_t after) const
    {
        for (std::uint32_t bit = after + 1; bit < bits_; bit = (bit / 64 + 1) * 64)
            if (const std::uint64_t rest = words_[bit / 64] >> bit % 64; rest != 0)
                return bit + static_cast<std::uint32_t>(std::countr_zero(rest));
        return 0;
    }

private:
    [[nodiscard]] std::uint32_t words() const { return (bits_ + 63) / 64; }
    std::uint64_t *words_;       // padding bits of the last word stay 0
    std::uint32_t bits_;
};

inline void bitfield_set(bitfield &f, std::uint32_t bit) { f.set(bit); }
inline void bitfield_clear(bitfield &f, std::uint32_t bit) { f.clear(bit); }
[[nodiscard]] inline bool bitfield_test(const bitfield &f, std::uint32_t bit) { return f.test(bit); }
[[nodiscard]] inline std::uint32_t bitfield_count_set(const bitfield &f) { return f.count(); }
[[nodiscard]] inline std::uint32_t bitfield_find_first_set(const bitfield &f) { return f.next(0); }
[[nodiscard]] inline std::uint32_t bitfield_find_next_set(const bitfield &f, std::uint32_t after) { return f.next(after); }
