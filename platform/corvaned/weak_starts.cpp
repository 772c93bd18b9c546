// Services that are not linked start nothing.
#include "corvaned.h"

namespace corvaned {

#define CORVANED_WEAK __attribute__((weak))
CORVANED_WEAK void intfmgr_start() {}
CORVANED_WEAK void vlanmgr_start() {}
CORVANED_WEAK void vrfmgr_start() {}
CORVANED_WEAK void ipmgr_start() {}
CORVANED_WEAK void rtab_start() {}
CORVANED_WEAK void cmdsrv_start() {}
CORVANED_WEAK void serve_command(const char *, std::function<int(command &)>) {}
CORVANED_WEAK const std::string *command::get(const char *) const { return nullptr; }

} // namespace corvaned
