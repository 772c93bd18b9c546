// Follows the overlays over the bus and the database, and the VLANs of the ports, on a queue and a thread of its own.
#include "authority.h"
#include "overlays.h"
#include "port_vlans.h"

#include "../client.h"

#include "corvane_thread.h"
#include "intfmgr.h"
#include "mbus.h"
#include "sdb.h"

#include <arpa/inet.h>
#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <span>
#include <vector>

namespace corvane {

namespace {

// The daemon's publications: opcodes, and offsets of what is read here. Host byte order, unaligned.
constexpr std::uint32_t OPCODE_PARAMETERS = 78854, OPCODE_VLANS = 78857, OPTION_SUBSCRIBE = 16;
constexpr std::size_t PARAMETERS_SIZE = 280, PARAMETERS_CORE_IOD = 12, PARAMETERS_IPV4_GROUP = 152,
                      PARAMETERS_IPV6_GROUP = 156, PARAMETERS_STATE = 240, PARAMETERS_IPV4 = 256,
                      PARAMETERS_IPV6 = 260;
constexpr std::size_t VLANS_COUNT = 4, VLANS_HEAD = 8, VLANS_STRIDE = 12;
constexpr const char *DATABASE = "lum_sdb_info";
constexpr std::uint8_t RECORD_OVERLAY = 2, RECORD_VLAN = 3, RECORD_GENERAL = 4;
constexpr std::size_t OVERLAY_SIZE = 312, OVERLAY_CORE_IOD = 12, OVERLAY_IPV4_GROUP = 153, OVERLAY_STATE = 272,
                      OVERLAY_ENCAP_TYPE = 280, OVERLAY_ENCAP_FAMILY = 284, OVERLAY_IPV4 = 288, OVERLAY_IPV6 = 292;
constexpr std::size_t VLAN_SIZE = 16, VLAN_OWNER = 4, VLAN_AUTHORITATIVE = 8, GENERAL_SIZE = 4;
constexpr std::uint32_t ENCAP_GRE = 1, STATE_UP = 2;

using record_view = std::span<const std::uint8_t>;

std::uint32_t word(record_view bytes, std::size_t at)
{
    std::uint32_t value = 0;
    std::memcpy(&value, bytes.data() + at, sizeof value);
    return value;
}

std::array<std::uint8_t, 4> ipv4(record_view bytes, std::size_t at)
{
    const std::uint32_t be = htonl(word(bytes, at));
    std::array<std::uint8_t, 4> out{};
    std::memcpy(out.data(), &be, sizeof be);
    return out;
}

std::array<std::uint8_t, 16> ipv6(record_view bytes, std::size_t at)
{
    std::array<std::uint8_t, 16> out{};
    std::memcpy(out.data(), bytes.data() + at, out.size());
    return out;
}

// The records hold everything but the whole IPv6 group, which only the notification has.
void read_overlay(record_view value)
{
    overlay_config o;
    (void)overlay_get(word(value, 0), o);
    o.iod = word(value, 0);
    o.core_iod = word(value, OVERLAY_CORE_IOD);
    o.gre = word(value, OVERLAY_ENCAP_TYPE) == ENCAP_GRE;
    o.family = static_cast<std::uint8_t>(word(value, OVERLAY_ENCAP_FAMILY));
    o.ipv4 = ipv4(value, OVERLAY_IPV4);
    o.ipv4_group = ipv4(value, OVERLAY_IPV4_GROUP);
    o.ipv6 = ipv6(value, OVERLAY_IPV6);
    o.up = word(value, OVERLAY_STATE) == STATE_UP;
    overlay_set(o);
}

void read_vlan(record_view value)
{
    const auto vlan = static_cast<std::uint16_t>(word(value, 0));
    overlay_vlan_set(vlan, word(value, VLAN_OWNER));
    const vlan_authority authority{vlan, word(value, VLAN_OWNER), word(value, VLAN_AUTHORITATIVE) != 0};
    authority_vlans({&authority, 1}, false);
}

void read_records(std::uint8_t type)
{
    const sdb_handle database = sdb_open(DATABASE);
    if (database == 0)
        return;
    if (const sdb_iterator_ptr walk = sdb_iterator_create(database, &type, sizeof type); walk != nullptr)
        while (const sdb_record *r = sdb_iterator_next(*walk)) {
            const record_view value(r->value, r->value_length);
            if (type == RECORD_OVERLAY && value.size() >= OVERLAY_SIZE)
                read_overlay(value);
            if (type == RECORD_VLAN && value.size() >= VLAN_SIZE)
                read_vlan(value);
            if (type == RECORD_GENERAL && value.size() >= GENERAL_SIZE)
                authority_site_vlan(static_cast<std::uint16_t>(word(value, 0)));
        }
    sdb_close(database);
}

// The daemon publishes the record before it notifies, so the record read now is at least as new.
void take_parameters(record_view payload)
{
    if (payload.size() < PARAMETERS_SIZE)
        return;
    read_records(RECORD_OVERLAY);
    overlay_config o;
    (void)overlay_get(word(payload, 0), o);
    o.iod = word(payload, 0);
    o.core_iod = word(payload, PARAMETERS_CORE_IOD);
    o.ipv4 = ipv4(payload, PARAMETERS_IPV4);
    o.ipv4_group = ipv4(payload, PARAMETERS_IPV4_GROUP);
    o.ipv6 = ipv6(payload, PARAMETERS_IPV6);
    o.ipv6_group = ipv6(payload, PARAMETERS_IPV6_GROUP);
    o.up = word(payload, PARAMETERS_STATE) == STATE_UP;
    overlay_set(o);
}

void take_vlans(record_view payload)
{
    if (payload.size() < VLANS_HEAD)
        return;
    const std::size_t count = std::min<std::size_t>(word(payload, VLANS_COUNT), (payload.size() - VLANS_HEAD) / VLANS_STRIDE);
    std::vector<vlan_authority> authorities;
    for (std::size_t i = 0; i < count; ++i) {
        const record_view element = payload.subspan(VLANS_HEAD + i * VLANS_STRIDE, VLANS_STRIDE);
        const auto vlan = static_cast<std::uint16_t>(word(element, 0));
        overlay_vlan_set(vlan, word(element, 4));
        authorities.push_back({vlan, word(element, 4), word(element, 8) != 0});
    }
    read_records(RECORD_GENERAL);
    authority_vlans(authorities, true);
}

void take(const mbus_msg &msg, record_view payload)
{
    switch (mbus_opc_get(msg)) {
    case OPCODE_PARAMETERS:
        take_parameters(payload);
        break;
    case OPCODE_VLANS:
        take_vlans(payload);
        break;
    case INTFMGR_OPC_L2_STATE:
        port_vlans_take(msg);
        break;
    default:
        break;
    }
}

std::atomic<mbus_q> queue{MBUS_Q_INVALID};
std::atomic<bool> missed{false};               // the bus was away: the records say what notifications did not

void *follow(void *)
{
    for (;;) {
        mbus_msg msg;
        if (missed.exchange(false)) {
            read_records(RECORD_OVERLAY);
            read_records(RECORD_VLAN);
            read_records(RECORD_GENERAL);
        }
        if (mbus_recv(queue, msg) != 0)
            return nullptr;
        std::size_t length = 0;
        const std::uint8_t *data = mbus_payload_get(msg, &length);
        if (data != nullptr)
            take(msg, {data, length});
        (void)mbus_drop(queue, msg);
    }
}

bool start()
{
    const mbus_q bound = mbus_bind(1, 0, mbus_q_attr{}, "packet-overlays");
    if (bound == MBUS_Q_INVALID)
        return false;
    for (const std::uint32_t opcode : {OPCODE_PARAMETERS, OPCODE_VLANS, INTFMGR_OPC_L2_STATE})
        if (mbus_options_set(bound, opcode, OPTION_SUBSCRIBE) != 0) {
            (void)mbus_unbind(bound, 0);
            return false;
        }
    queue = bound;
    missed = true;
    authority_watch_messages();
    pthread_t thread{};
    if (corvane_pthread_create(thread, nullptr, follow, nullptr, "corvane-l2") != 0) {
        (void)mbus_unbind(bound, 0);
        return false;
    }
    pthread_detach(thread);
    on_connected([] { missed = true; });
    return true;
}

} // namespace

bool overlays_follow()
{
    static std::mutex mutex;
    static bool started = false;
    const std::scoped_lock guard(mutex);
    started = started || start();
    return started;
}

} // namespace corvane
