// Overlay records and the overlay table: creation with the defaults, destruction, lookups. Runs under the process lock,
// mostly on the main thread.
#include "lum_inlines.h"
#include "lum_msgs.h"

#include "memacct.h"

#include <cstdio>
#include <new>

namespace
{

constexpr std::array<const char *, 3> state_names{"None", "DOWN", "UP"};
constexpr std::array<const char *, 4> reason_names{"None", "Incomplete Parameters", "Admin Down", "Delete Holddown"};

template <std::size_t N> const char *name_of(const std::array<const char *, N> &names, std::uint32_t value)
{
    return value < N ? names[value] : "Invalid";
}

} // namespace

const char *lum_overlay_state_str(std::uint32_t state) { return name_of(state_names, state); }
const char *lum_overlay_reason_str(std::uint32_t reason) { return name_of(reason_names, reason); }

const char *lum_overlay_display_name(const lum_overlay *overlay)
{
    if (overlay == nullptr)
        return "[No overlay]";
    return overlay->vpn_name[0] != '\0' ? overlay->vpn_name : overlay->if_name;
}

void lum_get_default_ipv4_core_group(lum_ipv4_range &range)
{
    range.base = 0xE8C00000;     // 232.192.0.0
    range.length = 10;
}

int lum_get_default_ipv6_core_group(lum_ipv6_range &range)
{
    range.base = {};
    range.base[0] = 0xFF;
    range.base[1] = 0x02;
    range.base[11] = 0x01;
    range.length = 96;
    return 0;
}

bool lum_init_overlay(lum_overlay &overlay, std::uint32_t iod)
{
    if (!intfmgr_get_ifindex(iod, overlay.ifindex))
        return false;
    intfmgr_get_if_name(iod, overlay.if_name, sizeof overlay.if_name);
    overlay.vlans = bitfield_create(lum_bf_attr, LUM_VLANS);
    if (overlay.vlans == nullptr)
        return false;
    overlay.iod = iod;
    overlay.vpn_id = iod;
    overlay.state = LUM_OVERLAY_DOWN;
    overlay.reason = LUM_REASON_INCOMPLETE;
    overlay.encap_type = LUM_ENCAP_UDP;
    overlay.encap_family = LUM_FAMILY_IPV4;
    overlay.suppress_arp = 1;
    lum_get_default_ipv4_core_group(overlay.data_group);
    lum_get_default_ipv6_core_group(overlay.data_group6);
    return true;
}

lum_overlay *lum_create_overlay(std::uint32_t iod)
{
    void *memory = memacct_alloc(LUM_SERVICE, LUM_MEM_TYPE_OVERLAY, sizeof(lum_overlay));
    if (memory == nullptr)
        return nullptr;
    lum_overlay *overlay = new (memory) lum_overlay{};
    if (lum_init_overlay(*overlay, iod)) {
        if (avlt_insert(lum_svr.overlays, &overlay->node))
            return overlay;
        overlay->iod = 0;        // it is in no tree, and another record may be there under its key
    }
    lum_destroy_overlay(&overlay);
    return nullptr;
}

lum_overlay *lum_add_overlay(std::uint32_t iod)
{
    lum_text name;
    LUM_TRACE_EVENT("Creating overlay %s\n", lum_if_name(iod, name));
    lum_overlay *overlay = lum_create_overlay(iod);
    if (overlay == nullptr)
        return nullptr;
    lum_sdb_update_overlay(*overlay);
    lum_send_overlay_state_msg(*overlay, LUM_OPC_OVERLAY_CREATED);
    return overlay;
}

int lum_create_or_init_overlay(std::uint32_t iod)
{
    lum_overlay *overlay = lum_get_overlay(iod);
    if (overlay == nullptr)
        overlay = lum_add_overlay(iod);
    else
        overlay->made_again = overlay->delete_holddown;
    if (overlay == nullptr) {
        LUM_LOG(OVLY_ADD);
        return 0;
    }
    // Also for an overlay that was there: what created its interface again expects the configuration on it.
    cli_send_my_if_commands(iod);
    return 1;
}

void lum_destroy_overlay(lum_overlay **overlay)
{
    if (overlay == nullptr || *overlay == nullptr)
        return;
    lum_overlay *record = *overlay;
    if (record->iod != 0)
        avlt_remove(lum_svr.overlays, &record->node);
    lum_free_arp_nd_cache(*record);
    bitfield_destroy(record->vlans);
    memacct_free(LUM_SERVICE, LUM_MEM_TYPE_OVERLAY, record);
    *overlay = nullptr;
}

lum_overlay *lum_get_overlay(std::uint32_t iod)
{
    if (iod == 0)
        return nullptr;
    // The node is the record's first member.
    return reinterpret_cast<lum_overlay *>(avlt_find(lum_svr.overlays, &iod));
}

// Deliberate: VPN names are labels, not keys, and two overlays may carry the same one.
lum_overlay *lum_get_overlay_by_name() { return nullptr; }

lum_overlay *lum_exec_get_overlay(cli_cmd *cmd)
{
    if (const char *name = nullptr; cli_get_interface(cmd, "<if-name>", name))
        return lum_get_overlay(intfmgr_get_if_by_name(name));
    if (cli_is_set(cmd, "<overlay-name>"))
        return lum_get_overlay_by_name();
    return nullptr;
}

const lum_addr *lum_get_group_address_from_overlay(const lum_overlay *overlay, std::uint32_t *ext_iod)
{
    if (overlay == nullptr || ext_iod == nullptr || overlay->ext_if[0].iod == 0)
        return nullptr;
    *ext_iod = overlay->ext_if[0].iod;
    switch (overlay->encap_family) {
    case LUM_FAMILY_IPV4:
        return &overlay->ipv4_group;
    case LUM_FAMILY_IPV6:
        return &overlay->ipv6_group;
    default:
        return nullptr;
    }
}

std::uint32_t lum_get_encap_type(std::uint32_t iod)
{
    const lum_overlay *overlay = lum_get_overlay(iod);
    return overlay != nullptr ? overlay->encap_type : 0;
}
