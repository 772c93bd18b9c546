// The few service calls that this folder's code makes, in their smallest form.
#pragma once

#include "mbus.h"
#include "timestamp.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string_view>
#include <vector>

using bytes = std::vector<std::uint8_t>;

namespace support {

extern bytes payload;                        // of every message
extern timestamp elapsed;
extern std::vector<bytes> route_updates;
extern std::size_t buffers_out;              // packet buffers not freed
extern bool no_buffers, copy_fails;
extern std::function<void()> on_yield;

void reset();

} // namespace support

bytes from_hex(std::string_view text);

template <class T> void append(bytes &out, T value)
{
    const auto *p = reinterpret_cast<const std::uint8_t *>(&value);
    out.insert(out.end(), p, p + sizeof value);
}
