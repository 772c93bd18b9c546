// The loop itself, for main() and tests; services use corvaned.h.
#pragma once

#include "corvaned.h"

namespace corvaned {

void loop_run();                                     // until stop()
void loop_turn(int max_wait_ms);                     // one wait and what it brought; -1: as long as it takes
void at_turn_end(std::function<void()> run);         // after the events and timers of every turn

} // namespace corvaned
