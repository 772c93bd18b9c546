// Interface manager, as the other services of this process use it. All on the loop's thread.
#pragma once

#include "../wire/bytes.h"

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace corvaned {

struct address_change;                                       // intfmgr_addresses.h

struct interface_info {
    std::uint32_t iod = 0;
    std::string name;
    bool overlay = false, switchport = false, up = false;
    std::uint32_t ifindex = 0;                               // 0 for an overlay interface
    std::uint32_t ipv4 = 0;                                  // host byte order, 0 = none
    std::array<std::uint8_t, 16> ipv6{};
};

// Every interface that exists now, by ascending iod.
[[nodiscard]] std::vector<interface_info> intfmgr_list();
// iod of the interface of that name that exists now, 0 = none.
[[nodiscard]] std::uint32_t intfmgr_find(const std::string &name);
[[nodiscard]] std::string intfmgr_name(std::uint32_t iod);               // "" when the iod names no interface now
[[nodiscard]] bool intfmgr_exists(std::uint32_t iod);
[[nodiscard]] bool intfmgr_up(std::uint32_t iod);
[[nodiscard]] interface_info intfmgr_get(std::uint32_t iod);             // all zero when it names no interface now

// An interface was made, or a device of that name came (back). Called after the table and the notifications are out.
void on_interface_created(std::function<void(const interface_info &)> hook);
// An interface went from down to up; also for one that is made up, behind its creation.
void on_interface_up(std::function<void(const interface_info &)> hook);
void on_interface_removed(std::function<void(const interface_info &)> hook);
// Any of these, and an interface that went down.
void on_interface_state(std::function<void(const interface_info &)> hook);
void on_interface_address(std::function<void(const interface_info &, const address_change &)> hook);

// A notification from the interface manager's SAP.
void intfmgr_announce(std::uint32_t opcode, corvane::byte_view payload);

// Some device answers to eth<last character of the name> from now on: the interface itself, where it is a device and
// none does yet. False: it could not be brought about.
bool intfmgr_ensure_altname(const std::string &name);

// Every service has started and the configuration is read: the interface table is what this process knows now.
void intfmgr_started();

} // namespace corvaned
