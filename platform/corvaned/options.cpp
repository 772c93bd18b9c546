// The command line, and the root folder it names: made with tight modes, locked against a second corvaned.
#include "options.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace corvaned {
namespace {

options the_options;
int lock_fd = -1;

struct option_row {
    const char *text;
    std::string options::*value;
};
constexpr auto option_rows = std::to_array<option_row>({
    {"--root", &options::root},
    {"--state", &options::state},
    {"--config", &options::config},
    {"--log", &options::log},
    {"--lum", &options::lum},
});

const option_row *find_row(std::string_view word)
{
    for (const option_row &row : option_rows)
        if (word == row.text)
            return &row;
    return nullptr;
}

std::string beside_this_program(const char *name)
{
    std::array<char, 4096> path{};
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size() - 1);
    if (length <= 0)
        return name;
    const std::string own(path.data(), static_cast<std::size_t>(length));
    return own.substr(0, own.rfind('/') + 1) + name;
}

void fill_in(options &chosen)
{
    if (chosen.root.empty()) {
        const char *root = getenv("CORVANE_ROOT");
        chosen.root = root != nullptr && *root != '\0' ? root : "/run/corvane";
    }
    while (chosen.root.size() > 1 && chosen.root.back() == '/')
        chosen.root.pop_back();
    if (chosen.state.empty())
        chosen.state = chosen.root + "/state";
    if (chosen.lum.empty())
        chosen.lum = beside_this_program("lum");
}

bool make_folder(const std::string &path, mode_t mode, std::string &error)
{
    // Parents too, as the root may lie in a folder that does not exist yet.
    for (std::size_t at = path.find('/', 1); at != std::string::npos; at = path.find('/', at + 1))
        mkdir(path.substr(0, at).c_str(), 0755);
    if (mkdir(path.c_str(), mode) != 0 && errno != EEXIST) {
        error = "cannot make " + path + ": " + std::strerror(errno);
        return false;
    }
    struct stat about {};
    if (stat(path.c_str(), &about) != 0 || !S_ISDIR(about.st_mode)) {
        error = path + " is not a folder";
        return false;
    }
    if (access(path.c_str(), W_OK | X_OK) != 0) {
        error = "cannot write to " + path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

bool take_lock(const std::string &path, std::string &error)
{
    lock_fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0640);
    if (lock_fd < 0) {
        error = "cannot write " + path + ": " + std::strerror(errno);
        return false;
    }
    if (flock(lock_fd, LOCK_EX | LOCK_NB) != 0) {
        std::array<char, 32> holder{};
        const ssize_t length = read(lock_fd, holder.data(), holder.size() - 1);
        error = "another corvaned is running on " + the_options.root;
        if (length > 1)
            error += " (process " + std::string(holder.data(), static_cast<std::size_t>(length - 1)) + ")";
        close(lock_fd);
        lock_fd = -1;
        return false;
    }
    const std::string pid = std::to_string(getpid()) + "\n";
    if (ftruncate(lock_fd, 0) != 0 || pwrite(lock_fd, pid.data(), pid.size(), 0) < 0) {
        error = "cannot write " + path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

} // namespace

const options &opts()
{
    return the_options;
}

void options_set(options chosen)
{
    the_options = std::move(chosen);
    fill_in(the_options);
}

const char *options_usage()
{
    return "usage: corvaned [--root DIR] [--state DIR] [--config FILE] [--log FILE] [--lum PATH] [--standby]\n";
}

bool options_parse(int argc, char **argv, std::string &error)
{
    options chosen;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--standby") {
            chosen.standby = true;
            continue;
        }
        const std::size_t equals = word.find('=');
        const option_row *row = find_row(word.substr(0, equals));
        if (row == nullptr) {
            error = "unknown option '" + word + "'";
            return false;
        }
        if (equals == std::string::npos && i + 1 == argc) {
            error = std::string("option ") + row->text + " needs a value";
            return false;
        }
        const std::string value = equals == std::string::npos ? argv[++i] : word.substr(equals + 1);
        if (value.empty()) {
            error = std::string("option ") + row->text + " needs a value";
            return false;
        }
        chosen.*(row->value) = value;
    }
    options_set(std::move(chosen));
    return true;
}

bool root_prepare(std::string &error)
{
    const options &o = opts();
    // Others may pass through the root to the shell's socket, which judges them itself; they can list and read nothing.
    if (!make_folder(o.root, 0711, error))
        return false;
    umask(027);
    return take_lock(o.root + "/corvaned.pid", error) &&
           make_folder(o.root + "/shm", 0750, error) && make_folder(o.state, 0750, error);
}

void root_release()
{
    if (lock_fd < 0)
        return;
    unlink((opts().root + "/corvaned.pid").c_str());
    close(lock_fd);
    lock_fd = -1;
}

} // namespace corvaned
