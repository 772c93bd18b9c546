// Messages of the packet service, as the packet thread gets them. Byte 0: switches of the world; then the payload.
#include "world_lum.h"

#include "lum_packet.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size < 1)
        return 0;
    fuzz_lum::prepare(data[0]);
    plock_assert_held();
    const std::unique_ptr<std::uint8_t[]> payload(new std::uint8_t[size - 1]);
    std::copy(data + 1, data + size, payload.get());
    lum_process_pm_msg(payload.get(), size - 1);
    fuzz_lum::check();
    return 0;
}

std::vector<fuzz::input> fuzz::seeds()
{
    std::vector<input> made;
    for (const fake::bytes &frame : fuzz_lum::frames()) {
        fake::bytes payload;
        payload.add8(static_cast<unsigned>(made.size() % 16)).add_zeros(4);
        payload.add_be32(made.size() % 5 == 0 ? fuzz_lum::GRE_OVERLAY : fuzz_lum::ACCESS_PORT);
        payload.add_zeros(44).add_be16(static_cast<unsigned>(frame.size())).add_zeros(6).add(frame);
        made.push_back(payload);
    }
    return made;
}
