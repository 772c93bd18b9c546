#include "editor.h"

#include "text.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

namespace corvsh {

namespace {

constexpr int HISTORY_LINES = 1000;

volatile std::sig_atomic_t interrupted = 0;

void on_interrupt(int) { interrupted = 1; }

std::string history_path()
{
    const char *home = std::getenv("HOME");
    return home == nullptr || *home == '\0' ? "" : std::string(home) + "/.corvsh_history";
}

} // namespace

editor &editor::of(EditLine *el)
{
    void *self = nullptr;
    el_get(el, EL_CLIENTDATA, &self);
    return *static_cast<editor *>(self);
}

const char *editor::give_prompt(EditLine *el) { return of(el).prompt_.c_str(); }
unsigned char editor::on_tab(EditLine *el, int) { return of(el).complete(); }
unsigned char editor::on_question(EditLine *el, int) { return of(el).help(); }

editor::editor(connection &server, std::string prompt)
    : server_(server), prompt_(std::move(prompt)), history_file_(history_path())
{
    el_ = el_init("corvsh", stdin, stdout, stderr);
    history_ = history_init();
    HistEvent event{};
    history(history_, &event, H_SETSIZE, HISTORY_LINES);
    history(history_, &event, H_SETUNIQUE, 1);
    if (!history_file_.empty())
        history(history_, &event, H_LOAD, history_file_.c_str());
    el_set(el_, EL_CLIENTDATA, this);
    el_set(el_, EL_PROMPT, &editor::give_prompt);
    el_set(el_, EL_EDITOR, "emacs");
    el_set(el_, EL_HIST, history, history_);
    el_set(el_, EL_ADDFN, "corvane-complete", "complete a word", &editor::on_tab);
    el_set(el_, EL_ADDFN, "corvane-help", "what may come next", &editor::on_question);
    el_set(el_, EL_BIND, "^I", "corvane-complete", nullptr);
    el_set(el_, EL_BIND, "?", "corvane-help", nullptr);
    el_set(el_, EL_BIND, "^R", "em-inc-search-prev", nullptr);
    el_source(el_, nullptr);
    struct sigaction action {};
    action.sa_handler = on_interrupt;                        // no SA_RESTART: the read ends
    sigaction(SIGINT, &action, nullptr);
}

editor::~editor()
{
    HistEvent event{};
    if (!history_file_.empty()) {
        const mode_t before = umask(077);
        history(history_, &event, H_SAVE, history_file_.c_str());
        umask(before);
    }
    history_end(history_);
    el_end(el_);
}

std::optional<std::string> editor::line()
{
    interrupted = 0;
    int length = 0;
    const char *typed = el_gets(el_, &length);
    if (typed == nullptr || length <= 0) {
        if (!interrupted)
            return std::nullopt;
        std::fputs("^C\n", stdout);
        el_reset(el_);
        return "";
    }
    std::string text(typed, static_cast<std::size_t>(length));
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.pop_back();
    HistEvent event{};
    if (text.find_first_not_of(" \t") != std::string::npos)
        history(history_, &event, H_ENTER, text.c_str());
    return text;
}

bool editor::take_interrupt()
{
    const bool was = interrupted != 0;
    interrupted = 0;
    return was;
}

std::string editor::before_cursor() const
{
    const LineInfo *info = el_line(el_);
    return {info->buffer, static_cast<std::size_t>(info->cursor - info->buffer)};
}

void editor::show(const std::string &text) const
{
    std::fputc('\n', stdout);
    std::fputs(harmless(text).c_str(), stdout);
    std::fflush(stdout);
}

unsigned char editor::complete()
{
    const std::string line = before_cursor();
    const choices what = server_.complete(line);
    if (what.lost)
        return CC_EOF;
    const std::string rest = common_rest(what, line);
    if (!rest.empty() && el_insertstr(el_, rest.c_str()) == 0)
        return CC_REFRESH;
    if (what.list.empty())
        return CC_REFRESH_BEEP;
    show(choices_text(what, terminal_columns()));
    return CC_REDISPLAY;
}

unsigned char editor::help()
{
    const std::string line = before_cursor();
    // Inside quotes it is a character like any other.
    if (std::ranges::count(line, '"') % 2 == 1)
        return el_insertstr(el_, "?") == 0 ? CC_REFRESH : CC_ERROR;
    const choices what = server_.complete(line);
    if (what.lost)
        return CC_EOF;
    show(what.list.empty() ? "  " + (what.error.empty() ? "nothing" : what.error) + "\n"
                            : choices_text(what, terminal_columns()));
    return CC_REDISPLAY;
}

} // namespace corvsh
