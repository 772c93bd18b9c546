#include "text.h"

#include <algorithm>

namespace corvsh {

namespace {

constexpr std::size_t SHOWN_MAX = 200;

} // namespace

std::size_t columns_of(std::string_view text)
{
    return static_cast<std::size_t>(
        std::ranges::count_if(text, [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

std::string harmless(std::string_view text)
{
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte < 0x20 && c != '\n' && c != '\t') || byte == 0x7F)
            out += {'^', static_cast<char>(byte ^ 0x40)};
        else
            out += c;
    }
    return out;
}

std::string mistake_text(std::string_view line, std::size_t indent, std::size_t at, std::size_t length,
                         const std::string &text)
{
    // A mark far out to the right of a long line points at nothing: then the text alone has to do.
    const bool marked = at <= line.size() && line.size() <= SHOWN_MAX;
    if (!marked)
        return text + "\n";
    const std::size_t column = indent + columns_of(line.substr(0, at));
    const std::size_t wide = std::max<std::size_t>(columns_of(line.substr(at, length)), 1);
    return std::string(column, ' ') + std::string(wide, '^') + "\n" + text + "\n";
}

std::string choices_text(const choices &what)
{
    std::size_t wide = 0;
    for (const auto &c : what.list)
        wide = std::max(wide, columns_of(c.word.empty() ? "<cr>" : c.word));
    std::string out;
    for (const auto &c : what.list) {
        const std::string word = c.word.empty() ? "<cr>" : c.word;
        out += "  " + word;
        if (!c.help.empty())
            out += std::string(wide - columns_of(word) + 2, ' ') + c.help;
        out += '\n';
    }
    return out;
}

std::string common_rest(const choices &what, std::string_view line)
{
    if (what.from > line.size())
        return "";
    const std::string_view typed = line.substr(what.from);
    std::string common;
    std::size_t insertable = 0;
    for (const auto &c : what.list) {
        if (!c.insertable)
            continue;
        if (insertable++ == 0) {
            common = c.word;
            continue;
        }
        const auto [a, b] = std::ranges::mismatch(common, c.word);
        common.erase(a, common.end());
    }
    const bool only = insertable == 1 && what.list.size() == 1;
    if (insertable == 0 || common.size() < typed.size())
        return "";
    return common.substr(typed.size()) + (only ? " " : "");
}

} // namespace corvsh
