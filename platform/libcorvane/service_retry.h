// Services whose set-up failed in this process, for want of memory, descriptors or a port. The daemon tries when a service
// is announced and not again, so the service manager is asked anew for them, ever more seldom; the answer is one more
// announcement, which the daemon takes for a service that it has and acts on for one that it has not.
#pragma once

#include <cstdint>
#include <vector>

namespace corvane {

// A part of the set-up of the service (its number) failed. Any thread.
void service_failed(std::uint32_t service);
// What a thread does while this lives is the set-up of the service; a queue or a thread that it could not get for it is
// a failed part.
class service_set_up {
public:
    explicit service_set_up(std::uint32_t service);
    ~service_set_up();
    service_set_up(const service_set_up &) = delete;
    service_set_up &operator=(const service_set_up &) = delete;
};
// A part of whatever is being set up on this thread failed; nothing when nothing is.
void part_failed();
// Services to ask for, at `now_s` seconds of a clock that only goes forward: 1 s after the failure, then after 2, 4, ...
// 60 s while it fails again. Each is named once a failure.
[[nodiscard]] std::vector<std::uint32_t> services_to_retry(std::uint64_t now_s);

} // namespace corvane
