// Batches of frames to AF_PACKET: one socket for all devices, so a batch leaves in one system call wherever it goes.
#include "link_output.h"

#include "../packet/tcp_merge.h"
#include "../plock_batch.h"
#include "lasting_socket.h"

#include <cerrno>
#include <cstring>
#include <linux/if_packet.h>
#include <sys/socket.h>
#include <unistd.h>

namespace corvane {

namespace {

constexpr int SEND_BUFFER_BYTES = 4 << 20;

constexpr std::uint32_t NONE = ~std::uint32_t{0};

// A frame, or several that leave as one.
struct unit {
    std::uint32_t first = 0, last = 0;       // of a chain through batch::next
    tcp_run run;
};

struct batch {
    std::uint32_t count = 0;
    mbuf *buffer[LINK_BATCH]{};
    link_target target[LINK_BATCH]{};

    // Made of the above when it is sent.
    std::uint32_t units = 0, open_runs = 0;
    std::uint32_t next[LINK_BATCH]{}, open_run[LINK_BATCH]{};
    unit unit_of[LINK_BATCH]{};
    mmsghdr message[LINK_BATCH]{};
    iovec piece[LINK_BATCH]{};
    sockaddr_ll address[LINK_BATCH]{};

    ~batch() { link_output_flush(); }
};
thread_local batch pending;

int open_socket()
{
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);    // protocol 0: it receives nothing
    const int on = 1;
    if (fd < 0)
        return -1;
    if (setsockopt(fd, SOL_PACKET, PACKET_VNET_HDR, &on, sizeof on) != 0) {
        close(fd);
        return -1;
    }
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &SEND_BUFFER_BYTES, sizeof SEND_BUFFER_BYTES) != 0)
        (void)setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &SEND_BUFFER_BYTES, sizeof SEND_BUFFER_BYTES);
    plock_on_release([] {
        if (pending.count != 0)
            link_output_flush();
    });
    return fd;
}

int output_socket()
{
    static lasting_socket opened;
    return opened.get(open_socket);
}

std::uint8_t *frame_of(const batch &b, std::uint32_t i)
{
    return packet_start(b.buffer[i]) + sizeof(offload_meta);
}

std::uint32_t length_of(const batch &b, std::uint32_t i)
{
    return b.buffer[i]->length - std::uint32_t{sizeof(offload_meta)};
}

unit &add_unit(batch &b, std::uint32_t i)
{
    unit &u = b.unit_of[b.units++];
    u.first = u.last = i;
    return u;
}

// Checksums are looked at when a second segment comes, so that a frame by itself costs nothing.
bool may_join(const batch &b, const unit &u, std::uint32_t i, const tcp_segment &segment)
{
    return u.run.continues(frame_of(b, i), segment) && tcp_sums_are_right(frame_of(b, i), segment) &&
           (u.run.count() > 1 || tcp_sums_are_right(u.run.frame(), u.run.first()));
}

// Any frame of a flow that does not continue its run ends it: the order within a flow stays.
void add_segment(batch &b, std::uint32_t i, const tcp_segment &segment)
{
    for (std::uint32_t k = 0; k < b.open_runs; ++k) {
        unit &u = b.unit_of[b.open_run[k]];
        if (b.target[u.first].ifindex != b.target[i].ifindex ||
            !tcp_same_flow(u.run.frame(), u.run.first(), frame_of(b, i), segment))
            continue;
        if (may_join(b, u, i, segment)) {
            u.run.append(segment);
            b.next[u.last] = i;
            u.last = i;
            return;
        }
        b.open_run[k] = b.open_run[--b.open_runs];
        break;
    }
    unit &u = add_unit(b, i);
    u.run.begin(frame_of(b, i), segment);
    if (!u.run.complete())
        b.open_run[b.open_runs++] = b.units - 1;
}

void make_units(batch &b)
{
    b.units = b.open_runs = 0;
    for (std::uint32_t i = 0; i < b.count; ++i) {
        b.next[i] = NONE;
        const std::uint32_t mtu = b.target[i].merge_mtu;
        tcp_segment segment;
        if (mtu == 0 || !tcp_segment_read(frame_of(b, i), length_of(b, i), segment)) {
            add_unit(b, i);
            continue;
        }
        segment.mergeable = segment.mergeable && length_of(b, i) - segment.network <= mtu;
        add_segment(b, i, segment);
    }
}

// The first frame whole, of the others what stands behind their headers.
std::uint32_t list_pieces(batch &b, const unit &u, iovec *out)
{
    std::uint32_t n = 0;
    out[n++] = {packet_start(b.buffer[u.first]), b.buffer[u.first]->length};
    for (std::uint32_t i = b.next[u.first]; i != NONE; i = b.next[i])
        out[n++] = {frame_of(b, i) + u.run.first().payload, length_of(b, i) - u.run.first().payload};
    return n;
}

void make_messages(batch &b)
{
    make_units(b);
    std::uint32_t pieces = 0;
    for (std::uint32_t k = 0; k < b.units; ++k) {
        const unit &u = b.unit_of[k];
        const link_target &target = b.target[u.first];
        const offload_meta meta = b.next[u.first] == NONE ? offload_meta{} : u.run.finish(frame_of(b, u.first));
        std::memcpy(packet_start(b.buffer[u.first]), &meta, sizeof meta);
        b.address[k] = {};
        b.address[k].sll_family = AF_PACKET;
        b.address[k].sll_protocol = target.protocol_be;
        b.address[k].sll_ifindex = static_cast<int>(target.ifindex);
        msghdr &header = b.message[k].msg_hdr;
        header = {};
        header.msg_name = &b.address[k];
        header.msg_namelen = sizeof b.address[k];
        header.msg_iov = &b.piece[pieces];
        header.msg_iovlen = list_pieces(b, u, header.msg_iov);
        pieces += static_cast<std::uint32_t>(header.msg_iovlen);
    }
}

void count_failure(const batch &b, const unit &u, int error)
{
    for (std::uint32_t i = u.first; i != NONE; i = b.next[i])
        drop_count(error == EMSGSIZE ? b.target[i].on_too_big : b.target[i].on_failure);
}

void send_all(batch &b, int fd)
{
    std::uint32_t sent = 0;
    while (sent < b.units) {
        const int n = sendmmsg(fd, &b.message[sent], b.units - sent, MSG_DONTWAIT);
        if (n > 0) {
            sent += static_cast<std::uint32_t>(n);
        } else if (errno != EINTR) {
            count_failure(b, b.unit_of[sent], errno);          // of the first that is left; the others are tried
            ++sent;
        }
    }
}

} // namespace

bool link_output(mbuf *m, const link_target &target)
{
    if (output_socket() < 0) {
        drop_count(target.on_failure);
        m_freem(m);
        return false;
    }
    batch &b = pending;
    (void)packet_prepend(m, sizeof(offload_meta));
    b.buffer[b.count] = m;
    b.target[b.count] = target;
    if (++b.count == LINK_BATCH)
        link_output_flush();
    return true;
}

void link_output_flush()
{
    batch &b = pending;
    if (b.count == 0)
        return;
    make_messages(b);
    send_all(b, output_socket());
    for (std::uint32_t i = 0; i < b.count; ++i)
        m_freem(b.buffer[i]);
    b.count = 0;
}

} // namespace corvane
