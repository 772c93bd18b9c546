// What the version command prints of this build.
#include "lum_ui.h"

#ifndef LUM_REVISION
#define LUM_REVISION "unknown"   // built outside a working copy
#endif

namespace
{

#if defined(__clang__)
constexpr char compiler[] = "clang " __VERSION__;
#else
constexpr char compiler[] = "g++ " __VERSION__;
#endif

} // namespace

const cli_version_block lum_version_block{LUM_VERSION, __DATE__, compiler, LUM_REVISION};
