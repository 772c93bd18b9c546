#include "lum_test.h"

#include "lum_ui.h"

#include <algorithm>
#include <cstdio>
#include <memory>

// The receive threads' buffers live as long as the process, deliberately; each test that runs such a thread leaves one.
extern "C" const char *__lsan_default_suppressions();
extern "C" const char *__lsan_default_suppressions() { return "leak:receive_thread\n"; }

namespace lum_test {

namespace {

void destroy_overlays()
{
    plock_assert_held();
    if (lum_svr.overlays.impl == nullptr)
        return;
    for (;;) {
        avlt_iterator iterator;
        avlt_iterator_init(iterator, lum_svr.overlays);
        auto *overlay = reinterpret_cast<lum_overlay *>(avlt_next(iterator));
        if (overlay == nullptr)
            break;
        while (overlay->adj_head != nullptr) {
            lum_site_adj *adj = overlay->adj_head;
            lum_remove_site_adj(*overlay, adj);
            lum_destroy_site_adj(adj);
        }
        lum_destroy_overlay(&overlay);
    }
    avlt_destroy(lum_svr.overlays);
}

void delete_ports()
{
    plock_assert_held();
    while (auto *port = static_cast<lum_port *>(pt_first(lum_interface_pt)))
        lum_delete_from_pt(port);
    pt_destroy(lum_interface_pt);
}

void retire_vlans()
{
    plock_assert_held();
    for (lum_vlan &entry : lum_vlans) {
        if (entry.in_use != 0)
            lum_vlan_vlandb_retire(entry);
        entry = {};
    }
}

void clear_flags()
{
    for (std::uint32_t *flag :
         {&lum_packet_debug_flag, &lum_learn_debug_flag, &lum_internal_debug_flag, &lum_event_debug_flag,
          &lum_arp_nd_debug_flag, &lum_packet_debug_unicast, &lum_packet_debug_multicast, &lum_packet_debug_broadcast,
          &lum_chassis_ferrix, &lum_sup_state_active, &lum_sup_state_recovery_wait, &lum_cli_initialized,
          &lum_rtab_initialized, &lum_ip_initialized, &lum_ipv6_initialized, &lum_udp_initialized,
          &lum_ifmgr_initialized, &lum_pm_initialized, &lum_vrfmgr_initialized, &lum_igmp_initialized,
          &lum_any_anycast_arp_addrs, &lum_pending_msg_count, &lum_ipc_thread_exists, &lum_ip_udp_bound,
          &lum_ipv6_udp_bound, &lum_net_l2_handle, &lum_ip_client, &lum_ipv6_client})
        *flag = 0;
    lum_filter_fhrp = 1;
}

// By the daemon's own functions, which keep the index of the routes in step.
void clear_statics()
{
    plock_assert_held();
    const lum_addr any_next_hop = lum_addr_iod(1);           // a route without one is found by nobody
    while (lum_staticQ.head != nullptr) {
        auto *entry = reinterpret_cast<lum_static_entry *>(lum_staticQ.head);
        entry->next_hop = any_next_hop;
        lum_delete_static_route(lum_mac_info{entry->mac}, any_next_hop);
    }
    while (lum_static_tunnelQ.head != nullptr) {
        auto *tunnel = reinterpret_cast<lum_static_entry *>(lum_static_tunnelQ.head);
        tunnel->next_hop = any_next_hop;
        lum_delete_static_tunnel(any_next_hop);
    }
}

} // namespace

void reset_daemon()
{
    plock_assert_held();
    destroy_overlays();
    delete_ports();
    retire_vlans();
    clear_statics();
    clear_flags();
    lum_clear_learn_buffer();
    lum_packet_buffer.fill(0);
    lum_svr = {};
    lum_anycast_arp_addrs.fill({});
    lum_packet_debug_sa = lum_packet_debug_da = {};
    lum_pending_msg = {};
    lum_mbus_q = lum_pm_mbus_q = MBUS_Q_INVALID;
    lum_ip_udp_sid = lum_ipv6_udp_sid = -1;
    lum_ip_udp_thread = lum_ipv6_udp_thread = lum_pm_thread = lum_ipc_thread = 0;
    lum_next_age_time = {};
    lum_learn_timer = lum_heartbeat_timer = 0;
    lum_interface_pt = {};
}

LumTest::LumTest()
{
    plock_assert_held();
    reset_daemon();
    platform.own_service = LUM_SERVICE;
    lum_init_encap_headers();
    EXPECT_TRUE(lum_init_pt() && lum_init_ds() && lum_init_memacct() && lum_init_mbus() && lum_init_timers() &&
                lum_init_ha());
    lum_net_l2_handle = 71;
    lum_ip_client = 41;
    lum_ipv6_client = 61;
    platform.add_interface(CORE, "eth0", {.ipv4 = OUR_ADDRESS, .ipv6 = OUR_ADDRESS6});
    platform.forget();
}

LumTest::~LumTest()
{
    plock_assert_held();
    reset_daemon();
    for (std::uint32_t type = 0; type < LUM_MEM_TYPE_MAX; ++type)
        EXPECT_EQ(platform.memory_blocks(type), type == LUM_MEM_TYPE_PACKET ? receive_buffers_ : 0)
            << "blocks left of " << __lum_mem_type_t_find(type);
}

lum_vlan &LumTest::vlan_entry(std::uint32_t vlan)
{
    plock_assert_held();
    lum_vlan &entry = lum_vlans[vlan];
    if (entry.in_use == 0)
        lum_vlan_vlandb_init(entry, vlan);
    return entry;
}

lum_port &LumTest::site_port(std::uint32_t iod, std::uint32_t vlan, bool trunk)
{
    plock_assert_held();
    platform.add_interface(iod, "eth" + std::to_string(iod), {.switchport = true});
    lum_vlan_add_port(vlan_entry(vlan), iod);
    lum_port *port = lum_get_from_pt(iod);
    if (port == nullptr)
        port = lum_add_to_pt(iod);
    port->vlan = vlan;
    port->trunk = trunk ? 1 : 0;
    return *port;
}

lum_overlay &LumTest::overlay(std::uint32_t iod, std::uint32_t vlan)
{
    plock_assert_held();
    platform.add_interface(iod, "Overlay" + std::to_string(iod - OVERLAY + 1), {.overlay = true});
    lum_overlay *made = lum_create_overlay(iod);
    std::snprintf(made->ext_if[0].name, sizeof made->ext_if[0].name, "eth0");
    made->ext_if[0].iod = CORE;
    made->ext_if_count = 1;
    made->ext_ipv4 = OUR_ADDRESS;
    made->ext_ipv6 = OUR_ADDRESS6;
    made->ipv4_group = lum_addr_next_hop(iod, CONTROL_GROUP);
    made->ipv6_group = lum_addr_next_hop(iod, CONTROL_GROUP6);
    lum_update_overlay_state(*made);
    bitfield_set(*made->vlans, vlan);
    ++made->vlan_refcount;
    vlan_entry(vlan).overlay = made;
    return *made;
}

void LumTest::trace_all_packets()
{
    lum_packet_debug_flag = lum_packet_debug_unicast = lum_packet_debug_multicast = lum_packet_debug_broadcast = 1;
}

std::uint64_t LumTest::dropped(drop_reason reason)
{
    return drop_counters->count[static_cast<std::size_t>(reason)].load();
}

std::uint64_t LumTest::dropped_in_all()
{
    std::uint64_t sum = 0;
    for (const auto &count : drop_counters->count)
        sum += count.load();
    return sum;
}

void LumTest::input(const fake::bytes &frame, std::uint32_t iod)
{
    plock_assert_held();
    const auto copy = std::make_unique<std::uint8_t[]>(frame.size());
    std::copy(frame.begin(), frame.end(), copy.get());
    lum_input(copy.get(), static_cast<std::uint32_t>(frame.size()), iod);
}

std::vector<std::uint32_t> LumTest::ports_sent_to()
{
    std::vector<std::uint32_t> ports;
    for (const fake::l2_frame &frame : platform.l2_sent)
        ports.push_back(frame.iod);
    return ports;
}

} // namespace lum_test
