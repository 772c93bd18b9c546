// Event loop: epoll, timers on the monotonic clock, work at the end of a turn. One thread.
#include "loop.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <sys/epoll.h>
#include <unistd.h>
#include <unordered_map>

namespace corvaned {
namespace {

using clock = std::chrono::steady_clock;

struct timer {
    clock::time_point due;
    std::function<void()> run;
};

struct event_loop {
    int epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    // Shared: a callback may unwatch its own descriptor while it runs.
    std::unordered_map<int, std::shared_ptr<std::function<void(std::uint32_t)>>> watches;
    std::multimap<clock::time_point, timer_id> due;
    std::unordered_map<timer_id, timer> timers;
    std::vector<std::function<void()>> turn_end;
    timer_id last_timer = 0;
    bool stopped = false;
};

event_loop &loop()
{
    static event_loop the_loop;
    return the_loop;
}

void control(int operation, int fd, std::uint32_t events)
{
    epoll_event event{};
    event.events = events;
    event.data.fd = fd;
    if (epoll_ctl(loop().epoll_fd, operation, fd, &event) != 0 && operation != EPOLL_CTL_DEL) {
        std::perror("corvaned: epoll_ctl");
        std::abort();
    }
}

int wait_ms()
{
    if (loop().due.empty())
        return -1;
    const auto left = loop().due.begin()->first - clock::now();
    if (left <= clock::duration::zero())
        return 0;
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    return static_cast<int>(std::min<std::int64_t>(ms, 60'000));
}

void forget_due(clock::time_point at, timer_id id)
{
    const auto [first, last] = loop().due.equal_range(at);
    for (auto it = first; it != last; ++it) {
        if (it->second == id) {
            loop().due.erase(it);
            return;
        }
    }
}

void run_timers()
{
    const auto now = clock::now();
    // Timers started by these callbacks wait for the next turn, so that a zero delay cannot starve descriptors.
    std::vector<timer_id> ready;
    for (auto it = loop().due.begin(); it != loop().due.end() && it->first <= now; ++it)
        ready.push_back(it->second);
    for (const timer_id id : ready) {
        const auto found = loop().timers.find(id);
        if (found == loop().timers.end())
            continue;
        forget_due(found->second.due, id);
        const auto run = std::move(found->second.run);
        loop().timers.erase(found);
        run();
    }
}

} // namespace

void watch(int fd, std::uint32_t epoll_events, std::function<void(std::uint32_t)> ready)
{
    loop().watches[fd] = std::make_shared<std::function<void(std::uint32_t)>>(std::move(ready));
    control(EPOLL_CTL_ADD, fd, epoll_events);
}

void watch_change(int fd, std::uint32_t epoll_events)
{
    control(EPOLL_CTL_MOD, fd, epoll_events);
}

void unwatch(int fd)
{
    if (loop().watches.erase(fd) != 0)
        control(EPOLL_CTL_DEL, fd, 0);
}

timer_id after(std::chrono::milliseconds delay, std::function<void()> run)
{
    const timer_id id = ++loop().last_timer;
    const auto at = clock::now() + delay;
    loop().due.emplace(at, id);
    loop().timers.emplace(id, timer{at, std::move(run)});
    return id;
}

void cancel(timer_id id)
{
    const auto found = loop().timers.find(id);
    if (found == loop().timers.end())
        return;
    forget_due(found->second.due, id);
    loop().timers.erase(found);
}

void stop()
{
    loop().stopped = true;
}

void at_turn_end(std::function<void()> run)
{
    loop().turn_end.push_back(std::move(run));
}

void loop_turn(int max_wait_ms)
{
    const int wanted = wait_ms();
    const int wait = wanted < 0 || (max_wait_ms >= 0 && max_wait_ms < wanted) ? max_wait_ms : wanted;
    epoll_event events[64];
    const int count = epoll_wait(loop().epoll_fd, events, 64, wait);
    for (int i = 0; i < count; ++i) {
        // An earlier callback of this turn may have closed this descriptor.
        const auto found = loop().watches.find(events[i].data.fd);
        if (found == loop().watches.end())
            continue;
        const auto ready = found->second;
        (*ready)(events[i].events);
    }
    run_timers();
    for (const auto &run : loop().turn_end)
        run();
}

void loop_run()
{
    loop().stopped = false;
    while (!loop().stopped)
        loop_turn(-1);
}

} // namespace corvaned
