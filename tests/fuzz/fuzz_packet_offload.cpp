// Offload metadata and the frames they come with. Bytes 0 to 9: the metadata as the kernel writes them; the rest is the
// frame. One that looks as if the kernel had merged it inside a tunnel is cut by what it says itself.
#include "fuzz.h"

#include "../../platform/libcorvane/packet/gre_merged.h"
#include "../../platform/libcorvane/packet/offload.h"
#include "../../platform/libcorvane/tests/packet_frames.h"

#include <algorithm>
#include <cstring>
#include <memory>

using namespace corvane;

namespace {

constexpr std::size_t HEADROOM = 64;

void cut(std::uint8_t *frame, std::size_t length, const offload_meta &meta, const std::uint8_t *end)
{
    super_frame super;
    const std::uint32_t total = super.begin(frame, length, meta);
    std::size_t payload = 0;
    for (std::uint32_t i = 0; i < total; ++i) {
        fuzz::require(super.left() == total - i);
        const frame_ref segment = super.next();
        fuzz::require(segment.data >= frame && segment.data + segment.length <= end);
        const std::size_t headers = segment.length - std::min<std::size_t>(segment.length, meta.gso_size);
        fuzz::require(i + 1 == total || segment.length == headers + meta.gso_size);
        payload += segment.length;
    }
    fuzz::require(super.left() == 0 && (total == 0 || payload >= length));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    offload_meta meta;
    if (size < sizeof meta)
        return 0;
    std::memcpy(&meta, data, sizeof meta);
    const std::size_t length = size - sizeof meta;
    const std::unique_ptr<std::uint8_t[]> memory(new std::uint8_t[HEADROOM + length]);
    std::uint8_t *frame = memory.get() + HEADROOM;
    std::copy(data + sizeof meta, data + size, frame);
    if (const offload_meta merged = merged_in_tunnel({frame, length}); is_super_frame(merged))
        cut(frame, length, merged, frame + length);
    else if (is_super_frame(meta))
        cut(frame, length, meta, frame + length);
    else
        (void)finish_checksum(frame, length, meta);
    return 0;
}

std::vector<fuzz::input> fuzz::seeds()
{
    using namespace frames;
    std::vector<input> made;
    const auto add = [&](const offload_meta &meta, const bytes &frame) {
        bytes seed(sizeof meta);
        std::memcpy(seed.data(), &meta, sizeof meta);
        made.push_back(seed + frame);
    };
    const bytes four = ethernet(HOST_A, HOST_B, 0x0800), six = ethernet(HOST_A, HOST_B, 0x86DD);
    const bytes tagged = ethernet(HOST_A, HOST_B, 0x8100) + hex("0064 0800");
    const tcp_fields stamped{1, 0x98, hex("0101080a0000000100000002")};
    add({}, four + ipv4(17, udp(counting(33))));
    add({OFFLOAD_NEEDS_CSUM, 0, 0, 0, 34, UDP_SUM}, four + ipv4(17, udp(counting(33))));
    add({OFFLOAD_NEEDS_CSUM, 0, 0, 0, 54, TCP_SUM}, six + ipv6(6, tcp(stamped, counting(20))));
    add({OFFLOAD_NEEDS_CSUM, 0, 0, 0, 34, 8}, four + ipv4(132, counting(40)));
    add({OFFLOAD_NEEDS_CSUM, OFFLOAD_GSO_TCPV4, 66, 100, 34, TCP_SUM}, four + ipv4(6, tcp(stamped, counting(350))));
    add({OFFLOAD_NEEDS_CSUM, OFFLOAD_GSO_TCPV4, 58, 100, 38, TCP_SUM}, tagged + ipv4(6, tcp({}, counting(350))));
    add({OFFLOAD_NEEDS_CSUM, OFFLOAD_GSO_TCPV6, 74, 200, 54, TCP_SUM}, six + ipv6(6, tcp({}, counting(450))));
    add({OFFLOAD_NEEDS_CSUM, OFFLOAD_GSO_TCPV6, 82, 200, 62, TCP_SUM},
        six + ipv6(0, hex("06 00 0104 00000000") + tcp({}, counting(450))));
    add({OFFLOAD_NEEDS_CSUM, OFFLOAD_GSO_UDP, 42, 64, 34, UDP_SUM}, four + ipv4(17, udp(counting(200))));
    add({0, OFFLOAD_GSO_TCPV4 | OFFLOAD_GSO_ECN, 54, 1, 0, 0}, four + ipv4(6, tcp({}, counting(10)), 1, hex("01010100")));
    bytes merged = ipv4(6, tcp({}, counting(3000)));
    bytes pseudo(merged.begin() + 12, merged.begin() + 20);
    pseudo = pseudo + hex("0006") + be16(merged.size() - 20);
    put16(merged, 20 + TCP_SUM, static_cast<std::uint16_t>(~checksum(pseudo)));
    add({}, tagged + merged);
    return made;
}
