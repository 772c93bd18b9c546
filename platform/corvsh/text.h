// What the shell prints by itself: mistakes under the word they are about, choices with their help.
#pragma once

#include "connection.h"

namespace corvsh {

// Under a line that stands `indent` columns from the left: a mark at the word, then the text.
[[nodiscard]] std::string mistake_text(std::string_view line, std::size_t indent, std::size_t at, std::size_t length,
                                       const std::string &text);
[[nodiscard]] std::string choices_text(const choices &what);
// What can be typed on behind the word under the cursor: "" when the choices have nothing more in common.
[[nodiscard]] std::string common_rest(const choices &what, std::string_view line);
[[nodiscard]] std::size_t columns_of(std::string_view text);     // of UTF-8, one a character

// Terminal characters made visible, so that nothing that is printed can steer the terminal.
[[nodiscard]] std::string harmless(std::string_view text);

} // namespace corvsh
