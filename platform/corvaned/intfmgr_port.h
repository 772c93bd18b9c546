// Devices as switchports: brought up, the kernel's own IP silent on them, found under the alternative name
// eth<last character>; and given back as they were, also by a later corvaned.
#pragma once

#include "intfmgr_state.h"

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace corvaned {

class switchport_keeper {
public:
    struct environment {
        netlink_client &netlink;
        std::function<bool(const std::string &name, std::vector<std::uint8_t> &record)> load;
        std::function<void(const std::string &name, corvane::byte_view record)> save;
        std::function<void(const std::string &name)> erase;
        std::function<void(int severity, const std::string &text)> log;
    };
    explicit switchport_keeper(environment given) : environment_(std::move(given)) {}

    // Remembers what the device was, unless that is on record already, and silences it. `up` false leaves it down. 0 or
    // an errno value: then it is as it was.
    [[nodiscard]] int take(const interface_state &device, bool up);
    void give_back(const interface_state &device);
    [[nodiscard]] bool is_on_record(const interface_state &device);      // this very device, since this boot
    void forget(const std::string &name);                    // the device will not come back

    // eth<last character> answers from now on. `device` gets the name where no device does.
    bool ensure_altname(const std::string &for_name, const interface_state &device);
    void drop_altname(const std::string &for_name, const interface_state *device);

private:
    struct record {
        std::uint32_t ifindex = 0, flags = 0;
        std::int32_t disable_ipv6 = 0;                       // UNKNOWN: the setting could not be read
        std::string boot, altname;
        std::vector<address_info> ipv6;
    };
    static constexpr std::int32_t UNKNOWN = -1;

    [[nodiscard]] std::optional<record> load(const std::string &name);
    void save(const std::string &name, const record &r);
    [[nodiscard]] record remember(const interface_state &device);
    void silence_ipv6(const interface_state &device);
    void restore_ipv6(const interface_state &device, const record &r);
    void warn(const std::string &what, const std::string &name, int error);

    environment environment_;
    std::set<std::string> given_;                            // alternative names that are this keeper's
};

} // namespace corvaned
