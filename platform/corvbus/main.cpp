// corvbus: looks at the message bus, the shared database, the route table and the services, and puts messages and
// routes in. For scripts and for people who look for a fault.
#include "arguments.h"

#include "../libcorvane/client.h"
#include "../wire/bus.h"
#include "../wire/rtab.h"
#include "../wire/svcmgr.h"

#include "../api/intfmgr.h"
#include "../api/mbus.h"
#include "../api/sdb.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

using namespace corvbus;
using corvane::byte_reader;
using corvane::byte_writer;

namespace {

constexpr int EXIT_DONE = 0, EXIT_FAILED = 1, EXIT_USAGE = 2;
constexpr const char *DATABASE = "lum_sdb_info", *NAME = "corvbus";

int failed(const std::string &what, int error)
{
    std::fprintf(stderr, "corvbus: %s: %s\n", what.c_str(),
                 error == ENOTCONN ? "corvaned does not answer" : std::strerror(error));
    return EXIT_FAILED;
}

int refused(const std::string &what, int status = EXIT_FAILED)
{
    std::fprintf(stderr, "corvbus: %s\n", what.c_str());
    return status;
}

int wrong(const std::string &what) { return refused(what, EXIT_USAGE); }

// A queue on a SAP that nobody else has.
mbus_q own_queue()
{
    mbus_q_attr attributes;
    attributes.depth = 8192;
    return mbus_bind(1, 0, attributes, NAME);
}

// ---- bus

int monitor(words arguments)
{
    bool good = true;
    const auto count = take_option(arguments, "--count", good);
    const auto timeout_s = take_option(arguments, "--timeout", good);
    if (!good || !arguments.empty())
        return wrong("monitor takes --count N and --timeout SECONDS");
    const mbus_q queue = own_queue();
    if (queue == MBUS_Q_INVALID)
        return failed("bind", errno);
    // One subscription stands for every opcode: notifications are shown whatever they are.
    if (mbus_options_set(queue, corvane::BUS_OPCODE_ALL, corvane::BUS_OPTION_SUBSCRIBE) != 0)
        return failed("subscribe", errno);
    if (timeout_s)
        std::thread([queue, s = *timeout_s] {
            std::this_thread::sleep_for(std::chrono::seconds(s));
            mbus_pre_unbind(queue);                          // the receive ends
        }).detach();
    mbus_msg message;
    for (std::uint32_t seen = 0; !count || seen < *count; ++seen) {
        if (mbus_recv(queue, message) != 0)
            return errno == EPIPE ? EXIT_DONE : failed("receive", errno);
        std::size_t length = 0;
        const std::uint8_t *payload = mbus_payload_get(message, &length);
        const std::string text = payload == nullptr ? "" : hex(payload, length);
        std::printf("%u%s%s\n", mbus_opc_get(message), text.empty() ? "" : " ", text.c_str());
        std::fflush(stdout);
        mbus_drop(queue, message);
    }
    return EXIT_DONE;
}

int send(words arguments)
{
    if (arguments.size() < 2 || arguments.size() > 3)
        return wrong("send takes SAP OPCODE [PAYLOAD(hex)]");
    const auto sap = number(arguments[0]), opcode = number(arguments[1]);
    const auto payload = bytes(arguments.size() == 3 ? arguments[2] : "");
    if (!sap || !opcode || !payload)
        return wrong("SAP and OPCODE are numbers, decimal or 0x..., the payload is pairs of hexadecimal digits");
    const mbus_q queue = own_queue();
    if (queue == MBUS_Q_INVALID)
        return failed("bind", errno);
    const bool notification = *sap == MBUS_NOTIFY_DESTINATION;
    const mbus_addr to = notification ? mbus_addr{MBUS_NOTIFY_DESTINATION, 0} : mbus_addr{0, *sap};
    const int result = mbus_send(queue, to, *opcode, payload->data(), payload->size(), {});
    const int error = errno;
    mbus_unbind(queue, 0);
    if (result == 0)
        return EXIT_DONE;
    return error == ENOENT ? refused("nobody is bound to SAP " + arguments[0]) : failed("send", error);
}

// ---- shared database

int sdb(words arguments)
{
    if (!arguments.empty())
        return wrong("sdb takes nothing");
    const sdb_handle database = sdb_open(DATABASE);
    if (database == 0)
        return failed(DATABASE, errno == 0 ? ENOENT : errno);
    const auto iterator = sdb_iterator_create(database, nullptr, 0);
    while (const sdb_record *record = iterator ? sdb_iterator_next(*iterator) : nullptr)
        std::printf("%s %s\n", hex(record->key, record->key_length).c_str(),
                    hex(record->value, record->value_length).c_str());
    sdb_close(database);
    return EXIT_DONE;
}

// ---- route table

int rtab(words arguments)
{
    if (!arguments.empty())
        return wrong("rtab takes nothing");
    std::uint32_t position = 0;
    do {
        const auto answer = corvane::call(corvane::RTAB_DUMP, byte_writer().put(position).view());
        byte_reader in(answer.data);
        position = in.get<std::uint32_t>();
        const std::string lines = in.text();
        if (answer.error != 0 || !in.ok())
            return failed("route table", answer.error != 0 ? answer.error : EPROTO);
        std::fwrite(lines.data(), 1, lines.size(), stdout);
    } while (position != 0);
    return EXIT_DONE;
}

byte_writer route_key(const rtab_mac_info &key)
{
    byte_writer out;
    out.put(key.vlan).raw(key.mac);
    return out;
}

int rtab_set(words arguments)
{
    const bool by_iod = arguments.size() == 4 && arguments[2] == "iod";
    const bool by_ip = arguments.size() == 5 && arguments[2] == "ip";
    const auto key = by_iod || by_ip ? mac_info(arguments[0], arguments[1]) : std::nullopt;
    if (!key)
        return wrong("rtab-set takes VLAN MAC {iod N | ip OVERLAY-IF ADDRESS}");
    std::optional<rtab_addr> nexthop;
    if (by_iod) {
        const auto iod = number(arguments[3]);
        if (!iod)
            return wrong("'" + arguments[3] + "' is no number");
        nexthop = interface_nexthop(*iod);
    } else {
        const std::uint32_t iod = intfmgr_get_if_by_name(arguments[3].c_str());
        if (iod == 0)
            return refused("no such interface: " + arguments[3]);
        nexthop = ip_nexthop(iod, arguments[4]);
        if (!nexthop)
            return wrong("'" + arguments[4] + "' is no address");
    }
    byte_writer request = route_key(*key);
    request.put(nexthop->kind).raw(nexthop->body);
    const auto answer = corvane::call(corvane::RTAB_SET, request.view());
    return answer.error == 0 ? EXIT_DONE : failed("route", answer.error);
}

int rtab_unset(words arguments)
{
    const auto key = arguments.size() == 2 ? mac_info(arguments[0], arguments[1]) : std::nullopt;
    if (!key)
        return wrong("rtab-unset takes VLAN MAC");
    const auto answer = corvane::call(corvane::RTAB_UNSET, route_key(*key).view());
    return answer.error == 0 ? EXIT_DONE : failed("route", answer.error);
}

// ---- services

int services(words arguments)
{
    if (!arguments.empty())
        return wrong("services takes nothing");
    const auto answer = corvane::call(corvane::SVCMGR_SERVICES, {});
    if (answer.error != 0)
        return failed("services", answer.error);
    byte_reader in(answer.data);
    const auto count = in.get<std::uint32_t>();
    for (std::uint32_t i = 0; i < count && in.ok(); ++i) {
        const auto service = in.get<std::uint32_t>(), up = in.get<std::uint32_t>(), pid = in.get<std::uint32_t>();
        const std::string name = in.text();
        if (in.ok())
            std::printf("%u %s %s %u\n", service, name.c_str(), up != 0 ? "up" : "down", pid);
    }
    return in.ok() ? EXIT_DONE : failed("services", EPROTO);
}

struct verb {
    const char *name;
    int (*run)(words arguments);
    const char *usage;
};
constexpr auto VERBS = std::to_array<verb>({
    {"monitor", monitor, "monitor [--count N] [--timeout SECONDS]    a line a notification: OPCODE PAYLOAD(hex)"},
    {"send", send, "send SAP OPCODE [PAYLOAD(hex)]             numbers in decimal or 0x..."},
    {"sdb", sdb, "sdb                                        a line a record: KEY(hex) VALUE(hex)"},
    {"rtab", rtab, "rtab                                       a line a next hop of a route"},
    {"rtab-set", rtab_set, "rtab-set VLAN MAC {iod N | ip OVERLAY-IF ADDRESS}"},
    {"rtab-unset", rtab_unset, "rtab-unset VLAN MAC"},
    {"services", services, "services                                   a line a service: NUMBER NAME up|down PID"},
});

int usage(std::FILE *to, int status)
{
    std::fputs("usage: corvbus [--root DIR] COMMAND\n", to);
    for (const auto &v : VERBS)
        std::fprintf(to, "  %s\n", v.usage);
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    words arguments(argv + 1, argv + argc);
    if (arguments.size() >= 2 && arguments[0] == "--root") {
        setenv("CORVANE_ROOT", arguments[1].c_str(), 1);
        arguments.erase(arguments.begin(), arguments.begin() + 2);
    }
    if (arguments.empty())
        return usage(stderr, EXIT_USAGE);
    if (arguments[0] == "-h" || arguments[0] == "--help")
        return usage(stdout, EXIT_DONE);
    for (const auto &v : VERBS)
        if (arguments[0] == v.name)
            return v.run({arguments.begin() + 1, arguments.end()});
    std::fprintf(stderr, "corvbus: unknown command '%s'\n", arguments[0].c_str());
    return usage(stderr, EXIT_USAGE);
}
