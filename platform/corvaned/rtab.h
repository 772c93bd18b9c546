// Route table service, as the other services of this process use it.
#pragma once

#include <cstdint>

namespace corvane { struct rtab_shared; }

namespace corvaned {

// The iod names another interface from now on, or none: next hops over it go. May be called before rtab_start.
void rtab_forget_iod(std::uint32_t iod);
// The table as readers have it, null before rtab_start.
[[nodiscard]] const corvane::rtab_shared *rtab_shared_table();

} // namespace corvaned
