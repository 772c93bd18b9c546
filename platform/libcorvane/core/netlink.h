// Questions to the kernel over rtnetlink, answered at once, and its notifications. The thread "corvane-net" follows
// the notifications for the parts of this library that keep what the kernel said.
#pragma once

#include <libmnl/libmnl.h>

#include <atomic>
#include <cstdint>
#include <functional>

namespace corvane {

// Sends the request and runs `each` for every message of the answer. 0, or an errno value. Any thread.
int netlink_ask(nlmsghdr *request, const std::function<void(const nlmsghdr *)> &each);

// Socket subscribed to links, addresses, routes, rules and neighbours; null when the kernel refuses.
[[nodiscard]] mnl_socket *netlink_open_events();
// Runs `each` for every notification that waits. False: some were lost, and what they said has to be asked for.
[[nodiscard]] bool netlink_read_events(mnl_socket *socket, const std::function<void(const nlmsghdr *)> &each);

} // namespace corvane
