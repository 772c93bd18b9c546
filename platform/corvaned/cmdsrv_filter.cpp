#include "cmdsrv_filter.h"

#include "cmdsrv_json.h"

#include <algorithm>
#include <array>

namespace corvaned {

namespace {

constexpr std::size_t PARTIAL_LINE_MAX = 64 * 1024;

// Cuts the output into lines. A line that is too long is taken in pieces.
class line_filter : public output_filter {
public:
    explicit line_filter(output_sink sink) : sink_(std::move(sink)) {}

    void text(std::string_view piece) override
    {
        while (!piece.empty()) {
            const auto end = piece.find('\n');
            const bool whole = end != std::string_view::npos;
            partial_ += piece.substr(0, whole ? end + 1 : piece.size());
            piece.remove_prefix(whole ? end + 1 : piece.size());
            if (whole || partial_.size() > PARTIAL_LINE_MAX)
                take();
        }
    }
    void end() override
    {
        if (!partial_.empty())
            take();
        finish();
    }

protected:
    virtual void line(const std::string &text) = 0;
    virtual void finish() {}
    output_sink sink_;

private:
    void take()
    {
        line(partial_);
        partial_.clear();
    }
    std::string partial_;
};

class picking_filter : public line_filter {
public:
    picking_filter(output_sink sink, std::string wanted, bool with)
        : line_filter(std::move(sink)), wanted_(std::move(wanted)), with_(with)
    {
    }

private:
    void line(const std::string &text) override
    {
        if ((text.find(wanted_) != std::string::npos) == with_)
            sink_(text);
    }
    std::string wanted_;
    bool with_;
};

class counting_filter : public line_filter {
public:
    using line_filter::line_filter;

private:
    void line(const std::string &) override { ++count_; }
    void finish() override { sink_(std::to_string(count_) + "\n"); }
    std::size_t count_ = 0;
};

class json_filter : public output_filter {
public:
    json_filter(output_sink sink, const json_schema &schema) : sink_(std::move(sink)), schema_(schema) {}
    void text(std::string_view piece) override
    {
        if (collected_.size() + piece.size() <= JSON_INPUT_MAX)
            collected_ += piece;
        else
            too_long_ = true;
    }
    void end() override
    {
        sink_(too_long_ ? "{\"error\": \"the output is too long\"}\n" : schema_.read(collected_) + "\n");
    }

private:
    output_sink sink_;
    const json_schema &schema_;
    std::string collected_;
    bool too_long_ = false;
};

struct filter_word {
    const char *word, *help;
    bool text;                           // takes a text
};
constexpr auto FILTERS = std::to_array<filter_word>({
    {"include", "Only lines with this text", true},
    {"exclude", "Only lines without this text", true},
    {"count", "How many lines there are", false},
    {"json", "As JSON", false},
});

std::string names()
{
    std::string text;
    for (const auto &f : FILTERS)
        text += (text.empty() ? "" : &f == &FILTERS.back() ? " or " : ", ") + std::string(f.word);
    return text;
}

const filter_word *chosen(const token &word, line_error &error)
{
    const filter_word *found = nullptr;
    for (const auto &f : FILTERS) {
        if (!std::string_view(f.word).starts_with(word.text))
            continue;
        if (found != nullptr) {
            error = {word.at, word.length, "\"" + word.text + "\" is ambiguous: " + names()};
            return nullptr;
        }
        found = &f;
    }
    if (found == nullptr)
        error = {word.at, word.length, "unknown word \"" + word.text.substr(0, 40) + "\"; expected " + names()};
    return found;
}

// The text to look for: what follows, blanks inside included, or what stands in quotes.
std::string wanted_text(const split_line &words, std::string_view line)
{
    if (words.words.size() == 2 && words.words[1].quoted)
        return words.words[1].text;
    return std::string(line.substr(words.words[1].at, words.end - words.words[1].at));
}

} // namespace

std::unique_ptr<output_filter> make_filter(std::string_view text, const std::string &schema_name, output_sink sink,
                                           line_error &error)
{
    const split_line words = split(text);
    if ((error = words.error))
        return nullptr;
    if (words.words.empty()) {
        error = {text.size(), 0, "expected " + names()};
        return nullptr;
    }
    const filter_word *f = chosen(words.words.front(), error);
    if (f == nullptr)
        return nullptr;
    const json_schema *schema = find_json_schema(schema_name);
    if (words.filter != std::string::npos)
        error = {words.filter, 1, "one filter a command"};
    else if (f->text && words.words.size() < 2)
        error = {words.end, 0, "expected the text to look for"};
    else if (!f->text && words.words.size() > 1)
        error = {words.words[1].at, words.words[1].length, "nothing more is expected here"};
    else if (std::string_view(f->word) == "json" && schema == nullptr)
        error = {words.words[0].at, words.words[0].length, "this command has no JSON form"};
    if (error)
        return nullptr;
    if (f->text)
        return std::make_unique<picking_filter>(std::move(sink), wanted_text(words, text),
                                                std::string_view(f->word) == "include");
    if (std::string_view(f->word) == "json")
        return std::make_unique<json_filter>(std::move(sink), *schema);
    return std::make_unique<counting_filter>(std::move(sink));
}

completion_result complete_filter(std::string_view text, bool json)
{
    completion_result result;
    const split_line words = split(text);
    result.from = text.size();
    const bool in_first = words.words.empty() || (words.words.size() == 1 && words.end == text.size());
    const std::string prefix = words.words.empty() ? "" : words.words.front().text;
    if (!in_first) {
        line_error error;
        const auto *f = chosen(words.words.front(), error);
        if (f != nullptr && f->text && words.words.size() == 1)
            result.choices.push_back({"<text>", "Text to look for", false});
        result.error = error;
        return result;
    }
    if (!words.words.empty())
        result.from = words.words.front().at;
    for (const auto &f : FILTERS)
        if (std::string_view(f.word).starts_with(prefix) && (json || std::string_view(f.word) != "json"))
            result.choices.push_back({f.word, f.help, true});
    return result;
}

} // namespace corvaned
