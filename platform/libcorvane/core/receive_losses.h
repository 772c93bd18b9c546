// What a socket's full receive buffer has lost: the kernel tells it beside the packets that came later.
#pragma once

#include "drops.h"

#include <cstdint>
#include <cstring>
#include <sys/socket.h>

namespace corvane {

class receive_losses {
public:
    // Has the kernel tell. The control buffers need ROOM bytes more.
    static void ask(int socket)
    {
        const int on = 1;
        (void)setsockopt(socket, SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on);
    }
    static constexpr std::size_t ROOM = CMSG_SPACE(sizeof(std::uint32_t));

    void restart() { told_ = 0; }                              // another socket from now on
    // `newest` is the last packet of those that were received at once.
    void count(msghdr &newest)
    {
        for (cmsghdr *c = CMSG_FIRSTHDR(&newest); c != nullptr; c = CMSG_NXTHDR(&newest, c)) {
            if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SO_RXQ_OVFL)
                continue;
            std::uint32_t total = 0;                           // since the socket was made; wraps
            std::memcpy(&total, CMSG_DATA(c), sizeof total);
            if (total != told_)
                drop_count(drop_reason::CORE_QUEUE_FULL, total - told_);
            told_ = total;
        }
    }

private:
    std::uint32_t told_ = 0;
};

} // namespace corvane
