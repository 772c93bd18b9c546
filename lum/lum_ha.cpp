// High availability and lifecycle: the callbacks of the service manager and of the HA kit, the feature manager's
// requests, and the clean-up when the process ends. Main thread, process lock held.
#include "lum_private.h"

#include "featmgr.h"
#include "lum_msgs.h"
#include "svcmgr.h"

#include <array>
#include <csignal>

namespace {

// What must be up before recovery is reported done. The UDP stack, the VRF manager and IGMP are left to the
// notifications that follow the switchover, deliberate.
constexpr auto RECOVERED_SERVICES = std::to_array<std::uint32_t>({SVC_RTAB, SVC_IP, SVC_IPV6, SVC_INTFMGR, SVC_PKTMGR});

} // namespace

int svcmgrcb_switchover(const svcmgr_request *request, std::uint32_t hot, std::uint32_t /*unused1*/,
                        std::uint32_t /*unused2*/, std::uint32_t sequence_mismatch)
{
    LUM_TRACE_INTERNAL("Received %s SUP switchover message\n", hot != 0 ? "hot" : "cold");
    if (sequence_mismatch != 0) {
        LUM_TRACE_INTERNAL("Switchover sequence number mismatch");
        hakit_ha_disable_all();
    }
    svcmgr_switchover_done(request, 0);
    LUM_TRACE_INTERNAL("Switchover recovery done");
    return 0;
}

int lum_switchover()
{
    plock_assert_held();
    LUM_TRACE_INTERNAL("Received switchover message from svcmgr\n");
    lum_sup_state_recovery_wait = 1;
    for (const std::uint32_t service : RECOVERED_SERVICES)
        lum_process_svcmgr_notify_up(service);
    return hakit_ha_recovery_done(0);
}

void lum_switchover_done()
{
    LUM_TRACE_INTERNAL("Received LUM switchover messages from svcmgr\n");
    lum_sup_state_active = 1;
    lum_request_component_notifications(1);
}

int svcmgrcb_conditional_srv_cleanup_start(const svcmgr_request * /*request*/, std::uint32_t stop_reason)
{
    LUM_TRACE_INTERNAL("Conditional service cleanup start, reason %s", hakit_stop_type_str(stop_reason));
    mbus_pre_unbind(lum_mbus_q);
    return 0;
}

int svcmgrcb_conditional_srv_cleanup_status(const svcmgr_request * /*request*/, std::uint32_t status)
{
    LUM_TRACE_INTERNAL("Conditional service cleanup status %d", static_cast<int>(status));
    if (status != 0)
        LUM_LOG(SHUTDOWN_REQUEST_FAIL, hakit_syserr2str(status));
    return 0;
}

int lum_handle_featmgr_enable_msg(mbus_msg &msg)
{
    LUM_TRACE_INTERNAL("Feature enable request received\n");
    featmgr_rsp_feature_req(lum_mbus_q, msg, 0);
    featmgr_notify_feature_status(lum_mbus_q, LUM_SERVICE, 1, 0);
    return LUM_DONE;
}

int lum_handle_featmgr_disable_msg(mbus_msg &msg)
{
    LUM_TRACE_INTERNAL("Feature disable request received\n");
    featmgr_rsp_feature_req(lum_mbus_q, msg, 0);
    static_cast<void>(svcmgr_conditional_srv_cleanup(0));
    return LUM_DONE;
}

namespace {

void close_clients()
{
    if (lum_rtab_initialized != 0)
        static_cast<void>(rtab_api_close());
    if (lum_ip_initialized != 0)
        ip_api_close(lum_ip_client);
    if (lum_ipv6_initialized != 0)
        ipv6_api_close(lum_ipv6_client);
    if (lum_pm_initialized != 0)
        net_l2_unregister(lum_net_l2_handle);
    lum_rtab_initialized = lum_ip_initialized = lum_ipv6_initialized = lum_pm_initialized = 0;
}

void unbind(mbus_q &queue)
{
    if (queue == MBUS_Q_INVALID)
        return;
    mbus_unbind(queue, 0);
    queue = MBUS_Q_INVALID;
}

} // namespace

void lum_cleanup()
{
    LUM_TRACE_INTERNAL("Starting LUM cleanup");
    LUM_LOG(SHUTDOWN, " start");
    cli_exit_thread();
    hakit_ha_api_close();
    if (lum_ipc_thread_exists != 0)
        pthread_kill(lum_ipc_thread, SIGQUIT);
    close_clients();
    unbind(lum_mbus_q);
    unbind(lum_pm_mbus_q);
    LUM_TRACE_INTERNAL("Done LUM cleanup");
    LUM_LOG(SHUTDOWN, " done");
}
