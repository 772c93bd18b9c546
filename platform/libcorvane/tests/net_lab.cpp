// The test's own network.
#include "net_lab.h"

#include "../client.h"
#include "../interfaces.h"

#include "drops.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

namespace lab {

namespace {

[[noreturn]] void fail(const std::string &what)
{
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

std::string make_root()
{
    char path[] = "/tmp/corvane-test-XXXXXX";
    if (mkdtemp(path) == nullptr)
        fail("mkdtemp");
    std::filesystem::create_directory(std::string(path) + "/shm");
    return path;
}

void remove_root()
{
    std::error_code ignored;
    std::filesystem::remove_all(corvane::root(), ignored);
}

} // namespace

void enter()
{
    static const bool done = [] {
        setenv("CORVANE_ROOT", make_root().c_str(), 1);
        if (corvane::root().rfind("/tmp/corvane-test-", 0) != 0)
            throw std::runtime_error("another test of this process has chosen the platform's folder");
        std::atexit(remove_root);
        if (unshare(CLONE_NEWNET) != 0)
            fail("a private network namespace");
        write_setting("/proc/sys/net/ipv6/conf/default/disable_ipv6", "1");
        run("ip link set lo up");
        return true;
    }();
    (void)done;
}

void run(const std::string &command)
{
    if (std::system(command.c_str()) != 0)
        throw std::runtime_error("failed: " + command);
}

void write_setting(const std::string &path, const std::string &value)
{
    std::ofstream file(path);
    if (!(file << value << std::flush))
        fail(path);
}

veth::veth(const std::string &name, const std::string &options) : name_(name)
{
    run("ip link add " + name + " " + options + " type veth peer name " + peer() + " " + options);
    run("ip link set " + name + " up && ip link set " + peer() + " up");
    // Until then the kernel throws away what is sent.
    run("timeout 5 sh -c 'until ip link show " + name + " | grep -q \"state UP\"; do sleep 0.002; done; until ip link show " +
        peer() + " | grep -q \"state UP\"; do sleep 0.002; done'");
}

void veth::remove()
{
    if (there_)
        (void)std::system(("ip link del " + name_ + " 2>/dev/null").c_str());
    there_ = false;
}

veth::~veth()
{
    remove();
}

std::uint32_t veth::ifindex() const
{
    return index_of(name_);
}

std::uint32_t index_of(const std::string &device)
{
    return if_nametoindex(device.c_str());
}

bytes mac_of(const std::string &device)
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq request{};
    device.copy(request.ifr_name, IFNAMSIZ - 1);
    const int result = ioctl(fd, SIOCGIFHWADDR, &request);
    close(fd);
    if (result != 0)
        fail("MAC of " + device);
    const auto *mac = reinterpret_cast<const std::uint8_t *>(request.ifr_hwaddr.sa_data);
    return {mac, mac + 6};
}

wire::wire(const std::string &device)
{
    fd_ = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    const int on = 1, buffer = 8 << 20;
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(index_of(device));
    if (fd_ < 0 || setsockopt(fd_, SOL_PACKET, PACKET_VNET_HDR, &on, sizeof on) != 0 ||
        setsockopt(fd_, SOL_PACKET, PACKET_AUXDATA, &on, sizeof on) != 0 ||
        setsockopt(fd_, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on) != 0 ||
        setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &buffer, sizeof buffer) != 0 ||
        bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        fail("wire on " + device);
}

wire::~wire()
{
    close(fd_);
}

bool wire::try_send(const bytes &frame, const corvane::offload_meta &meta)
{
    bytes all(sizeof meta);
    std::memcpy(all.data(), &meta, sizeof meta);
    all.insert(all.end(), frame.begin(), frame.end());
    return ::send(fd_, all.data(), all.size(), 0) == static_cast<ssize_t>(all.size());
}

void wire::send(const bytes &frame, const corvane::offload_meta &meta)
{
    if (!try_send(frame, meta))
        fail("send");
}

std::optional<captured> wire::receive(int wait_ms)
{
    pollfd ready{fd_, POLLIN, 0};
    if (poll(&ready, 1, wait_ms) <= 0)
        return std::nullopt;
    corvane::offload_meta meta;
    bytes frame(70000);
    alignas(8) char control[256];
    iovec pieces[2] = {{&meta, sizeof meta}, {frame.data(), frame.size()}};
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = 2;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t n = recvmsg(fd_, &message, 0);
    if (n < static_cast<ssize_t>(sizeof meta))
        fail("receive");
    frame.resize(static_cast<std::size_t>(n) - sizeof meta);
    for (cmsghdr *c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c)) {
        tpacket_auxdata aux{};
        if (c->cmsg_level != SOL_PACKET || c->cmsg_type != PACKET_AUXDATA)
            continue;
        std::memcpy(&aux, CMSG_DATA(c), sizeof aux);
        if ((aux.tp_status & TP_STATUS_VLAN_VALID) != 0) {
            const bytes tag = frames::operator+(frames::be16(aux.tp_vlan_tpid), frames::be16(aux.tp_vlan_tci));
            frame.insert(frame.begin() + 12, tag.begin(), tag.end());
        }
    }
    return captured{frame, (meta.flags & corvane::OFFLOAD_NEEDS_CSUM) != 0, meta.gso_type};
}

interface_file::interface_file()
{
    enter();
    const std::string path = corvane::root() + "/shm/" + corvane::INTFMGR_SHM;
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 || ftruncate(fd, sizeof(corvane::interface_table)) != 0)
        fail(path);
    void *at = mmap(nullptr, sizeof(corvane::interface_table), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (at == MAP_FAILED)
        fail("interface table");
    table_ = static_cast<corvane::interface_table *>(at);
    table_->magic = corvane::INTERFACE_TABLE_MAGIC;
}

interface_file::~interface_file()
{
    for (std::uint32_t iod = 1; iod < corvane::INTERFACE_SLOTS; ++iod)
        if (table_->slot[iod].flags != 0)
            clear(iod);
    munmap(table_, sizeof(corvane::interface_table));
}

void interface_file::bump()
{
    ++table_->generation;
}

void interface_file::set(std::uint32_t iod, const std::string &device, std::uint32_t flags)
{
    corvane::interface_slot &slot = table_->slot[iod];
    slot.sequence += 1;
    slot.ifindex = index_of(device);
    slot.flags = flags | corvane::INTERFACE_PRESENT;
    if (slot.ifindex != 0) {
        std::uint64_t word = 0;
        const bytes mac = mac_of(device);
        std::memcpy(&word, mac.data(), 6);
        slot.mac = word;
    }
    slot.sequence += 1;
    bump();
}

void interface_file::clear(std::uint32_t iod)
{
    table_->slot[iod].flags = 0;
    table_->slot[iod].ifindex = 0;
    bump();
}

std::uint64_t drops(const char *text)
{
    for (std::uint32_t i = 0; i < static_cast<std::uint32_t>(drop_reason::COUNT); ++i)
        if (std::strcmp(drop_reason_str(static_cast<drop_reason>(i)), text) == 0)
            return drop_counters->count[i].load();
    throw std::runtime_error(std::string("no such reason: ") + text);
}

} // namespace lab
