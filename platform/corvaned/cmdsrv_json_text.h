// Pieces that JSON is written from, and that printed tables are taken apart with.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvaned {

// A JSON string. Bytes that are not UTF-8 become U+FFFD each, so that the result is valid whatever a device is called.
[[nodiscard]] std::string json_text(std::string_view text);
[[nodiscard]] bool is_number(std::string_view text);     // an integer that JSON can hold as it is written

// An object while it is written.
class json_object {
public:
    json_object &text(std::string_view name, std::string_view value) { return raw(name, json_text(value)); }
    json_object &text_or_null(std::string_view name, std::string_view value)
    {
        return raw(name, value.empty() ? "null" : json_text(value));
    }
    json_object &number(std::string_view name, std::string_view value)
    {
        return raw(name, is_number(value) ? std::string(value) : "null");
    }
    json_object &flag(std::string_view name, bool value) { return raw(name, value ? "true" : "false"); }
    json_object &raw(std::string_view name, const std::string &value);
    [[nodiscard]] std::string done() const { return "{" + body_ + "}"; }

private:
    std::string body_;
};

// A row that is begun by one line and goes on in others; null: none is open.
inline json_object &begin(std::unique_ptr<json_object> &row)
{
    row = std::make_unique<json_object>();
    return *row;
}

class json_list {
public:
    void add(const std::string &value);
    void add_text(std::string_view value) { add(json_text(value)); }
    [[nodiscard]] bool empty() const { return body_.empty(); }
    [[nodiscard]] std::string done() const { return "[" + body_ + "]"; }

private:
    std::string body_;
};

// The whole result: the list under its name, and the lines that were not understood, if there are any.
[[nodiscard]] std::string json_result(std::string_view name, const json_list &list, const json_list &other);

[[nodiscard]] std::string_view trimmed(std::string_view text);
[[nodiscard]] std::vector<std::string_view> words_of(std::string_view text);
// What stands behind `start`, nothing when the line does not begin with it.
[[nodiscard]] std::optional<std::string_view> behind(std::string_view line, std::string_view start);
// Columns `at` to `at + width` of a line, without the blanks around: "" where the line is shorter.
[[nodiscard]] std::string_view cell(std::string_view line, std::size_t at, std::size_t width = std::string_view::npos);

template <class Visit> void each_line(std::string_view text, Visit visit)
{
    while (!text.empty()) {
        const auto end = std::min(text.find('\n'), text.size());
        visit(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

} // namespace corvaned
