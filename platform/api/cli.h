// Command server client: handlers by name, arguments of the parsed command, output. Handlers run on the library's
// command thread, holding the process lock.
#pragma once

#include "ipv6.h"
#include "thread_annotations.h"

#include <cstddef>
#include <cstdint>

struct cli_cmd;                                        // handle of a parsed command
using cli_handler = int (*)(cli_cmd *cmd);
inline constexpr int CLI_DONE = 0, CLI_STOPPED = 1, CLI_NO_MEMORY = -1, CLI_REJECTED = -500;

[[nodiscard]] int cli_init(const char *client, std::uint32_t a, std::uint32_t b);         // 0 on success
int cli_ready(const char *client, std::uint32_t a);
int cli_register_cmd(const char *name, cli_handler handler, std::uint32_t a);
int cli_send_my_commands();                            // hands the whole set to the server, which then replays
int cli_send_my_if_commands(std::uint32_t iod);        // asks for the interface's configuration to be replayed
void cli_exit_thread();

[[nodiscard]] bool cli_noed(const cli_cmd *cmd);
[[nodiscard]] bool cli_is_set(const cli_cmd *cmd, const char *name);
// False when the argument was not given. Texts live as long as the command.
[[nodiscard]] bool cli_get_string(const cli_cmd *cmd, const char *name, const char *&text);
[[nodiscard]] bool cli_get_integer(const cli_cmd *cmd, const char *name, std::uint32_t &value);
[[nodiscard]] bool cli_get_ipaddr(const cli_cmd *cmd, const char *name, std::uint32_t &address_host);
[[nodiscard]] bool cli_get_ipv6addr(const cli_cmd *cmd, const char *name, ipv6_address &address);
[[nodiscard]] bool cli_get_ipprefix(const cli_cmd *cmd, const char *name, std::uint32_t &address_host,
                                    std::uint32_t &mask_length);
struct cli_ipv6_prefix {
    ipv6_address address{};
    std::uint32_t mask_length = 0;
};
[[nodiscard]] bool cli_get_ipv6prefix(const cli_cmd *cmd, const char *name, cli_ipv6_prefix &prefix);
[[nodiscard]] bool cli_get_interface(const cli_cmd *cmd, const char *name, const char *&text);
inline constexpr std::uint32_t CLI_VLAN_RANGES_MAX = 4096;
struct cli_vlan_ranges {
    std::uint32_t count = 0;
    struct range { std::uint16_t first, last; } const *ranges = nullptr;       // lives as long as the command
};
[[nodiscard]] bool cli_get_vlan_mrange(const cli_cmd *cmd, const char *name, cli_vlan_ranges &ranges);
[[nodiscard]] std::uint32_t cli_get_mode_iod(const cli_cmd *cmd);              // 0 at global level

void cli_cmd_printf(cli_cmd *cmd, const char *format, ...) CORVANE_PRINTF(2, 3);
void cli_tty_printf(cli_cmd *cmd, const char *format, ...) CORVANE_PRINTF(2, 3);
[[nodiscard]] bool cli_more_output(cli_cmd *cmd);      // false: the user has stopped the output
struct cli_version_block {
    const char *version, *build_date, *compiler, *revision;
};
void cli_print_build_info(cli_cmd *cmd, const char *process, const char *component, const char *build,
                          const cli_version_block &block);
