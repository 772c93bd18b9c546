// What each fuzz target defines: the function that eats an input, and the seeds it starts from, made by the project's
// own builders. A target must come back to the same state after each input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

namespace fuzz {

using input = std::vector<std::uint8_t>;
[[nodiscard]] std::vector<input> seeds();

// What must hold after each input; a fuzzer takes the trap as a finding.
inline void require(bool holds)
{
    if (!holds)
        __builtin_trap();
}

} // namespace fuzz
