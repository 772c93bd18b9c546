// A process under test: its connection to the other end, a queue, and what it was told and logged.
#pragma once

#include "runtime_double.h"

#include "../client.h"
#include "../runtime/connection.h"

#include "../../wire/log.h"
#include "../../wire/svcmgr.h"

#include "evhist.h"
#include "hakit.h"
#include "mbus.h"
#include "svcmgr.h"

#include <gmock/gmock.h>

#include <chrono>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace corvane_test {

using namespace testing;

// What the service manager's callbacks were told.
extern std::vector<std::string> told;
// What a service's set-up does in its announcement.
extern void (*set_up)();

inline constexpr std::uint32_t MODULE = 581, SAP = 442;

struct Process : Test {
    corvaned_double &server = corvaned_double::the();
    mbus_q queue = MBUS_Q_INVALID;

    void SetUp() override
    {
        server.start();
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (!corvane::connection_ensure() && std::chrono::steady_clock::now() < deadline)
            poll(nullptr, 0, 5);
        server.forget();
        told.clear();
        mbus_q_attr attr;
        attr.depth = 64;
        queue = mbus_bind(1, SAP, attr, "process test");
        ASSERT_NE(queue, MBUS_Q_INVALID);
    }
    void TearDown() override
    {
        hakit_evhist_close();
        mbus_unbind(queue, 0);
    }
    mbus_msg message(std::uint32_t opcode, byte_view payload, std::uint32_t source)
    {
        server.deliver(queue, opcode, payload, source);
        mbus_msg msg;
        EXPECT_EQ(mbus_recv(queue, msg), 0);
        return msg;
    }
    int dispatched(std::uint32_t opcode, byte_view payload, std::uint32_t source = corvane::SVCMGR_SAP)
    {
        mbus_msg msg = message(opcode, payload, source);
        const int result = svcmgr_dispatch(msg);
        mbus_drop(queue, msg);
        return result;
    }
    // A connection that may have been lost a moment ago is there again.
    void await_up()
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (corvane::call(0xFFFF0001, {}).error != 0 && std::chrono::steady_clock::now() < deadline)
            poll(nullptr, 0, 1);
    }
    // A round trip: everything sent before has arrived at the other end.
    void settle() { (void)corvane::call(0xFFFF0001, {}); }

    struct line {
        std::uint32_t severity;
        std::string text;
    };
    std::vector<line> logged()
    {
        settle();
        std::vector<line> lines;
        for (const request &r : server.all())
            if (r.method == corvane::LOG_LINE) {
                byte_reader in(r.body);
                const auto severity = in.get<std::uint32_t>();
                (void)in.text();
                lines.push_back({severity, in.text()});
            }
        return lines;
    }
};

// Makes <root>/shm/<name> as corvaned does.
template <class Page> Page *shared_page(const char *name)
{
    const int fd = open((corvane::root() + "/shm/" + name).c_str(), O_RDWR | O_CREAT, 0600);
    EXPECT_EQ(ftruncate(fd, sizeof(Page)), 0);
    void *page = mmap(nullptr, sizeof(Page), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    return static_cast<Page *>(page);
}

} // namespace corvane_test
