// What a handler reads of its command and prints for it.
#include "cli_command.h"

#include "../api/plock.h"
#include "base/cli_value.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <vector>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::size_t SEND_AT = 16 * 1024;
constexpr milliseconds LOOK_EVERY{5};
constexpr int CREDIT_WAIT_MS = 200;
constexpr milliseconds CREDIT_PATIENCE{60'000};      // the server ends a stalled output long before

const std::string *find(const cli_cmd *cmd, const char *name)
{
    const auto &arguments = cmd->record.arguments;
    const auto found = std::ranges::find_if(arguments, [&](const auto &a) { return a.first == name; });
    return found == arguments.end() ? nullptr : &found->second;
}

template <class Value, class Read> bool read(const cli_cmd *cmd, const char *name, Value &value, Read with)
{
    const std::string *text = find(cmd, name);
    if (text == nullptr)
        return false;
    const auto result = with(*text);
    if (!result)
        return false;
    value = *result;
    return true;
}

// The handler's thread waits here for a reader that is slow; the rest of the process goes on.
void wait_for_credit(cli_cmd &cmd, std::size_t wanted)
{
    plock_assert_held();
    const plock_yield_scope unlocked;
    const auto end = steady_clock::now() + CREDIT_PATIENCE;
    while (cmd.credit < wanted && !cmd.stopped) {
        if (!cmd.connection.is_open() || steady_clock::now() > end || corvane::cli_ending()) {
            cmd.stopped = true;
            return;
        }
        cmd.connection.wait_for_news(cmd, CREDIT_WAIT_MS);
    }
}

void print(cli_cmd *cmd, const char *format, va_list values)
{
    std::array<char, 512> small;
    va_list again;
    va_copy(again, values);
    const int length = std::vsnprintf(small.data(), small.size(), format, values);
    if (length >= 0 && static_cast<std::size_t>(length) < small.size()) {
        cmd->output.append(small.data(), static_cast<std::size_t>(length));
    } else if (length >= 0) {
        std::vector<char> large(static_cast<std::size_t>(length) + 1);
        std::vsnprintf(large.data(), large.size(), format, again);
        cmd->output.append(large.data(), static_cast<std::size_t>(length));
    }
    va_end(again);
    if (cmd->output.size() >= SEND_AT)
        corvane::cli_flush(*cmd);
}

} // namespace

void corvane::cli_flush(cli_cmd &cmd)
{
    std::string_view rest = cmd.output;
    while (!rest.empty() && !cmd.stopped) {
        const auto piece = rest.substr(0, SEND_AT);
        if (cmd.credit < piece.size())
            wait_for_credit(cmd, piece.size());
        if (cmd.stopped)
            break;
        byte_writer record;
        record.put(cmd.record.request).raw({reinterpret_cast<const std::uint8_t *>(piece.data()), piece.size()});
        cmd.stopped = !cmd.connection.send(CLIENT_OUTPUT, record.view());
        cmd.credit -= piece.size();
        rest.remove_prefix(piece.size());
    }
    cmd.output.clear();
}

bool cli_noed(const cli_cmd *cmd) { return cmd->record.no; }

bool cli_is_set(const cli_cmd *cmd, const char *name) { return find(cmd, name) != nullptr; }

bool cli_get_string(const cli_cmd *cmd, const char *name, const char *&text)
{
    const std::string *value = find(cmd, name);
    if (value != nullptr)
        text = value->c_str();
    return value != nullptr;
}

bool cli_get_interface(const cli_cmd *cmd, const char *name, const char *&text)
{
    return cli_get_string(cmd, name, text);
}

bool cli_get_integer(const cli_cmd *cmd, const char *name, std::uint32_t &value)
{
    return read(cmd, name, value, corvane::value_integer);
}

bool cli_get_ipaddr(const cli_cmd *cmd, const char *name, std::uint32_t &address_host)
{
    return read(cmd, name, address_host, corvane::value_ipv4);
}

bool cli_get_ipv6addr(const cli_cmd *cmd, const char *name, ipv6_address &address)
{
    return read(cmd, name, address, corvane::value_ipv6);
}

bool cli_get_ipprefix(const cli_cmd *cmd, const char *name, std::uint32_t &address_host, std::uint32_t &mask_length)
{
    corvane::value_prefix_of<std::uint32_t> prefix;
    if (!read(cmd, name, prefix, corvane::value_prefix))
        return false;
    address_host = prefix.address;
    mask_length = prefix.length;
    return true;
}

bool cli_get_ipv6prefix(const cli_cmd *cmd, const char *name, cli_ipv6_prefix &prefix)
{
    corvane::value_prefix_of<corvane::ipv6_bytes> value;
    if (!read(cmd, name, value, corvane::value_prefix6))
        return false;
    prefix.address = value.address;
    prefix.mask_length = value.length;
    return true;
}

bool cli_get_vlan_mrange(const cli_cmd *cmd, const char *name, cli_vlan_ranges &ranges)
{
    const std::string *text = find(cmd, name);
    if (text == nullptr)
        return false;
    // Read once; the list stays where it is as long as the command.
    auto &list = const_cast<cli_cmd *>(cmd)->vlan_lists[name];
    if (list.empty())
        for (const auto &range : corvane::value_vlan_list(*text))
            list.push_back({range.first, range.last});
    if (list.empty() || list.size() > CLI_VLAN_RANGES_MAX)
        return false;
    ranges = {static_cast<std::uint32_t>(list.size()), list.data()};
    return true;
}

std::uint32_t cli_get_mode_iod(const cli_cmd *cmd) { return cmd->record.mode_iod; }

void cli_cmd_printf(cli_cmd *cmd, const char *format, ...)
{
    va_list values;
    va_start(values, format);
    print(cmd, format, values);
    va_end(values);
}

// A shell shows both in the order they were printed.
void cli_tty_printf(cli_cmd *cmd, const char *format, ...)
{
    va_list values;
    va_start(values, format);
    print(cmd, format, values);
    va_end(values);
}

bool cli_more_output(cli_cmd *cmd)
{
    const auto now = steady_clock::now();
    if (!cmd->stopped && now - cmd->looked >= LOOK_EVERY) {
        cmd->looked = now;
        cmd->connection.look(cmd);
        cmd->stopped = cmd->stopped || !cmd->connection.is_open();
    }
    return !cmd->stopped;
}

void cli_print_build_info(cli_cmd *cmd, const char *process, const char *component, const char *build,
                          const cli_version_block &block)
{
    cli_cmd_printf(cmd, "Process    : %s\nVersion    : %s\nBuild      : %s\n", process, component, build);
    cli_cmd_printf(cmd, "Release    : %s\nBuilt      : %s\nCompiler   : %s\nRevision   : %s\n", block.version,
                   block.build_date, block.compiler, block.revision);
}
