// HA kit: event-history wrapper, scheduling policy, start and stop reasons, persistent store and shared database
// registration, switchover callbacks.
#pragma once

#include "mbus.h"

#include <cstddef>
#include <cstdint>

struct cli_cmd;

[[nodiscard]] bool hakit_evhist_init(std::uint32_t entries, const char *name, const char *description,
                                     std::uint32_t max_element, const char *facility);
void hakit_evhist_close();
// Keeps the setting of a debug element with the debug configuration.
void hakit_evhist_set_elem(cli_cmd *cmd, std::uint32_t element, std::uint32_t value);

[[nodiscard]] std::uint32_t hakit_get_start_reason();
[[nodiscard]] const char *hakit_start_type_str(std::uint32_t reason);
[[nodiscard]] const char *hakit_stop_type_str(std::uint32_t reason);
[[nodiscard]] const char *hakit_syserr2str(std::uint32_t status);
[[nodiscard]] int hakit_get_rsw_sched_policy(std::uint32_t service);            // 1: real-time scheduling is wanted
[[nodiscard]] bool hakit_set_sched_policy_priority(std::uint32_t policy, std::uint32_t priority);
[[nodiscard]] bool hakit_is_chassis_ferrix();
[[nodiscard]] const char *hakit_get_name_from_uuid(std::uint32_t service);      // "unknown" when there is none
[[nodiscard]] bool hakit_should_yield();                                        // a long walk should yield now

using hakit_sdb = std::uint32_t;                                                // handle; 0 = none
struct hakit_ha_params {
    std::uint32_t reserved[8] = {};
    int (*switchover)() = nullptr;
    void (*switchover_done)() = nullptr;
};
[[nodiscard]] bool hakit_ha_register_pstore(std::uint32_t kind, const char *name);
[[nodiscard]] hakit_sdb hakit_ha_register_sdb(std::uint32_t kind, const char *name, std::uint32_t opcode1,
                                              std::uint32_t opcode2);
[[nodiscard]] bool hakit_ha_api_init(const hakit_ha_params &params);
void hakit_ha_api_close();
[[nodiscard]] int hakit_ha_dispatch(mbus_msg &msg);                             // 1, 0, or -1: not its message
int hakit_ha_recovery_done(std::uint32_t status);
void hakit_ha_disable_all();
void hakit_ha_enable_debug();
void hakit_ha_disable_debug();

// Shared database, written through the kit. Non-zero on success.
[[nodiscard]] int hakit_sdb_update(hakit_sdb handle, const void *key, std::size_t key_length, const void *value,
                                   std::size_t value_length, int create);
[[nodiscard]] int hakit_sdb_delete(hakit_sdb handle, const void *key, std::size_t key_length);
