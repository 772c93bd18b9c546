// What the kernel says about links and addresses over rtnetlink, and the few things asked of it.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

struct mnl_socket;
struct nlmsghdr;

namespace corvaned {

struct link_info {
    std::uint32_t ifindex = 0;
    std::string name;
    std::uint32_t flags = 0;                                 // IFF_...
    std::uint16_t type = 0;                                  // ARPHRD_...
    std::string kind;                                        // "veth", "vxlan" ...; "" for a device of no kind
    std::vector<std::uint8_t> kind_data;                     // the kind's own attributes, as they stand
    std::uint32_t vrf_table = 0;                             // of a VRF device
    std::uint32_t master = 0, mtu = 0;
    std::array<std::uint8_t, 6> mac{};
};

struct address_info {
    std::uint32_t ifindex = 0;
    int family = 0;                                          // AF_INET, AF_INET6
    std::array<std::uint8_t, 16> address{};                  // network order, IPv4 in the first four bytes
    std::uint8_t prefix_length = 0, scope = 0;
    std::uint32_t flags = 0;                                 // IFA_F_...
    [[nodiscard]] bool same_address(const address_info &other) const
    {
        return ifindex == other.ifindex && family == other.family && address == other.address &&
               prefix_length == other.prefix_length;
    }
};

struct netlink_snapshot {
    std::vector<link_info> links;
    std::vector<address_info> addresses;
};

struct netlink_handler {
    std::function<void(const link_info &)> link;
    std::function<void(std::uint32_t ifindex)> link_gone;
    std::function<void(const address_info &, bool added)> address;
};

// Reads one message; other kinds are passed over. What is malformed is ignored.
void netlink_parse(const nlmsghdr *message, const netlink_handler &handler);

class netlink_client {
public:
    netlink_client();
    ~netlink_client();
    [[nodiscard]] bool open();                               // both sockets, in the caller's network namespace
    [[nodiscard]] int events_fd() const;

    // Hands on every notification that waits. False: some were lost, so that a snapshot is due.
    [[nodiscard]] bool read_events(const netlink_handler &handler);
    [[nodiscard]] bool snapshot(netlink_snapshot &out);      // what is there now

    // 0 or an errno value.
    [[nodiscard]] int set_link_flags(std::uint32_t ifindex, std::uint32_t flags, std::uint32_t mask);
    [[nodiscard]] int set_altname(std::uint32_t ifindex, const std::string &name, bool add);
    [[nodiscard]] int set_address_generation(std::uint32_t ifindex, bool automatic);     // IPv6, of the link-local one
    [[nodiscard]] int set_address(const address_info &address, bool add);

private:
    struct closer {
        void operator()(mnl_socket *socket) const;
    };
    [[nodiscard]] int request(nlmsghdr *message, const std::function<void(const nlmsghdr *)> &each);
    [[nodiscard]] bool dump(std::uint16_t kind, const netlink_handler &handler);

    std::unique_ptr<mnl_socket, closer> events_, requests_;
    std::vector<char> buffer_;
    std::uint32_t sequence_ = 0;
};

} // namespace corvaned
