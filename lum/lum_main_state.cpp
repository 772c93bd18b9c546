// Process-wide state that no single unit owns; zero at load unless a value says otherwise.
#include "lum_private.h"

lum_svr_record lum_svr;

// Debug flags and the filters of packet traces; the debug commands set them, "-d" sets the internal one.
std::uint32_t lum_packet_debug_flag, lum_learn_debug_flag, lum_internal_debug_flag, lum_event_debug_flag,
    lum_arp_nd_debug_flag;
lum_addr lum_packet_debug_sa, lum_packet_debug_da;
std::uint32_t lum_packet_debug_unicast, lum_packet_debug_multicast, lum_packet_debug_broadcast;

std::uint32_t lum_chassis_ferrix, lum_sup_state_active, lum_sup_state_recovery_wait;

// Set when the client of a service is up; only IGMP's goes back to 0.
std::uint32_t lum_cli_initialized, lum_rtab_initialized, lum_ip_initialized, lum_ipv6_initialized,
    lum_udp_initialized, lum_ifmgr_initialized, lum_pm_initialized, lum_vrfmgr_initialized, lum_igmp_initialized;

mbus_q lum_mbus_q = MBUS_Q_INVALID, lum_pm_mbus_q = MBUS_Q_INVALID;
net_l2_handle lum_net_l2_handle;
ip_client lum_ip_client;
ipv6_client lum_ipv6_client;

bitfield_attr lum_bf_attr;
pt_attr lum_pt_attr;
std::uint8_t lum_at_set_wheel, lum_at_set_heap;
active_timer lum_learn_timer, lum_heartbeat_timer;
timestamp lum_next_age_time;
hakit_sdb lum_sdb_handle;
