// The orderly stop; services use corvaned.h.
#pragma once

#include "corvaned.h"

namespace corvaned {

// Stops every process the service manager started, each in order, and calls `done` once they are gone.
void svcmgr_stop(std::function<void()> done);

} // namespace corvaned
