// Brings clients to what is configured. A replay is a queue of lines, looked up when their turn comes, so that a line
// that was changed or taken back meanwhile is not brought back. A few are on their way at a time; commands that people
// enter go between them.
#include "cmdsrv.h"

#include <algorithm>
#include <set>
#include <unordered_set>
#include <utility>

namespace corvaned {

namespace {

constexpr std::size_t ON_THE_WAY_MAX = 32;
// A handler may ask for its interface's lines while one of them is replayed: once more they are sent, then no more.
constexpr int NESTED_MAX = 1;

struct replay_item {
    std::uint64_t line = 0;                  // 0: `back` is taken back
    applied_line back;
    std::uint32_t for_iod = 0;               // replay of this interface, 0 = of everything
    int nested = 0;
};

struct replay_queue {
    std::deque<replay_item> items;
    std::unordered_set<std::uint64_t> queued;                // lines in `items`
    std::map<std::uint64_t, std::pair<std::uint32_t, int>> on_the_way;   // request: iod, nested
    std::uint64_t generation = 0;                            // answers of an earlier one say nothing
};

struct replay_state {
    std::map<std::string, replay_queue> queues;              // by client
    std::map<std::string, std::size_t> held;                 // configuring commands on their way
    std::uint64_t generation = 0;
};

replay_state &state()
{
    static auto *the_state = new replay_state;
    return *the_state;
}

parse_context context_of(const std::string &interface)
{
    return {&cmdsrv().commands, mode_of_interface(interface), false, false, nullptr};
}

void enqueue(replay_queue &queue, const config_line &line, std::uint32_t iod, int nested)
{
    if (queue.queued.insert(line.id).second)
        queue.items.push_back({line.id, {}, iod, nested});
}

std::string described(const config_line &line)
{
    const std::string where = line.source_line != 0 ? startup_path() + ":" + std::to_string(line.source_line) + ": " : "";
    return where + "'" + line.full() + "'" + (line.interface.empty() ? "" : " of " + line.interface);
}

// What the handler said, without its line end.
std::string said(std::string text)
{
    while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
        text.pop_back();
    return text.empty() ? "rejected" : text;
}

void judge(std::uint64_t id, const parsed_command &command, int status, const std::string &text)
{
    config_line *line = cmdsrv().running.find(id);
    if (line == nullptr)
        return;
    if (status == corvane::STATUS_DONE || status == corvane::STATUS_STOPPED) {
        line->state = line_state::ACTIVE;
        return;
    }
    const bool waits = waits_for_interface(command, line->interface);
    if (line->state == line_state::ACTIVE && !waits) {
        log_line(3, described(*line) + " was accepted before and is refused now: " + said(text));
        return;
    }
    if (line->state != line_state::WAITING)
        report_load_error(described(*line) + ": " + said(text) + (waits ? " (waits for its interface)" : ""));
    if (waits)
        line->state = line_state::WAITING;
    else if (line->state == line_state::UNTRIED)
        cmdsrv().running.remove(id);
}

void pump(const std::string &client);

// Sends one parsed line again. It is in the running configuration already (or on its way out of it), so nothing is
// taken into it here.
void send_again(const std::string &client, replay_queue &queue, const replay_item &item, parsed_command command,
                const std::string &interface)
{
    const auto running = std::make_shared<running_command>();
    running->record = record_of(command, interface);
    const std::uint64_t request = running->record.request;
    const auto text = std::make_shared<std::string>();
    running->output = [text, weak = std::weak_ptr(running)](std::string_view piece) {
        constexpr std::size_t KEPT_MAX = 1024;
        text->append(piece.substr(0, KEPT_MAX - std::min(text->size(), KEPT_MAX)));
        if (const auto command_now = weak.lock())
            command_now->grant(static_cast<std::uint32_t>(piece.size()));
    };
    running->done = [=, line = item.line, generation = queue.generation](int status, const std::string &why) {
        auto &now = state().queues[client];
        if (now.generation != generation)
            return;
        now.on_the_way.erase(request);
        if (why.empty() && line != 0)                        // else the client went away
            judge(line, command, status, *text);
        pump(client);
    };
    queue.on_the_way[request] = {item.for_iod, item.nested};
    std::string why;
    if (!client_submit(client, running, why)) {
        queue.on_the_way.erase(request);
        report_load_error("'" + command.text + "': " + why);
    }
}

void send_item(const std::string &client, replay_queue &queue, const replay_item &item)
{
    std::string text = item.back.line, interface = item.back.interface;
    if (item.line != 0) {
        const config_line *line = cmdsrv().running.find(item.line);
        if (line == nullptr)
            return;
        text = line->full();
        interface = line->interface;
    }
    auto parsed = parse(context_of(interface), text);
    if (parsed.error || (!interface.empty() && cmdsrv().interfaces.find(interface) == 0)) {
        if (item.line != 0 && !parsed.error)
            judge(item.line, parsed.command, corvane::STATUS_REJECTED, "no such interface: " + interface);
        return;
    }
    send_again(client, queue, item, std::move(parsed.command), interface);
}

void pump(const std::string &client)
{
    auto &queue = state().queues[client];
    while (!queue.items.empty() && queue.on_the_way.size() < ON_THE_WAY_MAX && state().held[client] == 0 &&
           client_ready(client)) {
        const replay_item item = std::move(queue.items.front());
        queue.items.pop_front();
        queue.queued.erase(item.line);
        send_item(client, queue, item);
    }
}

// Lines of the platform are carried out here, at once.
void run_platform_line(std::uint64_t id)
{
    const config_line *line = cmdsrv().running.find(id);
    if (line == nullptr)
        return;
    const auto parsed = parse(context_of(line->interface), line->full());
    if (parsed.error)
        return;
    std::string text;
    const int status = run_platform_again(parsed.command, line->interface, text);
    judge(id, parsed.command, status, text);
}

bool concerns(const config_line &line, const std::string &interface)
{
    if (line.interface == interface)
        return true;
    const auto parsed = parse(context_of(line.interface), line.full());
    return !parsed.error && std::ranges::find(parsed.command.interfaces, interface) != parsed.command.interfaces.end();
}

void offer(std::uint64_t id)
{
    const config_line *line = cmdsrv().running.find(id);
    if (line == nullptr)
        return;
    const std::string client = line->command->client;
    if (client == "platform") {
        run_platform_line(id);
        return;
    }
    auto &queue = state().queues[client];
    enqueue(queue, *line, 0, 0);
    pump(client);
}

} // namespace

void replay_all(const std::string &client, const std::vector<applied_line> &applied)
{
    auto &queue = state().queues[client];
    queue = {};
    queue.generation = ++state().generation;
    std::multiset<std::pair<std::string, std::string>> there;
    for (const auto &line : applied)
        there.emplace(line.interface, line.line);
    cmdsrv().running.each([&](config_line &line) {
        if (line.command->client != client)
            return;
        if (const auto found = there.find({line.interface, line.full()}); found != there.end()) {
            there.erase(found);
            line.state = line_state::ACTIVE;
            return;
        }
        enqueue(queue, line, 0, 0);
    });
    std::deque<replay_item> back;
    for (const auto &[interface, line] : there)
        back.push_back({0, {interface, line.starts_with("no ") ? line.substr(3) : "no " + line}, 0, 0});
    queue.items.insert(queue.items.begin(), back.begin(), back.end());
    log_line(6, "client " + client + " is ready: " + std::to_string(queue.items.size()) + " lines are sent to it");
    pump(client);
}

void replay_interface(const std::string &client, std::uint32_t iod, std::uint64_t during)
{
    auto &queue = state().queues[client];
    int nested = 0;
    if (const auto now = queue.on_the_way.find(during); now != queue.on_the_way.end() && now->second.first == iod)
        nested = now->second.second + 1;
    if (nested > NESTED_MAX)
        return;
    const std::string name = cmdsrv().interfaces.name(iod);
    if (name.empty())
        return;
    cmdsrv().running.each_of(name, [&](config_line &line) {
        if (line.command->client == client)
            enqueue(queue, line, iod, nested);
    });
    pump(client);
}

void replay_forget(const std::string &client)
{
    auto &queue = state().queues[client];
    queue = {};
    queue.generation = ++state().generation;
}

void replay_hold(const std::string &client, bool on)
{
    auto &held = state().held[client];
    held += on ? 1 : 0;
    held -= on || held == 0 ? 0 : 1;
    if (held == 0)
        pump(client);
}

void replay_interface_up(const interface_info &interface)
{
    std::vector<std::uint64_t> waiting;
    cmdsrv().running.each([&](config_line &line) {
        if (line.state == line_state::WAITING && concerns(line, interface.name))
            waiting.push_back(line.id);
    });
    for (const auto id : waiting)
        offer(id);
}

void replay_interface_created(const interface_info &interface)
{
    std::vector<std::uint64_t> lines;
    cmdsrv().running.each_of(interface.name, [&](config_line &line) {
        if (!line.command->enters_interface)
            lines.push_back(line.id);
    });
    for (const auto id : lines)
        offer(id);
}

} // namespace corvaned
