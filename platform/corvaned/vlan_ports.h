// Which VLANs each switchport carries, and what is told about it when its link or its VLANs change.
#pragma once

#include "../wire/bytes.h"

#include <bitset>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace corvaned {

using vlan_set = std::bitset<4096>;

// A list of VLAN ids and ranges, 1 to 4094, as 10,20-30. False: it is none, and `out` is unchanged.
[[nodiscard]] bool vlan_list_parse(std::string_view text, vlan_set &out);
[[nodiscard]] std::string vlan_list_text(const vlan_set &vlans);

enum class port_mode { ACCESS, TRUNK };

class vlan_ports {
public:
    struct link {
        std::uint32_t iod = 0, ifindex = 0;
        bool usable = false;                                 // a switchport that has its link
    };
    struct state {                                           // an entry of the L2 state notification
        std::uint32_t iod = 0;
        port_mode mode = port_mode::ACCESS;
        bool up = false;
        vlan_set ups, downs;
    };
    struct environment {
        std::function<link(const std::string &name)> link_of;
        std::function<void(const std::vector<state> &)> announce;
    };
    explicit vlan_ports(environment given) : environment_(std::move(given)) {}

    // Replaces what the port was configured for.
    void configure(const std::string &name, port_mode mode, const vlan_set &vlans);
    bool clear(const std::string &name);                     // true when its VLANs were announced as gone
    void refresh(const std::string &name);                   // its link or its being a switchport may have changed

    // Answers a membership query: a reply for every VLAN asked for, then the L2 state of the ports that were named.
    // False: malformed, nothing was sent.
    [[nodiscard]] bool query(corvane::byte_view request, const std::function<void(corvane::byte_view)> &reply);

    // "access 10", "trunk 10,20-30", "" for a port without VLANs.
    [[nodiscard]] std::string mode_text(const std::string &name) const;
    [[nodiscard]] bool has_mode(const std::string &name, port_mode mode) const;

private:
    struct port {
        port_mode mode = port_mode::ACCESS;
        vlan_set vlans, announced;
        std::uint32_t iod = 0;                               // under which it was announced
    };
    void update(port &p, const std::string &name);

    environment environment_;
    std::map<std::string, port> ports_;
};

// Payloads of the L2 state notification, none longer than a message may be.
[[nodiscard]] std::vector<std::vector<std::uint8_t>> l2_state_payloads(const std::vector<vlan_ports::state> &states);

} // namespace corvaned
