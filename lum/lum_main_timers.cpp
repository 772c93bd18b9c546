// Periodic work: the learn timer, which ages routes and hands the learn buffer to the route table, the MRD hello of
// each VLAN, and the heartbeat. Callbacks run on the timer thread, holding the process lock.
#include "lum_private.h"

#include "drops.h"
#include "lum_inlines.h"
#include "lum_msgs.h"
#include "lum_packet.h"
#include "pim.h"
#include "svcmgr.h"

#include <cstring>

namespace {

constexpr std::uint32_t AGE_PERIOD_S = 120, ACTIVE_WITHIN_S = 60, MRD_PERIOD_S = 30;
constexpr std::uint32_t NANOSECONDS = 1'000'000'000;
constexpr std::uint32_t FLUSH_LENGTH_BASE = 72;      // 4 beyond the header, deliberate: the length is not relied on

} // namespace

void lum_set_next_age_time()
{
    timestamp now;
    if (vemo_sys_mclock_get(now) == -1)
        return;
    lum_next_age_time = {now.seconds + AGE_PERIOD_S, now.nanoseconds};
    if (lum_next_age_time.nanoseconds >= NANOSECONDS) {
        lum_next_age_time.nanoseconds -= NANOSECONDS;
        ++lum_next_age_time.seconds;
    }
}

bool lum_data_in_last_minute(const timestamp &seen)
{
    return timestamp_elapsed(seen).seconds < ACTIVE_WITHIN_S;
}

// A refused update is lost: hosts that still talk are learnt again, and stale routes are found by the next ageing run.
void lum_send_buffer_to_rtab(const char *who)
{
    LUM_TRACE_LEARN("%s timer expired, send %d routes to RTAB\n", who, static_cast<int>(lum_rtab_buffer_count));
    const auto length = static_cast<std::uint32_t>(FLUSH_LENGTH_BASE + LUM_LEARN_RECORD * lum_rtab_buffer_count);
    if (rtab_update_route(lum_rtab_buffer.data(), static_cast<std::uint16_t>(lum_rtab_buffer_count), length, 0) == 0)
        drop_count(drop_reason::LEARN_REFUSED, lum_rtab_buffer_count);
    lum_clear_learn_buffer();
}

namespace {

bool is_stale(const rtab_route &route)
{
    const std::uint8_t *mac = route.key.mac.data();
    return rtab_is_owner(route) && !lum_mac_is_multicast(mac) &&
           !lum_data_in_last_minute(rtab_get_route_timestamp(route));
}

void trace_ageing(const rtab_route &route)
{
    const std::uint32_t iod = route.nexthop_count != 0 ? lum_addr_word(route.nexthop[0], 0) : 0;
    lum_text info, name;
    LUM_TRACE_LEARN("Aging %s on %s\n", lum_print_mac_info(route.key, info), lum_if_name(iod, name));
}

void age_route(const rtab_route &route) LUM_LOCKED;
void age_route(const rtab_route &route)
{
    std::uint8_t *record = nullptr;
    if (lum_find_route_in_learn_buffer(route.key, &record) != 0)
        return;                                      // learnt since the last flush
    if (lum_rtab_buffer_count == LUM_LEARN_RECORDS)
        lum_send_buffer_to_rtab("Age");
    if (lum_learn_debug_flag != 0)
        trace_ageing(route);
    record = lum_append_to_learn_buffer(route.key);
    record[LUM_LEARN_MARKER] = 1;
    record[LUM_LEARN_HAS_NEXT_HOP] = 0;
    std::memcpy(record + LUM_LEARN_LENGTH, &LUM_LEARN_DELETION_LENGTH, sizeof LUM_LEARN_DELETION_LENGTH);
}

} // namespace

void lum_ager()
{
    rtab_acquire_rdlock();
    rtab_cursor cursor;
    while (const rtab_route *route = rtab_get_each_route(cursor))
        if (is_stale(*route))
            age_route(*route);
    rtab_release_rdlock();
    if (lum_rtab_buffer_count != 0)
        lum_send_buffer_to_rtab("Age");
    lum_set_next_age_time();
}

// The ager comes first, so that what was learnt since the last expiry is still in the buffer while it looks there.
void lum_process_learn_timer(void *)
{
    plock_assert_held();
    active_timer_start(lum_learn_timer, LUM_LEARN_PERIOD_S, 0, 0, 0);
    if (timestamp_expired(lum_next_age_time))
        lum_ager();
    if (lum_rtab_buffer_count != 0)
        lum_send_buffer_to_rtab("Learn");
}

namespace {

// A yield may retire the VLAN, so its sets are looked at anew after each.
void send_hello_on_ports(lum_vlan &entry, mbuf *hello) LUM_LOCKED;
void send_hello_on_ports(lum_vlan &entry, mbuf *hello)
{
    LUM_TRACE_INTERNAL("MRD to be sent on max %d ports\n", static_cast<int>(bitfield_count_set(*entry.ports)));
    for (std::uint32_t port = bitfield_find_first_set(*entry.ports); port != 0;
         port = entry.ports != nullptr ? bitfield_find_next_set(*entry.ports, port) : 0) {
        if (bitfield_test(*entry.blocked, port))
            continue;
        if (lum_internal_debug_flag != 0) {
            lum_text name;
            LUM_TRACE_INTERNAL("MRD send on interface %s\n", lum_if_name(port, name));
        }
        ip_cl_output_l2(hello, entry.vlan, port, 0, 0, 0);
        plock_sched_may_yield();
    }
}

void flood_hello(lum_vlan &entry) LUM_LOCKED;
void flood_hello(lum_vlan &entry)
{
    mbuf *hello = pim_api_create_hello_pkt(entry.vlan, 0, 0, 0);
    if (hello == nullptr) {
        LUM_LOG(API_FAILED, "pim_api_create_hello_pkt");
        return;
    }
    if (lum_chassis_ferrix != 0 && entry.ports != nullptr)
        send_hello_on_ports(entry, hello);
    else
        ip_cl_output_l2(hello, entry.vlan, 0, 1, 0, 0);
    m_freem(hello);
}

} // namespace

void lum_process_mrd_timer(void *vlan)
{
    plock_assert_held();
    auto *entry = static_cast<lum_vlan *>(vlan);
    if (entry == nullptr || entry->mrd_enabled == 0)
        return;
    LUM_TRACE_INTERNAL("MRD timer expired, flood PIM hello on vlan %u\n", entry->vlan);
    const active_timer timer = entry->mrd_timer;
    flood_hello(*entry);
    if (entry->mrd_timer == timer)
        active_timer_start(timer, MRD_PERIOD_S, 0, 0, 0);
}

void lum_process_heartbeat_timer(void *)
{
    svcmgr_heartbeat(0);
    active_timer_start(lum_heartbeat_timer, svcmgr_heartbeat_timeout_get() / 1000, 0, 0, 0);
}
