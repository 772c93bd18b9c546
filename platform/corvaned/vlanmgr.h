// VLAN manager, as the interface manager uses it.
#pragma once

#include <string>

namespace corvaned {

// The port stops being a switchport. True when its VLANs were announced as gone, so that clients have something to
// read about a switchport.
bool vlanmgr_clear(const std::string &name);
[[nodiscard]] std::string vlanmgr_mode_text(const std::string &name);    // "access 10", "trunk 10,20-30", ""

} // namespace corvaned
