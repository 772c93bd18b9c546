// Memory accounting: every allocation of a process under a module number and a memory type. A type may be capped by
// the platform's configuration; an allocation beyond the cap fails and is counted.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

void memacct_init(const char *description, std::uint32_t module, std::span<const char *const> type_names);
// 1: a failed allocation returns null instead of ending the process.
void memacct_ignore_alloc_abort(int ignore);
// Zeroed and aligned for any type; null when memory or the type's cap is exhausted.
[[nodiscard]] void *memacct_alloc(std::uint32_t module, std::uint32_t type, std::size_t size);
void memacct_free(std::uint32_t module, std::uint32_t type, void *memory);

struct memacct_usage {
    std::size_t bytes, blocks, cap_bytes;   // cap 0: none
    std::uint64_t refused;                  // allocations that failed
};
[[nodiscard]] memacct_usage memacct_usage_get(std::uint32_t type);
void memacct_cap_set(std::uint32_t type, std::size_t bytes);
