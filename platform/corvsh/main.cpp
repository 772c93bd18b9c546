// corvsh: the shell of the platform. On a terminal it edits lines and pages output; with -c and -f, or fed by a pipe,
// it runs what it is given and says by its exit status whether all of it was accepted.
#include "connection.h"
#include "editor.h"
#include "pager.h"
#include "text.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <unistd.h>

using namespace corvsh;

namespace {

constexpr int EXIT_ACCEPTED = 0, EXIT_REJECTED = 1, EXIT_USAGE = 2;
constexpr std::size_t LINE_MAX_BYTES = 4096;

constexpr const char *USAGE =
    "usage: corvsh [--root DIR] [-c COMMAND]... [-f FILE]\n"
    "  --root DIR    where corvaned lives, $CORVANE_ROOT or /run/corvane unless given\n"
    "  -c COMMAND    run this command; several run in one session, modes kept\n"
    "  -f FILE       run the commands of this file, - for standard input\n"
    "Without -c and -f it reads commands from the terminal. The exit status is 1 if a command was rejected.\n";

struct task {
    bool file = false;
    std::string text;                            // the command, or the file's name
};
struct settings {
    std::string root, complete;
    bool completes = false;
    std::vector<task> tasks;
};

std::string default_root()
{
    const char *root = std::getenv("CORVANE_ROOT");
    return root != nullptr && *root != '\0' ? root : "/run/corvane";
}

// 0: go on; else what to exit with.
bool read_arguments(int argc, char **argv, settings &chosen)
{
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        const bool more = i + 1 < argc;
        if (word == "--root" && more)
            chosen.root = argv[++i];
        else if (word == "-c" && more)
            chosen.tasks.push_back({false, argv[++i]});
        else if (word == "-f" && more)
            chosen.tasks.push_back({true, argv[++i]});
        else if (word == "--complete" && more) {
            chosen.complete = argv[++i];
            chosen.completes = true;
        } else {
            return false;
        }
    }
    if (chosen.root.empty())
        chosen.root = default_root();
    return true;
}

// The line in front of a question mark that stands alone at its end: what may come next is asked for.
std::optional<std::string> asked_for_help(const std::string &line)
{
    const bool alone = line == "?" || line.ends_with(" ?");
    if (!alone || std::ranges::count(line, '"') % 2 == 1)
        return std::nullopt;
    return line.substr(0, line.size() - 1);
}

class shell {
public:
    explicit shell(connection &server) : server_(server) {}

    // `where` stands before what is said of a mistake: "file:12: ".
    outcome run_given(const std::string &line, const std::string &where)
    {
        if (line.size() > LINE_MAX_BYTES) {
            say(where + "the line is too long: " + std::to_string(line.size()) + " bytes, at most " +
                std::to_string(LINE_MAX_BYTES) + "\n");
            return {corvane::STATUS_REJECTED, mode_, false, false};
        }
        if (const auto begun = asked_for_help(line))
            return help(*begun, where + harmless(line) + "\n");
        bool told = where.empty();
        const auto result = server_.execute(
            line, {[&](bool error, std::string_view text) {
                       if (!error)
                           return std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
                       if (!told)
                           say(where + harmless(line) + "\n");
                       told = true;
                       say(std::string(text));
                       return true;
                   },
                   [&](std::size_t at, std::size_t length, const std::string &text) {
                       say(where + harmless(line) + "\n" +
                           mistake_text(line, columns_of(where), at, length, text));
                   },
                   [] { return false; }});
        std::fflush(stdout);
        mode_ = result.mode;
        return result;
    }

    int run_tasks(const std::vector<task> &tasks)
    {
        for (const auto &t : tasks) {
            const bool going = t.file ? run_file(t.text) : take(run_given(t.text, ""));
            if (!going)
                break;
        }
        return failed_ ? EXIT_REJECTED : EXIT_ACCEPTED;
    }

    int run_stream(std::istream &in, const std::string &name)
    {
        std::string line;
        for (std::size_t number = 1; std::getline(in, line); ++number) {
            if (!line.empty() && line.back() == '\r')
                line.pop_back();
            if (!take(run_given(line, name + ":" + std::to_string(number) + ": ")))
                break;
        }
        return failed_ ? EXIT_REJECTED : EXIT_ACCEPTED;
    }

    int run_terminal()
    {
        if (!server_.notice().empty())
            std::printf("%s\n", server_.notice().c_str());
        editor typed(server_, prompt());
        pager paged(isatty(STDOUT_FILENO) != 0);
        for (;;) {
            const auto line = typed.line();
            if (!line) {
                std::fputc('\n', stdout);
                return EXIT_ACCEPTED;
            }
            const outcome result = run_typed(*line, typed, paged);
            if (result.lost) {
                say("the connection to corvaned is lost\n");
                return EXIT_REJECTED;
            }
            if (result.over)
                return EXIT_ACCEPTED;
            typed.set_prompt(prompt());
        }
    }

private:
    static void say(const std::string &text)
    {
        std::fflush(stdout);
        std::fputs(text.c_str(), stderr);
    }

    // What may come behind `begun`. `headed` stands before what is said where nothing may.
    outcome help(const std::string &begun, const std::string &headed)
    {
        const choices what = server_.complete(begun);
        const bool any = !what.list.empty();
        if (any)
            std::fputs(harmless(choices_text(what)).c_str(), stdout);
        else if (!what.lost)
            say(headed + (what.error.empty() ? "nothing more is expected here" : what.error) + "\n");
        return {any ? corvane::STATUS_DONE : corvane::STATUS_REJECTED, mode_, false, what.lost};
    }

    // False: nothing more can run.
    bool take(const outcome &result)
    {
        failed_ = failed_ || !result.accepted();
        if (result.lost)
            say("the connection to corvaned is lost\n");
        if (std::ferror(stdout))                             // nobody reads it any more
            return false;
        return !result.lost && !result.over;
    }

    bool run_file(const std::string &name)
    {
        if (name == "-") {
            run_stream(std::cin, "-");
            return true;
        }
        std::ifstream in(name);
        if (!in) {
            std::perror(("corvsh: " + name).c_str());
            failed_ = true;
            return false;
        }
        run_stream(in, name);
        return !failed_ || !std::ferror(stdout);
    }

    outcome run_typed(const std::string &line, const editor &typed, pager &paged)
    {
        if (line.size() > LINE_MAX_BYTES) {
            say("the line is too long\n");
            return {corvane::STATUS_REJECTED, mode_, false, false};
        }
        paged.begin();
        (void)editor::take_interrupt();
        const auto result = server_.execute(
            line, {[&](bool, std::string_view text) { return paged.print(text) && !editor::take_interrupt(); },
                   [&](std::size_t at, std::size_t length, const std::string &text) {
                       const auto columns = terminal_columns();
                       std::fputs(mistake_text(line, typed.prompt_columns(), at, length, text, columns).c_str(), stdout);
                   },
                   editor::take_interrupt});
        paged.end_line();
        std::fflush(stdout);
        mode_ = result.mode;
        return result;
    }

    [[nodiscard]] std::string prompt() const
    {
        constexpr std::array<const char *, 3> ENDS = {"# ", "(config)# ", "(config-if)# "};
        return server_.host() + ENDS[static_cast<std::size_t>(mode_)];
    }

    connection &server_;
    corvane::shell_mode mode_ = corvane::shell_mode::EXEC;
    bool failed_ = false;
};

// For completion in other shells: what may come next, one a line. Words can be typed as they are; a value that cannot
// be listed is its name in angle brackets, the end of the command "<cr>".
int print_completions(connection &server, const std::string &line)
{
    for (const auto &c : server.complete(line).list)
        std::printf("%s\n", c.word.empty() ? "<cr>" : c.word.c_str());
    return EXIT_ACCEPTED;
}

// Brings the session into the mode in which a line is to be completed.
void enter_modes(connection &server, const std::vector<task> &tasks)
{
    for (const auto &t : tasks)
        (void)server.execute(t.text, {[](bool, std::string_view) { return true; },
                                      [](std::size_t, std::size_t, const std::string &) {},
                                      [] { return false; }});
}

} // namespace

int main(int argc, char **argv)
{
    settings chosen;
    if (!read_arguments(argc, argv, chosen)) {
        const std::string first = argc > 1 ? argv[1] : "";
        const bool asked = first == "-h" || first == "--help";
        std::fputs(USAGE, asked ? stdout : stderr);
        return asked ? EXIT_ACCEPTED : EXIT_USAGE;
    }
    std::signal(SIGPIPE, SIG_IGN);
    connection server;
    std::string error;
    if (!server.open(chosen.root, error)) {
        if (!chosen.completes)
            std::fprintf(stderr, "corvsh: %s\n", error.c_str());
        return EXIT_REJECTED;
    }
    if (chosen.completes) {
        enter_modes(server, chosen.tasks);
        return print_completions(server, chosen.complete);
    }
    shell here(server);
    if (!chosen.tasks.empty())
        return here.run_tasks(chosen.tasks);
    if (isatty(STDIN_FILENO) == 0)
        return here.run_stream(std::cin, "-");
    return here.run_terminal();
}
