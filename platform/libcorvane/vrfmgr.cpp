// VRF manager client: the L3 context of an interface stands in the interface table.
#include "vrfmgr.h"

#include "interfaces.h"

using namespace corvane;

bool vrfmgr_api_init() { return interfaces() != nullptr; }

std::uint32_t vrfmgr_if_get_context_id(std::uint32_t iod)
{
    const interface_table *table = interfaces();
    return table != nullptr && iod < INTERFACE_SLOTS ? table->slot[iod].context.load(std::memory_order_acquire) : 0;
}
