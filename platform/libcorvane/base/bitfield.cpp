// Creation of bit fields: the object and its words in one block.
#include "bitfield.h"

#include "fault.h"

#include <cstdlib>
#include <new>

void bitfield_set_attr(bitfield_attr &attr, std::uint32_t a, std::uint32_t b, std::uint32_t c)
{
    attr.word[0] = a;
    attr.word[1] = b;
    attr.word[2] = c;
}

bitfield *bitfield_create(const bitfield_attr & /*attr*/, std::uint32_t bits)
{
    static_assert(sizeof(bitfield) % alignof(std::uint64_t) == 0);
    if (corvane::base_refuses("bitfield_create"))
        return nullptr;
    const std::size_t words = (std::size_t{bits} + 63) / 64;
    void *block = std::calloc(1, sizeof(bitfield) + words * sizeof(std::uint64_t));
    if (block == nullptr)
        return nullptr;
    auto *storage = reinterpret_cast<std::uint64_t *>(static_cast<std::uint8_t *>(block) + sizeof(bitfield));
    return new (block) bitfield(storage, bits);
}

void bitfield_destroy(bitfield *field)
{
    std::free(field);
}
