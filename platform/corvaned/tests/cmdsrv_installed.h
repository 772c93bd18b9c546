// The grammar files as the build puts them beside the programs, this test among them.
#pragma once

#include <filesystem>
#include <string>

namespace corvaned_test {

inline std::string installed_grammar(const char *name)
{
    return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / name).string();
}

} // namespace corvaned_test
