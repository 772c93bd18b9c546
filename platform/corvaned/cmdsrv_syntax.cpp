// A recursive reader over the tokens of the line. Each part of the syntax yields the elements it can begin with, those
// it can end with, and whether it can be left out; joining two parts lets the ends of one be followed by the
// beginnings of the other.
#include "cmdsrv_syntax.h"

#include "../libcorvane/base/cli_value.h"

#include <algorithm>
#include <array>

namespace corvaned {

namespace {

using positions = std::vector<std::uint16_t>;

struct fragment {
    positions first, last;
    bool optional = false;
};

constexpr std::uint32_t TEXT_DEFAULT_MAX = 100;
constexpr std::size_t ANY_ORDER_MAX = 16;

constexpr auto TYPES = std::to_array<value_type_info>({
    {value_type::KEYWORD, "", "a word", ""},
    {value_type::INTEGER, "integer", "a number", "5"},
    {value_type::VLAN, "vlan", "a VLAN id, 0 to 4095", "10"},
    {value_type::IPV4, "ipv4", "an IPv4 address", "192.0.2.1"},
    {value_type::IPV6, "ipv6", "an IPv6 address", "2001:db8::1"},
    {value_type::ADDRESS, "address", "an IPv4 or IPv6 address", "192.0.2.1"},
    {value_type::PREFIX, "prefix", "an IPv4 prefix", "232.1.0.0/16"},
    {value_type::PREFIX6, "prefix6", "an IPv6 prefix", "ff05::1:0:0/96"},
    {value_type::MAC, "mac", "a MAC address", "02:00:00:00:00:0a"},
    {value_type::MAC_INFO, "mac-info", "a VLAN and MAC address", "100/02:00:00:00:00:0a"},
    {value_type::INTERFACE, "interface", "an interface name", "eth1"},
    {value_type::OVERLAY, "overlay", "an overlay interface", "Overlay1"},
    {value_type::OVERLAY_NUMBER, "overlay-number", "an overlay interface", "Overlay1"},
    {value_type::TEXT, "text", "a text", "blue"},
    {value_type::VLAN_LIST, "vlan-list", "a list of VLAN ids and ranges, 0 to 4095", "10,20-30"},
    {value_type::PATH, "path", "a file name", "/etc/corvane/edge.conf"},
    {value_type::REST, "rest", "the rest of the line", "text"},
});

std::vector<std::string_view> tokens_of(std::string_view text)
{
    constexpr std::string_view MARKS = "[]{}()|";
    std::vector<std::string_view> tokens;
    std::size_t at = 0;
    while (at < text.size()) {
        if (text[at] == ' ' || text[at] == '\t') {
            ++at;
            continue;
        }
        std::size_t end = at + 1;
        if (text[at] == '<')
            end = std::min(text.find('>', at), text.size() - 1) + 1;
        else if (MARKS.find(text[at]) == std::string_view::npos)
            end = std::min(text.find_first_of(" \t[]{}()|<", at), text.size());
        tokens.push_back(text.substr(at, end - at));
        at = end;
    }
    return tokens;
}

bool is_word(std::string_view text)
{
    return !text.empty() && text.size() <= 64 && std::ranges::all_of(text, [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
               c == '=';
    });
}

class reader {
public:
    reader(command_syntax &syntax, std::string &error, std::vector<std::string_view> tokens)
        : syntax_(syntax), error_(error), tokens_(std::move(tokens))
    {
    }

    bool read()
    {
        fragment whole;
        if (!sequence(whole, 0))
            return false;
        if (at_ != tokens_.size())
            return fail("unmatched '" + std::string(tokens_[at_]) + "'");
        if (syntax_.elements.empty())
            return fail("no words");
        syntax_.first = whole.first;
        syntax_.empty_allowed = whole.optional;
        for (const auto p : whole.last)
            syntax_.elements[p].last = true;
        return true;
    }

private:
    bool fail(std::string text)
    {
        error_ = std::move(text);
        return false;
    }

    [[nodiscard]] std::string_view next() const { return at_ < tokens_.size() ? tokens_[at_] : std::string_view(); }

    void follow(const positions &ends, const positions &beginnings)
    {
        for (const auto e : ends) {
            auto &list = syntax_.elements[e].follow;
            for (const auto b : beginnings)
                if (std::ranges::find(list, b) == list.end())
                    list.push_back(b);
        }
    }

    // Appends `part` behind `whole`.
    void join(fragment &whole, const fragment &part)
    {
        follow(whole.last, part.first);
        if (whole.optional)
            whole.first.insert(whole.first.end(), part.first.begin(), part.first.end());
        if (part.optional)
            whole.last.insert(whole.last.end(), part.last.begin(), part.last.end());
        else
            whole.last = part.last;
        whole.optional = whole.optional && part.optional;
    }

    bool sequence(fragment &whole, std::size_t depth)
    {
        whole.optional = true;
        while (!next().empty() && std::string_view("]})|").find(next().front()) == std::string_view::npos) {
            fragment part;
            if (!item(part, depth))
                return false;
            join(whole, part);
        }
        return true;
    }

    bool item(fragment &part, std::size_t depth)
    {
        switch (next().front()) {
        case '[':
            return group(part, ']', depth) && (part.optional = true);
        case '{':
            return group(part, '}', depth);
        case '(':
            return group(part, ')', depth) && (part.optional = true);
        default:
            return element(part);
        }
    }

    bool group(fragment &part, char close, std::size_t depth)
    {
        if (depth >= GRAMMAR_DEPTH_MAX)
            return fail("nested too deeply");
        const bool any_order = close == ')';
        if (any_order && (any_order_seen_ || depth > 0))
            return fail("one group in any order a command, not inside another group");
        any_order_seen_ = any_order_seen_ || any_order;
        std::vector<fragment> alternatives;
        do {
            ++at_;                                           // the opening mark, or the bar
            if (!sequence(alternatives.emplace_back(), depth + 1))
                return false;
            if (alternatives.back().optional)
                return fail("an alternative that can be empty");
        } while (next() == "|");
        if (next() != std::string_view(&close, 1))
            return fail(std::string("'") + close + "' is missing");
        ++at_;
        if (any_order && !mark_any_order(alternatives))
            return false;
        for (const auto &a : alternatives) {
            part.first.insert(part.first.end(), a.first.begin(), a.first.end());
            part.last.insert(part.last.end(), a.last.begin(), a.last.end());
        }
        return true;
    }

    bool mark_any_order(const std::vector<fragment> &alternatives)
    {
        if (alternatives.size() > ANY_ORDER_MAX)
            return fail("too many alternatives in any order");
        for (std::size_t i = 0; i < alternatives.size(); ++i) {
            for (const auto p : alternatives[i].first)
                syntax_.elements[p].enters = static_cast<int>(i);
            for (std::size_t j = 0; j < alternatives.size(); ++j)
                if (i != j)
                    follow(alternatives[i].last, alternatives[j].first);
        }
        return true;
    }

    bool element(fragment &part)
    {
        if (syntax_.elements.size() >= GRAMMAR_ELEMENTS_MAX)
            return fail("too many words");
        syntax_element made;
        if (!(next().front() == '<' ? value(made, next()) : keyword(made, next())))
            return false;
        ++at_;
        part.first = part.last = {static_cast<std::uint16_t>(syntax_.elements.size())};
        syntax_.elements.push_back(std::move(made));
        return true;
    }

    bool keyword(syntax_element &made, std::string_view token)
    {
        const auto equals = token.find('=');
        made.word = token.substr(0, equals);
        made.argument = equals == std::string_view::npos ? made.word : std::string(token.substr(equals + 1));
        if (!is_word(token) || made.word.empty() || made.argument.empty())
            return fail("'" + std::string(token) + "' is no word");
        return true;
    }

    bool value(syntax_element &made, std::string_view token)
    {
        const auto colon = token.find(':');
        if (token.size() < 5 || token.back() != '>' || colon == std::string_view::npos ||
            !is_word(token.substr(1, colon - 1)))
            return fail("'" + std::string(token) + "' is no <name:type>");
        made.word = made.argument = std::string(token.substr(0, colon)) + ">";
        std::string_view type = token.substr(colon + 1, token.size() - colon - 2), limits;
        if (const auto open = type.find('('); open != std::string_view::npos) {
            if (type.back() != ')')
                return fail("')' is missing in '" + std::string(token) + "'");
            limits = type.substr(open + 1, type.size() - open - 2);
            type = type.substr(0, open);
        }
        const auto *found = std::ranges::find_if(TYPES, [&](const auto &t) { return t.name == type; });
        if (type.empty() || found == TYPES.end())
            return fail("unknown type '" + std::string(type) + "'");
        made.type = found->type;
        return bounds(made, limits);
    }

    bool bounds(syntax_element &made, std::string_view limits)
    {
        made.most = made.type == value_type::TEXT ? TEXT_DEFAULT_MAX : made.type == value_type::VLAN ? 4095 : UINT32_MAX;
        if (limits.empty())
            return true;
        const auto dash = limits.find('-');
        const auto least = dash == std::string_view::npos ? std::optional<std::uint32_t>(0)
                                                          : corvane::value_integer(limits.substr(0, dash));
        const auto most = corvane::value_integer(dash == std::string_view::npos ? limits : limits.substr(dash + 1));
        if (!least || !most || *least > *most)
            return fail("'" + std::string(limits) + "' is no range");
        made.least = *least;
        made.most = *most;
        return true;
    }

    command_syntax &syntax_;
    std::string &error_;
    std::vector<std::string_view> tokens_;
    std::size_t at_ = 0;
    bool any_order_seen_ = false;
};

} // namespace

const value_type_info &value_type_of(value_type type) { return TYPES[static_cast<std::size_t>(type)]; }

bool compile_syntax(std::string_view text, command_syntax &syntax, std::string &error)
{
    syntax = {};
    syntax.text = text;
    return reader(syntax, error, tokens_of(text)).read();
}

} // namespace corvaned
