// CRC-32C (Castagnoli), the checksum of SCTP. Pure.
#pragma once

#include <cstddef>
#include <cstdint>

namespace corvane {

[[nodiscard]] std::uint32_t crc32c(const std::uint8_t *data, std::size_t length);

} // namespace corvane
