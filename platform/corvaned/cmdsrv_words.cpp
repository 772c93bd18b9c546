// Words of a line, and the check of single values.
#include "cmdsrv_parser.h"

#include "../libcorvane/base/cli_value.h"

#include <algorithm>

namespace corvaned {

namespace {

constexpr std::size_t INTERFACE_NAME_MAX = 100, PATH_MAX_BYTES = 1024, OVERLAY_DIGITS_MAX = 4;
constexpr std::string_view OVERLAY_PREFIX = "Overlay";

bool control(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    return (byte < 0x20 && c != '\t') || byte == 0x7F;
}

// Length of the UTF-8 sequence that begins here, 0 = none does.
std::size_t utf8_length(std::string_view text, std::size_t at)
{
    const auto lead = static_cast<unsigned char>(text[at]);
    const std::size_t length = lead < 0x80 ? 1 : lead >= 0xC2 && lead < 0xE0 ? 2 : lead >= 0xE0 && lead < 0xF0 ? 3
                               : lead >= 0xF0 && lead < 0xF5 ? 4 : 0;
    if (length == 0 || at + length > text.size())
        return 0;
    for (std::size_t i = 1; i < length; ++i)
        if ((static_cast<unsigned char>(text[at + i]) & 0xC0) != 0x80)
            return 0;
    return length;
}

line_error bad_byte(std::string_view line)
{
    for (std::size_t at = 0; at < line.size();) {
        if (control(line[at]))
            return {at, 1, "control character"};
        const std::size_t length = utf8_length(line, at);
        if (length == 0)
            return {at, 1, "not a UTF-8 text"};
        at += length;
    }
    return {};
}

bool blank(char c) { return c == ' ' || c == '\t'; }

// A quoted text: `\` takes the next character as it is. False: it is not closed.
bool take_quoted(std::string_view line, std::size_t &at, token &word)
{
    word.quoted = true;
    for (++at; at < line.size(); ++at) {
        if (line[at] == '"') {
            ++at;
            return true;
        }
        if (line[at] == '\\' && at + 1 < line.size())
            ++at;
        word.text += line[at];
    }
    return false;
}

std::string value_of(value_type type, std::string what)
{
    return "expected " + std::string(value_type_of(type).what) + ", as " + value_type_of(type).example +
           (what.empty() ? "" : "; " + what);
}

// The name of an overlay interface in its one spelling; "" when the text is none.
std::string overlay_name(const std::string &text)
{
    const bool prefixed = text.size() > OVERLAY_PREFIX.size() &&
                          std::ranges::equal(text.substr(0, OVERLAY_PREFIX.size()), OVERLAY_PREFIX,
                                             [](char a, char b) { return (a | 0x20) == (b | 0x20); });
    const std::string digits = prefixed ? text.substr(OVERLAY_PREFIX.size()) : "";
    const auto number = corvane::value_integer(digits);
    if (!number || digits.size() > OVERLAY_DIGITS_MAX)
        return "";
    return std::string(OVERLAY_PREFIX) + std::to_string(*number);
}

template <class Value, class Text> std::string accepted(const Value &value, Text text)
{
    return value ? text(*value) : std::string();
}

std::string mac_info_text(const std::string &text)
{
    const auto slash = text.find('/');
    if (slash == std::string::npos)
        return "";
    const auto vlan = corvane::value_integer(std::string_view(text).substr(0, slash));
    const auto mac = corvane::value_mac(std::string_view(text).substr(slash + 1));
    return vlan && mac ? std::to_string(*vlan) + "/" + corvane::value_mac_text(*mac) : "";
}

template <class Prefix, class Address> std::string prefix_text(const Prefix &prefix, Address address)
{
    return prefix ? address(prefix->address) + "/" + std::to_string(prefix->length) : "";
}

std::string address_text(value_type type, const std::string &text)
{
    std::string result;
    if (type != value_type::IPV6)
        result = accepted(corvane::value_ipv4(text), corvane::value_ipv4_text);
    if (result.empty() && type != value_type::IPV4)
        result = accepted(corvane::value_ipv6(text), corvane::value_ipv6_text);
    return result;
}

std::string normal_form(value_type type, const std::string &text)
{
    switch (type) {
    case value_type::IPV4:
    case value_type::IPV6:
    case value_type::ADDRESS:
        return address_text(type, text);
    case value_type::PREFIX:
        return prefix_text(corvane::value_prefix(text), corvane::value_ipv4_text);
    case value_type::PREFIX6:
        return prefix_text(corvane::value_prefix6(text), corvane::value_ipv6_text);
    case value_type::MAC:
        return accepted(corvane::value_mac(text), corvane::value_mac_text);
    case value_type::MAC_INFO:
        return mac_info_text(text);
    case value_type::OVERLAY:
    case value_type::OVERLAY_NUMBER:
        return overlay_name(text);
    case value_type::VLAN_LIST:
        return corvane::value_vlan_list(text).empty() ? "" : text;
    default:
        return text;
    }
}

std::string number(const syntax_element &element, const std::string &text, std::string &wrong)
{
    const auto value = corvane::value_integer(text);
    if (value && *value >= element.least && *value <= element.most)
        return std::to_string(*value);
    const std::string what = element.type == value_type::VLAN ? "a VLAN id" : "a number";
    wrong = "expected " + what + ", " + std::to_string(element.least) + " to " + std::to_string(element.most);
    return "";
}

std::string limited(const std::string &text, std::size_t most, const char *what, std::string &wrong)
{
    if (text.empty() || text.size() > most)
        wrong = std::string("expected ") + what + " of 1 to " + std::to_string(most) + " characters";
    return text;
}

} // namespace

split_line split(std::string_view line)
{
    split_line result;
    if (line.size() > LINE_MAX_BYTES) {
        result.error = {LINE_MAX_BYTES, 0, "the line is too long: " + std::to_string(line.size()) + " bytes, at most " +
                                               std::to_string(LINE_MAX_BYTES)};
        return result;
    }
    if ((result.error = bad_byte(line)))
        return result;
    for (std::size_t at = 0; at < line.size();) {
        if (blank(line[at])) {
            ++at;
            continue;
        }
        if (line[at] == '!')
            break;
        if (line[at] == '|' && result.filter == std::string::npos) {
            result.filter = at;
            break;
        }
        token word;
        word.at = at;
        if (line[at] == '"') {
            if (!take_quoted(line, at, word)) {
                result.error = {word.at, line.size() - word.at, "the closing '\"' is missing"};
                return result;
            }
            if (at < line.size() && !blank(line[at])) {
                result.error = {at, 1, "a blank is missing behind the '\"'"};
                return result;
            }
        } else {
            while (at < line.size() && !blank(line[at]))
                word.text += line[at++];
        }
        word.length = at - word.at;
        result.end = at;
        result.words.push_back(std::move(word));
    }
    return result;
}

// A question mark too: typed or pasted into a terminal it would ask for help.
std::string quoted(const std::string &text)
{
    const bool plain = !text.empty() && text.front() != '!' && text.front() != '|' &&
                       text.find_first_of(" \t\"\\?") == std::string::npos;
    if (plain)
        return text;
    std::string result = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\')
            result += '\\';
        result += c;
    }
    return result + '"';
}

std::string check_value(const syntax_element &element, const std::string &text, std::string &wrong)
{
    switch (element.type) {
    case value_type::INTEGER:
    case value_type::VLAN:
        return number(element, text, wrong);
    case value_type::TEXT:
        return limited(text, element.most, "a text", wrong);
    case value_type::INTERFACE:
        return limited(text, INTERFACE_NAME_MAX, "an interface name", wrong);
    case value_type::PATH:
        return limited(text, PATH_MAX_BYTES, "a file name", wrong);
    default:
        break;
    }
    std::string value = normal_form(element.type, text);
    if (value.empty())
        wrong = value_of(element.type, "");
    return value;
}

} // namespace corvaned
