// Memory types that every allocation of the process is accounted under.
#pragma once

#include <cstdint>

enum lum_mem_type_t : std::uint32_t {
    LUM_MEM_TYPE_NONE = 0,
    LUM_MEM_TYPE_OVERLAY = 1,
    LUM_MEM_TYPE_RTAB_BUFFER = 2,
    LUM_MEM_TYPE_STATIC = 3,
    LUM_MEM_TYPE_PACKET = 4,
    LUM_MEM_TYPE_INTERFACE_PT = 5,
    LUM_MEM_TYPE_ARP_ND_CACHE = 6,
    LUM_MEM_TYPE_ADJ = 7,
    LUM_MEM_TYPE_MAX = 8,        // end marker, registered nowhere
};

// Name of a type, null for a value beyond the table.
[[nodiscard]] const char *__lum_mem_type_t_find(std::uint32_t value);
// Type of a name, upper or lower case; LUM_MEM_TYPE_NONE when there is none.
[[nodiscard]] lum_mem_type_t __lum_mem_type_t_str2enum(const char *name);
