// Event history: a ring of typed records in memory, and the facility handle of the log.
#pragma once

#include "mbus.h"
#include "thread_annotations.h"

#include <cstdint>

struct evhist_facility {
    const char *name;            // as it was registered; printed in upper case
    std::uint8_t level;          // messages of a severity number above it are not logged
};
extern evhist_facility *evhist_sys_facility;      // null until hakit_evhist_init has succeeded
extern const char *evhist_dbg_modname;

void evhist_hist_mbus_event(std::uint32_t kind, const mbus_msg &msg);
// 0 when records of this component and site are kept.
[[nodiscard]] int evhist_hist_event_subtype_check(std::uint32_t component, std::uint32_t site);
void evhist_hist_event(std::uint32_t component, std::uint32_t length, const void *record);
[[nodiscard]] int evhist_chk_int(std::uint32_t site, std::uint32_t a, std::uint32_t b, std::uint32_t c);
[[nodiscard]] int evhist_process_msg(mbus_q queue, const mbus_msg &msg);       // 0 when it was taken
void dbgprint(std::uint32_t level, const char *module, std::uint32_t flags, const char *format, ...)
    CORVANE_PRINTF(4, 5);
