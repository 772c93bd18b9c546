// Batches of frames to AF_PACKET: one socket for all devices, so a batch leaves in one system call wherever it goes.
#include "link_output.h"

#include "../packet/offload.h"
#include "../plock_batch.h"

#include <cerrno>
#include <cstring>
#include <linux/if_packet.h>
#include <mutex>
#include <sys/socket.h>
#include <unistd.h>

namespace corvane {

namespace {

constexpr int SEND_BUFFER_BYTES = 4 << 20;

struct batch {
    std::uint32_t count = 0;
    mmsghdr message[LINK_BATCH]{};
    iovec piece[LINK_BATCH]{};
    sockaddr_ll address[LINK_BATCH]{};
    mbuf *buffer[LINK_BATCH]{};
    drop_reason on_failure[LINK_BATCH]{}, on_too_big[LINK_BATCH]{};

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
    static const int fd = open_socket();
    return fd;
}

void count_failure(std::uint32_t i, int error)
{
    drop_count(error == EMSGSIZE ? pending.on_too_big[i] : pending.on_failure[i]);
}

void send_all(int fd)
{
    std::uint32_t sent = 0;
    while (sent < pending.count) {
        const int n = sendmmsg(fd, &pending.message[sent], pending.count - sent, MSG_DONTWAIT);
        if (n > 0) {
            sent += static_cast<std::uint32_t>(n);
        } else if (errno != EINTR) {
            count_failure(sent, errno);       // of the first that is left; the others are tried
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
    const std::uint32_t i = b.count;
    const offload_meta finished{};
    std::memcpy(packet_prepend(m, sizeof finished), &finished, sizeof finished);
    b.piece[i] = {packet_start(m), m->length};
    b.address[i] = {};
    b.address[i].sll_family = AF_PACKET;
    b.address[i].sll_protocol = target.protocol_be;
    b.address[i].sll_ifindex = static_cast<int>(target.ifindex);
    b.message[i].msg_hdr = {};
    b.message[i].msg_hdr.msg_name = &b.address[i];
    b.message[i].msg_hdr.msg_namelen = sizeof b.address[i];
    b.message[i].msg_hdr.msg_iov = &b.piece[i];
    b.message[i].msg_hdr.msg_iovlen = 1;
    b.buffer[i] = m;
    b.on_failure[i] = target.on_failure;
    b.on_too_big[i] = target.on_too_big;
    if (++b.count == LINK_BATCH)
        link_output_flush();
    return true;
}

void link_output_flush()
{
    if (pending.count == 0)
        return;
    send_all(output_socket());
    for (std::uint32_t i = 0; i < pending.count; ++i)
        m_freem(pending.buffer[i]);
    pending.count = 0;
}

} // namespace corvane
