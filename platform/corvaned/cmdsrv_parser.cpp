// All commands of a mode are walked at once: a walker is a command, the element it reached and the words it took. Each
// word of the line moves the walkers that can take it. A keyword that is written out goes before an abbreviated one,
// that before a value.
#include "cmdsrv_parser.h"

#include <algorithm>
#include <array>
#include <optional>
#include <set>

namespace corvaned {

namespace {

constexpr int AT_START = -1;

struct walker {
    const grammar_command *command = nullptr;
    const command_syntax *syntax = nullptr;
    int at = AT_START;
    std::uint32_t entered = 0;                               // alternatives of the any-order group, by bit
    std::vector<std::pair<std::uint16_t, std::string>> taken;

    [[nodiscard]] const std::vector<std::uint16_t> &next() const
    {
        return at == AT_START ? syntax->first : syntax->elements[static_cast<std::size_t>(at)].follow;
    }
    [[nodiscard]] bool may_enter(const syntax_element &element) const
    {
        return element.enters < 0 || (entered >> element.enters & 1) == 0;
    }
    [[nodiscard]] bool may_end() const { return at != AT_START && syntax->elements[static_cast<std::size_t>(at)].last; }
};

struct step {
    std::size_t walker = 0;
    std::uint16_t element = 0;
    std::string value;                                       // the word in full, or the checked value
};

std::string joined(const std::vector<std::string> &items)
{
    constexpr std::size_t SHOWN_MAX = 24;
    std::string text;
    const std::size_t shown = std::min(items.size(), SHOWN_MAX);
    for (std::size_t i = 0; i < shown; ++i)
        text += (i == 0 ? "" : i + 1 == items.size() ? " or " : ", ") + items[i];
    return shown < items.size() ? text + " ..." : text;
}

std::string shortened(const std::string &text)
{
    constexpr std::size_t SHOWN_MAX = 40;
    return text.size() > SHOWN_MAX ? text.substr(0, SHOWN_MAX) + "..." : text;
}

class walk {
public:
    walk(const parse_context &context, mode m, bool no) : context_(context)
    {
        for (const auto *command : context.commands->offered(m)) {
            const command_syntax &syntax = no ? command->no : command->plain;
            if (!syntax.elements.empty() && (!context.views_only || may_view(*command)))
                walkers_.push_back({command, &syntax, AT_START, 0, {}});
        }
    }

    [[nodiscard]] bool alive() const { return !walkers_.empty(); }

    // False: `error` says why no walker can take the word; the walkers stay where they are.
    bool advance(const token &word, line_error &error)
    {
        std::vector<step> exact, abbreviated, values;
        std::set<std::string> meant;
        std::string wrong;
        for (std::size_t w = 0; w < walkers_.size(); ++w)
            for (const auto e : walkers_[w].next())
                offer(w, e, word, exact, abbreviated, values, meant, wrong);
        const bool names_interface = !values.empty() && !abbreviated.empty() && known_value(values);
        if (exact.empty() && meant.size() > 1 && !names_interface)
            return fail(error, word, "\"" + shortened(word.text) + "\" is ambiguous: " +
                                         joined({meant.begin(), meant.end()}));
        const auto &chosen = !exact.empty() ? exact : !abbreviated.empty() && !names_interface ? abbreviated : values;
        if (chosen.empty())
            return fail(error, word, refusal(word, wrong));
        take(chosen);
        return true;
    }

    [[nodiscard]] const walker *ended() const
    {
        const auto found = std::ranges::find_if(walkers_, [](const auto &w) { return w.may_end(); });
        return found == walkers_.end() ? nullptr : &*found;
    }

    // What may come next, each word once, in the order of the grammar.
    [[nodiscard]] std::vector<const syntax_element *> expected() const
    {
        std::vector<const syntax_element *> found;
        for (const auto &w : walkers_)
            for (const auto e : w.next()) {
                const auto &element = w.syntax->elements[e];
                if (w.may_enter(element) &&
                    std::ranges::none_of(found, [&](const auto *f) { return f->word == element.word; }))
                    found.push_back(&element);
            }
        return found;
    }

    [[nodiscard]] std::string expectation() const
    {
        std::set<std::string> words;
        std::vector<std::string> values;
        for (const auto *e : expected()) {
            if (e->type == value_type::KEYWORD)
                words.insert(e->word);
            else
                values.push_back(std::string(e->word) + " (" + value_type_of(e->type).what + ", as " + example(*e) + ")");
        }
        values.insert(values.begin(), words.begin(), words.end());
        return joined(values);
    }

    // Help of a command that is being chosen: where only one is left, its own line.
    [[nodiscard]] const std::vector<walker> &walkers() const { return walkers_; }

private:
    static std::string example(const syntax_element &element)
    {
        if (element.type == value_type::INTEGER && element.least > 5)
            return std::to_string(element.least);
        return value_type_of(element.type).example;
    }

    void offer(std::size_t w, std::uint16_t e, const token &word, std::vector<step> &exact,
               std::vector<step> &abbreviated, std::vector<step> &values, std::set<std::string> &meant,
               std::string &wrong) const
    {
        const auto &element = walkers_[w].syntax->elements[e];
        if (!walkers_[w].may_enter(element))
            return;
        if (element.type == value_type::KEYWORD) {
            if (word.quoted || !element.word.starts_with(word.text) || word.text.empty())
                return;
            const bool whole = element.word == word.text;
            (whole ? exact : abbreviated).push_back({w, e, element.word});
            if (!whole)
                meant.insert(element.word);
            return;
        }
        std::string problem;
        std::string value = check_value(element, word.text, problem);
        if (problem.empty())
            values.push_back({w, e, std::move(value)});
        else if (wrong.empty())
            wrong = std::move(problem);
    }

    [[nodiscard]] bool known_value(const std::vector<step> &values) const
    {
        if (context_.live == nullptr || !context_.live->known)
            return false;
        return std::ranges::any_of(values, [&](const auto &s) {
            return context_.live->known(walkers_[s.walker].syntax->elements[s.element].type, s.value);
        });
    }

    void take(const std::vector<step> &chosen)
    {
        std::vector<walker> moved;
        moved.reserve(chosen.size());
        for (const auto &s : chosen) {
            walker w = walkers_[s.walker];
            const auto &element = w.syntax->elements[s.element];
            w.at = s.element;
            if (element.enters >= 0)
                w.entered |= 1u << element.enters;
            // Where a grammar gives several ways to the same place the first one counts: else they would multiply.
            if (std::ranges::any_of(moved, [&](const walker &m) {
                    return m.syntax == w.syntax && m.at == w.at && m.entered == w.entered;
                }))
                continue;
            w.taken.emplace_back(s.element, s.value);
            moved.push_back(std::move(w));
        }
        walkers_ = std::move(moved);
    }

    [[nodiscard]] std::string refusal(const token &word, const std::string &wrong) const
    {
        const auto next = expected();
        const bool one_value = next.size() == 1 && next.front()->type != value_type::KEYWORD;
        if (one_value && !wrong.empty())
            return wrong;
        if (next.empty())
            return "nothing more is expected here";
        return "unknown word \"" + shortened(word.text) + "\"; expected " + expectation();
    }

    static bool fail(line_error &error, const token &word, std::string text)
    {
        error = {word.at, word.length, std::move(text)};
        return false;
    }

    const parse_context &context_;
    std::vector<walker> walkers_;
};

parsed_command finished(const walker &w, mode found_in, bool no)
{
    parsed_command result;
    result.command = w.command;
    result.no = no;
    result.found_in = found_in;
    auto taken = w.taken;
    std::ranges::sort(taken, {}, [](const auto &t) { return t.first; });
    for (const auto &[e, value] : taken) {
        const auto &element = w.syntax->elements[e];
        const bool keyword = element.type == value_type::KEYWORD;
        result.text += (result.text.empty() ? "" : " ") +
                       (keyword || element.type == value_type::REST ? value : quoted(value));
        const bool number = element.type == value_type::OVERLAY_NUMBER;
        if (number || element.type == value_type::OVERLAY || element.type == value_type::INTERFACE)
            result.interfaces.push_back(value);
        result.arguments.emplace_back(element.argument, number ? value.substr(7) : value);
    }
    return result;
}

// Modes in which a line is looked for: the current one, then those around it.
std::vector<mode> search_order(const parse_context &context)
{
    if (!context.fall_back || context.current == mode::EXEC)
        return {context.current};
    if (context.current == mode::CONFIGURE)
        return {mode::CONFIGURE, mode::EXEC};
    return {context.current, mode::CONFIGURE, mode::EXEC};
}

// The last word of a command takes the rest of the line as it stands.
std::vector<token> with_rest(const walk &so_far, const std::vector<token> &words, std::size_t from, std::string_view line,
                             std::size_t end)
{
    const auto next = so_far.expected();
    const bool rest = std::ranges::any_of(next, [](const auto *e) { return e->type == value_type::REST; });
    if (!rest || from >= words.size())
        return words;
    std::vector<token> cut(words.begin(), words.begin() + static_cast<std::ptrdiff_t>(from));
    cut.push_back({std::string(line.substr(words[from].at, end - words[from].at)), words[from].at, end - words[from].at, true});
    return cut;
}

struct attempt {
    parse_result result;
    std::size_t words_taken = 0;
};

attempt parse_in(const parse_context &context, mode m, const split_line &split_words, std::string_view line)
{
    attempt a;
    std::vector<token> words = split_words.words;
    // `no` is written out: abbreviated it would take other words' place.
    const bool no = words.front().text == "no" && !words.front().quoted;
    walk w(context, m, no);
    std::size_t i = no ? 1 : 0;
    for (; i < words.size(); ++i) {
        words = with_rest(w, words, i, line, split_words.end);
        if (!w.advance(words[i], a.result.error)) {
            a.words_taken = i;
            return a;
        }
    }
    a.words_taken = i;
    if (const auto *done = w.ended())
        a.result.command = finished(*done, m, no);
    else
        a.result.error = {split_words.end, 0, w.alive() ? "incomplete command; expected " + w.expectation()
                                                        : "no command of this mode has a \"no\" form"};
    return a;
}

// The mode that a line is meant for which no mode around the current one knows: "" = there is none.
std::string other_mode(const parse_context &context, const split_line &words, std::string_view line)
{
    constexpr std::array<std::pair<mode, const char *>, MODE_COUNT> PLACES = {{
        {mode::EXEC, "exec mode"},
        {mode::CONFIGURE, "configure mode"},
        {mode::OVERLAY, "the mode of an overlay interface"},
        {mode::DEVICE, "the mode of a device"},
    }};
    const auto searched = search_order(context);
    for (const auto &[m, name] : PLACES)
        if (std::ranges::find(searched, m) == searched.end() && !parse_in(context, m, words, line).result.error)
            return std::string("; this is a command of ") + name;
    return "";
}

} // namespace

bool may_view(const grammar_command &command)
{
    const bool leaves = command.handler == "exit" || command.handler == "end" || command.handler == "help";
    return command.shows() || (command.client == "shell" && leaves);
}

const std::string *parsed_command::get(std::string_view name) const
{
    const auto found = std::ranges::find_if(arguments, [&](const auto &a) { return a.first == name; });
    return found == arguments.end() ? nullptr : &found->second;
}

parse_result parse(const parse_context &context, std::string_view line)
{
    split_line words = split(line);
    if (words.error)
        return {{}, false, words.error};
    if (words.words.empty())
        return {{}, true, {}};
    std::optional<attempt> best;
    for (const auto m : search_order(context)) {
        attempt a = parse_in(context, m, words, line);
        if (!a.result.error)
            return std::move(a.result);
        if (!best || a.words_taken > best->words_taken)
            best = std::move(a);
    }
    if (context.fall_back)
        best->result.error.text += other_mode(context, words, line);
    return std::move(best->result);
}

namespace {

void add_live(const parse_context &context, const syntax_element &element, const std::string &prefix,
              std::vector<completion> &choices)
{
    if (context.live == nullptr || !context.live->list)
        return;
    for (const auto &known : context.live->list(element.type))
        if (known.first.starts_with(prefix) &&
            std::ranges::none_of(choices, [&](const auto &c) { return c.word == known.first; }))
            choices.push_back({known.first, known.second, true});
}

completion_result complete_in(const parse_context &context, mode m, std::vector<token> words, const token &last)
{
    completion_result result;
    result.from = last.at;
    const bool no = !words.empty() && words.front().text == "no" && !words.front().quoted;
    walk w(context, m, no);
    for (std::size_t i = no ? 1 : 0; i < words.size(); ++i)
        if (!w.advance(words[i], result.error))
            return result;
    const bool first_word = words.size() == (no ? 1u : 0u);
    for (const auto *e : w.expected()) {
        if (e->type == value_type::KEYWORD) {
            if (!last.quoted && e->word.starts_with(last.text))
                result.choices.push_back({e->word, e->help, true});
            continue;
        }
        if (last.text.empty())
            result.choices.push_back({e->word, e->help, false});
        add_live(context, *e, last.text, result.choices);
        std::string wrong;
        if (!last.text.empty() && !check_value(*e, last.text, wrong).empty() && wrong.empty() && result.choices.empty())
            result.choices.push_back({e->word, e->help, false});
    }
    const bool any_no = std::ranges::any_of(context.commands->offered(m),
                                            [](const auto *c) { return !c->no.elements.empty(); });
    if (first_word && !no && any_no && std::string_view("no").starts_with(last.text) && !last.quoted &&
        !context.views_only)
        result.choices.push_back({"no", "Take back a setting", true});
    std::ranges::sort(result.choices, {}, [](const auto &c) { return std::pair(!c.insertable, c.word); });
    if (const auto *done = w.ended(); done != nullptr && last.text.empty())
        result.choices.push_back({"", done->command->brief, false});
    return result;
}

} // namespace

completion_result complete(const parse_context &context, std::string_view line)
{
    split_line words = split(line);
    if (words.error)
        return {line.size(), {}, words.error};
    token last{"", line.size(), 0, false};
    if (!words.words.empty() && words.words.back().at + words.words.back().length == line.size()) {
        last = words.words.back();
        words.words.pop_back();
    }
    completion_result best;
    bool first = true;
    for (const auto m : search_order(context)) {
        completion_result r = complete_in(context, m, words.words, last);
        if (!r.choices.empty())
            return r;
        if (first || (best.error && (!r.error || r.error.at > best.error.at)))
            best = std::move(r);
        first = false;
    }
    if (!best.error && !last.text.empty())
        best.error = parse(context, line).error;
    return best;
}

} // namespace corvaned
