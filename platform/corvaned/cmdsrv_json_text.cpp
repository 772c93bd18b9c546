#include "cmdsrv_json_text.h"

#include <array>
#include <cstdint>
#include <cstdio>

namespace corvaned {

namespace {

// How many bytes the UTF-8 character at the front takes, 0 when there is none: overlong forms, surrogates and what is
// beyond Unicode are none.
std::size_t character_size(std::string_view text)
{
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned lead = byte(0);
    if (lead < 0x80)
        return 1;
    const std::size_t size = lead < 0xC2 || lead > 0xF4 ? 0 : lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (size == 0 || text.size() < size)
        return 0;
    for (std::size_t i = 1; i < size; ++i)
        if ((byte(i) & 0xC0) != 0x80)
            return 0;
    const unsigned second = byte(1);
    const bool refused = (lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F) ||
                         (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second > 0x8F);
    return refused ? 0 : size;
}

void add_ascii(std::string &out, char c)
{
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7F) {
        if (c == '"' || c == '\\')
            out += '\\';
        out += c;
        return;
    }
    std::array<char, 8> escaped{};
    std::snprintf(escaped.data(), escaped.size(), "\\u%04x", byte);
    out += escaped.data();
}

} // namespace

std::string json_text(std::string_view text)
{
    constexpr std::string_view REPLACEMENT = "\xEF\xBF\xBD";
    std::string out = "\"";
    while (!text.empty()) {
        const std::size_t size = character_size(text);
        if (size == 1)
            add_ascii(out, text.front());
        else
            out += size == 0 ? REPLACEMENT : text.substr(0, size);
        text.remove_prefix(std::max<std::size_t>(size, 1));
    }
    return out + '"';
}

bool is_number(std::string_view text)
{
    constexpr std::size_t DIGITS_MAX = 18;
    if (text.starts_with('-'))
        text.remove_prefix(1);
    return !text.empty() && text.size() <= DIGITS_MAX && (text.size() == 1 || text.front() != '0') &&
           std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; });
}

json_object &json_object::raw(std::string_view name, const std::string &value)
{
    body_ += (body_.empty() ? "" : ", ") + json_text(name) + ": " + value;
    return *this;
}

void json_list::add(const std::string &value)
{
    if (!body_.empty())
        body_ += ", ";
    body_ += value;
}

std::string json_result(std::string_view name, const json_list &list, const json_list &other)
{
    json_object all;
    all.raw(name, list.done());
    if (!other.empty())
        all.raw("other", other.done());
    return all.done();
}

std::string_view trimmed(std::string_view text)
{
    const auto first = text.find_first_not_of(' ');
    return first == std::string_view::npos ? std::string_view()
                                           : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

std::vector<std::string_view> words_of(std::string_view text)
{
    std::vector<std::string_view> words;
    for (std::size_t at = text.find_first_not_of(' '); at != std::string_view::npos;) {
        const auto end = std::min(text.find(' ', at), text.size());
        words.push_back(text.substr(at, end - at));
        at = text.find_first_not_of(' ', end);
    }
    return words;
}

std::optional<std::string_view> behind(std::string_view line, std::string_view start)
{
    if (!line.starts_with(start))
        return std::nullopt;
    return line.substr(start.size());
}

std::string_view cell(std::string_view line, std::size_t at, std::size_t width)
{
    return at < line.size() ? trimmed(line.substr(at, width)) : std::string_view();
}

} // namespace corvaned
