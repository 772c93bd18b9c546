// Iterators over the interface manager's notifications. The whole payload is checked before the first element is
// given out, so that a malformed message changes nothing.
#include "intfmgr.h"

#include "../../wire/bytes.h"

#include <cinttypes>
#include <cstdio>

using namespace corvane;

namespace {

constexpr std::size_t CHANGE_SIZE = 12, L2_FIXED_SIZE = 16;
constexpr std::uint32_t VLAN_BITS = 4096;

byte_view payload_of(const mbus_msg &msg)
{
    std::size_t length = 0;
    const std::uint8_t *payload = mbus_payload_get(msg, &length);
    return payload == nullptr ? byte_view{} : byte_view{payload, length};
}

bool l2_payload_valid(byte_view elements, std::uint32_t count)
{
    byte_reader in(elements);
    for (std::uint32_t i = 0; i < count; ++i) {
        (void)in.raw(L2_FIXED_SIZE - 4);
        const std::size_t ups = in.get<std::uint16_t>();
        const std::size_t downs = in.get<std::uint16_t>();
        (void)in.raw((ups + downs) * sizeof(std::uint16_t));
        if (!in.ok())
            return false;
    }
    return in.done();
}

void read_vlans(byte_reader &in, std::size_t count, bitfield &vlans)
{
    vlans.clear_all();
    for (std::size_t i = 0; i < count; ++i)
        vlans.set(in.get<std::uint16_t>());
}

} // namespace

bool intfmgr_parse_change_iterator_init(intfmgr_change_iterator &iterator, const mbus_msg &msg)
{
    iterator = {};
    byte_reader in(payload_of(msg));
    const auto count = in.get<std::uint32_t>();
    if (!in.ok() || in.rest().size() != count * CHANGE_SIZE)
        return false;
    iterator.at = in.rest().data();
    iterator.left = count;
    return true;
}

bool intfmgr_parse_change_iterate(intfmgr_change_iterator &iterator, intfmgr_change &change)
{
    if (iterator.left == 0)
        return false;
    byte_reader in({iterator.at, CHANGE_SIZE});
    change.iod = in.get<std::uint32_t>();
    change.mask = in.get<std::uint64_t>();
    iterator.at += CHANGE_SIZE;
    --iterator.left;
    return true;
}

const char *intfmgr_change_mask_str(std::uint64_t mask, char *out, std::size_t size)
{
    std::snprintf(out, size, "0x%" PRIx64, mask);
    return out;
}

intfmgr_l2_state_iterator::~intfmgr_l2_state_iterator()
{
    bitfield_destroy(up);
    bitfield_destroy(down);
}

bool intfmgr_parse_l2_protocol_state_change_iterator_init(intfmgr_l2_state_iterator &iterator, const mbus_msg &msg)
{
    iterator.at = nullptr;
    iterator.left = 0;
    byte_reader in(payload_of(msg));
    const auto count = in.get<std::uint32_t>();
    if (!in.ok() || !l2_payload_valid(in.rest(), count))
        return false;
    const bitfield_attr attr;
    if (iterator.up == nullptr)
        iterator.up = bitfield_create(attr, VLAN_BITS);
    if (iterator.down == nullptr)
        iterator.down = bitfield_create(attr, VLAN_BITS);
    if (iterator.up == nullptr || iterator.down == nullptr)
        return false;
    iterator.at = in.rest().data();
    iterator.left = count;
    return true;
}

bool intfmgr_parse_l2_protocol_state_change_iterate(intfmgr_l2_state_iterator &iterator, intfmgr_l2_state &state)
{
    if (iterator.left == 0)
        return false;
    byte_reader fixed({iterator.at, L2_FIXED_SIZE});
    state.iod = fixed.get<std::uint32_t>();
    state.mode = fixed.get<std::uint32_t>();
    state.state = fixed.get<std::uint32_t>();
    const std::size_t ups = fixed.get<std::uint16_t>();
    const std::size_t downs = fixed.get<std::uint16_t>();
    const std::size_t vlans_size = (ups + downs) * sizeof(std::uint16_t);
    byte_reader vlans({iterator.at + L2_FIXED_SIZE, vlans_size});
    read_vlans(vlans, ups, *iterator.up);
    read_vlans(vlans, downs, *iterator.down);
    state.vlans_up = iterator.up;
    state.vlans_down = iterator.down;
    iterator.at += L2_FIXED_SIZE + vlans_size;
    --iterator.left;
    return true;
}
