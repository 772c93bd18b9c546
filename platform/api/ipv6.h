// IPv6 stack client. Addresses are 16 bytes in network order.
#pragma once

#include "mbuf.h"
#include "mbus.h"

#include <array>
#include <cstddef>
#include <cstdint>

using ipv6_client = std::uint32_t;                      // 0 = none
using ipv6_address = std::array<std::uint8_t, 16>;

[[nodiscard]] ipv6_client ipv6_api_init();
void ipv6_api_close(ipv6_client client);
[[nodiscard]] bool ipv6_register(const char *name, mbus_q packet_queue, mbus_q main_queue, std::uint32_t flags,
                                 std::uint32_t contexts, ipv6_client client, std::uint32_t a, std::uint32_t b);
// Sends a finished packet. Takes the buffer over in every case. 0, or -1 (dropped and counted).
int ipv6_client_output(ipv6_client client, mbuf *packet, const ipv6_address &next_hop_hint, std::uint32_t mcast_iod);

[[nodiscard]] ipv6_address ipv6_if_address_get(std::uint32_t iod);              // a global address; all zero = none
void ipv6_group_join(std::uint32_t iod, const ipv6_address &group);
void ipv6_group_leave(std::uint32_t iod, const ipv6_address &group);

inline constexpr std::uint16_t IPV6_MSG_ADDRESS_CHANGE = 7;
struct ipv6_address_change {                            // payload on IP_NOTIFY_OPCODE, host byte order
    std::uint16_t msg_class;                            // IPV6_MSG_CLASS (ip.h)
    std::uint16_t kind;                                 // IPV6_MSG_ADDRESS_CHANGE
    std::uint32_t iod;
    ipv6_address old_address;
    ipv6_address new_address;
};
