// VRF manager client: the L3 context of an interface stands in the interface table.
#include "vrfmgr.h"

#include "svcmgr.h"

#include "interfaces.h"
#include "service_retry.h"

using namespace corvane;

bool vrfmgr_api_init()
{
    if (interfaces() == nullptr)
        service_failed(SVC_VRFMGR);
    return interfaces() != nullptr;
}

std::uint32_t vrfmgr_if_get_context_id(std::uint32_t iod)
{
    const interface_table *table = interfaces();
    return table != nullptr && iod < INTERFACE_SLOTS ? table->slot[iod].context.load(std::memory_order_acquire) : 0;
}
