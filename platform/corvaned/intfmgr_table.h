// Writer of the interface table in shared memory.
#pragma once

#include "../wire/intfmgr.h"

#include <array>
#include <cstdint>
#include <string>

namespace corvaned {

class interface_table_writer {
public:
    struct slot_values {
        std::string name;
        std::uint32_t flags = 0, ifindex = 0, context = 0, ipv4 = 0, mtu = 0;
        std::array<std::uint8_t, 16> ipv6{};
        std::array<std::uint8_t, 6> mac{};
        bool operator==(const slot_values &) const = default;
    };

    explicit interface_table_writer(corvane::interface_table &table);
    [[nodiscard]] std::string name_of(std::uint32_t iod) const;    // as a former writer left it too
    void write(std::uint32_t iod, const slot_values &values);      // name "" frees the slot
    void clear();                                            // every slot: nothing is there yet
    // The same, but readers go on with what a former writer left until publish(): a daemon that forwards is not to see
    // its interfaces go and come again because their manager is starting.
    void clear_held();
    void publish();

private:
    void store(std::uint32_t iod);
    void rebuild_index();
    static void put(std::atomic<std::uint16_t> *index, std::uint32_t iod, std::uint32_t at);

    corvane::interface_table &table_;
    std::array<slot_values, corvane::INTERFACE_SLOTS> values_;
    bool held_ = false;
};

} // namespace corvaned
