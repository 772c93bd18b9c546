// An interface manager on memory of its own, with a record of everything it tells.
#pragma once

#include "../intfmgr_state.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace corvaned {

inline constexpr std::uint32_t DOWN_FLAGS = IFF_UP, UP_FLAGS = IFF_UP | IFF_RUNNING;
inline constexpr std::uint64_t L3_STATE_BIT = std::uint64_t{1} << 35;

inline link_info device(std::uint32_t ifindex, const std::string &name, std::uint32_t flags = UP_FLAGS)
{
    link_info link;
    link.ifindex = ifindex;
    link.name = name;
    link.flags = flags;
    link.mtu = 1500;
    return link;
}

inline address_info address_of(std::uint32_t ifindex, const std::string &text, std::uint32_t flags = IFA_F_PERMANENT,
                               std::uint8_t scope = RT_SCOPE_UNIVERSE)
{
    address_info address;
    address.ifindex = ifindex;
    address.family = text.find(':') == std::string::npos ? AF_INET : AF_INET6;
    address.prefix_length = address.family == AF_INET ? 24 : 64;
    address.scope = scope;
    address.flags = flags;
    inet_pton(address.family, text.c_str(), address.address.data());
    return address;
}

struct notification {
    std::uint32_t opcode = 0;
    std::vector<std::pair<std::uint32_t, std::uint64_t>> changes;
    bool operator==(const notification &) const = default;
};

inline void PrintTo(const notification &n, std::ostream *out)
{
    *out << std::hex << "0x" << n.opcode << std::dec;
    for (const auto &[iod, mask] : n.changes)
        *out << " (" << iod << ", 0x" << std::hex << mask << std::dec << ")";
}

class interface_manager_test : public testing::Test {
protected:
    void SetUp() override { begin({}); }

    void begin(const std::vector<std::pair<std::string, std::uint32_t>> &kept)
    {
        interface_manager::environment e;
        e.notify = [this](std::uint32_t opcode, corvane::byte_view payload) { record(opcode, payload); };
        e.log = [this](int, const std::string &text) { logged.push_back(text); };
        e.iod_lost = [this](std::uint32_t iod) { lost.push_back(iod); };
        e.iods.put = [this](const std::string &name, std::uint32_t iod) { stored[name] = iod; };
        e.iods.erase = [this](const std::string &name) { stored.erase(name); };
        manager = std::make_unique<interface_manager>(*table, e);
        manager->start(kept);
        manager->started();
        manager->on_event([this](const interface_state &i, interface_event event) {
            const char *const names[] = {"created", "up", "down", "removed"};
            events.push_back(i.name + " " + names[static_cast<std::size_t>(event)]);
        });
        manager->on_address([this](const interface_state &i, const address_change &change) {
            addresses.push_back(text_of(i, change));
        });
        told.clear();
    }

    void record(std::uint32_t opcode, corvane::byte_view payload)
    {
        corvane::byte_reader in(payload);
        notification n{opcode, {}};
        const auto count = in.get<std::uint32_t>();
        for (std::uint32_t i = 0; i < count; ++i) {
            const auto iod = in.get<std::uint32_t>();
            n.changes.emplace_back(iod, in.get<std::uint64_t>());
        }
        EXPECT_TRUE(in.done());
        told.push_back(n);
    }
    static std::string ipv4_text(std::uint32_t address_host)
    {
        const in_addr address{htonl(address_host)};
        char text[INET_ADDRSTRLEN];
        return inet_ntop(AF_INET, &address, text, sizeof text);
    }
    static std::string ipv6_text(const std::array<std::uint8_t, 16> &address)
    {
        char text[INET6_ADDRSTRLEN];
        return inet_ntop(AF_INET6, address.data(), text, sizeof text);
    }
    static std::string text_of(const interface_state &i, const address_change &change)
    {
        using kind = address_change::kind;
        if (change.what == kind::IPV6_CHANGED)
            return i.name + " " + ipv6_text(change.old_ipv6) + " -> " + ipv6_text(change.new_ipv6);
        return i.name + (change.what == kind::IPV4_ADDED ? " + " : " - ") + ipv4_text(change.address) +
               (change.secondary ? " secondary" : "");
    }

    [[nodiscard]] std::uint32_t iod(const std::string &name) const { return corvane::interface_by_name(*table, name); }
    [[nodiscard]] std::uint32_t flags(std::uint32_t number) const { return corvane::interface_flags(*table, number); }
    [[nodiscard]] corvane::interface_record record_of(std::uint32_t number) const
    {
        corvane::interface_record r;
        EXPECT_TRUE(corvane::interface_read(*table, number, r));
        return r;
    }

    static notification created(std::uint32_t number) { return {INTFMGR_OPC_CREATE, {{number, 0}}}; }
    static notification removed(std::uint32_t number) { return {INTFMGR_OPC_DELETE, {{number, 0}}}; }
    static notification l3_state(std::uint32_t number) { return {INTFMGR_OPC_L3_STATE, {{number, L3_STATE_BIT}}}; }
    static notification l3_param(std::uint32_t number, std::uint32_t bit)
    {
        return {INTFMGR_OPC_L3_PARAM, {{number, std::uint64_t{1} << bit}}};
    }

    std::unique_ptr<corvane::interface_table> table = std::make_unique<corvane::interface_table>();
    std::unique_ptr<interface_manager> manager;
    std::vector<notification> told;
    std::vector<std::string> events, addresses, logged;
    std::vector<std::uint32_t> lost;
    std::map<std::string, std::uint32_t> stored;
};

} // namespace corvaned
