// Transport sockets: UDP port 8472 over IPv4 and IPv6, and a receive thread for each, which hands every datagram to
// decapsulation. The process lock is given up around every socket call.
#include "lum_private.h"

#include "corvane_socket.h"
#include "lum_msgs.h"
#include "lum_packet.h"
#include "memacct.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>

int lum_ip_udp_sid = -1, lum_ipv6_udp_sid = -1;
std::uint32_t lum_ip_udp_bound, lum_ipv6_udp_bound;
pthread_t lum_ip_udp_thread, lum_ipv6_udp_thread;

namespace {

constexpr std::size_t RECEIVE_BUFFER_SIZE = 3000;
constexpr int LEVEL_IP = 0, LEVEL_UDP = 17, LEVEL_IPV6 = 41;
constexpr int OPTION_WITH_HEADER = 3, OPTION_V6ONLY = 26, OPTION_IP_CONTEXT = 61;
constexpr std::size_t IPV6_BIND_SIZE = 32;       // deliberate: larger than the address, the stack's own form of it

struct call_result {
    int value, error;
};

// A socket call with the process lock given up. errno is taken before the lock is, which may change it.
template <class Call> call_result without_lock(Call call) LUM_LOCKED;
template <class Call> call_result without_lock(Call call)
{
    plock_before_yield();
    const int value = static_cast<int>(call());
    const int error = errno;
    plock_after_yield();
    return {value, error};
}

void close_socket(int &sid) LUM_LOCKED;
void close_socket(int &sid)
{
    if (sid > 0)                                             // 0 counts as not open
        without_lock([sid] { return corvane_close(sid); });
    sid = -1;
}

bool open_socket(int &sid, int family, const char *label) LUM_LOCKED;
bool open_socket(int &sid, int family, const char *label)
{
    close_socket(sid);                                       // what a failed attempt left open
    const call_result opened = without_lock([&] { return corvane_socket(family, SOCK_DGRAM, 0); });
    sid = opened.value;
    if (sid != -1)
        return true;
    LUM_LOG(SOCKET, label, std::strerror(opened.error));
    return false;
}

template <class Value>
bool set_option(int sid, int level, int option, const Value &value, const char *label) LUM_LOCKED;
template <class Value> bool set_option(int sid, int level, int option, const Value &value, const char *label)
{
    const call_result set =
        without_lock([&] { return corvane_setsockopt(sid, level, option, &value, sizeof value); });
    if (set.value >= 0)
        return true;
    LUM_LOG(SETSOCKOPT, label, std::strerror(set.error));
    return false;
}

bool bind_socket(int sid, const void *address, socklen_t length, const char *label, std::uint32_t &done) LUM_LOCKED;
bool bind_socket(int sid, const void *address, socklen_t length, const char *label, std::uint32_t &done)
{
    const call_result bound =
        without_lock([&] { return corvane_bind(sid, static_cast<const sockaddr *>(address), length); });
    done = bound.value != -1 ? 1 : 0;
    if (done != 0)
        return true;
    LUM_LOG(BIND, label, std::strerror(bound.error));
    return false;
}

constexpr std::uint32_t ON = 1;

// The labels of both families are a mixture of names, deliberate: they are what operators look for in the log.
bool open_ipv4() LUM_LOCKED;
bool open_ipv4()
{
    struct {
        std::uint8_t zero[2] = {0, 0};
        std::uint16_t context = 65535;
    } context;
    static_assert(sizeof context == 4);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(LUM_UDP_PORT);
    static_assert(sizeof address == 16);
    return open_socket(lum_ip_udp_sid, AF_INET, "lum_ip_udp_relay_sid") &&
           set_option(lum_ip_udp_sid, LEVEL_UDP, OPTION_WITH_HEADER, ON, "lum_ip_udp_relay_sid") &&
           set_option(lum_ip_udp_sid, LEVEL_IP, OPTION_IP_CONTEXT, context, "lum_ip_udp_relay_sid - IP_CONTEXT") &&
           bind_socket(lum_ip_udp_sid, &address, sizeof address, "lum_ip_udp_sid", lum_ip_udp_bound);
}

bool open_ipv6() LUM_LOCKED;
bool open_ipv6()
{
    alignas(sockaddr_in6) std::array<std::uint8_t, IPV6_BIND_SIZE> address{};
    sockaddr_in6 any{};
    any.sin6_family = AF_INET6;
    any.sin6_port = htons(LUM_UDP_PORT);
    std::memcpy(address.data(), &any, sizeof any);
    return open_socket(lum_ipv6_udp_sid, AF_INET6, "lum_ipv6_udp_relay_sid") &&
           set_option(lum_ipv6_udp_sid, LEVEL_IPV6, OPTION_WITH_HEADER, ON, "lum_ipv6_udp_sid") &&
           set_option(lum_ipv6_udp_sid, LEVEL_IPV6, OPTION_V6ONLY, ON, "lum_ipv6_udp_sid") &&
           bind_socket(lum_ipv6_udp_sid, address.data(), IPV6_BIND_SIZE, "amt_ipv6_udp_sid", lum_ipv6_udp_bound);
}

bool start_thread(pthread_t &thread, void *(*entry)(void *), const char *name)
{
    if (thread != 0 || corvane_pthread_create(thread, nullptr, entry, nullptr, name) == 0)
        return true;
    LUM_LOG(PTHREAD_CREATE, name);
    return false;
}

} // namespace

int lum_init_udp()
{
    if (!tcp_setup("lum", "/corvane/mq/lum-udp")) {
        LUM_LOG(API_FAILED, "tcp_setup()");
        return 0;
    }
    // What an earlier attempt has set up stays, so that a later one only does the rest.
    if ((lum_ip_udp_bound == 0 && !open_ipv4()) || (lum_ipv6_udp_bound == 0 && !open_ipv6()))
        return 0;
    if (!start_thread(lum_ip_udp_thread, lum_ip_udp_main, "lum-ip-udp-thread") ||
        !start_thread(lum_ipv6_udp_thread, lum_ipv6_udp_main, "lum-ipv6-udp-thread"))
        return 0;
    lum_udp_initialized = 1;
    return 1;
}

namespace {

int wait_for_input(const int &sid) LUM_LOCKED;
int wait_for_input(const int &sid)
{
    for (;;) {
        plock_sched_yield();
        const int watched = sid;
        if (watched < 0 || watched >= FD_SETSIZE)
            return watched;                                  // closed: the receive fails and ends its thread
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(watched, &readable);
        const call_result ready =
            without_lock([&] { return corvane_select(watched + 1, &readable, nullptr, nullptr, nullptr); });
        if (ready.value >= 1)
            return watched;
    }
}

// One family's receive thread. A thread ends when its receive fails or its id variable reads 0.
struct receiver {
    const pthread_t &id;
    int (*wait)();
    void (*decapsulate)(std::uint8_t *packet, std::uint32_t length);
    const char *name;
};

void receive(const receiver &self, std::uint8_t *buffer) LUM_LOCKED;
void receive(const receiver &self, std::uint8_t *buffer)
{
    for (;;) {
        const int sid = self.wait();
        sockaddr_in6 from{};
        socklen_t from_length = sizeof(sockaddr_in);         // of either family, deliberate: the source is not used
        const call_result received = without_lock([&] {
            return corvane_recvfrom(sid, buffer, RECEIVE_BUFFER_SIZE, 0, reinterpret_cast<sockaddr *>(&from),
                                    &from_length);
        });
        if (received.value == -1 || self.id == 0)
            return;
        self.decapsulate(buffer, static_cast<std::uint32_t>(received.value));
    }
}

void *receive_thread(const receiver &self)
{
    plock_acquire_process_lock();
    // Never freed: it lives as long as the thread, and the thread as long as the process.
    auto *buffer = static_cast<std::uint8_t *>(memacct_alloc(LUM_SERVICE, LUM_MEM_TYPE_PACKET, RECEIVE_BUFFER_SIZE));
    if (buffer != nullptr)
        receive(self, buffer);
    else
        LUM_LOG(MALLOC_FAILED, "lum_malloc()", self.name);
    plock_release_process_lock();
    return nullptr;
}

} // namespace

int lum_wait_for_ip_input()
{
    return wait_for_input(lum_ip_udp_sid);
}

int lum_wait_for_ipv6_input()
{
    return wait_for_input(lum_ipv6_udp_sid);
}

void *lum_ip_udp_main(void *)
{
    return receive_thread({lum_ip_udp_thread, lum_wait_for_ip_input, lum_ip_decapsulate, "lum_ip_udp_main()"});
}

void *lum_ipv6_udp_main(void *)
{
    return receive_thread({lum_ipv6_udp_thread, lum_wait_for_ipv6_input, lum_ipv6_decapsulate, "lum_ipv6_udp_main()"});
}

int lum_close_udp()
{
    if (lum_udp_initialized == 0)
        return 1;
    close_socket(lum_ip_udp_sid);
    close_socket(lum_ipv6_udp_sid);
    tcp_teardown();
    lum_udp_initialized = lum_ip_udp_bound = lum_ipv6_udp_bound = 0;
    return 1;
}
