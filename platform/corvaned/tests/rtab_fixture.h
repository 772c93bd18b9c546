// A route table on memory of its own, with a look at it as clients have.
#pragma once

#include "../rtab_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/mman.h>

#include <cstring>
#include <optional>
#include <vector>

namespace corvaned {

inline constexpr std::uint64_t SECOND = 1'000'000'000;
inline constexpr std::uint32_t LUM = 581, OTHER = 900;

inline rtab_addr by_iod(std::uint32_t iod)
{
    rtab_addr nexthop;
    nexthop.kind = 1;
    std::memcpy(nexthop.body.data(), &iod, 4);
    return nexthop;
}

inline rtab_addr by_ip(std::uint32_t iod, std::uint32_t address)
{
    rtab_addr nexthop;
    const std::uint32_t words[] = {iod, 4, address};
    nexthop.kind = 6;
    std::memcpy(nexthop.body.data(), words, sizeof words);
    return nexthop;
}

inline rtab_mac_info mac(std::uint32_t vlan, std::uint32_t last)
{
    return {vlan, {0x02, 0, static_cast<std::uint8_t>(last >> 24), static_cast<std::uint8_t>(last >> 16),
                   static_cast<std::uint8_t>(last >> 8), static_cast<std::uint8_t>(last)}};
}
inline std::uint64_t key(std::uint32_t vlan, std::uint32_t last) { return corvane::rtab_key(mac(vlan, last)); }

inline const rtab_mac_info GROUP_MAC{10, {0x01, 0, 0x5e, 1, 2, 3}};
inline const std::uint64_t GROUP = corvane::rtab_key(GROUP_MAC);

MATCHER_P(LeadsTo, expected, "leads to the next hop") { return corvane::rtab_addr_equal(arg, expected); }

class rtab_memory {
public:
    rtab_memory()
        : memory_(mmap(nullptr, sizeof(corvane::rtab_shared), PROT_READ | PROT_WRITE,
                       MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0))
    {
    }
    ~rtab_memory() { munmap(memory_, sizeof(corvane::rtab_shared)); }
    rtab_memory(const rtab_memory &) = delete;
    rtab_memory &operator=(const rtab_memory &) = delete;
    [[nodiscard]] corvane::rtab_shared &shared() const { return *static_cast<corvane::rtab_shared *>(memory_); }

private:
    void *memory_;
};

inline std::optional<rtab_route> look_up(const corvane::rtab_shared &shared, std::uint64_t wanted)
{
    rtab_route route;
    route.key = corvane::rtab_key_info(wanted);
    const bool found = corvane::rtab_find(shared.routes, shared.seed.load(), wanted,
                                          [&](const auto &slot) { corvane::rtab_route_load(shared.routes, slot, route); });
    return found ? std::optional(route) : std::nullopt;
}

class rtab_test : public testing::Test {
protected:
    static constexpr rtab_table::boot_id BOOT{1, 2};
    static constexpr std::uint64_t SEED = 77;
    using result = rtab_table::result;

    void SetUp() override { table.adopt(BOOT, SEED, now); }

    std::optional<rtab_route> route(std::uint32_t vlan, std::uint32_t last) { return look_up(shared(), key(vlan, last)); }
    std::vector<rtab_addr> nexthops(std::uint32_t vlan, std::uint32_t last)
    {
        const auto found = route(vlan, last);
        return found ? std::vector(found->nexthop.begin(), found->nexthop.begin() + found->nexthop_count)
                     : std::vector<rtab_addr>{};
    }
    std::vector<std::uint32_t> group_iods(std::uint64_t group = GROUP)
    {
        std::array<std::uint64_t, corvane::RTAB_OIF_WORDS> words{};
        std::vector<std::uint32_t> iods;
        const auto copy = [&](const auto &slot) {
            for (std::size_t i = 0; i < words.size(); ++i)
                words[i] = slot.word[corvane::RTAB_MCAST_OIFS + i].load();
        };
        if (corvane::rtab_find(shared().mcasts, shared().seed.load(), group, copy))
            for (std::uint32_t bit = 0; bit < corvane::RTAB_OIF_BITS; ++bit)
                if ((words[bit / 64] >> bit % 64 & 1) != 0)
                    iods.push_back(bit);
        return iods;
    }
    std::vector<rtab_route> walk()
    {
        std::vector<rtab_route> all;
        std::uint64_t position = 0;
        rtab_route one;
        while (corvane::rtab_walk(shared().routes, position, one))
            all.push_back(one);
        return all;
    }
    corvane::rtab_shared &shared() { return memory.shared(); }

    rtab_memory memory;
    rtab_table table{memory.shared()};
    std::uint64_t now = 1000 * SECOND;
};

} // namespace corvaned
