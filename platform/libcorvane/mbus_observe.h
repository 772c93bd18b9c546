// Lets a part of this library see messages of a range of opcodes as its process receives them.
#pragma once

#include "mbus.h"

namespace corvane {

// One observer a process; it is called on the receiving thread, before mbus_recv returns, and drops nothing.
void mbus_observe(std::uint32_t first_opcode, std::uint32_t last_opcode, void (*observer)(const mbus_msg &msg));

} // namespace corvane
