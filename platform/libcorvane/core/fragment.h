// Cuts an IPv4 or IPv6 packet into fragments for a network with a smaller MTU. Pure; nothing allocates.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace corvane {

class fragmenter {
public:
    // `packet` stays in place until the last fragment. False: it cannot be fragmented (DF, a header that must stay
    // whole and is not known here, an MTU too small for any payload, malformed).
    [[nodiscard]] bool begin_ipv4(const std::uint8_t *packet, std::size_t length, std::size_t mtu, std::uint16_t id);
    [[nodiscard]] bool begin_ipv6(const std::uint8_t *packet, std::size_t length, std::size_t mtu, std::uint32_t id);
    [[nodiscard]] bool more() const { return offset_ < payload_length_; }
    // Writes the next fragment to `out`, which holds `mtu` bytes. Result: its length.
    std::size_t next(std::uint8_t *out);

private:
    static constexpr std::size_t HEADER_MAX = 60;
    void write_ipv4(std::uint8_t *out, std::size_t share, bool last) const;
    void write_ipv6(std::uint8_t *out, std::size_t share, bool last) const;

    std::array<std::uint8_t, HEADER_MAX> first_header_{}, later_header_{};
    std::size_t header_length_ = 0;
    const std::uint8_t *payload_ = nullptr;
    std::size_t payload_length_ = 0, offset_ = 0, share_ = 0;
    std::uint16_t base_offset_ = 0;          // of a packet that is a fragment itself, in bytes
    bool more_behind_ = false;
    bool ipv6_ = false;
};

} // namespace corvane
