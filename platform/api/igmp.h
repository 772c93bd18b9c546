// IGMP service client.
#pragma once

[[nodiscard]] bool igmp_api_init();
