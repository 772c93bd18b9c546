// Feature manager: answers to its enable and disable requests.
#pragma once

#include "mbus.h"

void featmgr_rsp_feature_req(mbus_q queue, const mbus_msg &request, std::uint32_t status);
void featmgr_notify_feature_status(mbus_q queue, std::uint32_t feature, std::uint32_t enabled, std::uint32_t status);
