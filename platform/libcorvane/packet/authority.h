// Which VLANs this device holds back because another edge device of the site is their authoritative one. Without it two
// edges on one site would loop and duplicate frames. Nothing is held back for an overlay without a site adjacency,
// since no election has taken place there, nor on the site VLAN, on which the edges of a site see each other.
#pragma once

#include "tag.h"

#include "mbus.h"

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace corvane {

// ---- the frame path: any thread, no lock

[[nodiscard]] bool authority_holds_back(std::uint16_t vlan);
// The VLAN of a frame in the daemon's form on this port: its tag's, or the port's own. 0: not known.
[[nodiscard]] std::uint16_t vlan_of_frame(std::uint32_t iod, const std::uint8_t *frame, std::size_t length);
// The VLAN of untagged frames of a port, as the VLAN manager announces it or `lum vlan` configures it.
void port_vlan_set(std::uint32_t iod, std::uint16_t vlan);
void port_vlan_clear(std::uint32_t iod, std::uint16_t vlan);
[[nodiscard]] std::uint16_t port_vlan(std::uint32_t iod);
// A configuration command that the daemon has carried out; `lum vlan ID` gives the port of its mode its VLAN.
void port_vlan_configured(const std::string &handler, std::uint32_t iod, bool no,
                          const std::vector<std::pair<std::string, std::string>> &arguments);

// ---- what it follows

using adjacency_id = std::array<std::uint8_t, 6>;
// A site adjacency that the daemon is being told of. It counts from the daemon's next VLAN notification on, which is
// the one that tells the election's result: until then the flags are those of before.
void authority_adjacency(std::uint32_t overlay_iod, const adjacency_id &system_id, bool present);
void authority_site_vlan(std::uint16_t vlan);
struct vlan_authority {
    std::uint16_t vlan = 0;
    std::uint32_t overlay_iod = 0;
    bool authoritative = false;
};
void authority_vlans(std::span<const vlan_authority> vlans, bool after_election);
// Watches the messages that this process receives for those of the adjacency protocol.
void authority_watch_messages();
void authority_take_message(const mbus_msg &msg);

} // namespace corvane
