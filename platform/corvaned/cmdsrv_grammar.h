// Grammar of the commands: read from installed files, so that a client brings its commands without code in the
// command server. Pure data and its reader; the parser is in cmdsrv_parser.h.
//
//   client NAME                    whose handlers the commands below call: a client's name, `platform` or `shell`
//   words                          help of keywords, one a line, for every command of this file
//     KEYWORD TEXT
//   command HANDLER
//     mode     MODE...             exec, configure, overlay, device
//     syntax   SYNTAX              the plain form; none: the command has its `no` form only
//     no       same | SYNTAX       the `no` form, written without the word `no`
//     keep     once [SLOT] | once-per ARGUMENT... | list [SLOT] | repeat [SLOT]    goes to the running configuration:
//                                  one line a slot, one line a value of the arguments, a line a text, a line each time
//     default  on                  what is kept is the `no` form, the plain form takes it away
//     both     kept                the plain form and the `no` form are kept, the last one entered
//     undo     ARGUMENT...         what a `no` line is compared by; else its whole text
//     withdraws SLOT...            lines of these slots are withdrawn before the `no` form of this command runs
//     place    first               a global line that stands before the interfaces
//     enter    interface           done, the session is in the mode of the interface named by the first value; with
//                                  `keep` the interface exists by this line, and `no` ends it and its lines
//     brief    TEXT                one line of help
//     effect   TEXT                for the documents; several lines
//     reject   TEXT                a rejection in the handler's words; several lines
//     json     SCHEMA              how `| json` reads the output (cmdsrv_json.h)
//     help     WORD TEXT           help of a word of this command
//
// SYNTAX: words; <name:type> or <name:type(least-most)> for values; [ ] optional, { a | b } one of these, ( a | b )
// each of these at most once and in any order. word=name hands the keyword to the handler under another name.
// `#` begins a comment line.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace corvaned {

enum class value_type : std::uint8_t {
    KEYWORD,
    INTEGER,
    VLAN,
    IPV4,
    IPV6,
    ADDRESS,          // of either family
    PREFIX,
    PREFIX6,
    MAC,
    MAC_INFO,         // VLAN/MAC
    INTERFACE,
    OVERLAY,          // Overlay<N>, handed on as the name
    OVERLAY_NUMBER,   // Overlay<N>, handed on as the number
    TEXT,
    VLAN_LIST,
    PATH,
    REST,             // the rest of the line, blanks included
};
struct value_type_info {
    value_type type;
    const char *name;        // in a grammar file
    const char *what;        // in an error message
    const char *example;
};
[[nodiscard]] const value_type_info &value_type_of(value_type type);

enum class mode : std::uint8_t { EXEC, CONFIGURE, OVERLAY, DEVICE };
inline constexpr std::size_t MODE_COUNT = 4;
[[nodiscard]] const char *mode_name(mode m);

struct syntax_element {
    std::string word;                        // the keyword, or the value's name with its angle brackets
    std::string argument;                    // the name under which the handler is given it
    value_type type = value_type::KEYWORD;
    std::uint32_t least = 0, most = 0;       // INTEGER: range; TEXT: most characters
    std::string help;
    std::vector<std::uint16_t> follow;       // elements that may come next
    bool last = false;                       // the command may end here
    int enters = -1;                         // first of this alternative of the any-order group
};
struct command_syntax {
    std::string text;                        // as written
    std::vector<syntax_element> elements;    // in the order written, which is also the order of the full text
    std::vector<std::uint16_t> first;
    bool empty_allowed = false;
};

enum class keep_rule : std::uint8_t { NONE, ONCE, LIST, REPEAT };
enum class kept_form : std::uint8_t { PLAIN, NO, BOTH };

struct grammar_command {
    std::string client, handler;
    std::vector<mode> modes;
    command_syntax plain, no;                // without elements: there is no such form
    keep_rule keep = keep_rule::NONE;
    kept_form kept = kept_form::PLAIN;
    std::string slot;
    std::vector<std::string> per, undo;      // argument names
    bool undo_by_text = true;                // no `undo` line
    std::vector<std::string> withdraws;      // slots
    bool place_first = false, enters_interface = false;
    std::string brief, json;
    std::vector<std::string> effect, reject;
    std::size_t line = 0;                    // where it begins in its file
    std::string file;

    [[nodiscard]] bool configures() const { return keep != keep_rule::NONE; }
    [[nodiscard]] bool offered_in(mode m) const;
    [[nodiscard]] bool shows() const;        // reads only: its first word is `show`
};

struct grammar_error {
    std::string file;
    std::size_t line = 0;
    std::string text;
    [[nodiscard]] std::string message() const { return file + ":" + std::to_string(line) + ": " + text; }
};

class grammar {
public:
    // Adds what the text defines. An entry with a mistake is left out and reported; the others are taken. With
    // `only_client`, entries for other clients are mistakes.
    std::vector<grammar_error> add(std::string_view text, const std::string &file, const std::string &only_client = "");
    [[nodiscard]] std::vector<grammar_error> add_file(const std::string &path);
    [[nodiscard]] const std::vector<const grammar_command *> &offered(mode m) const
    {
        return by_mode_[static_cast<std::size_t>(m)];
    }
    [[nodiscard]] const std::deque<grammar_command> &all() const { return commands_; }
    [[nodiscard]] bool has_client(std::string_view client) const;

    grammar() = default;
    grammar(const grammar &) = delete;
    grammar &operator=(const grammar &) = delete;

private:
    std::deque<grammar_command> commands_;               // stable addresses: kept lines point to them
    std::vector<const grammar_command *> by_mode_[MODE_COUNT];
};

inline constexpr std::size_t GRAMMAR_FILE_MAX = 1024 * 1024, GRAMMAR_COMMANDS_MAX = 2048, GRAMMAR_ELEMENTS_MAX = 64,
                             GRAMMAR_DEPTH_MAX = 8;

} // namespace corvaned
