// Fixture of the inbound messages' tests: messages as interface manager and clients send them.
#pragma once

#include "lum_test.h"

namespace lum_test {

inline constexpr std::uint64_t ENCAP_BIT = std::uint64_t{1} << 42, L3_BIT = std::uint64_t{1} << 35;
inline constexpr std::uint32_t CREATED = 78851, DELETED = 78852, STATUS = 78853, PARAMETERS = 78854;

class LumInbound : public LumTest {
protected:
    LumInbound() { lum_event_debug_flag = 1; }
    static int dispatch(std::uint32_t opcode, const fake::bytes &payload)
    {
        plock_assert_held();
        last_ = platform.message(opcode, payload);
        mbus_msg msg = last_;
        return lum_dispatch(msg);
    }
    static int remove(std::initializer_list<intfmgr_change> list) { return dispatch(0xF404, platform.changes(list)); }
    static int acknowledge(std::uint32_t iod) { return dispatch(0x13404, fake::bytes().add_host32(iod)); }
    static lum_overlay *find(std::uint32_t iod)
    {
        plock_assert_held();
        return lum_get_overlay(iod);
    }
    // An overlay that owns no VLAN, so that its deletion completes with the acknowledgement.
    lum_overlay &plain_overlay(std::uint32_t iod)
    {
        plock_assert_held();
        lum_overlay &made = overlay(iod, 4000 + iod - OVERLAY);
        bitfield_clear(*made.vlans, 4000 + iod - OVERLAY);
        lum_vlans[4000 + iod - OVERLAY].overlay = nullptr;
        made.vlan_refcount = 0;
        platform.forget();
        return made;
    }
    static inline mbus_msg last_;
};

} // namespace lum_test
