// Start option dispatcher.
#pragma once

#include <cstdint>

// Called with the option's argument (null for an option without one). 0 refuses, which ends the dispatch.
using cmdopt_handler = int (*)(const char *argument);

struct cmdopt_option {
    const char *text;            // with its dash: "-d"
    std::uint32_t reserved0;
    cmdopt_handler handler;
    std::uint32_t reserved1;
};

// Offers each word of the command line to the table. A word that follows an option and has no dash is that option's
// argument. 1 when every word was taken, 0 for an unknown option, a stray word, or a handler that refused.
[[nodiscard]] int cmdopt_dispatch(int argc, char **argv, const cmdopt_option *table, std::uint32_t count,
                                  std::uint32_t flags, void *context);
