// Packet service.
#include "fake_state.h"

using namespace fake;

net_l2_handle net_l2_register(const net_l2_registration &registration)
{
    note("net_l2_register", registration.service, registration.queue, registration.sap, registration.filter);
    return refuse("net_l2_register") ? 0 : 71;
}

void net_l2_unregister(net_l2_handle handle) { note("net_l2_unregister", handle); }

namespace {

l2_frame frame_of(net_l2_handle handle, const net_l2_header &header, const net_l2_send_request &request,
                  std::span<const std::uint8_t> payload)
{
    l2_frame frame;
    bytes &all = frame;
    all.add(header.destination).add(header.source).add_host16(header.ethertype_be).add(payload);
    frame.payload = bytes(payload);
    frame.iod = __builtin_bswap32(request.iod_be);
    frame.handle = handle;
    frame.header = header;
    frame.request = request;
    return frame;
}

// Switchports, and the overlays in GRE format for which this is the tunnel.
bool serves(std::uint32_t iod)
{
    return intfmgr_is_switchport(iod) || intfmgr_is_lum_tunnel(iod);
}

} // namespace

int net_l2_send(net_l2_handle handle, const net_l2_header &header, const net_l2_send_request &request,
                const std::uint8_t *payload, std::uint16_t length)
{
    if (!recording()) {
        ++platform.packets_out;
        return 1;
    }
    note("net_l2_send", handle, __builtin_bswap32(request.iod_be), length);
    if (refuse("net_l2_send") || (request.flood == 0 && !serves(__builtin_bswap32(request.iod_be))))
        return 0;
    ++platform.packets_out;
    platform.l2_sent.push_back(frame_of(handle, header, request, {payload, length}));
    return 1;
}
