// Client of the command server: registration, and the command thread that runs the handlers.
#include "cli_command.h"
#include "client.h"

#include "../api/corvane_thread.h"
#include "../api/plock.h"
#include "../api/syslog_client.h"
#include "packet/authority.h"
#include "service_retry.h"

#include <cerrno>
#include <cstring>
#include <cstdint>
#include <sys/eventfd.h>
#include <unistd.h>

namespace corvane {

namespace {

constexpr int RECONNECT_MS = 200;

struct replay_request {
    std::uint32_t iod = 0;
    std::uint64_t during = 0;
};

struct cli_state {
    std::string client;
    std::vector<std::string> names;                          // in the order they were registered
    std::unordered_map<std::string, cli_handler> handlers;
    cli_connection connection;                               // the command thread's, once that runs
    applied_lines applied;                                   // likewise
    pthread_t thread{};
    bool thread_runs = false;
    int wake_fd = -1;
    int last_error = 0;
    std::atomic<bool> ending{false};
    std::mutex lock;                                         // of what follows
    std::deque<replay_request> replays;
};

cli_state &cli()
{
    static auto *the_state = new cli_state;
    return *the_state;
}

thread_local std::uint64_t current_request = 0;              // that this thread is carrying out

void wake()
{
    const std::uint64_t one = 1;
    (void)!write(cli().wake_fd, &one, sizeof one);
}

void clear_wake()
{
    std::uint64_t count = 0;
    (void)!read(cli().wake_fd, &count, sizeof count);
}

void send_replays()
{
    std::deque<replay_request> asked;
    {
        const std::lock_guard guard(cli().lock);
        asked.swap(cli().replays);
    }
    for (const auto &replay : asked)
        cli().connection.send(CLIENT_REPLAY, byte_writer().put(replay.iod).put(replay.during).view());
}

int call_handler(cli_cmd &cmd) CORVANE_NO_TSA
{
    const auto found = cli().handlers.find(cmd.record.handler);
    if (found == cli().handlers.end())
        return CLI_REJECTED;
    plock_acquire_process_lock();
    int status = CLI_REJECTED;
    if (!cli().ending) {
        current_request = cmd.record.request;
        status = found->second(&cmd);
        cli_flush(cmd);
        current_request = 0;
    }
    plock_release_process_lock();
    return status;
}

void carry_out(queued_request request)
{
    cli_cmd cmd(std::move(request.record), cli().connection);
    cmd.credit = request.credit;
    cmd.stopped = request.stopped;
    const int status = call_handler(cmd);
    if (status == CLI_DONE) {
        cli().applied.change(cmd.record);
        corvane::port_vlan_configured(cmd.record.handler, cmd.record.mode_iod, cmd.record.no, cmd.record.arguments);
    }
    send_replays();                                          // before the result, so that they are known to belong to it
    byte_writer result;
    result.put(cmd.record.request).put(static_cast<std::int32_t>(status));
    cli().connection.send(CLIENT_RESULT, result.view());
}

void reconnect()
{
    const int error = cli().connection.open(cli().client);
    if (error == 0)
        cli().connection.announce(cli().names, cli().applied);
    else if (error != ENOENT && error != ECONNREFUSED && error != cli().last_error)
        krel_syslog(4, "command server: %s", strerror(error));
    cli().last_error = error;
}

void *command_thread(void *)
{
    while (!cli().ending) {
        if (!cli().connection.is_open())
            reconnect();
        (void)cli().connection.wait(cli().wake_fd, cli().connection.is_open() ? -1 : RECONNECT_MS);
        clear_wake();
        send_replays();
        queued_request request;
        while (!cli().ending && cli().connection.next_request(request)) {
            if (request.record.handler.empty())
                cli().applied.forget(request.record.interface);
            else
                carry_out(std::move(request));
        }
    }
    cli().connection.close();
    return nullptr;
}

} // namespace

bool cli_ending() { return cli().ending; }

} // namespace corvane

using corvane::cli;

int cli_init(const char *client, std::uint32_t, std::uint32_t)
{
    if (client == nullptr || *client == '\0')
        return EINVAL;
    if (cli().thread_runs)
        return EEXIST;
    if (cli().wake_fd < 0)
        cli().wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (cli().wake_fd < 0) {
        const int error = errno;
        corvane::part_failed();
        return error;
    }
    cli().client = client;
    cli().names.clear();
    cli().handlers.clear();
    cli().ending = false;
    const int error = cli().connection.open(client);
    if (error != 0)
        corvane::part_failed();
    return error;
}

int cli_ready(const char *client, std::uint32_t) { return cli().client == client ? 0 : EINVAL; }

int cli_register_cmd(const char *name, cli_handler handler, std::uint32_t)
{
    if (name == nullptr || handler == nullptr || cli().thread_runs)
        return EINVAL;
    if (!cli().handlers.emplace(name, handler).second)
        return EEXIST;
    cli().names.emplace_back(name);
    return 0;
}

int cli_send_my_commands()
{
    if (cli().thread_runs)
        return EEXIST;
    if (!cli().connection.is_open())
        return ENOTCONN;
    cli().connection.announce(cli().names, cli().applied);
    const std::string name = cli().client + "-cli-thread";
    const int error = corvane_pthread_create(cli().thread, nullptr, corvane::command_thread, nullptr, name.c_str());
    cli().thread_runs = error == 0;
    return error;
}

int cli_send_my_if_commands(std::uint32_t iod)
{
    if (!cli().thread_runs)
        return ENOTCONN;                                     // all of it is replayed when the thread begins
    {
        const std::lock_guard guard(cli().lock);
        cli().replays.push_back({iod, corvane::current_request});
    }
    corvane::wake();
    return 0;
}

void cli_exit_thread()
{
    if (!cli().thread_runs)
        return;
    cli().ending = true;
    corvane::wake();
    plock_assert_held();
    {
        const plock_yield_scope unlocked;                    // the thread may be waiting for the lock
        (void)pthread_join(cli().thread, nullptr);
    }
    cli().thread_runs = false;
}
