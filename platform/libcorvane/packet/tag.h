// VLAN tags between the wire and the daemon. On the wire a tag is 802.1Q: type 0x8100 and a control field in network
// order behind the source address. Towards the daemon the control field stands low byte first, and in an 802.3 frame
// the tag stands behind the SNAP header, with 4 taken off the length field. Pure.
#pragma once

#include <cstddef>
#include <cstdint>

namespace corvane {

inline constexpr std::size_t ETHERNET_HEADER = 14, VLAN_TAG = 4, SNAP_HEADER_END = 22;
inline constexpr std::uint16_t TYPE_VLAN = 0x8100, TYPE_QINQ = 0x88A8, TYPE_IPV4 = 0x0800, TYPE_IPV6 = 0x86DD;
inline constexpr std::uint16_t LAST_802_3_LENGTH = 0x600;       // the daemon takes 0x600 itself as a length, too
// Bytes that conversion towards the daemon may need in front of a frame.
inline constexpr std::size_t TAG_HEADROOM = VLAN_TAG;

// A frame in a buffer with at least TAG_HEADROOM bytes in front; conversions move its first bytes only.
struct frame_ref {
    std::uint8_t *data = nullptr;
    std::size_t length = 0;
};

// The tag that the kernel took out of the frame.
struct tag_metadata {
    bool present = false;
    std::uint16_t type = TYPE_VLAN;
    std::uint16_t control = 0;                                  // host order: priority, DEI, VLAN
};

// False: too short for the headers it claims. A priority tag (VLAN 0) is taken off: such a frame is an untagged one.
[[nodiscard]] bool tag_to_daemon(frame_ref &frame, const tag_metadata &tag);

// Frame of the daemon, as destination, source, type, and what stands behind (`payload`), into `out`, which holds at
// least length + ETHERNET_HEADER bytes. An 802.3 frame gets back what the daemon's tag routines take off its length
// field, 4 in each direction, as far as the frame really is that long, and the SNAP type that went with the tag. Result:
// bytes written; 0: too short for its tag.
struct daemon_frame {
    const std::uint8_t *destination;
    const std::uint8_t *source;
    std::uint16_t type;                                         // host order
    const std::uint8_t *payload;
    std::size_t length;
    bool untagged = false;                                      // the daemon took its tag out: one that is left is as on wire
    std::uint16_t snap_type = 0;                                // host order; of an 802.3 frame whose tag is out
};
[[nodiscard]] std::size_t tag_to_wire(const daemon_frame &frame, std::uint8_t *out);

// Gives a frame on its way to the wire the outer tag it has to leave with, or none: `tagged` with VLAN `vlan`, the
// priority it had kept. The buffer holds VLAN_TAG bytes more than the frame. Result: the new length.
[[nodiscard]] std::size_t tag_on_wire(std::uint8_t *frame, std::size_t length, bool tagged, std::uint16_t vlan);

// A destination that bridges do not forward (01-80-C2-00-00-00 to -0F), or IS-IS (LLC FE-FE). `length` is at least
// ETHERNET_HEADER; a tag in the frame is looked behind.
[[nodiscard]] bool is_link_local(const std::uint8_t *frame, std::size_t length);

} // namespace corvane
