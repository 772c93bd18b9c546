// Service manager and feature manager.
#include "fake_state.h"

namespace fake {

namespace {

// The callbacks belong to the process under test. Tests of the platform alone have none.
#define FAKE_WEAK __attribute__((weak))

} // namespace
} // namespace fake

extern int svcmgrcb_process_state_changed(const svcmgr_notification *, std::uint32_t) FAKE_WEAK;
extern int svcmgrcb_srv_hs_state_query(std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t) FAKE_WEAK;
extern int svcmgrcb_switchover(const svcmgr_request *, std::uint32_t, std::uint32_t, std::uint32_t,
                               std::uint32_t) FAKE_WEAK;
extern int svcmgrcb_conditional_srv_cleanup_start(const svcmgr_request *, std::uint32_t) FAKE_WEAK;
extern int svcmgrcb_conditional_srv_cleanup_status(const svcmgr_request *, std::uint32_t) FAKE_WEAK;

namespace fake {

namespace {

const svcmgr_request request{1};

void state_changed(std::uint32_t service, std::uint32_t service_state)
{
    const svcmgr_notification notification{service};
    if (svcmgrcb_process_state_changed != nullptr)
        svcmgrcb_process_state_changed(&notification, service_state);
}

void query_answered(std::uint32_t service)
{
    if (svcmgrcb_srv_hs_state_query != nullptr)
        svcmgrcb_srv_hs_state_query(platform.own_service, service, 0, 1);
}

void post(std::uint32_t opcode, bytes payload)
{
    const auto &queues = platform.impl().queues;
    const auto found = queues.find(platform.impl().service_queue);
    if (found != queues.end())
        platform.deliver(found->second.sap, opcode, std::move(payload));
}

} // namespace

void platform_object::service_up(std::uint32_t service) { state_changed(service, SVCMGR_STATE_UP); }
void platform_object::service_down(std::uint32_t service) { state_changed(service, SVCMGR_STATE_DOWN); }

void platform_object::deliver_service_state(std::uint32_t service, std::uint32_t service_state)
{
    post(OPC_SERVICE_STATE, bytes().add_host32(service).add_host32(service_state));
}

int platform_object::svcmgr_switchover(bool hot, bool sequence_mismatch)
{
    return svcmgrcb_switchover(&request, hot ? 1 : 0, 0, 0, sequence_mismatch ? 1 : 0);
}
int platform_object::cleanup_start(std::uint32_t reason)
{
    return svcmgrcb_conditional_srv_cleanup_start(&request, reason);
}
int platform_object::cleanup_status(std::uint32_t status)
{
    return svcmgrcb_conditional_srv_cleanup_status(&request, status);
}

} // namespace fake

using namespace fake;

int svcmgr_supstate_get() { return platform.supervisor_active ? 1 : 0; }

bool svcmgr_handshake(mbus_q queue, std::uint32_t service)
{
    note("svcmgr_handshake", queue, service);
    if (refuse("svcmgr_handshake"))
        return false;
    platform.impl().service_queue = queue;
    return true;
}

bool svcmgr_conditional_srv_was_handshake_done() { return platform.handshake_done; }
bool svcmgr_condition_verified(std::uint32_t /*condition*/, std::uint32_t /*flags*/) { return platform.condition_verified; }

void svcmgr_heartbeat(std::uint32_t first)
{
    note("svcmgr_heartbeat", first);
    platform.heartbeats.push_back(first);
}

std::uint32_t svcmgr_heartbeat_timeout_get() { return platform.heartbeat_timeout_ms; }

void svcmgr_query_srv_hs_state(std::uint32_t service)
{
    note("svcmgr_query_srv_hs_state", service);
    platform.service_queries.push_back(service);
    if (platform.services_up.contains(service))
        post(OPC_SERVICE_QUERY, bytes().add_host32(service));
}

int svcmgr_dispatch(mbus_msg &msg)
{
    std::size_t length = 0;
    const std::uint8_t *payload = mbus_payload_get(msg, &length);
    const bytes data(std::span<const std::uint8_t>(payload, length));
    switch (mbus_opc_get(msg)) {
    case OPC_SERVICE_STATE:
        state_changed(data.host32(0), data.host32(4));
        return 0;
    case OPC_SERVICE_QUERY:
        query_answered(data.host32(0));
        return 0;
    case OPC_CLEANUP_START:
        platform.cleanup_start(data.host32(0));
        return 0;
    default:
        return -1;
    }
}

std::uint32_t svcmgr_srv_notification_uuid_get(const svcmgr_notification *notification) { return notification->service; }

void svcmgr_switchover_done(const svcmgr_request *done, std::uint32_t status)
{
    note("svcmgr_switchover_done", done->number, status);
}

int svcmgr_conditional_srv_cleanup(std::uint32_t flags)
{
    note("svcmgr_conditional_srv_cleanup", flags);
    if (refuse("svcmgr_conditional_srv_cleanup"))
        return errno;
    post(OPC_CLEANUP_START, bytes().add_host32(1));
    return 0;
}

void featmgr_rsp_feature_req(mbus_q queue, const mbus_msg &message, std::uint32_t status)
{
    note("featmgr_rsp_feature_req", queue, mbus_opc_get(message), status);
    platform.feature_answers.push_back({"rsp", queue, 0, 0, status});
}

void featmgr_notify_feature_status(mbus_q queue, std::uint32_t feature, std::uint32_t enabled, std::uint32_t status)
{
    note("featmgr_notify_feature_status", queue, feature, enabled, status);
    platform.feature_answers.push_back({"notify", queue, feature, enabled, status});
}
