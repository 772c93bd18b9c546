// Parser of command lines: from a line and the mode it is entered in to the command, its arguments and its full text;
// or to what is wrong, where, and what was expected there. Completion and help walk the same way.
#pragma once

#include "cmdsrv_grammar.h"

#include <functional>

namespace corvaned {

inline constexpr std::size_t LINE_MAX_BYTES = 4096;

struct token {
    std::string text;               // without its quotes
    std::size_t at = 0, length = 0; // where it stands in the line
    bool quoted = false;
};
struct line_error {
    std::size_t at = 0, length = 0; // the word that was wrong; at the end of the line: what is missing
    std::string text;               // "" = no error
    explicit operator bool() const { return !text.empty(); }
};

// Words of a line. A `!` that begins a word begins a comment. `filter` is where an unquoted word `|` begins what
// becomes of the output; npos: there is none.
struct split_line {
    std::vector<token> words;
    std::size_t filter = std::string::npos;
    std::size_t end = 0;            // behind the last word that is not a comment
    line_error error;
};
[[nodiscard]] split_line split(std::string_view line);
// Text of a value as it is written in a line: quoted when it has to be.
[[nodiscard]] std::string quoted(const std::string &text);

using argument_list = std::vector<std::pair<std::string, std::string>>;

struct parsed_command {
    const grammar_command *command = nullptr;
    bool no = false;
    mode found_in = mode::EXEC;     // the mode whose command it is
    argument_list arguments;
    std::string text;               // every word in full, in the order of the grammar, without the `no`
    std::vector<std::string> interfaces;        // that its values name
    [[nodiscard]] const std::string *get(std::string_view name) const;
};
struct parse_result {
    parsed_command command;
    bool empty = false;             // nothing but blanks and comment
    line_error error;
};

// What is known of the machine now, for completion, and for telling an interface's name from an abbreviated word.
struct live_values {
    std::function<bool(value_type, const std::string &)> known;
    std::function<std::vector<std::pair<std::string, std::string>>(value_type)> list;    // value, help
};

struct parse_context {
    const grammar *commands = nullptr;
    mode current = mode::EXEC;
    bool fall_back = true;          // a command of an outer mode is found as well
    bool views_only = false;        // only commands that show
    const live_values *live = nullptr;
};
// Commands of those who may look and not change.
[[nodiscard]] bool may_view(const grammar_command &command);
[[nodiscard]] parse_result parse(const parse_context &context, std::string_view line);

struct completion {
    std::string word;               // what would stand there; "<name>" for a value, "" for the end of the line
    std::string help;
    bool insertable = false;        // word can be typed as it is
};
struct completion_result {
    std::size_t from = 0;           // where the word that is completed begins
    std::vector<completion> choices;
    line_error error;               // no way to get there
};
[[nodiscard]] completion_result complete(const parse_context &context, std::string_view line);

// Checks one value and puts it into the form it is kept in. "" in `wrong`: it is accepted.
[[nodiscard]] std::string check_value(const syntax_element &element, const std::string &text, std::string &wrong);

} // namespace corvaned
