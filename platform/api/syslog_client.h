// Log: catalogued messages with a level per facility and a rate limit, plain lines, the formatting block.
#pragma once

#include "thread_annotations.h"

#include <array>
#include <cstdint>

struct syslog_facility_record {
    const char *name;            // upper case
    std::uint32_t zero;
};

// Short record of a catalogued message.
struct syslog_msg_short {
    const char *tag;
    std::uint32_t zero;
    const char *prefixed_format; // "<<%%%s-%d-TAG>> ..." : facility name, severity, then the message's own values
    std::uint32_t severity;
};

// Record of a message that a library raises on behalf of a process.
struct syslog_msg_library {
    const char *tag;
    const char *library;
    const char *prefixed_format;
    const char *prefixed_format_pid;
    std::uint32_t severity;
};

struct syslog_msg_full {
    const syslog_facility_record *facility;
    const char *tag;
    const char *format;
    std::uint32_t zero0;
    std::uint32_t ten;           // 10 in every record: messages of one kind that may pass in a rate interval
    std::uint32_t zero1[3];
    std::uint32_t severity;      // byte 0: severity; byte 1 bit 0: with a traceback
    const syslog_msg_short *brief;
    const syslog_msg_library *library;
};
inline constexpr std::uint32_t SYSLOG_TRACEBACK = 1u << 8;

// Parameter block of a formatted message: 1024 bytes, words in host order.
struct syslog_vmsg_params_block {
    alignas(8) std::array<std::uint8_t, 1024> bytes{};
};
extern syslog_vmsg_params_block syslog_vmsg_params;
extern const std::array<std::uint8_t, 40> syslog_preamble;

// 1: the message may pass; 0: it is being rate-limited. Where no facility is set up yet (evhist_sys_facility is null)
// it prints the message by itself and returns 0. The values are those of the record's format. Messages are limited
// per record and, where the format takes an opcode or a name, not per value.
int syslog_msg_rate_limit(const syslog_msg_full *record, ...);
void vemo_krel_syslog(const syslog_vmsg_params_block &params, std::uint32_t severity, const char *prefixed_format, ...);
void syslog_traceback(const syslog_vmsg_params_block &params, const char *facility, std::uint32_t severity,
                      const char *tag);
void krel_syslog(int level, const char *format, ...) CORVANE_PRINTF(2, 3);
