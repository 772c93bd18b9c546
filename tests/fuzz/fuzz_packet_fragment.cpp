// Fragmentation of packets for the core. Bytes 0 and 1: the MTU; byte 2: bit 0 the family; the rest is the packet.
#include "fuzz.h"

#include "../../platform/libcorvane/core/fragment.h"
#include "../../platform/libcorvane/tests/packet_frames.h"

#include <memory>

using namespace corvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    constexpr std::size_t HEAD = 3;
    if (size < HEAD)
        return 0;
    const std::size_t mtu = static_cast<std::size_t>(data[0] << 8 | data[1]), length = size - HEAD;
    const bool ipv6 = (data[2] & 1) != 0;
    fragmenter cut;
    if (!(ipv6 ? cut.begin_ipv6(data + HEAD, length, mtu, 7) : cut.begin_ipv4(data + HEAD, length, mtu, 7)))
        return 0;
    const std::unique_ptr<std::uint8_t[]> fragment(new std::uint8_t[mtu]);
    const std::size_t header = ipv6 ? 48 : (data[HEAD] & 15u) * 4u, before = ipv6 ? 40 : header;
    std::size_t payload = 0;
    while (cut.more()) {
        const std::size_t n = cut.next(fragment.get());
        fuzz::require(n > header && n <= mtu);
        fuzz::require(ipv6 || frames::checksum({fragment.get(), header}) == 0);
        payload += n - header;
    }
    fuzz::require(payload == length - before);
    return 0;
}

std::vector<fuzz::input> fuzz::seeds()
{
    using namespace frames;
    std::vector<input> made;
    for (const std::size_t mtu : {28u, 100u, 1500u}) {
        made.push_back(be16(mtu) + bytes{0} + ipv4(17, counting(300)));
        made.push_back(be16(mtu) + bytes{0} + ipv4(17, counting(120), 1, hex("94040000 07030401 01010100")));
        made.push_back(be16(mtu) + bytes{1} + ipv6(17, counting(300)));
    }
    return made;
}
