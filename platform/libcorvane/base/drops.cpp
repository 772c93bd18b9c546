// Drop counters: their texts, and the page they live on until shared memory is mapped.
#include "drops.h"

#include <array>

namespace {

constexpr auto texts = std::to_array<const char *>({
#define DROP_TEXT(name, text) text,
    DROP_REASONS(DROP_TEXT)
#undef DROP_TEXT
});
static_assert(texts.size() == static_cast<std::size_t>(drop_reason::COUNT));

drop_counter_page own_page;

} // namespace

drop_counter_page *drop_counters = &own_page;

const char *drop_reason_str(drop_reason reason)
{
    const auto index = static_cast<std::size_t>(reason);
    return index < texts.size() ? texts[index] : "unknown";
}
