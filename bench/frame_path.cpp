// The frame path in memory: what the daemon itself costs a frame, with nothing behind the platform's functions but
// counters. Frames of many hosts take turns, so that tables are used the way traffic uses them.
//
// Counters beside the time: instructions and heap allocations a frame, and packets or frames put out a frame.
#include "instructions.h"
#include "world.h"

#include "lum_packet.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace {

using bench::allocations;
using bench::build_world;

constexpr std::uint32_t CONVERSATIONS = 1024;                // that take turns; capped by the hosts there are

struct work {
    std::vector<fake::bytes> frames;
    std::function<void(fake::bytes &)> input;
    std::size_t next = 0;
    [[nodiscard]] std::size_t length() const { return frames.front().size(); }
    void operator()()
    {
        input(frames[next]);
        next = next + 1 == frames.size() ? 0 : next + 1;
    }
};

// The library runs a benchmark several times until it takes long enough; the instructions are the same each time.
double instructions_of(const std::string &what, const benchmark::State &state, work &frames)
{
    static std::map<std::string, double> known;
    const std::string name = what + "/" + std::to_string(state.range(0)) + "/" + std::to_string(frames.length());
    const auto found = known.find(name);
    return found != known.end() ? found->second : known[name] = bench::instructions_per_call(std::ref(frames), 16);
}

void measure(const char *what, benchmark::State &state, work &frames)
{
    for (std::size_t i = 0; i < frames.frames.size(); ++i)   // pools fill, nothing is learnt any more
        frames();
    const double instructions = instructions_of(what, state, frames);
    const std::size_t out_before = platform.packets_out;
    const std::uint64_t allocations_before = allocations();
    for (auto _ : state)
        frames();
    const auto n = static_cast<double>(state.iterations());
    state.counters["allocs"] = static_cast<double>(allocations() - allocations_before) / n;
    state.counters["out"] = static_cast<double>(platform.packets_out - out_before) / n;
    if (instructions < 0)
        state.SetLabel("instructions cannot be counted here: a child may not be traced");
    else
        state.counters["instr"] = instructions;
}

void site_input(fake::bytes &frame, std::uint32_t port)
{
    plock_assert_held();
    lum_input(frame.data(), static_cast<std::uint32_t>(frame.size()), port);
}

// The hosts of the i-th conversation: spread over the whole table, `parity` odd ones are remote.
std::uint32_t host(std::uint32_t i, std::uint32_t size, std::uint32_t parity)
{
    const std::uint32_t step = std::max(2u, size / CONVERSATIONS & ~1u);
    return i * step % (size & ~1u) + parity;
}

std::uint32_t conversations(std::uint32_t size)
{
    return std::min(CONVERSATIONS, size / 2);
}

// Site port to remote edge: tagged frame in, finished packet to the IP stack out.
void unicast_to_core(benchmark::State &state)
{
    const auto size = static_cast<std::uint32_t>(state.range(0));
    const auto length = static_cast<std::size_t>(state.range(1));
    build_world(size);
    // One host of each port speaks, so the receiving port is the one its route names.
    work frames;
    for (std::uint32_t i = 0; i < conversations(size); ++i)
        frames.frames.push_back(bench::unicast_frame(0, host(i, size, 1), length));
    frames.input = [](fake::bytes &frame) { site_input(frame, bench::port_of(0)); };
    measure(__func__, state, frames);
}

// Core to site port: packet from its outer IP header in, frame to the packet service out.
void unicast_to_site(benchmark::State &state)
{
    const auto size = static_cast<std::uint32_t>(state.range(0));
    const auto length = static_cast<std::size_t>(state.range(1));
    build_world(size);
    work frames;
    for (std::uint32_t i = 0; i < conversations(size); ++i)
        frames.frames.push_back(fake::core_packet(fake::ipv4(198, 51, 100, 1), fake::ipv4(192, 0, 2, 1),
                                                  bench::unicast_frame(1, host(i, size, 0), length)));
    frames.input = [](fake::bytes &packet) {
        plock_assert_held();
        lum_ip_decapsulate(packet.data(), static_cast<std::uint32_t>(packet.size()));
    };
    measure(__func__, state, frames);
}

// Broadcast from one of eight ports: seven copies to the others, one to the core's group.
void broadcast_to_8_ports(benchmark::State &state)
{
    build_world(static_cast<std::uint32_t>(state.range(0)));
    work frames;
    frames.frames.push_back(bench::broadcast_frame(0, static_cast<std::size_t>(state.range(1))));
    frames.input = [](fake::bytes &frame) { site_input(frame, bench::port_of(0)); };
    measure(__func__, state, frames);
}

// ARP request for a host whose address is in the cache: one reply out of the port it came from.
void arp_from_cache(benchmark::State &state)
{
    const auto size = static_cast<std::uint32_t>(state.range(0));
    build_world(size);
    work frames;
    for (std::uint32_t i = 0; i < conversations(size); ++i)
        frames.frames.push_back(bench::arp_frame(0, host(i, size, 1)));
    frames.input = [](fake::bytes &frame) { site_input(frame, bench::port_of(0)); };
    measure(__func__, state, frames);
}

// A unicast frame for a MAC without a route: the drop that a scan or a MAC flood causes.
void unicast_without_route(benchmark::State &state)
{
    const auto size = static_cast<std::uint32_t>(state.range(0));
    build_world(size);
    work frames;
    frames.frames.push_back(bench::unicast_frame(0, size + 7, static_cast<std::size_t>(state.range(1))));
    frames.input = [](fake::bytes &frame) { site_input(frame, bench::port_of(0)); };
    measure(__func__, state, frames);
}

void sizes(benchmark::internal::Benchmark *b)
{
    b->ArgNames({"table", "bytes"});
    for (const std::int64_t size : {100, 10'000, 64'000})
        b->Args({size, 64});
    b->Args({64'000, 1400});
}

void sizes_of_short_frames(benchmark::internal::Benchmark *b)
{
    b->ArgNames({"table"});
    for (const std::int64_t size : {100, 10'000, 64'000})
        b->Args({size});
}

BENCHMARK(unicast_to_core)->Apply(sizes);
BENCHMARK(unicast_to_site)->Apply(sizes);
BENCHMARK(broadcast_to_8_ports)->Apply(sizes);
BENCHMARK(arp_from_cache)->Apply(sizes_of_short_frames);
BENCHMARK(unicast_without_route)->Apply(sizes);

} // namespace

BENCHMARK_MAIN();
