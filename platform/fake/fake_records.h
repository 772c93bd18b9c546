// What the fake platform records, and what tests hand to it.
#pragma once

#include "fake_bytes.h"

#include "cli.h"
#include "evhist.h"
#include "ipv6.h"
#include "mbus.h"
#include "net_l2.h"
#include "rtab.h"

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace fake {

// One call of a platform function. Queries that change nothing and cannot fail are not recorded.
struct call_record {
    std::string name;
    std::vector<std::string> arguments;          // numbers in decimal, texts as they are, bytes in hexadecimal
    bool lock_held = false;                      // by the caller, when it called
    [[nodiscard]] std::string text() const;      // "name(argument, argument)"
    [[nodiscard]] std::uint64_t number(std::size_t argument) const;
};

struct ip_packet : bytes {                       // the packet as handed over, from its IP header on
    ip_packet() = default;
    ip_packet(bytes data, std::uint32_t client_, std::uint32_t mcast_iod_)
        : bytes(std::move(data)), client(client_), mcast_iod(mcast_iod_) {}
    std::uint32_t client = 0;
    std::uint32_t mcast_iod = 0;
};
struct ipv6_packet : bytes {
    ipv6_packet() = default;
    ipv6_packet(bytes data, std::uint32_t client_, std::uint32_t mcast_iod_, const ipv6_address &hint)
        : bytes(std::move(data)), client(client_), mcast_iod(mcast_iod_), next_hop_hint(hint) {}
    std::uint32_t client = 0;
    std::uint32_t mcast_iod = 0;
    ipv6_address next_hop_hint{};
};
struct l2_frame : bytes {                        // the frame from its destination MAC on, a tag as the daemon writes it
    std::uint32_t iod = 0;
    net_l2_handle handle = 0;
    net_l2_header header;
    net_l2_send_request request;
    bytes payload;                               // from byte 14 on
};
struct l2_multicast : bytes {                    // the IP packet
    std::uint32_t vlan = 0, iod = 0, flood = 0;
};
struct bus_message {
    mbus_q from = MBUS_Q_INVALID;
    std::uint32_t from_sap = 0;
    mbus_addr to;
    std::uint32_t opcode = 0;
    bytes payload;                               // segments joined
    bool want_ack = false;
    std::uint32_t sync_event = 0;
    std::uint32_t options_version = 0;
};
struct message_options {
    std::uint32_t source_sap = 0;                // 0: platform.source_sap
    std::uint32_t sync_event = 0;
};
struct subscription {
    std::uint32_t sap = 0, opcode = 0, option = 0;
    bool operator==(const subscription &) const = default;
};

struct log_line {
    std::uint32_t severity = 0;
    std::string tag;                             // "API_FAILED"
    std::string text;                            // "<<%LUM-3-API_FAILED>> rtab_api_init() failed"
};
struct trace_line {
    int level = 0;
    std::string text;
};
struct history_event {
    std::uint32_t component = 0, site = 0;
    std::string text;
    bytes record;                                // as it was given
};
struct mbus_event {
    std::uint32_t kind = 0, opcode = 0;
};
struct sdb_write_record {
    std::string database;
    bytes key, value;                            // value empty for a deletion
    bool deletion = false;
    bool refused = false;
    int create = 0;
};
struct route_update {
    bytes buffer;                                // header and as many elements as were announced
    std::uint16_t count = 0;
    std::uint32_t length = 0;                    // as it was given
    std::uint32_t flags = 0;
    [[nodiscard]] bytes element(std::size_t index) const { return buffer.range(68 + index * 52, 52); }
};
struct feature_answer {
    std::string call;                            // "rsp" or "notify"
    mbus_q queue = MBUS_Q_INVALID;
    std::uint32_t feature = 0, enabled = 0, status = 0;
};

struct timer_record {
    std::uint32_t handle = 0;
    std::uint8_t set = 0;
    std::uint32_t type = 0;
    void (*callback)(void *) = nullptr;
    void *argument = nullptr;
    bool running = false;
    std::uint64_t ms_left = 0;
};
struct thread_record {
    std::string name;
    void *(*entry)(void *) = nullptr;
    void *argument = nullptr;
    bool ran = false;
};
struct socket_record {
    int descriptor = -1;
    int family = 0, type = 0, protocol = 0;
    struct option { int level, name; bytes value; };
    std::vector<option> options;
    bytes address;                               // as it was given to bind, empty before
    bool open = true;
};

struct interface_options {
    bool switchport = false;
    bool overlay = false;                        // an overlay interface
    bool tunnel = false;                         // some other tunnel
    bool up = true;
    std::uint32_t ifindex = 0;                   // 0: 1000 + iod
    std::uint32_t ipv4 = 0;                      // host order
    ipv6_address ipv6{};
    std::uint32_t context = 1;
    std::string short_name{};                    // empty: the name
    std::string name{};                          // add_interface sets it
};
struct l2_state {
    std::uint32_t iod = 0, mode = 0, state = 0;
    std::vector<std::uint16_t> ups{}, downs{};
};

using command_arguments = std::map<std::string, std::string, std::less<>>;
struct command_result {
    int status = 0;
    std::string output;
    std::string tty;
};

} // namespace fake
