// When to ask again for services whose set-up failed.
#include "service_retry.h"

#include <algorithm>
#include <map>
#include <mutex>

namespace corvane {

namespace {

constexpr std::uint64_t FIRST_S = 1, LAST_S = 60;
// So long after an attempt a failure is a new one and not that attempt's.
constexpr std::uint64_t FORGET_S = 10;

struct attempt {
    bool failed = false;                     // since the last time it was asked for
    std::uint64_t wait_s = FIRST_S, due_s = 0, asked_s = 0;
};

struct attempts {
    std::mutex mutex;
    std::map<std::uint32_t, attempt> of;
};
attempts &the()
{
    static attempts &instance = *new attempts;
    return instance;
}

thread_local std::uint32_t set_up_here = 0;

} // namespace

service_set_up::service_set_up(std::uint32_t service)
{
    set_up_here = service;
}

service_set_up::~service_set_up()
{
    set_up_here = 0;
}

void part_failed()
{
    if (set_up_here != 0)
        service_failed(set_up_here);
}

void service_failed(std::uint32_t service)
{
    const std::scoped_lock guard(the().mutex);
    the().of[service].failed = true;
}

std::vector<std::uint32_t> services_to_retry(std::uint64_t now_s)
{
    const std::scoped_lock guard(the().mutex);
    std::vector<std::uint32_t> due;
    for (auto &[service, a] : the().of) {
        if (!a.failed)
            continue;
        if (a.due_s == 0) {
            const bool again = a.asked_s != 0 && now_s - a.asked_s <= FORGET_S;
            a.wait_s = again ? std::min(a.wait_s * 2, LAST_S) : FIRST_S;
            a.due_s = now_s + a.wait_s;
        }
        if (now_s < a.due_s)
            continue;
        a.failed = false;
        a.due_s = 0;
        a.asked_s = now_s;
        due.push_back(service);
    }
    return due;
}

} // namespace corvane
