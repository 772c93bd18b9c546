// Fixture of the daemon's tests: tables initialised as start-up leaves them, and short ways to make ports, VLANs and
// overlays. Each test starts and ends with every table empty.
#pragma once

#include "fake_test.h"
#include "lum_inlines.h"
#include "lum_msgs.h"
#include "lum_packet.h"

#include "drops.h"

#include <string>

namespace lum_test {

inline constexpr std::uint32_t PORT_A = 1, PORT_B = 2, PORT_C = 3, CORE = 20, OVERLAY = 100, OVERLAY2 = 101;
inline constexpr std::uint32_t VLAN = 10;
inline constexpr std::uint32_t OUR_ADDRESS = 0xC0000201;     // 192.0.2.1
inline constexpr std::uint32_t REMOTE_EDGE = 0xC6336409;     // 198.51.100.9
inline constexpr std::uint32_t CONTROL_GROUP = 0xEF010101;   // 239.1.1.1
inline const fake::mac_address HOST_A = fake::mac("02:00:00:00:00:0a"), HOST_B = fake::mac("02:00:00:00:00:0b"),
                               HOST_C = fake::mac("02:00:00:00:00:0c");
inline const ipv6_address OUR_ADDRESS6 = fake::ipv6("2001:db8::1"), REMOTE_EDGE6 = fake::ipv6("2001:db8::9"),
                          CONTROL_GROUP6 = fake::ipv6("ff0e::101");

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// Every table and flag of the daemon as it is at load.
void reset_daemon();

class LumTest : public FakePlatformTest {
protected:
    LumTest();
    ~LumTest() override;

    // A site port, member of the VLAN, with its port record. The VLAN gets its entry.
    lum_port &site_port(std::uint32_t iod, std::uint32_t vlan = VLAN, bool trunk = false);
    lum_vlan &vlan_entry(std::uint32_t vlan = VLAN);         // in use
    // An overlay that is UP: UDP over IPv4 with both address families configured. It extends the VLAN.
    lum_overlay &overlay(std::uint32_t iod = OVERLAY, std::uint32_t vlan = VLAN);
    static void trace_all_packets();

    [[nodiscard]] static std::uint64_t dropped(drop_reason reason);
    [[nodiscard]] static std::uint64_t dropped_in_all();
    [[nodiscard]] static lum_mac_info key(const fake::mac_address &mac, std::uint32_t vlan = VLAN)
    {
        return {vlan, mac};
    }
    // Runs input on a copy of its own, so that a read past the end is a read past an allocation.
    static void input(const fake::bytes &frame, std::uint32_t iod);
    [[nodiscard]] static std::vector<std::uint32_t> ports_sent_to();

    std::size_t receive_buffers_ = 0;                        // of receive threads that ran: never freed
};

} // namespace lum_test
