// Opening, closing and group commits of the database; services use kv_store.
#pragma once

#include "corvaned.h"

namespace corvaned {

// False: neither the file nor a fresh one in its place can be used; `why` says so.
[[nodiscard]] bool database_open(std::string &why);
void database_close();
// From here on writes are collected until database_commit: what one turn of the loop brings is one transaction.
// An answer to a client and the end of the turn commit by themselves.
void database_group();
bool database_commit();
[[nodiscard]] std::uint64_t database_failed_commits();       // since the start

} // namespace corvaned
