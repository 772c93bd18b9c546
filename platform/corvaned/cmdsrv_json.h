// The output of a show command as JSON. A schema names how its text is laid out; it belongs to the command in the
// grammar, so that what prints the text stays as it is. A line that does not fit its schema goes to "other".
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace corvaned {

inline constexpr std::size_t JSON_INPUT_MAX = 32 * 1024 * 1024;

struct json_schema {
    const char *name;                            // in the grammar
    std::string (*read)(std::string_view text);  // always valid JSON
    const char *shape;                           // what comes out, as cmdsrv_json_schemas.def describes it
};
[[nodiscard]] std::span<const json_schema> json_schemas();
[[nodiscard]] const json_schema *find_json_schema(std::string_view name);

// The readers (cmdsrv_json_platform.cpp, cmdsrv_json_lum.cpp).
namespace json_reader {
#define JSON_SCHEMA(name, reader, shape) [[nodiscard]] std::string reader(std::string_view text);
#include "cmdsrv_json_schemas.def"
#undef JSON_SCHEMA
} // namespace json_reader

} // namespace corvaned
