#include "cmdsrv_json.h"

#include <algorithm>
#include <array>

namespace corvaned {

namespace {

constexpr auto SCHEMAS = std::to_array<json_schema>({
#define JSON_SCHEMA(name, reader, shape) {name, json_reader::reader, shape},
#include "cmdsrv_json_schemas.def"
#undef JSON_SCHEMA
});
static_assert(std::ranges::is_sorted(SCHEMAS, {}, [](const json_schema &s) { return std::string_view(s.name); }));

} // namespace

std::span<const json_schema> json_schemas() { return SCHEMAS; }

const json_schema *find_json_schema(std::string_view name)
{
    const auto *found = std::ranges::find_if(SCHEMAS, [&](const auto &s) { return s.name == name; });
    return found == SCHEMAS.end() ? nullptr : found;
}

} // namespace corvaned
