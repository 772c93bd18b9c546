#include "pager.h"

#include "text.h"

#include <cstdio>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace corvsh {

namespace {

constexpr std::string_view PROMPT = "--More-- (space: page, enter: line, q: stop)";

// One key, without waiting for the end of a line.
class raw_terminal {
public:
    raw_terminal()
    {
        good_ = tcgetattr(STDIN_FILENO, &before_) == 0;
        termios raw = before_;
        raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ISIG);
        raw.c_cc[VMIN] = 1;
        raw.c_cc[VTIME] = 0;
        if (good_)
            (void)tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    }
    ~raw_terminal()
    {
        if (good_)
            (void)tcsetattr(STDIN_FILENO, TCSANOW, &before_);
    }
    raw_terminal(const raw_terminal &) = delete;
    raw_terminal &operator=(const raw_terminal &) = delete;

    [[nodiscard]] char key() const
    {
        char c = 'q';
        return good_ && read(STDIN_FILENO, &c, 1) == 1 ? c : 'q';
    }

private:
    termios before_{};
    bool good_ = false;
};

constexpr char CONTROL_C = 3, CONTROL_D = 4;

} // namespace

pager::pager(bool on) : on_(on) {}

void pager::measure()
{
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 1 && size.ws_col > 0) {
        rows_ = size.ws_row;
        columns_ = size.ws_col;
    }
}

void pager::begin()
{
    lines_ = column_ = 0;
    stopped_ = false;
    if (on_)
        measure();
}

void pager::end_line()
{
    if (on_ && column_ != 0)
        std::fputc('\n', stdout);
    column_ = 0;
}

bool pager::pause()
{
    std::fwrite(PROMPT.data(), 1, PROMPT.size(), stdout);
    std::fflush(stdout);
    const raw_terminal terminal;
    for (;;) {
        const char key = terminal.key();
        const bool stop = key == 'q' || key == 'Q' || key == CONTROL_C || key == CONTROL_D;
        const bool line = key == '\n' || key == '\r' || key == 'j';
        if (!stop && !line && key != ' ' && key != 'f')
            continue;
        std::printf("\r%*s\r", static_cast<int>(PROMPT.size()), "");
        lines_ = line ? rows_ - 2 : 0;
        return !stop;
    }
}

bool pager::print(std::string_view text)
{
    if (!on_)
        return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
    const std::string shown = harmless(text);
    for (const char c : shown) {
        if (stopped_)
            return false;
        // The pause stands before the line that would push the first one out of sight.
        if (column_ == 0 && lines_ + 1 >= rows_ && !pause()) {
            stopped_ = true;
            return false;
        }
        std::fputc(c, stdout);
        const bool starts_character = (static_cast<unsigned char>(c) & 0xC0) != 0x80;
        column_ += c != '\n' && starts_character ? 1 : 0;
        if (c == '\n' || column_ == columns_) {
            ++lines_;
            column_ = 0;
        }
    }
    std::fflush(stdout);
    return true;
}

} // namespace corvsh
