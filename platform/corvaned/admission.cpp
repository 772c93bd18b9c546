#include "admission.h"

#include "corvaned.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <grp.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace corvaned {

namespace {

constexpr const char *FULL_GROUP = "corvane", *VIEW_GROUP = "corvane-view";

std::vector<gid_t> groups_of(int fd, gid_t primary)
{
    std::vector<gid_t> groups(64);
    socklen_t size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    int result = getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size);
    if (result != 0 && errno == ERANGE) {                    // `size` says how much room there has to be
        groups.resize(size / sizeof(gid_t));
        result = getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size);
    }
    groups.resize(result == 0 ? size / sizeof(gid_t) : 0);
    groups.push_back(primary);
    return groups;
}

bool member_of(const std::vector<gid_t> &groups, const char *name)
{
    const group *entry = getgrnam(name);
    return entry != nullptr && std::ranges::find(groups, entry->gr_gid) != groups.end();
}

} // namespace

access_level access_of(int fd, uid_t uid, gid_t gid)
{
    if (uid == 0 || uid == geteuid())
        return access_level::FULL;
    const auto groups = groups_of(fd, gid);
    return member_of(groups, FULL_GROUP)   ? access_level::FULL
           : member_of(groups, VIEW_GROUP) ? access_level::VIEW
                                           : access_level::NONE;
}

void give_to_group(const std::string &path)
{
    if (const group *entry = getgrnam(FULL_GROUP);
        entry != nullptr && chown(path.c_str(), static_cast<uid_t>(-1), entry->gr_gid) != 0)
        log_line(4, "cannot give " + path + " to the group corvane: " + std::strerror(errno));
}

} // namespace corvaned
