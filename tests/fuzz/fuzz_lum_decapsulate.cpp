// Packets from the core, from their outer IP header on. Byte 0: bit 7 the family, the rest switches of the world.
#include "world_lum.h"

#include "lum_packet.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size < 1)
        return 0;
    fuzz_lum::prepare(data[0] & 0x7F);
    plock_assert_held();
    const std::unique_ptr<std::uint8_t[]> packet(new std::uint8_t[size - 1]);
    std::copy(data + 1, data + size, packet.get());
    if ((data[0] & 0x80) != 0)
        lum_ipv6_decapsulate(packet.get(), static_cast<std::uint32_t>(size - 1));
    else
        lum_ip_decapsulate(packet.get(), static_cast<std::uint32_t>(size - 1));
    fuzz_lum::check();
    return 0;
}

std::vector<fuzz::input> fuzz::seeds()
{
    std::vector<input> made;
    for (const fake::bytes &frame : fuzz_lum::frames()) {
        const bool v6 = made.size() % 2 == 1;
        const fake::bytes packet = v6 ? fake::core_packet(fake::ipv6("2001:db8::9"), fake::ipv6("2001:db8::1"), frame)
                                      : fake::core_packet(fake::ipv4(198, 51, 100, 9), fake::ipv4(192, 0, 2, 1), frame);
        input seed{static_cast<std::uint8_t>((v6 ? 0x80 : 0) | (made.size() & 1))};
        seed.insert(seed.end(), packet.begin(), packet.end());
        made.push_back(seed);
    }
    return made;
}
