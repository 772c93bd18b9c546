// VLAN tags between the wire and the daemon, and what is not delivered to it.
#include "tag.h"

#include <cstring>

namespace corvane {

namespace {

constexpr std::size_t MAC_PAIR = 12;
constexpr std::size_t SNAP_TYPE = 20;                           // of an untagged 802.3 frame
constexpr std::uint16_t VLAN_MASK = 0x0FFF;
// The daemon takes 4 off the length field when it tags an 802.3 frame, and 4 again when it removes the tag.
constexpr std::uint16_t DAEMON_TAGGED_DEFICIT = 4, DAEMON_UNTAGGED_DEFICIT = 8;

std::uint16_t get_be16(const std::uint8_t *p)
{
    return static_cast<std::uint16_t>(p[0] << 8 | p[1]);
}
void put_be16(std::uint8_t *p, std::uint16_t value)
{
    p[0] = static_cast<std::uint8_t>(value >> 8);
    p[1] = static_cast<std::uint8_t>(value);
}
void put_control_low_first(std::uint8_t *p, std::uint16_t control)
{
    p[0] = static_cast<std::uint8_t>(control);
    p[1] = static_cast<std::uint8_t>(control >> 8);
}

// Room for a tag at `at` by moving what stands in front of it down.
std::uint8_t *open_gap(frame_ref &frame, std::size_t at)
{
    std::memmove(frame.data - VLAN_TAG, frame.data, at);
    frame.data -= VLAN_TAG;
    frame.length += VLAN_TAG;
    return frame.data + at;
}

bool insert_802_3(frame_ref &frame, std::uint16_t control)
{
    if (frame.length < SNAP_HEADER_END)
        return false;
    const std::uint16_t on_wire = get_be16(frame.data + MAC_PAIR);
    const std::uint16_t deficit = on_wire < DAEMON_TAGGED_DEFICIT ? std::uint16_t{0} : DAEMON_TAGGED_DEFICIT;
    const auto length = static_cast<std::uint16_t>(on_wire - deficit);
    std::uint8_t *tag = open_gap(frame, SNAP_TYPE);
    put_be16(frame.data + MAC_PAIR, length);
    put_be16(tag, TYPE_VLAN);
    put_control_low_first(tag + 2, control);
    return true;
}

// `frame` carries no outer tag.
bool insert(frame_ref &frame, const tag_metadata &tag)
{
    if (tag.type == TYPE_VLAN && get_be16(frame.data + MAC_PAIR) <= LAST_802_3_LENGTH)
        return insert_802_3(frame, tag.control);
    std::uint8_t *at = open_gap(frame, MAC_PAIR);
    put_be16(at, tag.type);
    // A service tag is no tag to the daemon: it stays as on the wire.
    if (tag.type == TYPE_VLAN)
        put_control_low_first(at + 2, tag.control);
    else
        put_be16(at + 2, tag.control);
    return true;
}

bool is_priority_tag(const tag_metadata &tag)
{
    return tag.type == TYPE_VLAN && (tag.control & VLAN_MASK) == 0;
}

void remove(frame_ref &frame)
{
    std::memmove(frame.data + VLAN_TAG, frame.data, MAC_PAIR);
    frame.data += VLAN_TAG;
    frame.length -= VLAN_TAG;
}

} // namespace

bool tag_to_daemon(frame_ref &frame, const tag_metadata &tag)
{
    if (frame.length < ETHERNET_HEADER)
        return false;
    tag_metadata outer = tag;
    while (!outer.present || is_priority_tag(outer)) {
        if (get_be16(frame.data + MAC_PAIR) != TYPE_VLAN)
            return true;
        if (frame.length < ETHERNET_HEADER + VLAN_TAG)
            return false;
        outer = {true, TYPE_VLAN, get_be16(frame.data + ETHERNET_HEADER)};
        remove(frame);
    }
    return insert(frame, outer);
}

namespace {

// `behind` starts at the length field's successor (LLC); `deficit` is what the daemon took off the length.
std::uint16_t mended_length(std::uint16_t length, std::uint16_t deficit, std::size_t behind)
{
    return length + deficit <= static_cast<int>(behind) ? static_cast<std::uint16_t>(length + deficit) : length;
}

std::size_t wire_802_3_tagged(const daemon_frame &frame, std::uint8_t *out)
{
    constexpr std::size_t LLC_SNAP = 6, TAG_AND_CONTROL = 4, REST = LLC_SNAP + TAG_AND_CONTROL;
    if (frame.length < REST + 2)
        return 0;
    std::uint8_t *at = out + MAC_PAIR;
    put_be16(at, TYPE_VLAN);
    at[2] = frame.payload[LLC_SNAP + 3];
    at[3] = frame.payload[LLC_SNAP + 2];
    put_be16(at + 4, mended_length(frame.type, DAEMON_TAGGED_DEFICIT, frame.length - TAG_AND_CONTROL));
    std::memcpy(at + 6, frame.payload, LLC_SNAP);
    std::memcpy(at + 6 + LLC_SNAP, frame.payload + REST, frame.length - REST);
    return ETHERNET_HEADER + frame.length;
}

} // namespace

std::size_t tag_to_wire(const daemon_frame &frame, std::uint8_t *out)
{
    std::memcpy(out, frame.destination, 6);
    std::memcpy(out + 6, frame.source, 6);
    if (frame.type <= LAST_802_3_LENGTH) {
        constexpr std::size_t SNAP_TYPE_IN_PAYLOAD = SNAP_TYPE - ETHERNET_HEADER;
        if (!frame.untagged && frame.length >= SNAP_TYPE_IN_PAYLOAD + VLAN_TAG &&
            get_be16(frame.payload + SNAP_TYPE_IN_PAYLOAD) == TYPE_VLAN)
            return wire_802_3_tagged(frame, out);
        put_be16(out + MAC_PAIR, mended_length(frame.type, DAEMON_UNTAGGED_DEFICIT, frame.length));
        std::memcpy(out + ETHERNET_HEADER, frame.payload, frame.length);
        if (frame.untagged && frame.length >= SNAP_TYPE_IN_PAYLOAD + 2)
            put_be16(out + SNAP_TYPE, frame.snap_type);
        return ETHERNET_HEADER + frame.length;
    }
    const bool tagged = frame.type == TYPE_VLAN && !frame.untagged;
    if (tagged && frame.length < VLAN_TAG)
        return 0;
    put_be16(out + MAC_PAIR, frame.type);
    std::memcpy(out + ETHERNET_HEADER, frame.payload, frame.length);
    if (tagged) {
        out[ETHERNET_HEADER] = frame.payload[1];
        out[ETHERNET_HEADER + 1] = frame.payload[0];
    }
    return ETHERNET_HEADER + frame.length;
}

std::size_t tag_on_wire(std::uint8_t *frame, std::size_t length, bool tagged, std::uint16_t vlan)
{
    std::uint8_t *at = frame + MAC_PAIR;
    std::uint8_t *behind = at + VLAN_TAG;
    const bool has_tag = length >= ETHERNET_HEADER + VLAN_TAG && get_be16(at) == TYPE_VLAN;
    if (has_tag && !tagged) {
        std::memmove(at, behind, length - MAC_PAIR - VLAN_TAG);
        return length - VLAN_TAG;
    }
    if (!tagged)
        return length;
    if (!has_tag) {
        std::memmove(behind, at, length - MAC_PAIR);
        put_be16(at, TYPE_VLAN);
        put_be16(at + 2, vlan & VLAN_MASK);
        return length + VLAN_TAG;
    }
    const std::uint16_t priority = get_be16(at + 2) & static_cast<std::uint16_t>(~VLAN_MASK);
    put_be16(at + 2, static_cast<std::uint16_t>(priority | (vlan & VLAN_MASK)));
    return length;
}

bool is_link_local(const std::uint8_t *frame, std::size_t length)
{
    static constexpr std::uint8_t BRIDGE_GROUP[5] = {0x01, 0x80, 0xC2, 0x00, 0x00};
    if (std::memcmp(frame, BRIDGE_GROUP, sizeof BRIDGE_GROUP) == 0 && frame[5] <= 0x0F)
        return true;
    std::size_t type_at = MAC_PAIR;
    if (get_be16(frame + type_at) == TYPE_VLAN)
        type_at += VLAN_TAG;
    return length >= type_at + 4 && get_be16(frame + type_at) <= LAST_802_3_LENGTH && frame[type_at + 2] == 0xFE &&
           frame[type_at + 3] == 0xFE;
}

} // namespace corvane
