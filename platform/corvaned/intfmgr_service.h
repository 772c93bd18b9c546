// The parts of the interface manager's service, for its files.
#pragma once

#include "corvaned.h"
#include "intfmgr.h"
#include "intfmgr_port.h"
#include "intfmgr_state.h"

#include <map>
#include <memory>
#include <set>
#include <string>

namespace corvaned {

struct interface_config {                                    // what the configuration says of a device
    bool switchport = false, shut = false;
    bool confirmed = false;                                  // said by this run's configuration, not only on record
};

struct interface_service {
    netlink_client netlink;
    kv_store store{"intfmgr"};
    std::unique_ptr<interface_manager> manager;
    std::unique_ptr<switchport_keeper> keeper;
    std::map<std::string, interface_config> config;
    std::set<std::string> altnames;                          // overlay interfaces that have one
};
[[nodiscard]] interface_service &intfmgr();

void intfmgr_commands_start();
// 0, or an errno value.
[[nodiscard]] int intfmgr_take_switchport(const interface_state &device);
void intfmgr_drop_switchport(const std::string &name);

} // namespace corvaned
