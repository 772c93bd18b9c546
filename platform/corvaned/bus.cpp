// Message bus: queues of clients on SAPs, subscriptions by opcode, SAPs inside corvaned. A queue has a depth: what its
// owner has not received yet counts against it, and a full queue refuses further messages, so that a client that
// stops reading costs others nothing.
#include "bus.h"

#include "rpc.h"

#include "drops.h"
#include "mbus.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <memory>
#include <set>
#include <unordered_map>

namespace corvaned {
namespace {

using corvane::delivery_header;

struct queue_id {
    std::uint64_t connection = 0;
    std::uint32_t queue = 0;
    auto operator<=>(const queue_id &) const = default;
};

struct binding {
    queue_id id;
    std::uint32_t sap = 0;
    std::uint32_t depth = 0;
    std::uint32_t waiting = 0;               // delivered and not received by the process yet
    bool standby = false;
    std::string name;
    std::set<std::uint32_t> opcodes;         // subscribed
    std::set<std::uint32_t> kept;            // whose last message it keeps
};

struct bus_state {
    std::map<queue_id, std::unique_ptr<binding>> bindings;
    std::unordered_map<std::uint32_t, binding *> saps;
    std::unordered_map<std::uint32_t, std::vector<binding *>> subscribers;
    std::unordered_map<std::uint32_t, std::function<void(const message &)>> served;
    std::unordered_map<std::uint32_t, message> last;     // of the opcodes that somebody keeps
    std::vector<std::function<void(std::uint32_t, const peer &)>> bound_hooks;
    std::function<bool(const peer &)> is_standby;
    std::uint32_t next_sap = corvane::BUS_SAP_DYNAMIC;
};

bus_state &bus()
{
    static bus_state state;
    return state;
}

binding *find(const queue_id &id)
{
    const auto found = bus().bindings.find(id);
    return found == bus().bindings.end() ? nullptr : found->second.get();
}

bool transmit(const binding &to, const message &what, bool want_ack)
{
    delivery_header header;
    header.source_sap = what.source_sap;
    header.opcode = what.opcode;
    header.sync_event = what.sync_event;
    header.want_ack = want_ack ? 1 : 0;
    return connection_send(to.id.connection, corvane::FRAME_DELIVER, to.id.queue, 0,
                           byte_writer().put(header).raw(what.payload).view());
}

bool deliver(binding &to, const message &what, bool want_ack)
{
    if (to.waiting >= to.depth || !transmit(to, what, want_ack)) {
        drop_count(drop_reason::BUS_QUEUE_FULL);
        return false;
    }
    ++to.waiting;
    return true;
}

int send_to_sap(std::uint32_t sap, const message &what, bool want_ack)
{
    if (const auto found = bus().served.find(sap); found != bus().served.end()) {
        found->second(what);
        return 0;
    }
    const auto found = bus().saps.find(sap);
    if (found == bus().saps.end())
        return ENOENT;
    return deliver(*found->second, what, want_ack) ? 0 : EAGAIN;
}

bool keeps(std::uint32_t opcode)
{
    return std::ranges::any_of(bus().bindings, [&](const auto &b) { return b.second->kept.contains(opcode); });
}

void deliver_to_all(std::uint32_t subscribed_opcode, const message &what, bool want_ack)
{
    const auto found = bus().subscribers.find(subscribed_opcode);
    if (found == bus().subscribers.end())
        return;
    for (binding *to : found->second)
        if (!to->standby)
            deliver(*to, what, want_ack);
}

void notify(const message &what, bool want_ack, bool to_monitors)
{
    if (keeps(what.opcode))
        bus().last[what.opcode] = what;
    deliver_to_all(what.opcode, what, want_ack);
    if (to_monitors)
        deliver_to_all(corvane::BUS_OPCODE_ALL, what, want_ack);
}

void forget_subscription(binding &b, std::uint32_t opcode)
{
    std::erase(bus().subscribers[opcode], &b);
    if (bus().subscribers[opcode].empty())
        bus().subscribers.erase(opcode);
}

void unbind(const queue_id &id)
{
    const auto found = bus().bindings.find(id);
    if (found == bus().bindings.end())
        return;
    binding &b = *found->second;
    for (const std::uint32_t opcode : b.opcodes)
        forget_subscription(b, opcode);
    if (const auto holder = bus().saps.find(b.sap); holder != bus().saps.end() && holder->second == &b)
        bus().saps.erase(holder);
    const std::set<std::uint32_t> kept = b.kept;
    bus().bindings.erase(found);
    for (const std::uint32_t opcode : kept)
        if (!keeps(opcode))
            bus().last.erase(opcode);
}

void forget_connection(std::uint64_t connection)
{
    auto it = bus().bindings.lower_bound({connection, 0});
    while (it != bus().bindings.end() && it->first.connection == connection) {
        const queue_id id = it->first;
        ++it;
        unbind(id);
    }
}

std::uint32_t free_sap()
{
    while (bus().saps.contains(bus().next_sap))
        ++bus().next_sap;
    return bus().next_sap++;
}

// A process that reconnected may come before the end of its old connection was read.
bool taken(std::uint32_t sap, const peer &who)
{
    if (sap < corvane::BUS_SAP_FIRST || bus().served.contains(sap))
        return true;
    const auto found = bus().saps.find(sap);
    if (found == bus().saps.end())
        return false;
    const std::uint64_t holder = found->second->id.connection;
    const peer *other = connection_peer(holder);
    if (holder == who.connection || (other != nullptr && other->pid != who.pid))
        return true;
    connection_close(holder, nullptr);
    return false;
}

void run_bound_hooks(std::uint32_t sap, const peer &who)
{
    for (const auto &hook : bus().bound_hooks)
        hook(sap, who);
}

answer handle_bind(const peer &who, byte_view request)
{
    byte_reader in(request);
    auto b = std::make_unique<binding>();
    b->id = {who.connection, in.get<std::uint32_t>()};
    b->sap = in.get<std::uint32_t>();
    b->depth = in.get<std::uint32_t>();
    b->waiting = in.get<std::uint32_t>();
    const auto service = in.get<std::uint32_t>();
    b->name = in.text();
    if (!in.done() || b->name.size() > corvane::BUS_NAME_MAX || b->depth > corvane::BUS_DEPTH_MAX)
        return {EINVAL, {}};
    // Bound already, by a client whose call and whose reconnecting thread both made the binding that a lost answer left open.
    if (const binding *bound = find(b->id); bound != nullptr)
        return b->sap == 0 || b->sap == bound->sap ? answer{0, byte_writer().put(bound->sap).take()} : answer{EINVAL, {}};
    b->standby = bus().is_standby && bus().is_standby(who);
    if (b->sap == 0)
        b->sap = free_sap();
    else if (!b->standby && taken(b->sap, who))
        return {EADDRINUSE, {}};
    const auto first = bus().bindings.lower_bound({who.connection, 0});
    const auto last = bus().bindings.upper_bound({who.connection, ~0u});
    if (std::distance(first, last) >= static_cast<std::ptrdiff_t>(corvane::BUS_QUEUES_MAX))
        return {EMFILE, {}};
    if (who.service == 0 && service != 0)
        connection_set_service(who.connection, service);

    const std::uint32_t sap = b->sap;
    const bool standby = b->standby;
    if (!standby)
        bus().saps[sap] = b.get();
    bus().bindings.emplace(b->id, std::move(b));
    if (!standby)
        run_bound_hooks(sap, who);
    return {0, byte_writer().put(sap).take()};
}

answer handle_unbind(const peer &who, byte_view request)
{
    byte_reader in(request);
    const queue_id id{who.connection, in.get<std::uint32_t>()};
    if (!in.done() || find(id) == nullptr)
        return {EINVAL, {}};
    unbind(id);
    return {};
}

void subscribe(binding &b, std::uint32_t opcode)
{
    if (!b.opcodes.insert(opcode).second)
        return;
    bus().subscribers[opcode].push_back(&b);
    if (const auto kept = bus().last.find(opcode); kept != bus().last.end() && !b.standby)
        deliver(b, kept->second, false);
}

answer handle_option(const peer &who, byte_view request)
{
    byte_reader in(request);
    binding *b = find({who.connection, in.get<std::uint32_t>()});
    const auto opcode = in.get<std::uint32_t>();
    const auto option = in.get<std::uint32_t>();
    if (!in.done() || b == nullptr)
        return {EINVAL, {}};
    switch (option) {
    case corvane::BUS_OPTION_KEEP_LAST:
        b->kept.insert(opcode);
        return {};
    case corvane::BUS_OPTION_SUBSCRIBE:
    case corvane::BUS_OPTION_SUBSCRIBE_ADDRESSED:
        subscribe(*b, opcode);
        return {};
    default:
        return {EINVAL, {}};
    }
}

answer handle_send(const peer &who, byte_view request)
{
    byte_reader in(request);
    const binding *from = find({who.connection, in.get<std::uint32_t>()});
    const auto node = in.get<std::uint32_t>();
    const auto sap = in.get<std::uint32_t>();
    message what;
    what.opcode = in.get<std::uint32_t>();
    what.sync_event = in.get<std::uint32_t>();
    const bool want_ack = in.get<std::uint32_t>() != 0;
    if (!in.ok() || from == nullptr || in.rest().size() > corvane::BUS_PAYLOAD_MAX) {
        drop_count(drop_reason::BUS_MALFORMED);
        return {EINVAL, {}};
    }
    what.source_sap = from->sap;
    what.payload.assign(in.rest().begin(), in.rest().end());
    if (node == MBUS_NOTIFY_DESTINATION) {
        notify(what, want_ack, true);
        return {};
    }
    if (node != 0)
        return {ENOENT, {}};
    return {send_to_sap(sap, what, want_ack), {}};
}

answer handle_consumed(const peer &who, byte_view request)
{
    byte_reader in(request);
    binding *b = find({who.connection, in.get<std::uint32_t>()});
    const auto count = in.get<std::uint32_t>();
    if (b != nullptr && in.done())
        b->waiting -= std::min(b->waiting, count);
    return {};
}

message from_corvaned(std::uint32_t source_sap, std::uint32_t opcode, byte_view payload)
{
    return {source_sap, opcode, 0, {payload.begin(), payload.end()}};
}

} // namespace

void bus_start()
{
    serve_method(corvane::BUS_BIND, handle_bind);
    serve_method(corvane::BUS_UNBIND, handle_unbind);
    serve_method(corvane::BUS_OPTION, handle_option);
    serve_method(corvane::BUS_SEND, handle_send);
    serve_method(corvane::BUS_CONSUMED, handle_consumed);
    on_disconnect([](const peer &who) { forget_connection(who.connection); });
}

int bus_send(std::uint32_t sap, std::uint32_t source_sap, std::uint32_t opcode, byte_view payload)
{
    return send_to_sap(sap, from_corvaned(source_sap, opcode, payload), false);
}

void bus_notify(std::uint32_t source_sap, std::uint32_t opcode, byte_view payload)
{
    notify(from_corvaned(source_sap, opcode, payload), false, true);
}

void bus_announce(std::uint32_t source_sap, std::uint32_t opcode, byte_view payload)
{
    notify(from_corvaned(source_sap, opcode, payload), false, false);
}

bool bus_deliver(std::uint64_t connection, std::uint32_t queue, std::uint32_t source_sap, std::uint32_t opcode,
                 byte_view payload)
{
    binding *to = find({connection, queue});
    if (to == nullptr || !transmit(*to, from_corvaned(source_sap, opcode, payload), false))
        return false;
    ++to->waiting;
    return true;
}

void bus_serve(std::uint32_t sap, std::function<void(const message &)> handler)
{
    bus().served[sap] = std::move(handler);
}

bool bus_bound(std::uint32_t sap)
{
    return bus().saps.contains(sap) || bus().served.contains(sap);
}

std::size_t bus_subscribers(std::uint32_t opcode)
{
    const auto found = bus().subscribers.find(opcode);
    if (found == bus().subscribers.end())
        return 0;
    return static_cast<std::size_t>(std::ranges::count_if(found->second, [](const binding *b) { return !b->standby; }));
}

void on_bound(std::function<void(std::uint32_t, const peer &)> hook)
{
    bus().bound_hooks.push_back(std::move(hook));
}

void bus_standby_test(std::function<bool(const peer &)> is_standby)
{
    bus().is_standby = std::move(is_standby);
}

void bus_promote(std::uint64_t connection)
{
    std::vector<std::uint32_t> bound;
    for (auto it = bus().bindings.lower_bound({connection, 0});
         it != bus().bindings.end() && it->first.connection == connection; ++it) {
        binding &b = *it->second;
        if (!b.standby)
            continue;
        b.standby = false;
        bus().saps[b.sap] = &b;
        bound.push_back(b.sap);
    }
    const peer *who = connection_peer(connection);
    for (const std::uint32_t sap : bound)
        if (who != nullptr)
            run_bound_hooks(sap, *who);
}

} // namespace corvaned
