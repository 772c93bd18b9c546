// Connections of clients, for the bus and the service manager; services use corvaned.h.
#pragma once

#include "corvaned.h"

#include "../wire/frame.h"

namespace corvaned {

// Opens <root>/bus.sock. False with errno when it cannot.
[[nodiscard]] bool rpc_listen();
void rpc_close();                                                  // every connection and the socket itself

[[nodiscard]] const peer *connection_peer(std::uint64_t connection);   // null: gone
void connection_set_service(std::uint64_t connection, std::uint32_t service);
void connection_close(std::uint64_t connection, const char *why);

// Sends a frame, or keeps it while the client reads slowly. False: gone, or too much is waiting for it already.
bool connection_send(std::uint64_t connection, std::uint32_t kind, std::uint32_t number, std::uint64_t id, byte_view data);

// Called before an answer leaves, so that nothing is acknowledged that could still be lost.
void before_answers(std::function<void()> hook);

} // namespace corvaned
