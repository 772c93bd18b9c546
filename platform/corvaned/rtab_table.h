// The route table's writer: routes of several owners side by side, an operator's before a learnt one, and multicast
// routes folded to one set of interfaces a key. One thread; readers in any process need no help (wire/rtab.h).
#pragma once

#include "rtab_hash.h"

#include <array>
#include <bitset>
#include <map>
#include <vector>

namespace corvaned {

using oif_set = std::bitset<corvane::RTAB_OIF_BITS>;

struct rtab_source_key {
    std::uint64_t key = 0;                                   // rtab_key of VLAN and group's MAC
    std::uint32_t owner = 0, source = 0, group = 0;          // source and group 0: a route of the MAC itself
    auto operator<=>(const rtab_source_key &) const = default;
};

class rtab_table {
public:
    using boot_id = std::array<std::uint64_t, 2>;
    enum class result { DONE, REFUSED, FULL };               // REFUSED: nothing of the kind is there, or cannot be

    explicit rtab_table(corvane::rtab_shared &shared);

    // Takes over what the memory holds from a writer that died, or begins empty: a new file, another boot (data times
    // would mean nothing), a writer that ended in order. `seed` is used for a new table.
    void adopt(const boot_id &boot, std::uint64_t seed, std::uint64_t now_ns);
    void end();                                              // orderly end: the next writer begins empty

    // Unicast (and broadcast) routes. A learnt route has one next hop an owner.
    result learn(std::uint32_t owner, std::uint64_t key, const rtab_addr &nexthop, std::uint64_t now_ns);
    result withdraw_learnt(std::uint32_t owner, std::uint64_t key);
    result join(std::uint32_t owner, std::uint64_t key, const rtab_addr &nexthop);       // adds to the operator's
    result leave(std::uint32_t owner, std::uint64_t key, const rtab_addr &nexthop);
    result replace(std::uint32_t owner, std::uint64_t key, std::span<const rtab_addr> nexthops);
    result withdraw(std::uint32_t owner, std::uint64_t key);                             // all of the operator's

    [[nodiscard]] std::vector<rtab_addr> operator_nexthops(std::uint32_t owner, std::uint64_t key);

    // Multicast routes; source and group 0 for a route of the MAC itself.
    result join_group(const rtab_source_key &source, std::uint32_t iod);
    result leave_group(const rtab_source_key &source, std::uint32_t iod);
    result withdraw_group(const rtab_source_key &source);

    void forget_iod(std::uint32_t iod);                      // drops every next hop by that interface

    [[nodiscard]] std::uint32_t route_count() const { return routes_.live(); }
    [[nodiscard]] const std::map<rtab_source_key, oif_set> &sources() const { return oifs_; }
    [[nodiscard]] const corvane::rtab_shared &shared() const { return shared_; }

private:
    using routes_writer = rtab_hash_writer<corvane::rtab_routes>;
    using mcasts_writer = rtab_hash_writer<corvane::rtab_mcasts>;

    [[nodiscard]] bool usable(const boot_id &boot) const;
    void clear(const boot_id &boot, std::uint64_t seed);
    void adopt_routes(std::uint64_t now_ns);
    void adopt_sources();

    [[nodiscard]] routes_writer::place find(std::uint32_t owner, std::uint64_t key, bool is_static);
    [[nodiscard]] std::uint32_t learnt_place(std::uint64_t key);
    result put_static(std::uint32_t owner, std::uint64_t key, std::span<const rtab_addr> nexthops);
    void forget_in_routes(std::uint32_t iod);
    void forget_in_groups(std::uint32_t iod);

    result store_source(const rtab_source_key &source, const oif_set &oifs);
    result fold(std::uint64_t key);

    corvane::rtab_shared &shared_;
    routes_writer routes_;
    mcasts_writer mcasts_;
    std::map<rtab_source_key, oif_set> oifs_;
    std::map<rtab_source_key, std::uint32_t> source_slot_;
    std::vector<std::uint32_t> free_sources_;
};

} // namespace corvaned
