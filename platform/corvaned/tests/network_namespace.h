// A network namespace of a test's own: the thread is in it while the object lives.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <fcntl.h>
#include <sched.h>
#include <string>
#include <unistd.h>

namespace corvaned {

class network_namespace {
public:
    network_namespace() : before_(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC))
    {
        entered_ = before_ >= 0 && unshare(CLONE_NEWNET) == 0;
    }
    ~network_namespace()
    {
        if (entered_ && setns(before_, CLONE_NEWNET) != 0)
            std::abort();
        close(before_);
    }
    network_namespace(const network_namespace &) = delete;
    network_namespace &operator=(const network_namespace &) = delete;
    [[nodiscard]] bool entered() const { return entered_; }

private:
    int before_;
    bool entered_ = false;
};

// A command of iproute2 without its "ip", in the namespace of the calling thread.
inline void ip(const std::string &arguments) { ASSERT_EQ(std::system(("ip " + arguments).c_str()), 0) << arguments; }

} // namespace corvaned
