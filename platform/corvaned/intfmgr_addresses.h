// The addresses of one interface, and which of them stands for it: its first global one of each family.
#pragma once

#include "netlink.h"

#include <array>
#include <cstdint>
#include <vector>

namespace corvaned {

// What there is to tell about a change.
struct address_change {
    enum class kind { IPV4_ADDED, IPV4_REMOVED, IPV6_CHANGED } what = kind::IPV4_ADDED;
    std::uint32_t address = 0;                               // IPv4, host byte order
    bool secondary = false;                                  // another one stands for the interface
    std::uint32_t current = 0;                               // the one that stands for it now
    std::array<std::uint8_t, 16> old_ipv6{}, new_ipv6{};     // all zero: none
};

class interface_addresses {
public:
    // A change of one address, and of all: with the list the kernel gave.
    std::vector<address_change> put(const address_info &address);
    std::vector<address_change> remove(const address_info &address);
    std::vector<address_change> replace(const std::vector<address_info> &all);

    [[nodiscard]] std::uint32_t ipv4() const { return ipv4_; }
    [[nodiscard]] const std::array<std::uint8_t, 16> &ipv6() const { return ipv6_; }
    [[nodiscard]] const std::vector<address_info> &all() const { return all_; }

private:
    void choose_ipv4(std::vector<address_change> &changes);
    void choose_ipv6(std::vector<address_change> &changes);
    void note_removed(const address_info &address, std::vector<address_change> &changes);

    std::vector<address_info> all_;
    std::uint32_t ipv4_ = 0;
    std::array<std::uint8_t, 16> ipv6_{};
};

} // namespace corvaned
