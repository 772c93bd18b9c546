// Small clients that corvaned starts beside the daemon.
#pragma once

#include <cstdint>

namespace corvane {

inline constexpr std::uint32_t SVC_LUM_ACK = 583;            // corvack: acknowledges deletions when nobody else does

} // namespace corvane
