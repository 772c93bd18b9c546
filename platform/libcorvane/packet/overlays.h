// What the packet service has to know of the overlays: their format, core interface, addresses and groups, and which
// overlay carries a VLAN. It follows the daemon's own publications - parameter and VLAN notifications on the bus, and
// the database records behind them - as any other client of the daemon does.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

namespace corvane {

struct overlay_config {
    std::uint32_t iod = 0, core_iod = 0;
    bool gre = false;
    std::uint8_t family = 4;                                   // of the core: 4 or 5
    std::array<std::uint8_t, 4> ipv4{}, ipv4_group{};          // network order, zero = none
    std::array<std::uint8_t, 16> ipv6{}, ipv6_group{};
    bool up = false;
};

// Begins to follow, once; the queue is bound when this returns true. Without the bus it tries again when asked next.
[[nodiscard]] bool overlays_follow();

// Any thread. False: not an overlay with parameters.
[[nodiscard]] bool overlay_get(std::uint32_t iod, overlay_config &out);
[[nodiscard]] bool overlays_use_gre();
[[nodiscard]] std::vector<overlay_config> overlays_all();
[[nodiscard]] std::uint32_t overlays_version();                // counts changes
// The GRE overlay that a core packet to `destination` is for: among those with that address or group, the one that
// carries `vlan`, else any; for any other group the one that carries `vlan`. 0: none. `family` is 4 or 5.
[[nodiscard]] std::uint32_t overlay_of_packet(std::uint8_t family, const std::uint8_t *destination, std::uint16_t vlan);

struct interface_table;
// Forgets overlays whose interface is gone.
void overlays_prune(const interface_table &table);

// Sets, in the place of a notification or record. For the follower and for tests.
void overlay_set(const overlay_config &config);
void overlay_vlan_set(std::uint16_t vlan, std::uint32_t iod);

} // namespace corvane
