// An edge device on the fake platform for the daemon's fuzz targets: access and trunk ports, an overlay of each format,
// routes to all of them, anycast addresses.
#pragma once

#include "fake.h"
#include "frames.h"
#include "fuzz.h"

#include <cstdint>

namespace fuzz_lum {

inline constexpr std::uint32_t ACCESS_PORT = 1, TRUNK_PORT = 2, OTHER_PORT = 3, CORE = 20;
inline constexpr std::uint32_t UDP_OVERLAY = 100, UDP6_OVERLAY = 101, GRE_OVERLAY = 102;
inline constexpr std::uint16_t UDP_VLAN = 10, UDP6_VLAN = 300, GRE_VLAN = 4094;
inline const fake::mac_address HOST = fake::mac("02:00:00:00:00:0a"), LOCAL_HOST = fake::mac("02:00:00:00:00:0b"),
                               REMOTE_HOST = fake::mac("02:00:00:00:00:0c");

// Bits of `switches`: 0 traces of all kinds, 1 FHRP filter off, 2 suppression off, 3 no anycast addresses.
// For frames, which change nothing but the caches and the learn buffer: builds it before the first input, and empties
// those before each later one.
void prepare(std::uint8_t switches);
// For messages, which may change anything: builds it anew.
void rebuild(std::uint8_t switches);
// The platform's books must be in order: locks, buffers, messages.
void check();

// Frames worth starting from: every kind of each filter and parser, as they stand towards the daemon.
[[nodiscard]] std::vector<fake::bytes> frames();

} // namespace fuzz_lum
