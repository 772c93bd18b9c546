// Methods of the log.
#pragma once

#include "methods.h"

#include <cstddef>

namespace corvane {

inline constexpr std::uint32_t LOG_LINE = method(METHOD_LOG, 1);   // one way: u32 severity, text name, text line
inline constexpr std::size_t LOG_LINE_MAX = 8192;

} // namespace corvane
