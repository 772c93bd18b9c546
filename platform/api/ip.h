// IPv4 stack client. Addresses are 32-bit words in host byte order.
#pragma once

#include "mbuf.h"
#include "mbus.h"

#include <cstddef>
#include <cstdint>

using ip_client = std::uint32_t;                        // 0 = none
[[nodiscard]] ip_client ip_api_init();
void ip_api_close(ip_client client);
// Address changes go to the main queue (opcode 0x14C01).
[[nodiscard]] bool ip_register(const char *name, mbus_q packet_queue, mbus_q main_queue, std::uint32_t flags,
                               std::uint32_t contexts, ip_client client, std::uint32_t a, std::uint32_t b);

// Sends a finished packet whose total length stands in host byte order; the stack puts length and header checksum
// right and sends the rest as it is. `mcast_iod`: interface for a multicast destination, 0 otherwise. Takes the
// buffer over in every case. 0, or -1 (dropped and counted).
int ip_cl_output(ip_client client, mbuf *packet, std::uint32_t mcast_iod);
// Sends an IP multicast packet in a frame of its own: out of the port `iod`, or flooded on the VLAN. Keeps the buffer.
int ip_cl_output_l2(mbuf *packet, std::uint32_t vlan, std::uint32_t iod, std::uint32_t flood, std::uint32_t a,
                    std::uint32_t b);

[[nodiscard]] std::uint16_t ip_checksum(const void *data, std::size_t length);  // RFC 1071, ready to be stored as it is
[[nodiscard]] std::uint32_t ip_bits2mask(std::uint32_t bits);                   // 0 to 32, others are clamped

[[nodiscard]] std::uint32_t ip_if_address_get(std::uint32_t iod);               // 0 = none
void ip_group_join(std::uint32_t iod, std::uint32_t group);
void ip_group_leave(std::uint32_t iod, std::uint32_t group);

// Notifications on opcode IP_NOTIFY_OPCODE of either family, told apart by their class.
inline constexpr std::uint32_t IP_NOTIFY_OPCODE = 0x14C01;
inline constexpr std::uint16_t IP_MSG_CLASS = 4, IPV6_MSG_CLASS = 6;
inline constexpr std::uint16_t IP_MSG_ADDRESS_CHANGE = 13;
struct ip_address_change {                              // payload, host byte order
    std::uint16_t msg_class;                            // IP_MSG_CLASS
    std::uint16_t kind;                                 // IP_MSG_ADDRESS_CHANGE
    std::uint32_t iod;
    std::uint32_t secondary;
    std::uint32_t change;                               // 0 removed, 1 added, 2 and 3: the interface keeps its address
    std::uint32_t reference;
    std::uint32_t address;
};
