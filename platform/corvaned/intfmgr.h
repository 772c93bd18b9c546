// Interface manager, as the other services of this process use it. All on the loop's thread.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace corvaned {

struct interface_info {
    std::uint32_t iod = 0;
    std::string name;
    bool overlay = false, switchport = false, up = false;
};

// Every interface that exists now, by ascending iod.
[[nodiscard]] std::vector<interface_info> intfmgr_list();
// iod of the interface of that name that exists now, 0 = none.
[[nodiscard]] std::uint32_t intfmgr_find(const std::string &name);
[[nodiscard]] std::string intfmgr_name(std::uint32_t iod);               // "" when the iod names no interface now
[[nodiscard]] bool intfmgr_exists(std::uint32_t iod);
[[nodiscard]] bool intfmgr_up(std::uint32_t iod);

// An interface was made, or a device of that name came (back). Called after the table and the notifications are out.
void on_interface_created(std::function<void(const interface_info &)> hook);
// An interface went from down to up; also for one that is made up, behind its creation.
void on_interface_up(std::function<void(const interface_info &)> hook);
void on_interface_removed(std::function<void(const interface_info &)> hook);

} // namespace corvaned
