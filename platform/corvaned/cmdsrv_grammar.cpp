#include "cmdsrv_grammar.h"

#include "cmdsrv_syntax.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

namespace corvaned {

namespace {

constexpr auto MODE_NAMES = std::to_array<const char *>({"exec", "configure", "overlay", "device"});
static_assert(MODE_NAMES.size() == MODE_COUNT);

std::string_view trimmed(std::string_view text)
{
    const auto first = text.find_first_not_of(" \t\r");
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

// Takes the first word off `text`.
std::string_view take_word(std::string_view &text)
{
    text = trimmed(text);
    const auto end = std::min(text.find_first_of(" \t"), text.size());
    const std::string_view word = text.substr(0, end);
    text = trimmed(text.substr(end));
    return word;
}

std::vector<std::string> words_of(std::string_view text)
{
    std::vector<std::string> words;
    while (!text.empty())
        words.emplace_back(take_word(text));
    return words;
}

bool printable(std::string_view line)
{
    return std::ranges::none_of(line, [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return (byte < 0x20 && c != '\t' && c != '\r') || byte == 0x7F;
    });
}

// Reads one file. An entry is collected until the next one begins, then finished: only a whole entry is kept.
class reader {
public:
    reader(const std::string &file, const std::string &only_client) : file_(file), only_client_(only_client) {}

    void read(std::string_view text)
    {
        while (!text.empty()) {
            const auto end = std::min(text.find('\n'), text.size());
            ++line_;
            one_line(text.substr(0, end));
            text = text.substr(std::min(end + 1, text.size()));
        }
        finish();
        for (auto &command : commands)
            give_help(command);
    }

    std::vector<grammar_command> commands;
    std::vector<grammar_error> errors;

private:
    using setter = bool (reader::*)(std::string_view);
    struct property {
        const char *name;
        setter set;
    };

    bool complain(std::string text)
    {
        if (errors.size() < ERRORS_MAX)
            errors.push_back({file_, line_, std::move(text)});
        bad_ = true;
        return false;
    }

    void one_line(std::string_view line)
    {
        const bool indented = !line.empty() && (line.front() == ' ' || line.front() == '\t');
        std::string_view rest = trimmed(line);
        if (rest.empty() || rest.front() == '#')
            return;
        if (!printable(line)) {
            complain("control character");
            return;
        }
        if (indented) {
            inner_line(rest);
            return;
        }
        const std::string_view word = take_word(rest);
        finish();
        in_words_ = word == "words" && rest.empty();
        if (word == "client" && !rest.empty())
            set_client(rest);
        else if (word == "command" && !rest.empty())
            begin(rest);
        else if (!in_words_)
            complain("'client', 'words' or 'command' is expected here, not '" + std::string(word) + "'");
    }

    void set_client(std::string_view name)
    {
        client_ = name;
        if (!only_client_.empty() && client_ != only_client_)
            complain("commands of '" + client_ + "' brought by '" + only_client_ + "'");
    }

    void begin(std::string_view handler)
    {
        in_command_ = true;
        current_ = {};
        current_.handler = handler;
        current_.client = client_;
        current_.line = line_;
        current_.file = file_;
        bad_ = client_.empty() || (!only_client_.empty() && client_ != only_client_);
        if (client_.empty())
            complain("no 'client' line before the first command");
    }

    void inner_line(std::string_view rest)
    {
        const std::string_view word = take_word(rest);
        if (in_words_) {
            words_[std::string(word)] = rest;
            return;
        }
        if (!in_command_) {
            complain("a line that belongs to no command");
            return;
        }
        const auto *found = std::ranges::find_if(PROPERTIES, [&](const auto &p) { return p.name == word; });
        if (found == PROPERTIES.end())
            complain("unknown property '" + std::string(word) + "'");
        else
            (void)(this->*found->set)(rest);
    }

    bool set_mode(std::string_view rest)
    {
        for (const auto &name : words_of(rest)) {
            const auto *found = std::ranges::find(MODE_NAMES, name);
            if (found == MODE_NAMES.end())
                return complain("unknown mode '" + name + "'");
            current_.modes.push_back(static_cast<mode>(found - MODE_NAMES.begin()));
        }
        return true;
    }
    bool set_plain(std::string_view rest) { return compile(rest, current_.plain); }
    bool set_no(std::string_view rest)
    {
        no_is_same_ = rest == "same";
        return no_is_same_ || compile(rest, current_.no);
    }
    bool compile(std::string_view text, command_syntax &syntax)
    {
        std::string error;
        return compile_syntax(text, syntax, error) || complain(error);
    }
    bool set_keep(std::string_view rest)
    {
        const std::string_view rule = take_word(rest);
        if (rule == "once" || rule == "once-per")
            current_.keep = keep_rule::ONCE;
        else if (rule == "list")
            current_.keep = keep_rule::LIST;
        else if (rule == "repeat")
            current_.keep = keep_rule::REPEAT;
        else
            return complain("'once', 'once-per', 'list' or 'repeat' is expected here");
        if (rule == "once-per")
            current_.per = words_of(rest);
        else
            current_.slot = rest;
        return true;
    }
    bool set_default(std::string_view rest)
    {
        current_.kept = kept_form::NO;
        return rest == "on" || complain("'on' is expected here");
    }
    bool set_both(std::string_view rest)
    {
        current_.kept = kept_form::BOTH;
        return rest == "kept" || complain("'kept' is expected here");
    }
    bool set_undo(std::string_view rest)
    {
        current_.undo = words_of(rest);
        current_.undo_by_text = false;
        return true;
    }
    bool set_withdraws(std::string_view rest)
    {
        current_.withdraws = words_of(rest);
        return true;
    }
    bool set_place(std::string_view rest)
    {
        current_.place_first = true;
        return rest == "first" || complain("'first' is expected here");
    }
    bool set_enter(std::string_view rest)
    {
        current_.enters_interface = true;
        return rest == "interface" || complain("'interface' is expected here");
    }
    bool set_brief(std::string_view rest)
    {
        current_.brief = rest;
        return true;
    }
    bool set_json(std::string_view rest)
    {
        current_.json = rest;
        return true;
    }
    bool add_effect(std::string_view rest)
    {
        current_.effect.emplace_back(rest);
        return true;
    }
    bool add_reject(std::string_view rest)
    {
        current_.reject.emplace_back(rest);
        return true;
    }
    bool add_help(std::string_view rest)
    {
        const std::string word(take_word(rest));
        own_help_[word] = rest;
        return true;
    }

    void finish()
    {
        if (in_command_ && !bad_ && complete())
            keep_current();
        in_command_ = false;
        own_help_.clear();
        no_is_same_ = false;
        bad_ = false;
    }

    bool complete()
    {
        if (no_is_same_)
            current_.no = current_.plain;
        if (current_.modes.empty())
            return complain("command '" + current_.handler + "' has no mode");
        if (current_.plain.elements.empty() && current_.no.elements.empty())
            return complain("command '" + current_.handler + "' has no syntax");
        if (current_.plain.empty_allowed && !current_.plain.elements.empty())
            return complain("the syntax of '" + current_.handler + "' can be empty");
        if (current_.no.empty_allowed && !current_.no.elements.empty())
            return complain("the 'no' syntax of '" + current_.handler + "' can be empty");
        return true;
    }

    void keep_current()
    {
        if (current_.slot.empty())
            current_.slot = current_.handler + "@" + std::to_string(current_.line);
        for (auto *syntax : {&current_.plain, &current_.no})
            for (auto &element : syntax->elements)
                if (const auto own = own_help_.find(element.word); own != own_help_.end())
                    element.help = own->second;
        commands.push_back(std::move(current_));
    }

    // Words without help of their own: that of the file, else the type's.
    void give_help(grammar_command &command)
    {
        for (auto *syntax : {&command.plain, &command.no})
            for (auto &element : syntax->elements) {
                if (!element.help.empty())
                    continue;
                const auto common = words_.find(element.word);
                element.help = common != words_.end() ? common->second
                               : element.type == value_type::KEYWORD ? "" : value_type_of(element.type).what;
            }
    }

    static constexpr std::size_t ERRORS_MAX = 100;
    static constexpr std::array<property, 15> PROPERTIES = {{
        {"mode", &reader::set_mode},
        {"syntax", &reader::set_plain},
        {"no", &reader::set_no},
        {"keep", &reader::set_keep},
        {"default", &reader::set_default},
        {"both", &reader::set_both},
        {"undo", &reader::set_undo},
        {"withdraws", &reader::set_withdraws},
        {"place", &reader::set_place},
        {"enter", &reader::set_enter},
        {"brief", &reader::set_brief},
        {"effect", &reader::add_effect},
        {"reject", &reader::add_reject},
        {"json", &reader::set_json},
        {"help", &reader::add_help},
    }};

    const std::string &file_, &only_client_;
    std::string client_;
    std::size_t line_ = 0;
    bool in_words_ = false, in_command_ = false, bad_ = false, no_is_same_ = false;
    grammar_command current_;
    std::map<std::string, std::string> words_, own_help_;
};

} // namespace

const char *mode_name(mode m) { return MODE_NAMES[static_cast<std::size_t>(m)]; }

bool grammar_command::offered_in(mode m) const { return std::ranges::find(modes, m) != modes.end(); }

bool grammar_command::shows() const
{
    return no.elements.empty() && !plain.elements.empty() && plain.elements.front().word == "show";
}

std::vector<grammar_error> grammar::add(std::string_view text, const std::string &file, const std::string &only_client)
{
    if (text.size() > GRAMMAR_FILE_MAX)
        return {{file, 0, "too long for a grammar file"}};
    reader r(file, only_client);
    r.read(text);
    for (auto &command : r.commands) {
        if (commands_.size() >= GRAMMAR_COMMANDS_MAX) {
            r.errors.push_back({file, command.line, "too many commands"});
            break;
        }
        const grammar_command &kept = commands_.emplace_back(std::move(command));
        for (const auto m : kept.modes)
            by_mode_[static_cast<std::size_t>(m)].push_back(&kept);
    }
    return std::move(r.errors);
}

std::vector<grammar_error> grammar::add_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return {{path, 0, std::strerror(errno)}};
    std::ostringstream text;
    text << in.rdbuf();
    return add(text.str(), path.substr(path.rfind('/') + 1));
}

bool grammar::has_client(std::string_view client) const
{
    return std::ranges::any_of(commands_, [&](const auto &c) { return c.client == client; });
}

} // namespace corvaned
