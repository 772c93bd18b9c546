// Bytes with readers in network and host order. A read past the end throws, which fails the test that made it.
#pragma once

#include "ipv6.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace fake {

class bytes : public std::vector<std::uint8_t> {
public:
    using std::vector<std::uint8_t>::vector;
    bytes(std::span<const std::uint8_t> data) : vector(data.begin(), data.end()) {}

    [[nodiscard]] std::uint8_t u8(std::size_t offset) const { return vector::at(offset); }
    [[nodiscard]] std::uint16_t be16(std::size_t offset) const
    {
        return static_cast<std::uint16_t>(u8(offset) << 8 | u8(offset + 1));
    }
    [[nodiscard]] std::uint32_t be32(std::size_t offset) const
    {
        return std::uint32_t{be16(offset)} << 16 | be16(offset + 2);
    }
    template <class T> [[nodiscard]] T host(std::size_t offset) const
    {
        static_assert(std::is_trivially_copyable_v<T>);
        check(offset, sizeof(T));
        T value{};
        std::memcpy(&value, data() + offset, sizeof value);
        return value;
    }
    [[nodiscard]] std::uint16_t host16(std::size_t offset) const { return host<std::uint16_t>(offset); }
    [[nodiscard]] std::uint32_t host32(std::size_t offset) const { return host<std::uint32_t>(offset); }
    [[nodiscard]] std::uint64_t host64(std::size_t offset) const { return host<std::uint64_t>(offset); }
    [[nodiscard]] std::array<std::uint8_t, 6> mac(std::size_t offset) const
    {
        return host<std::array<std::uint8_t, 6>>(offset);
    }
    [[nodiscard]] ipv6_address ipv6(std::size_t offset) const { return host<ipv6_address>(offset); }
    [[nodiscard]] std::string text(std::size_t offset, std::size_t size) const   // up to its terminator
    {
        const bytes field = range(offset, size);
        const std::string all(field.begin(), field.end());
        return all.substr(0, all.find('\0'));
    }
    [[nodiscard]] bytes range(std::size_t offset, std::size_t length) const
    {
        check(offset, length);
        return bytes(std::span<const std::uint8_t>(data() + offset, length));
    }
    [[nodiscard]] bytes from(std::size_t offset) const
    {
        check(offset, 0);
        return range(offset, size() - offset);
    }

    // Builders: each appends and gives the object back.
    bytes &add8(unsigned value) { push_back(static_cast<std::uint8_t>(value)); return *this; }
    bytes &add_be16(unsigned value) { return add8(value >> 8).add8(value); }
    bytes &add_be32(std::uint32_t value) { return add_be16(value >> 16).add_be16(value & 0xFFFF); }
    template <class T> bytes &add_host(const T &value)
    {
        static_assert(std::is_trivially_copyable_v<T>);
        const std::size_t before = size();
        resize(before + sizeof value);
        std::memcpy(data() + before, &value, sizeof value);
        return *this;
    }
    bytes &add_host16(std::uint16_t value) { return add_host(value); }
    bytes &add_host32(std::uint32_t value) { return add_host(value); }
    bytes &add(std::span<const std::uint8_t> data) { insert(end(), data.begin(), data.end()); return *this; }
    bytes &add(std::initializer_list<std::uint8_t> data) { insert(end(), data); return *this; }
    bytes &add_zeros(std::size_t count) { insert(end(), count, std::uint8_t{0}); return *this; }
    bytes &set_be16(std::size_t offset, unsigned value)
    {
        vector::at(offset) = static_cast<std::uint8_t>(value >> 8);
        vector::at(offset + 1) = static_cast<std::uint8_t>(value);
        return *this;
    }

    friend bool operator<(const bytes &a, const bytes &b)
    {
        const std::size_t common = std::min(a.size(), b.size());
        const int order = common == 0 ? 0 : std::memcmp(a.data(), b.data(), common);
        return order != 0 ? order < 0 : a.size() < b.size();
    }

private:
    void check(std::size_t offset, std::size_t length) const
    {
        if (offset > size() || length > size() - offset)
            throw std::out_of_range("read past the end of " + std::to_string(size()) + " bytes");
    }
};

// From annotated hexadecimal: blanks and everything from '#' to the line's end are skipped.
[[nodiscard]] bytes hex(std::string_view text);
[[nodiscard]] std::string to_hex(std::span<const std::uint8_t> data);

} // namespace fake
