// Multicast memberships of a process, on sockets that stay open. The kernel ties a membership to an ifindex; here it
// belongs to an interface by its iod and follows it when it comes back as another device.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

namespace corvane {

struct ip_group {
    int family = 0;                                          // AF_INET, AF_INET6
    std::array<std::uint8_t, 16> address{};                  // network order, IPv4 in the first four bytes
    bool operator==(const ip_group &) const = default;
};

class group_memberships {
public:
    // `ifindex_of` tells an iod's device, 0 while there is none.
    explicit group_memberships(std::function<std::uint32_t(std::uint32_t)> ifindex_of);
    ~group_memberships();
    group_memberships(const group_memberships &) = delete;
    group_memberships &operator=(const group_memberships &) = delete;

    // Any thread. A join is kept while the interface is away. False: the kernel refused, errno tells.
    bool join(std::uint32_t iod, const ip_group &group);
    bool leave(std::uint32_t iod, const ip_group &group);    // false: it was not joined
    void refresh();                                          // joins again where the device is another now

private:
    struct membership {
        std::uint32_t iod = 0;
        ip_group group;
        std::uint32_t ifindex = 0;                           // where the kernel has it, 0: nowhere
        int socket = -1;
    };
    bool apply(membership &m);
    static void withdraw(membership &m);
    int socket_with_room(int family, std::uint32_t ifindex, const ip_group &group);

    std::function<std::uint32_t(std::uint32_t)> ifindex_of_;
    std::mutex mutex_;
    std::vector<membership> memberships_;
    struct open_socket {
        int family, fd;
    };
    std::vector<open_socket> sockets_;
};

} // namespace corvane
