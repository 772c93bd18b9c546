// Start-up and the end of the process: diagnostics, priority, command line, process lock, initialisation, then waiting
// for the main thread. Runs on the process's first thread.
#include "lum_private.h"

#include "cmdopt.h"
#include "lum_msgs.h"
#include "svcmgr.h"

#include <csignal>
#include <cstdio>
#include <strings.h>

namespace {

constexpr int EXIT_BAD_COMMAND_LINE = 1, EXIT_INIT_FAILED = 255;

constexpr std::uint32_t HISTORY_ENTRIES = 3440, HISTORY_MAX_ELEMENT = 121;
constexpr std::uint32_t SCHED_REAL_TIME = 1, SCHED_PRIORITY = 13;

int lum_cmdopt_help(const char *)
{
    LUM_LOG(USAGE);
    return 0;                                // refuses, so start-up stops
}

int lum_cmdopt_debug(const char *)
{
    lum_internal_debug_flag = 1;
    return 1;
}

int lum_cmdopt_tag(const char *argument)
{
    LUM_TRACE_INTERNAL("Tag is %s\n", argument != nullptr ? argument : "");
    return 1;
}

} // namespace

// The usage line names "-m", which is not here, and "-t" is here, which it does not name: deliberate, both are what
// the scripts around the daemon know.
static constexpr std::array<cmdopt_option, 3> lum_cmdopt_options{{
    {"-h", 0, lum_cmdopt_help, 0},
    {"-d", 0, lum_cmdopt_debug, 0},
    {"-t", 0, lum_cmdopt_tag, 0},
}};

namespace {

struct mem_type_name {
    std::uint32_t value;
    const char *name;
};
// Closed by the empty name.
constexpr auto MEM_TYPE_NAMES = std::to_array<mem_type_name>({
    {LUM_MEM_TYPE_NONE, "LUM_MEM_TYPE_NONE"},
    {LUM_MEM_TYPE_OVERLAY, "LUM_MEM_TYPE_OVERLAY"},
    {LUM_MEM_TYPE_RTAB_BUFFER, "LUM_MEM_TYPE_RTAB_BUFFER"},
    {LUM_MEM_TYPE_STATIC, "LUM_MEM_TYPE_STATIC"},
    {LUM_MEM_TYPE_PACKET, "LUM_MEM_TYPE_PACKET"},
    {LUM_MEM_TYPE_INTERFACE_PT, "LUM_MEM_TYPE_INTERFACE_PT"},
    {LUM_MEM_TYPE_ARP_ND_CACHE, "LUM_MEM_TYPE_ARP_ND_CACHE"},
    {LUM_MEM_TYPE_ADJ, "LUM_MEM_TYPE_ADJ"},
    {LUM_MEM_TYPE_MAX, "LUM_MEM_TYPE_MAX"},
    {0, ""},
});

} // namespace

const char *__lum_mem_type_t_find(std::uint32_t value)
{
    for (const mem_type_name *type = MEM_TYPE_NAMES.data(); *type->name != '\0'; ++type)
        if (type->value == value)
            return type->name;
    return nullptr;
}

lum_mem_type_t __lum_mem_type_t_str2enum(const char *name)
{
    for (const mem_type_name *type = MEM_TYPE_NAMES.data(); *type->name != '\0'; ++type)
        if (strcasecmp(type->name, name) == 0)
            return static_cast<lum_mem_type_t>(type->value);
    return LUM_MEM_TYPE_NONE;
}

bool lum_check_sup_state()
{
    lum_sup_state_active = svcmgr_supstate_get() == 1 ? 1 : 0;
    const std::uint32_t reason = hakit_get_start_reason();
    LUM_TRACE_INTERNAL("Starting LUM process, %s on %s Supervisor\n", hakit_start_type_str(reason),
                       lum_sup_state_active != 0 ? "active" : "standby");
    return true;
}

namespace {

void ignore_signal(int) {}

// The clean-up wakes the main thread with this signal, whose default would end the process with a core file.
void install_quit_handler()
{
    struct sigaction action {};
    action.sa_handler = ignore_signal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGQUIT, &action, nullptr);
}

bool set_priority()
{
    if (hakit_get_rsw_sched_policy(LUM_SERVICE) != 1)
        return true;
    return hakit_set_sched_policy_priority(SCHED_REAL_TIME, SCHED_PRIORITY);
}

void wait_for_main_thread() LUM_LOCKED;
void wait_for_main_thread()
{
    plock_before_yield();
    pthread_join(lum_ipc_thread, nullptr);
    plock_after_yield();
    lum_ipc_thread_exists = 0;
}

} // namespace

int lum_process_main(int argc, char **argv)
{
    install_quit_handler();
    if (!hakit_evhist_init(HISTORY_ENTRIES, "lum", "Lumivar", HISTORY_MAX_ELEMENT, "LUM"))
        std::printf("LUM: Failed to initialize hakit_evhist_init()");
    // Before the command line, deliberate: "-d" does not reach this trace.
    lum_check_sup_state();
    if (!set_priority()) {
        LUM_LOG(NO_SET_PRIORITY);
        return EXIT_INIT_FAILED;
    }
    if (cmdopt_dispatch(argc, argv, lum_cmdopt_options.data(), lum_cmdopt_options.size(), 0, nullptr) == 0) {
        LUM_LOG(API_FAILED, "cmdopt_dispatch()");
        return EXIT_BAD_COMMAND_LINE;
    }
    if (!lum_init_plock())
        return 0;                            // a quiet exit, deliberate: the service manager is not to count a crash
    plock_acquire_process_lock();
    if (!lum_init()) {
        LUM_LOG(API_FAILED, "lum_init()");
        lum_cleanup();
        plock_release_process_lock();
        return EXIT_INIT_FAILED;
    }
    wait_for_main_thread();
    lum_cleanup();
    hakit_evhist_close();
    plock_release_process_lock();
    return 0;
}
