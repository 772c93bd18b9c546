// Tables that the daemon prints, read for `| json`. Their formats are fixed; names of overlays may hold blanks and
// leave their column, so rows are read from where the columns are certain.
#include "cmdsrv_json.h"
#include "cmdsrv_json_text.h"

#include <array>
#include <memory>
#include <optional>
#include <utility>

namespace corvaned::json_reader {

namespace {

// ---- overlays

constexpr auto STATES = std::to_array<std::string_view>({"None", "DOWN", "UP"});

// A row of the summary, "%-15s%-20s%9lu    %-8s%s". What stands behind the name is found from the end.
std::optional<std::string> overlay_row(std::string_view line)
{
    std::size_t at = 0;
    std::string_view state;
    for (const auto s : STATES) {
        const auto found = line.rfind("    " + std::string(s) + " ");
        if (found != std::string_view::npos && found > at) {
            at = found;
            state = s;
        }
    }
    const auto head = line.substr(0, at);
    const auto iod = head.substr(std::min(head.find_last_not_of("0123456789") + 1, head.size()));
    const auto words = words_of(head);
    if (state.empty() || !is_number(iod) || words.empty())
        return std::nullopt;
    const auto reason = cell(line, at + 4 + state.size());
    json_object row;
    row.text("interface", words[0])
        .text_or_null("name", trimmed(head.substr(words[0].size(), head.size() - words[0].size() - iod.size())))
        .number("iod", iod)
        .text("state", state);
    return (state == "UP" && reason == "None" ? row : row.text("reason", reason)).done();
}

enum class field_kind { TEXT, NUMBER, OPTIONAL };
struct overlay_field {
    std::string_view label;
    const char *name;
    field_kind kind;
};
constexpr auto OVERLAY_FIELDS = std::to_array<overlay_field>({
    {"VPN Name", "name", field_kind::OPTIONAL},
    {"VPN ID", "vpn_id", field_kind::NUMBER},
    {"State", "state", field_kind::TEXT},
    {"IPv4 multicast group", "ipv4_group", field_kind::OPTIONAL},
    {"IPv6 multicast group", "ipv6_group", field_kind::OPTIONAL},
    {"External interface(s)", "external_interface", field_kind::OPTIONAL},
    {"External IPv4 address", "external_ipv4", field_kind::TEXT},
    {"External IPv6 address", "external_ipv6", field_kind::TEXT},
    {"Encapsulation format", "encapsulation", field_kind::TEXT},
    {"Site-vlan", "site_vlan", field_kind::NUMBER},
});

class overlay_reader {
public:
    void line(std::string_view text)
    {
        constexpr std::size_t LABEL = 25, VALUE = 28;        // "%-25s : %s"
        if (text.empty() || text == "LUM Overlay Information" || text.starts_with("Interface      Name "))
            return;
        if (const auto interface = behind(text, "Overlay Interface ")) {
            finish();
            begin(current_).text("interface", *interface);
        } else if (current_ && text.size() >= VALUE && text.substr(LABEL, 3) == " : ") {
            field(trimmed(text.substr(0, LABEL)), text.substr(VALUE), text);
        } else if (const auto row = overlay_row(text)) {
            rows_.add(*row);
        } else {
            other_.add_text(text);
        }
    }
    std::string done()
    {
        finish();
        return json_result("overlays", rows_, other_);
    }

private:
    void field(std::string_view label, std::string_view value, std::string_view line)
    {
        const auto *known = std::ranges::find(OVERLAY_FIELDS, label, &overlay_field::label);
        if (label.empty() && value == "Notification pending")
            current_->flag("notification_pending", true);
        else if (label.empty())
            current_->text("reason", value);
        else if (known == OVERLAY_FIELDS.end())
            other_.add_text(line);
        else if (known->kind == field_kind::NUMBER)
            current_->number(known->name, value);
        else if (known->kind == field_kind::OPTIONAL)
            current_->text_or_null(known->name, value == "[None]" ? "" : value);
        else
            current_->text(known->name, value);
    }
    void finish()
    {
        if (current_)
            rows_.add(current_->done());
        current_.reset();
    }

    std::unique_ptr<json_object> current_;
    json_list rows_, other_;
};

// ---- VLANs

constexpr std::size_t PORTS_AT = 9, NAME_AT = 24;            // "%-9d%-15s", and behind it "%-10s%-11s%-15s%s"
constexpr std::size_t NAME_WIDTH = 10, OVERLAY_WIDTH = 11, EXTERNAL_WIDTH = 15;

struct overlay_place {
    std::size_t at = std::string_view::npos, length = 0, end = 0;    // its name, and where the next column begins
};

// The interface "Overlay<N>" behind a name of any length. The last one counts, since a VPN may be named like an
// interface, and it has a whole column of the external interface behind it.
overlay_place place_of_overlay(std::string_view text)
{
    constexpr std::string_view NAME = "Overlay";
    for (auto at = text.rfind(NAME); at != std::string_view::npos && at >= NAME_WIDTH; at = text.rfind(NAME, at - 1)) {
        const auto digits = text.find_first_not_of("0123456789", at + NAME.size());
        const auto length = (digits == std::string_view::npos ? text.size() : digits) - at;
        const auto end = at + std::max(length, OVERLAY_WIDTH);
        const bool padded = trimmed(text.substr(at, end - at)).size() == length;
        if (length > NAME.size() && padded && end + EXTERNAL_WIDTH < text.size())
            return {at, length, end};
    }
    return {};
}

class vlan_reader {
public:
    void line(std::string_view text)
    {
        if (text.empty() || text == "LUM VLAN Configuration Information" || text.starts_with("VLAN-ID  Switchport/") ||
            text.starts_with("         Blocked Count"))
            return;
        if (row_begins(text))
            row(text);
        else if (current_)
            take_ports(text);
        else
            other_.add_text(text);
    }
    std::string done()
    {
        finish();
        return json_result("vlans", rows_, other_);
    }

private:
    static bool row_begins(std::string_view text)
    {
        const auto words = words_of(text);
        const auto slash = words.size() < 2 ? std::string_view::npos : words[1].find('/');
        return slash != std::string_view::npos && !text.starts_with(' ') && is_number(words[0]) &&
               text.find(words[1], words[0].size()) == PORTS_AT && is_number(words[1].substr(0, slash)) &&
               is_number(words[1].substr(slash + 1));
    }
    void row(std::string_view text)
    {
        finish();
        const auto counts = cell(text, PORTS_AT, NAME_AT - PORTS_AT);
        const auto slash = counts.find('/');
        const auto rest = text.size() > NAME_AT ? text.substr(NAME_AT) : std::string_view();
        const auto overlay = place_of_overlay(rest);
        const bool carried = overlay.at != std::string_view::npos;
        begin(current_)
            .number("vlan", cell(text, 0, PORTS_AT))
            .number("ports", counts.substr(0, slash))
            .number("blocked", counts.substr(slash + 1))
            .text_or_null("name", carried ? trimmed(rest.substr(0, overlay.at)) : "")
            .text_or_null("overlay", carried ? rest.substr(overlay.at, overlay.length) : "")
            .text_or_null("external_interface", carried ? cell(rest, overlay.end, EXTERNAL_WIDTH) : "")
            .text_or_null("group", carried ? cell(rest, overlay.end + EXTERNAL_WIDTH) : "");
    }
    // Ports, two blanks behind each. A list may end without a line end: then the row of the next VLAN follows.
    void take_ports(std::string_view text)
    {
        has_ports_ = true;
        text.remove_prefix(text.starts_with("    ") ? 4 : 0);
        while (!text.empty()) {
            if (row_begins(text)) {
                row(text);
                return;
            }
            const auto end = std::min(text.find("  "), text.size());
            ports_.add_text(text.substr(0, end));
            text.remove_prefix(std::min(end + 2, text.size()));
        }
    }
    void finish()
    {
        if (!current_)
            return;
        if (has_ports_)
            current_->raw("port_list", ports_.done());
        rows_.add(current_->done());
        current_.reset();
        ports_ = {};
        has_ports_ = false;
    }

    std::unique_ptr<json_object> current_;
    json_list rows_, other_, ports_;
    bool has_ports_ = false;
};

// ---- edge devices of this site: a heading an overlay, its rows behind it

class site_reader {
public:
    void line(std::string_view text)
    {
        if (text.empty() || text == "Site Adjacency database" || text.starts_with("  System-ID "))
            return;
        const auto count = text.rfind(", Adjacencies: ");
        if (text.starts_with(" Site-VLAN ")) {
            site_vlan_ = trimmed(text.substr(text.rfind(':') + 1));
        } else if (text.starts_with("Overlay: ") && count != std::string_view::npos && count >= 9) {
            finish();
            begin(current_).text("overlay", text.substr(9, count - 9));
        } else if (!row(text)) {
            other_.add_text(text);
        }
    }
    std::string done()
    {
        finish();
        json_object all;
        all.raw("site_vlan", is_number(site_vlan_) ? site_vlan_ : "0").raw("overlays", overlays_.done());
        if (!other_.empty())
            all.raw("other", other_.done());
        return all.done();
    }

private:
    bool row(std::string_view text)
    {
        const bool local = text.starts_with('*');
        const auto words = words_of(local ? text.substr(1) : text);
        if (!current_ || words.size() != 3 || !is_number(words[1]) || !is_number(words[2]))
            return false;
        rows_.add(json_object()
                      .text("system_id", words[0])
                      .flag("local", local)
                      .number("priority", words[1])
                      .number("ordinal", words[2])
                      .done());
        return true;
    }
    void finish()
    {
        if (current_)
            overlays_.add(current_->raw("adjacencies", rows_.done()).done());
        current_.reset();
        rows_ = {};
    }

    std::string site_vlan_;
    std::unique_ptr<json_object> current_;
    json_list overlays_, rows_, other_;
};

// ---- records of the shared database

// Cuts off what stands behind the last `mark`; nothing when there is none.
std::optional<std::string_view> cut_behind(std::string_view &line, std::string_view mark)
{
    const auto at = line.rfind(mark);
    if (at == std::string_view::npos)
        return std::nullopt;
    const auto value = line.substr(at + mark.size());
    line = line.substr(0, at);
    return value;
}

class sdb_reader {
public:
    void line(std::string_view text)
    {
        if (!overlay(text) && !external(text) && !groups(text) && !adjacency(text))
            other_.add_text(text);
    }
    std::string done()
    {
        finish();
        return json_result("records", rows_, other_);
    }

private:
    // "Overlay iod: %u, name: %s, state: %d, Reason: %d": the name is what is left.
    bool overlay(std::string_view text)
    {
        auto rest = behind(text, "Overlay iod: ");
        if (!rest)
            return false;
        const auto reason = cut_behind(*rest, ", Reason: "), state = cut_behind(*rest, ", state: ");
        const auto comma = rest->find(", name: ");
        if (!reason || !state || comma == std::string_view::npos)
            return false;
        finish();
        begin(current_)
            .number("iod", rest->substr(0, comma))
            .text_or_null("name", rest->substr(comma + 8))
            .number("state", *state)
            .number("reason", *reason);
        return true;
    }
    bool external(std::string_view text)
    {
        const auto iod = behind(text, "External iod: ");
        if (!current_ || !iod)
            return false;
        current_->number("external_iod", *iod);
        return true;
    }
    bool groups(std::string_view text)
    {
        auto rest = behind(text, "IPv4 group: ");
        const auto six = rest ? cut_behind(*rest, ", IPv6 group: ") : std::nullopt;
        if (!current_ || !six)
            return false;
        current_->text("ipv4_group", *rest).text("ipv6_group", *six);
        return true;
    }
    bool adjacency(std::string_view text)
    {
        const auto words = words_of(text);
        if (words.size() != 5 || words[0] != "iod:" || words[2] != "mac:" || !words[1].ends_with(',') ||
            !words[3].ends_with(','))
            return false;
        finish();
        rows_.add(json_object()
                      .number("iod", words[1].substr(0, words[1].size() - 1))
                      .text("mac", words[3].substr(0, words[3].size() - 1))
                      .text("address", words[4])
                      .done());
        return true;
    }
    void finish()
    {
        if (current_)
            rows_.add(current_->done());
        current_.reset();
    }

    std::unique_ptr<json_object> current_;
    json_list rows_, other_;
};

template <class Reader> std::string read_with(std::string_view text)
{
    Reader reader;
    each_line(text, [&](std::string_view line) { reader.line(line); });
    return reader.done();
}

} // namespace

std::string overlays(std::string_view text) { return read_with<overlay_reader>(text); }
std::string vlans(std::string_view text) { return read_with<vlan_reader>(text); }
std::string site(std::string_view text) { return read_with<site_reader>(text); }
std::string sdb_records(std::string_view text) { return read_with<sdb_reader>(text); }

std::string ports(std::string_view text)
{
    json_list rows, other;
    each_line(text, [&](std::string_view line) {
        const auto words = words_of(line);
        if (line == "LUM Switchport Information" || line == "Interface      VLAN ID")
            return;
        const bool trunk = words.size() == 2 && words[1] == "trunk-port";
        if (words.size() != 2 || (!trunk && !is_number(words[1])))
            other.add_text(line);
        else
            rows.add(json_object().text("interface", words[0]).flag("trunk", trunk).number("vlan", words[1]).done());
    });
    return json_result("ports", rows, other);
}

std::string adjacencies(std::string_view text)
{
    json_list rows, other;
    std::string_view overlay;
    each_line(text, [&](std::string_view line) {
        if (line.empty() || line == "Overlay Adjacency database" || line.starts_with("System-ID "))
            return;
        if (const auto heading = behind(line, "Overlay-Interface ")) {
            overlay = trimmed(heading->substr(0, heading->rfind(" :")));
            return;
        }
        const auto words = words_of(line);
        if (words.size() != 3 || !is_number(words[2]))
            other.add_text(line);
        else
            rows.add(json_object()
                         .text("overlay", overlay)
                         .text("system_id", words[0])
                         .text("address", words[1])
                         .number("tunnel_iod", words[2])
                         .done());
    });
    return json_result("adjacencies", rows, other);
}

// The heading stands once an overlay, without its name: overlays are counted from 0, in the order of their iods.
std::string arp_nd_cache(std::string_view text)
{
    json_list rows, other;
    int overlay = -1;
    each_line(text, [&](std::string_view line) {
        if (line == "LUM ARP/ND L3->L2 Address Mapping Cache")
            return;
        if (line.starts_with("VLAN/MAC Address ")) {
            ++overlay;
            return;
        }
        const auto words = words_of(line);
        const auto slash = words.empty() ? std::string_view::npos : words[0].find('/');
        if (words.size() != 3 || slash == std::string_view::npos || !is_number(words[0].substr(0, slash)))
            other.add_text(line);
        else
            rows.add(json_object()
                         .number("overlay", std::to_string(overlay))
                         .number("vlan", words[0].substr(0, slash))
                         .text("mac", words[0].substr(slash + 1))
                         .text("uptime", words[1])
                         .text("address", words[2])
                         .done());
    });
    return json_result("entries", rows, other);
}

std::string version(std::string_view text)
{
    static constexpr auto LABELS = std::to_array<std::pair<std::string_view, const char *>>({
        {"Process", "process"},
        {"Version", "version"},
        {"Build", "build"},
        {"Release", "release"},
        {"Built", "built"},
        {"Compiler", "compiler"},
        {"Revision", "revision"},
    });
    json_object all;
    json_list other;
    each_line(text, [&](std::string_view line) {
        const auto colon = line.find(" : ");
        const auto label = trimmed(line.substr(0, std::min(colon, line.size())));
        const auto *known = std::ranges::find(LABELS, label, [](const auto &l) { return l.first; });
        if (colon == std::string_view::npos || known == LABELS.end())
            other.add_text(line);
        else
            all.text(known->second, line.substr(colon + 3));
    });
    json_object result;
    result.raw("version", all.done());
    if (!other.empty())
        result.raw("other", other.done());
    return result.done();
}

} // namespace corvaned::json_reader
