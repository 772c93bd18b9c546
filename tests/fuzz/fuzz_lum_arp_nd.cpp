// The ARP and ND parsers behind suppression and anycast filtering. Byte 0: bit 7 from the core, bit 6 ND, the rest
// switches of the world; then the payload behind the frame's type.
#include "world_lum.h"

#include "lum_packet.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size < 1)
        return 0;
    fuzz_lum::prepare(data[0] & 0x3F);
    plock_assert_held();
    const fake::bytes payload(std::span<const std::uint8_t>(data + 1, size - 1));
    const fake::bytes made = fake::tagged(fake::BROADCAST, fuzz_lum::HOST, fuzz_lum::UDP_VLAN,
                                          (data[0] & 0x40) != 0 ? 0x86DD : 0x0806, payload);
    const std::unique_ptr<std::uint8_t[]> frame(new std::uint8_t[made.size()]);
    // Twice, so that the second may be answered from what the first one left in the cache.
    for (int i = 0; i < 2; ++i) {
        std::copy(made.begin(), made.end(), frame.get());
        lum_input(frame.get(), static_cast<std::uint32_t>(made.size()),
                  (data[0] & 0x80) != 0 ? 0 : fuzz_lum::ACCESS_PORT);
    }
    fuzz_lum::check();
    fuzz::require(platform.memory_blocks(LUM_MEM_TYPE_ARP_ND_CACHE) <= 1);
    return 0;
}

std::vector<fuzz::input> fuzz::seeds()
{
    std::vector<input> made;
    for (const fake::bytes &frame : fuzz_lum::frames()) {
        const std::uint16_t type = frame.be16(12);
        if (type != 0x0806 && type != 0x86DD)
            continue;
        for (const bool from_core : {false, true}) {
            input seed{static_cast<std::uint8_t>((from_core ? 0x80 : 0) | (type == 0x86DD ? 0x40 : 0))};
            seed.insert(seed.end(), frame.begin() + 14, frame.end());
            made.push_back(seed);
        }
    }
    return made;
}
