// Bounds-checked writing and reading of host-order records: what libcorvane and corvaned say to each other.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace corvane {

using byte_view = std::span<const std::uint8_t>;

class byte_writer {
public:
    template <class T> byte_writer &put(T value)
    {
        static_assert(std::is_trivially_copyable_v<T>);
        const std::size_t at = bytes_.size();
        bytes_.resize(at + sizeof value);
        std::memcpy(bytes_.data() + at, &value, sizeof value);
        return *this;
    }
    byte_writer &raw(byte_view data)
    {
        bytes_.insert(bytes_.end(), data.begin(), data.end());
        return *this;
    }
    byte_writer &text(std::string_view s)                    // u32 length, bytes
    {
        put(static_cast<std::uint32_t>(s.size()));
        bytes_.insert(bytes_.end(), s.begin(), s.end());
        return *this;
    }
    byte_writer &blob(byte_view b)                           // u32 length, bytes
    {
        put(static_cast<std::uint32_t>(b.size()));
        return raw(b);
    }
    [[nodiscard]] byte_view view() const { return bytes_; }
    [[nodiscard]] std::size_t size() const { return bytes_.size(); }
    std::vector<std::uint8_t> take() { return std::move(bytes_); }

private:
    std::vector<std::uint8_t> bytes_;
};

// A read past the end yields zero or nothing and clears ok(); callers check ok() once, before they act.
class byte_reader {
public:
    explicit byte_reader(byte_view data) : rest_(data) {}
    template <class T> T get()
    {
        static_assert(std::is_trivially_copyable_v<T>);
        T value{};
        if (rest_.size() < sizeof value) {
            fail();
            return value;
        }
        std::memcpy(&value, rest_.data(), sizeof value);
        rest_ = rest_.subspan(sizeof value);
        return value;
    }
    byte_view raw(std::size_t length)
    {
        if (rest_.size() < length) {
            fail();
            return {};
        }
        const byte_view result = rest_.first(length);
        rest_ = rest_.subspan(length);
        return result;
    }
    byte_view blob() { return raw(get<std::uint32_t>()); }
    std::string text()
    {
        const byte_view b = blob();
        return {reinterpret_cast<const char *>(b.data()), b.size()};
    }
    [[nodiscard]] byte_view rest() const { return rest_; }
    [[nodiscard]] bool ok() const { return ok_; }
    [[nodiscard]] bool done() const { return ok_ && rest_.empty(); }

private:
    void fail() { ok_ = false; rest_ = {}; }
    byte_view rest_;
    bool ok_ = true;
};

} // namespace corvane
