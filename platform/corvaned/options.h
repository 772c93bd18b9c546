// The command line.
#pragma once

#include "corvaned.h"

namespace corvaned {

// Reads it and fills in what was not given. False: `error` says what is wrong with it.
[[nodiscard]] bool options_parse(int argc, char **argv, std::string &error);
void options_set(options chosen);                    // for tests
[[nodiscard]] const char *options_usage();

// Makes the root and its folders, and takes its lock for the life of the process. False: `error` says why not.
[[nodiscard]] bool root_prepare(std::string &error);
void root_release();

} // namespace corvaned
