// VLAN manager: the switchport commands about VLANs, the membership query, and the L2 state of ports.
#include "vlanmgr.h"

#include "corvaned.h"
#include "intfmgr.h"
#include "vlan_ports.h"

#include "../api/intfmgr.h"
#include "../api/vlanmgr.h"
#include "../wire/vlanmgr.h"

using namespace corvane;

namespace corvaned {
namespace {

constexpr int DONE = 0, REJECTED = -500;

vlan_ports::link link_of(const std::string &name)
{
    const interface_info port = intfmgr_get(intfmgr_find(name));
    return {port.iod, port.ifindex, port.switchport && port.up};
}

vlan_ports &ports()
{
    static vlan_ports all({link_of, [](const std::vector<vlan_ports::state> &states) {
                               for (const auto &payload : l2_state_payloads(states))
                                   intfmgr_announce(INTFMGR_OPC_L2_STATE, payload);
                           }});
    return all;
}

int configure(command &c, port_mode mode, const char *argument)
{
    if (c.no) {
        if (ports().has_mode(c.mode_name, mode))
            ports().clear(c.mode_name);
        return DONE;
    }
    vlan_set vlans;
    const std::string *text = c.get(argument);
    if (text == nullptr || !vlan_list_parse(*text, vlans) || (mode == port_mode::ACCESS && vlans.count() != 1)) {
        c.print("not a VLAN: " + (text == nullptr ? std::string() : *text) + "\n");
        return REJECTED;
    }
    if (!intfmgr_get(intfmgr_find(c.mode_name)).switchport) {
        c.print(c.mode_name + " is not a switchport\n");
        return REJECTED;
    }
    ports().configure(c.mode_name, mode, vlans);
    return DONE;
}

void answer_query(const message &m)
{
    const bool valid = ports().query(m.payload, [&](byte_view reply) {
        if (bus_send(m.source_sap, VLANMGR_SAP, VLANMGR_OPC_MEMBERSHIP, reply) != 0)
            log_line(4, "VLAN manager: SAP " + std::to_string(m.source_sap) + " takes no membership reply");
    });
    if (!valid)
        log_line(4, "VLAN manager: malformed membership query from SAP " + std::to_string(m.source_sap));
}

} // namespace

bool vlanmgr_clear(const std::string &name) { return ports().clear(name); }

std::string vlanmgr_mode_text(const std::string &name) { return ports().mode_text(name); }

void vlanmgr_start()
{
    serve_command("switchport_access_vlan", [](command &c) { return configure(c, port_mode::ACCESS, "<vlan-id>"); });
    serve_command("switchport_trunk_allowed", [](command &c) { return configure(c, port_mode::TRUNK, "<vlan-list>"); });
    on_interface_state([](const interface_info &i) { ports().refresh(i.name); });
    bus_serve(VLANMGR_SAP, [](const message &m) {
        if (m.opcode == VLANMGR_OPC_MEMBERSHIP)
            answer_query(m);
    });
    service_hosted(SVC_VLANMGR, "vlanmgr");
}

} // namespace corvaned
