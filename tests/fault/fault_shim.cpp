// Makes one system call of the daemon fail: the n-th of those below, as the file that CORVANE_FAULT names says in
// decimal. The file is taken away when it happens, so the daemon that is started after it runs undisturbed, and what
// failed is written to FILE.done. Without the file calls are only counted; FILE.count has their number at the end.
//
// Loaded with LD_PRELOAD into every process of an edge device; only the daemon is disturbed.
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <poll.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

std::atomic<unsigned long> calls{0};
unsigned long wanted = 0;
char file[4096];                                           // plain: it must outlive every destructor

__attribute__((constructor)) void begin()
{
    const char *name = std::getenv("CORVANE_FAULT");
    if (name == nullptr || std::strcmp(program_invocation_short_name, "lum") != 0)
        return;
    std::snprintf(file, sizeof file, "%s", name);
    if (std::FILE *in = std::fopen(name, "r"); in != nullptr) {
        if (std::fscanf(in, "%lu", &wanted) != 1)
            wanted = 0;
        std::fclose(in);
    }
}

void write_text(const char *suffix, const std::string &text)
{
    if (std::FILE *out = std::fopen((std::string(file) + suffix).c_str(), "w"); out != nullptr) {
        std::fputs(text.c_str(), out);
        std::fclose(out);
    }
}

__attribute__((destructor)) void end()
{
    if (file[0] != 0)
        write_text(".count", std::to_string(calls.load()) + "\n");
}

bool fails(const char *call, int error)
{
    if (file[0] == 0 || ++calls != wanted)
        return false;
    unlink(file);
    write_text(".done", std::string(call) + "\n");
    errno = error;
    return true;
}

template <class Function> Function next(const char *name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

} // namespace

// The C library's declarations, each with the error that the kernel would give under pressure.
#define FAILING(result, name, error, parameters, arguments, ...)                                                       \
    extern "C" result name parameters __VA_ARGS__                                                                      \
    {                                                                                                                  \
        static const auto real = next<result(*) parameters>(#name);                                                    \
        return fails(#name, error) ? static_cast<result>(-1) : real arguments;                                        \
    }

FAILING(int, socket, EMFILE, (int domain, int type, int protocol), (domain, type, protocol), noexcept)
FAILING(int, bind, ENOBUFS, (int fd, const sockaddr *to, socklen_t n), (fd, to, n), noexcept)
FAILING(int, connect, ECONNREFUSED, (int fd, const sockaddr *to, socklen_t n), (fd, to, n))
FAILING(int, setsockopt, ENOBUFS, (int fd, int level, int option, const void *value, socklen_t n),
        (fd, level, option, value, n), noexcept)
FAILING(ssize_t, send, ENOBUFS, (int fd, const void *data, size_t n, int flags), (fd, data, n, flags))
FAILING(ssize_t, sendto, ENOBUFS, (int fd, const void *data, size_t n, int flags, const sockaddr *to, socklen_t to_n),
        (fd, data, n, flags, to, to_n))
FAILING(ssize_t, sendmsg, ENOBUFS, (int fd, const msghdr *message, int flags), (fd, message, flags))
FAILING(int, sendmmsg, ENOBUFS, (int fd, mmsghdr *messages, unsigned n, int flags), (fd, messages, n, flags))
FAILING(ssize_t, recv, ENOMEM, (int fd, void *data, size_t n, int flags), (fd, data, n, flags))
FAILING(ssize_t, recvmsg, ENOMEM, (int fd, msghdr *message, int flags), (fd, message, flags))
FAILING(int, recvmmsg, ENOMEM, (int fd, mmsghdr *messages, unsigned n, int flags, timespec *timeout),
        (fd, messages, n, flags, timeout))
FAILING(int, poll, EINTR, (pollfd *fds, nfds_t n, int timeout), (fds, n, timeout))
FAILING(int, select, EINTR, (int n, fd_set *r, fd_set *w, fd_set *x, timeval *timeout), (n, r, w, x, timeout))
FAILING(int, eventfd, EMFILE, (unsigned value, int flags), (value, flags), noexcept)

extern "C" void *mmap(void *at, size_t length, int protection, int flags, int fd, off_t offset) noexcept
{
    static const auto real = next<void *(*)(void *, size_t, int, int, int, off_t)>("mmap");
    return fd >= 0 && fails("mmap", ENOMEM) ? MAP_FAILED : real(at, length, protection, flags, fd, offset);
}
