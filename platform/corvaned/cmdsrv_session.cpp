// Shells: one session a connection. A session carries out one line at a time, in the mode it is in; output goes on as
// fast as the shell takes it, and a handler that prints more waits without holding anything else up.
#include "cmdsrv_session.h"

#include "admission.h"
#include "cmdsrv_apply.h"
#include "cmdsrv_json.h"
#include "cmdsrv_stream.h"
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace corvaned {

namespace {

using clock = std::chrono::steady_clock;

constexpr std::size_t SESSIONS_MAX = 256;
constexpr std::size_t WAITING_MAX = 96 * 1024 * 1024;        // output of one session
constexpr std::size_t WAITING_TOTAL = 64 * 1024 * 1024;      // of all: above it no further command begins
// Above it a client is granted no more, and its handler waits. A client carries out one command at a time, so what is
// less than this must not keep other shells from it while a pager stands.
constexpr std::size_t WAITING_HOLD = 8 * 1024 * 1024;
constexpr std::size_t OUTPUT_PIECE = 32 * 1024, HELD_MAX = 64 * 1024;
constexpr std::chrono::seconds HELLO_PATIENCE{10}, STALL_PATIENCE{30}, TICK{1};

constexpr const char *HELP_TEXT =
    "?              what may come next, at any place of a line\n"
    "TAB            completes a word\n"
    "Words may be cut short as long as one command is meant: sh lum ov sum\n"
    "no ...         takes a setting back\n"
    "exit, end      leave this mode, go back to exec mode\n"
    "... | include TEXT     lines with this text; so exclude TEXT, and count, json\n"
    "Ctrl-C gives a line up, or the rest of an output; Ctrl-D leaves the shell\n";

} // namespace

struct session {
    std::uint64_t id = 0;
    std::shared_ptr<framed_stream> stream;
    peer who;
    std::string user;
    bool greeted = false, views_only = false;
    mode current = mode::EXEC;
    std::string interface;
    // The command that is being carried out.
    bool busy = false, muted = false;
    running_ptr running;
    std::unique_ptr<output_filter> filter;
    bool holds = false;                      // what it prints is an error if it is rejected: kept until that is known
    std::string held;
    std::uint32_t owed = 0;                  // output taken from a client and not granted again yet
    clock::time_point moved;                 // output last left for the shell
    std::shared_ptr<file_application> application;
};

namespace {

struct session_state {
    std::map<std::uint64_t, session> sessions;
    std::uint64_t last_id = 0;
};

session_state &state()
{
    static auto *the_state = new session_state;
    return *the_state;
}

session *find(std::uint64_t id)
{
    const auto found = state().sessions.find(id);
    return found == state().sessions.end() ? nullptr : &found->second;
}

// ---- who may come in

std::string user_name(uid_t uid)
{
    const passwd *entry = getpwuid(uid);
    return entry != nullptr ? entry->pw_name : "uid " + std::to_string(uid);
}

// ---- what is sent

void send_output(session &s, std::uint8_t stream, std::string_view text)
{
    while (!text.empty()) {
        const auto piece = text.substr(0, OUTPUT_PIECE);
        byte_writer record;
        record.put(stream).raw({reinterpret_cast<const std::uint8_t *>(piece.data()), piece.size()});
        if (!s.stream->send(corvane::SHELL_OUTPUT, record.view()))
            return;
        text.remove_prefix(piece.size());
    }
}

void send_error(session &s, const line_error &error)
{
    byte_writer record;
    record.put(static_cast<std::uint32_t>(error.at)).put(static_cast<std::uint32_t>(error.length)).text(error.text);
    (void)s.stream->send(corvane::SHELL_ERROR, record.view());
}

void send_result(session &s, int status, bool over = false)
{
    const auto shown = s.current == mode::EXEC        ? corvane::shell_mode::EXEC
                       : s.current == mode::CONFIGURE ? corvane::shell_mode::CONFIGURE
                                                      : corvane::shell_mode::INTERFACE;
    byte_writer record;
    record.put(static_cast<std::int32_t>(status)).put(shown).put<std::uint8_t>(over);
    (void)s.stream->send(corvane::SHELL_RESULT, record.view());
    if (over)
        s.stream->finish();
}

void command_done(session &s, int status, const std::string &why)
{
    const bool failed = status != corvane::STATUS_DONE && status != corvane::STATUS_STOPPED;
    send_output(s, failed ? corvane::SHELL_STREAM_ERROR : corvane::SHELL_STREAM_OUT, s.held);
    if (s.filter && !s.muted && !failed)
        s.filter->end();
    if (!why.empty())
        send_output(s, corvane::SHELL_STREAM_ERROR, why + "\n");
    s.filter.reset();
    s.running.reset();
    s.application.reset();
    s.busy = s.muted = s.holds = false;
    s.held.clear();
    s.owed = 0;
    send_result(s, status);
}

void rejected(session &s, const line_error &error)
{
    send_error(s, error);
    send_result(s, corvane::STATUS_REJECTED);
}

// ---- output of a running command

void grant_owed(session &s)
{
    if (s.running && s.owed > 0 && (s.muted || s.stream->waiting() < WAITING_HOLD))
        s.running->grant(std::exchange(s.owed, 0));
}

void take_output(session &s, std::string_view text)
{
    if (!s.muted) {
        if (s.holds)
            s.held.append(text.substr(0, HELD_MAX - std::min(HELD_MAX, s.held.size())));
        else if (s.filter)
            s.filter->text(text);
        else
            send_output(s, corvane::SHELL_STREAM_OUT, text);
    }
    s.owed += static_cast<std::uint32_t>(text.size());
    if (s.stream->waiting() == 0)
        s.moved = clock::now();
    grant_owed(s);
}

void mute(session &s)
{
    s.muted = true;
    if (s.running)
        s.running->stop();
    if (s.application)
        s.application->stop();
    grant_owed(s);
}

void drained(std::uint64_t id)
{
    if (session *s = find(id)) {
        s->moved = clock::now();
        grant_owed(*s);
    }
}

// ---- carrying lines out

void enter(session &s, const parsed_command &command)
{
    s.interface = command.interfaces.front();
    s.current = mode_of_interface(s.interface);
}

void leave_to(session &s, mode where)
{
    s.current = where;
    s.interface.clear();
}

void log_change(const session &s, const parsed_command &command, int status)
{
    if (command.command->shows() || command.command->client == "shell")
        return;
    const std::string where = command.command->configures() && !s.interface.empty() ? " [" + s.interface + "]" : "";
    log_line(6, s.user + " (pid " + std::to_string(s.who.pid) + ")" + where + ": " + (command.no ? "no " : "") +
                    command.text + (status == corvane::STATUS_DONE ? "" : " (rejected)"));
}

void begin(session &s)
{
    s.busy = true;
    s.moved = clock::now();
}

void run_in_session(session &s, parsed_command parsed)
{
    begin(s);
    s.holds = parsed.command->configures();
    const std::uint64_t id = s.id;
    // A line of a mode around the current one is entered there, as if `exit` stood before it.
    if (parsed.found_in == mode::CONFIGURE)
        leave_to(s, mode::CONFIGURE);
    command_request request;
    request.command = parsed;
    request.interface = parsed.found_in == mode::EXEC || parsed.found_in == mode::CONFIGURE ? "" : s.interface;
    request.output = [id](std::string_view text) {
        if (session *now = find(id))
            take_output(*now, text);
    };
    request.done = [id, parsed](int status, const std::string &why) {
        session *now = find(id);
        if (now == nullptr)
            return;
        log_change(*now, parsed, status);
        if (status == corvane::STATUS_DONE && parsed.command->enters_interface && !parsed.no)
            enter(*now, parsed);
        else if (status == corvane::STATUS_DONE && parsed.command->enters_interface)
            leave_to(*now, mode::CONFIGURE);
        command_done(*now, status, why);
    };
    running_ptr running = run_command(std::move(request));
    // A command of the platform is over by now, and so may be the session.
    if (session *now = find(id); now != nullptr && now->busy && !running->finished)
        now->running = std::move(running);
}

void configure_file(session &s, const parsed_command &parsed)
{
    begin(s);
    const std::uint64_t id = s.id;
    const bool check = parsed.get("--check") != nullptr;
    s.application = std::make_shared<file_application>(check, *parsed.get("<file>"));
    s.application->print = [id](const std::string &text) {
        if (session *now = find(id))
            take_output(*now, text);
    };
    s.application->done = [id, parsed, check](int status) {
        session *now = find(id);
        if (now == nullptr)
            return;
        if (!check)
            log_line(6, now->user + " (pid " + std::to_string(now->who.pid) + "): " + parsed.text +
                            (status == corvane::STATUS_DONE ? "" : " (rejected)"));
        command_done(*now, status, "");
    };
    byte_writer record;
    record.text(*parsed.get("<file>"));
    (void)s.stream->send(corvane::SHELL_WANT_FILE, record.view());
}

void run_of_shell(session &s, const parsed_command &parsed)
{
    const std::string &what = parsed.command->handler;
    if (what == "configure_file") {
        configure_file(s, parsed);
        return;
    }
    int status = corvane::STATUS_DONE;
    bool over = false;
    if (what == "configure") {
        leave_to(s, mode::CONFIGURE);
    } else if (what == "end") {
        leave_to(s, mode::EXEC);
    } else if (what == "exit") {
        over = s.current == mode::EXEC;
        leave_to(s, s.current == mode::EXEC || s.current == mode::CONFIGURE ? mode::EXEC : mode::CONFIGURE);
    } else if (what == "help") {
        send_output(s, corvane::SHELL_STREAM_OUT, HELP_TEXT);
    } else if (what == "interface_device") {
        const std::string &name = parsed.interfaces.front();
        if (cmdsrv().interfaces.find(name) == 0) {
            const bool overlay = name.starts_with("Overlay");
            send_output(s, corvane::SHELL_STREAM_ERROR,
                        "no such interface: " + name +
                            (overlay ? "; overlay interfaces are Overlay0 to Overlay9999\n" : "\n"));
            status = corvane::STATUS_REJECTED;
        } else {
            enter(s, parsed);
        }
    }
    send_result(s, status, over);
}

std::size_t waiting_in_all()
{
    std::size_t sum = 0;
    for (const auto &[id, s] : state().sessions)
        sum += s.stream->waiting();
    return sum;
}

parse_context context_of(const session &s)
{
    return {&cmdsrv().commands, s.current, true, false, &cmdsrv().live};
}

bool prepare_filter(session &s, std::string_view line, std::size_t bar, const parsed_command &parsed)
{
    const std::uint64_t id = s.id;
    line_error error;
    s.filter = make_filter(
        line.substr(bar + 1), parsed.command->json,
        [id](std::string_view text) {
            if (session *now = find(id))
                send_output(*now, corvane::SHELL_STREAM_OUT, text);
        },
        error);
    if (s.filter)
        return true;
    error.at += bar + 1;
    rejected(s, error);
    return false;
}

void execute(session &s, const std::string &line)
{
    const std::size_t bar = split(line).filter;
    auto result = parse(context_of(s), line);
    if (result.empty) {
        send_result(s, corvane::STATUS_DONE);
        return;
    }
    if (result.error) {
        rejected(s, result.error);
        return;
    }
    if (s.views_only && !may_view(*result.command.command)) {
        rejected(s, {0, 0, "permission denied: members of corvane-view may look, not change"});
        return;
    }
    if (waiting_in_all() > WAITING_TOTAL) {
        rejected(s, {0, 0, "busy: too much output is waiting for other shells"});
        return;
    }
    if (bar != std::string::npos && !prepare_filter(s, line, bar, result.command))
        return;
    if (result.command.command->client == "shell") {
        run_of_shell(s, result.command);
        if (!s.busy)
            s.filter.reset();
    } else {
        run_in_session(s, std::move(result.command));
    }
}

void send_choices(session &s, const std::string &line)
{
    parse_context context = context_of(s);
    context.views_only = s.views_only;
    completion_result result;
    const std::size_t bar = split(line).filter;
    if (bar == std::string::npos) {
        result = complete(context, line);
    } else {
        const auto parsed = parse(context, std::string_view(line).substr(0, bar));
        result = complete_filter(std::string_view(line).substr(bar + 1),
                                 !parsed.error && !parsed.empty &&
                                     find_json_schema(parsed.command.command->json) != nullptr);
        result.from += bar + 1;
        result.error.at += bar + 1;
    }
    constexpr std::size_t CHOICES_MAX = 512, HELP_MAX = 200;
    if (result.choices.size() > CHOICES_MAX)
        result.choices.resize(CHOICES_MAX);
    byte_writer record;
    record.put(static_cast<std::uint32_t>(result.from)).put(static_cast<std::uint32_t>(result.choices.size()));
    for (const auto &choice : result.choices)
        record.text(choice.word.substr(0, 64)).text(choice.help.substr(0, HELP_MAX)).put<std::uint8_t>(choice.insertable);
    record.put(static_cast<std::uint32_t>(result.error.at)).put(static_cast<std::uint32_t>(result.error.length));
    record.text(result.error.text.substr(0, 1024));
    (void)s.stream->send(corvane::SHELL_CHOICES, record.view());
}

// ---- what the shell sends

void greet(session &s, int error, const std::string &text, const std::string &notice)
{
    byte_writer record;
    record.put(static_cast<std::uint32_t>(error)).text(text).text(notice);
    (void)s.stream->send(corvane::SHELL_GREETING, record.view());
    if (error != 0)
        s.stream->finish();
}

bool hello(session &s, byte_reader in)
{
    if (in.get<std::uint32_t>() != corvane::CMDSRV_VERSION || !in.ok() || s.greeted)
        return false;
    s.greeted = true;
    char host[HOST_NAME_MAX + 1] = "";
    (void)gethostname(host, sizeof host - 1);
    const std::size_t refused = cmdsrv().load_error_count;
    greet(s, 0, host,
          refused == 0 ? "" : std::to_string(refused) + " startup lines were refused: show configuration-errors");
    return true;
}

bool take_file(session &s, byte_reader in)
{
    const auto kind = in.get<std::uint8_t>();
    const std::string text = in.text();
    if (!in.done() || !s.application || kind > corvane::FILE_FAILED)
        return false;
    const auto application = s.application;                  // it may end the command
    application->data(kind, text);
    return true;
}

// False: not understood, the connection ends.
bool handle(session &s, std::uint32_t kind, byte_reader in)
{
    if (kind == corvane::SHELL_HELLO)
        return hello(s, in);
    if (!s.greeted)
        return false;
    if (kind == corvane::SHELL_STOP) {
        if (s.busy)                                          // else the command ended meanwhile
            mute(s);
        return true;
    }
    if (kind == corvane::SHELL_FILE)
        return take_file(s, in);
    const std::string line = in.text();
    if (!in.done() || s.busy)
        return false;
    if (kind == corvane::SHELL_EXECUTE)
        execute(s, line);
    else if (kind == corvane::SHELL_COMPLETE)
        send_choices(s, line);
    else
        return false;
    return true;
}

void gone(std::uint64_t id)
{
    session *s = find(id);
    if (s == nullptr)
        return;
    if (s->busy)
        mute(*s);
    // A client that still prints must not wait for a shell that is not there.
    if (s->running) {
        s->running->output = nullptr;
        s->running->grant(s->owed);
    }
    state().sessions.erase(id);
}

void frame_of(std::uint64_t id, std::uint32_t kind, byte_view record)
{
    session *s = find(id);
    if (s == nullptr || handle(*s, kind, byte_reader(record)))
        return;
    s = find(id);
    if (s == nullptr)
        return;
    s->stream->close();
    after(std::chrono::milliseconds(0), [id] { gone(id); });
}

void refuse(int fd, int error, const std::string &why)
{
    const auto stream = framed_stream::make(fd, OUTPUT_PIECE, {});
    byte_writer record;
    record.put(static_cast<std::uint32_t>(error)).text(why).text("");
    (void)stream->send(corvane::SHELL_GREETING, record.view());
    stream->finish();
}

void accepted(int fd, const peer &who)
{
    const access_level level = access_of(fd, who.uid, who.gid);
    if (level == access_level::NONE) {
        log_line(4, "a shell of " + user_name(who.uid) + " is refused: not in the group corvane or corvane-view");
        refuse(fd, EACCES, "permission denied: not in the group corvane or corvane-view");
        return;
    }
    if (state().sessions.size() >= SESSIONS_MAX) {
        refuse(fd, EAGAIN, "too many shells: " + std::to_string(SESSIONS_MAX) + " are connected");
        return;
    }
    const std::uint64_t id = ++state().last_id;
    session &s = state().sessions[id];
    s.id = id;
    s.who = who;
    s.user = user_name(who.uid);
    s.views_only = level == access_level::VIEW;
    s.stream = framed_stream::make(fd, WAITING_MAX,
                                   {[id](std::uint32_t kind, byte_view record) { frame_of(id, kind, record); },
                                    [id] { drained(id); }, [id](const char *) { gone(id); }});
    after(HELLO_PATIENCE, [id] {
        if (session *now = find(id); now != nullptr && !now->greeted) {
            now->stream->close();
            gone(id);
        }
    });
}

// A shell that stopped reading holds a handler up: its output ends.
void tick()
{
    const auto now = clock::now();
    for (auto &[id, s] : state().sessions) {
        const bool held = s.running && s.owed > 0 && !s.muted;
        if (!held || now - s.moved < STALL_PATIENCE)
            continue;
        log_line(5, "the shell of " + s.user + " (pid " + std::to_string(s.who.pid) + ") reads nothing: its output ends");
        send_output(s, corvane::SHELL_STREAM_ERROR, "\noutput ends: nothing of it was read for 30 s\n");
        mute(s);
    }
    after(TICK, tick);
}

} // namespace

void sessions_start()
{
    if (!stream_listen(corvane::SHELL_SOCKET, 0666, accepted))
        log_line(2, std::string("cannot listen for shells: ") + std::strerror(errno));
    after(TICK, tick);
}

} // namespace corvaned
