// The command server: its start, and the platform commands that are about the configuration itself.
#include "cmdsrv.h"

#include "svcmgr.h"

#include "../libcorvane/base/cli_value.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <unistd.h>

namespace corvaned {

namespace {

constexpr std::size_t LOAD_ERRORS_KEPT = 1000;
constexpr std::uint32_t SERVICE_NUMBER = 261;

// Folders with grammar files: beside this program, and where a package puts them.
std::vector<std::string> grammar_folders()
{
    std::array<char, PATH_MAX> path{};
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size() - 1);
    if (length <= 0)
        return {};
    const std::string own(path.data(), static_cast<std::size_t>(length));
    const std::string folder = own.substr(0, own.rfind('/'));
    return {folder, folder + "/../share/corvane"};
}

std::vector<std::string> grammar_files(const std::string &folder)
{
    std::vector<std::string> files;
    std::error_code error;
    for (const auto &entry : std::filesystem::directory_iterator(folder, error))
        if (entry.path().extension() == ".cli")
            files.push_back(entry.path());
    // The platform's own first: where two commands take one line, the first has it.
    std::ranges::sort(files, {}, [](const std::string &f) { return std::pair(!f.ends_with("/platform.cli"), f); });
    return files;
}

void read_grammars()
{
    for (const auto &folder : grammar_folders()) {
        const auto files = grammar_files(folder);
        for (const auto &file : files)
            for (const auto &error : cmdsrv().commands.add_file(file))
                log_line(3, "grammar: " + error.message());
        if (!files.empty())
            break;
    }
    if (cmdsrv().commands.all().empty())
        log_line(2, "no grammar found: there are no commands");
}

bool known_interface(value_type type, const std::string &name)
{
    const bool interface = type == value_type::INTERFACE || type == value_type::OVERLAY;
    return interface && cmdsrv().interfaces.find(name) != 0;
}

std::vector<std::pair<std::string, std::string>> interfaces_as_values(value_type type)
{
    const bool overlays_only = type == value_type::OVERLAY || type == value_type::OVERLAY_NUMBER;
    std::vector<std::pair<std::string, std::string>> values;
    for (const auto &i : cmdsrv().interfaces.list()) {
        const char *kind = i.overlay ? "overlay, " : i.switchport ? "switchport, " : "";
        if (i.overlay || !overlays_only)
            values.emplace_back(i.name, std::string(kind) + (i.up ? "up" : "down"));
    }
    return values;
}

// VLANs that the running configuration names.
std::vector<std::pair<std::string, std::string>> configured_vlans()
{
    std::set<std::uint32_t> vlans;
    cmdsrv().running.each([&](config_line &line) {
        const auto last = line.text.substr(line.text.rfind(' ') + 1);
        if (line.text.find("vlan") == std::string::npos)
            return;
        for (const auto &range : corvane::value_vlan_list(last))
            for (std::uint32_t v = range.first; v <= range.last && vlans.size() < 256; ++v)
                vlans.insert(v);
    });
    std::vector<std::pair<std::string, std::string>> values;
    for (const auto v : vlans)
        values.emplace_back(std::to_string(v), "configured VLAN");
    return values;
}

std::vector<std::pair<std::string, std::string>> live_list(value_type type)
{
    switch (type) {
    case value_type::INTERFACE:
    case value_type::OVERLAY:
    case value_type::OVERLAY_NUMBER:
        return interfaces_as_values(type);
    case value_type::VLAN:
    case value_type::VLAN_LIST:
        return configured_vlans();
    default:
        return {};
    }
}

int show_running_config(command &c)
{
    c.print(cmdsrv().running.text());
    return corvane::STATUS_DONE;
}

int show_configuration_errors(command &c)
{
    const auto &server = cmdsrv();
    if (server.load_error_count > server.load_errors.size())
        c.print("the last " + std::to_string(server.load_errors.size()) + " of " +
                std::to_string(server.load_error_count) + ":\n");
    for (const auto &line : server.load_errors)
        c.print(line + "\n");
    return corvane::STATUS_DONE;
}

int write_configuration(command &c)
{
    std::string error;
    if (save_running(error))
        return corvane::STATUS_DONE;
    c.print("cannot write " + startup_path() + ": " + error + "\n");
    return corvane::STATUS_REJECTED;
}

} // namespace

command_server &cmdsrv()
{
    static auto *the_server = new command_server;
    return *the_server;
}

void report_load_error(const std::string &text)
{
    auto &server = cmdsrv();
    log_line(3, text);
    ++server.load_error_count;
    server.load_errors.push_back(text);
    if (server.load_errors.size() > LOAD_ERRORS_KEPT)
        server.load_errors.pop_front();
}

mode mode_of_interface(const std::string &interface)
{
    constexpr std::string_view OVERLAY = "Overlay";
    if (interface.empty())
        return mode::CONFIGURE;
    const bool overlay = interface.starts_with(OVERLAY) &&
                         corvane::value_integer(std::string_view(interface).substr(OVERLAY.size())).has_value();
    return overlay ? mode::OVERLAY : mode::DEVICE;
}

void cmdsrv_serve()
{
    cmdsrv().live = {known_interface, live_list};
    serve_command("show_running_config", show_running_config);
    serve_command("show_configuration_errors", show_configuration_errors);
    serve_command("write", write_configuration);
}

namespace {

// The orderly end.
void cmdsrv_end()
{
    journal_end();
    for (const char *name : {corvane::SHELL_SOCKET, corvane::CMDSRV_SOCKET})
        unlink((opts().root + "/" + name).c_str());
}

} // namespace

void cmdsrv_start()
{
    service_hosted(SERVICE_NUMBER, "cmdsrv");
    read_grammars();
    cmdsrv_serve();
    on_interface_up(replay_interface_up);
    on_interface_created(replay_interface_created);
    if (!journal_recover())
        load_startup();
    journal_start();
    std::atexit(cmdsrv_end);
    cmdsrv().stands_by = daemon_is_standby;
    clients_start();
    sessions_start();
}

} // namespace corvaned
