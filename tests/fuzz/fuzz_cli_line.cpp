// The command parser: any line, in any mode, against the installed grammar, with what stands behind a bar. Byte 0: bits
// 0 and 1 the mode, bit 2 commands of outer modes are found, bit 3 views only, bit 4 names of the machine are known.
#include "fuzz.h"

#include "../../platform/corvaned/cmdsrv_filter.h"
#include "../../platform/corvaned/cmdsrv_json.h"
#include "../../platform/corvaned/tests/cmdsrv_installed.h"

#include <algorithm>
#include <string>

using namespace corvaned;

namespace {

const grammar &installed()
{
    static const grammar *the_grammar = [] {
        auto *made = new grammar;
        for (const char *file : {"platform.cli", "lum.cli"})
            fuzz::require(made->add_file(corvaned_test::installed_grammar(file)).empty());
        return made;
    }();
    return *the_grammar;
}

const live_values &machine()
{
    using names = std::vector<std::pair<std::string, std::string>>;
    static const live_values values{
        [](value_type, const std::string &name) { return name == "eth0" || name == "Overlay1" || name == "no"; },
        [](value_type type) {
            return type == value_type::INTERFACE ? names{{"eth0", "up"}, {"eth\xFF 1", ""}, {"Overlay1", "overlay, up"}}
                   : type == value_type::VLAN    ? names{{"10", ""}, {"20", ""}}
                                                 : names{};
        }};
    return values;
}

void check_error(const line_error &error, std::size_t size)
{
    fuzz::require(error.at <= size && error.length <= size - error.at);
    fuzz::require(error.text.size() < 4096);
}

// The full text of a command means that command again, with the same arguments.
void check_full_text(const parse_context &context, const parsed_command &command)
{
    const auto again = parse({context.commands, command.found_in, false, context.views_only, nullptr},
                             (command.no ? "no " : "") + command.text);
    // Quoting may make a line longer than lines may be.
    if (command.text.size() + 3 > LINE_MAX_BYTES)
        return;
    fuzz::require(!again.error && !again.empty);
    fuzz::require(again.command.command == command.command && again.command.no == command.no);
    fuzz::require(again.command.text == command.text && again.command.arguments == command.arguments);
    fuzz::require(again.command.interfaces == command.interfaces);
}

void check_choices(const completion_result &result, std::string_view line)
{
    fuzz::require(result.from <= line.size());
    check_error(result.error, line.size());
    const auto typed = line.substr(result.from);
    if (typed.find('"') != std::string_view::npos)
        return;
    for (const auto &choice : result.choices)
        fuzz::require(!choice.insertable || std::string_view(choice.word).starts_with(typed));
}

void filter_something(std::string_view text, const std::string &schema)
{
    line_error error;
    std::string out;
    const auto filter = make_filter(text, schema, [&](std::string_view piece) { out += piece; }, error);
    check_error(error, text.size());
    fuzz::require((filter == nullptr) == static_cast<bool>(error));
    check_choices(complete_filter(text, find_json_schema(schema) != nullptr), text);
    if (!filter)
        return;
    filter->text("LUM Overlay Information\n\nInterf");
    filter->text("ace      Name                      IOD    State   Reason\nOverlay1");
    filter->end();
    fuzz::require(out.empty() || out.back() == '\n' || out == "Overlay1" || out.ends_with("\nOverlay1"));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size < 1)
        return 0;
    const std::string_view line(reinterpret_cast<const char *>(data) + 1, size - 1);
    const parse_context context{&installed(), static_cast<mode>(data[0] & 3), (data[0] & 4) != 0, (data[0] & 8) != 0,
                                (data[0] & 16) != 0 ? &machine() : nullptr};
    const split_line words = split(line);
    check_error(words.error, line.size());
    const auto result = parse(context, line);
    check_error(result.error, line.size());
    const bool accepted = !result.error && !result.empty;
    if (accepted)
        check_full_text(context, result.command);
    if (words.filter == std::string::npos)
        check_choices(complete(context, line), line);
    else
        filter_something(line.substr(words.filter + 1), accepted ? result.command.command->json : "");
    return 0;
}

std::vector<fuzz::input> fuzz::seeds()
{
    constexpr char EXEC = 0x14, CONFIGURE = 0x15, OVERLAY = 0x16, DEVICE = 0x17, VIEWS = 0x1C, IN_FILE = 0x01;
    const std::pair<char, std::string> lines[] = {
        {EXEC, "sh lum ov Overlay1 sum | json"},
        {EXEC, "show lum site name \"two \\\"words\\\" \\\\\""},
        {EXEC, "show int | include \"up \" ! comment"},
        {EXEC, "show logging | exclude a | b"},
        {EXEC, "debug lum packet destination 100/02:00:00:00:00:0a unicast source 1/ff:ff:ff:ff:ff:ff"},
        {EXEC, "test lum rtab add 10/02:00:00:00:00:0a next-hop 2001:db8::1 interface eth0"},
        {EXEC, "configure file /etc/x --check"},
        {CONFIGURE, "no lum route 10/02:00:00:00:0b:10 interface Overlay1 next-hop 192.0.2.2"},
        {CONFIGURE, "lum mroute 10 239.1.1.1 source 192.0.2.9 interface eth1"},
        {CONFIGURE, "interface overlay 0017"},
        {CONFIGURE, "logging level lum 7"},
        {OVERLAY, "lum vpn-vlan 1-5,7,9-4094"},
        {OVERLAY, "lum core-group ff05::1:0:0/96"},
        {OVERLAY, "lum vpn-encap-format g ipv6"},
        {DEVICE, "switchport trunk allowed vlan 1,2,3-"},
        {DEVICE, "no switchport"},
        {VIEWS, "show running-config | count"},
        {IN_FILE, "lum anycast-arp 10.0.0.1\r\t! x"},
        {EXEC, "show \x01\xFF\"\x80"},
    };
    std::vector<input> made;
    for (const auto &[head, text] : lines) {
        input &seed = made.emplace_back(1, static_cast<std::uint8_t>(head));
        seed.insert(seed.end(), text.begin(), text.end());
    }
    return made;
}
