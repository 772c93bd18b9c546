// Fixture of the control plane's tests: the daemon's tables on an empty platform, three interfaces, and helpers that
// say what was published and sent.
#pragma once

#include "fake_test.h"
#include "lum_inlines.h"
#include "lum_packet.h"
#include "lum_ui.h"

#include "memacct.h"

#include <string>
#include <vector>

// Everything of the record that callers may change, for "nothing has changed".
struct overlay_snapshot {
    std::vector<std::uint8_t> record;
    std::vector<std::uint32_t> vlans;
    bool operator==(const overlay_snapshot &) const = default;
};

class ControlTest : public FakePlatformTest {
protected:
    static constexpr std::uint32_t OVERLAY = 100, OVERLAY2 = 101, CORE = 5, PORT = 1;
    static constexpr std::uint32_t GROUP = 0xEF010101, CORE_IPV4 = 0xC0000201;     // 239.1.1.1, 192.0.2.1

    ControlTest()
    {
        lum_init_bitfields();
        lum_init_pt();
        lum_init_mbus();
        lum_init_ds();
        lum_at_set_heap = active_timer_new_set_init(8);
        lum_sdb_handle = hakit_ha_register_sdb(2, "lum_sdb_info", 0x1340D, 0x1340E);
        platform.add_interface(OVERLAY, "Overlay1", {.overlay = true});
        platform.add_interface(OVERLAY2, "Overlay2", {.overlay = true});
        platform.add_interface(CORE, "eth5", {.ipv4 = CORE_IPV4, .context = 7});
        platform.add_interface(PORT, "eth1", {.switchport = true});
        platform.forget();
    }

    ~ControlTest() override
    {
        free_overlays();
        free_vlans_and_ports();
        free_static_entries();
        clear_globals();
        EXPECT_EQ(platform.memory_blocks(LUM_MEM_TYPE_OVERLAY), 0u);
        EXPECT_EQ(platform.memory_blocks(LUM_MEM_TYPE_ADJ), 0u);
        EXPECT_EQ(platform.memory_blocks(LUM_MEM_TYPE_STATIC), 0u);
        EXPECT_EQ(platform.memory_blocks(LUM_MEM_TYPE_RTAB_BUFFER), 0u);
        EXPECT_EQ(platform.memory_blocks(LUM_MEM_TYPE_INTERFACE_PT), 0u);
        EXPECT_EQ(platform.memory_blocks(LUM_MEM_TYPE_ARP_ND_CACHE), 0u);
    }

    // An overlay as its creation leaves it, with what that recorded forgotten.
    lum_overlay &make_overlay(std::uint32_t iod = OVERLAY)
    {
        lum_overlay *overlay = lum_create_overlay(iod);
        if (overlay == nullptr)
            throw std::logic_error("no overlay");
        platform.forget();
        return *overlay;
    }

    // An overlay that has all it needs, UP.
    lum_overlay &make_up_overlay(std::uint32_t iod = OVERLAY)
    {
        lum_overlay &overlay = make_overlay(iod);
        overlay.ipv4_group = lum_addr_next_hop(iod, GROUP);
        set_external(overlay, "eth5", CORE);
        overlay.ext_ipv4 = CORE_IPV4;
        overlay.context_id = 7;
        lum_update_overlay_state(overlay);
        EXPECT_EQ(overlay.state, LUM_OVERLAY_UP);
        platform.forget();
        return overlay;
    }

    static void set_external(lum_overlay &overlay, const char *name, std::uint32_t iod)
    {
        std::snprintf(overlay.ext_if[0].name, sizeof overlay.ext_if[0].name, "%s", name);
        overlay.ext_if[0].iod = iod;
        overlay.ext_if_count = 1;
    }

    // Puts a VLAN under an overlay as the configuration command does, without telling anybody.
    static void carry_vlan(lum_overlay &overlay, std::uint32_t vlan)
    {
        if (lum_vlans[vlan].in_use == 0)
            lum_vlan_vlandb_init(lum_vlans[vlan], vlan);
        bitfield_set(*overlay.vlans, vlan);
        lum_vlans[vlan].overlay = &overlay;
        ++overlay.vlan_refcount;
    }

    static std::vector<std::uint32_t> vlans_of(const lum_overlay &overlay)
    {
        std::vector<std::uint32_t> vlans;
        for (std::uint32_t vlan = 0; vlan < LUM_VLANS; ++vlan)
            if (overlay.vlans->test(vlan))
                vlans.push_back(vlan);
        return vlans;
    }

    static overlay_snapshot snapshot(const lum_overlay &overlay)
    {
        const auto *p = reinterpret_cast<const std::uint8_t *>(&overlay);
        return {{p + sizeof overlay.node, p + sizeof overlay}, vlans_of(overlay)};
    }

    static fake::bytes key(std::uint8_t type, std::uint32_t number = 0)
    {
        fake::bytes k;
        k.add8(type).add_host32(number);
        k.resize(33);
        return k;
    }
    static fake::bytes overlay_key(std::uint32_t iod = OVERLAY) { return key(2, iod); }

    // What left for other processes, in order: "publish 2", "unpublish 2", "notify 78853".
    static std::vector<std::string> told()
    {
        std::vector<std::string> list;
        for (const fake::call_record &call : platform.calls) {
            if (call.name == "hakit_sdb_update")
                list.push_back("publish " + std::to_string(fake::hex(call.arguments[1]).u8(0)));
            else if (call.name == "hakit_sdb_delete")
                list.push_back("unpublish " + std::to_string(fake::hex(call.arguments[1]).u8(0)));
            else if (call.name == "mbus_send" && call.arguments[0] == "notify")
                list.push_back("notify " + call.arguments[1]);
        }
        return list;
    }

    static std::vector<std::string> group_calls()
    {
        return platform.call_texts({"ip_group_join", "ip_group_leave", "ipv6_group_join", "ipv6_group_leave"});
    }

    static std::string run(cli_handler handler, const fake::command_arguments &arguments = {}, std::uint32_t iod = 0)
    {
        const fake::command_result result = platform.command(handler, arguments, false, iod);
        EXPECT_EQ(result.status, CLI_DONE);
        return result.output;
    }

private:
    static void free_overlays()
    {
        avlt_iterator iterator;
        avlt_iterator_init(iterator, lum_svr.overlays);
        while (avlt_node *node = avlt_next(iterator)) {
            auto *overlay = reinterpret_cast<lum_overlay *>(node);
            while (overlay->adj_head != nullptr) {
                lum_site_adj *adj = overlay->adj_head;
                lum_remove_site_adj(*overlay, adj);
                lum_destroy_site_adj(adj);
            }
            lum_destroy_overlay(&overlay);
        }
        avlt_destroy(lum_svr.overlays);
        lum_svr = {};
    }
    static void free_vlans_and_ports()
    {
        for (lum_vlan &entry : lum_vlans) {
            if (entry.in_use != 0)
                lum_vlan_vlandb_retire(entry);
            entry = {};
        }
        while (auto *port = static_cast<lum_port *>(pt_first(lum_interface_pt)))
            lum_delete_from_pt(port);
        pt_destroy(lum_interface_pt);
    }
    static void free_static_entries()
    {
        while (lum_staticQ.head != nullptr) {
            const auto *entry = reinterpret_cast<const lum_static_entry *>(lum_staticQ.head);
            lum_delete_static_route(lum_mac_info{entry->mac}, lum_addr{entry->next_hop});
        }
        while (lum_static_tunnelQ.head != nullptr) {
            const auto *tunnel = reinterpret_cast<const lum_static_entry *>(lum_static_tunnelQ.head);
            lum_delete_static_tunnel(lum_addr{tunnel->next_hop});
        }
    }
    static void clear_globals()
    {
        lum_packet_debug_flag = lum_learn_debug_flag = lum_internal_debug_flag = 0;
        lum_event_debug_flag = lum_arp_nd_debug_flag = 0;
        lum_packet_debug_sa = lum_packet_debug_da = {};
        lum_packet_debug_unicast = lum_packet_debug_multicast = lum_packet_debug_broadcast = 0;
        lum_filter_fhrp = 1;
        lum_anycast_arp_addrs = {};
        lum_any_anycast_arp_addrs = 0;
        lum_pending_msg = {};
        lum_pending_msg_count = 0;
        lum_cli_initialized = 0;
        lum_mbus_q = MBUS_Q_INVALID;
    }
};
