// The shared database under the HA kit.
#pragma once

#include "../wire/bytes.h"

#include "sdb.h"

namespace corvane {

// Makes the database if need be; changes of it are announced with `change_opcode`. 0 = failed.
[[nodiscard]] sdb_handle sdb_register(const char *name, std::uint32_t opcode, std::uint32_t change_opcode);
// Non-zero on success.
[[nodiscard]] int sdb_queue_write(sdb_handle handle, byte_view key, byte_view value);
[[nodiscard]] int sdb_queue_delete(sdb_handle handle, byte_view key);
void sdb_clear_own();                          // every record of the databases this process registered
// The opcode is one of those a database of this process was registered with.
[[nodiscard]] bool sdb_is_message_of(const mbus_msg &msg);

} // namespace corvane
