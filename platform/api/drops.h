// Drop counters: one per reason, in shared memory, printed by `show drops`. Counting is one relaxed increment.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

// reason, text as `show drops` prints it. Appended to, never reordered.
#define DROP_REASONS(X) \
    X(L2_NOT_SERVED, "frame on an interface that is not served") \
    X(L2_LINK_LOCAL, "link-local by its standard") \
    X(L2_TRUNCATED, "site frame shorter than its headers") \
    X(L2_OVERSIZED, "frame longer than the scratch buffer") \
    X(L2_NO_PORT, "output port without port record") \
    X(L2_SEND_FAILED, "site port refused the frame") \
    X(L2_RING_FULL, "receive ring full") \
    X(L2_NOT_AUTHORITATIVE, "VLAN's authoritative edge is another device") \
    X(L2_BAD_OFFLOAD, "offload metadata that cannot be finished") \
    X(FWD_NO_VLAN_OVERLAY, "core frame: VLAN without overlay") \
    X(FWD_NO_ROUTE, "unknown unicast: no route") \
    X(FWD_NO_MROUTE, "multicast: no route") \
    X(FWD_BAD_NEXT_HOP, "next hop of an unknown kind") \
    X(FWD_NO_OVERLAY, "route to an overlay that does not exist") \
    X(FWD_FILTERED, "filtered before the core") \
    X(FWD_ANYCAST, "request for an anycast address") \
    X(ENCAP_NO_SOURCE, "overlay without external address") \
    X(ENCAP_NO_MEMORY, "no memory for a packet") \
    X(DECAP_SHORT, "core packet shorter than its headers") \
    X(CORE_SEND_FAILED, "core refused the packet") \
    X(CORE_NO_ROUTE, "no route to the remote edge") \
    X(CORE_NO_NEIGHBOUR, "core next hop does not resolve") \
    X(CORE_TOO_BIG, "packet too big for the core") \
    X(CORE_UNKNOWN_PEER, "core packet from an unknown peer") \
    X(GRE_NO_TAG, "GRE overlay: frame without tag") \
    X(GRE_BAD_HEADER, "GRE header that is not ours") \
    X(LEARN_BUFFER_FULL, "learning: buffer full") \
    X(LEARN_REFUSED, "learning: route table refused") \
    X(CACHE_REFUSED, "ARP/ND cache: entry refused") \
    X(BUS_QUEUE_FULL, "bus: queue full") \
    X(BUS_MALFORMED, "bus: malformed message") \
    X(BUS_UNKNOWN_OPCODE, "bus: unknown opcode") \
    X(FWD_SPLIT_HORIZON, "route back to where the frame came from") \
    X(FWD_NO_COPY, "group frame: nowhere to go") \
    X(CORE_QUEUE_FULL, "core receive buffer full")

enum class drop_reason : std::uint32_t {
#define DROP_ENUM(name, text) name,
    DROP_REASONS(DROP_ENUM)
#undef DROP_ENUM
    COUNT
};

const char *drop_reason_str(drop_reason reason);

struct drop_counter_page {
    std::atomic<std::uint64_t> count[static_cast<std::size_t>(drop_reason::COUNT)];
};
extern drop_counter_page *drop_counters;         // never null: private to the process until shared memory is mapped

inline void drop_count(drop_reason reason, std::uint64_t by = 1)
{
    drop_counters->count[static_cast<std::size_t>(reason)].fetch_add(by, std::memory_order_relaxed);
}
