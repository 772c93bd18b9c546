// Promiscuous reception of the host's device behind a switchport. A membership can only be dropped on the socket that
// took it, so each port keeps one socket, which is used again; descriptors do not grow with link flaps. An unread
// socket for all protocols would cost every packet of the machine, so it is bound to its device and to a protocol
// that never arrives. Command thread and main thread, under the process lock.
#include "lum_private.h"

#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

namespace
{

constexpr int ALL_PROTOCOLS = 768;               // ETH_P_ALL in network order
constexpr std::uint16_t SILENT_PROTOCOL = 0xFFFF;// reserved as an ethertype

struct port_socket {
    int fd = -1;
    int member_of = 0;                           // device index of the membership, 0 = none
};
std::array<port_socket, LUM_PORTS> sockets;

// "eth" and the last character of the port's name, deliberate: ports are numbered by one digit.
bool device_name(std::uint32_t iod, char (&out)[5])
{
    char name[LUM_NAME_SIZE];
    if (!intfmgr_get_if_name(iod, name, sizeof name) || name[0] == '\0')
        return false;
    std::snprintf(out, sizeof out, "eth%s", name + std::strlen(name) - 1);
    return true;
}

int device_index(int fd, const char *name)
{
    ifreq request{};
    std::snprintf(request.ifr_name, sizeof request.ifr_name, "%s", name);
    return ioctl(fd, SIOCGIFINDEX, &request) == 0 ? request.ifr_ifindex : 0;
}

bool change_membership(int fd, int index, int option)
{
    packet_mreq membership{};
    membership.mr_ifindex = index;
    membership.mr_type = PACKET_MR_PROMISC;
    return setsockopt(fd, SOL_PACKET, option, &membership, sizeof membership) == 0;
}

// The kernel unbinds the socket when its device goes, and the membership with it.
int bound_index(int fd)
{
    sockaddr_ll address{};
    socklen_t length = sizeof address;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0)
        return 0;
    return address.sll_ifindex;
}

// Binds to the device and to silence, and throws away what arrived before.
void silence(int fd, int index)
{
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(SILENT_PROTOCOL);
    address.sll_ifindex = index;
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        return;
    char byte;
    while (recv(fd, &byte, sizeof byte, MSG_DONTWAIT) >= 0) {
    }
}

// A second request must not count twice, or one drop would leave the port promiscuous.
bool switch_on(port_socket &port, int index)
{
    if (port.member_of == index && bound_index(port.fd) == index)
        return true;
    if (port.member_of != 0)     // of a device that has gone: nothing happens where it took the membership with it
        change_membership(port.fd, port.member_of, PACKET_DROP_MEMBERSHIP);
    port.member_of = 0;
    if (!change_membership(port.fd, index, PACKET_ADD_MEMBERSHIP))
        return false;
    port.member_of = index;
    return true;
}

bool switch_off(port_socket &port, int index)
{
    if (!change_membership(port.fd, index, PACKET_DROP_MEMBERSHIP))
        return false;
    port.member_of = 0;
    return true;
}

} // namespace

int lum_promiscuous(std::uint32_t iod, std::uint32_t enable)
{
    char device[5];
    if (iod >= LUM_PORTS || !device_name(iod, device))
        return 0;
    port_socket &port = sockets[iod];
    const bool fresh = port.fd < 0;
    if (fresh)
        port.fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, ALL_PROTOCOLS);
    const int index = device_index(port.fd, device);
    const bool done = index != 0 && (enable != 0 ? switch_on(port, index) : switch_off(port, index));
    if (fresh || bound_index(port.fd) != index)
        silence(port.fd, index); // also without a device: to no device in particular
    return done ? 1 : 0;
}
