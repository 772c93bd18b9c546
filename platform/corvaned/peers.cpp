// Gathers the addresses of known edges - adjacencies, static tunnels, next hops of routes - and publishes them for the
// core's receive. They are gathered anew a few times a second while the setting is on, and not at all while it is off:
// what is asked here belongs to three services, and none of them is to care.
#include "peers.h"

#include "cmdsrv.h"
#include "rtab.h"
#include "shm.h"

#include "../wire/peers.h"
#include "../wire/rtab.h"

#include <arpa/inet.h>

#include <algorithm>
#include <optional>
#include <set>
#include <sstream>

namespace corvaned {
namespace {

using corvane::peer_address;
using std::chrono::milliseconds;
using peer_set = std::set<peer_address>;

constexpr milliseconds PERIOD{200};
constexpr int IDLE_SHARE = 20;                   // gathering takes at most this part of the time, however many routes
constexpr std::size_t SDB_PAGE = 500;

// The daemon's records of adjacencies: type in the key, address in the value.
constexpr const char *DATABASE = "sdb.lum_sdb_info";
constexpr std::uint8_t RECORD_ADJACENCY = 1;
constexpr std::size_t ADJACENCY_SIZE = 44, ADJACENCY_ADDRESS = 4;
constexpr std::uint32_t KIND_IPV4 = 4, KIND_IPV6 = 5, KIND_NEXT_HOP = 6;
constexpr std::size_t NEXT_HOP_FAMILY = 4, NEXT_HOP_ADDRESS = 8;

struct peers_state {
    corvane::peers_page *page = nullptr;
    std::optional<peer_set> published;           // by this process
    timer_id timer = 0;
    bool set_by_configuration = false, overflow_told = false;
};

peers_state &state()
{
    static peers_state the_state;
    return the_state;
}

std::uint32_t word_at(const std::uint8_t *from)
{
    std::uint32_t value = 0;
    std::memcpy(&value, from, sizeof value);
    return value;
}

void add_address(peer_set &peers, std::uint32_t family, const std::uint8_t *bytes)
{
    peer_address address{};
    if (family == KIND_IPV4 && word_at(bytes) != 0)
        address = corvane::peer_ipv4(word_at(bytes));
    else if (family == KIND_IPV6)
        address = corvane::peer_ipv6(bytes);
    if (address != peer_address{})
        peers.insert(address);
}

void add_record(peer_set &peers, const rtab_addr &address)
{
    if (address.kind == KIND_NEXT_HOP)
        add_address(peers, word_at(&address.body[NEXT_HOP_FAMILY]), &address.body[NEXT_HOP_ADDRESS]);
    else
        add_address(peers, address.kind, address.body.data());
}

void add_text(peer_set &peers, const std::string &text)
{
    in_addr ipv4{};
    in6_addr ipv6{};
    if (inet_pton(AF_INET, text.c_str(), &ipv4) == 1)
        peers.insert(corvane::peer_ipv4(ntohl(ipv4.s_addr)));
    else if (inet_pton(AF_INET6, text.c_str(), &ipv6) == 1)
        peers.insert(corvane::peer_ipv6(ipv6.s6_addr));
}

void add_adjacencies(peer_set &peers)
{
    kv_store records(DATABASE);
    std::vector<std::uint8_t> after;
    for (;;) {
        const auto page = records.range({&RECORD_ADJACENCY, 1}, after, SDB_PAGE);
        for (const kv_store::record &r : page) {
            rtab_addr address;
            if (r.value.size() < ADJACENCY_SIZE)
                continue;
            std::memcpy(&address, &r.value[ADJACENCY_ADDRESS], sizeof address);
            add_record(peers, address);
        }
        if (page.size() < SDB_PAGE)
            return;
        after = page.back().key;
    }
}

// A configured peer is known even while the interface of its route or tunnel is not there.
void add_configured(peer_set &peers)
{
    cmdsrv().running.each([&](config_line &line) {
        if (line.no || !line.text.starts_with("lum "))
            return;
        std::istringstream words(line.text);
        for (std::string word, before; words >> word; before = word)
            if (before == "next-hop" || before == "static-tunnel")
                add_text(peers, word);
    });
}

void add_routes(peer_set &peers)
{
    const corvane::rtab_shared *table = rtab_shared_table();
    rtab_route route;
    for (std::uint64_t at = 0; table != nullptr && corvane::rtab_walk(table->routes, at, route);)
        for (std::size_t i = 0; i < route.nexthop_count; ++i)
            if (route.nexthop[i].kind >= KIND_IPV4)
                add_record(peers, route.nexthop[i]);
}

void publish(peer_set peers)
{
    if (peers == state().published)
        return;
    const bool overflow = peers.size() > corvane::PEERS_MAX;
    if (overflow && !state().overflow_told)
        log_line(3, "more than " + std::to_string(corvane::PEERS_MAX) + " edges are known: packets of the others are refused");
    state().overflow_told = overflow;
    state().published = peers;
    if (overflow)
        peers.erase(std::next(peers.begin(), corvane::PEERS_MAX), peers.end());
    corvane::peers_publish(*state().page, peers);
}

peer_set gather()
{
    peer_set peers;
    add_adjacencies(peers);
    add_configured(peers);
    add_routes(peers);
    return peers;
}

void follow()
{
    const auto began = std::chrono::steady_clock::now();
    publish(gather());
    const auto took = std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - began);
    state().timer = after(std::max(PERIOD, IDLE_SHARE * took), follow);
}

// The peers are there before the first packet is judged by them.
int set_known_only(command &cmd)
{
    state().set_by_configuration = true;
    const bool wanted = !cmd.no;
    if (wanted && state().page == nullptr) {
        cmd.print("There is no shared memory for the known edges\n");
        return -500;
    }
    cancel(state().timer);
    state().timer = 0;
    if (wanted)
        follow();
    platform().core_peers_known_only = wanted ? 1 : 0;
    return 0;
}

// An earlier corvaned on this root may have left it on, and the configuration of this one says nothing of it.
void forget_earlier_setting()
{
    if (!state().set_by_configuration)
        platform().core_peers_known_only = 0;
}

} // namespace

void peers_start()
{
    state() = {};
    state().page = static_cast<corvane::peers_page *>(make_shared(corvane::PEERS_SHM, sizeof(corvane::peers_page)));
    serve_command("core_peers_known_only", set_known_only);
    after(milliseconds(0), forget_earlier_setting);
}

} // namespace corvaned
