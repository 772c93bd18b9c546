// The data plane: frame input, filters, learning, forwarding, encapsulation, output. Every function runs under the
// process lock, on the packet thread for site frames and on a receive thread for core frames. A frame is a pointer to
// its destination MAC and a length in bytes; nothing here keeps it beyond the call.
#pragma once

#include "lum_msgs.h"
#include "lum_private.h"

struct lum_frame {
    std::uint8_t *data;
    std::uint32_t length;
};
inline constexpr std::uint32_t LUM_PACKET_BUFFER_SIZE = 1518;
extern std::array<std::uint8_t, LUM_PACKET_BUFFER_SIZE> lum_packet_buffer;   // one rewritten frame at a time

// ---- lum_packet: packet thread and input
void *lum_pm_main(void *);
void lum_process_pm_msg(std::uint8_t *payload, std::size_t size) LUM_LOCKED;
void lum_input(std::uint8_t *frame, std::uint32_t length, std::uint32_t iod) LUM_LOCKED;    // iod 0: from the core
int lum_is_link_local_multicast(const lum_frame &frame);
lum_port *lum_on_iod(std::uint32_t iod) LUM_LOCKED;
// Whether a frame between these two passes the packet trace filters; asked under the packet debug flag only.
bool lum_packet_trace_wanted(const lum_mac_info &source, const lum_mac_info &destination);
// Runs what follows when a frame between these two is to be traced; nothing is formatted for any other frame.
#define LUM_IF_FRAME_TRACED(source, destination) \
    if (__builtin_expect(lum_packet_debug_flag != 0, 0) && lum_packet_trace_wanted(source, destination))

// ---- lum_packet_filter: 1 = must not go into the core
int lum_filter(const lum_frame &frame, const lum_mac_info &source, const lum_mac_info &destination) LUM_LOCKED;

// ---- lum_packet_learn
inline constexpr std::uint32_t LUM_LEARN_RECORDS = 1000;
inline constexpr std::size_t LUM_LEARN_HEADER = 68, LUM_LEARN_RECORD = 52;
extern std::array<std::uint8_t, LUM_LEARN_HEADER + LUM_LEARN_RECORDS * LUM_LEARN_RECORD> lum_rtab_buffer;
static_assert(sizeof(lum_rtab_buffer) == 52068);
extern std::uint32_t lum_rtab_buffer_count;
void lum_learn(const lum_mac_info &source, std::uint32_t iod) LUM_LOCKED;
// 1: *record is the matching record; 0: it is the first free slot (null when the buffer is full).
int lum_find_route_in_learn_buffer(const lum_mac_info &info, std::uint8_t **record) LUM_LOCKED;
// Takes the first free slot for a record of that key and counts it; the caller fills the rest. The buffer must not be
// full and must not hold the key.
std::uint8_t *lum_append_to_learn_buffer(const lum_mac_info &info) LUM_LOCKED;
void lum_clear_learn_buffer() LUM_LOCKED;
// Fields of a record behind its key, host byte order.
inline constexpr std::size_t LUM_LEARN_MARKER = 12, LUM_LEARN_HAS_NEXT_HOP = 13, LUM_LEARN_CODE = 16,
                             LUM_LEARN_LENGTH = 20, LUM_LEARN_KIND = 24, LUM_LEARN_IOD = 28;
inline constexpr std::uint16_t LUM_LEARN_DELETION_LENGTH = 24;       // a record without next hop

// ---- lum_packet_forward
// `iod` is where the frame arrived: no copy goes back there.
void lum_forward(const lum_frame &frame, const lum_mac_info &source, const lum_mac_info &destination,
                 std::uint32_t iod) LUM_LOCKED;
void lum_mforward(const lum_frame &frame, const lum_mac_info &source, const lum_mac_info &destination,
                  std::uint32_t iod) LUM_LOCKED;
void lum_bforward(const lum_frame &frame, const lum_mac_info &source, const lum_mac_info &destination,
                  std::uint32_t iod) LUM_LOCKED;

// ---- lum_packet_encap: encapsulation, decapsulation, output, tags
extern std::array<std::uint8_t, 32> lum_ip_encap;
extern std::array<std::uint8_t, 52> lum_ipv6_encap;
extern std::array<std::uint8_t, 28> lum_ip_e8_encap;
extern std::array<std::uint8_t, 48> lum_ipv6_e8_encap;
void lum_init_encap_headers();
std::uint16_t lum_mac_hash(const std::uint8_t *frame);
void lum_encapsulate(const lum_frame &frame, const lum_mac_info &source, const lum_mac_info &destination,
                     const lum_addr &address, lum_overlay &overlay) LUM_LOCKED;
int lum_build_core_group_address(const lum_overlay &overlay, const lum_mac_info &destination, lum_addr &address);
void lum_mencapsulate(const lum_frame &frame, const lum_mac_info &source, const lum_mac_info &destination,
                      lum_overlay &overlay) LUM_LOCKED;
int lum_output(const lum_frame &frame, std::uint32_t iod, const lum_mac_info &source, const lum_mac_info &destination,
               std::uint32_t flood, const lum_addr *next_hop) LUM_LOCKED;
int lum_send(const std::uint8_t *payload, std::uint32_t length, const std::uint8_t *source_mac,
             const std::uint8_t *destination_mac, std::uint16_t ethertype, std::uint32_t iod) LUM_LOCKED;
// Rewrite into lum_packet_buffer; the frame argument then designates the result. Tagging returns the position of the
// tag control field, null when the tagged frame would not fit the buffer.
std::uint8_t *lum_tag_ethernet_frame(lum_frame &frame, std::uint32_t iod) LUM_LOCKED;
std::uint8_t *lum_tag_snap_frame(lum_frame &frame, std::uint32_t iod) LUM_LOCKED;
bool lum_untag_frame(lum_frame &frame) LUM_LOCKED;              // false: too short or too long
void lum_ip_decapsulate(std::uint8_t *packet, std::uint32_t length) LUM_LOCKED;
void lum_ipv6_decapsulate(std::uint8_t *packet, std::uint32_t length) LUM_LOCKED;

// ---- lum_packet_arp_nd: suppression and anycast filtering. `tag` is the tag control field within the frame.
int lum_suppress_arp_nd(std::uint32_t iod, const lum_mac_info &source, const lum_mac_info &destination,
                        const lum_frame &frame, const std::uint8_t *tag, lum_overlay *overlay) LUM_LOCKED;
int lum_filter_arp_nd(const lum_mac_info &source, const lum_mac_info &destination, const lum_frame &frame,
                      const std::uint8_t *tag) LUM_LOCKED;
int lum_send_arp_reply(lum_overlay &overlay, const lum_mac_info &requester, std::uint32_t iod,
                       std::uint32_t requester_ip, std::uint32_t target_ip) LUM_LOCKED;
int lum_send_nd_reply(lum_overlay &overlay, const lum_mac_info &requester, std::uint32_t iod,
                      const ipv6_address &requester_ip, const ipv6_address &target_ip) LUM_LOCKED;
