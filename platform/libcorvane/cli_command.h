// A command while its handler runs: what was asked, and the output on its way.
#pragma once

#include "cli_connection.h"

#include "../api/cli.h"

#include <chrono>
#include <map>

struct cli_cmd {
    cli_cmd(corvane::execute_record asked, corvane::cli_connection &on) : record(std::move(asked)), connection(on) {}

    corvane::execute_record record;
    corvane::cli_connection &connection;
    std::string output;                          // printed and not sent yet
    std::uint64_t credit = corvane::CLIENT_FIRST_CREDIT;
    bool stopped = false;                        // the user wants no more, or nobody is there to read it
    std::chrono::steady_clock::time_point looked;            // when news from the server were last looked for
    std::map<std::string, std::vector<cli_vlan_ranges::range>> vlan_lists;     // read, by argument
};

namespace corvane {

// Sends what was printed. Gives the process lock up while the reader is slow.
void cli_flush(cli_cmd &cmd);

} // namespace corvane
