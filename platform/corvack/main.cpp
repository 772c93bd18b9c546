// corvack: acknowledges the deletion of overlays where no other client does. An edge without clients stays usable; as
// soon as another process subscribes to deletion notifications, answering is its business alone. An ordinary client of
// the bus, started and watched by corvaned.
#include "lum.h"
#include "lum_defs.h"

#include "../libcorvane/client.h"
#include "../wire/attendants.h"
#include "../wire/bus.h"

#include "../api/mbus.h"
#include "../api/svcmgr.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/prctl.h>
#include <unistd.h>

using corvane::byte_reader;
using corvane::byte_writer;

namespace {

constexpr int EXIT_FAILED = 1, EXIT_USAGE = 2;
constexpr std::uint32_t SUBSCRIBE = 16;

int failed(const char *what)
{
    std::fprintf(stderr, "corvack: %s: %s\n", what, std::strerror(errno));
    return EXIT_FAILED;
}

// Whether a client besides this one follows deletions. When the platform does not say, somebody might: an overlay that
// stays in hold-down can still be released, one that was released under a client's feet cannot.
bool somebody_else_answers()
{
    const corvane::reply subscribers =
        corvane::call(corvane::BUS_SUBSCRIBERS, byte_writer().put(LUM_OPC_OVERLAY_DELETED).view());
    byte_reader in(subscribers.data);
    const auto count = in.get<std::uint32_t>();
    return subscribers.error != 0 || !in.ok() || count != 1;
}

void acknowledge(mbus_q queue, const mbus_msg &msg)
{
    std::size_t length = 0;
    const std::uint8_t *payload = mbus_payload_get(msg, &length);
    if (payload == nullptr || length < sizeof(std::uint32_t) || somebody_else_answers())
        return;
    if (mbus_send(queue, {0, LUM_MAIN_SAP}, LUM_OPC_ACK_DELETED, payload, sizeof(std::uint32_t), {}) != 0)
        failed("the acknowledgement was not taken");
}

int serve(mbus_q queue)
{
    for (;;) {
        mbus_msg msg{};
        if (mbus_recv(queue, msg) != 0)
            return failed("receive");
        if (svcmgr_dispatch(msg) == -1 && mbus_opc_get(msg) == LUM_OPC_OVERLAY_DELETED)
            acknowledge(queue, msg);
        mbus_drop(queue, msg);
    }
}

// Ends with the corvaned that started it: the next one starts its own.
bool tie_to_parent()
{
    const pid_t parent = getppid();
    return prctl(PR_SET_PDEATHSIG, SIGTERM) == 0 && getppid() == parent;
}

} // namespace

int main(int argc, char **)
{
    if (argc != 1) {
        std::fprintf(stderr, "Usage: corvack    (started by corvaned; CORVANE_ROOT names the platform)\n");
        return EXIT_USAGE;
    }
    if (!tie_to_parent())
        return failed("parent process");
    const mbus_q queue = mbus_bind(1, 0, {}, "corvack");
    if (queue == MBUS_Q_INVALID)
        return failed("bus");
    if (mbus_options_set(queue, LUM_OPC_OVERLAY_DELETED, SUBSCRIBE) != 0)
        return failed("subscription");
    if (!svcmgr_handshake(queue, corvane::SVC_LUM_ACK))
        return failed("service manager");
    return serve(queue);
}
