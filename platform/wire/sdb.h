// Methods of the shared database and of the persistent store: databases and stores are known by name.
#pragma once

#include "methods.h"

#include <cstddef>

namespace corvane {

inline constexpr std::uint32_t
    SDB_REGISTER = method(METHOD_SDB, 1),   // text name, u32 opcode, u32 change opcode: makes it
    SDB_OPEN = method(METHOD_SDB, 2),       // text name -> nothing; ENOENT
    SDB_WRITE = method(METHOD_SDB, 3),      // one way: u64 sequence, text name, blob key, blob value
    SDB_DELETE = method(METHOD_SDB, 4),     // one way: u64 sequence, text name, blob key
    SDB_PAGE = method(METHOD_SDB, 5),       // text name, blob prefix, blob after, u32 limit -> u32 count, {blob, blob}
    SDB_SYNC = method(METHOD_SDB, 6),       // -: everything written before is kept when this is answered
    SDB_CLEAR = method(METHOD_SDB, 7),      // text name: every record goes
    PSTORE_OPEN = method(METHOD_PSTORE, 1),     // text name
    PSTORE_WRITE = method(METHOD_PSTORE, 2),    // text name, blob key, blob value
    PSTORE_READ = method(METHOD_PSTORE, 3),     // text name, blob key -> blob value; ENOENT
    PSTORE_DELETE = method(METHOD_PSTORE, 4);   // text name, blob key; ENOENT

// FRAME_EVENT: u64 sequence: writes up to it are kept; a client sends the later ones again after a reconnect.
inline constexpr std::uint32_t EVENT_SDB_COMMITTED = 1,
                               EVENT_SDB_RESEND = 2;          // -: a write was refused: everything unacknowledged again
// Message to the owner of a database whose write was refused: text name.
inline constexpr std::uint32_t SDB_OPC_REFUSED = 0x9EA;

inline constexpr std::size_t STORE_NAME_MAX = 64, STORE_KEY_MAX = 1024, STORE_VALUE_MAX = 128 * 1024, SDB_PAGE_MAX = 64;

// Context of a change, 100 bytes: what subscribers of a database's change opcode receive.
inline constexpr std::size_t SDB_CONTEXT_SIZE = 100, SDB_CONTEXT_NAME = 0, SDB_CONTEXT_NAME_SIZE = 28,
                             SDB_CONTEXT_OPERATION = 28, SDB_CONTEXT_KEY_LENGTH = 32, SDB_CONTEXT_KEY = 36;
inline constexpr std::uint32_t SDB_OPERATION_WRITE = 1, SDB_OPERATION_DELETE = 2;

} // namespace corvane
