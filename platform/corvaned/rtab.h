// Route table service, as the other services of this process use it.
#pragma once

#include <cstdint>

namespace corvaned {

// The iod names another interface from now on, or none: next hops over it go. May be called before rtab_start.
void rtab_forget_iod(std::uint32_t iod);

} // namespace corvaned
