// Interface manager client: queries are looks into the table in shared memory.
#include "intfmgr.h"

#include "client.h"
#include "interfaces.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

using namespace corvane;

namespace {

std::atomic<bool> subscribed{false};

constexpr std::uint32_t SUBSCRIBED_OPCODES[] = {INTFMGR_OPC_L3_STATE, INTFMGR_OPC_CREATE, INTFMGR_OPC_DELETE,
                                                INTFMGR_OPC_L3_PARAM};
constexpr std::uint32_t OPTION_SUBSCRIBE = 16;

// What happened while corvaned was away is told like what was there before the subscription.
void announce_again()
{
    if (subscribed.load())
        (void)call(INTFMGR_ANNOUNCE, {});
}

bool has_flag(std::uint32_t iod, std::uint32_t flag)
{
    const interface_table *table = interfaces();
    return table != nullptr && (interface_flags(*table, iod) & flag) != 0;
}

bool read(std::uint32_t iod, interface_record &record)
{
    const interface_table *table = interfaces();
    return table != nullptr && iod != 0 && interface_read(*table, iod, record) && record.name[0] != '\0';
}

bool copy_name(const char *name, char *out, std::size_t size)
{
    if (size == 0)
        return false;
    const std::size_t length = std::min(std::strlen(name), size - 1);
    std::memcpy(out, name, length);
    out[length] = '\0';
    return true;
}

std::uint32_t fail(std::uint32_t code, const char *text, const char **error)
{
    if (error != nullptr)
        *error = text;
    return code;
}

} // namespace

namespace corvane {

const interface_table *interfaces()
{
    static std::atomic<const interface_table *> mapped{nullptr};
    const interface_table *table = mapped.load(std::memory_order_acquire);
    if (table == nullptr) {
        table = static_cast<const interface_table *>(map_shared(INTFMGR_SHM, sizeof(interface_table), false));
        mapped.store(table, std::memory_order_release);
    }
    return table;
}

} // namespace corvane

// Subscribing comes before the request, so that nothing can happen between them unseen; the caller's own registration
// of the same opcodes changes nothing any more.
std::uint32_t intfmgr_ext_sbcr_init(std::uint32_t /*service*/, mbus_q queue, const char * /*name*/, const char **error)
{
    if (error != nullptr)
        *error = "";
    for (const std::uint32_t opcode : SUBSCRIBED_OPCODES)
        if (mbus_options_set(queue, opcode, OPTION_SUBSCRIBE) < 0)
            return fail(static_cast<std::uint32_t>(errno), "queue cannot subscribe", error);
    if (interfaces() == nullptr)
        return fail(ENOENT, "no interface table", error);
    if (const reply answer = call(INTFMGR_ANNOUNCE, {}); answer.error != 0)
        return fail(static_cast<std::uint32_t>(answer.error), "interface manager does not answer", error);
    if (!subscribed.exchange(true))
        on_connected(announce_again);
    return 0;
}

bool intfmgr_is_switchport(std::uint32_t iod) { return has_flag(iod, INTERFACE_SWITCHPORT); }
bool intfmgr_is_tunnel(std::uint32_t iod) { return has_flag(iod, INTERFACE_TUNNEL); }
bool intfmgr_is_lum_tunnel(std::uint32_t iod) { return has_flag(iod, INTERFACE_OVERLAY); }
bool intfmgr_is_if_up(std::uint32_t iod) { return has_flag(iod, INTERFACE_UP); }

bool intfmgr_get_if_name(std::uint32_t iod, char *out, std::size_t size)
{
    interface_record record;
    const bool known = read(iod, record);
    return copy_name(known ? record.name : "", out, size) && known;
}

// Overlay7 is Ov7; devices have short names already.
bool intfmgr_get_if_short_name(std::uint32_t iod, char *out, std::size_t size)
{
    interface_record record;
    if (!read(iod, record)) {
        copy_name("", out, size);
        return false;
    }
    if ((record.flags & INTERFACE_OVERLAY) == 0)
        return copy_name(record.name, out, size);
    char text[sizeof record.name];
    std::snprintf(text, sizeof text, "Ov%s", record.name + std::strlen("Overlay"));
    return copy_name(text, out, size);
}

std::uint32_t intfmgr_get_if_by_name(const char *name)
{
    const interface_table *table = interfaces();
    return table == nullptr || name == nullptr ? 0 : interface_by_name(*table, name);
}

bool intfmgr_get_ifindex(std::uint32_t iod, std::uint32_t &ifindex)
{
    const interface_table *table = interfaces();
    ifindex = table != nullptr && iod < INTERFACE_SLOTS ? table->slot[iod].ifindex.load(std::memory_order_acquire) : 0;
    return ifindex != 0;
}

std::uint32_t intfmgr_get_iod_frm_ifindex(std::uint32_t ifindex)
{
    const interface_table *table = interfaces();
    return table == nullptr ? 0 : interface_by_ifindex(*table, ifindex);
}
