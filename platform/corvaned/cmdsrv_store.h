// The running configuration: the lines that were accepted, in an order that brings the same state about again. Global
// lines that stand first, interfaces in the order they came, the other global lines. No input or output here.
#pragma once

#include "cmdsrv_parser.h"

#include "../wire/cmdsrv.h"

#include <list>
#include <map>
#include <memory>
#include <unordered_map>

namespace corvaned {

enum class line_state : std::uint8_t {
    UNTRIED,         // read from a file, its client was not there yet
    ACTIVE,          // accepted
    WAITING,         // refused while its interface was missing or down: offered again when it comes
};

struct config_line {
    std::uint64_t id = 0;
    const grammar_command *command = nullptr;
    bool no = false;                     // the `no` form is what is kept
    std::string text, key;               // text without the `no`
    line_state state = line_state::ACTIVE;
    std::uint32_t source_line = 0;       // of the startup file, 0 = entered
    std::string interface;               // "" = global
    [[nodiscard]] std::string full() const { return no ? "no " + text : text; }
};

class config_store {
public:
    // What a command does to the lines. The key says which lines it is compared with.
    struct effect {
        corvane::applied_change change = corvane::applied_change::NOTHING;
        std::string key, line;           // line: as it is kept, with its "no "
    };
    [[nodiscard]] static effect effect_of(const parsed_command &command);

    // Takes a command that was accepted into the lines. The line it left, 0 = none.
    std::uint64_t apply(const std::string &interface, const parsed_command &command,
                        line_state state = line_state::ACTIVE, std::uint32_t source_line = 0);
    void make_interface(const std::string &interface, const grammar_command *maker, line_state state = line_state::ACTIVE,
                        std::uint32_t source_line = 0);
    void remove_interface(const std::string &interface);
    void remove(std::uint64_t id);
    [[nodiscard]] config_line *find(std::uint64_t id);
    void remove_text(const std::string &interface, const std::string &full);         // the first line that is this one

    [[nodiscard]] std::size_t size() const { return by_id_.size(); }
    // Every line in order; lines that make an interface stand before the interface's own.
    void each(const std::function<void(config_line &)> &visit);
    void each_of(const std::string &interface, const std::function<void(config_line &)> &visit);
    // Lines of the interface that stand in one of these slots, the last one first.
    [[nodiscard]] std::vector<std::uint64_t> in_slots(const std::string &interface, const std::vector<std::string> &slots);

    // As a configuration file.
    [[nodiscard]] std::string text() const;
    // VLANs that lines name, for completion.
    [[nodiscard]] std::vector<std::string> interfaces() const;

    // Told of every operation, so that it can be done again from the start. The text is as it was entered.
    enum class operation : char { APPLY = 'A', MAKE = 'M', REMOVE_INTERFACE = 'X', REMOVE = 'R' };
    std::function<void(operation, const std::string &interface, const std::string &text, line_state, std::uint32_t)> done;

private:
    struct block {
        std::string interface;
        std::list<config_line> lines;
        std::unordered_multimap<std::string, std::list<config_line>::iterator> by_key;
        std::uint64_t maker = 0;         // id of the line that makes the interface
    };
    struct place {
        block *in = nullptr;
        std::list<config_line>::iterator at;
    };

    block &block_of(const std::string &interface);
    block *find_block(const std::string &interface);
    std::uint64_t put(block &in, std::list<config_line>::iterator before, config_line line);
    void erase(block &in, std::list<config_line>::iterator line);
    void drop_empty(const std::string &interface);
    std::uint64_t replace_key(block &in, config_line line);
    std::uint64_t change(const std::string &interface, const parsed_command &command, const effect &what,
                         line_state state, std::uint32_t source_line);
    void tell(operation what, const std::string &interface, const std::string &text,
              line_state state = line_state::ACTIVE, std::uint32_t source_line = 0) const;

    block global_;
    std::list<block> interfaces_;
    std::unordered_map<std::string, std::list<block>::iterator> by_name_;
    std::unordered_map<std::uint64_t, place> by_id_;
    std::uint64_t last_id_ = 0;
};

// What would bring `from` to `to`: lines to take back, the last one first, and lines to enter, in order.
struct config_difference {
    struct change {
        std::string interface;           // "" = global
        std::string line;                // as it would be entered in that mode; "": it is only forgotten
        std::uint64_t id = 0;            // of the line that goes, 0: a line comes
        std::string gone;                // the line that goes, as it stands in the configuration
    };
    std::vector<change> back, enter;
    std::vector<change> replaced;        // lines that go without being taken back, since one that is entered replaces them
};
[[nodiscard]] config_difference difference(config_store &from, config_store &to);

} // namespace corvaned
