// Tables that the platform prints, read for `| json`.
#include "cmdsrv_json.h"
#include "cmdsrv_json_text.h"

#include <algorithm>
#include <memory>
#include <optional>

namespace corvaned::json_reader {

namespace {

// Collects an interface, whose VLANs and addresses may go on in lines below it.
class interface_reader {
public:
    void line(std::string_view text)
    {
        constexpr std::size_t FIXED = 5;         // columns in front of the last one
        const auto words = words_of(text);
        if (text.starts_with("Interface  "))
            return;
        if (text.starts_with(' ') && current_) {
            for (const auto word : words)
                last_column(word);
        } else if (words.size() >= FIXED && is_number(words[1])) {
            open(words);
            for (std::size_t i = FIXED; i < words.size(); ++i)
                last_column(words[i]);
        } else {
            other_.add_text(text);
        }
    }
    std::string done()
    {
        finish();
        return json_result("interfaces", rows_, other_);
    }

private:
    void open(const std::vector<std::string_view> &words)
    {
        finish();
        begin(current_)
            .text("interface", words[0])
            .number("iod", words[1])
            .text("state", words[2])
            .number("mtu", words[3])
            .text("mode", words[4]);
    }
    void last_column(std::string_view word)
    {
        if (word.find_first_of(".:") != std::string_view::npos)
            addresses_.add_text(word);
        else if (word != "-")
            vlans_ += word;
    }
    void finish()
    {
        if (current_)
            rows_.add(current_->text_or_null("vlans", vlans_).raw("addresses", addresses_.done()).done());
        current_.reset();
        vlans_.clear();
        addresses_ = {};
    }

    std::unique_ptr<json_object> current_;
    std::string vlans_;
    json_list rows_, other_, addresses_;
};

// "2026-01-02T03:04:05.678 lum[17]: text"
std::optional<std::string> log_row(std::string_view line)
{
    const auto time_end = line.find(' ');
    const auto open = line.find('[', time_end == std::string_view::npos ? line.size() : time_end);
    const auto close = line.find("]: ", open == std::string_view::npos ? line.size() : open);
    if (close == std::string_view::npos || !is_number(line.substr(open + 1, close - open - 1)))
        return std::nullopt;
    return json_object()
        .text("time", line.substr(0, time_end))
        .text("process", line.substr(time_end + 1, open - time_end - 1))
        .number("pid", line.substr(open + 1, close - open - 1))
        .text("text", line.substr(close + 3))
        .done();
}

std::optional<std::string> service_row(std::string_view line)
{
    const auto words = words_of(line);
    if (words.size() != 4 || !is_number(words[0]) || !is_number(words[3]))
        return std::nullopt;
    return json_object()
        .number("number", words[0])
        .text("name", words[1])
        .text("state", words[2])
        .number("pid", words[3])
        .done();
}

std::optional<std::string> drop_row(std::string_view line)
{
    const auto last = line.rfind("  ");
    if (last == std::string_view::npos || !is_number(trimmed(line.substr(last))))
        return std::nullopt;
    return json_object()
        .text("reason", trimmed(line.substr(0, last)))
        .number("count", trimmed(line.substr(last)))
        .done();
}

template <class Row> std::string rows(std::string_view name, std::string_view text, Row row)
{
    json_list list, other;
    each_line(text, [&](std::string_view line) {
        if (const auto read = row(line))
            list.add(*read);
        else
            other.add_text(line);
    });
    return json_result(name, list, other);
}

} // namespace

std::string interfaces(std::string_view text)
{
    interface_reader reader;
    each_line(text, [&](std::string_view line) { reader.line(line); });
    return reader.done();
}

std::string log_lines(std::string_view text) { return rows("log", text, log_row); }
std::string services(std::string_view text)
{
    if (text.starts_with("Number "))             // the head of the table
        text.remove_prefix(std::min(text.find('\n'), text.size() - 1) + 1);
    return rows("services", text, service_row);
}
std::string drops(std::string_view text) { return rows("drops", text, drop_row); }

std::string errors(std::string_view text)
{
    json_list list;
    each_line(text, [&](std::string_view line) { list.add_text(line); });
    return json_result("errors", list, {});
}

// A line of a mode belongs to the interface above it.
std::string configuration(std::string_view text)
{
    json_list list;
    std::string_view interface;
    each_line(text, [&](std::string_view line) {
        const bool inner = line.starts_with(' ');
        if (!inner)
            interface = behind(line, "interface ").value_or("");
        list.add(json_object().text_or_null("interface", inner ? interface : "").text("line", trimmed(line)).done());
    });
    return json_result("configuration", list, {});
}

} // namespace corvaned::json_reader
