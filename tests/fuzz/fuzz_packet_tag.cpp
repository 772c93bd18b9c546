// VLAN tags between wire and daemon. Bytes 0 and 1: the control field in the metadata; byte 2: bit 0 whether there is
// one, bit 1 a service tag; the rest is the frame.
#include "fuzz.h"

#include "../../platform/libcorvane/packet/tag.h"
#include "../../platform/libcorvane/tests/packet_frames.h"

#include <algorithm>
#include <memory>

using namespace corvane;

namespace {

constexpr std::size_t HEAD = 3;

// What the daemon would send out of a trunk comes back as it stood on the wire, its priority tags excepted.
void check_way_back(const frame_ref &frame)
{
    const std::unique_ptr<std::uint8_t[]> wire(new std::uint8_t[frame.length + VLAN_TAG]);
    const daemon_frame sent{frame.data, frame.data + 6, static_cast<std::uint16_t>(frame.data[12] << 8 | frame.data[13]),
                            frame.data + ETHERNET_HEADER, frame.length - ETHERNET_HEADER};
    const std::size_t length = tag_to_wire(sent, wire.get());
    fuzz::require(length == frame.length || length == 0);
    if (length == 0)
        return;
    fuzz::require(std::equal(frame.data, frame.data + 12, wire.get()));
    fuzz::require(tag_on_wire(wire.get(), length, true, 5) <= length + VLAN_TAG);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size < HEAD)
        return 0;
    const std::size_t length = size - HEAD;
    const std::unique_ptr<std::uint8_t[]> memory(new std::uint8_t[TAG_HEADROOM + length]);
    std::copy(data + HEAD, data + size, memory.get() + TAG_HEADROOM);
    const tag_metadata tag{(data[2] & 1) != 0, (data[2] & 2) != 0 ? TYPE_QINQ : TYPE_VLAN,
                           static_cast<std::uint16_t>(data[0] << 8 | data[1])};
    frame_ref frame{memory.get() + TAG_HEADROOM, length};
    if (length >= ETHERNET_HEADER)
        (void)is_link_local(frame.data, frame.length);
    if (!tag_to_daemon(frame, tag))
        return 0;
    fuzz::require(frame.data >= memory.get() && frame.data + frame.length == memory.get() + TAG_HEADROOM + length);
    fuzz::require(frame.length >= ETHERNET_HEADER);
    check_way_back(frame);
    return 0;
}

std::vector<fuzz::input> fuzz::seeds()
{
    using namespace frames;
    const bytes macs = hex(HOST_A + HOST_B), payload = counting(50);
    const bytes bodies[] = {
        macs + hex("0800") + payload,
        macs + hex("8100 612c 86dd") + payload,
        macs + hex("8100 e000 8100 0064 0800") + payload,
        macs + hex("88a8 0005 8100 0064 0800") + payload,
        macs + be16(58) + hex("aaaa03000000 0800") + payload,
        macs + hex("8100 0064") + be16(58) + hex("aaaa03000000 0800") + payload,
        macs + be16(0x600) + hex("aaaa03000000 8100 6400 0800") + payload,
        hex("0180c2000000" + HOST_B) + hex("0026 424203") + payload,
        hex(HOST_A + HOST_B) + hex("8100 000a 0100 fefe03") + payload,
    };
    std::vector<input> made;
    for (const bytes &body : bodies)
        for (const bytes &head : {hex("000000"), hex("012c01"), hex("e00001"), hex("200503")})
            made.push_back(head + body);
    return made;
}
