// Bring-up of the platform clients: each is set up once, when the service manager reports its service up and what it
// needs is there. A failed one is tried again at its service's next report. Main thread, process lock held.
#include "lum_private.h"

#include "igmp.h"
#include "lum_msgs.h"
#include "lum_packet.h"
#include "svcmgr.h"
#include "vrfmgr.h"

#include <cerrno>
#include <cstring>

pthread_t lum_pm_thread;

namespace {

constexpr std::uint32_t ALL_CONTEXTS = 65535;
constexpr auto ACTIVE_QUERIES = std::to_array<std::uint32_t>(
    {SVC_RTAB, SVC_IP, SVC_IPV6, SVC_UDP, SVC_INTFMGR, SVC_PKTMGR, SVC_VRFMGR, SVC_IGMP});

bool api_failure(const char *call)
{
    LUM_LOG(API_FAILED, call);
    return false;
}

} // namespace

void lum_request_component_notifications(std::uint32_t active)
{
    if (active != 0)
        for (const std::uint32_t service : ACTIVE_QUERIES)
            svcmgr_query_srv_hs_state(service);
    svcmgr_query_srv_hs_state(SVC_CMDSRV);
}

int svcmgrcb_process_state_changed(const svcmgr_notification *notification, std::uint32_t state)
{
    plock_assert_held();
    const std::uint32_t service = svcmgr_srv_notification_uuid_get(notification);
    if (state == SVCMGR_STATE_UP)
        lum_process_svcmgr_notify_up(service);
    else if (state == SVCMGR_STATE_DOWN)
        lum_process_svcmgr_notify_down(service);
    return 0;
}

int svcmgrcb_srv_hs_state_query(std::uint32_t /*client*/, std::uint32_t service, std::uint32_t /*flags*/,
                                std::uint32_t done)
{
    plock_assert_held();
    if (done != 0)
        lum_process_svcmgr_notify_up(service);
    return 0;
}

bool lum_init_ip()
{
    lum_ip_client = ip_api_init();
    if (lum_ip_client == 0)
        return api_failure("ip_api_init()");
    if (!ip_register("lum", lum_pm_mbus_q, lum_mbus_q, 0, ALL_CONTEXTS, lum_ip_client, 0, 0)) {
        ip_api_close(lum_ip_client);
        return api_failure("ip_register()");
    }
    lum_ip_initialized = 1;
    return true;
}

bool lum_init_ipv6()
{
    lum_ipv6_client = ipv6_api_init();
    if (lum_ipv6_client == 0)
        return api_failure("ipv6_api_init()");
    if (!ipv6_register("lum", lum_pm_mbus_q, lum_mbus_q, 0, ALL_CONTEXTS, lum_ipv6_client, 0, 0)) {
        ipv6_api_close(lum_ipv6_client);
        return api_failure("ipv6_register()");
    }
    lum_ipv6_initialized = 1;
    return true;
}

bool lum_init_ifmgr()
{
    constexpr std::uint32_t SUBSCRIBE = 16;
    constexpr auto NOTIFICATIONS = std::to_array<std::uint32_t>(
        {INTFMGR_OPC_L3_STATE, INTFMGR_OPC_CREATE, INTFMGR_OPC_DELETE, INTFMGR_OPC_L3_PARAM});
    if (lum_ifmgr_initialized != 0)
        return true;
    const char *error = "";
    if (const std::uint32_t rc = intfmgr_ext_sbcr_init(LUM_SERVICE, lum_mbus_q, "lum", &error); rc != 0) {
        LUM_LOG(SUBCR_INIT, rc, error);
        return false;
    }
    for (const std::uint32_t opcode : NOTIFICATIONS)
        if (mbus_options_set(lum_mbus_q, opcode, SUBSCRIBE) < 0) {
            LUM_LOG(MBUS_REG, opcode, std::strerror(errno));
            return false;
        }
    lum_ifmgr_initialized = 1;
    return true;
}

namespace {

// What an earlier attempt has set up stays, so that a later one only does the rest.
bool bind_packet_queue()
{
    if (lum_pm_mbus_q != MBUS_Q_INVALID)
        return true;
    const mbus_q_attr attr{
        .version = 1, .flag = {1, 0}, .depth = 1024, .reserved = {}, .priority = 15, .service = LUM_SERVICE};
    lum_pm_mbus_q = mbus_bind(1, LUM_PACKET_SAP, attr, "LUM-packet");
    if (lum_pm_mbus_q != MBUS_Q_INVALID)
        return true;
    LUM_LOG(MBUS_BIND, "LUM packet mbus-q", std::strerror(errno));
    return false;
}

bool register_for_frames()
{
    if (lum_net_l2_handle == 0)
        lum_net_l2_handle =
            net_l2_register({.service = LUM_SERVICE, .queue = lum_pm_mbus_q, .sap = LUM_PACKET_SAP, .filter = 0});
    return lum_net_l2_handle != 0 || api_failure("net_l2_register_uuid()");
}

} // namespace

bool lum_init_pm()
{
    if (lum_pm_initialized != 0)
        return true;
    if (!bind_packet_queue() || !register_for_frames())
        return false;
    if (corvane_pthread_create(lum_pm_thread, &lum_thread_attr, lum_pm_main, nullptr, "lum-pm-thread") != 0) {
        LUM_LOG(PTHREAD_FAILED);
        return false;
    }
    lum_pm_initialized = 1;
    return true;
}

bool lum_init_vrfmgr()
{
    if (lum_vrfmgr_initialized != 0)
        return true;
    if (!vrfmgr_api_init())
        return api_failure("vrfmgr_api_init()");
    lum_vrfmgr_initialized = 1;
    return true;
}

bool lum_init_igmp()
{
    if (lum_igmp_initialized != 0)
        return true;
    if (!igmp_api_init())
        return api_failure("igmp_api_init()");
    lum_igmp_initialized = 1;
    if (const sdb_iterator_ptr overlays = lum_sdb_iterator_init(0, 1, 1); overlays != nullptr)
        while (lum_sdb_iterator_get_next(*overlays) != nullptr)
            lum_mcast_process_add_delete_adjacency();
    return true;
}

namespace {

bool init_rtab()
{
    constexpr std::uint32_t RTAB_FLAGS = 6;
    if (!rtab_api_init(lum_mbus_q, "lum", RTAB_FLAGS))
        return false;
    lum_rtab_initialized = 1;
    return true;
}

bool init_udp()
{
    plock_assert_held();
    return lum_init_udp() != 0;
}

// The packet client, and IPv4 behind it, whose registration names the packet queue: IPv4 comes up with whichever of
// the two services reports last.
void packet_manager_is_up()
{
    if (lum_pm_initialized != 0)
        return;                  // an IPv4 client that failed waits for the report of its own service
    if (!lum_init_pm()) {
        LUM_LOG(API_FAILED, "lum_init_pm()");
        return;
    }
    if (lum_ip_initialized == 0 && !lum_init_ip())
        LUM_LOG(API_FAILED, "lum_init_ip()");
}

struct client_row {
    std::uint32_t service;
    const std::uint32_t *initialized;
    bool (*init)();
    const char *failure;
};
constexpr auto CLIENTS = std::to_array<client_row>({
    {SVC_RTAB, &lum_rtab_initialized, init_rtab, "rtab_api_init()"},
    {SVC_IP, &lum_ip_initialized, lum_init_ip, "lum_init_ip()"},
    {SVC_IPV6, &lum_ipv6_initialized, lum_init_ipv6, "lum_init_ipv6()"},
    {SVC_INTFMGR, &lum_ifmgr_initialized, lum_init_ifmgr, "lum_init_ifmgr()"},
    {SVC_UDP, &lum_udp_initialized, init_udp, "lum_init_udp()"},
    {SVC_VRFMGR, &lum_vrfmgr_initialized, lum_init_vrfmgr, "lum_init_vrfmgr()"},
    {SVC_IGMP, &lum_igmp_initialized, lum_init_igmp, "lum_init_igmp()"},
});

void set_up_client(std::uint32_t service)
{
    if (service == SVC_PKTMGR)
        return packet_manager_is_up();
    for (const client_row &row : CLIENTS) {
        if (row.service != service || *row.initialized != 0)
            continue;
        if (service == SVC_IP && lum_pm_initialized == 0)
            return;
        if (!row.init())
            LUM_LOG(API_FAILED, row.failure);
    }
}

} // namespace

void lum_process_svcmgr_notify_up(std::uint32_t service)
{
    if (service == SVC_CMDSRV && lum_cli_init() == 0) {
        LUM_LOG(API_FAILED, "rtab_cli_init()");              // of the route table in name only, deliberate
        return;
    }
    if (lum_sup_state_recovery_wait == 0 && lum_sup_state_active == 0)
        return;                                              // a standby has its commands and nothing else
    const char *name = hakit_get_name_from_uuid(service);
    if (std::strcmp(name, "unknown") != 0)
        LUM_TRACE_INTERNAL("%s has come up\n", name);
    set_up_client(service);
}

void lum_process_svcmgr_notify_down(std::uint32_t service)
{
    const char *name = hakit_get_name_from_uuid(service);
    if (std::strcmp(name, "unknown") != 0)
        LUM_TRACE_INTERNAL("Svcmgr down notification for %s came after it reregistered\n", name);
    if (service == SVC_IGMP)
        lum_igmp_initialized = 0;                            // the other clients survive their service's restart
}
