// Frames from the core, as decapsulation hands them on. Byte 0: switches of the world; then the frame.
#include "world_lum.h"

#include "lum_packet.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size < 1)
        return 0;
    fuzz_lum::prepare(data[0]);
    plock_assert_held();
    const std::unique_ptr<std::uint8_t[]> frame(new std::uint8_t[size - 1]);
    std::copy(data + 1, data + size, frame.get());
    lum_input(frame.get(), static_cast<std::uint32_t>(size - 1), 0);
    fuzz_lum::check();
    fuzz::require(lum_rtab_buffer_count == 0);               // nothing of the core is learnt
    return 0;
}

std::vector<fuzz::input> fuzz::seeds()
{
    std::vector<input> made;
    for (const fake::bytes &frame : fuzz_lum::frames()) {
        input seed{static_cast<std::uint8_t>(made.size() % 16)};
        seed.insert(seed.end(), frame.begin(), frame.end());
        made.push_back(seed);
    }
    return made;
}
