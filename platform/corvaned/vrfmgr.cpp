// VRF manager: the L3 context of an interface is the table of the VRF device it belongs to; the interface manager keeps
// it in the interface table, where clients read it.
#include "corvaned.h"

#include "../api/svcmgr.h"

namespace corvaned {

void vrfmgr_start() { service_hosted(SVC_VRFMGR, "vrfmgr"); }

} // namespace corvaned
