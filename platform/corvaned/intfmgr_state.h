// The interfaces: devices as the kernel tells of them, overlay interfaces as the configuration makes them. Keeps the
// table in shared memory, sends the notifications and tells the other services. One thread; no system call in here.
#pragma once

#include "intfmgr_addresses.h"
#include "intfmgr_iods.h"
#include "intfmgr_table.h"
#include "netlink.h"

#include "../wire/bytes.h"

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace corvaned {

struct interface_state {
    std::uint32_t iod = 0;
    std::string name;
    bool present = false;
    bool overlay = false, switchport = false;
    bool shut = false;                                       // an overlay's administrative state
    link_info link;                                          // of a device
    std::uint32_t context = 0;
    interface_addresses addresses;
    [[nodiscard]] bool up() const;
    [[nodiscard]] bool tunnel() const;
};

enum class interface_event { CREATED, UP, DOWN, REMOVED };

class interface_manager {
public:
    struct environment {
        std::function<void(std::uint32_t opcode, corvane::byte_view payload)> notify;
        std::function<void(int severity, const std::string &text)> log;
        std::function<void(std::uint32_t iod)> iod_lost;     // the iod names another interface from now on
        iod_registry::store iods;
    };
    interface_manager(corvane::interface_table &table, environment given);

    // Takes the numbers that were kept over, frees the table of what is not there, and reports through iod_lost where
    // it named another interface than the numbers do. Readers go on with a former manager's table until started().
    void start(const std::vector<std::pair<std::string, std::uint32_t>> &kept_iods);
    void started() { table_.publish(); }

    // What the kernel says.
    void link(const link_info &link);
    void link_gone(std::uint32_t ifindex);
    void address(const address_info &address, bool added);
    void snapshot(const netlink_snapshot &all);              // everything there is; what it lacks is gone

    // What the configuration says. 0: no iod is left.
    std::uint32_t make_overlay(const std::string &name);
    bool remove_overlay(const std::string &name);            // false: it does not exist
    void shut_overlay(const std::string &name, bool shut);
    void set_switchport(const std::string &name, bool switchport);

    void announce_all();                                     // created and L3 state of every interface, once more

    [[nodiscard]] const interface_state *find(const std::string &name) const;            // one that exists now
    [[nodiscard]] const interface_state *find(std::uint32_t iod) const;
    [[nodiscard]] const interface_state *find_ifindex(std::uint32_t ifindex) const;
    [[nodiscard]] std::vector<const interface_state *> all() const;                      // by ascending iod

    // Called after the table and the notifications are out.
    void on_event(std::function<void(const interface_state &, interface_event)> hook);
    void on_address(std::function<void(const interface_state &, const address_change &)> hook);

private:
    using change = std::pair<std::uint32_t, std::uint64_t>;  // iod, mask

    interface_state *find_device(std::uint32_t ifindex);
    interface_state *add(const std::string &name);
    void update(const link_info &link, std::vector<address_info> addresses);
    void bring(const link_info &link, const std::vector<address_info> &addresses);
    void appear(interface_state &interface);
    void disappear(interface_state &interface);
    void change_link(interface_state &interface, const link_info &link);
    void state_changed(interface_state &interface);
    void contexts_changed();
    [[nodiscard]] std::uint32_t context_of(const link_info &link) const;
    void publish(const interface_state &interface);
    void notify(std::uint32_t opcode, const std::vector<change> &changes);
    void tell(const interface_state &interface, interface_event event);
    void tell(interface_state &interface, const std::vector<address_change> &changes);

    environment environment_;
    interface_table_writer table_;
    iod_registry iods_;
    std::map<std::uint32_t, interface_state> interfaces_;    // by iod; those that are gone too
    std::map<std::uint32_t, std::uint32_t> devices_;         // ifindex -> iod
    std::set<std::uint32_t> refused_;                        // ifindexes of devices without an iod
    std::vector<std::function<void(const interface_state &, interface_event)>> event_hooks_;
    std::vector<std::function<void(const interface_state &, const address_change &)>> address_hooks_;
};

[[nodiscard]] bool is_overlay_name(const std::string &name); // Overlay<N>, N 0 to 65535 without leading zeros

} // namespace corvaned
