// The output of a show command as JSON. A schema names how its text is laid out; it belongs to the command in the
// grammar, so that what prints the text stays as it is.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace corvaned {

inline constexpr std::size_t JSON_INPUT_MAX = 32 * 1024 * 1024;

[[nodiscard]] std::string to_json(const std::string &schema, std::string_view text);
[[nodiscard]] bool json_schema_exists(const std::string &schema);

} // namespace corvaned
