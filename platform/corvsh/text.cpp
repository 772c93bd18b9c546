#include "text.h"

#include <algorithm>
#include <sys/ioctl.h>
#include <unistd.h>

namespace corvsh {

namespace {

constexpr std::size_t SHOWN_MAX = 200;

std::string wrapped(std::string_view text, std::size_t columns)
{
    std::string out;
    while (columns_of(text) > columns) {
        const auto blank = text.rfind(' ', columns);
        if (blank == std::string_view::npos || blank == 0)
            break;
        out += std::string(text.substr(0, blank)) + '\n';
        text.remove_prefix(blank + 1);
    }
    return out + std::string(text) + '\n';
}

std::string cut_short(const std::string &text, std::size_t columns)
{
    constexpr std::string_view MORE = " ...";
    if (columns_of(text) <= columns)
        return text;
    const auto blank = columns > MORE.size() ? text.rfind(' ', columns - MORE.size()) : std::string::npos;
    return blank == std::string::npos ? "" : text.substr(0, blank) + std::string(MORE);
}

} // namespace

std::size_t terminal_columns()
{
    constexpr std::size_t USUAL = 80;
    winsize size{};
    const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? size.ws_col : USUAL;
}

std::size_t columns_of(std::string_view text)
{
    return static_cast<std::size_t>(
        std::ranges::count_if(text, [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

std::string harmless(std::string_view text)
{
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
        if ((byte < 0x20 && byte != '\n' && byte != '\t') || byte == 0x7F) {
            out += {'^', static_cast<char>(byte ^ 0x40)};
        } else if (byte == 0xC2 && next >= 0x80 && next < 0xA0) {
            // The second set of control characters, U+0080 to U+009F: some begin a sequence by themselves.
            out += {'^', '[', static_cast<char>(next ^ 0xC0)};
            ++i;
        } else {
            out += text[i];
        }
    }
    return out;
}

std::string mistake_text(std::string_view line, std::size_t indent, std::size_t at, std::size_t length,
                         const std::string &text, std::size_t columns)
{
    // A mark far out to the right of a long line points at nothing: then the text alone has to do.
    const bool marked = at <= line.size() && line.size() <= SHOWN_MAX;
    const std::size_t column = marked ? indent + columns_of(line.substr(0, at)) : 0;
    if (!marked || column >= columns)
        return wrapped(text, columns);
    const std::size_t wide = std::max<std::size_t>(columns_of(line.substr(at, length)), 1);
    return std::string(column, ' ') + std::string(std::min(wide, columns - column), '^') + "\n" + wrapped(text, columns);
}

std::string choices_text(const choices &what, std::size_t columns)
{
    std::size_t wide = 0;
    for (const auto &c : what.list)
        wide = std::max(wide, columns_of(c.word.empty() ? "<cr>" : c.word));
    std::string out;
    for (const auto &c : what.list) {
        const std::string word = c.word.empty() ? "<cr>" : c.word;
        out += "  " + word;
        if (!c.help.empty())
            out += std::string(wide - columns_of(word) + 2, ' ') + cut_short(c.help, columns - std::min(columns, wide + 4));
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
