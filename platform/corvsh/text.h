// What the shell prints by itself: mistakes under the word they are about, choices with their help.
#pragma once

#include "connection.h"

namespace corvsh {

inline constexpr std::size_t UNLIMITED = static_cast<std::size_t>(-1);

// Under a line that stands `indent` columns from the left: a mark at the word, then the text, broken at blanks where it
// is wider than the screen.
[[nodiscard]] std::string mistake_text(std::string_view line, std::size_t indent, std::size_t at, std::size_t length,
                                       const std::string &text, std::size_t columns = UNLIMITED);
// A choice a line, help that is wider than the screen cut short.
[[nodiscard]] std::string choices_text(const choices &what, std::size_t columns = UNLIMITED);
// What can be typed on behind the word under the cursor: "" when the choices have nothing more in common.
[[nodiscard]] std::string common_rest(const choices &what, std::string_view line);
[[nodiscard]] std::size_t columns_of(std::string_view text);     // of UTF-8, one a character

// Columns of the terminal, 80 where it does not say.
[[nodiscard]] std::size_t terminal_columns();

// Terminal characters made visible, so that nothing that is printed can steer the terminal.
[[nodiscard]] std::string harmless(std::string_view text);

} // namespace corvsh
