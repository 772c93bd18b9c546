// Output to site ports and overlay interfaces through the packet service, and the insertion and removal of 802.1Q tags.
// The tag control field stands low byte first, as lum_input reads it; the packet service turns it for the wire.
#include "lum_packet.h"

#include "drops.h"
#include "lum_inlines.h"

#include <cstring>

namespace {

constexpr std::uint32_t MACS_SIZE = 12, HEADER_SIZE = 14;
constexpr std::uint32_t TAG_SIZE = 4;
constexpr std::uint32_t SNAP_HEADER_END = 22;                // MACs, length, LLC and SNAP header
constexpr std::uint32_t TAGGED_MIN = HEADER_SIZE + TAG_SIZE, TAGGED_SNAP_MIN = SNAP_HEADER_END + TAG_SIZE;
constexpr std::uint16_t SNAP_LIMIT = 0x600;                  // itself a length, deliberate
constexpr std::uint16_t TYPE_8021Q = 0x8100;

constexpr std::uint16_t to_be16(std::uint32_t value)
{
    std::array<std::uint8_t, 2> bytes{static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
    return std::bit_cast<std::uint16_t>(bytes);
}
constexpr std::uint32_t to_be32(std::uint32_t value)
{
    std::array<std::uint8_t, 4> bytes{};
    wire_set_be32(bytes.data(), value);
    return std::bit_cast<std::uint32_t>(bytes);
}

bool is_snap(const lum_frame &frame)
{
    return wire_be16(frame.data + MACS_SIZE) <= SNAP_LIMIT;
}

bool can_be_untagged(const lum_frame &frame)
{
    return frame.length >= TAGGED_MIN && (!is_snap(frame) || frame.length >= TAGGED_SNAP_MIN) &&
           frame.length - TAG_SIZE <= LUM_PACKET_BUFFER_SIZE;
}

// Type field of a tagged frame once its tag is gone: the type behind the tag, or the 802.3 length less the tag.
std::uint16_t untagged_type(const lum_frame &frame)
{
    const std::uint16_t field = wire_be16(frame.data + MACS_SIZE);
    return field <= SNAP_LIMIT ? static_cast<std::uint16_t>(field - TAG_SIZE) : wire_be16(frame.data + 16);
}

// What a port sends of a frame: its type field and the payload behind it. To leave the tag out nothing is copied,
// because further ports may get the same frame: of Ethernet II the payload begins behind the tag; of SNAP the LLC and
// SNAP header moves up to the data for the life of the view.
class port_view {
public:
    port_view(const lum_frame &frame, bool keep_tag)
        : type_(wire_be16(frame.data + MACS_SIZE)), payload_(frame.data + HEADER_SIZE),
          length_(frame.length - HEADER_SIZE)
    {
        if (keep_tag)
            return;
        type_ = untagged_type(frame);
        payload_ += TAG_SIZE;
        length_ -= TAG_SIZE;
        if (is_snap(frame)) {
            snap_type_ = wire_be16(frame.data + SNAP_HEADER_END + TAG_SIZE - 2);
            moved_ = payload_;
            std::memcpy(saved_.data(), moved_, saved_.size());
            std::memmove(moved_, moved_ - TAG_SIZE, saved_.size());
        }
    }
    ~port_view()
    {
        if (moved_ != nullptr)
            std::memcpy(moved_, saved_.data(), saved_.size());
    }
    port_view(const port_view &) = delete;
    port_view &operator=(const port_view &) = delete;

    [[nodiscard]] std::uint16_t type() const { return type_; }
    [[nodiscard]] const std::uint8_t *payload() const { return payload_; }
    [[nodiscard]] std::uint16_t snap_type() const { return snap_type_; }
    [[nodiscard]] std::uint32_t length() const { return length_; }

private:
    std::uint16_t type_, snap_type_ = 0;
    std::uint8_t *payload_;
    std::uint32_t length_;
    std::uint8_t *moved_ = nullptr;
    std::array<std::uint8_t, SNAP_HEADER_END - HEADER_SIZE> saved_;
};

void set_next_hop(net_l2_send_request &request, const lum_addr &next_hop)
{
    if (next_hop.kind != LUM_ADDR_NEXT_HOP)
        return;
    request.next_hop_family = lum_next_hop_family(next_hop);
    if (request.next_hop_family == LUM_FAMILY_IPV4)
        request.next_hop_ipv4_be = to_be32(lum_next_hop_ipv4(next_hop));
    else if (request.next_hop_family == LUM_FAMILY_IPV6)
        request.next_hop_ipv6 = lum_next_hop_ipv6(next_hop);
    else
        request.next_hop_family = 0;
}

void trace_output(const lum_mac_info &source, const lum_mac_info &destination, std::uint32_t iod, std::uint32_t flood,
                  std::uint32_t length, bool keep_tag)
{
    lum_text from, to, name;
    LUM_TRACE_PACKET("Output %s -> %s to %s, %d bytes, %stag\n", lum_print_mac_info(source, from),
                     lum_print_mac_info(destination, to), flood != 0 ? "\"flood-to-vlan\"" : lum_if_name(iod, name),
                     static_cast<int>(length), keep_tag ? "keep " : "un");
}

} // namespace

int lum_output(const lum_frame &frame, std::uint32_t iod, const lum_mac_info &source, const lum_mac_info &destination,
               std::uint32_t flood, const lum_addr *next_hop)
{
    const lum_port *port = lum_get_from_pt(iod);
    if (port == nullptr) {
        drop_count(drop_reason::L2_NO_PORT);
        return 0;
    }
    const bool keep_tag = port->trunk != 0;
    if (frame.length < HEADER_SIZE || (!keep_tag && !can_be_untagged(frame))) {
        drop_count(frame.length < TAGGED_SNAP_MIN ? drop_reason::L2_TRUNCATED : drop_reason::L2_OVERSIZED);
        return 0;
    }
    const port_view view(frame, keep_tag);
    const net_l2_header header{.destination = destination.mac,
                               .source = source.mac,
                               .vlan_be = to_be16(destination.vlan),
                               .ethertype_be = to_be16(view.type())};
    net_l2_send_request request{.iod_be = to_be32(iod)};
    if (next_hop != nullptr)
        set_next_hop(request, *next_hop);
    request.flood = flood != 0 ? 1 : 0;
    // Untagging leaves an 802.3 frame the tag's type and drops the frame's own, deliberate; the packet service puts the
    // own one back.
    request.untagged = keep_tag ? 0 : 1;
    request.snap_type_be = to_be16(view.snap_type());
    LUM_IF_FRAME_TRACED(source, destination)
        trace_output(source, destination, iod, flood, HEADER_SIZE + view.length(), keep_tag);
    return net_l2_send(lum_net_l2_handle, header, request, view.payload(), static_cast<std::uint16_t>(view.length()));
}

int lum_send(const std::uint8_t *payload, std::uint32_t length, const std::uint8_t *source_mac,
             const std::uint8_t *destination_mac, std::uint16_t ethertype, std::uint32_t iod)
{
    // Names no VLAN, deliberate: a reply belongs where its request came from, and that the packet service has in hand.
    net_l2_header header{.ethertype_be = to_be16(ethertype)};
    std::memcpy(header.destination.data(), destination_mac, header.destination.size());
    std::memcpy(header.source.data(), source_mac, header.source.size());
    const net_l2_send_request request{.iod_be = to_be32(iod)};
    net_l2_send(lum_net_l2_handle, header, request, payload, static_cast<std::uint16_t>(length));
    return 1;
}

namespace {

bool can_be_tagged(const lum_frame &frame, std::uint32_t headers)
{
    return frame.length >= headers && frame.length + TAG_SIZE <= LUM_PACKET_BUFFER_SIZE;
}

// Copies the frame into the scratch buffer with a tag after its first `at` bytes; the tag's control field.
std::uint8_t *insert_tag(lum_frame &frame, std::uint32_t at, std::uint32_t iod) LUM_LOCKED;
std::uint8_t *insert_tag(lum_frame &frame, std::uint32_t at, std::uint32_t iod)
{
    const lum_port *port = lum_get_from_pt(iod);
    const std::uint32_t vlan = port != nullptr ? port->vlan & 0xFFF : 0;
    std::uint8_t *out = lum_packet_buffer.data();
    std::memmove(out + at + TAG_SIZE, frame.data + at, frame.length - at);
    std::memmove(out, frame.data, at);
    wire_set_be16(out + at, TYPE_8021Q);
    out[at + 2] = static_cast<std::uint8_t>(vlan);           // low byte first
    out[at + 3] = static_cast<std::uint8_t>(vlan >> 8);
    frame = {out, frame.length + TAG_SIZE};
    return out + at + 2;
}

} // namespace

std::uint8_t *lum_tag_ethernet_frame(lum_frame &frame, std::uint32_t iod)
{
    return can_be_tagged(frame, HEADER_SIZE) ? insert_tag(frame, MACS_SIZE, iod) : nullptr;
}

std::uint8_t *lum_tag_snap_frame(lum_frame &frame, std::uint32_t iod)
{
    if (!can_be_tagged(frame, SNAP_HEADER_END))
        return nullptr;
    std::uint8_t *tag = insert_tag(frame, SNAP_HEADER_END - 2, iod);
    // Less the tag although the frame grew by it: deliberate, receivers of both kinds have always seen it so.
    std::uint8_t *length_field = frame.data + MACS_SIZE;
    wire_set_be16(length_field, static_cast<std::uint16_t>(wire_be16(length_field) - TAG_SIZE));
    return tag;
}

bool lum_untag_frame(lum_frame &frame)
{
    if (!can_be_untagged(frame))
        return false;
    const std::uint16_t type = untagged_type(frame);
    std::uint8_t *out = lum_packet_buffer.data();
    const std::uint32_t kept = is_snap(frame) ? SNAP_HEADER_END : HEADER_SIZE;
    std::memmove(out, frame.data, kept);
    std::memmove(out + kept, frame.data + kept + TAG_SIZE, frame.length - kept - TAG_SIZE);
    wire_set_be16(out + MACS_SIZE, type);
    frame = {out, frame.length - TAG_SIZE};
    return true;
}
