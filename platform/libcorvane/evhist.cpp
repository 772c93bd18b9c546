// Event history: a ring of records in memory; the facility of the log with its level.
#include "evhist.h"

#include "evhist_ring.h"
#include "runtime/shared_memory.h"
#include "syslog_client.h"

#include "../wire/bytes.h"
#include "../wire/svcmgr.h"

#include "timestamp.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

evhist_facility *evhist_sys_facility = nullptr;
const char *evhist_dbg_modname = "corvane";

namespace {

using namespace corvane;

constexpr std::uint32_t COMPONENT_BUS = 0x1000000, RECORD_MAX = 1024, LEVEL_MAX = 7;

struct history_record {
    timestamp when;
    std::uint32_t component = 0;
    std::vector<std::uint8_t> data;
};

struct history {
    std::mutex mutex;
    std::vector<history_record> ring;
    std::size_t next = 0;
    std::uint32_t entries = 0;
    std::uint32_t max_element = 0;
    std::string name;
    evhist_facility facility{};
    bool console = false;
};

history &the()
{
    static auto *h = new history;
    return *h;
}

void add(std::uint32_t component, byte_view data)
{
    const std::lock_guard guard(the().mutex);
    if (the().entries == 0)
        return;
    if (the().ring.size() < the().entries)
        the().ring.resize(std::min<std::size_t>(the().entries, the().ring.size() + 64));
    history_record &record = the().ring[the().next];
    the().next = (the().next + 1) % the().entries;
    (void)vemo_sys_mclock_get(record.when);
    record.component = component;
    record.data.assign(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(data.size(), RECORD_MAX)));
}

// A record that begins with a site number and goes on as text is shown as text, others in hexadecimal.
std::string readable(const history_record &record)
{
    char head[64];
    std::snprintf(head, sizeof head, "history %u.%03u component 0x%x: ", record.when.seconds,
                  record.when.nanoseconds / 1'000'000, record.component);
    std::string text = head;
    if (record.component != COMPONENT_BUS && record.data.size() > 4 && record.data.back() == 0)
        return text + reinterpret_cast<const char *>(record.data.data() + 4);
    for (const std::uint8_t byte : record.data) {
        std::snprintf(head, sizeof head, "%02x", byte);
        text += head;
    }
    return text;
}

void dump()
{
    const std::lock_guard guard(the().mutex);
    const std::size_t size = the().ring.size();
    const std::size_t start = size == the().entries ? the().next : 0;
    for (std::size_t i = 0; i < size; ++i)
        if (const history_record &record = the().ring[(start + i) % size]; record.component != 0)
            krel_syslog(6, "%s", readable(record).c_str());
}

} // namespace

namespace corvane {

bool evhist_open(std::uint32_t entries, const char *name, std::uint32_t max_element, const char *facility)
{
    if (entries == 0 || name == nullptr || facility == nullptr)
        return false;
    const std::lock_guard guard(the().mutex);
    the().entries = entries;
    the().name = name;
    the().max_element = max_element;
    the().console = std::getenv("CORVANE_DEBUG_CONSOLE") != nullptr;
    the().facility = {facility, static_cast<std::uint8_t>(platform_settings().log_level.load())};
    evhist_dbg_modname = the().name.c_str();
    evhist_sys_facility = &the().facility;
    return true;
}

void evhist_close()
{
    const std::lock_guard guard(the().mutex);
    evhist_sys_facility = nullptr;
    the().entries = 0;
    the().next = 0;
    the().ring.clear();
}

} // namespace corvane

void evhist_hist_mbus_event(std::uint32_t kind, const mbus_msg &msg)
{
    const auto record = byte_writer().put(kind).put(mbus_opc_get(msg)).put(mbus_saddr_get(msg).sap).take();
    add(COMPONENT_BUS, record);
}

int evhist_hist_event_subtype_check(std::uint32_t component, std::uint32_t site)
{
    const std::lock_guard guard(the().mutex);
    return component != 0 && the().entries != 0 && site <= the().max_element ? 0 : -1;
}

void evhist_hist_event(std::uint32_t component, std::uint32_t length, const void *record)
{
    add(component, {static_cast<const std::uint8_t *>(record), length});
}

// The debug console is stderr, and off unless asked for: the log has every trace already.
int evhist_chk_int(std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t)
{
    return the().console ? 1 : 0;
}

int evhist_process_msg(mbus_q, const mbus_msg &msg)
{
    std::size_t length = 0;
    const std::uint8_t *payload = mbus_payload_get(msg, &length);
    byte_reader in({payload, length});
    const auto operation = in.get<std::uint32_t>();
    const auto value = in.get<std::uint32_t>();
    if (!in.done())
        return -1;
    switch (operation) {
    case EVHIST_LEVEL:
        if (value > LEVEL_MAX || evhist_sys_facility == nullptr)
            return -1;
        evhist_sys_facility->level = static_cast<std::uint8_t>(value);
        return 0;
    case EVHIST_DUMP:
        dump();
        return 0;
    case EVHIST_CLEAR: {
        const std::lock_guard guard(the().mutex);
        the().ring.clear();
        the().next = 0;
        return 0;
    }
    default:
        return -1;
    }
}

void dbgprint(std::uint32_t, const char *module, std::uint32_t, const char *format, ...)
{
    std::fprintf(stderr, "%s: ", module);
    va_list values;
    va_start(values, format);
    std::vfprintf(stderr, format, values);
    va_end(values);
}
