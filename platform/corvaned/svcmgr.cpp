// Service manager: which services are up, who wants to know, and the life of the processes that registered.
#include "svcmgr.h"

#include "bus.h"
#include "rpc.h"
#include "shm.h"

#include "../api/svcmgr.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>
#include <unistd.h>
#include <utility>

namespace corvaned {
namespace {

struct service {
    std::string name;
    bool up = false;
    pid_t pid = 0;
};

struct service_client {
    std::uint64_t connection = 0;
    std::uint32_t queue = 0;
    std::uint32_t service = 0;
    pid_t pid = 0;
    std::set<std::uint32_t> interested;
};

struct svcmgr_state {
    std::map<std::uint32_t, service> services;
    std::map<std::uint64_t, service_client> clients;       // by connection
    std::uint64_t last_request = 0;
    bool order_started = false;
};

svcmgr_state &state()
{
    static svcmgr_state the_state;
    return the_state;
}

struct known_service {
    std::uint32_t number;
    const char *name;
};
// Client parts of these live in the library alone, or have no file of their own here: up whenever corvaned is.
constexpr auto always_hosted = std::to_array<known_service>({
    {corvane::SVC_SVCMGR, "svcmgr"}, {SVC_CMDSRV, "cmdsrv"}, {SVC_PKTMGR, "pktmgr"}, {SVC_IP, "ip"},
    {SVC_IPV6, "ipv6"}, {SVC_UDP, "udp"}, {SVC_IGMP, "igmp"}, {SVC_INTFMGR, "intfmgr"},
    {SVC_VRFMGR, "vrfmgr"}, {SVC_RTAB, "rtab"}, {corvane::SVC_SDB, "sdb"}, {corvane::SVC_FEATMGR, "featmgr"},
});

const char *name_of_client(std::uint32_t number)
{
    return number == corvane::SVC_LUM ? "lum" : "client";
}

service_client *client_of(std::uint64_t connection)
{
    const auto found = state().clients.find(connection);
    return found == state().clients.end() ? nullptr : &found->second;
}

void tell(const service_client &to, std::uint32_t opcode, byte_view payload)
{
    bus_deliver(to.connection, to.queue, corvane::SVCMGR_SAP, opcode, payload);
}

void tell_state(const service_client &to, std::uint32_t number, bool up)
{
    const std::uint32_t value = up ? SVCMGR_STATE_UP : SVCMGR_STATE_DOWN;
    tell(to, corvane::SVCMGR_OPC_STATE, byte_writer().put(number).put(value).view());
}

bool is_up(std::uint32_t number)
{
    const auto found = state().services.find(number);
    return found != state().services.end() && found->second.up;
}

// ---- services held down and brought up in a given order: "N" up, "-N" down, "@MS" waits; for tests of clients

void run_order(std::string rest)
{
    while (!rest.empty()) {
        const std::size_t comma = std::min(rest.find(','), rest.size());
        const std::string word = rest.substr(0, comma);
        rest.erase(0, std::min(comma + 1, rest.size()));
        if (word.empty())
            continue;
        if (word[0] == '@') {
            after(std::chrono::milliseconds(std::atoi(word.c_str() + 1)), [rest] { run_order(rest); });
            return;
        }
        const bool down = word[0] == '-';
        service_set_up(static_cast<std::uint32_t>(std::atoi(word.c_str() + (down ? 1 : 0))), !down);
    }
}

void hold_down_ordered()
{
    const char *order = getenv("CORVANE_SERVICE_ORDER");
    std::string rest = order == nullptr ? "" : order;
    while (!rest.empty()) {
        const std::size_t comma = std::min(rest.find(','), rest.size());
        if (rest[0] != '@' && rest[0] != '-')
            state().services[static_cast<std::uint32_t>(std::atoi(rest.c_str()))].up = false;
        rest.erase(0, std::min(comma + 1, rest.size()));
    }
}

void start_order_once()
{
    const char *order = getenv("CORVANE_SERVICE_ORDER");
    if (order != nullptr && !std::exchange(state().order_started, true))
        run_order(order);
}

// ---- calls of clients

answer handle_info(const peer &who, byte_view)
{
    const std::uint32_t role = daemon_is_standby(who.pid) ? 0 : 1;
    return {0, byte_writer()
                   .put(role)
                   .put(daemon_start_reason(who.pid))
                   .put(static_cast<std::uint32_t>(daemon_heartbeat_interval().count()))
                   .take()};
}

answer handle_handshake(const peer &who, byte_view request)
{
    byte_reader in(request);
    const auto queue = in.get<std::uint32_t>();
    const auto number = in.get<std::uint32_t>();
    if (!in.done() || number == 0)
        return {EINVAL, {}};
    service_client &c = state().clients[who.connection];
    c.connection = who.connection;
    c.queue = queue;
    c.service = number;
    c.pid = who.pid;
    connection_set_service(who.connection, number);
    daemon_handshake_done(who.pid);
    if (!daemon_is_standby(who.pid)) {
        service &s = state().services[number];
        if (s.name.empty())
            s.name = name_of_client(number);
        s.pid = who.pid;
        service_set_up(number, true);
    }
    return {};
}

// A client that was connected before tells what it knows: only news are news to it.
answer handle_query(const peer &who, byte_view request)
{
    byte_reader in(request);
    const auto number = in.get<std::uint32_t>();
    const auto known = in.get<std::uint32_t>();
    service_client *c = client_of(who.connection);
    if (!in.done() || c == nullptr)
        return {in.done() ? ENOENT : EINVAL, {}};
    c->interested.insert(number);
    const bool up = is_up(number);
    if (known == 0)
        tell(*c, corvane::SVCMGR_OPC_QUERY_ANSWER,
             byte_writer().put(c->service).put(number).put(0u).put(std::uint32_t{up}).view());
    else if (up != (known == SVCMGR_STATE_UP))
        tell_state(*c, number, up);
    start_order_once();
    return {};
}

answer handle_heartbeat(const peer &who, byte_view request)
{
    byte_reader in(request);
    const auto first = in.get<std::uint32_t>();
    if (in.done())
        daemon_beat(who.pid, first != 0);
    return {};
}

answer handle_cleanup(const peer &who, byte_view request)
{
    byte_reader in(request);
    (void)in.get<std::uint32_t>();
    const service_client *c = client_of(who.connection);
    if (!in.done() || c == nullptr)
        return {in.done() ? ENOENT : EINVAL, {}};
    daemon_cleanup_requested(who.pid);
    tell(*c, corvane::SVCMGR_OPC_CLEANUP_START,
         byte_writer().put(++state().last_request).put(corvane::STOP_REASON_REQUEST).view());
    return {};
}

answer handle_switchover_done(const peer &who, byte_view request)
{
    byte_reader in(request);
    (void)in.get<std::uint64_t>();
    const auto status = in.get<std::uint32_t>();
    if (!in.done())
        return {EINVAL, {}};
    if (status != 0)
        log_line(4, "process " + std::to_string(who.pid) + " answered the switchover with status " + std::to_string(status));
    daemon_switchover_answered(who.pid, false);
    return {};
}

answer handle_recovery_done(const peer &who, byte_view request)
{
    byte_reader in(request);
    (void)in.get<std::uint32_t>();
    if (!in.done())
        return {EINVAL, {}};
    daemon_switchover_answered(who.pid, true);
    return {};
}

answer handle_services(const peer &, byte_view)
{
    byte_writer out;
    out.put(static_cast<std::uint32_t>(state().services.size()));
    for (const auto &[number, s] : state().services)
        out.put(number).put(std::uint32_t{s.up}).put(static_cast<std::uint32_t>(s.up ? s.pid : 0)).text(s.name);
    return {0, out.take()};
}

// ---- feature manager

// False: there is no daemon to be told.
bool tell_feature(std::uint32_t opcode)
{
    for (const auto &[connection, c] : state().clients)
        if (c.service == corvane::SVC_LUM && !daemon_is_standby(c.pid)) {
            bus_deliver(c.connection, c.queue, corvane::FEATMGR_SAP, opcode,
                        byte_writer().put(c.service).put(static_cast<std::uint32_t>(++state().last_request)).view());
            return true;
        }
    return false;
}

answer handle_feature(const peer &, byte_view request)
{
    byte_reader in(request);
    const auto enable = in.get<std::uint32_t>();
    if (!in.done())
        return {EINVAL, {}};
    if (enable != 0 && daemon_wanted())
        return {};
    return {tell_feature(enable != 0 ? corvane::FEATMGR_OPC_ENABLE : corvane::FEATMGR_OPC_DISABLE) ? 0 : ENOENT, {}};
}

answer handle_feature_answer(const peer &who, byte_view request)
{
    byte_reader in(request);
    const auto feature = in.get<std::uint32_t>();
    (void)in.get<std::uint32_t>();
    const auto status = in.get<std::uint32_t>();
    if (!in.done())
        return {EINVAL, {}};
    log_line(6, "process " + std::to_string(who.pid) + " answered for feature " + std::to_string(feature) + ": status " +
                    std::to_string(status));
    return {};
}

answer handle_feature_status(const peer &, byte_view request)
{
    byte_reader in(request);
    const auto feature = in.get<std::uint32_t>();
    const auto enabled = in.get<std::uint32_t>();
    const auto status = in.get<std::uint32_t>();
    if (!in.done())
        return {EINVAL, {}};
    log_line(6, "feature " + std::to_string(feature) + (enabled != 0 ? " enabled" : " disabled") + ", status " +
                    std::to_string(status));
    bus_announce(corvane::FEATMGR_SAP, corvane::FEATMGR_OPC_STATUS, request);
    return {};
}

void client_gone(const peer &who)
{
    const service_client *c = client_of(who.connection);
    if (c == nullptr)
        return;
    const std::uint32_t number = c->service;
    state().clients.erase(who.connection);
    if (state().services[number].pid == who.pid)
        service_set_up(number, false);
}

// ---- commands

int rejected_or_done(command &cmd, const std::string &why)
{
    if (why.empty())
        return 0;
    cmd.print(why + "\n");
    return -500;
}

int show_services(command &cmd)
{
    cmd.print("Number  Service       State Process\n");
    for (const auto &[number, s] : state().services) {
        char line[128];
        std::snprintf(line, sizeof line, "%-6u  %-12s  %-4s  %d\n", number, s.name.c_str(), s.up ? "up" : "down",
                      s.up ? static_cast<int>(s.pid) : 0);
        cmd.print(line);
    }
    return 0;
}

int set_chassis(command &cmd)
{
    bool generic = false;
    for (const auto &[name, text] : cmd.arguments)
        generic = generic || name == "generic" || text == "generic";
    platform().chassis =
        static_cast<std::uint32_t>(generic && !cmd.no ? corvane::chassis_kind::GENERIC : corvane::chassis_kind::FERRIX);
    return 0;
}

int start_daemon(command &cmd)
{
    const bool done = daemon_wanted() || tell_feature(corvane::FEATMGR_OPC_ENABLE);
    return rejected_or_done(cmd, done ? "" : "lum is stopping already");
}

int stop_daemon(command &cmd)
{
    return rejected_or_done(cmd, tell_feature(corvane::FEATMGR_OPC_DISABLE) ? "" : "lum is not running");
}

void serve_methods()
{
    serve_method(corvane::SVCMGR_INFO, handle_info);
    serve_method(corvane::SVCMGR_HANDSHAKE, handle_handshake);
    serve_method(corvane::SVCMGR_HEARTBEAT, handle_heartbeat);
    serve_method(corvane::SVCMGR_QUERY, handle_query);
    serve_method(corvane::SVCMGR_CLEANUP, handle_cleanup);
    serve_method(corvane::SVCMGR_SWITCHOVER_DONE, handle_switchover_done);
    serve_method(corvane::SVCMGR_RECOVERY_DONE, handle_recovery_done);
    serve_method(corvane::SVCMGR_SERVICES, handle_services);
    serve_method(corvane::SVCMGR_FEATURE, handle_feature);
    serve_method(corvane::SVCMGR_FEATURE_ANSWER, handle_feature_answer);
    serve_method(corvane::SVCMGR_FEATURE_STATUS, handle_feature_status);
}

void serve_commands()
{
    serve_command("show_services", show_services);
    serve_command("chassis", set_chassis);
    serve_command("switchover", [](command &cmd) { return rejected_or_done(cmd, daemon_switchover()); });
    serve_command("restart_lum", [](command &cmd) { return rejected_or_done(cmd, daemon_restart()); });
    serve_command("start_lum", start_daemon);
    serve_command("stop_lum", stop_daemon);
}

} // namespace

bool svcmgr_tell(pid_t pid, std::uint32_t source_sap, std::uint32_t opcode, byte_view payload)
{
    for (const auto &[connection, c] : state().clients)
        if (c.pid == pid)
            return bus_deliver(connection, c.queue, source_sap, opcode, payload);
    return false;
}

void svcmgr_tell_all(std::uint32_t source_sap, std::uint32_t opcode, byte_view payload)
{
    for (const auto &[connection, c] : state().clients)
        bus_deliver(connection, c.queue, source_sap, opcode, payload);
}

void promote_client(pid_t pid)
{
    for (const auto &[connection, c] : state().clients) {
        if (c.pid != pid)
            continue;
        bus_promote(connection);
        state().services[c.service].pid = pid;
        service_set_up(c.service, true);
        return;
    }
}

void service_hosted(std::uint32_t number, const char *name)
{
    state().services[number] = {name, true, getpid()};
}

void service_set_up(std::uint32_t number, bool up)
{
    service &s = state().services[number];
    if (s.up == up)
        return;
    s.up = up;
    if (s.pid == 0)
        s.pid = getpid();
    for (const auto &[connection, c] : state().clients)
        if (c.interested.contains(number))
            tell_state(c, number, up);
}

void svcmgr_stop(std::function<void()> done)
{
    daemons_stop(std::move(done));
}

void svcmgr_serve()
{
    serve_methods();
    serve_commands();
    on_disconnect(client_gone);
    bus_standby_test([](const peer &who) { return daemon_is_standby(who.pid); });
}

void svcmgr_start()
{
    for (const known_service &s : always_hosted)
        if (!state().services.contains(s.number))
            service_hosted(s.number, s.name);
    state().services.try_emplace(corvane::SVC_LUM, service{"lum", false, 0});
    hold_down_ordered();
    daemons_start();
}

} // namespace corvaned
