// Small clients that corvaned starts beside the daemon and starts again when they end.
#pragma once

namespace corvaned {

void attendants_start();     // those whose program stands beside corvaned

} // namespace corvaned
