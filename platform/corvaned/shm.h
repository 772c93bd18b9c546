// The platform's settings page.
#pragma once

#include "corvaned.h"

#include "../wire/platform.h"

namespace corvaned {

[[nodiscard]] corvane::platform_page &platform();

} // namespace corvaned
