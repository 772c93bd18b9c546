// Packet thread and frame input: every frame, from a site port or from the core, passes lum_input.
#include "lum_packet.h"

#include "drops.h"
#include "lum_inlines.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

std::array<std::uint8_t, LUM_PACKET_BUFFER_SIZE> lum_packet_buffer;

namespace {

constexpr std::uint32_t TYPE_AT = 12, SNAP_TYPE_AT = 20;     // where the type, and with it any tag, stands
constexpr std::uint32_t MACS_AND_TYPE = 14;
constexpr std::uint32_t TAG_SIZE = 4;
constexpr std::uint16_t SNAP_LIMIT = 0x600;                  // itself a length, deliberate
constexpr std::uint16_t TYPE_8021Q = 0x8100;

// What the headers of one frame say.
struct input_frame {
    lum_frame frame{};
    bool snap = false;
    bool arrived_tagged = false;
    std::uint8_t *tag = nullptr;                             // tag control field, low byte first
    std::uint16_t ethertype = 0;                             // behind the tag
    lum_mac_info source, destination;
};

bool dropped(drop_reason reason)
{
    drop_count(reason);
    return false;
}

// Length first: the headers up to the tag position, then what a tag there needs or what tagging adds.
bool classify(input_frame &in, std::uint32_t port_iod) LUM_LOCKED;
bool classify(input_frame &in, std::uint32_t port_iod)
{
    lum_frame &frame = in.frame;
    if (frame.length < MACS_AND_TYPE)
        return dropped(drop_reason::L2_TRUNCATED);
    in.snap = wire_be16(frame.data + TYPE_AT) <= SNAP_LIMIT;
    const std::uint32_t type_at = in.snap ? SNAP_TYPE_AT : TYPE_AT;
    if (frame.length < type_at + 2)
        return dropped(drop_reason::L2_TRUNCATED);

    in.arrived_tagged = wire_be16(frame.data + type_at) == TYPE_8021Q;
    if (in.arrived_tagged) {
        if (frame.length < type_at + 2 + TAG_SIZE)
            return dropped(drop_reason::L2_TRUNCATED);
        in.tag = frame.data + type_at + 2;
    } else {
        in.tag = in.snap ? lum_tag_snap_frame(frame, port_iod) : lum_tag_ethernet_frame(frame, port_iod);
        if (in.tag == nullptr)
            return dropped(drop_reason::L2_OVERSIZED);
    }
    in.ethertype = wire_be16(in.tag + 2);
    return true;
}

void read_keys(input_frame &in)
{
    const std::uint32_t vlan = (in.tag[1] & 0x0Fu) << 8 | in.tag[0];
    in.destination.vlan = in.source.vlan = vlan;
    std::memcpy(in.destination.mac.data(), in.frame.data, in.destination.mac.size());
    std::memcpy(in.source.mac.data(), in.frame.data + in.destination.mac.size(), in.source.mac.size());
}

void trace_input(const input_frame &in, std::uint32_t iod)
{
    lum_text source, destination, name;
    LUM_TRACE_PACKET("Input %s -> %s from %s, %d bytes, ethertype 0x%04x, arrived%stagged%s\n",
                     lum_print_mac_info(in.source, source), lum_print_mac_info(in.destination, destination),
                     lum_if_name(iod, name), static_cast<int>(in.frame.length), in.ethertype,
                     in.arrived_tagged ? " " : " un", in.snap ? ", snap header" : "");
}

void forward(const input_frame &in, std::uint32_t iod) LUM_LOCKED;
void forward(const input_frame &in, std::uint32_t iod)
{
    const std::uint8_t *mac = in.destination.mac.data();
    if (!lum_mac_is_group(mac))
        lum_forward(in.frame, in.source, in.destination, iod);
    else if (!lum_mac_is_broadcast(mac) && lum_is_link_local_multicast(in.frame) == 0)
        lum_mforward(in.frame, in.source, in.destination, iod);
    else
        lum_bforward(in.frame, in.source, in.destination, iod);
}

} // namespace

void lum_input(std::uint8_t *frame, std::uint32_t length, std::uint32_t iod)
{
    input_frame in;
    in.frame = {frame, length};
    if (!classify(in, iod))
        return;
    read_keys(in);

    const bool from_core = iod == 0;
    lum_overlay *overlay = nullptr;
    if (from_core) {
        overlay = lum_vlans[in.source.vlan].overlay;
        if (overlay == nullptr)
            return drop_count(drop_reason::FWD_NO_VLAN_OVERLAY);
        iod = overlay->iod;
    }
    LUM_IF_FRAME_TRACED(in.source, in.destination)
        trace_input(in, iod);

    if (lum_suppress_arp_nd(iod, in.source, in.destination, in.frame, in.tag, overlay) == 0 &&
        lum_filter_arp_nd(in.source, in.destination, in.frame, in.tag) == 0)
        forward(in, iod);
    if (!from_core)
        lum_learn(in.source, iod);
}

int lum_is_link_local_multicast(const lum_frame &frame)
{
    constexpr int LINK_LOCAL = 1, ROUTED = 0;
    const std::uint8_t *data = frame.data;
    const bool snap = wire_be16(data + TYPE_AT) <= SNAP_LIMIT;
    const std::uint32_t type_at = snap ? SNAP_TYPE_AT : TYPE_AT;
    std::uint32_t network = type_at + 2;
    if (frame.length >= network && wire_be16(data + type_at) == TYPE_8021Q)
        network += TAG_SIZE;

    if (data[0] == 0x01 && data[1] == 0x00 && data[2] == 0x5E && frame.length >= network + 20)
        return wire_be32(data + network + 16) >> 8 == 0xE00000 ? LINK_LOCAL : ROUTED;       // 224.0.0.0/24
    // Only 33-33-00: the other IPv6 groups, solicited-node ones among them, are flooded with every other multicast
    // MAC; deliberate, they must not map to a core data group.
    if (data[0] == 0x33 && data[1] == 0x33 && data[2] == 0x00 && frame.length >= network + 26)
        return data[network + 24] == 0xFF && (data[network + 25] & 0x0F) == 2 ? LINK_LOCAL : ROUTED;
    return LINK_LOCAL;
}

lum_port *lum_on_iod(std::uint32_t iod)
{
    return lum_get_from_pt(iod);
}

bool lum_packet_trace_wanted(const lum_mac_info &source, const lum_mac_info &destination)
{
    const std::uint8_t *mac = destination.mac.data();
    if (lum_packet_debug_unicast != 0 && !lum_mac_is_group(mac))
        return true;
    if (lum_packet_debug_multicast != 0 && lum_mac_is_multicast(mac))
        return true;
    if (lum_packet_debug_broadcast != 0 && lum_mac_is_broadcast(mac))
        return true;
    const auto filter_matches = [](const lum_addr &filter, const lum_mac_info &info) {
        return filter.kind == LUM_ADDR_MAC && lum_addr_equal(filter, lum_addr_mac(info));
    };
    return filter_matches(lum_packet_debug_da, destination) || filter_matches(lum_packet_debug_sa, source);
}

void lum_process_pm_msg(std::uint8_t *payload, std::size_t size)
{
    if (size < NET_L2_MSG_FRAME)
        return drop_count(drop_reason::BUS_MALFORMED);
    const std::uint32_t iod = wire_be32(payload + NET_L2_MSG_IOD);
    const std::uint32_t length = wire_be16(payload + NET_L2_MSG_LENGTH);
    if (length > size - NET_L2_MSG_FRAME)
        return drop_count(drop_reason::BUS_MALFORMED);

    const bool tunnel = intfmgr_is_lum_tunnel(iod);
    if (!tunnel && !intfmgr_is_switchport(iod))
        return drop_count(drop_reason::L2_NOT_SERVED);
    lum_input(payload + NET_L2_MSG_FRAME, length, tunnel ? 0 : iod);
}

namespace {

void handle_message(const mbus_msg &msg) LUM_LOCKED;
void handle_message(const mbus_msg &msg)
{
    const std::uint32_t opcode = mbus_opc_get(msg);
    std::size_t size = 0;
    std::uint8_t *payload = mbus_payload_get(msg, &size);
    if (payload == nullptr)
        return;
    if (opcode == NET_L2_OPC_FRAME || opcode == NET_L2_OPC_FRAME_FLOODED) {
        lum_process_pm_msg(payload, size);
        return;
    }
    drop_count(drop_reason::BUS_UNKNOWN_OPCODE);
    LUM_LOG(UNKNOWN_OPC, static_cast<int>(opcode));
}

// False: the queue is being unbound, or has been by lum_cleanup.
bool receive_and_handle() LUM_LOCKED;
bool receive_and_handle()
{
    mbus_msg msg{};
    plock_before_yield();
    const int received = mbus_recv(lum_pm_mbus_q, msg);
    const int error = errno;
    plock_after_yield();
    if (received == -1) {
        const bool unbinding = lum_pm_mbus_q == MBUS_Q_INVALID || mbus_is_pre_unbind(lum_pm_mbus_q);
        return !(unbinding && (error == EPIPE || lum_pm_mbus_q == MBUS_Q_INVALID));
    }
    handle_message(msg);
    if (mbus_drop(lum_pm_mbus_q, msg) == -1)
        LUM_LOG(MBUS_DROP, std::strerror(errno));
    return true;
}

} // namespace

void *lum_pm_main(void *)
{
    plock_acquire_process_lock();
    do
        plock_sched_may_yield();
    while (receive_and_handle());
    plock_release_process_lock();
    return nullptr;
}
