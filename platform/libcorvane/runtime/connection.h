// The connection of this process to corvaned, for the bus client and the log; services use client.h.
#pragma once

#include "../client.h"

#include "../../wire/frame.h"

namespace corvane {

// Starts the connection if nobody did and waits for its first attempt. False: corvaned is not there.
bool connection_ensure();
[[nodiscard]] bool connection_up();

// Sends a frame nobody answers. `wait`: for a slow corvaned up to a second; otherwise a full socket fails with EAGAIN.
// 0 or an errno value.
int send_oneway(std::uint32_t method, byte_view request, bool wait);
// The same where it must not wait for a connection that is being made: to the one there is, or ENOTCONN.
int send_oneway_now(std::uint32_t method, byte_view request, bool wait);
// As send_oneway, of a frame whose pieces are not put together first.
int send_oneway_pieces(std::uint32_t method, std::initializer_list<byte_view> pieces, bool wait);
[[nodiscard]] reply call_pieces(std::uint32_t method, std::initializer_list<byte_view> pieces);

// The service number this process greets with, from the next connection on.
void connection_service_set(std::uint32_t service);
[[nodiscard]] std::uint32_t connection_service();

// Frames that corvaned sends by itself; called on the connection's thread, set before the connection starts.
using deliver_handler = void (*)(std::uint32_t queue, byte_view data);
void on_deliver(deliver_handler handler);
using event_handler = void (*)(byte_view data);
void on_event(std::uint32_t number, event_handler handler);

// Hooks by order: queues are bound again (0) before services refresh (1) and users of on_connected (2) run.
enum class connect_stage : std::uint8_t { BUS, SERVICES, USERS };
void on_connected_at(connect_stage stage, void (*hook)());
// Called on the connection's thread when the connection was lost.
void on_lost(void (*hook)());


} // namespace corvane
