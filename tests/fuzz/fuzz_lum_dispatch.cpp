// Control messages. Byte 0: switches of the world; then messages: a byte that picks the opcode, two bytes of length
// (low byte first), the payload. Each is dropped as the main loop drops it, and none may be dropped twice or never.
#include "world_lum.h"

#include "lum_inlines.h"

#include "vlanmgr.h"

#include <array>

namespace {

constexpr std::array<std::uint32_t, 20> OPCODES{0xB9,    0x9F2,   0x22DD,  0x22DE,  0x5C0C,  0xF403,  0xF404,
                                                0xF407,  0xF408,  0xF414,  0x13404, 0x1340A, 0x1340B, 0x1340C,
                                                0x1340D, 0x1340E, 0x13806, 0x14C01, 0x12345, 0xFFFFFFFF};

void dispatch(std::uint32_t opcode, std::span<const std::uint8_t> payload)
{
    plock_assert_held();
    mbus_msg msg = platform.message(opcode, fake::bytes(payload));
    const mbus_msg copy = msg;
    const int result = lum_dispatch(msg);
    if (result != LUM_KEEP)
        mbus_drop(lum_mbus_q, msg);
    fuzz::require(platform.is_outstanding(copy) == (result == LUM_KEEP));
    fuzz::require(platform.messages_outstanding() == (lum_pending_msg_count != 0 ? 1 : 0));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size < 1)
        return 0;
    fuzz_lum::rebuild(data[0]);
    std::span<const std::uint8_t> rest(data + 1, size - 1);
    for (int messages = 0; messages < 16 && rest.size() >= 3; ++messages) {
        const std::size_t length = std::min(rest[1] | std::size_t{rest[2]} << 8, rest.size() - 3);
        dispatch(OPCODES[rest[0] % OPCODES.size()], rest.subspan(3, length));
        rest = rest.subspan(3 + length);
    }
    fuzz_lum::check();
    return 0;
}

namespace {

fake::bytes message(std::uint32_t opcode, const fake::bytes &payload)
{
    const auto index = std::ranges::find(OPCODES, opcode) - OPCODES.begin();
    fake::bytes made;
    made.add8(static_cast<unsigned>(index)).add_host16(static_cast<std::uint16_t>(payload.size()));
    return made.add(payload);
}

fake::bytes adjacency(std::uint32_t site)
{
    fake::bytes payload;
    payload.add_host32(fuzz_lum::UDP_OVERLAY).add(fuzz_lum::HOST).add8(0).add_host32(4).add_zeros(24);
    return payload.add_host32(site).add_host32(1);
}

} // namespace

std::vector<fuzz::input> fuzz::seeds()
{
    using fuzz_lum::UDP6_OVERLAY, fuzz_lum::UDP_OVERLAY, fuzz_lum::UDP_VLAN;
    constexpr std::uint64_t ENCAP = std::uint64_t{1} << 42;
    fake::bytes ipv4, ipv6, send;
    ipv4.add_host16(4).add_host16(13).add_host32(fuzz_lum::CORE).add_host32(0).add_host32(1).add_zeros(4).add_host32(7);
    ipv6.add_host16(6).add_host16(7).add_host32(fuzz_lum::CORE).add_zeros(32);
    const fake::bytes frame = fake::ethernet(fake::BROADCAST, fuzz_lum::HOST, 0x88CC, fake::filler(46));
    send.add_host32(UDP_VLAN).add_host32(0).add(fake::BROADCAST).add(fuzz_lum::HOST).add_be16(0x0102);
    send.add_host32(static_cast<std::uint32_t>(frame.size())).add(frame);
    const auto acknowledge = [](std::uint32_t iod) { return message(0x13404, fake::bytes().add_host32(iod)); };
    const fake::bytes removal = message(0xF404, platform.changes({{UDP_OVERLAY, 0}, {UDP6_OVERLAY, 0}}));

    std::vector<fake::bytes> runs{
        message(0x1340A, adjacency(0)).add(message(0x1340B, adjacency(0))),
        message(0x1340A, adjacency(1)).add(message(0x1340B, adjacency(1))),
        message(0x1340C, send),
        message(0x14C01, ipv4).add(message(0x14C01, ipv6)),
        message(0x5C0C, platform.membership(UDP_VLAN, {{UDP_VLAN, 1001}, {UDP_VLAN, 1003}})),
        message(0xF407, platform.l2_states({{1, 0x100000, 1, {UDP_VLAN, 300}, {20}}})),
        message(0xF403, platform.changes({{UDP_OVERLAY, 0}, {fuzz_lum::CORE, 0}})),
        message(0xF408, platform.changes({{UDP_OVERLAY, 1}})),
        message(0xF414, platform.changes({{UDP_OVERLAY, ENCAP}, {1, ENCAP}})),
        fake::bytes(removal).add(acknowledge(UDP_OVERLAY)).add(acknowledge(UDP6_OVERLAY)),
        fake::bytes(removal).add(removal).add(acknowledge(UDP_OVERLAY)).add(acknowledge(UDP_OVERLAY)),
        message(0x22DD, {}).add(message(0xB9, {})).add(message(0x12345, {})),
    };
    std::vector<input> made;
    for (const fake::bytes &run : runs) {
        input seed{static_cast<std::uint8_t>(made.size() % 2)};
        seed.insert(seed.end(), run.begin(), run.end());
        made.push_back(seed);
    }
    return made;
}
