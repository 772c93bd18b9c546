// What ip_cl_output and ipv6_client_output do once the interface is known by its ifindex.
#pragma once

#include "packet_buffer.h"

#include <cstdint>

namespace corvane {

// `packet` holds exactly one IPv4 packet whose total length is in host order, or one IPv6 packet. `ifindex`: device of a
// multicast packet, 0 otherwise. Takes the buffer over. 0, or -1 (counted).
int core_output_ipv4(mbuf *packet, std::uint32_t ifindex);
int core_output_ipv6(mbuf *packet, std::uint32_t ifindex);

} // namespace corvane
