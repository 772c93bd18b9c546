// The edge device that the benchmarks run on.
#include "world.h"

#include "lum_inlines.h"
#include "lum_packet.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace bench {

namespace {

constexpr std::uint32_t OUR_ADDRESS = fake::ipv4(192, 0, 2, 1), CONTROL_GROUP = fake::ipv4(239, 1, 1, 1);
constexpr std::uint32_t FIRST_OTHER_PORT = 1000;

void check(bool success, const char *what)
{
    if (success)
        return;
    std::fprintf(stderr, "benchmark world: %s failed\n", what);
    std::exit(1);
}

void take_lock_for_good() CORVANE_NO_TSA
{
    if (!platform.lock_held())
        plock_acquire_process_lock();
}

// What an earlier world allocated is left behind on purpose.
void start_daemon() LUM_LOCKED;
void start_daemon()
{
    lum_svr = {};
    lum_interface_pt = {};
    lum_vlans.fill({});
    lum_clear_learn_buffer();
    platform.own_service = LUM_SERVICE;
    lum_init_encap_headers();
    check(lum_init_pt() && lum_init_memacct() && lum_init_ds() && lum_init_mbus() && lum_init_timers() && lum_init_ha(),
          "start-up");
    lum_net_l2_handle = 71;
    lum_ip_client = 41;
    lum_ipv6_client = 61;
}

// Eight in the VLAN, and records of so many others beside theirs.
void add_ports(std::uint32_t others) LUM_LOCKED;
void add_ports(std::uint32_t others)
{
    for (std::uint32_t n = 0; n < others; ++n)
        check(lum_add_to_pt(FIRST_OTHER_PORT + n) != nullptr, "port record");
    lum_vlan_vlandb_init(lum_vlans[VLAN], VLAN);
    for (std::uint32_t iod = FIRST_PORT; iod < FIRST_PORT + PORTS; ++iod) {
        platform.add_interface(iod, "eth" + std::to_string(iod), {.switchport = true});
        lum_vlan_add_port(lum_vlans[VLAN], iod);
        lum_port *port = lum_add_to_pt(iod);
        check(port != nullptr, "port record");
        port->vlan = VLAN;
        port->trunk = 1;
    }
}

lum_overlay &add_overlay() LUM_LOCKED;
lum_overlay &add_overlay()
{
    platform.add_interface(CORE, "core0", {.ipv4 = OUR_ADDRESS});
    platform.add_interface(OVERLAY, "Overlay1", {.overlay = true});
    lum_overlay *overlay = lum_create_overlay(OVERLAY);
    check(overlay != nullptr, "overlay");
    std::snprintf(overlay->ext_if[0].name, sizeof overlay->ext_if[0].name, "core0");
    overlay->ext_if[0].iod = CORE;
    overlay->ext_if_count = 1;
    overlay->ext_ipv4 = OUR_ADDRESS;
    overlay->ipv4_group = lum_addr_next_hop(OVERLAY, CONTROL_GROUP);
    bitfield_set(*overlay->vlans, VLAN);
    ++overlay->vlan_refcount;
    lum_vlans[VLAN].overlay = overlay;
    lum_update_overlay_state(*overlay);
    return *overlay;
}

void add_hosts(std::uint32_t size, lum_overlay &overlay) LUM_LOCKED;
void add_hosts(std::uint32_t size, lum_overlay &overlay)
{
    for (std::uint32_t n = 0; n < size; ++n) {
        const fake::mac_address mac = host_mac(n);
        if (n % 2 == 0)
            platform.learnt({VLAN, mac}, port_of(n));
        else
            platform.route({VLAN, mac}, fake::remote(OVERLAY, fake::ipv4(198, 51, 100, 1 + n % 64)));
        lum_cache_arp_nd(overlay, host_ip(n), {}, VLAN, mac.data());
    }
    check(platform.routes() == size, "routes");
    check(pt_count(overlay.arp_nd_cache) == size, "cache entries");
}

} // namespace

void build_world(std::uint32_t size)
{
    static std::uint32_t built = 0;
    if (built == size)
        return;
    built = size;
    platform.reset();
    take_lock_for_good();
    plock_assert_held();
    start_daemon();
    add_ports(size);
    add_hosts(size, add_overlay());
    platform.forget();
    platform.counting_only = true;
}

fake::mac_address host_mac(std::uint32_t number)
{
    return {0x02, 0x00, static_cast<std::uint8_t>(number >> 24), static_cast<std::uint8_t>(number >> 16),
            static_cast<std::uint8_t>(number >> 8), static_cast<std::uint8_t>(number)};
}

std::uint32_t host_ip(std::uint32_t number) { return fake::ipv4(10, 0, 0, 0) + 1 + number; }
std::uint32_t port_of(std::uint32_t number) { return FIRST_PORT + number / 2 % PORTS; }

fake::bytes unicast_frame(std::uint32_t from, std::uint32_t to, std::size_t length)
{
    const fake::bytes packet = fake::ip_packet_of(17, host_ip(from), host_ip(to), fake::udp(5001, 5001));
    return fake::padded(fake::tagged(host_mac(to), host_mac(from), VLAN, 0x0800, packet), length);
}

fake::bytes broadcast_frame(std::uint32_t from, std::size_t length)
{
    const fake::bytes packet = fake::ip_packet_of(17, host_ip(from), 0xFFFFFFFF, fake::udp(68, 67));
    return fake::padded(fake::tagged(fake::BROADCAST, host_mac(from), VLAN, 0x0800, packet), length);
}

fake::bytes arp_frame(std::uint32_t from, std::uint32_t wanted)
{
    const fake::bytes request = fake::arp_request(host_mac(from), host_ip(from), host_ip(wanted));
    return fake::padded(fake::tagged(fake::BROADCAST, host_mac(from), VLAN, 0x0806, request), 64);
}

} // namespace bench
