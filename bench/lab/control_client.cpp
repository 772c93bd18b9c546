// A client of the control plane, for the lab's measurements; run by control_plane.py.
//
//   control_client add COUNT IOD...           puts COUNT site adjacencies on each overlay
//   control_client change IOD...              takes the first of them away and puts it back on each, and prints how long
//                                             each change took, in milliseconds; nothing else may be going on
//   control_client follow OVERLAYS VLANS      prints "ready", waits for so many overlays to come up and for so many VLANs
//                                             to be notified, and prints the monotonic time of the last of them
#include "lum.h"
#include "mbus.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <set>
#include <string_view>
#include <vector>

namespace {

constexpr std::uint32_t SUBSCRIBE = 16;

double now_ms()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

[[noreturn]] void stop(const char *what)
{
    std::perror(what);
    std::exit(1);
}

std::uint32_t word(const std::uint8_t *from, lum_wire_field field)
{
    std::uint32_t value = 0;
    std::memcpy(&value, from + field.at, sizeof value);
    return value;
}

mbus_q subscriber(std::initializer_list<std::uint32_t> opcodes)
{
    mbus_q_attr attributes;
    attributes.depth = 16384;
    const mbus_q queue = mbus_bind(1, 0, attributes, "bench");
    if (queue == MBUS_Q_INVALID)
        stop("control_client: mbus_bind");
    for (const std::uint32_t opcode : opcodes)
        if (mbus_options_set(queue, opcode, SUBSCRIBE) != 0)
            stop("control_client: mbus_options_set");
    return queue;
}

void request(mbus_q queue, std::uint32_t opcode, std::uint32_t iod, std::uint32_t number, bool local)
{
    std::array<std::uint8_t, LUM_ADJ_REQUEST_SIZE> payload{};
    const std::uint32_t site = 1, is_local = local;
    std::memcpy(&payload[LUM_ADJ_REQUEST_IOD.at], &iod, sizeof iod);
    payload[LUM_ADJ_REQUEST_SYSTEM_ID.at] = 2;
    payload[LUM_ADJ_REQUEST_SYSTEM_ID.at + 5] = static_cast<std::uint8_t>(number);
    std::memcpy(&payload[LUM_ADJ_REQUEST_SITE.at], &site, sizeof site);
    std::memcpy(&payload[LUM_ADJ_REQUEST_LOCAL.at], &is_local, sizeof is_local);
    const timespec pause{0, 1'000'000};
    while (mbus_send(queue, {0, LUM_MAIN_SAP}, opcode, payload.data(), payload.size(), {}) != 0) {
        if (errno != EAGAIN)                       // the daemon's queue is full
            stop("control_client: mbus_send");
        nanosleep(&pause, nullptr);
    }
}

// The VLANs of the overlay have been notified: the last step of a change. How many they were.
std::size_t wait_for_vlans(mbus_q queue, std::uint32_t iod)
{
    for (;;) {
        mbus_msg msg;
        if (mbus_recv(queue, msg) != 0)
            stop("control_client: mbus_recv");
        std::size_t length = 0;
        const std::uint8_t *payload = mbus_payload_get(msg, &length);
        const bool ours = length >= LUM_VLANS_HEAD_SIZE + LUM_VLANS_ELEMENT_SIZE &&
                          word(payload + LUM_VLANS_HEAD_SIZE, LUM_VLANS_ELEMENT_IOD) == iod;
        mbus_drop(queue, msg);
        if (ours)
            return (length - LUM_VLANS_HEAD_SIZE) / LUM_VLANS_ELEMENT_SIZE;
    }
}

// This device stands in the middle: one less before it makes its place another, so all VLANs are elected anew.
int add(std::uint32_t count, const std::vector<std::uint32_t> &overlays)
{
    const mbus_q queue = subscriber({});
    for (const std::uint32_t iod : overlays)
        for (std::uint32_t number = 0; number < count; ++number)
            request(queue, LUM_OPC_ADJ_ADD, iod, number, number == count / 2);
    return 0;
}

int change(const std::vector<std::uint32_t> &overlays)
{
    const mbus_q queue = subscriber({LUM_OPC_VLANS});
    std::vector<double> took;
    std::size_t vlans = 0;
    for (const std::uint32_t iod : overlays)
        for (const std::uint32_t opcode : {LUM_OPC_ADJ_DELETE, LUM_OPC_ADJ_ADD}) {
            const double began = now_ms();
            request(queue, opcode, iod, 0, false);
            vlans += wait_for_vlans(queue, iod);
            took.push_back(now_ms() - began);
        }
    std::ranges::sort(took);
    std::printf("%zu changes, %zu VLANs moved, milliseconds: least %.2f median %.2f most %.2f\n", took.size(), vlans,
                took.front(), took[took.size() / 2], took.back());
    return 0;
}

int follow(std::size_t overlays, std::size_t vlans)
{
    const mbus_q queue = subscriber({LUM_OPC_OVERLAY_STATE, LUM_OPC_VLANS});
    std::puts("ready");
    std::fflush(stdout);
    std::set<std::uint32_t> up, told;
    while (up.size() < overlays || told.size() < vlans) {
        mbus_msg msg;
        if (mbus_recv(queue, msg) != 0)
            stop("control_client: mbus_recv");
        std::size_t length = 0;
        const std::uint8_t *payload = mbus_payload_get(msg, &length);
        if (length == LUM_STATUS_SIZE && word(payload, LUM_STATUS_STATE) == LUM_OVERLAY_UP)
            up.insert(word(payload, LUM_STATUS_IOD));
        if (mbus_opc_get(msg) == LUM_OPC_VLANS)
            for (std::size_t at = LUM_VLANS_HEAD_SIZE; at + LUM_VLANS_ELEMENT_SIZE <= length; at += LUM_VLANS_ELEMENT_SIZE)
                told.insert(word(payload + at, LUM_VLANS_ELEMENT_VLAN));
        mbus_drop(queue, msg);
    }
    std::printf("%.3f\n", now_ms());
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    const std::string_view what = argc > 1 ? argv[1] : "";
    const auto number = [&](int i) { return static_cast<std::uint32_t>(std::strtoul(argv[i], nullptr, 10)); };
    const auto overlays = [&](int from) {
        std::vector<std::uint32_t> iods;
        for (int i = from; i < argc; ++i)
            iods.push_back(number(i));
        return iods;
    };
    if (what == "add" && argc > 3)
        return add(number(2), overlays(3));
    if (what == "change" && argc > 2)
        return change(overlays(2));
    if (what == "follow" && argc == 4)
        return follow(number(2), number(3));
    std::fputs("usage: control_client {add COUNT IOD... | change IOD... | follow OVERLAYS VLANS}\n", stderr);
    return 2;
}
