// The command server's parts, as they know each other. Services use corvaned.h.
#pragma once

#include "cmdsrv_store.h"
#include "corvaned.h"
#include "intfmgr.h"

#include <deque>

namespace corvaned {

// ---- state (cmdsrv.cpp)
struct interface_view {                              // what is asked of the interface manager
    std::function<std::uint32_t(const std::string &name)> find = intfmgr_find;
    std::function<std::string(std::uint32_t iod)> name = intfmgr_name;
    std::function<bool(std::uint32_t iod)> up = intfmgr_up;
    std::function<std::vector<interface_info>()> list = intfmgr_list;
};
struct command_server {
    interface_view interfaces;
    grammar commands;
    config_store running;
    live_values live;
    std::function<bool(pid_t)> stands_by = [](pid_t) { return false; };      // carries out no commands for now
    std::deque<std::string> load_errors;             // lines of the startup file that were refused, the last of them
    std::size_t load_error_count = 0;
};
[[nodiscard]] command_server &cmdsrv();
void cmdsrv_serve();                                 // the commands that are about the configuration itself
void report_load_error(const std::string &text);     // logged, and kept for `show configuration-errors`
[[nodiscard]] mode mode_of_interface(const std::string &interface);      // "" = CONFIGURE

// ---- one command on its way (cmdsrv_engine.cpp)
class running_command {
public:
    // Both are called from the loop. `why` says what was wrong where no handler printed it.
    std::function<void(std::string_view text)> output;
    std::function<void(int status, const std::string &why)> done;
    corvane::execute_record record;

    // Called by the asker: so much of the output has gone on; no more is wanted.
    std::function<void(std::uint32_t bytes)> grant = [](std::uint32_t) {};
    std::function<void()> stop = [] {};

    // Called when no answer came for long: the asker is told, the command may still be carried out.
    std::function<void(const std::string &why)> expired;

    void finish(int status, const std::string &why = "");
    bool finished = false, abandoned = false;
};
using running_ptr = std::shared_ptr<running_command>;

struct command_request {
    parsed_command command;
    std::string interface;                           // of the mode, "" = global or exec
    std::function<void(std::string_view text)> output;
    std::function<void(int status, const std::string &why)> done;
    line_state state = line_state::ACTIVE;
    std::uint32_t source_line = 0;
    bool limited = true;                             // the asker is told when no answer comes for long
    bool told = false;
};
// Carries the command out and takes it into the running configuration when it was accepted. `done` is called once,
// from inside for a command of the platform. The result is for grants and stops.
running_ptr run_command(command_request request);
// Carries out a line of the platform that is in the running configuration already. `text` gets what was printed.
[[nodiscard]] int run_platform_again(const parsed_command &command, const std::string &interface, std::string &text);
[[nodiscard]] bool platform_serves(const std::string &handler);
[[nodiscard]] corvane::execute_record record_of(const parsed_command &command, const std::string &interface);
// Why an accepted line could be refused now: an interface that it names, or whose mode it is of, is missing or down.
[[nodiscard]] bool waits_for_interface(const parsed_command &command, const std::string &interface);

// ---- clients (cmdsrv_clients.cpp)
void clients_start();
// False: no client of that name is there, or it has no such handler (`why` says which).
[[nodiscard]] bool client_submit(const std::string &client, const running_ptr &command, std::string &why);
void clients_forget(const std::string &interface);   // its lines went with it
// Which of several processes of one client carries out commands. Without it the first one that does not stand by does.
void clients_set_active(const std::string &client, pid_t pid);
[[nodiscard]] bool client_ready(const std::string &client);

// ---- replay (cmdsrv_replay.cpp)
struct applied_line {
    std::string interface, line;
};
// The client is ready: everything that is configured and not in `applied`; what is only in `applied` is taken back.
void replay_all(const std::string &client, const std::vector<applied_line> &applied);
void replay_interface(const std::string &client, std::uint32_t iod, std::uint64_t during);
void replay_forget(const std::string &client);       // it went away
// A configuring command is on its way to the client, or was answered: between the two no line is replayed, since it
// could be the one that the command replaces.
void replay_hold(const std::string &client, bool on);
void replay_interface_up(const interface_info &interface);           // lines that wait for it are offered again
void replay_interface_created(const interface_info &interface);      // it knows nothing of what is configured on it

// ---- files (cmdsrv_file.cpp)
// Reads the lines of a configuration file. Each that parses is handed to `take` with its interface; the others are
// handed to `refuse` with what is wrong.
struct file_line {
    std::uint32_t number = 0;
    std::string text, interface;
    parsed_command command;
};
void read_configuration(std::string_view text, const std::function<void(const file_line &)> &take,
                        const std::function<void(std::uint32_t number, const std::string &what)> &refuse);
void take_line(const file_line &line, line_state of_clients);        // carries platform lines out, keeps the others
[[nodiscard]] std::string startup_path();            // --config, else the saved configuration under the state folder
void load_startup();
[[nodiscard]] bool save_running(std::string &error); // to the startup file

// ---- journal (cmdsrv_journal.cpp): the running configuration outlives a sudden end of this process, not an orderly one
[[nodiscard]] bool journal_recover();                // true: it was read back, the startup file is not to be read
void journal_start();                                // from here on every change is noted
void journal_rewrite();                              // the startup file changed
void journal_end();

// ---- shells (cmdsrv_session.cpp)
void sessions_start();

} // namespace corvaned
