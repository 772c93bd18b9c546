// Parts of the packet service that the thread "corvane-net" runs.
#pragma once

namespace corvane {

// Several times a second: wakes the receiver when the interface table has changed.
void packet_ports_tick();

} // namespace corvane
