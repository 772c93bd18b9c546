// Sends UDP/IPv4 frames from a device flat out, for the measurements of bench/lab. Run by compare.py inside a host's
// namespace; the far host's own counters say what arrived.
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>
#include <system_error>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;
using mac_address = std::array<std::uint8_t, 6>;
using frame = std::vector<std::uint8_t>;

constexpr std::size_t HEADERS = 14 + 20 + 8;
constexpr std::size_t BATCH = 64;

struct settings {
    const char *device = nullptr;
    mac_address destination{}, source{};
    std::size_t payload = 0;
    double seconds = 0;
};

int usage()
{
    std::fputs("usage: pktgen DEVICE DESTINATION-MAC SOURCE-MAC PAYLOAD-BYTES SECONDS\n", stderr);
    return 2;
}

std::optional<mac_address> mac(std::string_view text)
{
    mac_address out{};
    if (text.size() != 17)
        return {};
    for (std::size_t i = 0; i < out.size(); ++i) {
        const char *at = text.data() + 3 * i;
        if (std::from_chars(at, at + 2, out[i], 16).ptr != at + 2)
            return {};
    }
    return out;
}

template <typename T> bool number(std::string_view text, T &out)
{
    return std::from_chars(text.data(), text.data() + text.size(), out).ec == std::errc{};
}

std::optional<settings> parse(std::span<char *> arguments)
{
    if (arguments.size() != 6)
        return {};
    settings s;
    s.device = arguments[1];
    const auto destination = mac(arguments[2]), source = mac(arguments[3]);
    if (!destination || !source || !number(arguments[4], s.payload) || !number(arguments[5], s.seconds))
        return {};
    s.destination = *destination;
    s.source = *source;
    return s;
}

void put16(std::span<std::uint8_t> out, std::size_t at, std::size_t value)
{
    out[at] = static_cast<std::uint8_t>(value >> 8);
    out[at + 1] = static_cast<std::uint8_t>(value);
}

std::uint16_t header_checksum(std::span<const std::uint8_t> header)
{
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i + 1 < header.size(); i += 2)
        sum += static_cast<std::uint32_t>(header[i] << 8 | header[i + 1]);
    while (sum >> 16)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<std::uint16_t>(~sum);
}

// To an address that is nobody's: the far host counts the frame and drops it, so that no program takes part there.
frame build(const settings &s, std::size_t flow)
{
    frame out(HEADERS + s.payload);
    const std::span all(out);
    std::ranges::copy(s.destination, out.begin());
    std::ranges::copy(s.source, out.begin() + 6);
    put16(all, 12, ETHERTYPE_IP);
    const auto ip = all.subspan(14, 20);
    ip[0] = 0x45;
    put16(ip, 2, 28 + s.payload);
    ip[8] = 64;
    ip[9] = IPPROTO_UDP;
    std::ranges::copy(std::array<std::uint8_t, 8>{10, 1, 250, 1, 10, 99, 99, 99}, ip.begin() + 12);
    put16(ip, 10, header_checksum(ip));
    put16(all, 34, 10000 + flow);
    put16(all, 36, 9);
    put16(all, 38, 8 + s.payload);
    return out;
}

int open_device(const char *device)
{
    const int fd = socket(AF_PACKET, SOCK_RAW, 0);
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = static_cast<int>(if_nametoindex(device));
    if (fd < 0 || address.sll_ifindex == 0
        || bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        std::perror(device);
        return -1;
    }
    return fd;
}

std::uint64_t send_for(int fd, std::span<frame> frames, double seconds)
{
    std::array<mmsghdr, BATCH> batch{};
    std::array<iovec, BATCH> parts{};
    for (std::size_t i = 0; i < BATCH; ++i) {
        parts[i] = {frames[i % frames.size()].data(), frames[i % frames.size()].size()};
        batch[i].msg_hdr.msg_iov = &parts[i];
        batch[i].msg_hdr.msg_iovlen = 1;
    }
    std::uint64_t sent = 0;
    const auto end = clock_type::now() + std::chrono::duration<double>(seconds);
    while (clock_type::now() < end) {
        const int count = sendmmsg(fd, batch.data(), BATCH, 0);
        if (count > 0)
            sent += static_cast<std::uint64_t>(count);
        else if (errno != ENOBUFS && errno != EAGAIN && errno != EINTR)
            return 0;
    }
    return sent;
}

} // namespace

int main(int argc, char **argv)
{
    const auto s = parse({argv, static_cast<std::size_t>(argc)});
    if (!s)
        return usage();
    std::vector<frame> frames;
    for (std::size_t flow = 0; flow < 16; ++flow)
        frames.push_back(build(*s, flow));
    const int fd = open_device(s->device);
    if (fd < 0)
        return 1;
    const std::uint64_t sent = send_for(fd, frames, s->seconds);
    if (sent == 0) {
        std::perror("sendmmsg");
        return 1;
    }
    std::printf("%llu\n", static_cast<unsigned long long>(sent));
    close(fd);
    return 0;
}
