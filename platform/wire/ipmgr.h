// Methods and messages of the IP stacks' control part.
#pragma once

#include "methods.h"

namespace corvane {

inline constexpr std::uint32_t IPMGR_SAP = 6;                // source of the address notifications

inline constexpr std::uint32_t
    IPMGR_REGISTER = method(METHOD_IPMGR, 1);   // u32 family (4, 5) -> -: announces that family's addresses once more

} // namespace corvane
