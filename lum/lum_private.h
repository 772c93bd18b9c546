// What the units of the daemon share: records, globals, and the functions of each unit that others call. Everything
// here is used under the process lock, which is why no table carries a lock of its own.
#pragma once

#include "active_timer.h"
#include "avlt.h"
#include "bitfield.h"
#include "cli.h"
#include "corvane_thread.h"
#include "hakit.h"
#include "intfmgr.h"
#include "ip.h"
#include "ipv6.h"
#include "lum.h"
#include "lum_mem_types.h"
#include "mbus.h"
#include "net_l2.h"
#include "plock.h"
#include "pt.h"
#include "rqueue.h"
#include "rtab.h"
#include "sdb.h"
#include "thread_annotations.h"
#include "timestamp.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#define LUM_LOCKED CORVANE_REQUIRES(plock_process_lock)

// Identifiers, states and the layouts that other processes see are in lum.h.

// Results of a main-loop handler.
inline constexpr int LUM_KEEP = 1, LUM_DONE = 0, LUM_NOT_HANDLED = -1;

// ---- addresses

using lum_mac_info = rtab_mac_info;
using lum_addr = rtab_addr;

enum lum_addr_kind : std::uint32_t {
    LUM_ADDR_EMPTY = 0,
    LUM_ADDR_IOD = 1,
    LUM_ADDR_IFINDEX = 2,
    LUM_ADDR_MAC = 3,
    LUM_ADDR_IPV4 = 4,
    LUM_ADDR_IPV6 = 5,
    LUM_ADDR_NEXT_HOP = 6,       // an IP next hop or group, with the overlay it belongs to
};

// ---- overlays

struct lum_ext_if {
    char name[104];              // written with a bound of 101
    std::uint32_t iod;           // 0 while the name does not resolve
    std::uint32_t reserved;
};

struct lum_vlan_range {
    std::uint16_t first, last;
};
struct lum_vlan_range_list {
    std::uint16_t count;         // grows with every rebuild, deliberate: readers know it as the number of rebuilt ranges
    lum_vlan_range range[LUM_VLAN_RANGES];
};
static_assert(sizeof(lum_vlan_range_list) == LUM_RANGES_SIZE);

struct lum_ipv4_range {
    std::uint32_t base;          // host order
    std::uint8_t length;
};
struct lum_ipv6_range {
    ipv6_address base;
    std::uint8_t length;
};

// A site adjacency: an edge device of our own site, this one included.
struct lum_site_adj {
    lum_site_adj *next, *previous;
    std::array<std::uint8_t, 6> system_id;                      // sort key, most significant byte first
    std::uint32_t reserved;
    std::uint32_t adder_value;
    std::uint32_t ordinal;
    std::uint32_t local;
};

struct lum_overlay {
    avlt_node node;              // the record is the tree's node: 16 bytes, the key right behind it
    std::uint32_t iod;
    std::uint32_t ifindex;
    std::uint32_t vpn_id;
    std::uint32_t ext_if_count;
    lum_ext_if ext_if[LUM_EXT_IFS];
    char if_name[LUM_NAME_SIZE];
    char vpn_name[LUM_NAME_SIZE];
    lum_addr ipv4_group;         // kind LUM_ADDR_NEXT_HOP, family 4
    lum_addr ipv6_group;         // kind LUM_ADDR_NEXT_HOP, family 5
    lum_vlan_range_list vlan_ranges;
    bitfield *vlans;
    std::uint32_t state;         // lum_overlay_state
    std::uint32_t reason;        // lum_overlay_reason
    mbus_msg delete_msg;         // the held message that triggered the deletion, empty when none
    std::uint32_t notify_pending;
    std::uint32_t delete_holddown;
    std::uint32_t made_again;    // its interface was, while the deletion waits: a new record takes this one's place
    std::uint32_t encap_type;    // lum_encap_type
    std::uint32_t encap_family;
    std::uint32_t ext_ipv4;      // host order
    ipv6_address ext_ipv6;
    std::uint32_t context_id;
    std::uint32_t vlan_refcount;
    std::uint32_t suppress_arp;
    lum_ipv4_range data_group;
    lum_ipv6_range data_group6;
    lum_site_adj *adj_head, *adj_tail;
    std::uint32_t adj_count;
    std::uint32_t local_ordinal;
    pt_tree arp_nd_cache;
};
static_assert(offsetof(lum_overlay, iod) == AVLT_NODE_SIZE);

struct lum_svr_record {
    avlt_tree overlays;
    pt_attr pt_attr10, pt_attr4, pt_attr16;
    std::uint32_t reserved;
    std::uint32_t site_vlan;     // 0 = none
};
extern lum_svr_record lum_svr;

// ---- VLANs and ports

struct lum_vlan {
    std::uint32_t vlan;          // 0 while not in use
    bitfield *ports;             // members, by iod
    bitfield *blocked;           // members that get no flooded frames
    std::uint8_t in_use;
    std::uint8_t site_vlan;
    std::uint8_t aed;            // this device forwards the VLAN into and out of its overlay
    std::uint8_t notify;         // a VLAN notification is due
    std::uint32_t mrd_enabled;
    active_timer mrd_timer;
    lum_overlay *overlay;
};
extern std::array<lum_vlan, LUM_VLANS> lum_vlans;

struct lum_port {
    std::uint32_t iod;
    std::uint32_t vlan;          // access VLAN
    std::uint8_t trunk;          // frames leave with their tag
};
extern pt_tree lum_interface_pt;

// ---- ARP/ND cache

struct lum_arp_nd_entry {
    lum_addr address;            // kind LUM_ADDR_IPV4 or LUM_ADDR_IPV6
    lum_mac_info mac;
    timestamp created;
};
inline constexpr std::size_t LUM_ANYCAST_ADDRS = 8;
extern std::array<lum_addr, LUM_ANYCAST_ADDRS> lum_anycast_arp_addrs;
extern std::uint32_t lum_any_anycast_arp_addrs;

// ---- static routes and tunnels

struct lum_static_entry {
    rqueue_link link;
    lum_mac_info mac;            // zero in a tunnel
    lum_addr next_hop;           // a tunnel's remote address: kind LUM_ADDR_IPV4 or LUM_ADDR_IPV6
    char if_name[40];            // not terminated when 40 long
    lum_static_entry *chain;     // next route whose MAC falls on the same place of the index
};
extern rqueue lum_staticQ, lum_static_tunnelQ;

// ---- process-wide state

extern std::uint32_t lum_packet_debug_flag, lum_learn_debug_flag, lum_internal_debug_flag, lum_event_debug_flag,
    lum_arp_nd_debug_flag;
extern lum_addr lum_packet_debug_sa, lum_packet_debug_da;
extern std::uint32_t lum_packet_debug_unicast, lum_packet_debug_multicast, lum_packet_debug_broadcast;
extern std::uint32_t lum_chassis_ferrix, lum_sup_state_active, lum_sup_state_recovery_wait;
extern std::uint32_t lum_filter_fhrp;
extern std::uint32_t lum_cli_initialized, lum_rtab_initialized, lum_ip_initialized, lum_ipv6_initialized,
    lum_udp_initialized, lum_ifmgr_initialized, lum_pm_initialized, lum_vrfmgr_initialized, lum_igmp_initialized;
extern mbus_q lum_mbus_q, lum_pm_mbus_q;
extern net_l2_handle lum_net_l2_handle;
extern ip_client lum_ip_client;
extern ipv6_client lum_ipv6_client;
extern bitfield_attr lum_bf_attr;
extern pt_attr lum_pt_attr;
extern std::uint8_t lum_at_set_wheel, lum_at_set_heap;
extern active_timer lum_learn_timer, lum_heartbeat_timer;
extern timestamp lum_next_age_time;
extern hakit_sdb lum_sdb_handle;
extern mbus_msg lum_pending_msg;
extern std::uint32_t lum_pending_msg_count;

// ---- lum_main: start-up, client bring-up, sockets, timers

extern corvane_pthread_attr lum_thread_attr;
extern pthread_t lum_ipc_thread, lum_pm_thread;
extern std::uint32_t lum_ipc_thread_exists;             // started and not yet joined
extern int lum_ip_udp_sid, lum_ipv6_udp_sid;            // -1 when closed
extern std::uint32_t lum_ip_udp_bound, lum_ipv6_udp_bound;      // the socket has all its options and its port
extern pthread_t lum_ip_udp_thread, lum_ipv6_udp_thread;        // a receive thread ends when its id reads 0
int lum_process_main(int argc, char **argv);
bool lum_init() LUM_LOCKED;
bool lum_check_sup_state();
bool lum_init_memacct();
bool lum_init_plock();
bool lum_init_mbus();
bool lum_register_opcodes();
bool lum_init_ds();
bool lum_init_timers();
bool lum_init_ha();
bool lum_init_svcmgr();
bool lum_init_bitfields();
bool lum_init_pt();
void lum_request_component_notifications(std::uint32_t active);
void lum_process_svcmgr_notify_up(std::uint32_t service) LUM_LOCKED;
void lum_process_svcmgr_notify_down(std::uint32_t service) LUM_LOCKED;
bool lum_init_ip();
bool lum_init_ipv6();
bool lum_init_ifmgr();
bool lum_init_pm();
bool lum_init_vrfmgr();
bool lum_init_igmp();
int lum_init_udp() LUM_LOCKED;                          // 1 on success, 0
int lum_close_udp() LUM_LOCKED;                         // 1
void *lum_ip_udp_main(void *) ;
void *lum_ipv6_udp_main(void *);
int lum_wait_for_ip_input() LUM_LOCKED;                 // the readable socket
int lum_wait_for_ipv6_input() LUM_LOCKED;
void lum_process_learn_timer(void *);                   // timer callbacks: run with the process lock held
void lum_process_mrd_timer(void *vlan);
void lum_process_heartbeat_timer(void *);
inline constexpr std::uint32_t LUM_LEARN_PERIOD_S = 15;
void lum_set_next_age_time();                           // a whole ageing interval from now
void lum_ager() LUM_LOCKED;
void lum_send_buffer_to_rtab(const char *who) LUM_LOCKED;
bool lum_data_in_last_minute(const timestamp &seen);

// ---- lum: main loop, dispatch, inbound messages

void *lum_main(void *);                                 // thread body of lum-ipc-thread
int lum_dispatch(mbus_msg &msg) LUM_LOCKED;             // LUM_KEEP, LUM_DONE or LUM_NOT_HANDLED
int lum_process_overlay_delete_notify_msg(mbus_msg &msg) LUM_LOCKED;
int lum_process_ip_msg(mbus_msg &msg) LUM_LOCKED;       // of either family
int lum_process_ipv6_msg(mbus_msg &msg) LUM_LOCKED;
int lum_process_if_create_msg(mbus_msg &msg) LUM_LOCKED;
int lum_process_if_delete_msg(mbus_msg &msg) LUM_LOCKED;
int lum_process_l3_state_change_msg(mbus_msg &msg) LUM_LOCKED;
int lum_process_l3_param_change_msg(mbus_msg &msg) LUM_LOCKED;
int lum_process_send_packet_msg(mbus_msg &msg) LUM_LOCKED;

// ---- lum_ha

int lum_switchover();
void lum_switchover_done();
int lum_handle_featmgr_enable_msg(mbus_msg &msg) LUM_LOCKED;
int lum_handle_featmgr_disable_msg(mbus_msg &msg) LUM_LOCKED;
void lum_cleanup() LUM_LOCKED;

// ---- lum_vlan: VLAN table and port membership

void lum_vlan_vlandb_init(lum_vlan &entry, std::uint32_t vlan) LUM_LOCKED;
void lum_vlan_vlandb_retire(lum_vlan &entry) LUM_LOCKED;
void lum_vlan_add_port(lum_vlan &entry, std::uint32_t iod) LUM_LOCKED;
void lum_vlan_delete_port(lum_vlan &entry, std::uint32_t iod) LUM_LOCKED;
void lum_vlan_block_port(lum_vlan &entry, std::uint32_t iod) LUM_LOCKED;
void lum_vlan_forward_port(lum_vlan &entry, std::uint32_t iod) LUM_LOCKED;
bool lum_vlan_has_ports(const lum_vlan *entry) LUM_LOCKED;
lum_port *lum_vlan_up_on_port(std::uint32_t iod, std::uint32_t vlan, std::uint32_t up, std::uint32_t trunk) LUM_LOCKED;
void lum_vlan_down_on_port(std::uint32_t iod, std::uint32_t vlan, std::uint32_t up, std::uint32_t trunk) LUM_LOCKED;
int lum_intfmgr_l2_protocol_state_change(mbus_msg &msg) LUM_LOCKED;
int lum_vlan_query_ports(std::uint32_t vlan) LUM_LOCKED;
void lum_vlan_set_ports(mbus_msg &msg) LUM_LOCKED;

// ---- port records and the ARP/ND cache (lum_arp_nd_cache.cpp)

lum_port *lum_get_from_pt(std::uint32_t iod) LUM_LOCKED;
lum_port *lum_add_to_pt(std::uint32_t iod) LUM_LOCKED;
int lum_delete_from_pt(lum_port *port) LUM_LOCKED;
inline constexpr std::size_t LUM_ARP_ND_KEY_SIZE = 20;
using lum_arp_nd_key = std::array<std::uint8_t, LUM_ARP_ND_KEY_SIZE>;
void lum_build_key_for_arp_nd_cache(lum_arp_nd_key &key, std::uint32_t vlan, const lum_addr &address);
bool lum_add_to_arp_nd_cache(pt_tree &root, lum_arp_nd_entry *entry) LUM_LOCKED;
lum_arp_nd_entry *lum_get_from_arp_nd_cache(const pt_tree &root, const lum_addr &address, std::uint32_t vlan) LUM_LOCKED;
int lum_delete_from_arp_nd_cache(pt_tree &root, lum_arp_nd_entry *entry) LUM_LOCKED;
void lum_cache_arp_nd(lum_overlay &overlay, std::uint32_t ipv4, const ipv6_address &ipv6, std::uint32_t vlan,
                      const std::uint8_t *mac) LUM_LOCKED;
void lum_free_arp_nd_cache(lum_overlay &overlay) LUM_LOCKED;    // when the overlay is destroyed
int lum_is_addr_anycast_arp(const std::uint32_t *ipv4, const ipv6_address *ipv6) LUM_LOCKED;

// ---- lum_overlay: records, state, resolution, adjacencies

void lum_get_default_ipv4_core_group(lum_ipv4_range &range);
int lum_get_default_ipv6_core_group(lum_ipv6_range &range);
bool lum_init_overlay(lum_overlay &overlay, std::uint32_t iod) LUM_LOCKED;
lum_overlay *lum_create_overlay(std::uint32_t iod) LUM_LOCKED;
lum_overlay *lum_add_overlay(std::uint32_t iod) LUM_LOCKED;
int lum_create_or_init_overlay(std::uint32_t iod) LUM_LOCKED;
void lum_destroy_overlay(lum_overlay **overlay) LUM_LOCKED;
lum_overlay *lum_get_overlay(std::uint32_t iod) LUM_LOCKED;     // null for 0 and for an unknown iod
lum_overlay *lum_get_overlay_by_name() LUM_LOCKED;              // none, always
lum_overlay *lum_exec_get_overlay(cli_cmd *cmd) LUM_LOCKED;
const lum_addr *lum_get_group_address_from_overlay(const lum_overlay *overlay, std::uint32_t *ext_iod) LUM_LOCKED;
std::uint32_t lum_get_encap_type(std::uint32_t iod) LUM_LOCKED; // 0 for an unknown overlay
const char *lum_overlay_display_name(const lum_overlay *overlay);
const char *lum_overlay_state_str(std::uint32_t state);         // "Invalid" beyond the table
const char *lum_overlay_reason_str(std::uint32_t reason);
std::uint32_t lum_update_overlay_state(lum_overlay &overlay) LUM_LOCKED;
int lum_check_overlay_state_change(lum_overlay &overlay) LUM_LOCKED;
int lum_trigger_overlay_delete(lum_overlay &overlay) LUM_LOCKED;
void lum_delete_overlay_complete(lum_overlay *overlay) LUM_LOCKED;
int lum_update_overlay_group(lum_overlay &overlay, const lum_addr &group) LUM_LOCKED;
void lum_join_leave_group(lum_overlay &overlay, const std::uint32_t *ipv4, const ipv6_address *ipv6,
                          std::uint32_t is_ipv4) LUM_LOCKED;
void lum_resolve_ext_if(lum_overlay &overlay) LUM_LOCKED;
void lum_resolve_overlay_external_if_name(std::uint32_t iod) LUM_LOCKED;
void lum_process_ipv6_address_change(std::uint32_t iod, const ipv6_address &old_address,
                                     const ipv6_address &new_address) LUM_LOCKED;
void lum_process_ipv4_address_change(const ip_address_change &change) LUM_LOCKED;
void lum_update_overlay_vlans(lum_overlay &overlay) LUM_LOCKED;

using lum_system_id = std::array<std::uint8_t, 6>;
int lum_add_overlay_adj_internal(std::uint32_t iod, const lum_system_id &id, const lum_addr &address) LUM_LOCKED;
int lum_delete_overlay_adj_internal(std::uint32_t iod, const lum_system_id &id, const lum_addr &address) LUM_LOCKED;
int lum_add_site_adj_internal(std::uint32_t iod, const lum_system_id &id, std::uint32_t adder_value,
                              std::uint32_t local) LUM_LOCKED;
int lum_delete_site_adj_internal(std::uint32_t iod, const lum_system_id &id) LUM_LOCKED;
lum_site_adj *lum_create_site_adj(const lum_system_id &id) LUM_LOCKED;
void lum_destroy_site_adj(lum_site_adj *adj) LUM_LOCKED;
lum_site_adj *lum_get_site_adj(const lum_overlay &overlay, const lum_system_id &id, lum_site_adj **previous) LUM_LOCKED;
bool lum_insert_site_adj(lum_overlay &overlay, lum_site_adj *adj) LUM_LOCKED;
void lum_remove_site_adj(lum_overlay &overlay, lum_site_adj *adj) LUM_LOCKED;
void lum_reassign_ordinals(lum_overlay &overlay) LUM_LOCKED;
void lum_recompute_aed(lum_overlay &overlay) LUM_LOCKED;
void lum_process_aed_change(lum_overlay &overlay, lum_vlan &entry) LUM_LOCKED;
void lum_send_vlan_notification() LUM_LOCKED;

// ---- lum_sdb: publication and reading back

int lum_sdb_update_overlay(const lum_overlay &overlay) LUM_LOCKED;
int lum_sdb_delete_overlay(const lum_overlay &overlay) LUM_LOCKED;
int lum_sdb_update_geninfo() LUM_LOCKED;
int lum_sdb_update_vlan(const lum_vlan &entry, std::uint32_t present) LUM_LOCKED;
int lum_update_one_sdb(sdb_handle handle, std::span<const std::uint8_t> key, std::span<const std::uint8_t> value,
                       std::uint32_t present) LUM_LOCKED;
// Walk over the records of one type. `a` and `c` are the database's own and given as they always were.
sdb_iterator_ptr lum_sdb_iterator_init(std::uint32_t a, std::uint32_t type, std::uint32_t c);
const sdb_record *lum_sdb_iterator_get_next(sdb_iterator &iterator);

// ---- lum_api: notifications to clients

struct lum_vlan_triple {
    std::uint32_t vlan, iod, aed;
};
void lum_send_overlay_state_msg(lum_overlay &overlay, std::uint32_t opcode) LUM_LOCKED;
void lum_send_overlay_params_msg(lum_overlay &overlay) LUM_LOCKED;
void lum_send_overlay_adj_msg(std::span<const std::uint8_t> adj_value, std::uint32_t opcode, bool is_delete) LUM_LOCKED;
void lum_send_vlan_params_msg(std::span<const lum_vlan_triple> triples) LUM_LOCKED;

// ---- lum_util

void lum_hex_dump(std::uint32_t enable, const void *data, std::uint32_t length);
// Texts for messages; each call returns its `out`.
using lum_text = std::array<char, 160>;
const char *lum_print_mac_info(const lum_mac_info &info, lum_text &out);          // "100/02:00:00:00:00:0a"
const char *lum_print_mac(const std::uint8_t *mac, lum_text &out);
const char *lum_print_ipv4(std::uint32_t address_host, lum_text &out);
const char *lum_print_ipv6(const ipv6_address &address, lum_text &out);
const char *lum_print_addr(const lum_addr &address, lum_text &out);               // any kind
const char *lum_if_name(std::uint32_t iod, lum_text &out);                        // the interface's name
bool lum_copy_from_mac_info_string(const char *text, lum_mac_info &info);         // "VLAN/MAC"; false: malformed

// ---- lum_mcast: hooks of the multicast extension; they do nothing and return 1

int lum_mcast_process_rtab_notify();
int lum_mcast_process_add_delete_adjacency();

// ---- lum_ui: commands

int lum_cli_init();                                     // 1 on success, 0
lum_overlay *lum_cli_mode_overlay(cli_cmd *cmd) LUM_LOCKED;
int lum_promiscuous(std::uint32_t iod, std::uint32_t enable);   // 1 on success, 0
void lum_resolve_static_routes(std::uint32_t iod) LUM_LOCKED;
lum_static_entry *lum_get_static_tunnel(const lum_addr &address) LUM_LOCKED;
