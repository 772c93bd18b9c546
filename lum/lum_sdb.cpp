// Publication to the shared database, and reading it back for the show commands. Records are built field by field from
// the layouts that their readers have (lum.h). Main thread and command thread, under the process lock.
#include "lum_inlines.h"
#include "lum_msgs.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>

namespace
{

using sdb_key = std::array<std::uint8_t, LUM_SDB_KEY_SIZE>;

sdb_key build_key(lum_sdb_type type)
{
    sdb_key key{};
    wire_put_host<LUM_KEY_TYPE>(std::span{key}, static_cast<std::uint8_t>(type));
    return key;
}

sdb_key build_overlay_key(const lum_overlay &overlay)
{
    sdb_key key = build_key(LUM_SDB_OVERLAY);
    wire_put_host<LUM_KEY_OVERLAY_IOD>(std::span{key}, overlay.iod);
    return key;
}

sdb_key build_vlan_key(std::uint32_t vlan)
{
    sdb_key key = build_key(LUM_SDB_VLAN);
    wire_put_host<LUM_KEY_VLAN>(std::span{key}, vlan);
    return key;
}

using overlay_value = std::array<std::uint8_t, LUM_SDB_OVERLAY_SIZE>;

void put_groups(overlay_value &value, const lum_overlay &overlay)
{
    wire_put_host<LUM_SDB_OVERLAY_IPV4_GROUP_FAMILY>(std::span{value}, LUM_FAMILY_IPV4);
    wire_put_host<LUM_SDB_OVERLAY_IPV4_GROUP>(std::span{value}, lum_next_hop_ipv4(overlay.ipv4_group));
    wire_put_host<LUM_SDB_OVERLAY_IPV6_GROUP_FAMILY>(std::span{value}, LUM_FAMILY_IPV6);
    // Deliberate: the group record from its second word on, so the address begins 8 bytes in and is cut to 8 bytes.
    std::memcpy(&value[LUM_SDB_OVERLAY_IPV6_GROUP.at], overlay.ipv6_group.body.data(),
                LUM_SDB_OVERLAY_IPV6_GROUP.width);
}

overlay_value build_overlay_value(const lum_overlay &overlay)
{
    overlay_value value{};
    const std::span out{value};
    wire_put_host<LUM_SDB_OVERLAY_IOD>(out, overlay.iod);
    wire_put_host<LUM_SDB_OVERLAY_IFINDEX>(out, overlay.ifindex);
    const std::size_t ext_ifs = std::min<std::size_t>(overlay.ext_if_count, LUM_EXT_IFS);
    for (std::size_t i = 0; i < ext_ifs; ++i)
        wire_set_host32(&value[LUM_SDB_OVERLAY_EXT_IODS.at + 4 * i], overlay.ext_if[i].iod);
    std::memcpy(&value[LUM_SDB_OVERLAY_VPN_NAME.at], overlay.vpn_name, strnlen(overlay.vpn_name, LUM_NAME_SIZE - 1));
    put_groups(value, overlay);
    std::memcpy(&value[LUM_SDB_OVERLAY_RANGES.at], &overlay.vlan_ranges, LUM_SDB_OVERLAY_RANGES.width);
    wire_put_host<LUM_SDB_OVERLAY_STATE>(out, overlay.state);
    wire_put_host<LUM_SDB_OVERLAY_REASON>(out, overlay.reason);
    wire_put_host<LUM_SDB_OVERLAY_ENCAP_TYPE>(out, overlay.encap_type);
    wire_put_host<LUM_SDB_OVERLAY_ENCAP_FAMILY>(out, overlay.encap_family);
    wire_put_host<LUM_SDB_OVERLAY_EXT_IPV4>(out, overlay.ext_ipv4);
    wire_put_bytes<LUM_SDB_OVERLAY_EXT_IPV6>(out, overlay.ext_ipv6);
    wire_put_host<LUM_SDB_OVERLAY_CONTEXT_ID>(out, overlay.context_id);
    return value;
}

// Number of a VLAN by its place in the table: an entry whose last port was unconfigured is retired and has lost its
// number, while an overlay may still carry it.
std::uint32_t vlan_number(const lum_vlan &entry)
{
    const std::less<const lum_vlan *> before;
    const lum_vlan *first = lum_vlans.data(), *end = first + lum_vlans.size();
    if (before(&entry, first) || !before(&entry, end))
        return entry.vlan;
    return static_cast<std::uint32_t>(&entry - first);
}

std::array<std::uint8_t, LUM_SDB_VLAN_SIZE> build_vlan_value(const lum_vlan &entry, std::uint32_t vlan)
{
    std::array<std::uint8_t, LUM_SDB_VLAN_SIZE> value{};
    const std::span out{value};
    wire_put_host<LUM_SDB_VLAN_VLAN>(out, vlan);
    wire_put_host<LUM_SDB_VLAN_OVERLAY_IOD>(out, entry.overlay != nullptr ? entry.overlay->iod : 0u);
    wire_put_host<LUM_SDB_VLAN_AED>(out, std::uint32_t{entry.aed});
    wire_put_host<LUM_SDB_VLAN_SITE>(out, std::uint32_t{entry.site_vlan});
    return value;
}

int put(const sdb_key &key, std::span<const std::uint8_t> value)
{
    return hakit_sdb_update(lum_sdb_handle, key.data(), key.size(), value.data(), value.size(), 1) != 0 ? 1 : 0;
}

int remove(const sdb_key &key) { return hakit_sdb_delete(lum_sdb_handle, key.data(), key.size()) != 0 ? 1 : 0; }

constexpr int LEVEL_ERROR = 3;

// Tells the subscribers that the database was written: its context, at the head of a message of fixed size.
void announce_context(sdb_handle handle)
{
    std::array<std::uint8_t, LUM_SDB_CONTEXT_SIZE> context{};
    std::size_t length = 0;
    if (sdb_get_context_len(handle, &length) == 0)
        krel_syslog(LEVEL_ERROR, "SDB get context fail\n");
    if (sdb_set_context(handle, context.data(), std::min(length, context.size())) == 0)
        krel_syslog(LEVEL_ERROR, "SDB set context fail\n");
    mbus_send_options options;
    options.want_ack = 1;
    if (mbus_send(lum_mbus_q, {MBUS_NOTIFY_DESTINATION, 0}, LUM_OPC_SDB_CONTEXT, context.data(), context.size(),
                  options) != 0)
        krel_syslog(LEVEL_ERROR, "MBUS send fail - %s\n", std::strerror(errno));
}

} // namespace

int lum_sdb_update_overlay(const lum_overlay &overlay)
{
    LUM_TRACE_INTERNAL("Updating overlay %s to SDB\n", lum_overlay_display_name(&overlay));
    if (put(build_overlay_key(overlay), build_overlay_value(overlay)) != 0)
        return 1;
    LUM_TRACE_INTERNAL("SDB update failed for overlay %s\n", lum_overlay_display_name(&overlay));
    return 0;
}

int lum_sdb_delete_overlay(const lum_overlay &overlay)
{
    LUM_TRACE_INTERNAL("Deleting overlay %s from SDB\n", lum_overlay_display_name(&overlay));
    if (remove(build_overlay_key(overlay)) != 0)
        return 1;
    LUM_TRACE_INTERNAL("SDB delete failed for overlay %s\n", lum_overlay_display_name(&overlay));
    return 0;
}

int lum_sdb_update_geninfo()
{
    LUM_TRACE_INTERNAL("Updating geninfo in SDB\n");
    std::array<std::uint8_t, LUM_SDB_GENINFO_SIZE> value{};
    wire_put_host<LUM_SDB_GENINFO_SITE_VLAN>(std::span{value}, lum_svr.site_vlan);
    if (put(build_key(LUM_SDB_GENINFO), value) != 0)
        return 1;
    LUM_TRACE_INTERNAL("SDB update failed for geninfo\n");
    return 0;
}

int lum_sdb_update_vlan(const lum_vlan &entry, std::uint32_t present)
{
    const std::uint32_t vlan = vlan_number(entry);
    LUM_TRACE_INTERNAL("Updating vlan %u to SDB\n", vlan);
    const sdb_key key = build_vlan_key(vlan);
    if ((present != 0 ? put(key, build_vlan_value(entry, vlan)) : remove(key)) != 0)
        return 1;
    if (present != 0)
        LUM_TRACE_INTERNAL("SDB update failed for vlan %u\n", vlan);
    else
        LUM_TRACE_INTERNAL("SDB delete failed for vlan %u\n", vlan);
    return 0;
}

int lum_update_one_sdb(sdb_handle handle, std::span<const std::uint8_t> key, std::span<const std::uint8_t> value,
                       std::uint32_t present)
{
    const int written = present != 0 ? sdb_write(handle, key.data(), key.size(), value.data(), value.size())
                                     : sdb_delete(handle, key.data(), key.size());
    if (written == 0)
        krel_syslog(LEVEL_ERROR, "SDB write fail\n");
    announce_context(handle);
    if (sdb_write_done(handle) == 0)
        krel_syslog(LEVEL_ERROR, "SDB write done fail\n");
    return written != 0 ? 1 : 0;
}

sdb_iterator_ptr lum_sdb_iterator_init(std::uint32_t, std::uint32_t type, std::uint32_t)
{
    const auto prefix = static_cast<std::uint8_t>(type);
    return sdb_iterator_create(lum_sdb_handle, &prefix, sizeof prefix);
}

const sdb_record *lum_sdb_iterator_get_next(sdb_iterator &iterator) { return sdb_iterator_next(iterator); }

void lum_update_overlay_vlans(lum_overlay &overlay)
{
    lum_vlan_range_list &list = overlay.vlan_ranges;
    std::size_t current = 0;
    std::uint32_t previous = 0;
    const auto close_range = [&](std::uint32_t last) {
        if (current < LUM_VLAN_RANGES)
            list.range[current].last = static_cast<std::uint16_t>(last);
    };
    for (std::uint32_t vlan = bitfield_find_first_set(*overlay.vlans); vlan != 0;
         vlan = bitfield_find_next_set(*overlay.vlans, vlan)) {
        const bool first = previous == 0;
        if (first || vlan != previous + 1) {
            ++list.count;        // deliberate: never cleared, so it grows with every rebuild
            if (!first) {
                close_range(previous);
                ++current;
            }
            if (current < LUM_VLAN_RANGES)
                list.range[current].first = static_cast<std::uint16_t>(vlan);
        }
        previous = vlan;
    }
    close_range(previous);       // of an empty set: range 0 ends at 0
    lum_sdb_update_overlay(overlay);
    lum_send_overlay_params_msg(overlay);
}
