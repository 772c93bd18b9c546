// Static routes towards the route table: one update a change, re-resolution when an interface changes its state, and
// the maintenance command that drives the table's client by hand. Under the process lock.
#include "lum_ui.h"

#include "lum_inlines.h"
#include "lum_msgs.h"

#include "memacct.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

namespace
{

constexpr std::size_t UPDATE_BUFFER = 572;

// Element of an update as this daemon fills it.
constexpr std::size_t ELEMENT_SIZE = RTAB_UPDATE_STRIDE;
constexpr wire_field ELEMENT_VLAN{0, 4}, ELEMENT_MAC{4, 6}, ELEMENT_UP{11, 1}, ELEMENT_OPERATION{12, 1},
    ELEMENT_NEXT_HOPS{13, 1}, ELEMENT_WORD{16, 4}, ELEMENT_LENGTH{20, 2}, ELEMENT_NEXT_HOP{24, 28};
constexpr std::uint8_t OPERATION_ADD = 1, OPERATION_DELETE = 2;
constexpr std::uint16_t LENGTH_BARE = 24, LENGTH_WITH_NEXT_HOP = 52;
static_assert(ELEMENT_NEXT_HOP.at + ELEMENT_NEXT_HOP.width == ELEMENT_SIZE && sizeof(lum_addr) == 28);

using element = std::span<std::uint8_t, ELEMENT_SIZE>;

void put_key(element out, const lum_mac_info &mac)
{
    wire_put_host<ELEMENT_VLAN>(out, mac.vlan);
    wire_put_bytes<ELEMENT_MAC>(out, mac.mac);
}

void put_next_hop(element out, const lum_addr &next_hop)
{
    wire_put_host<ELEMENT_NEXT_HOPS>(out, std::uint8_t{1});
    wire_put_host<ELEMENT_LENGTH>(out, LENGTH_WITH_NEXT_HOP);
    std::memcpy(&out[ELEMENT_NEXT_HOP.at], &next_hop, sizeof next_hop);
}

element element_at(std::uint8_t *buffer, std::size_t n)
{
    return element{buffer + RTAB_UPDATE_HEADER + n * ELEMENT_SIZE, ELEMENT_SIZE};
}

bool is_entry_of(const lum_static_entry &entry, const char *if_name)
{
    return !lum_mac_is_multicast(entry.mac.mac.data()) && lum_static_entry_has_name(entry, if_name);
}

lum_static_entry *first_static() { return reinterpret_cast<lum_static_entry *>(lum_staticQ.head); }
lum_static_entry *next_static(lum_static_entry *e) { return reinterpret_cast<lum_static_entry *>(e->link.next); }

void update_mac(const lum_mac_info &mac, const lum_addr &next_hop, std::uint32_t add, bool with_others) LUM_LOCKED
{
    std::array<std::uint8_t, UPDATE_BUFFER> buffer;
    rtab_update update;
    rtab_begin_route_update(update, buffer.data(), buffer.size());
    rtab_add_mac_to_buffer(update, mac, 0, 1, add);
    for (const lum_static_entry *entry = with_others ? lum_first_static_route(mac) : nullptr; entry != nullptr;
         entry = lum_next_static_route(entry)) {
        if (!lum_addr_equal(entry->next_hop, next_hop))
            rtab_add_nexthop_to_route(update, entry->next_hop);
    }
    rtab_add_nexthop_to_route(update, next_hop);
    static_cast<void>(rtab_end_route_update(update, 0));
}

// One update, as long as its 16-bit count can tell the number; what is left follows behind a header of its own.
void send_elements(std::uint8_t *buffer, std::size_t count)
{
    constexpr std::size_t most = 0xFFFF;
    std::size_t sent = 0;
    while (sent < count) {
        const std::size_t n = std::min(count - sent, most);
        std::uint8_t *start = buffer + sent * ELEMENT_SIZE;
        std::memset(start, 0, RTAB_UPDATE_HEADER);                   // of elements that are sent already
        static_cast<void>(rtab_update_route(start, static_cast<std::uint16_t>(n),
                                            static_cast<std::uint32_t>(RTAB_UPDATE_HEADER + ELEMENT_SIZE * n), 0));
        sent += n;
    }
}

void update_ip(const lum_mac_info &mac, std::uint32_t source, std::uint32_t group, std::uint32_t iod, std::uint32_t add)
{
    std::array<std::uint8_t, UPDATE_BUFFER> buffer;
    rtab_update update;
    rtab_begin_route_update(update, buffer.data(), buffer.size());
    rtab_add_ip_to_buffer(update, mac, source, group, 0, 1, add);
    rtab_add_iod_nexthop_to_route(update, iod);
    static_cast<void>(rtab_end_route_update(update, 0));
}

// ---- the maintenance command

constexpr std::uint32_t TEST_SAP = 0;             // one that nobody else has
mbus_q test_queue = MBUS_Q_INVALID;              // lives until the client is closed or opened anew

void release_test_queue()
{
    if (test_queue != MBUS_Q_INVALID)
        mbus_unbind(test_queue, 0);
    test_queue = MBUS_Q_INVALID;
}

bool bind_test_queue()
{
    release_test_queue();
    test_queue = mbus_bind(1, TEST_SAP, {}, "LUM MBUS queue");
    if (test_queue != MBUS_Q_INVALID)
        return true;
    LUM_LOG(MBUS_BIND, "main mbus-q", std::strerror(errno));
    return false;
}

// Next hop of the command, kind LUM_ADDR_EMPTY when none was given.
lum_addr read_next_hop(cli_cmd *cmd)
{
    lum_addr next_hop{};
    std::uint32_t iod = 0;
    if (const char *name = nullptr; cli_get_interface(cmd, "<if-name>", name)) {
        iod = intfmgr_get_if_by_name(name);
        next_hop = lum_addr_iod(iod);
    }
    if (std::uint32_t ipv4 = 0; cli_get_ipaddr(cmd, "<nh>", ipv4))
        next_hop = lum_addr_next_hop(iod, ipv4);
    if (ipv6_address ipv6{}; cli_get_ipv6addr(cmd, "<nh6>", ipv6))
        next_hop = lum_addr_next_hop(iod, ipv6);
    return next_hop;
}

int send_test_route(cli_cmd *cmd, const lum_mac_info &mac, bool add)
{
    std::array<std::uint8_t, RTAB_UPDATE_HEADER + ELEMENT_SIZE> buffer{};
    const element out = element_at(buffer.data(), 0);
    put_key(out, mac);
    wire_put_host<ELEMENT_OPERATION>(out, add ? OPERATION_ADD : OPERATION_DELETE);
    if (add)
        wire_put_host<ELEMENT_WORD>(out, std::uint32_t{10});
    wire_put_host<ELEMENT_LENGTH>(out, LENGTH_BARE);
    if (const lum_addr next_hop = read_next_hop(cmd); next_hop.kind != LUM_ADDR_EMPTY)
        put_next_hop(out, next_hop);
    return rtab_update_route(buffer.data(), 1, ELEMENT_SIZE, 0);     // deliberate: the length leaves the header out
}

} // namespace

void lum_add_to_rtab(const lum_mac_info &mac, const lum_addr &next_hop, bool multicast)
{
    update_mac(mac, next_hop, 1, !multicast);
}

void lum_delete_from_rtab(const lum_mac_info &mac, const lum_addr &next_hop) { update_mac(mac, next_hop, 0, false); }

void lum_add_ip_to_rtab(const lum_mac_info &mac, std::uint32_t source, std::uint32_t group, std::uint32_t iod)
{
    update_ip(mac, source, group, iod, 1);
}

void lum_delete_ip_from_rtab(const lum_mac_info &mac, std::uint32_t source, std::uint32_t group, std::uint32_t iod)
{
    update_ip(mac, source, group, iod, 0);
}

void lum_resolve_static_routes(std::uint32_t iod)
{
    if (lum_staticQ.count == 0)
        return;
    const bool up = intfmgr_is_if_up(iod);
    lum_text name;
    lum_if_name(iod, name);
    const std::size_t size = RTAB_UPDATE_HEADER + ELEMENT_SIZE * lum_staticQ.count;
    auto *buffer = static_cast<std::uint8_t *>(memacct_alloc(LUM_SERVICE, LUM_MEM_TYPE_RTAB_BUFFER, size));
    if (buffer == nullptr)
        return;
    std::size_t count = 0;
    for (lum_static_entry *entry = first_static(); entry != nullptr; entry = next_static(entry)) {
        if (name[0] == '\0' || !is_entry_of(*entry, name.data()))
            continue;
        const element out = element_at(buffer, count++);
        if (up) {
            wire_put_host<ELEMENT_UP>(out, std::uint8_t{1});
            lum_addr_set_word(entry->next_hop, 0, iod);              // the interface may have another one now
        }
        put_key(out, entry->mac);
        put_next_hop(out, entry->next_hop);
    }
    send_elements(buffer, count);
    memacct_free(LUM_SERVICE, LUM_MEM_TYPE_RTAB_BUFFER, buffer);
}

int lum_rtab_command(cli_cmd *cmd)
{
    plock_assert_held();
    bool done = false;
    if (cli_is_set(cmd, "rtab_api_init")) {
        const char *client = "";
        static_cast<void>(cli_get_string(cmd, "<client-name>", client));
        if (!bind_test_queue())
            return CLI_DONE;
        done = rtab_api_init(test_queue, client, 0);
    } else if (cli_is_set(cmd, "rtab_api_close")) {
        done = rtab_api_close();
        release_test_queue();
    } else if (const bool add = cli_is_set(cmd, "rtab_add_route"); add || cli_is_set(cmd, "rtab_delete_route")) {
        const char *text = "";
        lum_mac_info mac;
        if (!cli_get_string(cmd, "<mac>", text) || !lum_copy_from_mac_info_string(text, mac)) {
            cli_cmd_printf(cmd, "Illegal VLAN-id\n");
            return CLI_REJECTED;
        }
        done = send_test_route(cmd, mac, add) != 0;
    }
    cli_cmd_printf(cmd, "API %s\n", done ? "succeeded" : "failed");
    return CLI_DONE;
}
