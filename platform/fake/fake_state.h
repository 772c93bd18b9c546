// The fake platform's inside: what its files share. Tests see fake.h only.
#pragma once

#include "fake.h"

#include "../libcorvane/base/key_index.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <pthread.h>
#include <thread>

namespace fake {

struct bus_queue {
    std::uint32_t sap = 0;
    std::string name;
    mbus_q_attr attr;
    std::map<std::uint32_t, std::uint32_t> options;          // opcode -> option
    std::deque<std::uint64_t> waiting;
    bool pre_unbind = false;
};

struct held_message {
    mbus_q queue = MBUS_Q_INVALID;                           // MBUS_Q_INVALID: any queue may drop it
    std::uint32_t opcode = 0, source_sap = 0, sync_event = 0;
    bytes payload;
    bool received = false;
};

struct timer {
    timer_record record;
    std::uint64_t due_ns = 0;
    std::uint64_t order = 0;                                 // of timers due at one time, the one started first fires first
};

struct thread_slot {
    thread_record record;
    pthread_t id{};
    enum class order { park, run, leave } what = order::park;
    bool joined = false;
    std::mutex mutex;
    std::condition_variable changed;
};

struct route_nexthop {
    rtab_addr address;
    std::uint32_t owner = 0;
    bool present = true;
};
struct route_entry {
    std::vector<route_nexthop> fixed;                        // an operator's
    std::optional<route_nexthop> learnt;
    timestamp learnt_seen;
    rtab_route view;                                         // what lookups give
    std::uint64_t key = 0;
};
struct route_entry_key {
    const void *operator()(const route_entry *entry) const { return &entry->key; }
};
struct mroute_entry {
    std::map<std::pair<std::uint32_t, std::uint32_t>, std::set<std::uint32_t>> iods;      // by source and group
    bitfield *oifs = nullptr;
    rtab_mroute view;
    mroute_entry();
    ~mroute_entry();
    mroute_entry(const mroute_entry &) = delete;
    mroute_entry &operator=(const mroute_entry &) = delete;
};
using route_key = std::uint64_t;                             // VLAN and MAC, so that their order is the number's
[[nodiscard]] route_key key_of(const rtab_mac_info &info);

struct fault {
    std::size_t countdown = 0;
    int error = 0;
};

struct state {
    // failures
    std::map<std::string, std::vector<fault>, std::less<>> faults;
    std::map<std::string, int, std::less<>> always;
    fault any;
    std::size_t fallible = 0;
    std::string refused;                                     // since reset, forget or fail_any
    // bus
    std::map<mbus_q, bus_queue> queues;
    mbus_q last_queue = 0;
    std::map<std::uint64_t, held_message> messages;
    std::uint64_t last_message = 0;
    std::map<std::uint32_t, held_message> kept;              // last message of opcodes that keep it
    std::vector<subscription> subscriptions;
    // timers
    std::map<active_timer, timer> timers;
    active_timer last_timer = 0;
    std::uint8_t last_timer_set = 0;
    std::uint64_t timer_starts = 0;
    // threads
    std::vector<std::unique_ptr<thread_slot>> threads;
    // services
    mbus_q service_queue = MBUS_Q_INVALID;
    std::vector<std::string> databases;                      // by handle - 1
    std::vector<std::string> stores;
    evhist_facility facility{"lum", 6};
    // interfaces
    std::map<std::uint32_t, interface_options> interfaces;
    std::array<const interface_options *, 768> interface_by_iod{};
    // routes
    std::map<route_key, std::unique_ptr<route_entry>> routes;
    corvane::key_index<route_entry, route_entry_key, sizeof(route_key)> route_index{sizeof(route_key), route_entry_key{}};
    std::map<route_key, std::unique_ptr<mroute_entry>> mroutes;
    // sockets
    std::vector<socket_record> sockets;
    std::map<int, std::deque<bytes>> datagrams;              // by family
};

[[nodiscard]] inline bool recording()
{
    return !platform.counting_only;
}

// True: the call named so must fail now; errno is set.
[[nodiscard]] bool refuse_now(const char *name);
[[nodiscard]] inline bool refuse(const char *name)
{
    return recording() && refuse_now(name);
}

inline std::string argument_text(const char *value) { return value == nullptr ? "null" : value; }
inline std::string argument_text(const std::string &value) { return value; }
inline std::string argument_text(const bytes &value) { return to_hex(value); }
template <class T> std::string argument_text(T value)
{
    static_assert(std::is_integral_v<T>);
    return std::to_string(value);
}

void append_call(call_record record);

template <class... Arguments> void note(const char *name, const Arguments &...arguments)
{
    if (!recording())
        return;
    append_call({name, {argument_text(arguments)...}, platform.lock_held()});
}

[[nodiscard]] std::string format_text(const char *format, va_list values);
[[nodiscard]] std::uint64_t now_ns();
void release_threads();          // lets parked ones go and waits for all
void reset_memory();
// Functions that threads call without the process lock take this: they may call each other.
[[nodiscard]] std::unique_lock<std::recursive_mutex> hold_state();
mbus_msg receive_now(std::uint64_t id);      // handle of a message

inline constexpr std::uint32_t OPC_SERVICE_STATE = 0x7FFF0001, OPC_SERVICE_QUERY = 0x7FFF0002,
                               OPC_CLEANUP_START = 0x7FFF0003;

} // namespace fake

// The handles of the service manager's callbacks.
struct svcmgr_notification {
    std::uint32_t service = 0;
};
struct svcmgr_request {
    std::uint32_t number = 0;
};
