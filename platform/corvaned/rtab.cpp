// Route table service: the calls of clients, applied to the table in shared memory.
#include "rtab.h"

#include "corvaned.h"
#include "intfmgr.h"
#include "rtab_elements.h"

#include "../api/svcmgr.h"
#include "../wire/rtab_update.h"
#include "../wire/svcmgr.h"

#include <sys/random.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>

using namespace corvane;

namespace corvaned {
namespace {

// Ends the table when the process leaves in order, so that what an operator took out of the configuration meanwhile
// does not come back with the next start; after a crash the routes stay for the daemon, which goes on forwarding.
struct rtab_service {
    std::unique_ptr<rtab_table> table;
    std::vector<std::uint32_t> forget_at_start;
    ~rtab_service()
    {
        if (table != nullptr)
            table->end();
    }
};
rtab_service service;

std::uint64_t now_ns()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

rtab_table::boot_id this_boot()
{
    std::string text;
    std::ifstream("/proc/sys/kernel/random/boot_id") >> text;
    rtab_table::boot_id id{};
    std::memcpy(id.data(), text.data(), std::min(text.size(), sizeof id));
    return id;
}

std::uint64_t random_seed()
{
    std::uint64_t seed = 0;
    if (getrandom(&seed, sizeof seed, 0) != sizeof seed)
        seed = now_ns();
    return seed;
}

std::string owner_name(std::uint32_t owner)
{
    if (owner == SVC_LUM)
        return "lum";
    return owner == RTAB_OPERATOR_SERVICE ? "operator" : std::to_string(owner);
}

answer error_of(rtab_table::result result)
{
    switch (result) {
    case rtab_table::result::DONE:
        return {};
    case rtab_table::result::FULL:
        return {ENOSPC, {}};
    default:
        return {ENOENT, {}};
    }
}

answer open_client(const peer &from, byte_view)
{
    return {0, byte_writer().put(from.service).take()};
}

answer update(const peer &from, byte_view request)
{
    byte_reader in(request);
    const byte_view header = in.raw(RTAB_UPDATE_HEADER);
    const auto count = in.get<std::uint32_t>();
    const byte_view elements = in.rest();
    if (!in.ok() || count > RTAB_UPDATE_ELEMENTS_MAX || elements.size() != count * RTAB_UPDATE_STRIDE)
        return {EINVAL, {}};
    const std::uint64_t data_ns = now_ns() + std::uint64_t{RTAB_DATA_LEAD_S} * 1'000'000'000;
    const rtab_caller caller{from.service, data_ns, intfmgr_exists, intfmgr_up};
    const std::uint32_t refused = rtab_apply(*service.table, caller, header, elements, count);
    return {0, byte_writer().put(refused).take()};
}

bool read_set(byte_reader &in, std::uint64_t &key)
{
    const byte_view bytes = in.raw(RTAB_MAC_INFO_SIZE);
    return in.ok() && rtab_read_key(bytes, key);
}

answer set(const peer &, byte_view request)
{
    byte_reader in(request);
    std::uint64_t key = 0;
    if (!read_set(in, key))
        return {EINVAL, {}};
    const auto nexthop = in.get<rtab_addr>();
    if (!in.done() || !rtab_is_nexthop(nexthop))
        return {EINVAL, {}};
    if (!rtab_is_group(key))
        return error_of(service.table->replace(RTAB_OPERATOR_SERVICE, key, {&nexthop, 1}));
    if (nexthop.kind != 1 && nexthop.kind != 6)
        return {EINVAL, {}};
    const auto iod = byte_reader(nexthop.body).get<std::uint32_t>();
    return error_of(service.table->join_group({key, RTAB_OPERATOR_SERVICE, 0, 0}, iod));
}

answer unset(const peer &, byte_view request)
{
    byte_reader in(request);
    std::uint64_t key = 0;
    if (!read_set(in, key) || !in.done())
        return {EINVAL, {}};
    return error_of(rtab_is_group(key) ? service.table->withdraw_group({key, RTAB_OPERATOR_SERVICE, 0, 0})
                                       : service.table->withdraw(RTAB_OPERATOR_SERVICE, key));
}

// A page of lines. Positions below the number of slots are MAC routes; the multicast routes follow, by number.
answer dump(const peer &, byte_view request)
{
    constexpr std::size_t PAGE = 64 * 1024;
    const rtab_text text{owner_name, intfmgr_name, now_ns()};
    std::uint64_t position = byte_reader(request).get<std::uint32_t>();
    std::string lines;
    rtab_route route;
    while (lines.size() < PAGE && position < RTAB_SLOTS) {
        if (rtab_walk(service.table->shared().routes, position, route))
            lines += rtab_lines(route, text);
        else
            position = RTAB_SLOTS;
    }
    std::uint64_t number = RTAB_SLOTS, next = 0;
    for (const auto &[source, oifs] : service.table->sources()) {
        if (lines.size() >= PAGE && number >= position) {
            next = number;
            break;
        }
        if (number++ >= position)
            lines += rtab_lines(source, oifs, text);
    }
    if (position < RTAB_SLOTS)
        next = position;
    return {0, byte_writer().put(static_cast<std::uint32_t>(next)).text(lines).take()};
}

} // namespace

void rtab_forget_iod(std::uint32_t iod)
{
    if (service.table == nullptr)
        service.forget_at_start.push_back(iod);
    else
        service.table->forget_iod(iod);
}

const rtab_shared *rtab_shared_table()
{
    return service.table == nullptr ? nullptr : &service.table->shared();
}

void rtab_start()
{
    auto *shared = static_cast<rtab_shared *>(make_shared(RTAB_SHM, sizeof(rtab_shared)));
    if (shared == nullptr) {
        log_line(2, "route table: no shared memory, the service stays down");
        return;
    }
    service.table = std::make_unique<rtab_table>(*shared);
    service.table->adopt(this_boot(), random_seed(), now_ns());
    for (const std::uint32_t iod : service.forget_at_start)
        service.table->forget_iod(iod);
    serve_method(RTAB_OPEN, open_client);
    serve_method(RTAB_UPDATE, update);
    serve_method(RTAB_DUMP, dump);
    serve_method(RTAB_SET, set);
    serve_method(RTAB_UNSET, unset);
    service_hosted(SVC_RTAB, "rtab");
}

} // namespace corvaned
