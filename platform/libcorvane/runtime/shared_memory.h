// Files of shared memory, and the two pages that every process has: the drop counters and the platform's settings.
#pragma once

#include "../client.h"

#include "../../wire/platform.h"

namespace corvane {

void shared_memory_start();                             // before the connection's thread exists
void shared_memory_refresh();                           // maps files anew that were replaced or are there only now
[[nodiscard]] const platform_page &platform_settings(); // the defaults until corvaned has made the page

} // namespace corvane
