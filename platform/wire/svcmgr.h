// Methods and messages of the service manager.
#pragma once

#include "methods.h"

namespace corvane {

inline constexpr std::uint32_t
    SVCMGR_INFO = method(METHOD_SVCMGR, 1),        // - -> u32 role (1 active), start reason, heartbeat interval ms
    SVCMGR_HANDSHAKE = method(METHOD_SVCMGR, 2),   // u32 queue, service
    SVCMGR_HEARTBEAT = method(METHOD_SVCMGR, 3),   // one way: u32 first
    SVCMGR_QUERY = method(METHOD_SVCMGR, 4),       // u32 service, u32 state the client knows (0: none): the answer is a
                                                   // message; where a state is known, only if it is another now
    SVCMGR_CLEANUP = method(METHOD_SVCMGR, 5),     // u32 flags: asks for the orderly stop of the calling process
    SVCMGR_SWITCHOVER_DONE = method(METHOD_SVCMGR, 6),   // u64 request, u32 status
    SVCMGR_RECOVERY_DONE = method(METHOD_SVCMGR, 7),     // u32 status
    SVCMGR_SERVICES = method(METHOD_SVCMGR, 8),    // - -> u32 count, then u32 number, u32 up, u32 pid, text name
    SVCMGR_FEATURE = method(METHOD_SVCMGR, 9),     // u32 enable: the feature manager asks the daemon
    SVCMGR_FEATURE_ANSWER = method(METHOD_SVCMGR, 10),   // u32 feature, u32 request, u32 status
    SVCMGR_FEATURE_STATUS = method(METHOD_SVCMGR, 11);   // u32 feature, u32 enabled, u32 status

// Messages to the queue of the handshake come from these SAPs, which no client can bind.
inline constexpr std::uint32_t SVCMGR_SAP = 2, HAKIT_SAP = 3, FEATMGR_SAP = 4, SDB_SAP = 5;
inline constexpr std::uint32_t
    SVCMGR_OPC_STATE = 0x9E0,            // u32 service, u32 state (SVCMGR_STATE_...)
    SVCMGR_OPC_QUERY_ANSWER = 0x9E1,     // u32 client, u32 service, u32 flags, u32 done
    SVCMGR_OPC_SWITCHOVER = 0x9E2,       // u64 request, u32 hot, u32 0, u32 0, u32 sequence mismatch
    SVCMGR_OPC_CLEANUP_START = 0x9E3,    // u64 request, u32 stop reason
    SVCMGR_OPC_CLEANUP_STATUS = 0x9E4,   // u64 request, u32 status
    HAKIT_OPC_SWITCHOVER = 0x9F8,        // -
    HAKIT_OPC_SWITCHOVER_DONE = 0x9F9,   // -
    EVHIST_OPC_CONTROL = 0xB9,           // u32 EVHIST_..., u32 value
    FEATMGR_OPC_ENABLE = 0x22DD, FEATMGR_OPC_DISABLE = 0x22DE,   // u32 feature, u32 request
    FEATMGR_OPC_ANSWER = 0x22DF,         // u32 feature, u32 request, u32 status: to whoever asked
    FEATMGR_OPC_STATUS = 0x22E0;         // notification: u32 feature, u32 enabled, u32 status

inline constexpr std::uint32_t START_REASON_COLD = 1, START_REASON_RESTART = 2, START_REASON_SWITCHOVER = 3,
                               START_REASON_STANDBY = 4;
inline constexpr std::uint32_t STOP_REASON_REQUEST = 1, STOP_REASON_SHUTDOWN = 2, STOP_REASON_RESTART = 3,
                               STOP_REASON_SWITCHOVER = 4;

inline constexpr std::uint32_t EVHIST_LEVEL = 1,      // the facility's level
                               EVHIST_DUMP = 2,       // writes the history to the log
                               EVHIST_CLEAR = 3;

// Numbers of services besides those of svcmgr.h.
inline constexpr std::uint32_t SVC_LUM = 581, SVC_SVCMGR = 33, SVC_SDB = 320, SVC_VLANMGR = 321,
                               SVC_FEATMGR = 95;

} // namespace corvane
