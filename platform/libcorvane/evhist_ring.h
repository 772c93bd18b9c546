// The event history under the HA kit's wrapper.
#pragma once

#include <cstdint>

namespace corvane {

[[nodiscard]] bool evhist_open(std::uint32_t entries, const char *name, std::uint32_t max_element, const char *facility);
void evhist_close();

} // namespace corvane
