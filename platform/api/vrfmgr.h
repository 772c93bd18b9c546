// VRF manager client.
#pragma once

#include <cstdint>

[[nodiscard]] bool vrfmgr_api_init();
[[nodiscard]] std::uint32_t vrfmgr_if_get_context_id(std::uint32_t iod);
