// Service manager client: the handshake, what this process wants to know of other services, and the callbacks. After
// a reconnect it shakes hands again and asks only for what changed meanwhile.
#include "svcmgr.h"

#include "client.h"
#include "runtime/connection.h"
#include "service_retry.h"

#include "../wire/svcmgr.h"

#include <cerrno>
#include <ctime>
#include <map>
#include <mutex>

struct svcmgr_notification {
    std::uint32_t service = 0;
};
struct svcmgr_request {
    std::uint64_t id = 0;
};

namespace {

using namespace corvane;

constexpr int KEPT_OR_DONE = 0, NOT_HANDLED = -1;
constexpr std::uint32_t ACTIVE = 1, HEARTBEAT_DEFAULT_MS = 1000;

struct svcmgr_client {
    std::mutex mutex;
    mbus_q queue = MBUS_Q_INVALID;
    std::uint32_t service = 0;                          // 0: no handshake yet; else what to introduce this process as
    bool done = false;                                  // a handshake was answered
    std::map<std::uint32_t, std::uint32_t> known;       // service: state as this process last heard it, 0 = asked
    bool hooked = false;
};

svcmgr_client &the()
{
    static auto *client = new svcmgr_client;
    return *client;
}

struct process_info {
    std::uint32_t role = ACTIVE, start_reason = START_REASON_COLD, heartbeat_ms = HEARTBEAT_DEFAULT_MS;
};

process_info ask_info()
{
    const reply answer = call(SVCMGR_INFO, {});
    byte_reader in(answer.data);
    process_info info;
    info.role = in.get<std::uint32_t>();
    info.start_reason = in.get<std::uint32_t>();
    info.heartbeat_ms = in.get<std::uint32_t>();
    return answer.error == 0 && in.done() ? info : process_info{};
}

bool send_handshake(mbus_q queue, std::uint32_t service)
{
    return call(SVCMGR_HANDSHAKE, byte_writer().put(queue).put(service).view()).error == 0;
}

void send_query(std::uint32_t service, std::uint32_t known)
{
    (void)call(SVCMGR_QUERY, byte_writer().put(service).put(known).view());
}

void introduce_again()
{
    std::unique_lock lock(the().mutex);
    const mbus_q queue = the().queue;
    const std::uint32_t service = the().service;
    const auto known = the().known;
    lock.unlock();
    if (service == 0 || !send_handshake(queue, service))
        return;
    lock.lock();
    the().done = true;
    lock.unlock();
    for (const auto &[number, state] : known)
        send_query(number, state);
}

void note(std::uint32_t service, std::uint32_t state)
{
    const std::lock_guard guard(the().mutex);
    the().known[service] = state;
}

int take_state(byte_reader in)
{
    const svcmgr_notification notification{in.get<std::uint32_t>()};
    const auto state = in.get<std::uint32_t>();
    if (!in.done())
        return KEPT_OR_DONE;
    note(notification.service, state);
    const service_set_up scope(notification.service);
    return svcmgrcb_process_state_changed(&notification, state);
}

int take_query_answer(byte_reader in)
{
    const auto client = in.get<std::uint32_t>();
    const auto service = in.get<std::uint32_t>();
    const auto flags = in.get<std::uint32_t>();
    const auto done = in.get<std::uint32_t>();
    if (!in.done())
        return KEPT_OR_DONE;
    note(service, done != 0 ? SVCMGR_STATE_UP : SVCMGR_STATE_DOWN);
    const service_set_up scope(service);
    return svcmgrcb_srv_hs_state_query(client, service, flags, done);
}

int take_switchover(byte_reader in)
{
    const svcmgr_request request{in.get<std::uint64_t>()};
    const auto hot = in.get<std::uint32_t>();
    const auto unused1 = in.get<std::uint32_t>();
    const auto unused2 = in.get<std::uint32_t>();
    const auto mismatch = in.get<std::uint32_t>();
    return in.done() ? svcmgrcb_switchover(&request, hot, unused1, unused2, mismatch) : KEPT_OR_DONE;
}

int take_cleanup(byte_reader in, int (*callback)(const svcmgr_request *, std::uint32_t))
{
    const svcmgr_request request{in.get<std::uint64_t>()};
    const auto value = in.get<std::uint32_t>();
    return in.done() ? callback(&request, value) : KEPT_OR_DONE;
}

} // namespace

int svcmgr_supstate_get()
{
    return static_cast<int>(ask_info().role);
}

bool svcmgr_handshake(mbus_q queue, std::uint32_t service)
{
    {
        const std::lock_guard guard(the().mutex);
        if (!the().hooked)
            on_connected_at(connect_stage::SERVICES, introduce_again);
        the().hooked = true;
        // Known before it is answered: a handshake whose answer is lost is made again with the next connection.
        the().queue = queue;
        the().service = service;
    }
    connection_service_set(service);
    const bool answered = send_handshake(queue, service);
    const std::lock_guard guard(the().mutex);
    the().done |= answered;
    return answered;
}

bool svcmgr_conditional_srv_was_handshake_done()
{
    const std::lock_guard guard(the().mutex);
    return the().done;
}

bool svcmgr_condition_verified(std::uint32_t, std::uint32_t)
{
    return true;                // services of this platform are not conditional on others
}

void svcmgr_heartbeat(std::uint32_t first)
{
    (void)send_oneway_now(SVCMGR_HEARTBEAT, byte_writer().put(first).view(), false);
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    for (const std::uint32_t service : services_to_retry(static_cast<std::uint64_t>(now.tv_sec)))
        (void)send_oneway_now(SVCMGR_QUERY, byte_writer().put(service).put(0u).view(), false);
}

std::uint32_t svcmgr_heartbeat_timeout_get()
{
    static const std::uint32_t interval = ask_info().heartbeat_ms;
    return interval;
}

void svcmgr_query_srv_hs_state(std::uint32_t service)
{
    note(service, 0);
    send_query(service, 0);
}

int svcmgr_dispatch(mbus_msg &msg)
{
    if (mbus_saddr_get(msg).sap != SVCMGR_SAP)
        return NOT_HANDLED;
    std::size_t length = 0;
    const std::uint8_t *payload = mbus_payload_get(msg, &length);
    const byte_reader in({payload, length});
    switch (mbus_opc_get(msg)) {
    case SVCMGR_OPC_STATE:
        return take_state(in);
    case SVCMGR_OPC_QUERY_ANSWER:
        return take_query_answer(in);
    case SVCMGR_OPC_SWITCHOVER:
        return take_switchover(in);
    case SVCMGR_OPC_CLEANUP_START:
        return take_cleanup(in, svcmgrcb_conditional_srv_cleanup_start);
    case SVCMGR_OPC_CLEANUP_STATUS:
        return take_cleanup(in, svcmgrcb_conditional_srv_cleanup_status);
    default:
        return NOT_HANDLED;
    }
}

std::uint32_t svcmgr_srv_notification_uuid_get(const svcmgr_notification *notification)
{
    return notification->service;
}

void svcmgr_switchover_done(const svcmgr_request *request, std::uint32_t status)
{
    (void)call(SVCMGR_SWITCHOVER_DONE, byte_writer().put(request->id).put(status).view());
}

int svcmgr_conditional_srv_cleanup(std::uint32_t flags)
{
    return call(SVCMGR_CLEANUP, byte_writer().put(flags).view()).error;
}

// Processes that have no use for a callback do not define it.
__attribute__((weak)) int svcmgrcb_process_state_changed(const svcmgr_notification *, std::uint32_t)
{
    return 0;
}

__attribute__((weak)) int svcmgrcb_srv_hs_state_query(std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t)
{
    return 0;
}

__attribute__((weak)) int svcmgrcb_switchover(const svcmgr_request *request, std::uint32_t, std::uint32_t,
                                              std::uint32_t, std::uint32_t)
{
    svcmgr_switchover_done(request, 0);
    return 0;
}

__attribute__((weak)) int svcmgrcb_conditional_srv_cleanup_start(const svcmgr_request *, std::uint32_t)
{
    return 0;
}

__attribute__((weak)) int svcmgrcb_conditional_srv_cleanup_status(const svcmgr_request *, std::uint32_t)
{
    return 0;
}
