// Start options by table.
#include "cmdopt.h"

#include <span>
#include <string_view>

namespace {

const cmdopt_option *find(std::span<const cmdopt_option> options, std::string_view word)
{
    for (const cmdopt_option &option : options)
        if (word == option.text)
            return &option;
    return nullptr;
}

bool is_option(const char *word)
{
    return word[0] == '-';
}

} // namespace

int cmdopt_dispatch(int argc, char **argv, const cmdopt_option *table, std::uint32_t count, std::uint32_t /*flags*/,
                    void * /*context*/)
{
    const std::span<const cmdopt_option> options(table, count);
    for (int i = 1; i < argc; ++i) {
        const cmdopt_option *option = find(options, argv[i]);
        if (option == nullptr)
            return 0;
        const bool has_argument = i + 1 < argc && !is_option(argv[i + 1]);
        const char *argument = has_argument ? argv[++i] : nullptr;
        if (option->handler(argument) == 0)
            return 0;
    }
    return 1;
}
