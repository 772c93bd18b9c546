// Command server client: commands come from tests, already split into arguments.
#include "fake_state.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <cstdarg>
#include <cstring>
#include <stdexcept>

namespace fake {

namespace {

const std::string *argument(const cli_cmd *cmd, const char *name)
{
    const auto found = cmd->arguments.find(std::string_view(name));
    return found == cmd->arguments.end() ? nullptr : &found->second;
}

bool to_number(std::string_view text, std::uint32_t &value)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size();
}

bool to_ipv4(const std::string &text, std::uint32_t &address_host)
{
    in_addr address{};
    if (inet_pton(AF_INET, text.c_str(), &address) != 1)
        return false;
    address_host = ntohl(address.s_addr);
    return true;
}

bool to_ipv6(const std::string &text, ipv6_address &address)
{
    return inet_pton(AF_INET6, text.c_str(), address.data()) == 1;
}

bool split_prefix(const std::string &text, std::string &address, std::uint32_t &length)
{
    const std::size_t slash = text.find('/');
    address = text.substr(0, slash);
    return slash != std::string::npos && to_number(std::string_view(text).substr(slash + 1), length);
}

// "10,20-30"
bool to_ranges(std::string_view text, std::vector<cli_vlan_ranges::range> &ranges)
{
    while (!text.empty()) {
        const std::string_view one = text.substr(0, text.find(','));
        text.remove_prefix(std::min(text.size(), one.size() + 1));
        const std::size_t dash = one.find('-');
        std::uint32_t first = 0, last = 0;
        if (!to_number(one.substr(0, dash), first))
            return false;
        last = first;
        if (dash != std::string_view::npos && !to_number(one.substr(dash + 1), last))
            return false;
        if (last > 4095 || first > last)
            return false;
        ranges.push_back({static_cast<std::uint16_t>(first), static_cast<std::uint16_t>(last)});
    }
    return true;
}

[[noreturn]] void wrong(const char *name, const std::string &text)
{
    throw std::logic_error("the command server would not have taken " + text + " for " + name);
}

} // namespace

command_result platform_object::command(cli_handler handler, const command_arguments &arguments, bool no,
                                        std::uint32_t mode_iod)
{
    cli_cmd cmd;
    cmd.arguments = arguments;
    cmd.no = no;
    cmd.mode_iod = mode_iod;
    const int status = handler(&cmd);
    return {status, std::move(cmd.output), std::move(cmd.tty)};
}

command_result platform_object::command(std::string_view handler, const command_arguments &arguments, bool no,
                                        std::uint32_t mode_iod)
{
    const auto found = std::ranges::find(handlers, handler, [](const auto &h) { return std::string_view(h.first); });
    if (found == handlers.end())
        throw std::logic_error("no handler is registered as " + std::string(handler));
    return command(found->second, arguments, no, mode_iod);
}

} // namespace fake

using namespace fake;

int cli_init(const char *client, std::uint32_t a, std::uint32_t b)
{
    note("cli_init", client, a, b);
    return refuse("cli_init") ? -1 : 0;
}

int cli_ready(const char *client, std::uint32_t a)
{
    note("cli_ready", client, a);
    return refuse("cli_ready") ? -1 : 0;
}

int cli_register_cmd(const char *name, cli_handler handler, std::uint32_t a)
{
    note("cli_register_cmd", name, a);
    if (refuse("cli_register_cmd"))
        return -1;
    platform.handlers.emplace_back(name, handler);
    return 0;
}

int cli_send_my_commands()
{
    note("cli_send_my_commands");
    return refuse("cli_send_my_commands") ? -1 : 0;
}

int cli_send_my_if_commands(std::uint32_t iod)
{
    note("cli_send_my_if_commands", iod);
    return refuse("cli_send_my_if_commands") ? -1 : 0;
}

void cli_exit_thread() { note("cli_exit_thread"); }

bool cli_noed(const cli_cmd *cmd) { return cmd->no; }
bool cli_is_set(const cli_cmd *cmd, const char *name) { return argument(cmd, name) != nullptr; }

bool cli_get_string(const cli_cmd *cmd, const char *name, const char *&text)
{
    const std::string *found = argument(cmd, name);
    if (found == nullptr)
        return false;
    text = found->c_str();
    return true;
}

bool cli_get_integer(const cli_cmd *cmd, const char *name, std::uint32_t &value)
{
    const std::string *found = argument(cmd, name);
    if (found == nullptr)
        return false;
    if (!to_number(*found, value))
        wrong(name, *found);
    return true;
}

bool cli_get_ipaddr(const cli_cmd *cmd, const char *name, std::uint32_t &address_host)
{
    const std::string *found = argument(cmd, name);
    if (found == nullptr)
        return false;
    if (!to_ipv4(*found, address_host))
        wrong(name, *found);
    return true;
}

bool cli_get_ipv6addr(const cli_cmd *cmd, const char *name, ipv6_address &address)
{
    const std::string *found = argument(cmd, name);
    if (found == nullptr)
        return false;
    if (!to_ipv6(*found, address))
        wrong(name, *found);
    return true;
}

bool cli_get_ipprefix(const cli_cmd *cmd, const char *name, std::uint32_t &address_host, std::uint32_t &mask_length)
{
    const std::string *found = argument(cmd, name);
    if (found == nullptr)
        return false;
    std::string address;
    if (!split_prefix(*found, address, mask_length) || mask_length > 32 || !to_ipv4(address, address_host))
        wrong(name, *found);
    return true;
}

bool cli_get_ipv6prefix(const cli_cmd *cmd, const char *name, cli_ipv6_prefix &prefix)
{
    const std::string *found = argument(cmd, name);
    if (found == nullptr)
        return false;
    std::string address;
    if (!split_prefix(*found, address, prefix.mask_length) || prefix.mask_length > 128 ||
        !to_ipv6(address, prefix.address))
        wrong(name, *found);
    return true;
}

bool cli_get_interface(const cli_cmd *cmd, const char *name, const char *&text)
{
    return cli_get_string(cmd, name, text);
}

bool cli_get_vlan_mrange(const cli_cmd *cmd, const char *name, cli_vlan_ranges &ranges)
{
    const std::string *found = argument(cmd, name);
    if (found == nullptr || refuse("cli_get_vlan_mrange"))
        return false;
    auto &parsed = const_cast<cli_cmd *>(cmd)->ranges[name];
    parsed.clear();
    if (!to_ranges(*found, parsed))
        wrong(name, *found);
    ranges.count = static_cast<std::uint32_t>(parsed.size());
    ranges.ranges = parsed.data();
    return true;
}

std::uint32_t cli_get_mode_iod(const cli_cmd *cmd) { return cmd->mode_iod; }

void cli_cmd_printf(cli_cmd *cmd, const char *format, ...)
{
    va_list values;
    va_start(values, format);
    cmd->output += format_text(format, values);
    va_end(values);
}

void cli_tty_printf(cli_cmd *cmd, const char *format, ...)
{
    va_list values;
    va_start(values, format);
    const std::string text = format_text(format, values);
    va_end(values);
    cmd->output += text;
    cmd->tty += text;
}

bool cli_more_output(cli_cmd *cmd) { return cmd->more_asked++ < platform.stop_output_after; }

void cli_print_build_info(cli_cmd *cmd, const char *process, const char *component, const char *build,
                          const cli_version_block &block)
{
    note("cli_print_build_info", process, component, build);
    cli_cmd_printf(cmd, "%s %s %s\n%s %s %s %s\n", process, component, build, block.version, block.build_date,
                   block.compiler, block.revision);
}
