// The log's own entry points; services use log_line and log_recent.
#pragma once

#include "corvaned.h"

namespace corvaned {

// Opens the log file of the options, stderr without one. False with errno.
[[nodiscard]] bool log_open();
void log_reopen();                                           // after the file was moved away
// A line of another process, as `<time> <name>[<pid>]: <text>`.
void log_of(pid_t pid, const std::string &name, int severity, const std::string &text);

} // namespace corvaned
