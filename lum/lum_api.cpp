// Notifications to client processes: fire and forget, except that the one of a deletion is answered. Main thread and
// command thread, under the process lock.
#include "lum_inlines.h"
#include "lum_msgs.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace
{

template <std::size_t N> void put_name(std::array<std::uint8_t, N> &out, std::size_t at, const char *name)
{
    std::memcpy(&out[at], name, strnlen(name, LUM_NAME_SIZE - 1));
}

// True when the bus took the message; otherwise says why not.
bool notify(std::uint32_t opcode, std::span<const std::uint8_t> payload, const mbus_send_options &options)
{
    if (mbus_send(lum_mbus_q, {MBUS_NOTIFY_DESTINATION, 0}, opcode, payload.data(), payload.size(), options) == 0)
        return true;
    LUM_LOG(MBUS_SEND, std::strerror(errno));
    return false;
}

std::array<std::uint8_t, LUM_STATUS_SIZE> build_status(const lum_overlay &overlay)
{
    std::array<std::uint8_t, LUM_STATUS_SIZE> payload{};
    const std::span out{payload};
    wire_put_host<LUM_STATUS_IOD>(out, overlay.iod);
    wire_put_host<LUM_STATUS_IFINDEX>(out, overlay.ifindex);
    wire_put_host<LUM_STATUS_IOD_AGAIN>(out, overlay.iod);
    wire_put_host<LUM_STATUS_STATE>(out, overlay.state);
    wire_put_host<LUM_STATUS_REASON>(out, overlay.reason);
    put_name(payload, LUM_STATUS_VPN_NAME.at, overlay.vpn_name);
    return payload;
}

std::array<std::uint8_t, LUM_PARAMS_SIZE> build_params(const lum_overlay &overlay)
{
    std::array<std::uint8_t, LUM_PARAMS_SIZE> payload{};
    const std::span out{payload};
    wire_put_host<LUM_PARAMS_IOD>(out, overlay.iod);
    wire_put_host<LUM_PARAMS_IFINDEX>(out, overlay.ifindex);
    const std::size_t ext_ifs = std::min<std::size_t>(overlay.ext_if_count, LUM_EXT_IFS);
    for (std::size_t i = 0; i < ext_ifs; ++i)
        wire_set_host32(&payload[LUM_PARAMS_EXT_IODS.at + 4 * i], overlay.ext_if[i].iod);
    put_name(payload, LUM_PARAMS_VPN_NAME.at, overlay.vpn_name);
    wire_put_host<LUM_PARAMS_IPV4_GROUP>(out, lum_next_hop_ipv4(overlay.ipv4_group));
    wire_put_bytes<LUM_PARAMS_IPV6_GROUP>(out, lum_next_hop_ipv6(overlay.ipv6_group));
    std::memcpy(&payload[LUM_PARAMS_RANGES.at], &overlay.vlan_ranges, LUM_PARAMS_RANGES.width);
    wire_put_host<LUM_PARAMS_STATE>(out, overlay.state);
    wire_put_host<LUM_PARAMS_REASON>(out, overlay.reason);
    wire_put_host<LUM_PARAMS_EXT_IPV4>(out, overlay.ext_ipv4);
    wire_put_bytes<LUM_PARAMS_EXT_IPV6>(out, overlay.ext_ipv6);
    return payload;
}

// Field of an adjacency record, which has the size of its layout or more.
template <lum_wire_field F> std::uint32_t adj_word(std::span<const std::uint8_t> value)
{
    static_assert(F.width == 4);
    return wire_host32(&value[F.at]);
}

void put_words(std::uint8_t *out, const lum_vlan_triple &triple)
{
    wire_set_host32(out + LUM_VLANS_ELEMENT_VLAN.at, triple.vlan);
    wire_set_host32(out + LUM_VLANS_ELEMENT_IOD.at, triple.iod);
    wire_set_host32(out + LUM_VLANS_ELEMENT_AED.at, triple.aed);
}

} // namespace

void lum_send_overlay_state_msg(lum_overlay &overlay, std::uint32_t opcode)
{
    const auto payload = build_status(overlay);
    mbus_send_options options;
    if (opcode == LUM_OPC_OVERLAY_DELETED) {
        if (overlay.notify_pending != 0)
            LUM_LOG(STATE_MISMATCH, "notify_pending", "lum_send_overlay_state_msg");
        overlay.notify_pending = 1;
        options.want_ack = 1;
    }
    if (notify(opcode, payload, options))
        LUM_TRACE_EVENT("Overlay %s (%s) sending status notification", lum_overlay_display_name(&overlay),
                        lum_overlay_state_str(overlay.state));
}

void lum_send_overlay_params_msg(lum_overlay &overlay)
{
    overlay.vpn_id = overlay.iod;
    if (notify(LUM_OPC_OVERLAY_PARAMS, build_params(overlay), {}))
        LUM_TRACE_EVENT("Overlay %s (%s) sending parameter change notification", lum_overlay_display_name(&overlay),
                        lum_overlay_state_str(overlay.state));
}

void lum_send_overlay_adj_msg(std::span<const std::uint8_t> adj_value, std::uint32_t opcode, bool is_delete)
{
    if (adj_value.size() < LUM_SDB_ADJ_SIZE)
        return;
    std::array<std::uint8_t, LUM_ADJ_NOTIFY_SIZE> payload{};
    const std::span out{payload};
    const std::uint32_t iod = adj_word<LUM_SDB_ADJ_IOD>(adj_value);
    wire_put_host<LUM_ADJ_NOTIFY_IOD>(out, iod);
    std::memcpy(&payload[LUM_ADJ_NOTIFY_ADDRESS.at], &adj_value[LUM_SDB_ADJ_ADDRESS.at], LUM_ADDRESS_SIZE);
    if (!is_delete) {            // receivers tell a delete by the zero system id: both have one opcode
        std::memcpy(&payload[LUM_ADJ_NOTIFY_SYSTEM_ID.at], &adj_value[LUM_SDB_ADJ_SYSTEM_ID.at],
                    LUM_ADJ_NOTIFY_SYSTEM_ID.width);
        wire_put_host<LUM_ADJ_NOTIFY_TUNNEL>(out, adj_word<LUM_SDB_ADJ_TUNNEL>(adj_value));
    }
    if (!notify(opcode, payload, {}))
        return;
    lum_addr address;
    std::memcpy(&address, &adj_value[LUM_SDB_ADJ_ADDRESS.at], sizeof address);
    lum_text name, text;
    LUM_TRACE_EVENT("Sending adjacency notification for %s %s", lum_if_name(iod, name), lum_print_addr(address, text));
}

void lum_send_vlan_params_msg(std::span<const lum_vlan_triple> triples)
{
    static std::array<std::uint8_t, LUM_VLANS * LUM_VLANS_ELEMENT_SIZE> elements;
    const std::size_t count = std::min<std::size_t>(triples.size(), LUM_VLANS);
    const std::size_t length = count * LUM_VLANS_ELEMENT_SIZE;
    for (std::size_t i = 0; i < count; ++i)
        put_words(&elements[i * LUM_VLANS_ELEMENT_SIZE], triples[i]);

    std::array<std::uint8_t, LUM_VLANS_HEAD_SIZE> head{};
    wire_put_host<LUM_VLANS_LENGTH>(std::span{head}, static_cast<std::uint32_t>(length));
    wire_put_host<LUM_VLANS_COUNT>(std::span{head}, static_cast<std::uint32_t>(count));

    const std::array<mbus_segment, 2> segments{{{head.data(), head.size()}, {elements.data(), length}}};
    mbus_send_options options;
    options.segments = segments.data();
    options.segment_count = segments.size();
    if (notify(LUM_OPC_VLANS, {}, options))
        LUM_TRACE_EVENT("Overlay %s sending vlan change notification", "");
}
