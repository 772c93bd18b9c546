// PIM hello builder (RFC 7761): an IPv4 packet to 224.0.0.13.
#pragma once

#include "mbuf.h"

[[nodiscard]] mbuf *pim_api_create_hello_pkt(std::uint32_t vlan, std::uint32_t a, std::uint32_t b, std::uint32_t c);
