// Every command that can be refused, with every text: it says why, changes nothing and tells nobody. The state is
// compared as a whole, so that a new field is looked at too.
#include "control_test.h"

#include <cstring>

using namespace fake;
using namespace testing;

namespace
{

constexpr std::uint32_t NO_INTERFACE = 300, TRUNK_PORT = 30;

struct refusal {
    cli_handler handler;
    command_arguments arguments;
    bool no = false;
    std::uint32_t iod = 0;
    std::string output;
};

// Everything that a command may change.
struct whole_state {
    overlay_snapshot first, second;
    std::vector<std::uint8_t> globals;
    std::vector<std::string> entries;
    bool operator==(const whole_state &) const = default;
};

struct LumRejectedCommands : ControlTest {
    lum_overlay &overlay = make_overlay(OVERLAY), &other = make_overlay(OVERLAY2);

    LumRejectedCommands()
    {
        platform.add_interface(TRUNK_PORT, "portX", {.switchport = true});   // no device of the host is called "ethX"
        platform.add_interface(7, "eth7", {.up = false});
        configure(lum_vpn_name_cmd, {{"<vpn-name>", "blue"}}, OVERLAY);
        configure(lum_vpn_ext_if_cmd, {{"<ext_if>", "eth5"}}, OVERLAY);
        configure(lum_vpn_mgroup_addr_cmd, {{"<maddr>", "239.1.1.1"}}, OVERLAY);
        configure(lum_vpn_mgroup_addr_cmd, {{"<maddr6>", "ff05::1"}}, OVERLAY);
        configure(lum_vpn_vlan_cmd, {{"<vlan-range>", "10,20-22"}}, OVERLAY);
        configure(lum_core_group_cmd, {{"<prefix>", "239.192.0.0/16"}}, OVERLAY);
        configure(lum_core_group_cmd, {{"<prefix6>", "ff15::/100"}}, OVERLAY);
        configure(lum_vpn_site_vlan_cmd, {{"<vlan-id>", "20"}});
        for (char last = '1'; last <= '8'; ++last)
            configure(lum_anycast_arp_cmd, {{"<addr>", std::string("10.0.0.") + last}});
        for (char last = '1'; last <= '4'; ++last)
            configure(lum_route_cmd, {{"<mac-info>", FULL}, {"<nh>", std::string("198.51.100.") + last}});
        configure(lum_static_tunnel_cmd, {{"<nh>", "198.51.100.1"}, {"<if-name>", "eth1"}});
    }

    static void configure(cli_handler handler, const command_arguments &arguments, std::uint32_t iod = 0)
    {
        const command_result result = platform.command(handler, arguments, false, iod);
        ASSERT_EQ(result.status, 0) << result.output;
    }

    template <class T> static void add(std::vector<std::uint8_t> &bytes, const T &value)
    {
        const auto *p = reinterpret_cast<const std::uint8_t *>(&value);
        bytes.insert(bytes.end(), p, p + sizeof value);
    }
    static void add_queue(std::vector<std::string> &texts, const rqueue &queue)
    {
        for (const rqueue_link *link = queue.head; link != nullptr; link = link->next) {
            const auto &entry = *reinterpret_cast<const lum_static_entry *>(link);
            lum_text mac, next_hop;
            texts.push_back(std::string(lum_print_mac_info(entry.mac, mac)) + " " +
                            lum_print_addr(entry.next_hop, next_hop) + " " + entry.if_name);
        }
    }
    whole_state state() const
    {
        whole_state now{snapshot(overlay), snapshot(other), {}, {}};
        add(now.globals, lum_vlans);
        add(now.globals, lum_anycast_arp_addrs);
        add(now.globals, lum_any_anycast_arp_addrs);
        add(now.globals, lum_filter_fhrp);
        add(now.globals, lum_svr.site_vlan);
        for (const lum_vlan &entry : lum_vlans)
            if (entry.ports != nullptr)
                add(now.globals, bitfield_count_set(*entry.ports));
        add_queue(now.entries, lum_staticQ);
        add_queue(now.entries, lum_static_tunnelQ);
        for (std::uint32_t iod = 0; iod < LUM_PORTS; ++iod)
            if (const lum_port *port = lum_get_from_pt(iod); port != nullptr)
                now.entries.push_back("port " + std::to_string(iod));
        return now;
    }

    void expect_refused(std::initializer_list<refusal> rows)
    {
        for (const refusal &row : rows) {
            SCOPED_TRACE(row.output + (row.no ? "(no)" : ""));
            const whole_state before = state();
            platform.forget();
            const command_result result = platform.command(row.handler, row.arguments, row.no, row.iod);
            EXPECT_EQ(result.status, -500);
            EXPECT_EQ(result.output, row.output);
            EXPECT_EQ(result.tty, "");
            EXPECT_TRUE(state() == before);
            EXPECT_THAT(told(), IsEmpty());
            EXPECT_THAT(platform.mbus_sent, IsEmpty());
            EXPECT_THAT(platform.route_updates, IsEmpty());
            EXPECT_THAT(group_calls(), IsEmpty());
        }
    }
    // The same in both forms.
    void expect_both_refused(const refusal &row)
    {
        refusal no = row;
        no.no = true;
        expect_refused({row, no});
    }

    static constexpr char FULL[] = "10/02:00:00:00:0b:10", GROUP_MAC[] = "10/01:00:5e:01:01:01";
};

TEST_F(LumRejectedCommands, OfAnOverlayThatIsNoneInBothForms)
{
    for (const std::uint32_t iod : {0u, NO_INTERFACE})
        for (const auto &[handler, arguments] : std::initializer_list<std::pair<cli_handler, command_arguments>>{
                 {lum_vpn_name_cmd, {{"<vpn-name>", "x"}}},
                 {lum_vpn_ext_if_cmd, {{"<ext_if>", "eth5"}}},
                 {lum_vpn_mgroup_addr_cmd, {{"<maddr>", "10.0.0.1"}}},       // before the address is looked at
                 {lum_vpn_mgroup_addr_cmd, {{"<maddr6>", "ff05::1"}}},
                 {lum_vpn_encap_format_cmd, {{"gre", ""}}},
                 {lum_vpn_vlan_cmd, {}},                                     // before the ranges are read
                 {lum_suppress_arp_cmd, {}},
                 {lum_core_group_cmd, {{"<prefix6>", "ff15::/12"}}}})
            expect_both_refused({handler, arguments, false, iod, "No such overlay\n"});
}

TEST_F(LumRejectedCommands, OfAnOverlay)
{
    const auto on = [&](cli_handler handler, const char *name, const char *value, bool no, const std::string &text) {
        expect_refused({{handler, {{name, value}}, no, OVERLAY, text}});
    };
    on(lum_vpn_name_cmd, "<vpn-name>", "red", true, "Invalid overlay name\n");
    on(lum_vpn_name_cmd, "<vpn-name>", "", true, "Invalid overlay name\n");
    for (const bool no : {false, true}) {
        on(lum_vpn_mgroup_addr_cmd, "<maddr>", "0.0.0.0", no, "Illegal group address\n");
        on(lum_vpn_mgroup_addr_cmd, "<maddr>", "223.255.255.255", no, "Illegal group address\n");
        on(lum_vpn_mgroup_addr_cmd, "<maddr>", "240.0.0.0", no, "Illegal group address\n");
        on(lum_vpn_mgroup_addr_cmd, "<maddr>", "224.0.0.0", no, "Cannot be link-local group address\n");
        on(lum_vpn_mgroup_addr_cmd, "<maddr>", "224.0.0.255", no, "Cannot be link-local group address\n");
        on(lum_vpn_mgroup_addr_cmd, "<maddr>", "232.0.0.0", no, "Cannot be SSM reserved group 232.0.0.0\n");
        on(lum_vpn_vlan_cmd, "<no-list>", "", no, "Error in getting vlan range\n");
        on(lum_vpn_vlan_cmd, "<vlan-range>", "1,3,5,7,9,11,13,15,17,19,21,23,25,27,29,31,33", no,
           "Too many vlan ranges\n");
    }
    on(lum_vpn_mgroup_addr_cmd, "<maddr>", "239.1.1.2", true, "No such group\n");
    on(lum_vpn_mgroup_addr_cmd, "<maddr6>", "ff05::2", true, "No such group\n");
    on(lum_core_group_cmd, "<prefix>", "239.192.0.0/17", true, "Group not configured, command rejected\n");
    on(lum_core_group_cmd, "<prefix>", "239.193.0.0/16", true, "Group not configured, command rejected\n");
    on(lum_core_group_cmd, "<prefix6>", "ff15::/101", true, "Group not configured, command rejected\n");
    on(lum_core_group_cmd, "<prefix6>", "ff15::1/100", true, "Group not configured, command rejected\n");
    on(lum_core_group_cmd, "<prefix6>", "ff15::/95", true, "Group not configured, command rejected\n");
    on(lum_core_group_cmd, "<prefix6>", "ff15::/95", false, "Mask-length can be >- 96, command rejected\n");
    on(lum_core_group_cmd, "<prefix6>", "::/0", false, "Mask-length can be >- 96, command rejected\n");
}

TEST_F(LumRejectedCommands, WithTwoRangesOfWhichOneIsRefused)
{
    expect_refused({{lum_core_group_cmd, {{"<prefix>", "239.192.0.0/16"}, {"<prefix6>", "ff15::/101"}}, true, OVERLAY,
                     "Group not configured, command rejected\n"},
                    {lum_core_group_cmd, {{"<prefix>", "239.1.0.0/16"}, {"<prefix6>", "ff15::/95"}}, false, OVERLAY,
                     "Mask-length can be >- 96, command rejected\n"}});
}

TEST_F(LumRejectedCommands, OfAPort)
{
    expect_refused({{lum_vlan_cmd, {{"<vlan-id>", "10"}}, false, CORE, "LUM can be configured on switchports only\n"},
                    {lum_vlan_cmd, {{"<vlan-id>", "10"}}, false, 0, "LUM can be configured on switchports only\n"},
                    {lum_vlan_cmd, {{"<vlan-id>", "10"}, {"trunk-port", ""}}, false, CORE,
                     "LUM can be configured on switchports only\n"},
                    // Reception cannot be switched there; that is told without words, deliberate.
                    {lum_vlan_cmd, {{"<vlan-id>", "10"}}, false, TRUNK_PORT, ""},
                    {lum_vlan_cmd, {{"<vlan-id>", "30"}}, false, TRUNK_PORT, ""},
                    {lum_vlan_cmd, {{"<vlan-id>", "10"}, {"trunk-port", ""}}, false, TRUNK_PORT, ""}});
}

TEST_F(LumRejectedCommands, OfTheAnycastList)
{
    expect_refused(
        {{lum_anycast_arp_cmd, {{"<addr>", "10.0.0.9"}}, false, 0,
          "Can only store 8 anycast-arp addresses, command rejected\n"},
         {lum_anycast_arp_cmd, {{"<addr>", "10.0.0.1"}}, false, 0,          // also one that is there already
          "Can only store 8 anycast-arp addresses, command rejected\n"},
         {lum_anycast_arp_cmd, {{"<addr6>", "2001:db8::1"}}, false, 0,
          "Can only store 8 anycast-arp addresses, command rejected\n"},
         {lum_anycast_arp_cmd, {{"<addr>", "10.0.0.9"}}, true, 0, "Anycast-ARP address 10.0.0.9 not found\n"},
         {lum_anycast_arp_cmd, {{"<addr6>", "2001:db8::1"}}, true, 0, "Anycast-ARP address 2001:db8::1 not found\n"}});
}

TEST_F(LumRejectedCommands, OfStaticRoutes)
{
    for (const char *text :
         {"", "10", "10/", "/02:00:00:00:00:01", "4096/02:00:00:00:00:01", "-1/02:00:00:00:00:01", "10/02:00:00:00:00",
          "10/02:00:00:00:00:01:", "10/02:00:00:00:00:0g", "x/02:00:00:00:00:01"})
        expect_both_refused({lum_route_cmd, {{"<mac-info>", text}, {"<if-name>", "eth1"}}, false, 0,
                             "Illegal VLAN-id\n"});
    expect_both_refused({lum_route_cmd, {{"<mac-info>", GROUP_MAC}}, false, 0,
                         "Invalid next-hop for multicast MAC address\n"});
    for (const auto &[name, address] : {std::pair{"<nh>", "198.51.100.9"}, {"<nh6>", "2001:db8::9"}})
        expect_both_refused({lum_route_cmd, {{"<mac-info>", GROUP_MAC}, {"<if-name>", "eth1"}, {name, address}}, false,
                             0, "Invalid next-hop for multicast MAC address\n"});
    const std::string most = "Maximum supported next-hops for static entries is 4\n";
    expect_refused({{lum_route_cmd, {{"<mac-info>", FULL}, {"<nh>", "198.51.100.5"}}, false, 0, most},
                    {lum_route_cmd, {{"<mac-info>", FULL}, {"<nh>", "198.51.100.1"}}, false, 0, most},
                    {lum_route_cmd, {{"<mac-info>", FULL}, {"<if-name>", "eth7"}}, false, 0, most},
                    {lum_route_cmd, {{"<mac-info>", FULL}, {"<if-name>", "eth1"}}, false, 0, most}});
}

TEST_F(LumRejectedCommands, OfStaticMulticastRoutes)
{
    const command_arguments group{{"<vlan-id>", "10"}, {"<ga>", "239.1.1.1"}, {"<if-name>", "eth7"}};
    expect_both_refused({lum_mroute_cmd, group, false, 0, "Interface down\n"});
    expect_both_refused({lum_mroute_cmd, {{"<vlan-id>", "10"}, {"<ga>", "239.1.1.1"}, {"<if-name>", "eth77"}}, false, 0,
                         "Interface down\n"});
    // The group is looked at before the interface.
    expect_both_refused({lum_mroute_cmd, {{"<vlan-id>", "10"}, {"<ga6>", "ff05::1"}, {"<if-name>", "eth7"}}, false, 0,
                         "To be implemented\n"});
}

TEST_F(LumRejectedCommands, OfTheMaintenanceCommand)
{
    for (const char *word : {"rtab_add_route", "rtab_delete_route"})
        expect_refused({{lum_rtab_command, {{word, ""}, {"<mac>", "4096/02:00:00:00:00:01"}}, false, 0,
                         "Illegal VLAN-id\n"},
                        {lum_rtab_command, {{word, ""}}, false, 0, "Illegal VLAN-id\n"}});
}

} // namespace
