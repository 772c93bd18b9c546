// Methods of corvaned that libcorvane calls: service number << 16 | method. Requests and replies are the records
// named behind each, host byte order, packed (wire/bytes.h).
#pragma once

#include <cstdint>

namespace corvane {

inline constexpr std::uint32_t method(std::uint32_t service, std::uint32_t n) { return service << 16 | n; }

// Each service keeps its methods in its own header of this folder (wire/rtab.h, wire/intfmgr.h ...), under:
inline constexpr std::uint32_t METHOD_BUS = 1, METHOD_SVCMGR = 2, METHOD_SDB = 3, METHOD_PSTORE = 4, METHOD_LOG = 5,
                               METHOD_INTFMGR = 6, METHOD_VLANMGR = 7, METHOD_VRFMGR = 8, METHOD_IPMGR = 9,
                               METHOD_RTAB = 10, METHOD_CMDSRV = 11, METHOD_DROPS = 12, METHOD_PLATFORM = 13;

} // namespace corvane
