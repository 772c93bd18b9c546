// Parts of the packet service that the thread "corvane-net" runs.
#pragma once

namespace corvane {

// Several times a second: wakes the receiver when ports or the tunnel may have come or gone.
void packet_ports_tick();

} // namespace corvane
