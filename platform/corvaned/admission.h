// Who may connect to the sockets of this process: by the kernel's word on user and groups of the one at the other end.
#pragma once

#include <string>
#include <sys/types.h>

namespace corvaned {

enum class access_level { NONE, VIEW, FULL };

// Root, the user of this process and members of the group `corvane` may do everything, members of `corvane-view` may
// look; supplementary groups count. `fd` is the connection, `gid` the primary group.
[[nodiscard]] access_level access_of(int fd, uid_t uid, gid_t gid);

// A socket that others cannot open is made one of the group `corvane`, which is admitted there.
void give_to_group(const std::string &path);

} // namespace corvaned
