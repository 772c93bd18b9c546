#include "peers.h"

#include "../runtime/shared_memory.h"

#include "../../wire/peers.h"

#include "drops.h"

#include <netinet/in.h>

namespace corvane {
namespace {

// Null until corvaned has made it.
const peers_page *known_peers()
{
    static std::atomic<const peers_page *> page{nullptr};
    const peers_page *known = page.load(std::memory_order_acquire);
    if (known == nullptr) {
        known = static_cast<const peers_page *>(map_shared(PEERS_SHM, sizeof(peers_page), false));
        page.store(known, std::memory_order_release);
    }
    return known;
}

peer_address address_of(const sockaddr_storage &from)
{
    if (from.ss_family == AF_INET) {
        sockaddr_in in{};
        std::memcpy(&in, &from, sizeof in);
        return peer_ipv4(ntohl(in.sin_addr.s_addr));
    }
    sockaddr_in6 in6{};
    std::memcpy(&in6, &from, sizeof in6);
    return peer_ipv6(in6.sin6_addr.s6_addr);
}

} // namespace

bool core_peer_admitted(const sockaddr_storage &from)
{
    if (platform_settings().core_peers_known_only.load(std::memory_order_relaxed) == 0)
        return true;
    const peers_page *known = known_peers();
    if (known != nullptr && peers_contain(*known, address_of(from)))
        return true;
    drop_count(drop_reason::CORE_UNKNOWN_PEER);
    return false;
}

} // namespace corvane
