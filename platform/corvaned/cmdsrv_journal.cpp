// The journal of the running configuration, a file under the root: a head that says which boot and which startup file
// it belongs to, a line for each line of the configuration at that time, and one for each change since. It is appended
// to before a change is acknowledged. When this process is started again after a sudden end it goes on from there; an
// orderly end removes the journal, so that the startup file is read next time.
#include "cmdsrv.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace corvaned {

namespace {

using operation = config_store::operation;

constexpr std::size_t CHANGES_BEFORE_REWRITE = 20'000;

struct journal_state {
    int fd = -1;
    std::size_t changes = 0;
};

journal_state &state()
{
    static auto *the_state = new journal_state;
    return *the_state;
}

std::string path() { return opts().root + "/running-config"; }

std::string boot_id()
{
    std::ifstream in("/proc/sys/kernel/random/boot_id");
    std::string id;
    in >> id;
    return id;
}

// Changes whenever the file is written or replaced.
std::string startup_mark()
{
    struct stat about {};
    const std::string file = startup_path();
    if (stat(file.c_str(), &about) != 0)
        return file + " none";
    return file + " " + std::to_string(about.st_ino) + " " + std::to_string(about.st_size) + " " +
           std::to_string(about.st_mtim.tv_sec) + "." + std::to_string(about.st_mtim.tv_nsec);
}

std::string head() { return "journal 1 " + boot_id() + " " + startup_mark() + "\n"; }

std::string entry(operation what, const std::string &interface, const std::string &text, line_state line,
                  std::uint32_t source_line)
{
    return std::string(1, static_cast<char>(what)) + '\t' + std::to_string(static_cast<int>(line)) + '\t' +
           std::to_string(source_line) + '\t' + interface + '\t' + text + '\n';
}

bool append(std::string_view text)
{
    while (!text.empty()) {
        const ssize_t written = write(state().fd, text.data(), text.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return false;
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

void give_up(const char *what)
{
    log_line(3, std::string(what) + " " + path() + ": " + std::strerror(errno) +
                    ": unsaved configuration would not survive a sudden end");
    if (state().fd >= 0)
        close(state().fd);
    state().fd = -1;
    unlink(path().c_str());
}

void note(operation what, const std::string &interface, const std::string &text, line_state line,
          std::uint32_t source_line)
{
    if (state().fd < 0)
        return;
    if (!append(entry(what, interface, text, line, source_line)))
        give_up("cannot write");
    else if (++state().changes > CHANGES_BEFORE_REWRITE + 2 * cmdsrv().running.size())
        journal_rewrite();
}

struct recorded {
    operation what{};
    line_state line{};
    std::uint32_t source_line = 0;
    std::string interface, text;
};

bool read_entry(const std::string &line, recorded &r)
{
    std::istringstream in(line);
    std::string what, state_number, source;
    if (!std::getline(in, what, '\t') || !std::getline(in, state_number, '\t') || !std::getline(in, source, '\t') ||
        !std::getline(in, r.interface, '\t') || what.size() != 1 || state_number.size() != 1)
        return false;
    std::getline(in, r.text);
    r.what = static_cast<operation>(what.front());
    r.line = state_number == "1" ? line_state::ACTIVE : line_state::UNTRIED;
    r.source_line = static_cast<std::uint32_t>(std::strtoul(source.c_str(), nullptr, 10));
    return true;
}

parse_result parsed(const std::string &interface, const std::string &text)
{
    return parse({&cmdsrv().commands, mode_of_interface(interface), false, false, nullptr}, text);
}

// Into a store of its own first: what was entered and taken back is not carried out again.
bool redo(config_store &store, const recorded &r)
{
    switch (r.what) {
    case operation::MAKE: {
        const auto made = parsed("", "interface " + r.interface);
        if (!made.error)
            store.make_interface(r.interface, made.command.command, r.line, r.source_line);
        return !made.error;
    }
    case operation::REMOVE_INTERFACE:
        store.remove_interface(r.interface);
        return true;
    case operation::REMOVE:
        store.remove_text(r.interface, r.text);
        return true;
    case operation::APPLY: {
        const auto command = parsed(r.interface, r.text);
        if (!command.error)
            store.apply(r.interface, command.command, r.line, r.source_line);
        return !command.error;
    }
    }
    return false;
}

void carry_out_again(config_store &from)
{
    from.each([](config_line &line) {
        const bool maker = line.command->enters_interface;
        auto result = parsed(maker ? "" : line.interface, line.full());
        if (!result.error)
            take_line({line.source_line, line.full(), maker ? "" : line.interface, std::move(result.command)}, line.state);
    });
}

} // namespace

bool journal_recover()
{
    std::ifstream in(path(), std::ios::binary);
    std::string line;
    if (!in || !std::getline(in, line) || line + "\n" != head())
        return false;
    config_store store;
    std::size_t bad = 0;
    // A line that was cut off by the end has no line end: it was never acknowledged.
    while (std::getline(in, line) && !in.eof()) {
        recorded r;
        if (!read_entry(line, r) || !redo(store, r))
            ++bad;
    }
    carry_out_again(store);
    log_line(4, "went on after a sudden end: " + std::to_string(cmdsrv().running.size()) +
                    " lines of configuration were in effect" +
                    (bad == 0 ? "" : ", " + std::to_string(bad) + " could not be read"));
    return true;
}

void journal_rewrite()
{
    const std::string temporary = path() + ".new";
    std::string text = head();
    cmdsrv().running.each([&](config_line &line) {
        const bool maker = line.command->enters_interface;
        text += entry(maker ? operation::MAKE : operation::APPLY, line.interface, maker ? "" : line.full(), line.state,
                      line.source_line);
    });
    const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600);
    const int before = std::exchange(state().fd, fd);
    if (before >= 0)
        close(before);
    state().changes = 0;
    if (fd < 0 || !append(text) || rename(temporary.c_str(), path().c_str()) != 0) {
        unlink(temporary.c_str());
        give_up("cannot write");
    }
}

void journal_start()
{
    cmdsrv().running.done = note;
    journal_rewrite();
}

void journal_end()
{
    cmdsrv().running.done = nullptr;
    if (state().fd >= 0)
        close(state().fd);
    state().fd = -1;
    unlink(path().c_str());
}

} // namespace corvaned
