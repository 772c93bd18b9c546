// The interface table as this process sees it.
#pragma once

#include "../wire/intfmgr.h"

namespace corvane {

// Null until corvaned has made the table. The address stays valid over restarts of corvaned.
[[nodiscard]] const interface_table *interfaces();

} // namespace corvane
