// Delivery to single queues and the roles of their processes, for the service manager; services use corvaned.h.
#pragma once

#include "corvaned.h"

#include "../wire/bus.h"

namespace corvaned {

// To one queue of one connection. Messages of the platform itself are not held up by a full queue.
bool bus_deliver(std::uint64_t connection, std::uint32_t queue, std::uint32_t source_sap, std::uint32_t opcode,
                 byte_view payload);

// As bus_notify, but not to those who asked for all opcodes.
void bus_announce(std::uint32_t source_sap, std::uint32_t opcode, byte_view payload);

// A standing-by process binds beside the active one: its queues have no SAP and get no notifications until
// bus_promote. The test is asked at each bind.
void bus_standby_test(std::function<bool(const peer &)> is_standby);
void bus_promote(std::uint64_t connection);

} // namespace corvaned
