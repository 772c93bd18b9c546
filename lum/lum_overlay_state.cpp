// Overlay state: derived from the record's other fields, never set. Deletion in two phases: triggered, held down while
// clients are told, completed by their acknowledgement. Main thread and command thread, under the process lock.
#include "lum_msgs.h"
#include "lum_overlay.h"

namespace
{

struct derived_state {
    std::uint32_t state, reason;
};

// The first rule that matches. One family suffices for the group and one for the address, and they need not be the
// same, nor that of the encapsulation: deliberate.
derived_state derive_state(const lum_overlay &overlay)
{
    if (overlay.iod == 0)
        return {LUM_OVERLAY_DOWN, LUM_REASON_NONE};
    if (overlay.delete_holddown != 0)
        return {LUM_OVERLAY_DOWN, LUM_REASON_DELETE_HOLDDOWN};
    if (lum_overlay_ipv4_group(overlay) == 0 && lum_is_zero(lum_overlay_ipv6_group(overlay)))
        return {LUM_OVERLAY_DOWN, LUM_REASON_INCOMPLETE};
    if (overlay.ext_if_count == 0)
        return {LUM_OVERLAY_DOWN, LUM_REASON_INCOMPLETE};
    if (overlay.ext_ipv4 == 0 && lum_is_zero(overlay.ext_ipv6))
        return {LUM_OVERLAY_DOWN, LUM_REASON_INCOMPLETE};
    if (!intfmgr_is_if_up(overlay.iod))
        return {LUM_OVERLAY_DOWN, LUM_REASON_ADMIN_DOWN};
    return {LUM_OVERLAY_UP, LUM_REASON_NONE};
}

const char *up_or_down(bool up) { return up ? "UP" : "DOWN"; }

// Takes the overlay's VLANs out of the VLAN table and leaves its own set as it is. A VLAN that another overlay owns is
// reported and skipped; the reference count then stays above 0, which keeps the record from being freed.
void release_vlans(lum_overlay &overlay) LUM_LOCKED
{
    lum_walk_vlans(overlay, [&](std::uint32_t vlan) {
        lum_vlan &entry = lum_vlans[vlan];
        if (entry.overlay != &overlay) {
            LUM_LOG(VLAN_OVLY_MISMATCH, static_cast<int>(vlan), lum_overlay_display_name(&overlay));
            return;
        }
        entry.overlay = nullptr;
        --overlay.vlan_refcount;
    });
}

// What was configured for the record since its deletion was triggered goes to the one that takes its place.
void release_vlans_taken_since(lum_overlay &overlay) LUM_LOCKED
{
    lum_walk_vlans(overlay, [&](std::uint32_t vlan) {
        plock_assert_held();
        if (lum_vlans[vlan].overlay != &overlay)
            return;
        lum_vlans[vlan].overlay = nullptr;
        --overlay.vlan_refcount;
    });
}

// Releases the message that waits for this overlay's deletion, once no other overlay waits on it.
void release_held_message(lum_overlay &overlay) LUM_LOCKED
{
    if (overlay.delete_msg == mbus_msg{} || overlay.delete_msg != lum_pending_msg)
        return;
    --lum_pending_msg_count;
    overlay.delete_msg = {};
    if (lum_pending_msg_count == 0)
        mbus_drop(lum_mbus_q, lum_pending_msg);
}

} // namespace

std::uint32_t lum_update_overlay_state(lum_overlay &overlay)
{
    LUM_TRACE_EVENT("Updating overlay state:\n");
    const derived_state derived = derive_state(overlay);
    overlay.state = derived.state;
    overlay.reason = derived.reason;
    const bool up = derived.state == LUM_OVERLAY_UP;
    LUM_TRACE_EVENT("  overlay state is %s%s%s\n", lum_overlay_state_str(derived.state), up ? "" : ", ",
                    up ? "" : lum_overlay_reason_str(derived.reason));
    return derived.state;
}

int lum_check_overlay_state_change(lum_overlay &overlay)
{
    const bool was_up = overlay.state == LUM_OVERLAY_UP;
    const bool is_up = lum_update_overlay_state(overlay) == LUM_OVERLAY_UP;
    if (was_up == is_up)
        return 0;
    LUM_TRACE_EVENT("overlay state changed from %s to %s\n", up_or_down(was_up), up_or_down(is_up));
    return 1;
}

void lum_check_publish_notify(lum_overlay &overlay)
{
    const int changed = lum_check_overlay_state_change(overlay);
    lum_sdb_update_overlay(overlay);
    lum_send_overlay_params_msg(overlay);
    if (changed != 0)
        lum_send_overlay_state_msg(overlay, LUM_OPC_OVERLAY_STATE);
}

void lum_publish_notify_check(lum_overlay &overlay)
{
    lum_sdb_update_overlay(overlay);
    lum_send_overlay_params_msg(overlay);
    if (lum_check_overlay_state_change(overlay) != 0)
        lum_send_overlay_state_msg(overlay, LUM_OPC_OVERLAY_STATE);
}

int lum_trigger_overlay_delete(lum_overlay &overlay)
{
    LUM_TRACE_EVENT("Trigger deletion for overlay %s\n", lum_overlay_display_name(&overlay));
    if (std::uint32_t ifindex = 0; !intfmgr_get_ifindex(overlay.iod, ifindex))
        LUM_TRACE_INTERNAL("Processing INTFMGR i/f delete, but IOD %lu is already invalid\n",
                           static_cast<unsigned long>(overlay.iod));
    overlay.delete_holddown = 1;
    overlay.made_again = 0;
    lum_update_overlay_state(overlay);
    release_vlans(overlay);
    lum_sdb_update_overlay(overlay);
    lum_send_overlay_state_msg(overlay, LUM_OPC_OVERLAY_DELETED);
    return 1;
}

void lum_delete_overlay_complete(lum_overlay *overlay)
{
    if (overlay == nullptr || lum_sdb_delete_overlay(*overlay) == 0)
        return;
    release_held_message(*overlay);
    const std::uint32_t iod = overlay->iod;
    const bool has_successor = overlay->made_again != 0 && intfmgr_is_lum_tunnel(iod);
    if (has_successor)
        release_vlans_taken_since(*overlay);
    if (overlay->vlan_refcount != 0)
        LUM_LOG(OVLY_DEL, lum_overlay_display_name(overlay), "Refcount");
    else if (overlay->adj_count != 0)
        LUM_LOG(OVLY_DEL, lum_overlay_display_name(overlay), "Site-adj");
    else
        lum_destroy_overlay(&overlay);
    // The held record never comes up again, but the interface is there and its configuration is replayed.
    if (overlay == nullptr && has_successor)
        lum_create_or_init_overlay(iod);
}
