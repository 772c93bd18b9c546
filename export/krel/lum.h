// Layouts of everything that other processes exchange with the daemon: notifications, requests, database records. Each
// field is {offset, width} in bytes. Integers are in the byte order of the machine and stand unaligned; IPv4 addresses
// are integers too, IPv6 addresses are 16 bytes in network order, names end with a zero byte. Bytes between fields are
// zero. The daemon builds its messages from these very constants.
#pragma once

#include "lum_defs.h"

// ---- address record, 28 bytes, part of other layouts

inline constexpr std::size_t LUM_ADDRESS_SIZE = 28;
inline constexpr lum_wire_field LUM_ADDRESS_FAMILY{0, 4};       // LUM_FAMILY_IPV4 or LUM_FAMILY_IPV6
inline constexpr lum_wire_field LUM_ADDRESS_IPV4{4, 4};         // of family 4
inline constexpr lum_wire_field LUM_ADDRESS_IPV6{4, 16};        // of family 5
inline constexpr lum_wire_field LUM_ADDRESS_RESERVED{20, 8};

// ---- VLAN range list, 66 bytes, part of other layouts
//
// The count grows by the number of ranges with every change of the VLAN set and is no bound of the slots: there are
// never more than LUM_VLAN_RANGES of them, and slots behind the current ranges keep what they held before. Who needs
// the exact VLANs of an overlay reads the VLAN records and follows LUM_OPC_VLANS.

inline constexpr std::size_t LUM_RANGES_SIZE = 66;
inline constexpr lum_wire_field LUM_RANGES_COUNT{0, 2};
inline constexpr lum_wire_field LUM_RANGES_SLOTS{2, 64};        // 16 slots of LUM_RANGE_SIZE
inline constexpr std::size_t LUM_RANGE_SIZE = 4;
inline constexpr lum_wire_field LUM_RANGE_FIRST{0, 2};
inline constexpr lum_wire_field LUM_RANGE_LAST{2, 2};

// ---- status notification: LUM_OPC_OVERLAY_CREATED, _DELETED, _STATE

inline constexpr std::size_t LUM_STATUS_SIZE = 124;
inline constexpr lum_wire_field LUM_STATUS_IOD{0, 4};           // overlay interface
inline constexpr lum_wire_field LUM_STATUS_IFINDEX{4, 4};
inline constexpr lum_wire_field LUM_STATUS_IOD_AGAIN{8, 4};     // the overlay interface once more
inline constexpr lum_wire_field LUM_STATUS_STATE{12, 4};        // lum_overlay_state
inline constexpr lum_wire_field LUM_STATUS_REASON{16, 4};       // lum_overlay_reason
inline constexpr lum_wire_field LUM_STATUS_VPN_NAME{20, 101};
static_assert(LUM_STATUS_VPN_NAME.at + LUM_STATUS_VPN_NAME.width + 3 == LUM_STATUS_SIZE);

// ---- answer to LUM_OPC_OVERLAY_DELETED: once every client that needs the overlay is done with it. Longer is fine.

inline constexpr std::size_t LUM_ACK_SIZE = 4;
inline constexpr lum_wire_field LUM_ACK_IOD{0, 4};

// ---- parameter notification: LUM_OPC_OVERLAY_PARAMS

inline constexpr std::size_t LUM_PARAMS_SIZE = 280;
inline constexpr lum_wire_field LUM_PARAMS_IOD{0, 4};           // overlay interface
inline constexpr lum_wire_field LUM_PARAMS_IFINDEX{4, 4};
inline constexpr lum_wire_field LUM_PARAMS_EXT_IODS{12, 36};    // LUM_EXT_IFS x u32: external interfaces, 0 = none
inline constexpr lum_wire_field LUM_PARAMS_VPN_NAME{48, 101};
inline constexpr lum_wire_field LUM_PARAMS_IPV4_GROUP{152, 4};  // 0 = none
inline constexpr lum_wire_field LUM_PARAMS_IPV6_GROUP{156, 16}; // all zero = none
inline constexpr lum_wire_field LUM_PARAMS_RANGES{172, 66};     // VLAN range list
inline constexpr lum_wire_field LUM_PARAMS_STATE{240, 4};       // lum_overlay_state
inline constexpr lum_wire_field LUM_PARAMS_REASON{244, 4};      // lum_overlay_reason
inline constexpr lum_wire_field LUM_PARAMS_EXT_IPV4{256, 4};    // own address on the external interface, 0 = none
inline constexpr lum_wire_field LUM_PARAMS_EXT_IPV6{260, 16};   // the same, all zero = none
static_assert(LUM_PARAMS_EXT_IPV6.at + LUM_PARAMS_EXT_IPV6.width + 4 == LUM_PARAMS_SIZE);

// ---- adjacency notification: LUM_OPC_OVERLAY_ADJ. A zero system id tells a delete from an add.

inline constexpr std::size_t LUM_ADJ_NOTIFY_SIZE = 48;
inline constexpr lum_wire_field LUM_ADJ_NOTIFY_IOD{0, 4};       // overlay interface
inline constexpr lum_wire_field LUM_ADJ_NOTIFY_ADDRESS{8, 28};  // address record of the remote edge device
inline constexpr lum_wire_field LUM_ADJ_NOTIFY_SYSTEM_ID{36, 6};
inline constexpr lum_wire_field LUM_ADJ_NOTIFY_TUNNEL{44, 4};   // iod of the static tunnel, 0 = none; 0 in a delete
static_assert(LUM_ADJ_NOTIFY_TUNNEL.at + LUM_ADJ_NOTIFY_TUNNEL.width == LUM_ADJ_NOTIFY_SIZE);

// ---- VLAN notification: LUM_OPC_VLANS. A head, then `count` elements; no element is a valid message.

inline constexpr std::size_t LUM_VLANS_HEAD_SIZE = 8;
inline constexpr lum_wire_field LUM_VLANS_LENGTH{0, 4};         // bytes behind the head: count x LUM_VLANS_ELEMENT_SIZE
inline constexpr lum_wire_field LUM_VLANS_COUNT{4, 4};
inline constexpr std::size_t LUM_VLANS_ELEMENT_SIZE = 12;
inline constexpr lum_wire_field LUM_VLANS_ELEMENT_VLAN{0, 4};
inline constexpr lum_wire_field LUM_VLANS_ELEMENT_IOD{4, 4};    // overlay that carries the VLAN now, 0 = none
inline constexpr lum_wire_field LUM_VLANS_ELEMENT_AED{8, 4};    // 1: this device is authoritative for the VLAN

// ---- adjacency request: LUM_OPC_ADJ_ADD, LUM_OPC_ADJ_DELETE. A shorter one is dropped.

inline constexpr std::size_t LUM_ADJ_REQUEST_SIZE = 47;
inline constexpr lum_wire_field LUM_ADJ_REQUEST_IOD{0, 4};      // overlay interface
inline constexpr lum_wire_field LUM_ADJ_REQUEST_SYSTEM_ID{4, 6};
inline constexpr lum_wire_field LUM_ADJ_REQUEST_ADDRESS{11, 28};// address record; of an overlay adjacency
inline constexpr lum_wire_field LUM_ADJ_REQUEST_SITE{39, 4};    // 1: site adjacency, 0: overlay adjacency
inline constexpr lum_wire_field LUM_ADJ_REQUEST_LOCAL{43, 4};   // of a site adjacency, 1: this is the device itself
static_assert(LUM_ADJ_REQUEST_LOCAL.at + LUM_ADJ_REQUEST_LOCAL.width == LUM_ADJ_REQUEST_SIZE);

// ---- send-packet request: LUM_OPC_SEND_PACKET floods a frame to the site ports of a VLAN
//
// The frame stands from its Ethernet header on, without a VLAN tag: where the port is a trunk it gets the VLAN's. It
// leaves with the addresses of the request's head, whatever stands in its own first 12 bytes.

inline constexpr std::size_t LUM_SEND_PACKET_HEAD_SIZE = 26;    // the frame follows, 14 to 65,535 bytes
inline constexpr lum_wire_field LUM_SEND_PACKET_VLAN{0, 4};
inline constexpr lum_wire_field LUM_SEND_PACKET_SKIP_IOD{4, 4}; // port to leave out, 0 = none
inline constexpr lum_wire_field LUM_SEND_PACKET_DESTINATION{8, 6};
inline constexpr lum_wire_field LUM_SEND_PACKET_SOURCE{14, 6};
inline constexpr lum_wire_field LUM_SEND_PACKET_OPTION1{20, 1}; // handed to the packet service when not zero
inline constexpr lum_wire_field LUM_SEND_PACKET_OPTION2{21, 1}; // likewise
inline constexpr lum_wire_field LUM_SEND_PACKET_LENGTH{22, 4};  // of the frame

// ---- keys of the database: 33 bytes, zero where the record type uses none

inline constexpr std::size_t LUM_SDB_KEY_SIZE = 33;
inline constexpr lum_wire_field LUM_KEY_TYPE{0, 1};             // lum_sdb_type
inline constexpr lum_wire_field LUM_KEY_OVERLAY_IOD{1, 4};      // LUM_SDB_OVERLAY and LUM_SDB_ADJ
inline constexpr lum_wire_field LUM_KEY_ADJ_IPV4{9, 4};         // LUM_SDB_ADJ, family 4
inline constexpr lum_wire_field LUM_KEY_ADJ_IPV6{9, 16};        // LUM_SDB_ADJ, family 5
inline constexpr lum_wire_field LUM_KEY_VLAN{1, 4};             // LUM_SDB_VLAN

// ---- value of LUM_SDB_OVERLAY

inline constexpr std::size_t LUM_SDB_OVERLAY_SIZE = 312;
inline constexpr lum_wire_field LUM_SDB_OVERLAY_IOD{0, 4};
inline constexpr lum_wire_field LUM_SDB_OVERLAY_IFINDEX{4, 4};
inline constexpr lum_wire_field LUM_SDB_OVERLAY_EXT_IODS{12, 36};         // LUM_EXT_IFS x u32, 0 = none
inline constexpr lum_wire_field LUM_SDB_OVERLAY_VPN_NAME{48, 101};
inline constexpr lum_wire_field LUM_SDB_OVERLAY_IPV4_GROUP_FAMILY{149, 4};   // always 4
inline constexpr lum_wire_field LUM_SDB_OVERLAY_IPV4_GROUP{153, 4};          // 0 = none
inline constexpr lum_wire_field LUM_SDB_OVERLAY_IPV6_GROUP_FAMILY{177, 4};   // always 5
// The IPv6 group stands behind two words, and only its first 8 bytes: readers rely on this placement. All 16 bytes are
// zero while no IPv6 group was ever configured.
inline constexpr lum_wire_field LUM_SDB_OVERLAY_IPV6_GROUP{189, 16};
inline constexpr lum_wire_field LUM_SDB_OVERLAY_IPV6_GROUP_IOD{189, 4};      // the overlay's iod
inline constexpr lum_wire_field LUM_SDB_OVERLAY_IPV6_GROUP_TAG{193, 4};      // 5
inline constexpr lum_wire_field LUM_SDB_OVERLAY_IPV6_GROUP_HEAD{197, 8};     // first 8 bytes of the address
inline constexpr lum_wire_field LUM_SDB_OVERLAY_RANGES{206, 66};             // VLAN range list
inline constexpr lum_wire_field LUM_SDB_OVERLAY_STATE{272, 4};               // lum_overlay_state
inline constexpr lum_wire_field LUM_SDB_OVERLAY_REASON{276, 4};              // lum_overlay_reason
inline constexpr lum_wire_field LUM_SDB_OVERLAY_ENCAP_TYPE{280, 4};          // lum_encap_type
inline constexpr lum_wire_field LUM_SDB_OVERLAY_ENCAP_FAMILY{284, 4};        // 4 or 5
inline constexpr lum_wire_field LUM_SDB_OVERLAY_EXT_IPV4{288, 4};
inline constexpr lum_wire_field LUM_SDB_OVERLAY_EXT_IPV6{292, 16};
inline constexpr lum_wire_field LUM_SDB_OVERLAY_CONTEXT_ID{308, 4};          // VRF of the external interface
static_assert(LUM_SDB_OVERLAY_CONTEXT_ID.at + LUM_SDB_OVERLAY_CONTEXT_ID.width == LUM_SDB_OVERLAY_SIZE);

// ---- value of LUM_SDB_VLAN

inline constexpr std::size_t LUM_SDB_VLAN_SIZE = 16;
inline constexpr lum_wire_field LUM_SDB_VLAN_VLAN{0, 4};
inline constexpr lum_wire_field LUM_SDB_VLAN_OVERLAY_IOD{4, 4};              // 0: no overlay carries it
inline constexpr lum_wire_field LUM_SDB_VLAN_AED{8, 4};                      // 1: authoritative
inline constexpr lum_wire_field LUM_SDB_VLAN_SITE{12, 4};                    // 1: it is the site VLAN
static_assert(LUM_SDB_VLAN_SITE.at + LUM_SDB_VLAN_SITE.width == LUM_SDB_VLAN_SIZE);

// ---- value of LUM_SDB_GENINFO

inline constexpr std::size_t LUM_SDB_GENINFO_SIZE = 4;
inline constexpr lum_wire_field LUM_SDB_GENINFO_SITE_VLAN{0, 4};             // 0 = none

// ---- value of LUM_SDB_ADJ

inline constexpr std::size_t LUM_SDB_ADJ_SIZE = 44;
inline constexpr lum_wire_field LUM_SDB_ADJ_IOD{0, 4};
inline constexpr lum_wire_field LUM_SDB_ADJ_ADDRESS{4, 28};                  // address record
inline constexpr lum_wire_field LUM_SDB_ADJ_SYSTEM_ID{32, 6};
inline constexpr lum_wire_field LUM_SDB_ADJ_TUNNEL{40, 4};                   // iod of the static tunnel, 0 = none
static_assert(LUM_SDB_ADJ_TUNNEL.at + LUM_SDB_ADJ_TUNNEL.width == LUM_SDB_ADJ_SIZE);

// ---- message on LUM_OPC_SDB_CONTEXT: the database's context of the write, zero behind it

inline constexpr std::size_t LUM_SDB_CONTEXT_SIZE = 100;
