// The VLAN manager's own numbers; what clients send and get is in the client interface.
#pragma once

#include <cstdint>

namespace corvane {

inline constexpr std::uint32_t SVC_VLANMGR = 321;            // among the services

} // namespace corvane
