// Frames on their way from the rings to the packet queue.
#include "frame_source.h"

#include "authority.h"

#include "../interfaces.h"

#include "drops.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/eventfd.h>
#include <unistd.h>

namespace corvane {

namespace {

constexpr int RETRY_MS = 1000;

enum fixed_descriptor : std::size_t { WAKE, CHANGE, TUNNEL_IPV4, TUNNEL_IPV6, FIRST_PORT };

void drain(int fd)
{
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = read(fd, &count, sizeof count);
}

void put_be16(std::uint8_t *p, std::size_t value)
{
    p[0] = static_cast<std::uint8_t>(value >> 8);
    p[1] = static_cast<std::uint8_t>(value);
}

void put_message_header(const frame_ref &frame, std::uint32_t iod)
{
    std::uint8_t *start = frame.data - NET_L2_MSG_FRAME;
    put_be16(start + NET_L2_MSG_IOD, iod >> 16);
    put_be16(start + NET_L2_MSG_IOD + 2, iod & 0xFFFF);
    put_be16(start + NET_L2_MSG_LENGTH, frame.length);
}

// Counts what is not delivered.
bool is_delivered(const frame_ref &frame)
{
    if (frame.length < ETHERNET_HEADER) {
        drop_count(drop_reason::L2_TRUNCATED);
        return false;
    }
    if (is_link_local(frame.data, frame.length)) {
        drop_count(drop_reason::L2_LINK_LOCAL);
        return false;
    }
    return true;
}

// Before it is cut, a super-frame is as on the wire: its tag beside it, or in it in network order.
bool super_held_back(std::uint32_t iod, const received_frame &received)
{
    constexpr std::size_t TYPE_AT = 12;
    constexpr std::uint16_t VLAN_MASK = 0x0FFF;
    const std::uint8_t *bytes = received.frame.data;
    std::uint16_t vlan = 0;
    if (received.tag.present)
        vlan = received.tag.control & VLAN_MASK;
    else if (received.frame.length >= ETHERNET_HEADER + VLAN_TAG && bytes[TYPE_AT] == TYPE_VLAN >> 8 &&
             bytes[TYPE_AT + 1] == (TYPE_VLAN & 0xFF))
        vlan = static_cast<std::uint16_t>((bytes[TYPE_AT + 2] << 8 | bytes[TYPE_AT + 3]) & VLAN_MASK);
    return authority_holds_back(vlan != 0 ? vlan : port_vlan(iod));
}

std::uint32_t served_ifindex(const interface_table &table, std::uint32_t iod)
{
    constexpr std::uint32_t SERVED = INTERFACE_PRESENT | INTERFACE_SWITCHPORT;
    return (interface_flags(table, iod) & SERVED) == SERVED ? table.slot[iod].ifindex.load(std::memory_order_acquire) : 0;
}

struct frame_in_hand {
    frame_ref frame;
    std::uint32_t iod = 0;                   // 0: none
};
constinit thread_local frame_in_hand in_hand{};

std::uint16_t get_be16(const std::uint8_t *p)
{
    return static_cast<std::uint16_t>(p[0] << 8 | p[1]);
}

} // namespace

std::uint16_t vlan_of_frame_in_hand(std::uint32_t iod, const std::uint8_t *host)
{
    constexpr std::size_t MAC = 6, TYPE_AT = 12, SNAP_TYPE_AT = 20;
    constexpr std::uint16_t VLAN_MASK = 0x0FFF;
    const frame_ref &frame = in_hand.frame;
    if (in_hand.iod != iod || iod == 0 || std::memcmp(frame.data + MAC, host, MAC) != 0)
        return 0;
    const std::size_t at = get_be16(frame.data + TYPE_AT) <= LAST_802_3_LENGTH ? SNAP_TYPE_AT : TYPE_AT;
    if (frame.length < at + VLAN_TAG || get_be16(frame.data + at) != TYPE_VLAN)
        return 0;
    return static_cast<std::uint16_t>((frame.data[at + 3] << 8 | frame.data[at + 2]) & VLAN_MASK);
}

static_assert(NET_L2_MSG_FRAME + TAG_HEADROOM <= port_ring::HEADROOM);
static_assert(NET_L2_MSG_FRAME <= gre_input::HEADROOM);

frame_source::frame_source()
    : big_(std::make_unique_for_overwrite<std::uint8_t[]>(BIG_HEADROOM + BIG_FRAME)),
      change_fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
}

frame_source::~frame_source()
{
    in_hand = {};
    close(change_fd_);
}

void frame_source::wake() const
{
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(change_fd_, &one, sizeof one);
}

bool frame_source::open_port(std::uint32_t iod, std::uint32_t ifindex)
{
    auto made = std::make_unique<port>();
    made->iod = iod;
    if (!made->ring.open(ifindex))
        return false;
    descriptors_changed_ = true;
    ports_.push_back(std::move(made));
    return true;
}

void frame_source::close_ports(const interface_table &table)
{
    const auto gone = std::partition(ports_.begin(), ports_.end(), [&](const std::unique_ptr<port> &p) {
        return served_ifindex(table, p->iod) == p->ring.ifindex();
    });
    for (auto p = gone; p != ports_.end(); ++p)
        if ((*p).get() == super_port_) {
            super_ = {};
            super_port_ = nullptr;
        }
    ports_.erase(gone, ports_.end());
    descriptors_changed_ = true;
}

void frame_source::follow_ports()
{
    const interface_table *table = interfaces();
    if (table == nullptr)
        return;
    const std::uint32_t generation = table->generation.load(std::memory_order_acquire);
    if (table == seen_table_ && generation == seen_generation_ && !retry_ports_)
        return;
    seen_table_ = table;
    seen_generation_ = generation;
    retry_ports_ = false;
    close_ports(*table);
    for (std::uint32_t iod = 1; iod < INTERFACE_SLOTS; ++iod) {
        const std::uint32_t ifindex = served_ifindex(*table, iod);
        const bool open = std::ranges::any_of(ports_, [&](const auto &p) { return p->iod == iod; });
        if (ifindex != 0 && !open)
            retry_ports_ |= !open_port(iod, ifindex);
    }
}

// ---- a lot

void frame_source::release(message &m)
{
    m.live = false;
    if (m.slot != NO_SLOT)
        m.owner->ring.release(m.slot);
    m.slot = NO_SLOT;
}

void frame_source::finish_lot()
{
    for (std::uint32_t i = 0; i < count_; ++i)
        release(lot_[i]);
    lot_number_ += count_;
    count_ = next_ = 0;
    lot_full_ = false;
    if (super_.left() != 0)
        return;
    if (super_port_ != nullptr && super_slot_ != NO_SLOT)
        super_port_->ring.release(super_slot_);
    super_port_ = nullptr;
    super_slot_ = NO_SLOT;
    big_used_ = false;
}

bool frame_source::add_whole(port &p, received_frame &received, std::uint32_t slot)
{
    if (!finish_checksum(received.frame.data, received.frame.length, received.meta)) {
        drop_count(drop_reason::L2_BAD_OFFLOAD);
        return false;
    }
    if (!tag_to_daemon(received.frame, received.tag)) {
        drop_count(drop_reason::L2_TRUNCATED);
        return false;
    }
    if (authority_holds_back(vlan_of_frame(p.iod, received.frame.data, received.frame.length))) {
        drop_count(drop_reason::L2_NOT_AUTHORITATIVE);
        return false;
    }
    lot_[count_++] = {received.frame, p.iod, false, true, &p, slot};
    return true;
}

void frame_source::add_segments()
{
    const std::uint32_t n = std::min(super_.left(), BATCH - count_);
    for (std::uint32_t i = 0; i < n; ++i)
        lot_[count_++] = {{}, super_iod_, true, true, nullptr, NO_SLOT};
}

bool frame_source::begin_super(port &p, const received_frame &received, std::uint32_t slot)
{
    if (super_held_back(p.iod, received)) {
        drop_count(drop_reason::L2_NOT_AUTHORITATIVE);
        return false;
    }
    if (super_.begin(received.frame.data, received.frame.length, received.meta) == 0) {
        drop_count(drop_reason::L2_BAD_OFFLOAD);
        return false;
    }
    super_tag_ = received.tag;
    super_iod_ = p.iod;
    super_port_ = &p;
    super_slot_ = slot;
    add_segments();
    return true;
}

// `slot` is NO_SLOT for a frame in the big buffer.
void frame_source::add(port &p, received_frame &received, std::uint32_t slot)
{
    const bool kept = is_delivered(received.frame) &&
                      (is_super_frame(received.meta) ? begin_super(p, received, slot) : add_whole(p, received, slot));
    if (!kept && slot != NO_SLOT)
        p.ring.release(slot);
}

bool frame_source::take_big_frame(port &p, received_frame &received)
{
    if (big_used_)
        return false;
    const std::uint32_t slot = p.ring.take();
    std::uint8_t *frame = big_.get() + BIG_HEADROOM;
    if (p.ring.fetch(frame, BIG_FRAME, received.frame.length)) {
        received.frame.data = frame;
        big_used_ = true;
        add(p, received, NO_SLOT);
    } else {
        drop_count(drop_reason::L2_RING_FULL);
    }
    p.ring.release(slot);
    return true;
}

// One super-frame at a time is being cut, and one buffer holds what is too big for a slot: a frame that needs either
// while it is taken waits for the next lot, and everything behind it, so that no port's frames change their order.
bool frame_source::take_frame(port &p)
{
    received_frame received;
    switch (p.ring.peek(received)) {
    case port_ring::look::NOTHING:
        return false;
    case port_ring::look::CUT:
        p.ring.release(p.ring.take());
        drop_count(drop_reason::L2_RING_FULL);
        return true;
    case port_ring::look::IN_SOCKET:
        lot_full_ = super_.left() != 0 || !take_big_frame(p, received);
        return !lot_full_;
    case port_ring::look::FRAME:
        lot_full_ = is_super_frame(received.meta) && super_.left() != 0;
        if (!lot_full_)
            add(p, received, p.ring.take());
        return !lot_full_;
    }
    return false;
}

void frame_source::take_from(port &p)
{
    while (count_ < BATCH && !lot_full_ && take_frame(p)) {
    }
    if (p.ring.lost())
        drop_count(drop_reason::L2_RING_FULL, p.ring.take_lost());
}

void frame_source::follow_tunnel()
{
    if (overlays_use_gre() == (tunnel_ != nullptr))
        return;
    if (super_port_ == nullptr)
        super_ = {};                                           // what is left of it lies in the tunnel's memory
    tunnel_ = tunnel_ == nullptr ? std::make_unique<gre_input>() : nullptr;
    tunnel_count_ = tunnel_next_ = 0;
    descriptors_changed_ = true;
}

// One of the sockets, in turns, with a look at the other when the first had nothing.
void frame_source::fill_from_tunnel()
{
    tunnel_turn_ = !tunnel_turn_;
    const int first = tunnel_turn_ ? tunnel_->fd4() : tunnel_->fd6();
    const int second = tunnel_turn_ ? tunnel_->fd6() : tunnel_->fd4();
    tunnel_next_ = 0;
    tunnel_count_ = tunnel_->fill(first);
    if (tunnel_count_ == 0)
        tunnel_count_ = tunnel_->fill(second);
}

void frame_source::begin_tunnel_super(const frame_ref &frame, std::uint32_t iod, const offload_meta &meta)
{
    if (super_.begin(frame.data, frame.length, meta) == 0)
        return drop_count(drop_reason::L2_BAD_OFFLOAD);
    super_tag_ = {};
    super_iod_ = iod;
    super_port_ = nullptr;
    super_slot_ = NO_SLOT;
    add_segments();
}

void frame_source::take_from_tunnel()
{
    if (tunnel_next_ == tunnel_count_)
        fill_from_tunnel();
    while (tunnel_next_ != tunnel_count_ && count_ < BATCH && super_.left() == 0) {
        message m;
        offload_meta merged;
        if (!tunnel_->frame(tunnel_next_++, m.frame, m.iod, merged))
            continue;
        if (is_super_frame(merged)) {
            begin_tunnel_super(m.frame, m.iod, merged);
            continue;
        }
        m.live = true;
        lot_[count_++] = m;
    }
}

void frame_source::take_lot()
{
    finish_lot();
    follow_ports();
    follow_tunnel();
    if (super_.left() != 0)
        add_segments();
    else if (tunnel_ != nullptr)
        take_from_tunnel();
    const auto ports = static_cast<std::uint32_t>(ports_.size());
    for (std::uint32_t i = 0; i < ports && count_ < BATCH && !lot_full_; ++i)
        take_from(*ports_[(first_port_ + i) % ports]);
    first_port_ = ports == 0 ? 0 : (first_port_ + 1) % ports;
}

// ---- the queue's side

void frame_source::list_descriptors(int wake_fd)
{
    if (!descriptors_changed_ && descriptors_[WAKE].fd == wake_fd)
        return;
    descriptors_.assign(FIRST_PORT, {-1, POLLIN, 0});
    descriptors_[WAKE].fd = wake_fd;
    descriptors_[CHANGE].fd = change_fd_;
    if (tunnel_ != nullptr) {
        descriptors_[TUNNEL_IPV4].fd = tunnel_->fd4();
        descriptors_[TUNNEL_IPV6].fd = tunnel_->fd6();
    }
    for (const auto &p : ports_)
        descriptors_.push_back({p->ring.fd(), POLLIN, 0});
    descriptors_changed_ = false;
}

bool frame_source::wait(int wake_fd)
{
    list_descriptors(wake_fd);
    // A ring that could not be opened is tried again, for memory and descriptors come back without notice.
    if (poll(descriptors_.data(), descriptors_.size(), retry_ports_ ? RETRY_MS : -1) <= 0)
        return false;
    if (descriptors_[CHANGE].revents != 0)
        drain(change_fd_);
    for (std::size_t i = 0; i < ports_.size(); ++i)
        if ((descriptors_[FIRST_PORT + i].revents & (POLLERR | POLLHUP)) != 0)
            ports_[i]->ring.clear_error();
    return descriptors_[WAKE].revents != 0;
}

void frame_source::cut_segment(message &m)
{
    m.frame = super_.next();
    // A segment has whole headers, so a tag always finds its place.
    (void)tag_to_daemon(m.frame, super_tag_);
}

local_receive frame_source::receive(mbus_msg &out, int wake_fd)
{
    if (next_ == count_) {
        for (take_lot(); count_ == 0; take_lot())
            if (wait(wake_fd))
                return local_receive::WOKEN;
        plock_batch_begin(count_ - 1);
    }
    message &m = lot_[next_];
    if (m.segment)
        cut_segment(m);
    put_message_header(m.frame, m.iod);
    in_hand = {m.frame, m.iod};
    const std::uint64_t number = lot_number_ + next_++;
    out = {{0, static_cast<std::uint32_t>(number), static_cast<std::uint32_t>(number >> 32), 0, NET_L2_OPC_FRAME}};
    return local_receive::MESSAGE;
}

frame_source::message *frame_source::find(const mbus_msg &msg)
{
    const std::uint64_t number = msg.word[1] | std::uint64_t{msg.word[2]} << 32;
    if (number < lot_number_ || number >= lot_number_ + next_)
        return nullptr;
    message &m = lot_[number - lot_number_];
    return m.live ? &m : nullptr;
}

std::uint8_t *frame_source::payload(const mbus_msg &msg, std::size_t *length)
{
    const message *m = find(msg);
    if (m == nullptr)
        return nullptr;
    if (length != nullptr)
        *length = NET_L2_MSG_FRAME + m->frame.length;
    return m->frame.data - NET_L2_MSG_FRAME;
}

int frame_source::drop(const mbus_msg &msg)
{
    const std::uint64_t number = msg.word[1] | std::uint64_t{msg.word[2]} << 32;
    if (number == 0 || number >= lot_number_ + next_) {
        errno = EINVAL;
        return -1;
    }
    if (message *m = find(msg))
        release(*m);
    in_hand = {};
    return 0;
}

} // namespace corvane
