// Hexadecimal to bytes and back.
#include "fake_bytes.h"

#include <cctype>

namespace fake {

namespace {

unsigned digit(char c)
{
    if (c >= '0' && c <= '9')
        return static_cast<unsigned>(c - '0');
    const char low = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (low >= 'a' && low <= 'f')
        return static_cast<unsigned>(low - 'a' + 10);
    throw std::invalid_argument(std::string("not a hexadecimal digit: ") + c);
}

std::string digits_only(std::string_view text)
{
    std::string digits;
    bool comment = false;
    for (const char c : text) {
        if (c == '#')
            comment = true;
        else if (c == '\n')
            comment = false;
        if (!comment && std::isspace(static_cast<unsigned char>(c)) == 0 && c != ':')
            digits += c;
    }
    return digits;
}

} // namespace

bytes hex(std::string_view text)
{
    const std::string digits = digits_only(text);
    if (digits.size() % 2 != 0)
        throw std::invalid_argument("odd number of hexadecimal digits");
    bytes data;
    for (std::size_t i = 0; i < digits.size(); i += 2)
        data.add8(digit(digits[i]) << 4 | digit(digits[i + 1]));
    return data;
}

std::string to_hex(std::span<const std::uint8_t> data)
{
    constexpr std::string_view DIGITS = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : data) {
        text += DIGITS[byte >> 4];
        text += DIGITS[byte & 15];
    }
    return text;
}

} // namespace fake
