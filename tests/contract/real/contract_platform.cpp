// The contract tests on the real platform: a corvaned of its own, with a root folder of its own, in a network namespace
// of its own. Devices are veth pairs; the other end ("p" behind the name) is where packets are seen and sent.
#include "contract_platform.h"

#include "intfmgr.h"
#include "mbus.h"
#include "plock.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <linux/if_packet.h>
#include <map>
#include <mutex>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#ifndef UDP_NO_CHECK6_TX
#define UDP_NO_CHECK6_TX 101
#endif

namespace contract {

namespace {

[[noreturn]] void give_up(const std::string &what)
{
    std::fprintf(stderr, "contract tests: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(1);
}

void command(const std::string &line)
{
    if (std::system(line.c_str()) != 0)
        ADD_FAILURE() << "failed: " << line;
}

std::string peer(const std::string &name) { return name + "p"; }

bool exists(const std::string &name) { return if_nametoindex(name.c_str()) != 0; }

// A packet socket on the far end: what leaves the device arrives there.
class wire {
public:
    explicit wire(const std::string &name) : fd_(socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
    {
        const int on = 1;
        setsockopt(fd_, SOL_PACKET, PACKET_AUXDATA, &on, sizeof on);
        setsockopt(fd_, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on);
        sockaddr_ll address{};
        address.sll_family = AF_PACKET;
        address.sll_protocol = htons(ETH_P_ALL);
        address.sll_ifindex = static_cast<int>(if_nametoindex(name.c_str()));
        if (fd_ < 0 || ::bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
            give_up("packet socket on " + name);
    }
    std::vector<bytes> take()
    {
        std::vector<bytes> frames;
        for (bytes frame = next(); !frame.empty(); frame = next())
            frames.push_back(std::move(frame));
        return frames;
    }
    void put(const bytes &frame)
    {
        EXPECT_EQ(::send(fd_, frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size())) << std::strerror(errno);
    }

private:
    bytes next()
    {
        bytes frame(70000);
        std::array<std::uint8_t, 256> control{};
        iovec part{frame.data(), frame.size()};
        msghdr head{};
        head.msg_iov = &part;
        head.msg_iovlen = 1;
        head.msg_control = control.data();
        head.msg_controllen = control.size();
        const ssize_t got = recvmsg(fd_, &head, 0);
        frame.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
        put_tag_back(head, frame);
        return frame;
    }
    // The kernel takes a tag out of the frame and tells of it beside it.
    static void put_tag_back(msghdr &head, bytes &frame)
    {
        for (cmsghdr *c = CMSG_FIRSTHDR(&head); c != nullptr; c = CMSG_NXTHDR(&head, c)) {
            if (c->cmsg_level != SOL_PACKET || c->cmsg_type != PACKET_AUXDATA)
                continue;
            tpacket_auxdata aux{};
            std::memcpy(&aux, CMSG_DATA(c), sizeof aux);
            if ((aux.tp_status & TP_STATUS_VLAN_VALID) == 0 || frame.size() < 12)
                continue;
            const std::array<std::uint8_t, 4> tag{0x81, 0x00, static_cast<std::uint8_t>(aux.tp_vlan_tci >> 8),
                                                  static_cast<std::uint8_t>(aux.tp_vlan_tci)};
            frame.insert(frame.begin() + 12, tag.begin(), tag.end());
        }
    }
    int fd_;
};

std::map<std::string, std::unique_ptr<wire>> wires;

wire &wire_of(const std::string &device)
{
    std::unique_ptr<wire> &w = wires[device];
    if (w == nullptr)
        w = std::make_unique<wire>(peer(device));
    return *w;
}

// ---- the platform process

std::filesystem::path root;
pid_t corvaned = 0;

void write_file(const std::filesystem::path &path, const std::string &text)
{
    std::ofstream out(path);
    out << text;
    if (!out)
        give_up("cannot write " + path.string());
}

void own_network()
{
    if (unshare(CLONE_NEWNET) != 0)
        give_up("these tests make a network namespace and need root for it");
    command("ip link set lo up");
    for (const std::string name : {SWITCHPORT, CORE}) {
        command("ip link add " + name + " type veth peer name " + peer(name));
        command("ip link set " + name + " up && ip link set " + peer(name) + " up");
    }
    command(std::string("ip addr add 192.0.2.1/24 dev ") + CORE);
    command(std::string("ip addr add 2001:db8::1/64 nodad dev ") + CORE);
    command(std::string("ip neigh add 192.0.2.2 lladdr 02:00:00:00:00:02 nud permanent dev ") + CORE);
    command(std::string("ip neigh add 2001:db8::2 lladdr 02:00:00:00:00:02 nud permanent dev ") + CORE);
}

void start_corvaned()
{
    std::array<char, 64> name{};
    std::snprintf(name.data(), name.size(), "%s/corvane-contract-XXXXXX", std::filesystem::temp_directory_path().c_str());
    if (mkdtemp(name.data()) == nullptr)
        give_up("cannot make a root folder");
    root = name.data();
    setenv("CORVANE_ROOT", root.c_str(), 1);
    write_file(root / "config", std::string("interface ") + SWITCHPORT + "\n  switchport\ninterface " + OVERLAY + "\n");
    corvaned = fork();
    if (corvaned < 0)
        give_up("fork");
    if (corvaned == 0) {
        const std::string log = root / "log", config = root / "config";
        // The process under test stands in for the daemon; the one that is started in its place ends at once.
        execl(CORVANED_PATH, CORVANED_PATH, "--root", root.c_str(), "--config", config.c_str(), "--log", log.c_str(),
              "--lum", "/bin/true", static_cast<char *>(nullptr));
        _exit(127);
    }
}

void show_log()
{
    std::ifstream in(root / "log");
    std::string line;
    while (std::getline(in, line))
        std::fprintf(stderr, "  %s\n", line.c_str());
}

bool ready()
{
    const mbus_q probe = mbus_bind(1, 599, {}, "contract probe");
    if (probe == MBUS_Q_INVALID)
        return false;
    mbus_unbind(probe, 0);
    return intfmgr_is_switchport(intfmgr_get_if_by_name(SWITCHPORT)) &&
           intfmgr_is_lum_tunnel(intfmgr_get_if_by_name(OVERLAY)) && intfmgr_get_if_by_name(CORE) != 0;
}

void await_platform()
{
    for (int i = 0; i < 1000; ++i) {
        if (ready())
            return;
        if (waitpid(corvaned, nullptr, WNOHANG) == corvaned) {
            corvaned = 0;
            break;
        }
        std::this_thread::sleep_for(milliseconds(10));
    }
    std::fprintf(stderr, "contract tests: corvaned does not come up; its log:\n");
    show_log();
    if (corvaned != 0)
        kill(corvaned, SIGKILL);
    std::exit(1);
}

void stop_corvaned()
{
    kill(corvaned, SIGTERM);
    for (int i = 0; i < 1000 && waitpid(corvaned, nullptr, WNOHANG) == 0; ++i)
        std::this_thread::sleep_for(milliseconds(10));
    kill(corvaned, SIGKILL);
    waitpid(corvaned, nullptr, 0);
    std::filesystem::remove_all(root);
}

void sleep_unlocked(milliseconds time) CORVANE_NO_TSA
{
    plock_before_yield();
    std::this_thread::sleep_for(time);
    plock_after_yield();
}

// The kernel's IPv4 list: a line of the device, then a line of each group, indented.
bool ipv4_group_listed(const std::string &device, const std::string &group)
{
    std::ifstream in("/proc/thread-self/net/igmp");
    std::string current;
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line[0] != '\t')
            current = line;
        else if (current.find(device) != std::string::npos && line.find(group) != std::string::npos)
            return true;
    }
    return false;
}

} // namespace

bool eventually(const std::function<bool()> &condition, milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return condition();
        sleep_unlocked(milliseconds(5));
    }
    return true;
}

void let_pass(milliseconds time) { sleep_unlocked(time); }

// A receive waits without end: somebody else ends it when the time is up.
bool receive(mbus_q queue, mbus_msg &msg, milliseconds limit) CORVANE_NO_TSA
{
    std::mutex mutex;
    std::condition_variable changed;
    bool done = false;
    std::thread watch([&] {
        std::unique_lock lock(mutex);
        if (!changed.wait_for(lock, limit, [&] { return done; }))
            mbus_pre_unbind(queue);
    });
    plock_before_yield();
    const int result = mbus_recv(queue, msg);
    plock_after_yield();
    {
        const std::lock_guard lock(mutex);
        done = true;
    }
    changed.notify_all();
    watch.join();
    return result == 0;
}

void *join(pthread_t thread, const char * /*name*/) CORVANE_NO_TSA
{
    void *result = nullptr;
    plock_before_yield();
    pthread_join(thread, &result);
    plock_after_yield();
    return result;
}

void begin_test() {}
void end_test() {}

void add_device(const std::string &name)
{
    command("ip link add " + name + " type veth peer name " + peer(name) + " && ip link set " + peer(name) + " up");
}

void remove_device(const std::string &name)
{
    wires.erase(name);
    if (exists(name))
        command("ip link del " + name);
}

void set_link(const std::string &name, bool up) { command("ip link set " + name + (up ? " up" : " down")); }

void add_address(const std::string &name, const std::string &address, unsigned length)
{
    command("ip addr add " + address + "/" + std::to_string(length) + " dev " + name);
}

void remove_address(const std::string &name, const std::string &address, unsigned length)
{
    command("ip addr del " + address + "/" + std::to_string(length) + " dev " + name);
}

bool group_joined(const std::string &name, std::uint32_t group)
{
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%08X", ntohl(group));       // as the kernel prints it: network order
    return ipv4_group_listed(name, text.data());
}

bool group_joined(const std::string &name, const ipv6_address &group)
{
    std::string text;
    for (const std::uint8_t byte : group) {
        std::array<char, 4> digits{};
        std::snprintf(digits.data(), digits.size(), "%02x", byte);
        text += digits.data();
    }
    std::ifstream in("/proc/thread-self/net/igmp6");
    for (std::string line; std::getline(in, line);)
        if (line.find(name) != std::string::npos && line.find(text) != std::string::npos)
            return true;
    return false;
}

std::vector<bytes> frames_out(const std::string &device) { return wire_of(device).take(); }
void frame_in(const std::string &device, const bytes &frame) { wire_of(device).put(frame); }

std::vector<bytes> packets_out(const std::string &device)
{
    std::vector<bytes> packets;
    for (const bytes &frame : wire_of(device).take())
        if (frame.size() > 34 && ((frame[12] == 0x08 && frame[13] == 0x00) || (frame[12] == 0x86 && frame[13] == 0xDD)))
            packets.emplace_back(frame.begin() + 14, frame.end());
    return packets;
}

void datagram_in(int family, std::uint16_t port, const bytes &payload)
{
    const int s = socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in to4{};
    to4.sin_family = AF_INET;
    to4.sin_port = htons(port);
    to4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sockaddr_in6 to6{};
    to6.sin6_family = AF_INET6;
    to6.sin6_port = htons(port);
    to6.sin6_addr = in6addr_loopback;
    const int on = 1;
    if (family == AF_INET6)
        setsockopt(s, IPPROTO_UDP, UDP_NO_CHECK6_TX, &on, sizeof on);
    const auto *to = family == AF_INET ? reinterpret_cast<const sockaddr *>(&to4) : reinterpret_cast<const sockaddr *>(&to6);
    const socklen_t size = family == AF_INET ? sizeof to4 : sizeof to6;
    EXPECT_EQ(sendto(s, payload.data(), payload.size(), 0, to, size), static_cast<ssize_t>(payload.size()))
        << std::strerror(errno);
    close(s);
}

} // namespace contract

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (testing::GTEST_FLAG(list_tests))
        return RUN_ALL_TESTS();
    contract::own_network();
    contract::start_corvaned();
    contract::await_platform();
    const int result = RUN_ALL_TESTS();
    contract::stop_corvaned();
    std::fflush(nullptr);
    _exit(result);                                           // the library's threads live as long as the process
}
