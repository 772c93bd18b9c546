// Clients that carry commands out: they name their handlers, take requests and send output and results, in the order
// of the requests. Several processes of one client may be there; one of them, the active one, gets the commands.
#include "cmdsrv.h"

#include "admission.h"
#include "cmdsrv_stream.h"
#include "rpc.h"

#include "../wire/cmdsrv.h"

#include <algorithm>
#include <cerrno>
#include <set>
#include <unistd.h>
#include <utility>

namespace corvaned {

namespace {

using clock = std::chrono::steady_clock;

constexpr std::size_t CLIENTS_MAX = 64, HANDLERS_MAX = 2048, NAME_MAX_BYTES = 64, APPLIED_MAX = 1'000'000;
constexpr std::size_t OUT_MAX = 16 * 1024 * 1024, REQUESTS_MAX = 4096;
constexpr std::chrono::seconds ANSWER_PATIENCE{10};
constexpr std::chrono::seconds TICK{1};

struct pending {
    running_ptr command;
    clock::time_point progress;              // when it was sent, or last gave output, or was granted more
    std::uint64_t credit = corvane::CLIENT_FIRST_CREDIT;     // granted and not used yet
};

struct client {
    std::uint64_t id = 0;
    std::shared_ptr<framed_stream> stream;
    peer who;
    std::string name;
    std::uint64_t instance = 0;
    std::set<std::string> handlers;
    std::vector<applied_line> applied;
    std::deque<pending> requests;            // sent and not answered; the first one is being carried out
    bool ready = false;
};

struct client_state {
    std::map<std::uint64_t, client> clients;             // by connection, in the order they came
    std::map<std::string, pid_t> chosen;                 // by the service manager, whether it is here yet or not
    std::map<std::string, std::uint64_t> active;         // the connection that was brought to what is configured
    std::uint64_t last_id = 0;
    bool ticking = false;
};

client_state &state()
{
    static auto *the_state = new client_state;
    return *the_state;
}

client *find(std::uint64_t id)
{
    const auto found = state().clients.find(id);
    return found == state().clients.end() ? nullptr : &found->second;
}

// The chosen one, else the first one that is there and does not stand by.
client *active_of(const std::string &name)
{
    const auto chosen = state().chosen.find(name);
    client *first = nullptr;
    for (auto &[id, c] : state().clients) {
        if (c.name != name || !c.ready)
            continue;
        if (chosen != state().chosen.end() && chosen->second == c.who.pid)
            return &c;
        if (first == nullptr && !cmdsrv().stands_by(c.who.pid))
            first = &c;
    }
    return first;
}

bool is_active(const client &c) { return active_of(c.name) == &c; }

// Another process may have become the active one: it is brought to what is configured.
void check_active(const std::string &name)
{
    client *now = active_of(name);
    const std::uint64_t id = now == nullptr ? 0 : now->id;
    if (std::exchange(state().active[name], id) == id)
        return;
    replay_forget(name);
    if (now != nullptr)
        replay_all(name, std::exchange(now->applied, {}));
}

void lost(std::uint64_t id, const char *why)
{
    const auto found = state().clients.find(id);
    if (found == state().clients.end())
        return;
    client gone = std::move(found->second);
    state().clients.erase(found);
    if (!gone.name.empty())
        log_line(5, "client " + gone.name + "[" + std::to_string(gone.who.pid) + "]: " + why);
    check_active(gone.name);
    for (auto &request : gone.requests)
        request.command->finish(corvane::STATUS_REJECTED, gone.name + " stopped before it answered");
}

void drop(std::uint64_t id, const char *why)
{
    client *c = find(id);
    if (c == nullptr)
        return;
    c->stream->close();
    after(std::chrono::milliseconds(0), [id, why] { lost(id, why); });
}

void welcome(client &c, int error, const std::string &why)
{
    byte_writer record;
    record.put(static_cast<std::uint32_t>(error)).text(why);
    (void)c.stream->send(corvane::SERVER_WELCOME, record.view());
    if (error != 0)
        c.stream->finish();
}

bool hello(client &c, byte_reader in)
{
    const auto version = in.get<std::uint32_t>();
    const auto instance = in.get<std::uint64_t>();
    const std::string name = in.text();
    if (!in.done() || instance == 0 || name.empty() || name.size() > NAME_MAX_BYTES || !c.name.empty())
        return false;
    if (version != corvane::CMDSRV_VERSION) {
        welcome(c, EPROTO, "another version of the command server's protocol");
        return true;
    }
    if (name == "platform" || name == "shell") {
        welcome(c, EEXIST, "the name '" + name + "' is taken");
        return true;
    }
    c.name = name;
    c.instance = instance;
    welcome(c, 0, "");
    return true;
}

bool bring_grammar(const client &c, byte_reader in)
{
    const std::string text = in.text();
    if (!in.done())
        return false;
    if (cmdsrv().commands.has_client(c.name))                // it came before, or is installed
        return true;
    for (const auto &error : cmdsrv().commands.add(text, c.name + ".cli", c.name))
        log_line(3, "grammar: " + error.message());
    return true;
}

bool name_handler(client &c, byte_reader in)
{
    std::string name = in.text();
    if (!in.done() || name.empty() || name.size() > NAME_MAX_BYTES || c.handlers.size() >= HANDLERS_MAX)
        return false;
    c.handlers.insert(std::move(name));
    return true;
}

bool applied_before(client &c, byte_reader in)
{
    applied_line line;
    line.interface = in.text();
    line.line = in.text();
    if (!in.done() || c.ready || c.applied.size() >= APPLIED_MAX)
        return false;
    c.applied.push_back(std::move(line));
    return true;
}

void report_unhandled(const client &c)
{
    for (const auto &command : cmdsrv().commands.all())
        if (command.client == c.name && !c.handlers.contains(command.handler))
            log_line(4, "client " + c.name + " has no handler " + command.handler);
}

bool become_ready(client &c)
{
    if (c.ready)
        return false;
    c.ready = true;
    report_unhandled(c);
    check_active(c.name);
    return true;
}

bool asked_replay(const client &c, byte_reader in)
{
    const auto iod = in.get<std::uint32_t>();
    const auto during = in.get<std::uint64_t>();
    if (in.done() && is_active(c))
        replay_interface(c.name, iod, during);
    return in.done();
}

bool take_output(client &c, byte_reader in)
{
    const auto request = in.get<std::uint64_t>();
    if (!in.ok() || c.requests.empty() || c.requests.front().command->record.request != request)
        return false;
    pending &head = c.requests.front();
    const byte_view text = in.rest();
    if (text.size() > head.credit)
        return false;
    head.credit -= text.size();
    head.progress = clock::now();
    const running_ptr command = head.command;
    if (command->output && !command->abandoned)
        command->output({reinterpret_cast<const char *>(text.data()), text.size()});
    else
        command->grant(static_cast<std::uint32_t>(text.size()));
    return true;
}

bool take_result(client &c, byte_reader in)
{
    const auto request = in.get<std::uint64_t>();
    const auto status = in.get<std::int32_t>();
    if (!in.done() || c.requests.empty() || c.requests.front().command->record.request != request)
        return false;
    const running_ptr command = c.requests.front().command;
    c.requests.pop_front();
    if (!c.requests.empty())
        c.requests.front().progress = clock::now();
    command->finish(status);
    return true;
}

bool handle(client &c, std::uint32_t kind, byte_reader in)
{
    if (kind == corvane::CLIENT_HELLO)
        return hello(c, in);
    if (c.name.empty())
        return false;
    switch (kind) {
    case corvane::CLIENT_GRAMMAR:
        return bring_grammar(c, in);
    case corvane::CLIENT_HANDLER:
        return name_handler(c, in);
    case corvane::CLIENT_APPLIED:
        return applied_before(c, in);
    case corvane::CLIENT_READY:
        return become_ready(c);
    case corvane::CLIENT_REPLAY:
        return asked_replay(c, in);
    case corvane::CLIENT_OUTPUT:
        return take_output(c, in);
    case corvane::CLIENT_RESULT:
        return take_result(c, in);
    default:
        return false;
    }
}

void frame_of(std::uint64_t id, std::uint32_t kind, byte_view record)
{
    client *c = find(id);
    if (c != nullptr && !handle(*c, kind, byte_reader(record)))
        drop(id, "sent something that is not understood");
}

void accepted(int fd, const peer &who)
{
    if (state().clients.size() >= CLIENTS_MAX || access_of(fd, who.uid, who.gid) != access_level::FULL) {
        close(fd);
        return;
    }
    const std::uint64_t id = ++state().last_id;
    client &c = state().clients[id];
    c.id = id;
    c.who = who;
    c.stream = framed_stream::make(fd, OUT_MAX,
                                   {[id](std::uint32_t kind, byte_view record) { frame_of(id, kind, record); }, nullptr,
                                    [id](const char *why) { lost(id, why); }});
}

// The one who asked is told; the request stays until the client answers, since it may still be carried out.
void check_patience(client &c)
{
    if (c.requests.empty() || clock::now() - c.requests.front().progress < ANSWER_PATIENCE ||
        c.requests.front().credit == 0)
        return;
    for (auto &request : c.requests) {
        const running_ptr command = request.command;
        if (std::exchange(command->abandoned, true))
            continue;
        if (command->expired)
            command->expired(c.name + " does not answer");
    }
}

void tick()
{
    std::vector<std::uint64_t> ids;
    for (const auto &[id, c] : state().clients)
        ids.push_back(id);
    for (const auto id : ids)
        if (client *c = find(id)) {
            check_patience(*c);
            check_active(std::string(c->name));
        }
    after(TICK, tick);
}

void grant(std::uint64_t id, std::uint64_t request, std::uint32_t bytes)
{
    client *c = find(id);
    if (c == nullptr || bytes == 0)
        return;
    const auto found = std::ranges::find_if(c->requests,
                                            [&](const auto &p) { return p.command->record.request == request; });
    if (found == c->requests.end())
        return;
    found->credit += bytes;
    found->progress = clock::now();
    byte_writer record;
    record.put(request).put(bytes);
    (void)c->stream->send(corvane::SERVER_CREDIT, record.view());
}

void stop_output(std::uint64_t id, std::uint64_t request)
{
    client *c = find(id);
    if (c == nullptr)
        return;
    byte_writer record;
    record.put(request);
    (void)c->stream->send(corvane::SERVER_STOP, record.view());
}

} // namespace

bool client_submit(const std::string &name, const running_ptr &command, std::string &why)
{
    client *c = active_of(name);
    if (c == nullptr) {
        why = name + " is not running";
        return false;
    }
    if (!c->handlers.contains(command->record.handler)) {
        why = name + " does not know this command";
        return false;
    }
    if (c->requests.size() >= REQUESTS_MAX) {
        why = name + " is busy: too many commands are waiting";
        return false;
    }
    byte_writer record;
    corvane::put_execute(record, command->record);
    const std::uint64_t id = c->id, request = command->record.request;
    command->grant = [id, request](std::uint32_t bytes) { grant(id, request, bytes); };
    command->stop = [id, request] { stop_output(id, request); };
    if (!c->stream->send(corvane::SERVER_EXECUTE, record.view())) {
        why = name + " is not running";
        return false;
    }
    c->requests.push_back({command, clock::now()});
    return true;
}

void clients_forget(const std::string &interface)
{
    byte_writer record;
    record.text(interface);
    for (auto &[id, c] : state().clients)
        if (c.ready)
            (void)c.stream->send(corvane::SERVER_FORGET, record.view());
}

void clients_set_active(const std::string &name, pid_t pid)
{
    state().chosen[name] = pid;
    check_active(name);
}

bool client_ready(const std::string &name) { return active_of(name) != nullptr; }

void clients_start()
{
    if (!stream_listen(corvane::CMDSRV_SOCKET, 0660, accepted))
        log_line(2, std::string("cannot listen for clients of the command server: ") + std::strerror(errno));
    if (!std::exchange(state().ticking, true))
        after(TICK, tick);
}

} // namespace corvaned
