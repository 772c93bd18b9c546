// What the services' client parts in this library build on: one control connection a process, calls to corvaned,
// files of shared memory. Nothing here is part of the client interface in platform/api.
#pragma once

#include "../wire/bytes.h"

#include <cstdint>
#include <string>
#include <vector>

namespace corvane {

[[nodiscard]] const std::string &root();                     // CORVANE_ROOT, /run/corvane unless set

struct reply {
    int error = 0;                                           // 0, or an errno value; ENOTCONN: corvaned is not there
    std::vector<std::uint8_t> data;
};
// Calls a method of corvaned and waits for the answer (bounded: ETIMEDOUT). Any thread; calls are serialised. The
// process lock is not touched: callers on the command or main thread hold it for the short time of a call.
[[nodiscard]] reply call(std::uint32_t method, byte_view request);

// Maps <root>/shm/<name>, which corvaned makes with exactly `size` bytes. Null when it is not there yet. A file that
// corvaned replaced (it restarted) is mapped anew by shared_memory_refresh, called after each reconnect.
[[nodiscard]] void *map_shared(const char *name, std::size_t size, bool writable);

// Called on the library's connection thread after the connection to corvaned came (back) up. The control connection
// reconnects by itself: queues are bound and subscribed again before the hooks run.
void on_connected(void (*hook)());

} // namespace corvane
