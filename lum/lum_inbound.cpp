// Inbound control messages: interfaces that come, go and change, address changes, acknowledged deletions, and requests
// of clients to send a frame. Main thread; each handler yields between interfaces.
#include "lum_private.h"

#include "drops.h"
#include "lum_inlines.h"
#include "lum_msgs.h"
#include "lum_packet.h"

#include <algorithm>
#include <cstring>

namespace {

// Calls `handle` for each interface of the message, with a yield in front of each but the first.
template <class Handle> void for_each_interface(const mbus_msg &msg, Handle handle) LUM_LOCKED;
template <class Handle> void for_each_interface(const mbus_msg &msg, Handle handle)
{
    intfmgr_change_iterator iterator;
    if (!intfmgr_parse_change_iterator_init(iterator, msg))
        return drop_count(drop_reason::BUS_MALFORMED);
    intfmgr_change change;
    while (intfmgr_parse_change_iterate(iterator, change)) {
        handle(change);
        plock_sched_may_yield();
    }
}

// Triggers the deletion of an overlay on behalf of `msg`. 1 when the message has to wait for it: an interface that the
// message names twice is waited for once.
std::uint32_t trigger_delete(std::uint32_t iod, const mbus_msg &msg) LUM_LOCKED;
std::uint32_t trigger_delete(std::uint32_t iod, const mbus_msg &msg)
{
    lum_overlay *overlay = lum_get_overlay(iod);
    if (overlay == nullptr)
        return 0;
    const bool waited_for = overlay->delete_msg == msg;
    overlay->delete_msg = msg;
    lum_trigger_overlay_delete(*overlay);
    return waited_for ? 0 : 1;
}

// One message is held at a time. One that is held already is superseded and released: no completion would find it.
int hold_if_waiting(const mbus_msg &msg, std::uint32_t deletions) LUM_LOCKED;
int hold_if_waiting(const mbus_msg &msg, std::uint32_t deletions)
{
    if (deletions == 0)
        return LUM_DONE;
    if (lum_pending_msg_count != 0)
        mbus_drop(lum_mbus_q, lum_pending_msg);
    lum_pending_msg = msg;
    lum_pending_msg_count = deletions;
    return LUM_KEEP;
}

void trace_change(const intfmgr_change &change)
{
    if (lum_event_debug_flag == 0)
        return;
    lum_text name, mask;
    LUM_TRACE_EVENT("Received notification for %s, change mask %s\n", lum_if_name(change.iod, name),
                    intfmgr_change_mask_str(change.mask, mask.data(), mask.size()));
}

} // namespace

int lum_process_if_create_msg(mbus_msg &msg)
{
    for_each_interface(msg, [](const intfmgr_change &change) LUM_LOCKED {
        if (intfmgr_is_lum_tunnel(change.iod))
            lum_create_or_init_overlay(change.iod);
        lum_resolve_overlay_external_if_name(change.iod);
    });
    return LUM_DONE;
}

int lum_process_if_delete_msg(mbus_msg &msg)
{
    LUM_TRACE_EVENT("Received interface delete notification\n");
    std::uint32_t deletions = 0;
    for_each_interface(msg, [&](const intfmgr_change &change) LUM_LOCKED {
        lum_resolve_static_routes(change.iod);               // of an overlay interface no change of state is told first
        deletions += trigger_delete(change.iod, msg);
    });
    return hold_if_waiting(msg, deletions);
}

int lum_process_l3_param_change_msg(mbus_msg &msg)
{
    LUM_TRACE_EVENT("Received interface L3 protocol param change notification\n");
    std::uint32_t deletions = 0;
    for_each_interface(msg, [&](const intfmgr_change &change) LUM_LOCKED {
        trace_change(change);
        if ((change.mask >> INTFMGR_CHANGE_ENCAP & 1) == 0)
            return;
        LUM_TRACE_EVENT("Received ENCAP TLV\n");
        if (!intfmgr_is_tunnel(change.iod))
            return;
        if (intfmgr_is_lum_tunnel(change.iod))
            lum_create_or_init_overlay(change.iod);
        else
            deletions += trigger_delete(change.iod, msg);
    });
    return hold_if_waiting(msg, deletions);
}

namespace {

void process_l3_state(std::uint32_t iod) LUM_LOCKED;
void process_l3_state(std::uint32_t iod)
{
    trace_change({.iod = iod, .mask = std::uint64_t{1} << INTFMGR_CHANGE_L3_STATE});
    lum_resolve_static_routes(iod);
    lum_resolve_overlay_external_if_name(iod);
    lum_overlay *overlay = lum_get_overlay(iod);
    if (overlay == nullptr) {
        LUM_TRACE_EVENT("overlay not locally found, ignore notification\n");
        return;
    }
    if (lum_check_overlay_state_change(*overlay) != 0) {
        lum_sdb_update_overlay(*overlay);
        lum_send_overlay_state_msg(*overlay, LUM_OPC_OVERLAY_STATE);
    }
    lum_resolve_static_routes(iod);
}

} // namespace

int lum_process_l3_state_change_msg(mbus_msg &msg)
{
    LUM_TRACE_EVENT("Received interface L3 protocol state change notification\n");
    for_each_interface(msg, [](const intfmgr_change &change) LUM_LOCKED { process_l3_state(change.iod); });
    return LUM_DONE;
}

int lum_process_overlay_delete_notify_msg(mbus_msg &msg)
{
    std::size_t length = 0;
    const std::uint8_t *payload = mbus_payload_get(msg, &length);
    if (payload == nullptr)
        return LUM_NOT_HANDLED;
    if (length < LUM_ACK_SIZE) {
        drop_count(drop_reason::BUS_MALFORMED);
        return LUM_DONE;
    }
    lum_overlay *overlay = lum_get_overlay(wire_host32(payload + LUM_ACK_IOD.at));
    if (overlay == nullptr || overlay->state != LUM_OVERLAY_DOWN || overlay->reason != LUM_REASON_DELETE_HOLDDOWN)
        return LUM_DONE;
    if (overlay->notify_pending != 0) {
        overlay->notify_pending = 0;
        LUM_TRACE_INTERNAL("Overlay %s (%s:%s) Clear pending state for overlay 0x%lx",
                           lum_overlay_display_name(overlay), lum_overlay_state_str(overlay->state),
                           lum_overlay_reason_str(overlay->reason), static_cast<unsigned long>(overlay->iod));
    } else {
        LUM_LOG(STATE_MISMATCH, "notify_pending", "lum_process_overlay_delete_notify_msg");
    }
    lum_delete_overlay_complete(overlay);
    return LUM_DONE;
}

namespace {

// The message as a record of its layout; false when the payload is too short for it.
template <class Message> bool read_message(const mbus_msg &msg, Message &message)
{
    std::size_t length = 0;
    const std::uint8_t *payload = mbus_payload_get(msg, &length);
    if (payload == nullptr || length < sizeof message) {
        drop_count(drop_reason::BUS_MALFORMED);
        return false;
    }
    std::memcpy(&message, payload, sizeof message);
    return true;
}

void process_ipv4(const mbus_msg &msg, std::uint16_t msg_class, std::uint16_t kind) LUM_LOCKED;
void process_ipv4(const mbus_msg &msg, std::uint16_t msg_class, std::uint16_t kind)
{
    LUM_TRACE_EVENT("Received IP msg (%d/%d)\n", msg_class, kind);
    ip_address_change change{};
    if (kind == IP_MSG_ADDRESS_CHANGE && read_message(msg, change))
        lum_process_ipv4_address_change(change);
}

} // namespace

int lum_process_ip_msg(mbus_msg &msg)
{
    std::size_t length = 0;
    const std::uint8_t *payload = mbus_payload_get(msg, &length);
    if (payload == nullptr)
        return LUM_NOT_HANDLED;
    std::array<std::uint16_t, 2> class_and_kind{};
    if (length < sizeof class_and_kind) {
        drop_count(drop_reason::BUS_MALFORMED);
        return LUM_DONE;
    }
    std::memcpy(class_and_kind.data(), payload, sizeof class_and_kind);
    if (class_and_kind[0] == IPV6_MSG_CLASS)
        return lum_process_ipv6_msg(msg);
    process_ipv4(msg, class_and_kind[0], class_and_kind[1]);
    return LUM_DONE;
}

int lum_process_ipv6_msg(mbus_msg &msg)
{
    ipv6_address_change change{};
    if (read_message(msg, change) && change.kind == IPV6_MSG_ADDRESS_CHANGE)
        lum_process_ipv6_address_change(change.iod, change.old_address, change.new_address);
    return LUM_DONE;
}

namespace {

constexpr std::size_t ETHERNET_HEADER = 14, TYPE_AT = 12, TAG_SIZE = 4, FRAME_MAX = 65535;
constexpr std::uint16_t TYPE_8021Q = 0x8100;
static_assert(LUM_SEND_PACKET_OPTION2.at == LUM_SEND_PACKET_OPTION1.at + 1);

struct send_request {
    std::uint32_t skip_iod = 0;
    lum_mac_info source, destination;
    std::array<std::uint8_t, 2> options{};
    std::span<const std::uint8_t> frame;                     // destination MAC first
};

bool read_send_request(std::span<const std::uint8_t> payload, send_request &request)
{
    if (payload.size() < LUM_SEND_PACKET_HEAD_SIZE)
        return false;
    const std::uint32_t length = wire_host32(&payload[LUM_SEND_PACKET_LENGTH.at]);
    if (length < ETHERNET_HEADER || length > FRAME_MAX || length > payload.size() - LUM_SEND_PACKET_HEAD_SIZE)
        return false;
    request.source.vlan = request.destination.vlan = wire_host32(&payload[LUM_SEND_PACKET_VLAN.at]);
    request.skip_iod = wire_host32(&payload[LUM_SEND_PACKET_SKIP_IOD.at]);
    std::copy_n(&payload[LUM_SEND_PACKET_DESTINATION.at], 6, request.destination.mac.begin());
    std::copy_n(&payload[LUM_SEND_PACKET_SOURCE.at], 6, request.source.mac.begin());
    std::copy_n(&payload[LUM_SEND_PACKET_OPTION1.at], request.options.size(), request.options.begin());
    request.frame = payload.subspan(LUM_SEND_PACKET_HEAD_SIZE, length);
    return true;
}

// A frame behind its addresses.
struct frame_rest {
    std::uint16_t type;
    std::span<const std::uint8_t> body;
};

// On a trunk a frame without tag would be one of another VLAN: there it gets the tag of its own, low byte first as in
// every frame of the daemon. Valid until the next call.
frame_rest rest_for_port(const send_request &request, std::uint32_t port) LUM_LOCKED;
frame_rest rest_for_port(const send_request &request, std::uint32_t port)
{
    static std::array<std::uint8_t, FRAME_MAX - ETHERNET_HEADER + TAG_SIZE> tagged;
    const std::uint16_t type = wire_be16(&request.frame[TYPE_AT]);
    const auto behind_addresses = request.frame.subspan(TYPE_AT), body = request.frame.subspan(ETHERNET_HEADER);
    const lum_port *record = lum_get_from_pt(port);
    if (type == TYPE_8021Q || record == nullptr || record->trunk == 0)
        return {type, body};
    tagged[0] = static_cast<std::uint8_t>(request.destination.vlan);
    tagged[1] = static_cast<std::uint8_t>(request.destination.vlan >> 8);
    std::ranges::copy(behind_addresses, &tagged[2]);
    return {TYPE_8021Q, std::span{tagged}.first(body.size() + TAG_SIZE)};
}

void send_on_port(const send_request &request, std::uint32_t port) LUM_LOCKED;
void send_on_port(const send_request &request, std::uint32_t port)
{
    const frame_rest rest = rest_for_port(request, port);
    net_l2_header header{.destination = request.destination.mac, .source = request.source.mac};
    wire_set_be16(reinterpret_cast<std::uint8_t *>(&header.vlan_be),
                  static_cast<std::uint16_t>(request.destination.vlan));
    wire_set_be16(reinterpret_cast<std::uint8_t *>(&header.ethertype_be), rest.type);
    net_l2_send_request l2_request{};
    wire_set_be32(reinterpret_cast<std::uint8_t *>(&l2_request.iod_be), port);
    std::copy(request.options.begin(), request.options.end(), l2_request.option);

    LUM_IF_FRAME_TRACED(request.source, request.destination)
    {
        lum_text from, to, name;
        LUM_TRACE_PACKET("Output %s -> %s to %s, %d bytes\n", lum_print_mac_info(request.source, from),
                         lum_print_mac_info(request.destination, to), lum_if_name(port, name),
                         static_cast<int>(ETHERNET_HEADER + rest.body.size()));
    }
    net_l2_send(lum_net_l2_handle, header, l2_request, rest.body.data(), static_cast<std::uint16_t>(rest.body.size()));
}

// A yield may retire the VLAN, so its sets are looked at anew after each.
void flood_request(const send_request &request, const lum_vlan &entry) LUM_LOCKED;
void flood_request(const send_request &request, const lum_vlan &entry)
{
    for (std::uint32_t port = bitfield_find_first_set(*entry.ports); port != 0;
         port = entry.ports != nullptr ? bitfield_find_next_set(*entry.ports, port) : 0) {
        if (port == request.skip_iod || bitfield_test(*entry.blocked, port))
            continue;
        if (lum_internal_debug_flag != 0) {
            lum_text name;
            LUM_TRACE_INTERNAL("Send packet on interface %s\n", lum_if_name(port, name));
        }
        send_on_port(request, port);
        plock_sched_may_yield();
    }
}

} // namespace

int lum_process_send_packet_msg(mbus_msg &msg)
{
    std::size_t length = 0;
    const std::uint8_t *payload = mbus_payload_get(msg, &length);
    if (payload == nullptr)
        return LUM_NOT_HANDLED;
    send_request request;
    if (!read_send_request({payload, length}, request)) {
        drop_count(drop_reason::BUS_MALFORMED);
        LUM_TRACE_INTERNAL("Send-packet request of %d bytes is malformed\n", static_cast<int>(length));
        return LUM_DONE;
    }
    const lum_vlan *entry = lum_vlan_entry(request.destination.vlan);
    const bool has_ports = entry != nullptr && entry->ports != nullptr;
    LUM_TRACE_INTERNAL("Flood local packet to vlan %d, max %d ports\n", static_cast<int>(request.destination.vlan),
                       has_ports ? static_cast<int>(bitfield_count_set(*entry->ports)) : 0);
    if (has_ports)
        flood_request(request, *entry);
    return LUM_DONE;
}
