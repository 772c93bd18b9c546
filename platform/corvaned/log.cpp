// The log: one line each to the log file or stderr, to the journal when systemd runs the process, and to a ring in
// memory for `show logging`.
#include "log.h"

#include "shm.h"
#include "svcmgr.h"

#include "../wire/log.h"

#include <array>
#include <charconv>
#include <ctime>
#include <deque>
#include <fcntl.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

namespace corvaned {
namespace {

constexpr std::size_t RING_LINES = 2000;
constexpr std::size_t SHOWN_LINES = 200;

struct log_state {
    int fd = STDERR_FILENO;
    bool journal = false;
    std::deque<std::string> ring;
};

log_state &state()
{
    static log_state the_log;
    return the_log;
}

std::string time_text()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts{};
    localtime_r(&now.tv_sec, &parts);
    std::array<char, 64> text{};
    const std::size_t used = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(text.data() + used, text.size() - used, ".%03ld", now.tv_nsec / 1'000'000);
    return text.data();
}

// A line is one line: what would start another one is written visibly.
std::string one_line(std::string_view text)
{
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.remove_suffix(1);
    std::string line;
    line.reserve(text.size());
    for (const char c : text.substr(0, corvane::LOG_LINE_MAX)) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\n')
            line += "\\n";
        else if (byte < 0x20 || byte == 0x7F)
            line += c == '\t' ? ' ' : '?';
        else
            line += c;
    }
    return line;
}

void write_all(std::string_view text)
{
    while (!text.empty()) {
        const ssize_t written = write(state().fd, text.data(), text.size());
        if (written <= 0)
            return;
        text.remove_prefix(static_cast<std::size_t>(written));
    }
}

answer handle_line(const peer &who, byte_view request)
{
    byte_reader in(request);
    const auto severity = in.get<std::uint32_t>();
    const std::string name = in.text();
    const std::string text = in.text();
    if (!in.done() || name.size() > 32)
        return {EINVAL, {}};
    log_of(who.pid, name, static_cast<int>(severity & 7), text);
    return {};
}

int show_logging(command &cmd)
{
    for (const std::string &line : log_recent(SHOWN_LINES))
        cmd.print(line + "\n");
    return 0;
}

int set_logging_level(command &cmd)
{
    const std::string *text = cmd.get("<level>");
    unsigned level = corvane::PLATFORM_LOG_LEVEL_DEFAULT;
    if (!cmd.no) {
        const auto result = text == nullptr ? std::from_chars_result{nullptr, std::errc::invalid_argument}
                                            : std::from_chars(text->data(), text->data() + text->size(), level);
        if (result.ec != std::errc{} || result.ptr != text->data() + text->size() || level > 7) {
            cmd.print("The level is a number from 0 to 7\n");
            return -500;
        }
    }
    platform().log_level = level;
    svcmgr_tell_all(corvane::SVCMGR_SAP, corvane::EVHIST_OPC_CONTROL,
                    byte_writer().put(corvane::EVHIST_LEVEL).put(std::uint32_t{level}).view());
    return 0;
}

} // namespace

bool log_open()
{
    state().journal = getenv("JOURNAL_STREAM") != nullptr;
    if (opts().log.empty())
        return true;
    const int fd = open(opts().log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, 0640);
    if (fd < 0)
        return false;
    if (state().fd != STDERR_FILENO)
        close(state().fd);
    state().fd = fd;
    return true;
}

void log_reopen()
{
    if (!log_open())
        log_line(3, "cannot open the log file again: " + opts().log);
}

void log_of(pid_t pid, const std::string &name, int severity, const std::string &text)
{
    std::string line = one_line(text);
    if (state().journal)
        sd_journal_send("MESSAGE=%s", line.c_str(), "PRIORITY=%d", severity, "SYSLOG_IDENTIFIER=%s", name.c_str(),
                        "OBJECT_PID=%d", static_cast<int>(pid), nullptr);
    line = time_text() + " " + name + "[" + std::to_string(pid) + "]: " + line;
    // Under systemd stderr is the journal: the line is there already.
    if (!state().journal || state().fd != STDERR_FILENO)
        write_all(line + "\n");
    state().ring.push_back(std::move(line));
    if (state().ring.size() > RING_LINES)
        state().ring.pop_front();
}

void log_line(int severity, const std::string &text)
{
    log_of(getpid(), "corvaned", severity, text);
}

std::vector<std::string> log_recent(std::size_t lines)
{
    const auto &ring = state().ring;
    const std::size_t count = std::min(lines, ring.size());
    return {ring.end() - static_cast<std::ptrdiff_t>(count), ring.end()};
}

void log_start()
{
    (void)platform();               // makes the page that holds the level
    serve_method(corvane::LOG_LINE, handle_line);
    serve_command("show_logging", show_logging);
    serve_command("logging_level", set_logging_level);
}

} // namespace corvaned
