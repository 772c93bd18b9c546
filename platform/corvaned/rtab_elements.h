// Updates as clients send them, read and applied to the table; and its records as text.
#pragma once

#include "rtab_table.h"

#include "../wire/bytes.h"

#include <functional>
#include <string>

namespace corvaned {

struct rtab_caller {
    std::uint32_t owner = 0;                                 // service number
    std::uint64_t now_ns = 0;
    std::function<bool(std::uint32_t iod)> interface_exists, interface_up;
};

// Applies `count` elements at a stride of 52 bytes; what lies in `elements` beyond them is not looked at. Returns how
// many were refused: of no known meaning, withdrawing what is not there, or without room. An element stands for
// itself: the others are applied all the same.
[[nodiscard]] std::uint32_t rtab_apply(rtab_table &table, const rtab_caller &caller, corvane::byte_view header,
                                       corvane::byte_view elements, std::uint32_t count);

// False: malformed key (VLAN above 4095).
[[nodiscard]] bool rtab_read_key(corvane::byte_view bytes, std::uint64_t &key);
[[nodiscard]] bool rtab_is_group(std::uint64_t key);         // group bit set and not the broadcast address
[[nodiscard]] bool rtab_is_nexthop(const rtab_addr &nexthop);      // a kind that a route can have

// Lines of the dump: VLAN/MAC OWNER iod N ... and VLAN/MAC OWNER ip IOD ADDRESS ..., one a next hop.
struct rtab_text {
    std::function<std::string(std::uint32_t)> owner_name;
    std::function<std::string(std::uint32_t)> interface_name;
    std::uint64_t now_ns = 0;
};
[[nodiscard]] std::string rtab_lines(const rtab_route &route, const rtab_text &text);
[[nodiscard]] std::string rtab_lines(const rtab_source_key &source, const oif_set &oifs, const rtab_text &text);

} // namespace corvaned
