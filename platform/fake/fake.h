// The platform in memory: the same functions as platform/api, one object that remembers everything the daemon asked of
// them, scripts their failures, holds the virtual clock and injects what the real platform would send.
//
//     platform.add_interface(1, "eth1", {.switchport = true});
//     platform.route({10, host}, fake::remote(OVERLAY, fake::ipv4(198, 51, 100, 9)));
//     ... run the code under test ...
//     ASSERT_THAT(platform.ip_sent, SizeIs(1));
//     EXPECT_EQ(platform.ip_sent.front().be16(22), 8472);
//
// Tests derive from FakePlatformTest (fake_test.h), which resets it before each test and checks its books after it.
// Everything happens on the calling thread unless a thread is run on purpose.
#pragma once

#include "active_timer.h"
#include "cli.h"
#include "corvane_socket.h"
#include "corvane_thread.h"
#include "evhist.h"
#include "fake_records.h"
#include "featmgr.h"
#include "hakit.h"
#include "igmp.h"
#include "intfmgr.h"
#include "ip.h"
#include "ipv6.h"
#include "mbuf.h"
#include "mbus.h"
#include "memacct.h"
#include "net_l2.h"
#include "plock.h"
#include "pstore.h"
#include "rtab.h"
#include "sdb.h"
#include "svcmgr.h"
#include "syslog_client.h"
#include "timestamp.h"
#include "vlanmgr.h"
#include "vrfmgr.h"

#include <cerrno>
#include <deque>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace fake {

struct state;                    // what the implementation keeps besides the members below

// Runs `work` with the process lock given up altogether, and takes it back as deep as it was held.
void without_process_lock(const std::function<void()> &work);

// Traces as they were printed, and tags of catalogued messages, since the program began, whatever was forgotten
// meanwhile. For checks when all tests have run.
[[nodiscard]] std::set<std::string> emitted_texts();

// What the daemon asked of the platform and what left the process. `forget` empties it.
struct recorded {
    std::vector<call_record> calls;              // in order
    std::vector<ip_packet> ip_sent;              // ip_cl_output
    std::vector<ipv6_packet> ipv6_sent;          // ipv6_client_output
    std::vector<l2_frame> l2_sent;               // net_l2_send
    std::vector<l2_multicast> l2_multicast_sent; // ip_cl_output_l2
    std::vector<bus_message> mbus_sent;
    std::vector<log_line> syslog;                // catalogued messages, rendered: "<<%LUM-3-API_FAILED>> ..."
    std::vector<trace_line> traces;              // krel_syslog
    std::vector<history_event> events;           // evhist_hist_event
    std::vector<std::string> dbgprints;
    std::vector<mbus_event> mbus_events;         // evhist_hist_mbus_event
    std::vector<sdb_write_record> sdb_writes;    // every write and delete, refused ones too
    std::vector<route_update> route_updates;     // rtab_update_route, refused ones too
    std::vector<feature_answer> feature_answers; // featmgr
    std::vector<std::uint32_t> service_queries;  // svcmgr_query_srv_hs_state
    std::vector<std::uint32_t> heartbeats;       // the argument of each

    std::size_t packets_out = 0;                 // ip, ipv6 and L2 sends that succeeded, also when only counting
    std::size_t yields = 0;                      // plock_sched_yield
    std::size_t may_yields = 0;                  // plock_sched_may_yield
    std::size_t lock_errors = 0;                 // released while not held, asserted while not held

    // Books of the bus: a received message must be dropped exactly once. Dropping an emptied handle again is allowed.
    std::size_t messages_dropped = 0;
    std::size_t empty_drops = 0;                 // drops of an emptied handle
    std::size_t double_drops = 0;                // drops of a copy whose message was dropped already
};

// What tests set, and the platform's state as far as they look at it directly. `reset` puts the defaults back.
struct scripted {
    // Benchmarks: calls are counted in `packets_out` and nothing is recorded, formatted or allocated.
    bool counting_only = false;

    timestamp now{1000, 0};                      // the clock

    bool slice_used_up = false;                  // what plock_sched_may_yield says
    bool should_yield = false;                   // what hakit_should_yield says
    std::function<void()> on_yield;              // runs in each yield: what another thread would do meanwhile

    bool threads_run = false;                    // created threads run at once, as on the real platform
    std::set<std::string> joined_by_process;     // of those, the ones that the code under test joins by itself

    bool accept_all_saps = true;                 // false: sending to a SAP that nobody bound fails with ENOENT,
    std::set<std::uint32_t> known_saps;          // these excepted
    std::uint32_t source_sap = 999;              // of delivered messages, unless they say otherwise
    // A receive on an empty queue runs this; when the queue is still empty after it, the queue goes into pre-unbind
    // state and the receive fails with EPIPE, so that a loop under test ends.
    std::function<void(mbus_q)> on_empty_queue;

    bool supervisor_active = true;
    std::set<std::uint32_t> services_up;         // queries for these are answered with a message to the main queue
    std::uint32_t heartbeat_timeout_ms = 5000;
    bool handshake_done = true;                  // svcmgr_conditional_srv_was_handshake_done
    bool condition_verified = false;             // svcmgr_condition_verified
    std::map<std::uint32_t, std::string> service_names{
        {SVC_CMDSRV, "cmdsrv"}, {SVC_PKTMGR, "pktmgr"}, {SVC_IP, "ip"}, {SVC_IPV6, "ipv6"}, {SVC_UDP, "udp"},
        {SVC_IGMP, "igmp"}, {SVC_INTFMGR, "intfmgr"}, {SVC_VRFMGR, "vrfmgr"}, {SVC_RTAB, "rtab"}, {581, "lum"}};
    std::uint32_t start_reason = 1;
    int sched_policy = 0;                        // what hakit_get_rsw_sched_policy says
    bool chassis_ferrix = true;
    hakit_ha_params ha_params;                   // as hakit_ha_api_init got them
    bool ha_disabled = false;
    std::set<std::uint32_t> sdb_client_opcodes;  // messages that fsrv_sdb_process_msg takes
    std::set<std::uint32_t> ha_opcodes;          // messages that hakit_ha_dispatch takes; registered databases add theirs

    // Shared database and persistent store: name of the database, key, value.
    std::map<std::string, std::map<bytes, bytes>> sdb;
    std::map<std::string, std::map<bytes, bytes>> pstore;

    std::set<std::string, std::less<>> rate_limited;     // tags whose messages are suppressed
    std::uint8_t log_level = 6;
    bool history_kept = true;                    // evhist_hist_event_subtype_check gives 0
    bool debug_console = false;                  // evhist_chk_int gives non-zero

    std::size_t mbuf_limit = 1024;

    std::set<std::pair<std::uint32_t, std::uint32_t>> groups;            // joined: iod, IPv4 group
    std::set<std::pair<std::uint32_t, ipv6_address>> groups6;

    std::uint32_t own_service = 0;               // owner of what this process installs: set by plock_init_proc
    bool route_table_open = false;
    bool route_lock_held = false;

    std::size_t stop_output_after = SIZE_MAX;    // cli_more_output gives false from the nth question on (0: at once)
    std::vector<std::pair<std::string, cli_handler>> handlers;           // in the order of their registration

    std::deque<int> select_results;              // next results of corvane_select; 1 when there are none
};

class platform_object : public recorded, public scripted {
public:
    platform_object();
    ~platform_object();
    platform_object(const platform_object &) = delete;
    platform_object &operator=(const platform_object &) = delete;

    // Back to an empty platform: no interfaces, queues, routes, timers, records. Parked threads are let go unrun.
    void reset();
    // Forgets what was recorded and keeps the state.
    void forget();

    // ---- what was recorded
    [[nodiscard]] std::size_t called(std::string_view name) const;               // how often
    [[nodiscard]] std::vector<std::string> call_names() const;
    [[nodiscard]] std::vector<std::string> call_texts() const;                   // "mbus_bind(442, LUM MBUS queue)"
    [[nodiscard]] std::vector<std::string> call_texts(std::initializer_list<std::string_view> names) const;
    [[nodiscard]] std::vector<call_record> calls_of(std::string_view name) const;
    [[nodiscard]] bool sent_nothing() const;     // no packet, frame or message left
    [[nodiscard]] bool traced(std::string_view text) const;                      // krel_syslog, whole text
    [[nodiscard]] std::vector<std::string> trace_texts() const;
    [[nodiscard]] std::vector<std::string> syslog_texts() const;
    [[nodiscard]] std::vector<bus_message> sent_with(std::uint32_t opcode) const;

    // ---- failures
    // The nth call of `name` from now on fails once, as that function fails, with errno `error`.
    void fail(std::string_view name, std::size_t nth = 1, int error = EIO);
    void fail_always(std::string_view name, int error = EIO);
    void succeed(std::string_view name);                                         // takes both back
    // The nth call from now on of any function that can fail fails once: for loops over a scripted run.
    void fail_any(std::size_t nth, int error = EIO);
    [[nodiscard]] std::size_t fallible_calls() const;                            // since reset, forget or fail_any
    [[nodiscard]] std::string refused() const;                                   // name of the last that failed, or ""

    // ---- clock and timers. Timers fire inside these calls, in the order of their times, with the lock held.
    void advance(std::uint32_t seconds);
    void advance_ms(std::uint64_t milliseconds);
    void run_timers() { advance_ms(0); }                                         // those that are due already
    [[nodiscard]] bool timer_running(active_timer timer) const;
    [[nodiscard]] std::uint64_t timer_ms_left(active_timer timer) const;
    [[nodiscard]] std::vector<timer_record> timers() const;                      // created and not deleted

    // ---- process lock and threads. Created threads are parked until a test runs them.
    [[nodiscard]] bool lock_held() const;        // by the calling thread
    [[nodiscard]] std::vector<thread_record> threads() const;
    void *run_thread(std::string_view name);     // lets it run to its end (the lock is given up) and gives its result

    // ---- bus
    // Puts a message on the queue bound to `sap`.
    void deliver(std::uint32_t sap, std::uint32_t opcode, bytes payload = {}, message_options options = {});
    // A frame as the packet service delivers it, on the packet queue (SAP 440).
    void deliver_frame(std::uint32_t iod, const bytes &frame, std::uint32_t opcode = NET_L2_OPC_FRAME);
    // A message as mbus_recv hands it out, for handlers that a test calls by itself. Any queue may drop it.
    [[nodiscard]] mbus_msg message(std::uint32_t opcode, bytes payload = {}, message_options options = {});
    [[nodiscard]] mbus_q queue_of(std::uint32_t sap) const;                      // MBUS_Q_INVALID: not bound
    [[nodiscard]] std::size_t waiting(std::uint32_t sap) const;                  // messages on the queue
    [[nodiscard]] std::vector<subscription> subscriptions() const;               // every mbus_options_set
    [[nodiscard]] std::size_t messages_outstanding() const;                      // received, not dropped
    [[nodiscard]] bool is_outstanding(const mbus_msg &msg) const;

    // ---- service manager
    void service_up(std::uint32_t service);      // calls svcmgrcb_process_state_changed
    void service_down(std::uint32_t service);
    void deliver_service_state(std::uint32_t service, std::uint32_t service_state);      // the same as a message
    int svcmgr_switchover(bool hot, bool sequence_mismatch);
    int cleanup_start(std::uint32_t reason);
    int cleanup_status(std::uint32_t status);

    [[nodiscard]] const bytes *sdb_value(const bytes &key) const;                // in any database; null: none
    // As hakit_evhist_init and hakit_evhist_close do; a reset sets it, so that the log works from the start.
    void set_facility(bool set);

    // ---- memory
    [[nodiscard]] std::size_t memory_blocks(std::uint32_t type) const;           // allocated, not freed
    [[nodiscard]] std::size_t mbufs_out() const;                                 // packet buffers not given back

    // ---- interfaces
    void add_interface(std::uint32_t iod, std::string name, interface_options options = {});
    void remove_interface(std::uint32_t iod);
    interface_options &interface(std::uint32_t iod);     // to change: platform.interface(1).up = false
    // Payloads of the notifications.
    [[nodiscard]] static bytes changes(std::initializer_list<intfmgr_change> list);
    [[nodiscard]] static bytes l2_states(std::initializer_list<l2_state> list);
    [[nodiscard]] static bytes membership(std::uint32_t vlan, std::initializer_list<vlan_memb_pair> pairs);

    // ---- route table
    // An operator's route, installed by `owner` (0: this process).
    void route(const rtab_mac_info &key, std::vector<rtab_addr> nexthops, std::uint32_t owner = 0);
    void route(const rtab_mac_info &key, const rtab_addr &nexthop, std::uint32_t owner = 0);
    // A learnt route whose data was seen `age_s` ago.
    void learnt(const rtab_mac_info &key, std::uint32_t iod, std::uint32_t age_s = 0, std::uint32_t owner = 0);
    void mroute(const rtab_mac_info &key, std::initializer_list<std::uint32_t> iods);
    void unroute(const rtab_mac_info &key);
    [[nodiscard]] std::size_t routes() const;
    [[nodiscard]] const rtab_route *find_route(const rtab_mac_info &key) const;  // as rtab_get_route gives it
    [[nodiscard]] std::vector<std::uint32_t> mroute_iods(const rtab_mac_info &key) const;

    // ---- command server
    // Runs the handler that the daemon registered under that name. Values are written as a user types them.
    command_result command(std::string_view handler, const command_arguments &arguments = {}, bool no = false,
                           std::uint32_t mode_iod = 0);
    // Runs a handler that need not be registered.
    command_result command(cli_handler handler, const command_arguments &arguments = {}, bool no = false,
                           std::uint32_t mode_iod = 0);

    // ---- UDP stack
    void datagram(int family, bytes data);       // waits on the open socket of that family (AF_INET, AF_INET6)
    [[nodiscard]] std::vector<socket_record> sockets() const;            // in the order of their opening

    state &impl() { return *state_; }
    [[nodiscard]] const state &impl() const { return *state_; }

private:
    std::unique_ptr<state> state_;
};

} // namespace fake

extern fake::platform_object platform;

// A command as the fake parsed it: handlers get it as cli_cmd.
struct cli_cmd {
    fake::command_arguments arguments;
    bool no = false;
    std::uint32_t mode_iod = 0;
    std::string output;          // everything printed, both ways, in order
    std::string tty;             // what went through cli_tty_printf alone
    std::size_t more_asked = 0;
    std::map<std::string, std::vector<cli_vlan_ranges::range>, std::less<>> ranges;
};
