// Sockets of the platform's UDP stack: the POSIX calls of the same names, with the platform's own options besides.
//   level 17 option 3, level 41 option 3 (u32 1): corvane_recvfrom returns the packet from its outer IP header on,
//     rebuilt from what the kernel says of the datagram, so buffer and length begin at the IP header
//   level 0 option 61: IP context; any value is taken
// IPv6 sockets accept datagrams with a UDP checksum of zero. Results and errno as POSIX has them.
#pragma once

#include <sys/select.h>
#include <sys/socket.h>

int corvane_socket(int family, int type, int protocol);
int corvane_setsockopt(int socket, int level, int option, const void *value, socklen_t length);
int corvane_bind(int socket, const sockaddr *address, socklen_t length);
int corvane_select(int count, fd_set *readable, fd_set *writable, fd_set *exceptional, timeval *timeout);
ssize_t corvane_recvfrom(int socket, void *buffer, size_t size, int flags, sockaddr *from, socklen_t *from_length);
int corvane_close(int socket);

// Client of the stack as a whole.
[[nodiscard]] bool tcp_setup(const char *client, const char *queue_path);
void tcp_teardown();
