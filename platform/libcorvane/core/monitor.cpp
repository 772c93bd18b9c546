// The thread "corvane-net".
#include "monitor.h"

#include "../packet/ports.h"
#include "corvane_thread.h"
#include "link_output.h"
#include "neighbour.h"
#include "netlink.h"
#include "path.h"

#include <chrono>
#include <mutex>
#include <poll.h>

namespace corvane {

std::atomic<std::uint32_t> net_seconds{0};

namespace {

constexpr int TICK_MS = 100;

void read_events(mnl_socket *events)
{
    const bool complete = netlink_read_events(events, [](const nlmsghdr *event) {
        neighbour_event(event);
        core_path_event(event);
    });
    if (complete)
        return;
    core_paths_forget();
    neighbour_events_lost();
}

void tick(std::uint32_t second)
{
    packet_ports_tick();
    if (net_seconds.exchange(second, std::memory_order_relaxed) != second)
        neighbour_tick();
}

// Without notifications (the kernel refused the socket) paths live until they are too old, and so do neighbours.
void wait_and_read(mnl_socket *events)
{
    pollfd ready{events == nullptr ? -1 : mnl_socket_get_fd(events), POLLIN, 0};
    if (poll(&ready, 1, TICK_MS) > 0)
        read_events(events);
}

void *monitor_main(void *events_argument)
{
    using clock = std::chrono::steady_clock;
    auto *events = static_cast<mnl_socket *>(events_argument);
    const clock::time_point start = clock::now();
    clock::time_point next_tick = start;
    for (;;) {
        wait_and_read(events);
        const clock::time_point now = clock::now();
        if (now >= next_tick) {
            next_tick = now + std::chrono::milliseconds(TICK_MS);
            tick(static_cast<std::uint32_t>(std::chrono::duration_cast<std::chrono::seconds>(now - start).count()));
        }
        link_output_flush();
    }
    return nullptr;
}

} // namespace

void net_monitor_start()
{
    static std::once_flag once;
    std::call_once(once, [] {
        pthread_t thread{};
        // The socket first: no change after this call goes by unseen.
        if (corvane_pthread_create(thread, nullptr, monitor_main, netlink_open_events(), "corvane-net") == 0)
            pthread_detach(thread);
    });
}

} // namespace corvane
