// Which edges tunnelled packets may come from: `lum core-peers known-only`.
#pragma once

namespace corvaned {

// Before the startup configuration is read, which may set it.
void peers_start();

} // namespace corvaned
