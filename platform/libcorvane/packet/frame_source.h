// What the packet queue receives: frames of all switchports, finished and in the daemon's form, in lots of up to 64
// taken from the rings at once.
#pragma once

#include "../mbus_local.h"
#include "../plock_batch.h"
#include "gre.h"
#include "port_ring.h"

#include "net_l2.h"

#include <array>
#include <atomic>
#include <memory>
#include <poll.h>
#include <vector>

namespace corvane {

struct interface_table;

// VLAN of the frame that this thread has received and not yet dropped, if that came from `host` on this interface with
// a tag; 0 otherwise. A reply that the daemon builds itself names no VLAN, but belongs to the one that asked.
[[nodiscard]] std::uint16_t vlan_of_frame_in_hand(std::uint32_t iod, const std::uint8_t *host);

// Used by the one thread that receives from the queue; wake() and the opening before the first receive excepted.
class frame_source final : public mbus_local_source {
public:
    frame_source();
    ~frame_source();
    [[nodiscard]] bool ready() const { return change_fd_ >= 0; }

    // A message is good until its drop, and no longer than until the lot after it is taken.
    local_receive receive(mbus_msg &out, int wake_fd) override;
    std::uint8_t *payload(const mbus_msg &msg, std::size_t *length) override;
    int drop(const mbus_msg &msg) override;

    // Opens and closes rings after the interface table.
    void follow_ports();
    // Any thread: a waiting receive looks at the interface table again.
    void wake() const;

private:
    static constexpr std::uint32_t BATCH = PLOCK_BATCH_MAX;
    static constexpr std::size_t BIG_FRAME = 68 * 1024, BIG_HEADROOM = 128;
    static constexpr std::uint32_t NO_SLOT = ~std::uint32_t{0};

    struct port {
        std::uint32_t iod = 0;
        port_ring ring;
    };
    struct message {
        frame_ref frame;                     // of a segment: set when it is handed out
        std::uint32_t iod = 0;
        bool segment = false, live = false;
        port *owner = nullptr;               // of `slot`
        std::uint32_t slot = NO_SLOT;
    };

    void take_lot();
    void take_from(port &p);
    void take_from_tunnel();
    void fill_from_tunnel();
    void begin_tunnel_super(const frame_ref &frame, std::uint32_t iod, const offload_meta &meta);
    void follow_tunnel();
    [[nodiscard]] bool take_frame(port &p);
    [[nodiscard]] bool take_big_frame(port &p, received_frame &received);
    void add(port &p, received_frame &received, std::uint32_t slot);
    [[nodiscard]] bool add_whole(port &p, received_frame &received, std::uint32_t slot);
    [[nodiscard]] bool begin_super(port &p, const received_frame &received, std::uint32_t slot);
    void add_segments();
    void release(message &m);
    void finish_lot();
    void cut_segment(message &m);
    [[nodiscard]] bool wait(int wake_fd);
    void list_descriptors(int wake_fd);
    [[nodiscard]] message *find(const mbus_msg &msg);
    [[nodiscard]] bool open_port(std::uint32_t iod, std::uint32_t ifindex);
    void close_ports(const interface_table &table);

    std::vector<std::unique_ptr<port>> ports_;
    std::uint32_t first_port_ = 0;           // turns, so that no port starves the others
    std::uint32_t seen_generation_ = 0;
    const interface_table *seen_table_ = nullptr;
    bool retry_ports_ = false;

    std::array<message, BATCH> lot_{};
    std::uint32_t count_ = 0, next_ = 0;
    std::uint64_t lot_number_ = 1;           // of the lot's first message; numbers never repeat
    bool lot_full_ = false;

    super_frame super_;
    tag_metadata super_tag_;
    std::uint32_t super_iod_ = 0, super_slot_ = NO_SLOT;
    port *super_port_ = nullptr;
    std::unique_ptr<std::uint8_t[]> big_;
    bool big_used_ = false;                  // by a frame of the present lot, or by segments that are left

    std::unique_ptr<gre_input> tunnel_;      // while an overlay is in GRE format
    bool tunnel_turn_ = false;               // which of its two sockets is asked first
    std::size_t tunnel_count_ = 0, tunnel_next_ = 0;           // of what was taken from it at once

    // What a wait polls: wake, change, tunnel (two, -1 without one), then the ports in their order. Polled and not kept
    // in an epoll set: that would cost every frame a callback, also while nobody waits.
    std::vector<pollfd> descriptors_;
    bool descriptors_changed_ = true;
    int change_fd_ = -1;
};

} // namespace corvane
