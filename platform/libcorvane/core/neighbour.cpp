// Link addresses of core next hops.
#include "neighbour.h"

#include "../packet/tag.h"
#include "link_output.h"
#include "monitor.h"
#include "netlink.h"

#include <cstring>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <memory>
#include <mutex>
#include <sys/socket.h>
#include <unordered_map>

namespace corvane {

namespace {

constexpr std::uint16_t USABLE = NUD_PERMANENT | NUD_NOARP | NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE;
constexpr std::uint32_t GIVE_UP_SECONDS = 4;                   // packets wait no longer

struct key {
    std::uint32_t ifindex;
    std::uint8_t family;
    core_address address;
    bool operator==(const key &) const = default;
};
struct key_hash {
    std::size_t operator()(const key &k) const
    {
        std::uint64_t words[2];
        std::memcpy(words, k.address.data(), sizeof words);
        return (words[0] ^ words[1] * 0x9E3779B97F4A7C15u ^ k.ifindex) * 0xD6E8FEB86659FD93u >> 16;
    }
};

struct table {
    std::mutex mutex;
    std::unordered_map<key, std::unique_ptr<neighbour>, key_hash> known;
};
table &the_table()
{
    static table &instance = *new table;
    return instance;
}

std::size_t address_length(std::uint8_t family)
{
    return family == AF_INET ? 4 : 16;
}

nlmsghdr *begin_request(char *buffer, std::uint16_t type, const neighbour &n, std::uint8_t flags)
{
    nlmsghdr *request = mnl_nlmsg_put_header(buffer);
    request->nlmsg_type = type;
    auto *header = static_cast<ndmsg *>(mnl_nlmsg_put_extra_header(request, sizeof(ndmsg)));
    header->ndm_family = n.family;
    header->ndm_ifindex = static_cast<int>(n.ifindex);
    header->ndm_flags = flags;
    mnl_attr_put(request, NDA_DST, address_length(n.family), n.address.data());
    return request;
}

// The kernel resolves the address, or checks one that has not been confirmed for long, as its own traffic would.
void ask_to_use(const neighbour &n)
{
    alignas(nlmsghdr) char buffer[256];
    nlmsghdr *request = begin_request(buffer, RTM_NEWNEIGH, n, NTF_USE);
    request->nlmsg_flags = NLM_F_CREATE;
    (void)netlink_ask(request, [](const nlmsghdr *) {});
}

struct parsed_neighbour {
    key k{};
    std::uint16_t state = 0;
    std::uint64_t mac = 0;
    bool has_mac = false;
};

int note_attribute(const nlattr *attribute, void *out)
{
    auto &p = *static_cast<parsed_neighbour *>(out);
    const std::size_t length = mnl_attr_get_payload_len(attribute);
    if (mnl_attr_get_type(attribute) == NDA_DST && length == address_length(p.k.family))
        std::memcpy(p.k.address.data(), mnl_attr_get_payload(attribute), length);
    if (mnl_attr_get_type(attribute) == NDA_LLADDR && length == sizeof(mac_address)) {
        std::memcpy(&p.mac, mnl_attr_get_payload(attribute), length);
        p.has_mac = true;
    }
    return MNL_CB_OK;
}

bool parse(const nlmsghdr *message, parsed_neighbour &p)
{
    if ((message->nlmsg_type != RTM_NEWNEIGH && message->nlmsg_type != RTM_DELNEIGH) ||
        mnl_nlmsg_get_payload_len(message) < sizeof(ndmsg))
        return false;
    const auto *header = static_cast<const ndmsg *>(mnl_nlmsg_get_payload(message));
    if (header->ndm_family != AF_INET && header->ndm_family != AF_INET6)
        return false;
    p.k.ifindex = static_cast<std::uint32_t>(header->ndm_ifindex);
    p.k.family = header->ndm_family;
    p.state = message->nlmsg_type == RTM_DELNEIGH ? std::uint16_t{NUD_NONE} : header->ndm_state;
    return mnl_attr_parse(message, sizeof(ndmsg), note_attribute, &p) >= 0;
}

void send_on(mbuf *packet, const neighbour &n, std::uint64_t link)
{
    std::memcpy(packet_start(packet), &link, sizeof(mac_address));
    link_target target{n.ifindex, 0, drop_reason::CORE_SEND_FAILED, drop_reason::CORE_TOO_BIG};
    (void)link_output(packet, target);
}

mbuf *take_waiting(neighbour &n)
{
    mbuf *list = n.first_waiting;
    n.first_waiting = n.last_waiting = nullptr;
    n.waiting = 0;
    return list;
}

void send_waiting(neighbour &n, std::uint64_t link)
{
    for (mbuf *packet = take_waiting(n); packet != nullptr;) {
        mbuf *following = packet->next;
        send_on(packet, n, link);
        packet = following;
    }
    link_output_flush();
}

void drop_waiting(neighbour &n)
{
    drop_count(drop_reason::CORE_NO_NEIGHBOUR, n.waiting);
    for (mbuf *packet = take_waiting(n); packet != nullptr;) {
        mbuf *following = packet->next;
        m_freem(packet);
        packet = following;
    }
}

// With the table's mutex held.
void apply(neighbour &n, const parsed_neighbour &p)
{
    n.state = p.state;
    if ((p.state & USABLE) != 0 && p.has_mac) {
        n.link.store(neighbour::VALID | p.mac, std::memory_order_release);
        if (n.waiting != 0)
            send_waiting(n, p.mac);
        return;
    }
    n.link.store(0, std::memory_order_release);
    if ((p.state & NUD_FAILED) != 0)
        drop_waiting(n);
}

// What the kernel knows now. With the table's mutex held.
void ask_state(neighbour &n)
{
    alignas(nlmsghdr) char buffer[256];
    nlmsghdr *request = begin_request(buffer, RTM_GETNEIGH, n, 0);
    (void)netlink_ask(request, [&n](const nlmsghdr *answer) {
        parsed_neighbour p;
        if (parse(answer, p) && p.k == key{n.ifindex, n.family, n.address})
            apply(n, p);
    });
}

void hold_back(neighbour &n, mbuf *packet)
{
    if (n.waiting == NEIGHBOUR_WAITING_MAX) {                  // the oldest gives way: the newest is the likeliest to matter
        mbuf *oldest = n.first_waiting;
        n.first_waiting = oldest->next;
        --n.waiting;
        drop_count(drop_reason::CORE_NO_NEIGHBOUR);
        m_freem(oldest);
    }
    packet->next = nullptr;
    (n.waiting == 0 ? n.first_waiting : n.last_waiting->next) = packet;
    n.last_waiting = packet;
    if (n.waiting++ == 0)
        n.waiting_since = net_seconds.load(std::memory_order_relaxed);
}

// At most once a second a next hop.
void resolve(neighbour &n)
{
    const std::uint32_t now = net_seconds.load(std::memory_order_relaxed) + 1;     // 0: never asked
    if (n.asked_second == now)
        return;
    n.asked_second = now;
    ask_to_use(n);
}

} // namespace

neighbour *neighbour_get(std::uint32_t ifindex, std::uint8_t family, const core_address &address)
{
    table &t = the_table();
    const std::scoped_lock guard(t.mutex);
    const key k{ifindex, family, address};
    if (const auto found = t.known.find(k); found != t.known.end())
        return found->second.get();
    if (t.known.size() >= NEIGHBOURS_MAX)
        return nullptr;
    auto made = std::make_unique<neighbour>();
    made->ifindex = ifindex;
    made->family = family;
    made->address = address;
    neighbour *n = made.get();
    t.known.emplace(k, std::move(made));
    ask_state(*n);
    return n;
}

void neighbour_output(neighbour &n, mbuf *packet, const mac_address &source, std::uint16_t type)
{
    std::uint8_t *header = packet_prepend(packet, ETHERNET_HEADER);
    std::memcpy(header + 6, source.data(), source.size());
    header[12] = static_cast<std::uint8_t>(type >> 8);
    header[13] = static_cast<std::uint8_t>(type);
    if (!n.used.load(std::memory_order_relaxed))
        n.used.store(true, std::memory_order_relaxed);
    std::uint64_t link = n.link.load(std::memory_order_acquire);
    if (link == 0) {
        const std::scoped_lock guard(the_table().mutex);
        link = n.link.load(std::memory_order_acquire);
        if (link == 0) {
            hold_back(n, packet);
            resolve(n);
            return;
        }
    }
    send_on(packet, n, link);
}

void neighbour_event(const nlmsghdr *event)
{
    parsed_neighbour p;
    if (!parse(event, p))
        return;
    table &t = the_table();
    const std::scoped_lock guard(t.mutex);
    if (const auto found = t.known.find(p.k); found != t.known.end())
        apply(*found->second, p);
}

void neighbour_events_lost()
{
    table &t = the_table();
    const std::scoped_lock guard(t.mutex);
    for (auto &[k, n] : t.known)
        ask_state(*n);
}

namespace {

void tick(neighbour &n, std::uint32_t now)
{
    if (n.waiting != 0) {
        ask_state(n);                         // in case the notification went by before this next hop was known
        if (n.waiting != 0 && now - n.waiting_since >= GIVE_UP_SECONDS)
            drop_waiting(n);
        return;
    }
    if (!n.used.exchange(false, std::memory_order_relaxed))
        return;
    // In use: the kernel sees none of this traffic and would let the entry grow old and throw it away.
    if (n.state == NUD_NONE || (n.state & (NUD_STALE | NUD_FAILED)) != 0)
        resolve(n);
}

} // namespace

void neighbour_tick()
{
    table &t = the_table();
    const std::scoped_lock guard(t.mutex);
    const std::uint32_t now = net_seconds.load(std::memory_order_relaxed);
    for (auto &[k, n] : t.known)
        tick(*n, now);
}

} // namespace corvane
