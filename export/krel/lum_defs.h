// What other processes of the switch must know of the daemon by number: services, queues, opcodes, states, database.
// Plain constants that need nothing else. The layouts of what travels under these numbers are in lum.h.
#pragma once

#include <cstddef>
#include <cstdint>

// A field of a message or record: {offset, width} in bytes. Integers stand unaligned and in the byte order of the
// machine unless the field says otherwise.
struct lum_wire_field {
    std::size_t at, width;
};

// ---- the daemon

inline constexpr std::uint32_t LUM_SERVICE = 581;               // also the module number of its allocations
inline constexpr std::uint32_t LUM_MAIN_SAP = 442;              // requests and answers of clients go here
inline constexpr std::uint32_t LUM_PACKET_SAP = 440;
inline constexpr std::uint16_t LUM_UDP_PORT = 8472;             // of the encapsulation

// ---- notifications: sent to every process that subscribed to the opcode

inline constexpr std::uint32_t LUM_OPC_OVERLAY_CREATED = 78851; // status payload
inline constexpr std::uint32_t LUM_OPC_OVERLAY_DELETED = 78852; // status payload; each client answers with LUM_ACK
inline constexpr std::uint32_t LUM_OPC_OVERLAY_STATE = 78853;   // status payload; UP to not UP, or back
inline constexpr std::uint32_t LUM_OPC_OVERLAY_PARAMS = 78854;  // parameter payload
inline constexpr std::uint32_t LUM_OPC_OVERLAY_ADJ = 78856;     // adjacency payload, for an add and for a delete
inline constexpr std::uint32_t LUM_OPC_VLANS = 78857;           // VLAN payload
inline constexpr std::uint32_t LUM_OPC_SDB_CONTEXT = 78862;     // a record was written past the HA kit

// ---- requests and answers: sent to LUM_MAIN_SAP

inline constexpr std::uint32_t LUM_OPC_ACK_DELETED = 78852;     // answer to LUM_OPC_OVERLAY_DELETED, same opcode
inline constexpr std::uint32_t LUM_OPC_ADJ_ADD = 78858;
inline constexpr std::uint32_t LUM_OPC_ADJ_DELETE = 78859;
inline constexpr std::uint32_t LUM_OPC_SEND_PACKET = 78860;

// Opcodes that the daemon's shared database client owns.
inline constexpr std::uint32_t LUM_OPC_SDB_1 = 78861, LUM_OPC_SDB_2 = 78862;

// ---- shared database

inline constexpr char LUM_SDB_NAME[] = "lum_sdb_info";

enum lum_sdb_type : std::uint8_t {
    LUM_SDB_ADJ = 1,             // overlay adjacency
    LUM_SDB_OVERLAY = 2,
    LUM_SDB_VLAN = 3,
    LUM_SDB_GENINFO = 4,
};

// ---- values

inline constexpr std::uint32_t LUM_FAMILY_IPV4 = 4, LUM_FAMILY_IPV6 = 5;
inline constexpr std::uint32_t LUM_VLANS = 4096, LUM_PORTS = 768;
inline constexpr std::size_t LUM_NAME_SIZE = 101;               // of a VPN or interface name, with its terminator
inline constexpr std::size_t LUM_EXT_IFS = 9;                   // external interface slots; only slot 0 is configured
inline constexpr std::size_t LUM_VLAN_RANGES = 16;

enum lum_overlay_state : std::uint32_t { LUM_OVERLAY_NONE = 0, LUM_OVERLAY_DOWN = 1, LUM_OVERLAY_UP = 2 };
// Why an overlay is DOWN.
enum lum_overlay_reason : std::uint32_t {
    LUM_REASON_NONE = 0,
    LUM_REASON_INCOMPLETE = 1,
    LUM_REASON_ADMIN_DOWN = 2,
    LUM_REASON_DELETE_HOLDDOWN = 3,
};
enum lum_encap_type : std::uint32_t { LUM_ENCAP_GRE = 1, LUM_ENCAP_UDP = 2 };
