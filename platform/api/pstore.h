// Persistent store: private records of a process that survive it and the machine's restart.
#pragma once

#include <cstddef>
#include <cstdint>

using pstore_handle = std::uint32_t;                    // 0 = none
[[nodiscard]] pstore_handle pstore_open(const char *name);
void pstore_close(pstore_handle handle);
[[nodiscard]] int pstore_write(pstore_handle handle, const void *key, std::size_t key_length, const void *value,
                               std::size_t value_length);                       // non-zero on success
// Length of the value, cut to `size` bytes in `value`; -1 when there is no such record.
[[nodiscard]] long pstore_read(pstore_handle handle, const void *key, std::size_t key_length, void *value,
                               std::size_t size);
[[nodiscard]] int pstore_delete(pstore_handle handle, const void *key, std::size_t key_length);
