// Whether a tunnelled packet may be taken, by its source address. Any thread.
#pragma once

#include <sys/socket.h>

namespace corvane {

// True unless the platform is set to take packets of known edges only and this is none of them; then it is counted.
// `from` is a sockaddr_in or a sockaddr_in6.
[[nodiscard]] bool core_peer_admitted(const sockaddr_storage &from);

} // namespace corvane
