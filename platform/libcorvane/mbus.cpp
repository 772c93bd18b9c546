// Message bus client: queues of this process, the messages that wait on them, and the way they are bound again after
// corvaned came back.
#include "mbus.h"

#include "client.h"
#include "runtime/connection.h"
#include "mbus_local.h"
#include "mbus_observe.h"
#include "service_retry.h"
#include "plock_batch.h"

#include "../wire/bus.h"

#include "drops.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <utility>

namespace {

using namespace corvane;

constexpr int BIND_TRIES = 50, BIND_WAIT_MS = 20;
constexpr std::uint32_t INDEX_BITS = 4, INDEX_MASK = (1u << INDEX_BITS) - 1;
static_assert(1u << INDEX_BITS == BUS_QUEUES_MAX);

// A slot holds one message at a time; the generation tells the messages that used it apart.
struct slot {
    std::uint64_t generation = 0;
    bool used = false;
    delivery_header header;
    std::vector<std::uint8_t> payload;
};

struct queue {
    std::atomic<mbus_q> handle{MBUS_Q_INVALID};           // MBUS_Q_INVALID: not bound
    std::atomic<std::uint32_t> waiting{0};
    std::atomic<bool> pre_unbind{false};
    std::atomic<mbus_local_source *> source{nullptr};
    std::atomic<bool> inside_source{false};
    int wake_fd = -1;                                     // made with the queue, kept for its next use

    std::mutex mutex;
    std::condition_variable arrived;
    std::deque<std::uint32_t> ready;                      // slots in the order of arrival
    std::deque<slot> slots;
    std::vector<std::uint32_t> free_slots;
    std::uint32_t consumed = 0;                           // received, corvaned does not know it yet
    std::atomic<std::uint32_t> uses{0};
    std::uint32_t sap = 0;
    mbus_q_attr attr;
    std::string name;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> options;
};

struct queue_table {
    std::mutex mutex;                                     // binding and unbinding
    std::array<queue, BUS_QUEUES_MAX> queues;
    bool started = false;
};

queue_table &the()
{
    static auto *table = new queue_table;
    return *table;
}

queue &at(mbus_q handle)
{
    return the().queues[handle & INDEX_MASK];
}

// Null: not bound (any more).
queue *find(mbus_q handle)
{
    queue &q = at(handle);
    return handle != MBUS_Q_INVALID && q.handle.load(std::memory_order_acquire) == handle ? &q : nullptr;
}

int fail(int error)
{
    errno = error;
    return -1;
}

// ---- slots; the queue's mutex is held

std::uint32_t take_slot(queue &q)
{
    if (q.free_slots.empty()) {
        q.slots.emplace_back();
        q.free_slots.push_back(static_cast<std::uint32_t>(q.slots.size() - 1));
    }
    const std::uint32_t index = q.free_slots.back();
    q.free_slots.pop_back();
    slot &s = q.slots[index];
    s.used = true;
    ++s.generation;
    return index;
}

void release_slot(queue &q, std::uint32_t index)
{
    slot &s = q.slots[index];
    s.used = false;
    s.payload = {};
    q.free_slots.push_back(index);
}

slot *slot_of(queue &q, const mbus_msg &msg)
{
    if (msg.word[1] >= q.slots.size())
        return nullptr;
    slot &s = q.slots[msg.word[1]];
    const std::uint64_t generation = msg.word[2] | std::uint64_t{msg.word[3]} << 32;
    return s.used && s.generation == generation ? &s : nullptr;
}

// word[0] of a handle: the queue's index plus one, so that no handle is all zero.
queue *queue_of(const mbus_msg &msg)
{
    const std::uint32_t index = (msg.word[0] & ~MBUS_LOCAL_MARK) - 1;
    return index < BUS_QUEUES_MAX ? &the().queues[index] : nullptr;
}

bool is_local(const mbus_msg &msg)
{
    return (msg.word[0] & MBUS_LOCAL_MARK) != 0;
}

std::uint32_t index_word(const queue &q)
{
    return static_cast<std::uint32_t>(&q - the().queues.data()) + 1;
}

mbus_msg handle_of(const queue &q, std::uint32_t index)
{
    const slot &s = q.slots[index];
    return {{index_word(q), index, static_cast<std::uint32_t>(s.generation),
             static_cast<std::uint32_t>(s.generation >> 32), s.header.opcode}};
}

// ---- from corvaned, on the connection's thread

void wake(const queue &q)
{
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(q.wake_fd, &one, sizeof one);
}

void deliver(std::uint32_t handle, byte_view data)
{
    queue *q = find(handle);
    delivery_header header;
    if (q == nullptr)
        return;
    if (data.size() < sizeof header) {
        drop_count(drop_reason::BUS_MALFORMED);
        return;
    }
    std::memcpy(&header, data.data(), sizeof header);
    const byte_view payload = data.subspan(sizeof header);
    {
        const std::lock_guard guard(q->mutex);
        const std::uint32_t index = take_slot(*q);
        slot &s = q->slots[index];
        s.header = header;
        s.payload.assign(payload.begin(), payload.end());
        q->ready.push_back(index);
        q->waiting.store(static_cast<std::uint32_t>(q->ready.size()));
    }
    q->arrived.notify_one();
    if (q->source.load() != nullptr)
        wake(*q);
}

reply bind_at_corvaned(const queue &q, std::uint32_t waiting)
{
    return call(BUS_BIND, byte_writer()
                              .put(q.handle.load())
                              .put(q.sap)
                              .put(q.attr.depth)
                              .put(waiting)
                              .put(q.attr.service)
                              .text(q.name)
                              .view());
}

void bind_again(queue &q)
{
    std::uint32_t waiting = 0;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> options;
    {
        const std::lock_guard guard(q.mutex);
        q.consumed = 0;
        waiting = static_cast<std::uint32_t>(q.ready.size());
        options = q.options;
    }
    if (bind_at_corvaned(q, waiting).error != 0)
        return;
    for (const auto &[opcode, option] : options)
        (void)call(BUS_OPTION, byte_writer().put(q.handle.load()).put(opcode).put(option).view());
}

void bind_all_again()
{
    for (queue &q : the().queues)
        if (q.handle.load() != MBUS_Q_INVALID)
            bind_again(q);
}

void start_once()
{
    if (std::exchange(the().started, true))
        return;
    on_deliver(deliver);
    on_connected_at(connect_stage::BUS, bind_all_again);
}

// ---- receiving

// Every message received makes room for another; corvaned is told now and then, and when nothing is left.
std::uint32_t take_consumed(queue &q)
{
    ++q.consumed;
    const std::uint32_t enough = std::max(1u, q.attr.depth / 16);
    return q.ready.empty() || q.consumed >= enough ? std::exchange(q.consumed, 0) : 0;
}

struct message_observer {
    std::atomic<void (*)(const mbus_msg &)> call{nullptr};
    std::atomic<std::uint32_t> first_opcode{0}, last_opcode{0};
};
message_observer &observer()
{
    static message_observer instance;
    return instance;
}

void show_observer(const mbus_msg &msg)
{
    const auto call = observer().call.load(std::memory_order_acquire);
    const std::uint32_t opcode = call == nullptr ? 0 : mbus_opc_get(msg);
    if (call != nullptr && opcode >= observer().first_opcode && opcode <= observer().last_opcode)
        call(msg);
}

bool pop(queue &q, mbus_msg &msg)
{
    std::uint32_t consumed = 0;
    {
        const std::lock_guard guard(q.mutex);
        if (q.ready.empty())
            return false;
        msg = handle_of(q, q.ready.front());
        q.ready.pop_front();
        q.waiting.store(static_cast<std::uint32_t>(q.ready.size()));
        consumed = take_consumed(q);
    }
    if (consumed != 0)
        (void)send_oneway(BUS_CONSUMED, byte_writer().put(q.handle.load()).put(consumed).view(), true);
    show_observer(msg);
    return true;
}

void drain(int fd)
{
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = read(fd, &count, sizeof count);
}

local_receive receive_local(queue &q, mbus_local_source &source, mbus_msg &msg)
{
    const local_receive result = source.receive(msg, q.wake_fd);
    if (result == local_receive::MESSAGE)
        msg.word[0] = MBUS_LOCAL_MARK | index_word(q);
    else if (result == local_receive::WOKEN)
        drain(q.wake_fd);
    return result;
}

// Detaching waits for the flag, so it is raised before the source is looked at. Inside a batch the process lock is
// held, which detaching needs as well: no flag then.
local_receive receive_from_source(queue &q, mbus_msg &msg)
{
    const bool flag = !plock_batch_kept();
    if (flag)
        q.inside_source.store(true);
    mbus_local_source *source = q.source.load();
    const local_receive result = source == nullptr ? local_receive::WOKEN : receive_local(q, *source, msg);
    if (flag) {
        q.inside_source.store(false);
        q.inside_source.notify_all();
    }
    return result;
}

void await_message(queue &q, mbus_q handle)
{
    std::unique_lock lock(q.mutex);
    q.arrived.wait(lock, [&] {
        return !q.ready.empty() || q.pre_unbind.load() || q.handle.load() != handle || q.source.load() != nullptr;
    });
}

void wake_receivers(queue &q)
{
    {
        const std::lock_guard guard(q.mutex);      // a receiver between its look and its wait must not miss it
    }
    q.arrived.notify_all();
    wake(q);
}

std::vector<std::uint8_t> joined(const mbus_send_options &options)
{
    std::vector<std::uint8_t> bytes;
    for (std::uint32_t i = 0; i < options.segment_count; ++i) {
        const auto *data = static_cast<const std::uint8_t *>(options.segments[i].data);
        bytes.insert(bytes.end(), data, data + options.segments[i].length);
    }
    return bytes;
}

queue *free_queue()
{
    for (queue &q : the().queues)
        if (q.handle.load() == MBUS_Q_INVALID)
            return &q;
    return nullptr;
}

// A binding whose answer is lost with its connection is made again with the next one, as those of all queues are.
reply bind_surely(const queue &q)
{
    reply answer = bind_at_corvaned(q, 0);
    for (int tries = 0; answer.error == ENOTCONN && tries < BIND_TRIES; ++tries) {
        poll(nullptr, 0, BIND_WAIT_MS);
        if (connection_ensure())
            answer = bind_at_corvaned(q, 0);
    }
    return answer;
}

// The queue's number in this process: never the same one twice in a row for one place in the table.
mbus_q next_handle(queue &q)
{
    const auto index = static_cast<std::uint32_t>(&q - the().queues.data());
    return (++q.uses & 0x0FFFFFu) << INDEX_BITS | index;
}

mbus_q bind(std::uint32_t sap, const mbus_q_attr &attr, const char *name)
{
    if (!connection_ensure()) {
        errno = ENOTCONN;
        return MBUS_Q_INVALID;
    }
    const std::lock_guard guard(the().mutex);
    queue *q = free_queue();
    if (q == nullptr) {
        errno = EMFILE;
        return MBUS_Q_INVALID;
    }
    if (q->wake_fd < 0)
        q->wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (q->wake_fd < 0)
        return MBUS_Q_INVALID;
    q->sap = sap;
    q->attr = attr;
    if (q->attr.service == 0)
        q->attr.service = connection_service();
    q->name = std::string(name).substr(0, BUS_NAME_MAX);
    q->options.clear();
    q->consumed = 0;
    q->pre_unbind = false;
    q->handle = next_handle(*q);
    const reply answer = bind_surely(*q);
    byte_reader in(answer.data);
    const auto bound = in.get<std::uint32_t>();
    if (answer.error != 0 || !in.done()) {
        q->handle = MBUS_Q_INVALID;
        errno = answer.error != 0 ? answer.error : EPROTO;
        return MBUS_Q_INVALID;
    }
    q->sap = bound;
    return q->handle;
}

} // namespace

namespace corvane {

bool mbus_local_attach(mbus_q handle, mbus_local_source *source)
{
    queue *q = find(handle);
    mbus_local_source *none = nullptr;
    if (q == nullptr || source == nullptr || !q->source.compare_exchange_strong(none, source))
        return false;
    wake_receivers(*q);
    return true;
}

void mbus_local_detach(mbus_q handle)
{
    queue &q = at(handle);
    q.source.store(nullptr);
    wake(q);
    while (q.inside_source.load())
        q.inside_source.wait(true);
}

} // namespace corvane

mbus_q mbus_bind(std::uint32_t version, std::uint32_t sap, const mbus_q_attr &attr, const char *name)
{
    if (version != 1 || attr.version != 1 || attr.depth == 0 || attr.depth > BUS_DEPTH_MAX || name == nullptr) {
        errno = EINVAL;
        return MBUS_Q_INVALID;
    }
    {
        const std::lock_guard guard(the().mutex);
        start_once();
    }
    const mbus_q bound = bind(sap, attr, name);
    if (bound == MBUS_Q_INVALID)
        part_failed();
    return bound;
}

int mbus_unbind(mbus_q handle, std::uint32_t)
{
    const std::lock_guard table(the().mutex);
    queue *q = find(handle);
    if (q == nullptr)
        return fail(EINVAL);
    (void)call(BUS_UNBIND, byte_writer().put(handle).view());
    {
        const std::lock_guard guard(q->mutex);
        q->handle = MBUS_Q_INVALID;
        q->ready.clear();
        q->waiting = 0;
        for (std::uint32_t i = 0; i < q->slots.size(); ++i)
            if (q->slots[i].used)
                release_slot(*q, i);
    }
    wake_receivers(*q);
    return 0;
}

int mbus_options_set(mbus_q handle, std::uint32_t opcode, std::uint32_t option)
{
    queue *q = find(handle);
    if (q == nullptr)
        return fail(EINVAL);
    const reply answer = call(BUS_OPTION, byte_writer().put(handle).put(opcode).put(option).view());
    if (answer.error != 0)
        return fail(answer.error);
    const std::lock_guard guard(q->mutex);
    if (std::ranges::find(q->options, std::pair(opcode, option)) == q->options.end())
        q->options.emplace_back(opcode, option);
    return 0;
}

void corvane::mbus_observe(std::uint32_t first_opcode, std::uint32_t last_opcode, void (*call)(const mbus_msg &msg))
{
    observer().first_opcode = first_opcode;
    observer().last_opcode = last_opcode;
    observer().call.store(call, std::memory_order_release);
}

int mbus_recv(mbus_q handle, mbus_msg &msg)
{
    for (;;) {
        queue *q = find(handle);
        if (q == nullptr)
            return fail(mbus_is_pre_unbind(handle) ? EPIPE : EINVAL);
        if (q->waiting.load(std::memory_order_acquire) != 0 && pop(*q, msg))
            return 0;
        if (q->pre_unbind.load(std::memory_order_acquire))
            return fail(EPIPE);
        if (q->source.load(std::memory_order_acquire) == nullptr) {
            await_message(*q, handle);
            continue;
        }
        const local_receive result = receive_from_source(*q, msg);
        if (result == local_receive::MESSAGE)
            return 0;
        if (result == local_receive::FAILED && errno != EINTR)
            return -1;
    }
}

int mbus_drop(mbus_q handle, mbus_msg &msg)
{
    if (msg == mbus_msg{})
        return 0;
    queue *q = queue_of(msg);
    if (q == nullptr || (q != &at(handle) && handle != MBUS_Q_INVALID))
        return fail(EINVAL);
    if (is_local(msg)) {
        mbus_local_source *source = q->source.load(std::memory_order_acquire);
        const int result = source == nullptr ? 0 : source->drop(msg);
        if (result == 0)
            msg = {};
        return result;
    }
    const std::lock_guard guard(q->mutex);
    if (msg.word[1] >= q->slots.size())
        return fail(EINVAL);
    if (slot_of(*q, msg) != nullptr)
        release_slot(*q, msg.word[1]);
    msg = {};
    return 0;
}

std::uint32_t mbus_opc_get(const mbus_msg &msg)
{
    return msg.word[MBUS_LOCAL_OPCODE_WORD];
}

namespace {

delivery_header header_of(const mbus_msg &msg)
{
    queue *q = is_local(msg) ? nullptr : queue_of(msg);
    if (q == nullptr)
        return {};
    const std::lock_guard guard(q->mutex);
    const slot *s = slot_of(*q, msg);
    return s == nullptr ? delivery_header{} : s->header;
}

} // namespace

mbus_addr mbus_saddr_get(const mbus_msg &msg)
{
    const delivery_header header = header_of(msg);
    return {header.source_node, header.source_sap};
}

std::uint32_t mbus_sync_event_get(const mbus_msg &msg)
{
    return header_of(msg).sync_event;
}

std::uint8_t *mbus_payload_get(const mbus_msg &msg, std::size_t *length)
{
    if (length != nullptr)
        *length = 0;
    queue *q = queue_of(msg);
    if (q == nullptr)
        return nullptr;
    if (is_local(msg)) {
        mbus_local_source *source = q->source.load(std::memory_order_acquire);
        return source == nullptr ? nullptr : source->payload(msg, length);
    }
    const std::lock_guard guard(q->mutex);
    slot *s = slot_of(*q, msg);
    if (s == nullptr || s->payload.empty())
        return nullptr;
    if (length != nullptr)
        *length = s->payload.size();
    return s->payload.data();
}

int mbus_send(mbus_q from, const mbus_addr &to, std::uint32_t opcode, const void *payload, std::size_t length,
              const mbus_send_options &options)
{
    const queue *q = find(from);
    if (q == nullptr || options.version != 1 || (payload == nullptr && length != 0) ||
        (options.segments == nullptr && options.segment_count != 0))
        return fail(EINVAL);
    std::vector<std::uint8_t> pieces;
    byte_view body(static_cast<const std::uint8_t *>(payload), length);
    if (options.segment_count != 0) {
        pieces = joined(options);
        body = pieces;
    }
    if (body.size() > BUS_PAYLOAD_MAX)
        return fail(EMSGSIZE);
    const auto head = byte_writer()
                          .put(from)
                          .put(to.node)
                          .put(to.sap)
                          .put(opcode)
                          .put(options.sync_event)
                          .put(std::uint32_t{options.want_ack})
                          .take();
    // Nobody in particular could refuse a notification: no answer is waited for.
    const int error = to.node == MBUS_NOTIFY_DESTINATION ? send_oneway_pieces(BUS_SEND, {head, body}, true)
                                                         : call_pieces(BUS_SEND, {head, body}).error;
    return error == 0 ? 0 : fail(error);
}

int mbus_pre_unbind(mbus_q handle)
{
    queue *q = find(handle);
    if (q == nullptr)
        return fail(EINVAL);
    q->pre_unbind = true;
    wake_receivers(*q);
    return 0;
}

bool mbus_is_pre_unbind(mbus_q handle)
{
    if (handle == MBUS_Q_INVALID)
        return false;
    const queue &q = at(handle);
    if (q.handle.load() == handle)
        return q.pre_unbind;
    // A queue that was unbound meanwhile: whoever still waits on it is to leave.
    const std::uint32_t use = handle >> INDEX_BITS;
    return use != 0 && use <= q.uses;
}
