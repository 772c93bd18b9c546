// Service manager client: handshake, heartbeat, service-up and service-down notifications, supervisor role, orderly
// stop. The svcmgrcb_ functions are defined by the process and found by name; svcmgr_dispatch calls them.
#pragma once

#include "mbus.h"

#include <cstdint>

// Service numbers of the platform.
inline constexpr std::uint32_t SVC_CMDSRV = 261, SVC_PKTMGR = 263, SVC_IP = 267, SVC_IPV6 = 269, SVC_UDP = 271,
                               SVC_IGMP = 286, SVC_INTFMGR = 318, SVC_VRFMGR = 445, SVC_RTAB = 582;

struct svcmgr_notification;      // opaque: a service changed its state
struct svcmgr_request;           // opaque: handle of a request to be answered

inline constexpr std::uint32_t SVCMGR_STATE_DOWN = 1, SVCMGR_STATE_UP = 2;

[[nodiscard]] int svcmgr_supstate_get();                      // 1: this supervisor is the active one
[[nodiscard]] bool svcmgr_handshake(mbus_q queue, std::uint32_t service);
[[nodiscard]] bool svcmgr_conditional_srv_was_handshake_done();
[[nodiscard]] bool svcmgr_condition_verified(std::uint32_t condition, std::uint32_t flags);
void svcmgr_heartbeat(std::uint32_t first);                   // 1: the watch begins; 0: still alive
[[nodiscard]] std::uint32_t svcmgr_heartbeat_timeout_get();   // milliseconds between heartbeats
// Asks for the handshake state; the answer comes through svcmgrcb_srv_hs_state_query, later changes through
// svcmgrcb_process_state_changed.
void svcmgr_query_srv_hs_state(std::uint32_t service);
// 1 kept, 0 done, -1 not a message of the service manager.
[[nodiscard]] int svcmgr_dispatch(mbus_msg &msg);
[[nodiscard]] std::uint32_t svcmgr_srv_notification_uuid_get(const svcmgr_notification *notification);
void svcmgr_switchover_done(const svcmgr_request *request, std::uint32_t status);
// Asks the service manager to stop this process in order. 0, or a system error.
[[nodiscard]] int svcmgr_conditional_srv_cleanup(std::uint32_t flags);

// Called from svcmgr_dispatch, with the process lock held.
int svcmgrcb_process_state_changed(const svcmgr_notification *notification, std::uint32_t state);
int svcmgrcb_srv_hs_state_query(std::uint32_t client, std::uint32_t service, std::uint32_t flags, std::uint32_t done);
int svcmgrcb_switchover(const svcmgr_request *request, std::uint32_t hot, std::uint32_t unused1,
                        std::uint32_t unused2, std::uint32_t sequence_mismatch);
int svcmgrcb_conditional_srv_cleanup_start(const svcmgr_request *request, std::uint32_t stop_reason);
int svcmgrcb_conditional_srv_cleanup_status(const svcmgr_request *request, std::uint32_t status);
