// The reader of grammar files: any text, as a file that is installed and as one that a client brings. What it makes of
// the text is walked by the parser. The text's last line, behind a NUL byte, is a line to be parsed.
#include "fuzz.h"

#include "../../platform/corvaned/cmdsrv_parser.h"
#include "../../platform/corvaned/tests/cmdsrv_installed.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>

using namespace corvaned;

namespace {

void check_syntax(const command_syntax &syntax)
{
    const auto inside = [&](std::uint16_t e) { return e < syntax.elements.size(); };
    fuzz::require(syntax.elements.size() <= GRAMMAR_ELEMENTS_MAX);
    fuzz::require(std::ranges::all_of(syntax.first, inside));
    for (const auto &e : syntax.elements)
        fuzz::require(!e.word.empty() && !e.argument.empty() && std::ranges::all_of(e.follow, inside));
}

void check_commands(const grammar &g, const std::string &only)
{
    fuzz::require(g.all().size() <= GRAMMAR_COMMANDS_MAX);
    for (const auto &command : g.all()) {
        check_syntax(command.plain);
        check_syntax(command.no);
        fuzz::require(!command.handler.empty() && !command.modes.empty());
        fuzz::require(!command.plain.elements.empty() || !command.no.elements.empty());
        fuzz::require(only.empty() || command.client == only);
        (void)command.shows();
    }
}

void walk(const grammar &g, std::string_view line)
{
    for (std::size_t m = 0; m < MODE_COUNT; ++m) {
        const parse_context context{&g, static_cast<mode>(m), true, (m & 1) != 0, nullptr};
        (void)parse(context, line);
        fuzz::require(complete(context, line).from <= line.size());
        (void)complete(context, "");
    }
}

void read(std::string_view text, std::string_view line, const std::string &only)
{
    grammar g;
    for (const auto &error : g.add(text, "fuzz.cli", only))
        fuzz::require(!error.text.empty() && error.message().starts_with("fuzz.cli:"));
    check_commands(g, only);
    walk(g, line);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string_view all(reinterpret_cast<const char *>(data), size);
    const auto end = std::min(all.find('\0'), all.size());
    const auto line = all.substr(std::min(end + 1, all.size()));
    read(all.substr(0, end), line, "");
    read(all.substr(0, end), line, "lum");
    return 0;
}

// The installed files, a command each.
std::vector<fuzz::input> fuzz::seeds()
{
    std::vector<input> made;
    const auto add = [&](const std::string &text) { made.emplace_back(text.begin(), text.end()); };
    for (const char *name : {"platform.cli", "lum.cli"}) {
        std::ifstream file(corvaned_test::installed_grammar(name));
        const std::string text(std::istreambuf_iterator<char>(file), {});
        for (std::size_t at = text.find("\ncommand "); at != std::string::npos;) {
            const std::size_t next = text.find("\ncommand ", at + 1);
            add("client lum\n" + text.substr(at + 1, next - at - 1));
            at = next;
        }
    }
    add(std::string("client lum\nwords\n  show Show\ncommand f\n  mode exec device\n"
                    "  syntax show [a] [a] [a] [a] {b | <c:rest>}\n  brief x\n") +
        '\0' + "show a a a b");
    return made;
}
