// Frames from site ports. Byte 0: switches of the world; byte 1: the port, and one that has no record; then the frame.
#include "world_lum.h"

#include "lum_packet.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    constexpr std::uint32_t ports[] = {fuzz_lum::ACCESS_PORT, fuzz_lum::TRUNK_PORT, fuzz_lum::OTHER_PORT, 700};
    if (size < 2)
        return 0;
    fuzz_lum::prepare(data[0]);
    plock_assert_held();
    const std::unique_ptr<std::uint8_t[]> frame(new std::uint8_t[size - 2]);
    std::copy(data + 2, data + size, frame.get());
    lum_input(frame.get(), static_cast<std::uint32_t>(size - 2), ports[data[1] % 4]);
    fuzz_lum::check();
    return 0;
}

std::vector<fuzz::input> fuzz::seeds()
{
    std::vector<input> made;
    std::uint8_t n = 0;
    for (const fake::bytes &frame : fuzz_lum::frames()) {
        input seed{static_cast<std::uint8_t>(n % 16), static_cast<std::uint8_t>(n % 4)};
        seed.insert(seed.end(), frame.begin(), frame.end());
        made.push_back(seed);
        ++n;
    }
    return made;
}
