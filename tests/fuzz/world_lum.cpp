#include "world_lum.h"

#include "lum_inlines.h"
#include "lum_packet.h"

#include "memacct.h"

#include <cstdio>

namespace fuzz_lum {

namespace {

bool built;
constexpr std::uint32_t OUR_ADDRESS = 0xC0000201, REMOTE_EDGE = 0xC6336409;
const ipv6_address OUR_ADDRESS6 = fake::ipv6("2001:db8::1"), REMOTE_EDGE6 = fake::ipv6("2001:db8::9");
const std::uint32_t ANYCAST = fake::ipv4(10, 0, 0, 254), GROUP = fake::ipv4(239, 1, 2, 3);
const ipv6_address ANYCAST6 = fake::ipv6("2001:db8:10::fe"), GROUP6 = fake::ipv6("ff05::1:3");

lum_vlan &vlan_entry(std::uint32_t vlan)
{
    plock_assert_held();
    lum_vlan &entry = lum_vlans[vlan];
    if (entry.in_use == 0)
        lum_vlan_vlandb_init(entry, vlan);
    return entry;
}

// No device of the host answers to ethx, ethy or ethz, which promiscuous reception looks for.
void add_port(std::uint32_t iod, const char *name, std::uint32_t vlan, bool trunk)
{
    plock_assert_held();
    platform.add_interface(iod, name, {.switchport = true});
    lum_port *port = lum_get_from_pt(iod);
    if (port == nullptr)
        port = lum_add_to_pt(iod);
    port->vlan = vlan;
    port->trunk = trunk ? 1 : 0;
    for (const std::uint32_t member : {UDP_VLAN, UDP6_VLAN, GRE_VLAN})
        if (trunk || member == vlan)
            lum_vlan_add_port(vlan_entry(member), iod);
}

void add_overlay(std::uint32_t iod, std::uint32_t vlan, lum_encap_type type, std::uint32_t family)
{
    plock_assert_held();
    platform.add_interface(iod, "Overlay" + std::to_string(iod), {.overlay = true});
    lum_overlay *overlay = lum_create_overlay(iod);
    std::snprintf(overlay->ext_if[0].name, sizeof overlay->ext_if[0].name, "core");
    overlay->ext_if[0].iod = CORE;
    overlay->ext_if_count = 1;
    overlay->ext_ipv4 = OUR_ADDRESS;
    overlay->ext_ipv6 = OUR_ADDRESS6;
    overlay->ipv4_group = fake::remote(iod, fake::ipv4(239, 1, 1, 1));
    overlay->ipv6_group = fake::remote(iod, fake::ipv6("ff0e::1"));
    overlay->encap_type = type;
    overlay->encap_family = family;
    bitfield_set(*overlay->vlans, vlan);
    ++overlay->vlan_refcount;
    vlan_entry(vlan).overlay = overlay;
    lum_update_overlay_state(*overlay);
    if (lum_port *tunnel = lum_add_to_pt(iod); tunnel != nullptr)
        tunnel->trunk = 1;
}

void add_routes()
{
    const struct {
        std::uint32_t vlan;
        rtab_addr remote;
    } rows[] = {{UDP_VLAN, fake::remote(UDP_OVERLAY, REMOTE_EDGE)},
                {UDP6_VLAN, fake::remote(UDP6_OVERLAY, REMOTE_EDGE6)},
                {GRE_VLAN, fake::remote(GRE_OVERLAY, REMOTE_EDGE)}};
    for (const auto &row : rows) {
        platform.route({row.vlan, REMOTE_HOST}, row.remote);
        platform.route({row.vlan, LOCAL_HOST}, fake::local(OTHER_PORT));
        platform.route({row.vlan, HOST}, fake::local_ifindex(1000 + TRUNK_PORT));
        platform.mroute({row.vlan, fake::group_mac(GROUP)}, {ACCESS_PORT, TRUNK_PORT, OTHER_PORT, UDP_OVERLAY});
        platform.mroute({row.vlan, fake::group_mac(GROUP6)}, {TRUNK_PORT, OTHER_PORT, UDP6_OVERLAY, GRE_OVERLAY});
    }
}

void build()
{
    plock_acquire_process_lock();
    platform.reset();
    platform.own_service = LUM_SERVICE;
    platform.add_interface(CORE, "core", {.ipv4 = OUR_ADDRESS, .ipv6 = OUR_ADDRESS6});
    lum_init_encap_headers();
    fuzz::require(lum_init_pt() && lum_init_memacct() && lum_init_mbus() && lum_init_ds() && lum_init_timers() &&
                  lum_init_ha());
    add_port(ACCESS_PORT, "portx", UDP_VLAN, false);
    add_port(TRUNK_PORT, "porty", UDP6_VLAN, true);
    add_port(OTHER_PORT, "portz", UDP_VLAN, false);
    add_overlay(UDP_OVERLAY, UDP_VLAN, LUM_ENCAP_UDP, LUM_FAMILY_IPV4);
    add_overlay(UDP6_OVERLAY, UDP6_VLAN, LUM_ENCAP_UDP, LUM_FAMILY_IPV6);
    add_overlay(GRE_OVERLAY, GRE_VLAN, LUM_ENCAP_GRE, LUM_FAMILY_IPV4);
    add_routes();
}

void take_down()
{
    plock_assert_held();
    for (const std::uint32_t iod : {UDP_OVERLAY, UDP6_OVERLAY, GRE_OVERLAY})
        if (lum_overlay *overlay = lum_get_overlay(iod); overlay != nullptr) {
            while (lum_site_adj *adj = overlay->adj_head) {
                lum_remove_site_adj(*overlay, adj);
                lum_destroy_site_adj(adj);
            }
            lum_destroy_overlay(&overlay);
        }
    avlt_destroy(lum_svr.overlays);
    while (auto *port = static_cast<lum_port *>(pt_first(lum_interface_pt)))
        lum_delete_from_pt(port);
    pt_destroy(lum_interface_pt);
    for (lum_vlan &entry : lum_vlans) {
        if (entry.in_use != 0)
            lum_vlan_vlandb_retire(entry);
        entry = {};
    }
    lum_clear_learn_buffer();
    lum_pending_msg = {};
    lum_pending_msg_count = 0;
    for (std::uint32_t type = 0; type < LUM_MEM_TYPE_MAX; ++type)
        fuzz::require(platform.memory_blocks(type) == 0);
    plock_release_process_lock();
}

void set_switches(std::uint8_t switches)
{
    plock_assert_held();
    const std::uint32_t traces = switches & 1;
    lum_packet_debug_flag = lum_learn_debug_flag = lum_internal_debug_flag = lum_event_debug_flag =
        lum_arp_nd_debug_flag = traces;
    lum_packet_debug_unicast = lum_packet_debug_multicast = lum_packet_debug_broadcast = traces;
    lum_filter_fhrp = switches >> 1 & 1 ? 0 : 1;
    for (const std::uint32_t iod : {UDP_OVERLAY, UDP6_OVERLAY, GRE_OVERLAY})
        lum_get_overlay(iod)->suppress_arp = switches >> 2 & 1 ? 0 : 1;
    lum_anycast_arp_addrs[0] = fake::ip_addr(ANYCAST);
    lum_anycast_arp_addrs[5] = fake::ip_addr(ANYCAST6);
    lum_any_anycast_arp_addrs = switches >> 3 & 1 ? 0 : 1;
}

} // namespace

void rebuild(std::uint8_t switches)
{
    if (built)
        take_down();
    build();
    built = true;
    set_switches(switches);
    platform.forget();
}

void prepare(std::uint8_t switches)
{
    if (!built)
        return rebuild(switches);
    plock_assert_held();
    for (const std::uint32_t iod : {UDP_OVERLAY, UDP6_OVERLAY, GRE_OVERLAY})
        lum_free_arp_nd_cache(*lum_get_overlay(iod));
    if (lum_rtab_buffer_count != 0)
        lum_clear_learn_buffer();
    set_switches(switches);
    platform.forget();
}

void check()
{
    fuzz::require(platform.lock_held() && platform.lock_errors == 0);
    fuzz::require(platform.mbufs_out() == 0 && !platform.route_lock_held);
    fuzz::require(platform.double_drops == 0);
    fuzz::require(platform.memory_blocks(LUM_MEM_TYPE_PACKET) == 0);
    fuzz::require(lum_rtab_buffer_count <= LUM_LEARN_RECORDS);
}

namespace {

std::vector<fake::bytes> site_payloads(std::vector<std::uint16_t> &types)
{
    const std::uint32_t ip = fake::ipv4(10, 0, 0, 1);
    const ipv6_address ip6 = fake::ipv6("2001:db8:10::1");
    std::vector<fake::bytes> payloads;
    const auto add = [&](std::uint16_t type, fake::bytes payload) {
        types.push_back(type);
        payloads.push_back(std::move(payload));
    };
    add(0x0806, fake::arp_request(HOST, ip, ANYCAST));
    add(0x0806, fake::arp_request(HOST, 0, ip + 1));
    add(0x0806, fake::arp_reply(HOST, ip, LOCAL_HOST, ip + 1));
    add(0x86DD, fake::neighbour_solicitation(ip6, ANYCAST6, &HOST));
    add(0x86DD, fake::neighbour_solicitation({}, ip6));
    add(0x86DD, fake::neighbour_advertisement(ip6, ip6, ip6, &HOST));
    add(0x0800, fake::vrrp_hello(ip));
    add(0x0800, fake::hsrp_hello(ip));
    add(0x0800, fake::glbp_hello(ip));
    add(0x86DD, fake::vrrp_hello(ip6));
    add(0x86DD, fake::hsrp_hello(ip6));
    add(0x86DD, fake::glbp_hello(ip6));
    add(0x0800, fake::ip_packet_of(17, ip, GROUP, fake::udp(1, 2, fake::filler(20))));
    add(0x86DD, fake::ipv6_packet_of(17, ip6, GROUP6, fake::udp(1, 2, fake::filler(20))));
    add(0x0800, fake::ip_packet_of(6, ip, ip + 1, fake::filler(1400)));
    add(0xFEFE, fake::filler(46));
    add(0x2000, fake::filler(46));
    return payloads;
}

} // namespace

std::vector<fake::bytes> frames()
{
    std::vector<std::uint16_t> types;
    const std::vector<fake::bytes> payloads = site_payloads(types);
    const fake::mac_address destinations[] = {LOCAL_HOST, REMOTE_HOST, fake::BROADCAST, fake::group_mac(GROUP),
                                              fake::group_mac(GROUP6)};
    std::vector<fake::bytes> made;
    for (std::size_t i = 0; i < payloads.size(); ++i) {
        const fake::mac_address &to = destinations[i % std::size(destinations)];
        const std::uint16_t vlan = i % 3 == 0 ? UDP_VLAN : i % 3 == 1 ? UDP6_VLAN : GRE_VLAN;
        made.push_back(fake::ethernet(to, HOST, types[i], payloads[i]));
        made.push_back(fake::tagged(to, HOST, vlan, types[i], payloads[i]));
        made.push_back(fake::snap(to, HOST, types[i], payloads[i]));
        made.push_back(fake::tagged_snap(to, HOST, vlan, types[i], payloads[i]));
    }
    made.push_back(fake::with_tag(fake::tagged(REMOTE_HOST, HOST, 7, 0x0800, fake::filler(46)), UDP_VLAN));
    made.push_back(fake::ethernet(REMOTE_HOST, HOST, 0x0800, fake::filler(1500)));
    made.push_back(fake::ethernet(REMOTE_HOST, HOST, 0x0800, fake::filler(1501)));
    return made;
}

} // namespace fuzz_lum
