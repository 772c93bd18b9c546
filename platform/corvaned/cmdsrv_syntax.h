// Compiler of one SYNTAX line of a grammar file into elements and what may follow each of them.
#pragma once

#include "cmdsrv_grammar.h"

namespace corvaned {

// False: `error` says what is wrong with it.
[[nodiscard]] bool compile_syntax(std::string_view text, command_syntax &syntax, std::string &error);

} // namespace corvaned
