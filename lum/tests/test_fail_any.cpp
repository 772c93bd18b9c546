// The daemon's life in one script, from start-up to clean-up, run again and again with another one of its calls failing
// each time: allocations, sends, receives, timers, threads, the database. Whatever fails, nothing crashes, each message
// is released once, and what is left of the memory is what the tables still hold.
#include "lum_test.h"

#include "lum_ui.h"
#include "svcmgr.h"

#include <netinet/in.h>

#include <set>

using namespace lum_test;
using ::testing::IsSupersetOf;
using ::testing::Not;

namespace {

constexpr std::uint32_t SERVICES[] = {SVC_RTAB,   SVC_IP,     SVC_IPV6, SVC_UDP,    SVC_INTFMGR,
                                      SVC_PKTMGR, SVC_VRFMGR, SVC_IGMP, SVC_CMDSRV};
constexpr std::uint32_t DOWN_PORT = PORT_C, OTHER_VLAN = 20, GRE_VLAN = 30;
constexpr std::uint32_t REMOTE_GROUP = 0xEF020202;           // 239.2.2.2
constexpr std::uint64_t ENCAP_BIT = std::uint64_t{1} << INTFMGR_CHANGE_ENCAP;
const fake::mac_address HOST_D = fake::mac("02:00:00:00:00:0d"), ROUTED_GROUP = fake::group_mac(REMOTE_GROUP);

using arguments = fake::command_arguments;

// No name ends in a digit: behind such a port the machine's own devices would be looked for.
void add_interfaces()
{
    platform.add_interface(CORE, "core", {.ipv4 = OUR_ADDRESS, .ipv6 = OUR_ADDRESS6});
    platform.add_interface(PORT_A, "port-a", {.switchport = true});
    platform.add_interface(PORT_B, "port-b", {.switchport = true});
    platform.add_interface(DOWN_PORT, "port-c", {.switchport = true, .up = false});
    platform.add_interface(OVERLAY, "overlay-a", {.overlay = true});
    platform.add_interface(OVERLAY2, "overlay-b", {.overlay = true});
}

// A thread's body runs on its thread the first time, as it was started, and on this one when there is more to do.
void run_body(const char *thread, void *(*body)(void *))
{
    for (const fake::thread_record &record : platform.threads())
        if (record.name == thread && !record.ran) {
            platform.run_thread(thread);
            return;
        }
    body(nullptr);
}

void work_off_messages()
{
    run_body("lum-ipc-thread", lum_main);
    lum_ipc_thread_exists = 0;                               // it is joined now
}

void send(std::uint32_t opcode, const fake::bytes &payload = {}, fake::message_options options = {})
{
    platform.deliver(442, opcode, payload, options);
}

void run_command(cli_handler handler, const arguments &given = {}, std::uint32_t mode_iod = 0)
{
    platform.command(handler, given, false, mode_iod);
}
void run_no_command(cli_handler handler, const arguments &given = {}, std::uint32_t mode_iod = 0)
{
    platform.command(handler, given, true, mode_iod);
}

// ---- start-up

bool start() CORVANE_REQUIRES(plock_process_lock)
{
    platform.services_up = {std::begin(SERVICES), std::end(SERVICES)};
    return lum_check_sup_state() && lum_init_plock() && lum_init();
}

std::uint32_t clients_up()
{
    return lum_cli_initialized + lum_rtab_initialized + lum_ip_initialized + lum_ipv6_initialized +
           lum_udp_initialized + lum_ifmgr_initialized + lum_pm_initialized + lum_vrfmgr_initialized +
           lum_igmp_initialized;
}

// One call may have failed at the first report of a service; the second one makes up for it.
void bring_clients_up()
{
    work_off_messages();
    for (const std::uint32_t service : SERVICES)
        platform.service_up(service);
    EXPECT_EQ(clients_up(), 9u);
}

// ---- configuration

void trace_everything()
{
    for (const cli_handler handler : {lum_debug_packet_command, lum_debug_learn_command, lum_debug_internal_command,
                                      lum_debug_event_command, lum_debug_arp_nd_command})
        run_command(handler);
    run_command(lum_debug_packet_command, {{"<smac-info>", "10/02:00:00:00:00:0a"}, {"unicast", ""}});
    run_command(lum_debug_packet_command);
}

void configure_overlay(std::uint32_t iod, const char *name, const char *vlans)
{
    run_command(lum_vpn_name_cmd, {{"<vpn-name>", name}}, iod);
    run_command(lum_vpn_ext_if_cmd, {{"<ext_if>", "core"}}, iod);
    run_command(lum_vpn_mgroup_addr_cmd, {{"<maddr>", "239.1.1.1"}}, iod);
    run_command(lum_vpn_mgroup_addr_cmd, {{"<maddr6>", "ff0e::101"}}, iod);
    run_command(lum_vpn_vlan_cmd, {{"<vlan-range>", vlans}}, iod);
    run_command(lum_core_group_cmd, {{"<prefix>", "239.2.0.0/16"}, {"<prefix6>", "ff0e::/96"}}, iod);
    run_command(lum_suppress_arp_cmd, {}, iod);
    run_command(lum_auth_election_cmd, {}, iod);
}

void configure_overlays()
{
    send(0xF403, platform.changes({{PORT_A, 0}, {CORE, 0}, {OVERLAY, 0}}));
    send(0xF414, platform.changes({{OVERLAY2, ENCAP_BIT}, {CORE, ENCAP_BIT}}));
    work_off_messages();
    configure_overlay(OVERLAY, "blue", "10,20-21");
    configure_overlay(OVERLAY2, "green", "30");
    run_command(lum_vpn_encap_format_cmd, {{"gre", ""}}, OVERLAY2);
    run_command(lum_vpn_site_vlan_cmd, {{"<vlan-id>", "10"}});
}

void configure_ports()
{
    run_command(lum_vlan_cmd, {{"<vlan-id>", "10"}}, PORT_A);        // there is no device behind it: taken back
    run_command(lum_vlan_cmd, {{"<vlan-id>", "40"}}, PORT_B);
    run_command(lum_vlan_cmd, {{"<vlan-id>", "1"}, {"trunk-port", ""}}, OVERLAY2);
    run_command(lum_vlan_cmd, {{"<vlan-id>", "1"}}, CORE);
    send(0x5C0C, platform.membership(VLAN, {{VLAN, 1000 + PORT_A}, {VLAN, 1000 + PORT_B}}));
    send(0xF407, platform.l2_states({{PORT_A, INTFMGR_MODE_TRUNK, 1, {VLAN, OTHER_VLAN, GRE_VLAN}, {}},
                                     {PORT_B, INTFMGR_MODE_ACCESS, 1, {VLAN}, {OTHER_VLAN}},
                                     {DOWN_PORT, INTFMGR_MODE_ACCESS, 0, {OTHER_VLAN}, {}}}));
    work_off_messages();
}

const arguments
    REMOTE_ROUTE{{"<mac-info>", "10/02:00:00:00:00:0b"}, {"<if-name>", "overlay-a"}, {"<nh>", "198.51.100.9"}},
    REMOTE_ROUTE6{{"<mac-info>", "10/02:00:00:00:00:0c"}, {"<if-name>", "overlay-a"}, {"<nh6>", "2001:db8::9"}},
    GRE_ROUTE{{"<mac-info>", "30/02:00:00:00:00:0b"}, {"<if-name>", "overlay-b"}, {"<nh>", "198.51.100.9"}},
    WAITING_ROUTE{{"<mac-info>", "20/02:00:00:00:00:0d"}, {"<if-name>", "port-c"}},
    GROUP_ROUTE{{"<mac-info>", "10/01:00:5e:02:02:02"}, {"<if-name>", "overlay-a"}},
    MROUTE{{"<vlan-id>", "10"}, {"<ga>", "239.2.2.2"}, {"<sa>", "10.0.0.9"}, {"<if-name>", "port-a"}},
    TUNNEL{{"<nh>", "198.51.100.9"}, {"<if-name>", "core"}}, ANYCAST{{"<addr>", "10.0.0.1"}},
    ANYCAST6{{"<addr6>", "2001:db8:a::1"}};

void configure_routes()
{
    for (const arguments &route : {REMOTE_ROUTE, REMOTE_ROUTE6, GRE_ROUTE, WAITING_ROUTE, GROUP_ROUTE})
        run_command(lum_route_cmd, route);
    run_command(lum_mroute_cmd, MROUTE);
    run_command(lum_static_tunnel_cmd, TUNNEL);
    run_command(lum_anycast_arp_cmd, ANYCAST);
    run_command(lum_anycast_arp_cmd, ANYCAST6);
    run_no_command(lum_filter_fhrp_cmd);
    run_command(lum_filter_fhrp_cmd);
}

void drive_route_table_by_hand()
{
    run_command(lum_rtab_command, {{"rtab_api_init", ""}, {"<client-name>", "probe"}});
    run_command(lum_rtab_command, {{"rtab_add_route", ""}, {"<mac>", "20/02:00:00:00:00:0e"}, {"<if-name>", "port-a"}});
    run_command(lum_rtab_command, {{"rtab_delete_route", ""}, {"<mac>", "20/02:00:00:00:00:0e"}});
    run_command(lum_rtab_command, {{"rtab_api_close", ""}});
    platform.service_up(SVC_RTAB);
}

// ---- messages of other processes

fake::bytes adjacency(std::uint32_t iod, const fake::mac_address &id, bool site, bool local)
{
    fake::bytes payload;
    payload.add_host32(iod).add(id).add8(0);
    payload.add_host32(4).add_host32(REMOTE_EDGE).add_zeros(20);
    return payload.add_host32(site ? 1 : 0).add_host32(local ? 1 : 0);
}

void send_adjacencies(std::uint32_t opcode)
{
    for (const std::uint32_t iod : {OVERLAY, OVERLAY2}) {
        send(opcode, adjacency(iod, HOST_A, true, true));
        send(opcode, adjacency(iod, HOST_B, true, false));
        send(opcode, adjacency(iod, HOST_C, false, false));
    }
    work_off_messages();
}

fake::bytes send_request(const fake::bytes &frame)
{
    fake::bytes payload;
    payload.add_host32(VLAN).add_host32(PORT_B).add(frame.mac(0)).add(frame.mac(6)).add_zeros(2);
    return payload.add_host32(static_cast<std::uint32_t>(frame.size())).add(frame);
}

void send_other_messages()
{
    send(0xB9, fake::bytes(8));
    send(0x22DD);
    send(0x1340C, send_request(fake::padded(fake::ethernet(HOST_B, HOST_A, 0x0800), 64)));
    send(0x1340D, fake::bytes(4));
    send(0x13806);
    send(0x12345);
    send(0xF404, fake::bytes(2), {.sync_event = 3});
    for (const std::uint32_t opcode : {0x5C0Cu, 0xF403u, 0xF407u, 0x13404u, 0x1340Au, 0x1340Cu, 0x14C01u})
        send(opcode, fake::bytes(3));
    work_off_messages();
}

void change_addresses()
{
    const ip_address_change four{.msg_class = IP_MSG_CLASS, .kind = IP_MSG_ADDRESS_CHANGE, .iod = CORE, .secondary = 0,
                                 .change = 1, .reference = 0, .address = OUR_ADDRESS};
    const ipv6_address_change six{.msg_class = IPV6_MSG_CLASS, .kind = IPV6_MSG_ADDRESS_CHANGE, .iod = CORE,
                                  .old_address = REMOTE_EDGE6, .new_address = OUR_ADDRESS6};
    send(0x14C01, fake::bytes().add_host(four));
    send(0x14C01, fake::bytes().add_host(six));
    work_off_messages();
}

// The interface goes down and comes up again.
void flap(std::uint32_t iod)
{
    for (const bool up : {false, true}) {
        platform.interface(iod).up = up;
        send(0xF408, platform.changes({{iod, 0}}));
        work_off_messages();
    }
}

// ---- frames

void take_site_frames()
{
    const auto ip = [](std::uint32_t destination) { return fake::ip_packet_of(17, 0x0A000009, destination); };
    const fake::bytes frames[] = {
        fake::tagged(HOST_B, HOST_A, VLAN, 0x0800, fake::filler(46)),
        fake::tagged(HOST_C, HOST_A, VLAN, 0x0800, fake::filler(1400)),
        fake::tagged(HOST_B, HOST_A, GRE_VLAN, 0x0800, fake::filler(46)),
        fake::tagged(HOST_D, HOST_A, VLAN, 0x0800, fake::filler(46)),
        fake::tagged(ROUTED_GROUP, HOST_A, VLAN, 0x0800, ip(REMOTE_GROUP)),
        fake::tagged(fake::BROADCAST, HOST_A, VLAN, 0x0806, fake::arp_request(HOST_A, 0x0A000009, 0x0A00000B)),
        fake::tagged(fake::BROADCAST, HOST_A, VLAN, 0x0806, fake::arp_request(HOST_A, 0x0A000009, 0x0A000001)),
        fake::tagged(fake::BROADCAST, HOST_A, GRE_VLAN, 0x0800, ip(0xFFFFFFFF)),
        fake::tagged(fake::group_mac(fake::solicited_node(fake::ipv6("2001:db8:a::b"))), HOST_A, VLAN, 0x86DD,
                     fake::neighbour_solicitation(fake::ipv6("2001:db8:a::9"), fake::ipv6("2001:db8:a::b"), &HOST_A)),
        fake::tagged(fake::mac("01:00:5e:00:00:12"), HOST_A, VLAN, 0x0800, fake::vrrp_hello(0x0A000009)),
        fake::tagged_snap(HOST_B, HOST_D, VLAN, 0x0800, fake::filler(46)),
        fake::bytes(9),
    };
    if (platform.queue_of(440) == MBUS_Q_INVALID)
        return;
    for (const fake::bytes &frame : frames)
        platform.deliver_frame(PORT_A, frame);
    platform.deliver_frame(PORT_B, fake::ethernet(HOST_B, HOST_A, 0x0800, fake::filler(46)));
    platform.deliver_frame(OVERLAY2, fake::tagged(HOST_A, HOST_B, GRE_VLAN, 0x0800, fake::filler(46)));
    platform.deliver_frame(CORE, frames[0], 0x999);
    run_body("lum-pm-thread", lum_pm_main);
}

void take_core_packets()
{
    const fake::bytes frames[] = {
        fake::tagged(HOST_A, HOST_B, VLAN, 0x0800, fake::filler(46)),
        fake::tagged(fake::BROADCAST, HOST_B, VLAN, 0x0806, fake::arp_request(HOST_B, 0x0A00000B, 0x0A000009)),
        fake::tagged(HOST_A, HOST_B, VLAN, 0x0806, fake::arp_reply(HOST_B, 0x0A00000B, HOST_A, 0x0A000009)),
        fake::tagged(HOST_A, HOST_B, VLAN, 0x86DD,
                     fake::neighbour_advertisement(fake::ipv6("2001:db8:a::b"), fake::ipv6("2001:db8:a::9"),
                                                   fake::ipv6("2001:db8:a::b"), &HOST_B)),
    };
    for (const fake::bytes &frame : frames) {
        platform.datagram(AF_INET, fake::core_packet(REMOTE_EDGE, OUR_ADDRESS, frame));
        platform.datagram(AF_INET6, fake::core_packet(REMOTE_EDGE6, OUR_ADDRESS6, frame));
    }
    platform.datagram(AF_INET, fake::bytes(7));
    platform.run_thread("lum-ip-udp-thread");
    platform.run_thread("lum-ipv6-udp-thread");
}

// ---- towards the end

void show_everything()
{
    for (const cli_handler handler :
         {lum_show_overlay_cmd, lum_show_overlay_adj_cmd, lum_show_interface_cmd, lum_show_vlan_cmd,
          lum_show_arp_nd_cache_cmd, lum_show_site_cmd, launcher_show_process_version_cmd})
        run_command(handler);
    run_command(lum_show_vlan_cmd, {{"detail", ""}});
    run_command(lum_show_internal_sdb_cmd, {{"overlay", ""}});
    run_command(lum_show_internal_sdb_cmd, {{"adjacency", ""}});
}

void switch_over() CORVANE_REQUIRES(plock_process_lock)
{
    platform.svcmgr_switchover(true, true);
    lum_switchover();
    lum_switchover_done();
    work_off_messages();
}

void take_routes_back()
{
    for (const arguments &route : {REMOTE_ROUTE, REMOTE_ROUTE6, GRE_ROUTE, WAITING_ROUTE, GROUP_ROUTE})
        run_no_command(lum_route_cmd, route);
    run_no_command(lum_mroute_cmd, MROUTE);
    run_no_command(lum_static_tunnel_cmd, TUNNEL);
    run_no_command(lum_anycast_arp_cmd, ANYCAST);
    run_no_command(lum_anycast_arp_cmd, ANYCAST6);
}

// One overlay loses its VLANs by command first, the other one with its interface. A client acknowledges twice: what the
// database refused to forget the first time is tried again.
void delete_overlays()
{
    run_no_command(lum_vpn_vlan_cmd, {{"<vlan-range>", "30"}}, OVERLAY2);
    run_no_command(lum_vpn_mgroup_addr_cmd, {}, OVERLAY2);
    run_no_command(lum_vpn_ext_if_cmd, {}, OVERLAY2);
    send(0xF404, platform.changes({{OVERLAY2, 0}}));
    send(0xF404, platform.changes({{OVERLAY, 0}, {OVERLAY2, 0}, {PORT_A, 0}}));
    for (int times = 0; times < 2; ++times)
        for (const std::uint32_t iod : {OVERLAY, OVERLAY2})
            send(0x13404, fake::bytes().add_host32(iod));
    work_off_messages();
}

void give_ports_back()
{
    for (const std::uint32_t iod : {PORT_A, PORT_B, DOWN_PORT})
        for (const char *vlan : {"10", "20", "21", "30", "40"})
            run_no_command(lum_vlan_cmd, {{"<vlan-id>", vlan}}, iod);
    run_no_command(lum_vlan_cmd, {{"<vlan-id>", "1"}, {"trunk-port", ""}}, OVERLAY2);
}

void live() CORVANE_REQUIRES(plock_process_lock)
{
    bring_clients_up();
    trace_everything();
    configure_overlays();
    configure_ports();
    configure_routes();
    drive_route_table_by_hand();
    send_adjacencies(0x1340A);
    send_other_messages();
    take_core_packets();
    take_site_frames();
    platform.advance(16);                                    // the learn buffer goes out
    take_site_frames();
    change_addresses();
    flap(CORE);
    flap(OVERLAY);
    flap(DOWN_PORT);
    platform.advance(130);                                   // routes age
    show_everything();
    switch_over();
    send_adjacencies(0x1340B);
    take_routes_back();
    delete_overlays();
    give_ports_back();
    send(0x22DE);                                            // the feature is disabled: the process is to stop
    work_off_messages();
}

class LumWithOneFailure : public FakePlatformTest {
protected:
    LumWithOneFailure()
    {
        plock_assert_held();
        reset_daemon();
    }
    ~LumWithOneFailure() override
    {
        plock_assert_held();
        reset_daemon();
    }

    // The nth call fails, none when it is 0.
    static void run(std::size_t nth)
    {
        plock_assert_held();
        add_interfaces();
        platform.fail_any(nth);
        if (start())
            live();
        lum_cleanup();
    }

    // Of the last run; the daemon's tables are emptied on the way.
    static void check_books()
    {
        plock_assert_held();
        reset_daemon();
        EXPECT_LE(platform.messages_outstanding(), may_keep_a_message(platform.refused()) ? 1u : 0u);
        EXPECT_EQ(platform.double_drops, 0u);
        EXPECT_EQ(platform.lock_errors, 0u);
        EXPECT_EQ(platform.mbufs_out(), 0u);
        EXPECT_FALSE(platform.route_lock_held);
        for (std::uint32_t type = 0; type < LUM_MEM_TYPE_MAX; ++type)
            EXPECT_EQ(platform.memory_blocks(type), type == LUM_MEM_TYPE_PACKET ? receive_buffers() : 0)
                << "blocks left of " << __lum_mem_type_t_find(type);
    }

private:
    // A drop that failed was the only one of its message, which the bus keeps then. And without its database the daemon
    // cannot complete a deletion: the message that asked for it stays held.
    static bool may_keep_a_message(const std::string &refused)
    {
        return refused == "mbus_drop" || refused == "hakit_ha_register_sdb";
    }
    // The buffer of a receive thread lives as long as the process.
    static std::size_t receive_buffers()
    {
        const auto threads = platform.threads();
        const auto ran = std::ranges::count_if(threads, [](const fake::thread_record &thread) {
            return thread.ran && thread.name.find("udp") != std::string::npos;
        });
        const auto without = std::ranges::count(platform.syslog, "MALLOC_FAILED", &fake::log_line::tag);
        return static_cast<std::size_t>(ran - without);
    }
};

TEST_F(LumWithOneFailure, HoldsNothingAtTheEndOfItsLifeWhenNothingFails)
{
    run(0);
    EXPECT_EQ(platform.refused(), "");
    for (const std::uint32_t type : {LUM_MEM_TYPE_OVERLAY, LUM_MEM_TYPE_RTAB_BUFFER, LUM_MEM_TYPE_STATIC,
                                     LUM_MEM_TYPE_INTERFACE_PT, LUM_MEM_TYPE_ARP_ND_CACHE, LUM_MEM_TYPE_ADJ})
        EXPECT_EQ(platform.memory_blocks(type), 0u) << __lum_mem_type_t_find(type);
    EXPECT_EQ(platform.memory_blocks(LUM_MEM_TYPE_PACKET), 2u);
    EXPECT_EQ(platform.messages_outstanding(), 0u);
    check_books();
}

// Unless the script reaches the paths, the failures of the next test reach nothing.
TEST_F(LumWithOneFailure, DoesOneOfEverythingInItsLife)
{
    run(0);
    EXPECT_THAT(platform.ip_sent, Not(IsEmpty()));
    EXPECT_THAT(platform.ipv6_sent, Not(IsEmpty()));
    EXPECT_THAT(platform.l2_sent, Not(IsEmpty()));
    EXPECT_THAT(platform.l2_multicast_sent, Not(IsEmpty()));
    EXPECT_THAT(platform.route_updates, Not(IsEmpty()));
    EXPECT_THAT(platform.sdb_writes, Not(IsEmpty()));
    EXPECT_THAT(platform.heartbeats, Not(IsEmpty()));
    for (const std::uint32_t opcode : {78851u, 78852u, 78853u, 78854u})
        EXPECT_THAT(platform.sent_with(opcode), Not(IsEmpty())) << opcode;
    check_books();
}

TEST_F(LumWithOneFailure, SurvivesTheFailureOfEachOfItsCalls)
{
    std::set<std::string> failed;
    for (std::size_t nth = 1; !HasFailure(); ++nth) {
        platform.reset();
        run(nth);
        SCOPED_TRACE("call " + std::to_string(nth) + " failed: " + platform.refused());
        check_books();
        if (platform.refused().empty())
            break;                                           // there are not so many calls
        failed.insert(platform.refused());
    }
    EXPECT_THAT(failed,
                IsSupersetOf({"active_timer_create", "avlt_insert", "bitfield_create", "corvane_pthread_create",
                              "corvane_recvfrom", "corvane_setsockopt", "hakit_sdb_delete", "hakit_sdb_update",
                              "intfmgr_get_ifindex", "ip_cl_output", "ip_cl_output_l2", "ipv6_client_output",
                              "m_copyback", "m_get", "mbus_drop", "mbus_options_set", "mbus_recv", "mbus_send",
                              "memacct_alloc", "net_l2_send", "pt_insert", "pt_remove", "rtab_update_route"}));
}

} // namespace
