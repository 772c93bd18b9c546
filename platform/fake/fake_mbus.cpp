// Message bus: queues in memory. A receive never waits: an empty queue ends the loop that reads it.
#include "fake_state.h"

#include "../wire/bus.h"

#include <algorithm>
#include <stdexcept>

namespace fake {

namespace {

constexpr std::uint32_t HANDLE_MARK = 0x4D534721;

std::uint64_t id_of(const mbus_msg &msg)
{
    return msg.word[0] == HANDLE_MARK ? std::uint64_t{msg.word[1]} << 32 | msg.word[2] : 0;
}

const held_message *find(const mbus_msg &msg)
{
    const auto &messages = platform.impl().messages;
    const auto found = messages.find(id_of(msg));
    return found == messages.end() ? nullptr : &found->second;
}

bus_queue *queue(mbus_q q)
{
    auto &queues = platform.impl().queues;
    const auto found = queues.find(q);
    return found == queues.end() ? nullptr : &found->second;
}

int failed(int error)
{
    errno = error;
    return -1;
}

int enqueue(mbus_q q, held_message message)
{
    state &s = platform.impl();
    bus_queue &to = s.queues.at(q);
    if (to.waiting.size() >= to.attr.depth)
        return failed(EAGAIN);
    message.queue = q;
    s.messages[++s.last_message] = std::move(message);
    to.waiting.push_back(s.last_message);
    return 0;
}

bool subscribed(const bus_queue &q, std::uint32_t opcode)
{
    const auto found = q.options.find(opcode);
    return found != q.options.end() && found->second != 3;
}

// Each subscriber gets its own; one whose queue is full misses it, the others do not suffer.
int notify(const held_message &message)
{
    state &s = platform.impl();
    for (const auto &[q, to] : s.queues)
        if (subscribed(to, message.opcode))
            (void)enqueue(q, message);
    for (const auto &[q, to] : s.queues)
        if (const auto option = to.options.find(message.opcode); option != to.options.end() && option->second == 3)
            s.kept[message.opcode] = message;
    return 0;
}

int send_to_sap(std::uint32_t sap, held_message message)
{
    const mbus_q q = platform.queue_of(sap);
    if (q != MBUS_Q_INVALID)
        return enqueue(q, std::move(message));
    return platform.accept_all_saps || platform.known_saps.contains(sap) ? 0 : failed(ENOENT);
}

bytes payload_of(const void *payload, std::size_t length, const mbus_send_options &options)
{
    bytes joined;
    for (std::uint32_t i = 0; i < options.segment_count; ++i)
        joined.add({static_cast<const std::uint8_t *>(options.segments[i].data), options.segments[i].length});
    if (options.segment_count == 0 && payload != nullptr)
        joined.add({static_cast<const std::uint8_t *>(payload), length});
    return joined;
}

} // namespace

mbus_msg receive_now(std::uint64_t id)
{
    state &s = platform.impl();
    held_message &message = s.messages.at(id);
    message.received = true;
    return {{HANDLE_MARK, static_cast<std::uint32_t>(id >> 32), static_cast<std::uint32_t>(id), message.queue, 1}};
}

void platform_object::deliver(std::uint32_t sap, std::uint32_t opcode, bytes payload, message_options options)
{
    const auto held_state = hold_state();
    const mbus_q q = queue_of(sap);
    if (q == MBUS_Q_INVALID)
        throw std::logic_error("no queue is bound to SAP " + std::to_string(sap));
    held_message message;
    message.opcode = opcode;
    message.payload = std::move(payload);
    message.source_sap = options.source_sap != 0 ? options.source_sap : source_sap;
    message.sync_event = options.sync_event;
    if (enqueue(q, std::move(message)) != 0)
        throw std::logic_error("the queue of SAP " + std::to_string(sap) + " is full");
}

void platform_object::deliver_frame(std::uint32_t iod, const bytes &frame, std::uint32_t opcode)
{
    constexpr std::uint32_t PACKET_SAP = 440;
    bytes payload;
    payload.add_zeros(NET_L2_MSG_IOD).add_be32(iod).add_zeros(NET_L2_MSG_LENGTH - 8);
    payload.add_be16(static_cast<unsigned>(frame.size())).add_zeros(NET_L2_MSG_FRAME - NET_L2_MSG_LENGTH - 2).add(frame);
    deliver(PACKET_SAP, opcode, std::move(payload));
}

mbus_msg platform_object::message(std::uint32_t opcode, bytes payload, message_options options)
{
    const auto held_state = hold_state();
    held_message message;
    message.opcode = opcode;
    message.payload = std::move(payload);
    message.source_sap = options.source_sap != 0 ? options.source_sap : source_sap;
    message.sync_event = options.sync_event;
    state_->messages[++state_->last_message] = std::move(message);
    return receive_now(state_->last_message);
}

mbus_q platform_object::queue_of(std::uint32_t sap) const
{
    for (const auto &[q, bound] : state_->queues)
        if (bound.sap == sap)
            return q;
    return MBUS_Q_INVALID;
}

std::size_t platform_object::waiting(std::uint32_t sap) const
{
    const bus_queue *found = queue(queue_of(sap));
    return found == nullptr ? 0 : found->waiting.size();
}

std::vector<subscription> platform_object::subscriptions() const { return state_->subscriptions; }

std::size_t platform_object::messages_outstanding() const
{
    return static_cast<std::size_t>(
        std::ranges::count_if(state_->messages, [](const auto &m) { return m.second.received; }));
}

bool platform_object::is_outstanding(const mbus_msg &msg) const
{
    const held_message *found = find(msg);
    return found != nullptr && found->received;
}

} // namespace fake

using namespace fake;

mbus_q mbus_bind(std::uint32_t /*version*/, std::uint32_t sap, const mbus_q_attr &attr, const char *name)
{
    const auto held_state = hold_state();
    note("mbus_bind", sap, name);
    if (refuse("mbus_bind"))
        return MBUS_Q_INVALID;
    if (sap != 0 && platform.queue_of(sap) != MBUS_Q_INVALID) {
        errno = EADDRINUSE;
        return MBUS_Q_INVALID;
    }
    state &s = platform.impl();
    bus_queue &made = s.queues[++s.last_queue];
    made.sap = sap != 0 ? sap : corvane::BUS_SAP_DYNAMIC + s.last_queue;     // 0 asks for a free one
    made.name = name;
    made.attr = attr;
    return s.last_queue;
}

int mbus_unbind(mbus_q q, std::uint32_t flags)
{
    const auto held_state = hold_state();
    note("mbus_unbind", q, flags);
    if (refuse("mbus_unbind"))
        return -1;
    state &s = platform.impl();
    if (queue(q) == nullptr)
        return failed(EINVAL);
    std::erase_if(s.messages, [&](const auto &m) { return m.second.queue == q && !m.second.received; });
    s.queues.erase(q);
    return 0;
}

int mbus_options_set(mbus_q q, std::uint32_t opcode, std::uint32_t option)
{
    const auto held_state = hold_state();
    note("mbus_options_set", q, opcode, option);
    if (refuse("mbus_options_set"))
        return -1;
    bus_queue *found = queue(q);
    if (found == nullptr)
        return failed(EINVAL);
    state &s = platform.impl();
    found->options[opcode] = option;
    s.subscriptions.push_back({found->sap, opcode, option});
    const auto kept = s.kept.find(opcode);
    if (kept != s.kept.end() && option != 3)
        (void)enqueue(q, kept->second);
    return 0;
}

int mbus_recv(mbus_q q, mbus_msg &msg)
{
    const auto held_state = hold_state();
    note("mbus_recv", q);
    if (refuse("mbus_recv"))
        return -1;
    bus_queue *found = queue(q);
    if (found == nullptr)
        return failed(EINVAL);
    if (found->waiting.empty() && !found->pre_unbind && platform.on_empty_queue) {
        platform.on_empty_queue(q);
        found = queue(q);
        if (found == nullptr)
            return failed(EINVAL);
    }
    if (found->waiting.empty()) {
        found->pre_unbind = true;
        return failed(EPIPE);
    }
    msg = receive_now(found->waiting.front());
    found->waiting.pop_front();
    return 0;
}

int mbus_drop(mbus_q q, mbus_msg &msg)
{
    const auto held_state = hold_state();
    if (refuse("mbus_drop"))
        return -1;
    if (msg == mbus_msg{}) {
        ++platform.empty_drops;
        return 0;
    }
    state &s = platform.impl();
    const std::uint64_t id = id_of(msg);
    if (id == 0 || id > s.last_message)
        return failed(EINVAL);
    const held_message *held = find(msg);
    if (held == nullptr) {
        ++platform.double_drops;
        msg = {};
        return 0;
    }
    if (held->queue != MBUS_Q_INVALID && held->queue != q)
        return failed(EINVAL);
    note("mbus_drop", q, held->opcode);
    s.messages.erase(id);
    ++platform.messages_dropped;
    msg = {};
    return 0;
}

std::uint32_t mbus_opc_get(const mbus_msg &msg)
{
    const auto held_state = hold_state();
    const held_message *found = find(msg);
    return found == nullptr ? 0 : found->opcode;
}

mbus_addr mbus_saddr_get(const mbus_msg &msg)
{
    const auto held_state = hold_state();
    const held_message *found = find(msg);
    return {0, found == nullptr ? 0 : found->source_sap};
}

std::uint32_t mbus_sync_event_get(const mbus_msg &msg)
{
    const auto held_state = hold_state();
    const held_message *found = find(msg);
    return found == nullptr ? 0 : found->sync_event;
}

std::uint8_t *mbus_payload_get(const mbus_msg &msg, std::size_t *length)
{
    const auto held_state = hold_state();
    const held_message *found = find(msg);
    const bool empty = found == nullptr || found->payload.empty();
    if (length != nullptr)
        *length = empty ? 0 : found->payload.size();
    return empty ? nullptr : const_cast<std::uint8_t *>(found->payload.data());
}

int mbus_send(mbus_q from, const mbus_addr &to, std::uint32_t opcode, const void *payload, std::size_t length,
              const mbus_send_options &options)
{
    const auto held_state = hold_state();
    const bus_queue *source = queue(from);
    bus_message sent{from, source == nullptr ? 0 : source->sap, to, opcode, payload_of(payload, length, options),
                     options.want_ack != 0, options.sync_event, options.version};
    note("mbus_send", to.node == MBUS_NOTIFY_DESTINATION ? std::string("notify") : std::to_string(to.sap), opcode,
         sent.payload.size());
    if (refuse("mbus_send"))
        return -1;
    if (sent.payload.size() > corvane::BUS_PAYLOAD_MAX)
        return failed(EMSGSIZE);
    held_message message;
    message.opcode = opcode;
    message.source_sap = sent.from_sap;
    message.sync_event = options.sync_event;
    message.payload = sent.payload;
    platform.mbus_sent.push_back(std::move(sent));
    return to.node == MBUS_NOTIFY_DESTINATION ? notify(message) : send_to_sap(to.sap, std::move(message));
}

int mbus_pre_unbind(mbus_q q)
{
    const auto held_state = hold_state();
    note("mbus_pre_unbind", q);
    bus_queue *found = queue(q);
    if (found == nullptr)
        return failed(EINVAL);
    found->pre_unbind = true;
    return 0;
}

bool mbus_is_pre_unbind(mbus_q q)
{
    const auto held_state = hold_state();
    const bus_queue *found = queue(q);
    return found != nullptr && found->pre_unbind;
}
