#include "cmdsrv_json.h"

#include <cstdio>

namespace corvaned {

namespace {

std::string json_text(std::string_view text)
{
    std::string out = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (byte < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", byte);
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + '"';
}

std::string lines_of(std::string_view text)
{
    std::string out;
    while (!text.empty()) {
        const auto end = std::min(text.find('\n'), text.size());
        out += (out.empty() ? "" : ", ") + json_text(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return "{\"lines\": [" + out + "]}";
}

} // namespace

bool json_schema_exists(const std::string &schema) { return !schema.empty(); }

std::string to_json(const std::string &, std::string_view text) { return lines_of(text); }

} // namespace corvaned
