// Shared database: records any process of the machine may read, in ascending byte order of their keys.
#pragma once

#include "mbus.h"

#include <cstddef>
#include <cstdint>
#include <memory>

using sdb_handle = std::uint32_t;                       // what hakit_ha_register_sdb returns; also sdb_open's
inline constexpr std::size_t SDB_KEY_MAX = 64, SDB_VALUE_MAX = 4096;
inline constexpr std::uint32_t SDB_MSG_HANDLED = 0x41270002;

// Opens a database by name for reading (a client that does not own it). 0 = no such database.
[[nodiscard]] sdb_handle sdb_open(const char *name);
void sdb_close(sdb_handle handle);

struct sdb_record {
    std::uint8_t key[SDB_KEY_MAX];
    std::size_t key_length;
    std::uint8_t value[SDB_VALUE_MAX];
    std::size_t value_length;
};

// Walk over the records whose keys begin with a prefix. It reads pages and survives changes made meanwhile.
struct sdb_iterator;
struct sdb_iterator_deleter { void operator()(sdb_iterator *iterator) const; };
using sdb_iterator_ptr = std::unique_ptr<sdb_iterator, sdb_iterator_deleter>;
[[nodiscard]] sdb_iterator_ptr sdb_iterator_create(sdb_handle handle, const void *prefix, std::size_t prefix_length);
[[nodiscard]] const sdb_record *sdb_iterator_next(sdb_iterator &iterator);      // null at the end; valid until the next

// Direct writes, bypassing the HA kit. Non-zero on success.
[[nodiscard]] int sdb_write(sdb_handle handle, const void *key, std::size_t key_length, const void *value,
                            std::size_t value_length);
[[nodiscard]] int sdb_delete(sdb_handle handle, const void *key, std::size_t key_length);
// Context of the last write: what subscribers of the change message need to find it (at most 100 bytes).
[[nodiscard]] int sdb_get_context_len(sdb_handle handle, std::size_t *length);
[[nodiscard]] int sdb_set_context(sdb_handle handle, void *context, std::size_t length);
[[nodiscard]] int sdb_write_done(sdb_handle handle);

// SDB_MSG_HANDLED when the message was one of the database client's, another value when it was not.
[[nodiscard]] std::uint32_t fsrv_sdb_process_msg(mbus_q queue, mbus_msg &msg);
