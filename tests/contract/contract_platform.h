// What the contract tests need beyond platform/api: time that passes, devices, packets on their wires. Implemented once
// for the fake platform and once for the real one, which runs in a network namespace and a root folder of its own.
#pragma once

#include "ipv6.h"
#include "mbus.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <pthread.h>
#include <span>
#include <string>
#include <vector>

namespace contract {

using std::chrono::milliseconds;
using bytes = std::vector<std::uint8_t>;

inline constexpr std::uint32_t SERVICE = 581;                // the process under test is known as this service
inline constexpr milliseconds SOON{3000};                    // more than anything here takes

// Devices that are there from the start, up: a switchport and an ordinary one with 192.0.2.1/24 and 2001:db8::1/64,
// and an overlay interface.
inline constexpr const char *SWITCHPORT = "port1", *CORE = "core1", *OVERLAY = "Overlay1";
inline constexpr std::uint32_t CORE_ADDRESS = 0xC0000201, CORE_NEIGHBOUR = 0xC0000202;       // 192.0.2.1, .2
inline constexpr ipv6_address CORE_ADDRESS6{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1},
    CORE_NEIGHBOUR6{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2};

// Lets time pass until the condition holds, `limit` at most; tells whether it held. The lock is given up meanwhile.
[[nodiscard]] bool eventually(const std::function<bool()> &condition, milliseconds limit = SOON);
void let_pass(milliseconds time);

// Waits for a message; false when none came.
[[nodiscard]] bool receive(mbus_q queue, mbus_msg &msg, milliseconds limit = SOON);

// Waits for the end of a thread made by corvane_pthread_create and gives its result. The lock is given up meanwhile.
void *join(pthread_t thread, const char *name);

// Around each test.
void begin_test();
void end_test();

// ---- devices
void add_device(const std::string &name);                    // an ordinary one, down
void remove_device(const std::string &name);
void set_link(const std::string &name, bool up);
void add_address(const std::string &name, const std::string &address, unsigned length);
void remove_address(const std::string &name, const std::string &address, unsigned length);
[[nodiscard]] bool group_joined(const std::string &name, std::uint32_t group);
[[nodiscard]] bool group_joined(const std::string &name, const ipv6_address &group);

// ---- wires
// Frames that left the device since the last call, as they stand on its wire.
[[nodiscard]] std::vector<bytes> frames_out(const std::string &device);
void frame_in(const std::string &device, const bytes &frame);                // arrives at it
// IP packets (no link header) that left the device since the last call.
[[nodiscard]] std::vector<bytes> packets_out(const std::string &device);
// A datagram from somebody else to this machine's UDP port, over IPv4 or IPv6. An IPv6 one has a checksum of zero.
void datagram_in(int family, std::uint16_t port, const bytes &payload);

} // namespace contract
