// corvack: acknowledges the deletion of overlays where no other client does. An edge without clients stays usable; as
// soon as another process subscribes to deletion notifications, answering is its business alone, and this one's again
// when that process is gone. An ordinary client of the bus, started and watched by corvaned.
#include "lum.h"
#include "lum_defs.h"

#include "../libcorvane/client.h"
#include "../wire/attendants.h"
#include "../wire/bus.h"

#include "../api/mbus.h"
#include "../api/sdb.h"
#include "../api/svcmgr.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <string>
#include <sys/prctl.h>
#include <thread>
#include <unistd.h>

using corvane::byte_reader;
using corvane::byte_writer;

namespace {

constexpr int EXIT_FAILED = 1, EXIT_USAGE = 2;
constexpr std::uint32_t SUBSCRIBE = 16;
constexpr std::chrono::seconds LOOK_EVERY{1};

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

std::uint32_t word(const std::uint8_t *from, lum_wire_field field)
{
    std::uint32_t value;
    std::memcpy(&value, from + field.at, sizeof value);
    return value;
}

bool acknowledge(mbus_q queue, std::uint32_t iod)
{
    return mbus_send(queue, {0, LUM_MAIN_SAP}, LUM_OPC_ACK_DELETED, &iod, sizeof iod, {}) == 0;
}

void answer(mbus_q queue, const mbus_msg &msg)
{
    std::size_t length = 0;
    const std::uint8_t *payload = mbus_payload_get(msg, &length);
    if (payload == nullptr || length < LUM_STATUS_SIZE || somebody_else_answers())
        return;
    if (!acknowledge(queue, word(payload, LUM_STATUS_IOD)))
        failed("the acknowledgement was not taken");
}

// Overlays that wait for an acknowledgement, as their records say.
std::set<std::uint32_t> held_down()
{
    static sdb_handle database = 0;
    if (database == 0)
        database = sdb_open(LUM_SDB_NAME);                   // there is none before the daemon's first start
    const std::uint8_t type = LUM_SDB_OVERLAY;
    const auto records = database != 0 ? sdb_iterator_create(database, &type, sizeof type) : nullptr;
    std::set<std::uint32_t> iods;
    while (const sdb_record *record = records ? sdb_iterator_next(*records) : nullptr)
        if (record->value_length == LUM_SDB_OVERLAY_SIZE &&
            word(record->value, LUM_SDB_OVERLAY_REASON) == LUM_REASON_DELETE_HOLDDOWN)
            iods.insert(word(record->value, LUM_SDB_OVERLAY_IOD));
    return iods;
}

// Answers for notifications that reached nobody: the bus or this process was away, or the client that they were for
// has ended. Each is answered once, and only when it was there at the look before, so that one whose answer is on its
// way is let alone.
[[noreturn]] void answer_what_is_left(mbus_q queue)
{
    std::set<std::uint32_t> before, answered;
    for (;;) {
        const std::set<std::uint32_t> now = held_down();
        std::erase_if(answered, [&](std::uint32_t iod) { return !now.contains(iod); });
        const auto is_left = [&](std::uint32_t iod) { return before.contains(iod) && !answered.contains(iod); };
        if (std::ranges::any_of(now, is_left) && !somebody_else_answers())
            for (const std::uint32_t iod : now)
                if (is_left(iod) && acknowledge(queue, iod))
                    answered.insert(iod);
        before = now;
        std::this_thread::sleep_for(LOOK_EVERY);
    }
}

int serve(mbus_q queue)
{
    for (;;) {
        mbus_msg msg{};
        if (mbus_recv(queue, msg) != 0)
            return failed("receive");
        if (svcmgr_dispatch(msg) == -1 && mbus_opc_get(msg) == LUM_OPC_OVERLAY_DELETED)
            answer(queue, msg);
        mbus_drop(queue, msg);
    }
}

// Ends with the corvaned that started it: the next one starts its own, and of two each would leave the answer to the
// other. False when that corvaned has ended already, or was never there.
bool tie_to_parent()
{
    if (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0)
        return false;
    std::ifstream file("/proc/" + std::to_string(getppid()) + "/comm");
    std::string name;
    return std::getline(file, name) && name == "corvaned";
}

} // namespace

int main(int argc, char **)
{
    if (argc != 1) {
        std::fprintf(stderr, "Usage: corvack    (started by corvaned; CORVANE_ROOT names the platform)\n");
        return EXIT_USAGE;
    }
    if (!tie_to_parent()) {
        std::fprintf(stderr, "corvack: it is corvaned that starts this program\n");
        return EXIT_FAILED;
    }
    const mbus_q queue = mbus_bind(1, 0, {}, "corvack");
    if (queue == MBUS_Q_INVALID)
        return failed("bus");
    if (mbus_options_set(queue, LUM_OPC_OVERLAY_DELETED, SUBSCRIBE) != 0)
        return failed("subscription");
    if (!svcmgr_handshake(queue, corvane::SVC_LUM_ACK))
        return failed("service manager");
    std::thread(answer_what_is_left, queue).detach();
    return serve(queue);
}
