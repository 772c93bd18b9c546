// Frame of the platform process: one thread, one event loop, services as files that register with it at start.
#pragma once

#include "../wire/bytes.h"

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace corvaned {

using corvane::byte_reader;
using corvane::byte_view;
using corvane::byte_writer;

struct options {
    std::string root, state, config, log, lum;
    bool standby = false;
};
[[nodiscard]] const options &opts();

// ---- event loop (loop.cpp)
void watch(int fd, std::uint32_t epoll_events, std::function<void(std::uint32_t)> ready);
void watch_change(int fd, std::uint32_t epoll_events);
void unwatch(int fd);
using timer_id = std::uint64_t;
timer_id after(std::chrono::milliseconds delay, std::function<void()> run);     // once
void cancel(timer_id timer);
void stop();                                                 // ends the loop after the current event

// ---- calls from clients (rpc.cpp)
struct peer {
    std::uint64_t connection = 0;
    pid_t pid = 0;
    uid_t uid = 0;
    gid_t gid = 0;
    std::uint32_t service = 0;                               // number it registered under, 0 = none yet
};
struct answer {
    int error = 0;                                           // 0 or an errno value
    std::vector<std::uint8_t> data;
};
using method_handler = std::function<answer(const peer &, byte_view request)>;
void serve_method(std::uint32_t method, method_handler handler);
void on_disconnect(std::function<void(const peer &)> hook);

// ---- message bus (bus.cpp)
struct message {
    std::uint32_t source_sap = 0;
    std::uint32_t opcode = 0;
    std::uint32_t sync_event = 0;
    std::vector<std::uint8_t> payload;
};
// 0, ENOENT (no such SAP), EAGAIN (its queue is full; counted).
int bus_send(std::uint32_t sap, std::uint32_t source_sap, std::uint32_t opcode, byte_view payload);
void bus_notify(std::uint32_t source_sap, std::uint32_t opcode, byte_view payload);   // to every subscriber
void bus_serve(std::uint32_t sap, std::function<void(const message &)> handler);      // a SAP inside corvaned
[[nodiscard]] bool bus_bound(std::uint32_t sap);
[[nodiscard]] std::size_t bus_subscribers(std::uint32_t opcode);
void on_bound(std::function<void(std::uint32_t sap, const peer &)> hook);             // a client bound a SAP

// ---- log (log.cpp): one line each, to the log file or stderr and the ring behind `show logging`
void log_line(int severity, const std::string &text);        // from corvaned itself
[[nodiscard]] std::vector<std::string> log_recent(std::size_t lines);

// ---- persistent state (database.cpp): SQLite in WAL mode under the state directory
struct kv_store {                                            // ordered by key bytes; each call is one transaction
    explicit kv_store(std::string table);
    [[nodiscard]] bool put(byte_view key, byte_view value);
    [[nodiscard]] bool erase(byte_view key);                 // true when the key was there
    [[nodiscard]] bool get(byte_view key, std::vector<std::uint8_t> &value);
    // Records whose key begins with `prefix` and is greater than `after` (empty: from the start), at most `limit`.
    struct record { std::vector<std::uint8_t> key, value; };
    [[nodiscard]] std::vector<record> range(byte_view prefix, byte_view after, std::size_t limit);
    std::string table;
};

// ---- services reported up and down by the service manager (svcmgr.cpp)
void service_hosted(std::uint32_t number, const char *name); // a service that lives in corvaned: up from the start
void service_set_up(std::uint32_t number, bool up);          // announces the change

// ---- commands of the platform itself (cmdsrv.cpp): handlers run on the loop's thread
struct command {
    std::string handler;
    bool no = false;
    std::uint32_t mode_iod = 0;
    std::string mode_name;                                   // interface of the mode, "" at global level
    std::vector<std::pair<std::string, std::string>> arguments;   // name as the grammar spells it, text as typed
    [[nodiscard]] const std::string *get(const char *name) const;
    std::function<void(const std::string &)> print;          // output to the user
};
// 0 done, -500 rejected (a message was printed).
void serve_command(const char *handler, std::function<int(command &)> run);

// ---- shared memory (shm.cpp)
// Makes <root>/shm/<name> with `size` zero bytes (an existing file of that size is kept as it is) and maps it.
[[nodiscard]] void *make_shared(const char *name, std::size_t size);

// ---- start of the services, in main.cpp's order
void log_start();
void database_start();
void bus_start();
void svcmgr_start();         // last: starts lum
void sdb_start();
void intfmgr_start();
void vlanmgr_start();
void vrfmgr_start();
void ipmgr_start();          // IPv4, IPv6, UDP, IGMP: address notifications, services
void rtab_start();
void cmdsrv_start();
void drops_start();

} // namespace corvaned
