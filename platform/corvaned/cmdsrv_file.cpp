// Configuration files: reading one line by line, the startup file, saving it whole or not at all.
#include "cmdsrv.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace corvaned {

namespace {

constexpr std::size_t FILE_MAX_BYTES = 64 * 1024 * 1024;
constexpr const char *FILE_HEAD = "! Configuration of this device. Lines of configure mode; an indented line belongs to "
                                  "the interface above it.\n";

struct file_descriptor {
    int fd;
    explicit file_descriptor(int opened) : fd(opened) {}
    ~file_descriptor()
    {
        if (fd >= 0)
            close(fd);
    }
    file_descriptor(const file_descriptor &) = delete;
    file_descriptor &operator=(const file_descriptor &) = delete;
};

bool read_file(const std::string &path, std::string &text, std::string &error)
{
    const file_descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat about {};
    if (file.fd < 0 || fstat(file.fd, &about) != 0) {
        error = std::strerror(errno);
        return false;
    }
    if (!S_ISREG(about.st_mode) || static_cast<std::size_t>(about.st_size) > FILE_MAX_BYTES) {
        error = S_ISREG(about.st_mode) ? "too long" : "not a file";
        return false;
    }
    text.resize(static_cast<std::size_t>(about.st_size));
    std::size_t at = 0;
    while (at < text.size()) {
        const ssize_t got = read(file.fd, text.data() + at, text.size() - at);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        at += static_cast<std::size_t>(got);
    }
    text.resize(at);
    return true;
}

bool write_all(int fd, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t sent = write(fd, text.data(), text.size());
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent < 0)
            return false;
        text.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

// The name becomes durable with its folder.
void sync_folder_of(const std::string &path)
{
    const auto slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    const file_descriptor opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (opened.fd >= 0)
        (void)fsync(opened.fd);
}

bool replace_file(const std::string &name, std::string_view text, std::string &error)
{
    // A link stays a link: what it points to is replaced.
    char *resolved = realpath(name.c_str(), nullptr);
    const std::string path = resolved != nullptr ? resolved : name;
    free(resolved);
    const std::string temporary = path + ".new";
    bool done = false;
    {
        const file_descriptor file(open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0640));
        done = file.fd >= 0 && write_all(file.fd, text) && fsync(file.fd) == 0;
    }
    done = done && rename(temporary.c_str(), path.c_str()) == 0;
    if (!done) {
        error = std::strerror(errno);
        unlink(temporary.c_str());
        return false;
    }
    sync_folder_of(path);
    return true;
}

class file_reader {
public:
    file_reader(const std::function<void(const file_line &)> &take,
                const std::function<void(std::uint32_t, const std::string &)> &refuse)
        : take_(take), refuse_(refuse)
    {
    }

    void line(std::string_view text)
    {
        ++number_;
        while (!text.empty() && (text.back() == '\r' || text.back() == ' ' || text.back() == '\t'))
            text.remove_suffix(1);
        const auto first = text.find_first_not_of(" \t");
        if (first == std::string_view::npos || text[first] == '!')
            return;
        if (first == 0)
            global(text);
        else if (!in_interface_)
            refuse_(number_, "'" + shown(text.substr(first)) + "' is indented and no interface line is above it");
        else
            of_mode(text.substr(first), interface_, first);
    }

private:
    static std::string shown(std::string_view text) { return std::string(text.substr(0, 100)); }

    void global(std::string_view text)
    {
        in_interface_ = false;
        of_mode(text, "");
    }

    void of_mode(std::string_view text, const std::string &interface, std::size_t indent = 0)
    {
        auto result = parse({&cmdsrv().commands, mode_of_interface(interface), false, false, nullptr}, text);
        if (result.empty)
            return;
        if (result.error) {
            refuse_(number_, "column " + std::to_string(indent + result.error.at + 1) + ": " + result.error.text + " in '" +
                                 shown(text) + "'");
            return;
        }
        const auto &command = *result.command.command;
        if (command.handler == "exit" || command.handler == "end") {
            in_interface_ = false;
            return;
        }
        if (!command.configures() && !command.enters_interface) {
            refuse_(number_, "'" + shown(text) + "' configures nothing");
            return;
        }
        if (command.enters_interface && !result.command.no) {
            in_interface_ = true;
            interface_ = result.command.interfaces.front();
        }
        if (command.configures())
            take_({number_, std::string(text), interface, std::move(result.command)});
    }

    const std::function<void(const file_line &)> &take_;
    const std::function<void(std::uint32_t, const std::string &)> &refuse_;
    std::uint32_t number_ = 0;
    bool in_interface_ = false;
    std::string interface_;
};

void take_now(const file_line &line, line_state of_clients, bool again);

// Its service starts after this one: in the first turn of the loop it is there.
void take_later(const file_line &line, line_state of_clients)
{
    after(std::chrono::milliseconds(0), [line, of_clients] { take_now(line, of_clients, true); });
}

std::string origin(const file_line &line)
{
    return line.number == 0 ? "" : startup_path() + ":" + std::to_string(line.number) + ": ";
}

// False: the platform refused it for good.
bool carry_out(const file_line &line, line_state &state)
{
    std::string text;
    state = line_state::ACTIVE;
    if (run_platform_again(line.command, line.interface, text) == corvane::STATUS_DONE)
        return true;
    const bool waits = waits_for_interface(line.command, line.interface);
    report_load_error(origin(line) + "'" + line.text + "': " +
                      (text.empty() ? "rejected" : text.substr(0, text.find('\n'))) +
                      (waits ? " (waits for its interface)" : ""));
    state = line_state::WAITING;
    return waits;
}

void take_now(const file_line &line, line_state of_clients, bool again)
{
    auto &running = cmdsrv().running;
    const auto &command = *line.command.command;
    line_state state = of_clients;
    if (command.client == "platform" && !platform_serves(command.handler) && !again) {
        take_later(line, of_clients);
        return;
    }
    if (command.client == "platform" && !carry_out(line, state))
        return;
    if (command.enters_interface && !line.command.no)
        running.make_interface(line.command.interfaces.front(), &command, state, line.number);
    else
        running.apply(line.interface, line.command, state, line.number);
}

} // namespace

void take_line(const file_line &line, line_state of_clients) { take_now(line, of_clients, false); }

void read_configuration(std::string_view text, const std::function<void(const file_line &)> &take,
                        const std::function<void(std::uint32_t, const std::string &)> &refuse)
{
    file_reader reader(take, refuse);
    while (!text.empty()) {
        const auto end = std::min(text.find('\n'), text.size());
        reader.line(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

void load_startup()
{
    const std::string path = startup_path();
    std::string text, error;
    if (opts().config.empty() && access(path.c_str(), F_OK) != 0) {
        log_line(5, "nothing was saved at " + path + ": starting without configuration");
        return;
    }
    if (!read_file(path, text, error)) {
        report_load_error("cannot read " + path + ": " + error);
        return;
    }
    read_configuration(
        text, [](const file_line &line) { take_line(line, line_state::UNTRIED); },
        [&path](std::uint32_t number, const std::string &what) {
            report_load_error(path + ":" + std::to_string(number) + ": " + what);
        });
    log_line(5, "configuration " + path + ": " + std::to_string(cmdsrv().running.size()) + " lines, " +
                    std::to_string(cmdsrv().load_error_count) + " refused");
}

std::string startup_path() { return opts().config.empty() ? opts().state + "/startup.conf" : opts().config; }

bool save_running(std::string &error)
{
    if (!replace_file(startup_path(), FILE_HEAD + cmdsrv().running.text(), error))
        return false;
    journal_rewrite();
    return true;
}

} // namespace corvaned
