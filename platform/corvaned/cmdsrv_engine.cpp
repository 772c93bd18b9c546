// Carries out a parsed command: handlers of the platform at once, those of clients by their connection. What was
// accepted goes into the running configuration.
#include "cmdsrv.h"
#include "intfmgr.h"

#include <algorithm>
#include <utility>

namespace corvaned {

namespace {

using platform_handler = std::function<int(command &)>;

std::unordered_map<std::string, platform_handler> &handlers()
{
    static auto *the_handlers = new std::unordered_map<std::string, platform_handler>;
    return *the_handlers;
}

std::uint64_t last_request = 0;


parse_context context_of(const std::string &interface)
{
    return {&cmdsrv().commands, mode_of_interface(interface), false, false, nullptr};
}

// Everything that the `no` line names stands in the line as well.
bool names_line(const argument_list &named, const config_line &line)
{
    const auto parsed = parse(context_of(line.interface), line.full());
    return !parsed.error && std::ranges::all_of(named, [&](const auto &n) {
        return std::ranges::find(parsed.command.arguments, n) != parsed.command.arguments.end();
    });
}

// A `no` command about lines that are not in effect: whatever their client says of it, they can be given up.
bool only_waiting(const command_request &request)
{
    if (!request.command.no)
        return false;
    const auto effect = config_store::effect_of(request.command);
    bool waiting = false;
    cmdsrv().running.each_of(request.interface, [&](const config_line &line) {
        waiting = waiting || (line.key == effect.key && line.state != line_state::ACTIVE &&
                              names_line(request.command.arguments, line));
    });
    return waiting;
}

void keep(const command_request &request)
{
    auto &running = cmdsrv().running;
    const auto &command = *request.command.command;
    if (!command.enters_interface || command.keep == keep_rule::NONE) {
        running.apply(request.interface, request.command, request.state, request.source_line);
        return;
    }
    const std::string &made = request.command.interfaces.front();
    if (request.command.no) {
        running.remove_interface(made);
        clients_forget(made);
    } else {
        running.make_interface(made, &command, request.state, request.source_line);
    }
}

int run_platform(const corvane::execute_record &record, const std::function<void(std::string_view)> &output,
                 std::string &why)
{
    const auto found = handlers().find(record.handler);
    if (found == handlers().end()) {
        why = "this command is not available here";
        return corvane::STATUS_REJECTED;
    }
    command c;
    c.handler = record.handler;
    c.no = record.no;
    c.mode_iod = record.mode_iod;
    c.mode_name = record.interface;
    c.arguments = record.arguments;
    c.print = [&output](const std::string &text) {
        if (output)
            output(text);
    };
    return found->second(c);
}

// The daemon looks a port's device up as eth<last character of its name> when `lum vlan` is entered in its mode.
void prepare_client_command(const corvane::execute_record &record)
{
    if (record.handler == "lum_vlan_cmd" && !record.no && !intfmgr_ensure_altname(record.interface))
        log_line(4, "no device answers to the name that \"lum vlan\" needs on " + record.interface);
}

void run_one(const std::shared_ptr<command_request> &request, const running_ptr &running)
{
    running->record = record_of(request->command, request->interface);
    running->output = request->output;
    const std::string &client = request->command.command->client;
    const bool holds = client != "platform" && request->command.command->configures();
    if (holds)
        replay_hold(client, true);
    running->done = [request, holds](int status, const std::string &why) {
        const bool rejected = status != corvane::STATUS_DONE && status != corvane::STATUS_STOPPED;
        const bool given_up = rejected && only_waiting(*request);
        if (!rejected || given_up)
            keep(*request);
        if (!std::exchange(request->told, true))
            request->done(given_up ? corvane::STATUS_DONE : status, given_up ? "" : why);
        if (holds)
            replay_hold(request->command.command->client, false);
    };
    if (request->limited)
        running->expired = [request](const std::string &text) {
            if (!std::exchange(request->told, true))
                request->done(corvane::STATUS_REJECTED, text);
        };
    std::string why;
    const bool missing = !request->interface.empty() && running->record.mode_iod == 0;
    if (missing && request->command.no && request->command.command->configures()) {
        running->finish(corvane::STATUS_DONE);               // nothing to take it back from
    } else if (missing) {
        running->finish(corvane::STATUS_REJECTED, "no such interface: " + request->interface);
    } else if (client == "platform") {
        const int status = run_platform(running->record, running->output, why);
        running->finish(status, why);
    } else if (prepare_client_command(running->record); !client_submit(client, running, why)) {
        running->finish(corvane::STATUS_REJECTED, why);
    }
}

std::string taken_back(const config_line &line) { return line.no ? line.text : "no " + line.text; }

// Takes the lines back, one behind the other, then goes on.
void withdraw(std::vector<std::uint64_t> ids, std::function<void()> go_on)
{
    config_line *line = nullptr;
    while (!ids.empty() && line == nullptr) {
        line = cmdsrv().running.find(ids.front());
        ids.erase(ids.begin());
    }
    if (line == nullptr) {
        go_on();
        return;
    }
    const std::uint64_t id = line->id;
    auto parsed = parse(context_of(line->interface), taken_back(*line));
    const auto next = [id, rest = std::move(ids), then = std::move(go_on)](int, const std::string &) {
        cmdsrv().running.remove(id);                         // also when its client is gone
        withdraw(rest, then);
    };
    if (parsed.error || line->state != line_state::ACTIVE) {
        next(corvane::STATUS_DONE, "");
        return;
    }
    command_request request;
    request.command = std::move(parsed.command);
    request.interface = line->interface;
    request.done = next;
    (void)run_command(std::move(request));
}

} // namespace

void serve_command(const char *handler, std::function<int(command &)> run) { handlers()[handler] = std::move(run); }

const std::string *command::get(const char *name) const
{
    const auto found = std::ranges::find_if(arguments, [&](const auto &a) { return a.first == name; });
    return found == arguments.end() ? nullptr : &found->second;
}

void running_command::finish(int status, const std::string &why)
{
    if (std::exchange(finished, true))
        return;
    const auto call = std::exchange(done, nullptr);
    call(status, why);
}

bool platform_serves(const std::string &handler) { return handlers().contains(handler); }

corvane::execute_record record_of(const parsed_command &command, const std::string &interface)
{
    corvane::execute_record record;
    const auto effect = config_store::effect_of(command);
    record.request = ++last_request;
    record.handler = command.command->handler;
    record.no = command.no;
    record.interface = interface;
    record.mode_iod = interface.empty() ? 0 : cmdsrv().interfaces.find(interface);
    record.change = effect.change;
    record.key = command.command->keep != keep_rule::ONCE && command.command->undo_by_text ? "" : effect.key;
    record.line = effect.line;
    record.arguments = command.arguments;
    return record;
}

int run_platform_again(const parsed_command &command, const std::string &interface, std::string &text)
{
    const auto record = record_of(command, interface);
    std::string why;
    if (!interface.empty() && record.mode_iod == 0) {
        text = "no such interface: " + interface;
        return corvane::STATUS_REJECTED;
    }
    const int status = run_platform(record, [&text](std::string_view piece) { text += piece; }, why);
    text += why;
    return status;
}

running_ptr run_command(command_request request)
{
    const auto running = std::make_shared<running_command>();
    const auto shared = std::make_shared<command_request>(std::move(request));
    const auto &withdraws = shared->command.command->withdraws;
    if (shared->command.no && !withdraws.empty())
        withdraw(cmdsrv().running.in_slots(shared->interface, withdraws),
                 [shared, running] { run_one(shared, running); });
    else
        run_one(shared, running);
    return running;
}

bool waits_for_interface(const parsed_command &command, const std::string &interface)
{
    const auto down = [](const std::string &name) {
        const std::uint32_t iod = cmdsrv().interfaces.find(name);
        return iod == 0 || !cmdsrv().interfaces.up(iod);
    };
    return (!interface.empty() && down(interface)) || std::ranges::any_of(command.interfaces, down);
}

} // namespace corvaned
