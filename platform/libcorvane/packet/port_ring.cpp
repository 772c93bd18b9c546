// AF_PACKET rings. The second ring version hands every frame over at once; the third gathers frames into blocks and
// adds its time-out, half a millisecond or more, to every round trip.
#include "port_ring.h"

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

namespace corvane {

namespace {

constexpr std::uint32_t BLOCK_BYTES = 64 * 1024;
constexpr std::size_t RING_BYTES = std::size_t{port_ring::SLOT_BYTES} * port_ring::SLOTS;
// Puts the frame at such a place that the message header and a tag fit between it and the slot's own header.
constexpr int RESERVED_BYTES = 32;
// Of frames that wait in the socket because no slot holds them.
constexpr int SOCKET_BUFFER_BYTES = 8 << 20;

template <class T> bool set(int fd, int level, int option, const T &value)
{
    return setsockopt(fd, level, option, &value, sizeof value) == 0;
}

// PACKET_IGNORE_OUTGOING and others are newer than some C library headers.
constexpr int OPTION_IGNORE_OUTGOING = 23;

std::atomic_ref<std::uint32_t> status_of(tpacket2_hdr *header)
{
    return std::atomic_ref<std::uint32_t>(header->tp_status);
}

} // namespace

port_ring::~port_ring()
{
    if (memory_ != nullptr)
        munmap(memory_, RING_BYTES);
    if (fd_ >= 0)
        close(fd_);
}

bool port_ring::configure()
{
    const int on = 1, copy_above = 1, version = TPACKET_V2;
    if (!set(fd_, SOL_SOCKET, SO_RCVBUFFORCE, SOCKET_BUFFER_BYTES))
        (void)set(fd_, SOL_SOCKET, SO_RCVBUF, SOCKET_BUFFER_BYTES);
    return set(fd_, SOL_PACKET, PACKET_VERSION, version) && set(fd_, SOL_PACKET, PACKET_VNET_HDR, on) &&
           set(fd_, SOL_PACKET, OPTION_IGNORE_OUTGOING, on) && set(fd_, SOL_PACKET, PACKET_RESERVE, RESERVED_BYTES) &&
           set(fd_, SOL_PACKET, PACKET_COPY_THRESH, copy_above);
}

bool port_ring::map()
{
    tpacket_req request{};
    request.tp_block_size = BLOCK_BYTES;
    request.tp_block_nr = RING_BYTES / BLOCK_BYTES;
    request.tp_frame_size = SLOT_BYTES;
    request.tp_frame_nr = SLOTS;
    if (!set(fd_, SOL_PACKET, PACKET_RX_RING, request))
        return false;
    void *memory = mmap(nullptr, RING_BYTES, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, fd_, 0);
    if (memory == MAP_FAILED)
        return false;
    memory_ = static_cast<std::uint8_t *>(memory);
    return true;
}

bool port_ring::bind_to_device() const
{
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(ifindex_);
    return bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

bool port_ring::open(std::uint32_t ifindex)
{
    ifindex_ = ifindex;
    fd_ = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);       // protocol 0: nothing comes before it is bound
    return fd_ >= 0 && configure() && map() && bind_to_device();
}

tpacket2_hdr *port_ring::slot_header(std::uint32_t slot) const
{
    return reinterpret_cast<tpacket2_hdr *>(memory_ + std::size_t{slot} * SLOT_BYTES);
}

port_ring::look port_ring::peek(received_frame &out)
{
    tpacket2_hdr *header = slot_header(head_);
    const std::uint32_t status = status_of(header).load(std::memory_order_acquire);
    if ((status & TP_STATUS_USER) == 0)
        return look::NOTHING;
    out.frame = {reinterpret_cast<std::uint8_t *>(header) + header->tp_mac, header->tp_snaplen};
    std::memcpy(&out.meta, out.frame.data - sizeof out.meta, sizeof out.meta);
    out.tag.present = (status & TP_STATUS_VLAN_VALID) != 0;
    out.tag.control = header->tp_vlan_tci;
    out.tag.type = (status & TP_STATUS_VLAN_TPID_VALID) != 0 ? header->tp_vlan_tpid : TYPE_VLAN;
    lost_ = lost_ || (status & TP_STATUS_LOSING) != 0;
    if (header->tp_snaplen >= header->tp_len)
        return look::FRAME;
    return (status & TP_STATUS_COPY) != 0 ? look::IN_SOCKET : look::CUT;
}

std::uint32_t port_ring::take()
{
    const std::uint32_t slot = head_;
    head_ = (head_ + 1) % SLOTS;
    return slot;
}

void port_ring::release(std::uint32_t slot)
{
    status_of(slot_header(slot)).store(TP_STATUS_KERNEL, std::memory_order_release);
}

bool port_ring::fetch(std::uint8_t *frame, std::size_t size, std::size_t &length)
{
    offload_meta repeated;
    iovec pieces[2] = {{&repeated, sizeof repeated}, {frame, size}};
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = 2;
    const ssize_t got = recvmsg(fd_, &message, MSG_DONTWAIT);
    if (got < static_cast<ssize_t>(sizeof repeated) || (message.msg_flags & MSG_TRUNC) != 0)
        return false;
    length = static_cast<std::size_t>(got) - sizeof repeated;
    return true;
}

void port_ring::clear_error() const
{
    int error = 0;
    socklen_t length = sizeof error;
    (void)getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &length);
}

std::uint32_t port_ring::take_lost()
{
    lost_ = false;
    tpacket_stats stats{};
    socklen_t length = sizeof stats;
    return getsockopt(fd_, SOL_PACKET, PACKET_STATISTICS, &stats, &length) == 0 ? stats.tp_drops : 0;
}

} // namespace corvane
