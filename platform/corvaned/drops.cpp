// Drop counters of all processes on this root: one page of shared memory, and `show drops`.
#include "corvaned.h"

#include "../wire/platform.h"

#include "drops.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace corvaned {
namespace {

int show_drops(command &cmd)
{
    int width = 0;
    for (std::size_t i = 0; i < static_cast<std::size_t>(drop_reason::COUNT); ++i)
        width = std::max(width, static_cast<int>(std::strlen(drop_reason_str(static_cast<drop_reason>(i)))));
    for (std::size_t i = 0; i < static_cast<std::size_t>(drop_reason::COUNT); ++i) {
        const auto count = drop_counters->count[i].load(std::memory_order_relaxed);
        if (count == 0)
            continue;
        char line[160];
        std::snprintf(line, sizeof line, "%-*s  %llu\n", width, drop_reason_str(static_cast<drop_reason>(i)),
                      static_cast<unsigned long long>(count));
        cmd.print(line);
    }
    return 0;
}

} // namespace

void drops_start()
{
    if (auto *page = static_cast<drop_counter_page *>(make_shared(corvane::DROPS_SHM, sizeof(drop_counter_page)));
        page != nullptr)
        drop_counters = page;
    (void)make_shared(corvane::LOCKS_SHM, sizeof(corvane::lock_page));
    serve_command("show_drops", show_drops);
}

} // namespace corvaned
