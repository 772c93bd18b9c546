// The VLAN manager's membership query and its reply, as payloads.
#include "vlanmgr.h"

#include "../../wire/bytes.h"
#include "fault.h"

#include <cstdlib>
#include <cstring>

using namespace corvane;

bool vlan_get_per_vlan_memb_info_build_mbus_local(std::span<const std::uint32_t> vlans, vlan_memb_payload &payload)
{
    payload = {};
    if (base_refuses("vlan_get_per_vlan_memb_info_build_mbus_local"))
        return false;
    const auto count = static_cast<std::uint32_t>(vlans.size());
    const std::size_t length = sizeof count + vlans.size_bytes();
    auto *data = static_cast<std::uint8_t *>(std::malloc(length));
    if (data == nullptr)
        return false;
    std::memcpy(data, &count, sizeof count);
    if (!vlans.empty())
        std::memcpy(data + sizeof count, vlans.data(), vlans.size_bytes());
    payload = {data, length};
    return true;
}

void vlan_memb_payload_free(vlan_memb_payload &payload)
{
    std::free(payload.data);
    payload = {};
}

bool vlan_get_per_vlan_memb_info_parse_reply_local(const mbus_msg &msg, std::uint32_t &vlan,
                                                   std::span<vlan_memb_pair> pairs, std::size_t &count)
{
    count = 0;
    std::size_t length = 0;
    const std::uint8_t *payload = mbus_payload_get(msg, &length);
    if (payload == nullptr)
        return false;
    byte_reader in({payload, length});
    const auto asked = in.get<std::uint32_t>();
    const auto announced = in.get<std::uint32_t>();
    if (!in.ok() || announced > pairs.size() || in.rest().size() != announced * sizeof(vlan_memb_pair))
        return false;
    for (; count < announced; ++count) {
        pairs[count].vlan = in.get<std::uint32_t>();
        pairs[count].ifindex = in.get<std::uint32_t>();
    }
    vlan = asked;
    return true;
}
