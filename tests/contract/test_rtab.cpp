// Route table: what each kind of update means, and what lookups and walks give.
#include "contract_test.h"

#include "bitfield.h"
#include "rtab.h"
#include "timestamp.h"

#include <array>
#include <set>

using namespace contract;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

constexpr std::uint32_t SAP = 620;
constexpr rtab_mac_info HOST{10, {2, 0, 0, 0, 0, 1}}, OTHER{10, {2, 0, 0, 0, 0, 2}}, OTHER_VLAN{11, HOST.mac},
    GROUP{10, {1, 0, 0x5E, 1, 2, 3}}, BROADCAST{10, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}};
constexpr std::uint32_t A = 3, B = 7, TUNNEL = 50;

rtab_addr interface(std::uint32_t iod)
{
    rtab_addr address;
    address.kind = 1;
    std::memcpy(address.body.data(), &iod, 4);
    return address;
}
rtab_addr edge(std::uint32_t ipv4, std::uint32_t iod = TUNNEL)
{
    const std::array<std::uint32_t, 3> words{iod, 4, ipv4};
    rtab_addr address;
    address.kind = 6;
    std::memcpy(address.body.data(), words.data(), sizeof words);
    return address;
}
std::uint32_t iod_of(const rtab_addr &address) { return host<std::uint32_t>({address.body.begin(), address.body.end()}, 0); }
bool same(const rtab_addr &a, const rtab_addr &b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// One element as a client writes it by hand.
struct element {
    rtab_mac_info key;
    std::uint8_t up = 0, operation = 0;
    std::uint32_t word = 0;
    const rtab_addr *nexthop = nullptr;
};

int update(const std::vector<element> &elements, std::uint32_t length_off = 0)
{
    bytes buffer(RTAB_UPDATE_HEADER + elements.size() * RTAB_UPDATE_STRIDE);
    std::uint8_t *at = buffer.data() + RTAB_UPDATE_HEADER;
    for (const element &e : elements) {
        std::memcpy(at, &e.key.vlan, 4);
        std::memcpy(at + 4, e.key.mac.data(), 6);
        at[11] = e.up;
        at[12] = e.operation;
        at[13] = e.nexthop != nullptr ? 1 : 0;
        std::memcpy(at + 16, &e.word, 4);
        const std::uint16_t length = e.nexthop != nullptr ? 52 : 24;
        std::memcpy(at + 20, &length, 2);
        if (e.nexthop != nullptr)
            std::memcpy(at + 24, e.nexthop, sizeof *e.nexthop);
        at += RTAB_UPDATE_STRIDE;
    }
    return rtab_update_route(buffer.data(), static_cast<std::uint16_t>(elements.size()),
                             static_cast<std::uint32_t>(buffer.size()) + length_off, 0);
}
int learn(const rtab_mac_info &key, const rtab_addr &nexthop) { return update({{key, 0, 1, 11, &nexthop}}, 4); }
int age(const rtab_mac_info &key) { return update({{key, 0, 1, 0, nullptr}}, 4); }
int operator_add(const rtab_mac_info &key, const rtab_addr &nexthop) { return update({{key, 0, 1, 10, &nexthop}}); }
int operator_delete(const rtab_mac_info &key, const rtab_addr *nexthop) { return update({{key, 0, 2, 0, nexthop}}); }
int resolve(const rtab_mac_info &key, const rtab_addr &nexthop, bool up)
{
    return update({{key, static_cast<std::uint8_t>(up ? 1 : 0), 0, 0, &nexthop}});
}

// The same through the builder: an add names the whole set.
int built(const rtab_mac_info &key, std::uint32_t add, const std::vector<rtab_addr> &nexthops)
{
    std::array<std::uint8_t, 572> buffer{};
    rtab_update u;
    EXPECT_TRUE(rtab_begin_route_update(u, buffer.data(), buffer.size()));
    EXPECT_TRUE(rtab_add_mac_to_buffer(u, key, 0, 1, add));
    for (const rtab_addr &nexthop : nexthops)
        EXPECT_TRUE(rtab_add_nexthop_to_route(u, nexthop));
    return rtab_end_route_update(u, 0);
}
int built_ip(const rtab_mac_info &key, std::uint32_t add, std::uint32_t source, std::uint32_t group, std::uint32_t iod)
{
    std::array<std::uint8_t, 572> buffer{};
    rtab_update u;
    EXPECT_TRUE(rtab_begin_route_update(u, buffer.data(), buffer.size()));
    EXPECT_TRUE(rtab_add_ip_to_buffer(u, key, source, group, 0, 1, add));
    EXPECT_TRUE(rtab_add_iod_nexthop_to_route(u, iod));
    return rtab_end_route_update(u, 0);
}

std::vector<rtab_addr> nexthops(const rtab_mac_info &key)
{
    rtab_addr chosen;
    const rtab_route *route = rtab_get_route(key, 0, chosen);
    return route == nullptr ? std::vector<rtab_addr>{}
                            : std::vector(route->nexthop.begin(), route->nexthop.begin() + route->nexthop_count);
}
std::vector<std::uint32_t> iods(const rtab_mac_info &key)
{
    std::vector<std::uint32_t> found;
    for (const rtab_addr &nexthop : nexthops(key))
        found.push_back(iod_of(nexthop));
    return found;
}
std::vector<std::uint32_t> oifs(const rtab_mac_info &key)
{
    std::vector<std::uint32_t> found;
    if (const rtab_mroute *route = rtab_get_mroute(key))
        for (std::uint32_t iod = route->oifs->next(0); iod != 0; iod = route->oifs->next(iod))
            found.push_back(iod);
    return found;
}
std::uint32_t data_age(const rtab_mac_info &key)
{
    rtab_addr chosen;
    const rtab_route *route = rtab_get_route(key, 0, chosen);
    return route == nullptr ? 9999 : timestamp_elapsed(rtab_get_route_timestamp(*route)).seconds;
}

class ContractRoutes : public ContractTest {
protected:
    ContractRoutes()
    {
        EXPECT_TRUE(rtab_api_init(bind(SAP), "contract", 6));
        clear();
    }
    ~ContractRoutes() override
    {
        clear();
        EXPECT_TRUE(rtab_api_close());
    }
    static void clear()
    {
        for (const rtab_mac_info &key : {HOST, OTHER, OTHER_VLAN, GROUP, BROADCAST}) {
            age(key);
            operator_delete(key, nullptr);
        }
        for (const std::uint32_t group : {1u, 2u})
            for (const std::uint32_t iod : {A, B, TUNNEL})
                built_ip(GROUP, 0, 0, group, iod);
    }
};

// ---- learnt routes

TEST_F(ContractRoutes, LearnAddsARouteOfThisProcessSeenNow)
{
    EXPECT_NE(learn(HOST, interface(A)), 0);
    rtab_addr chosen;
    const rtab_route *route = rtab_get_route(HOST, 12345, chosen);
    ASSERT_NE(route, nullptr);
    EXPECT_EQ(route->key, HOST);
    EXPECT_TRUE(same(chosen, interface(A)));
    EXPECT_TRUE(rtab_is_owner(*route));
    EXPECT_EQ(route->owner, SERVICE);
    EXPECT_EQ(route->is_static, 0);
    EXPECT_EQ(data_age(HOST), 0u);
    EXPECT_THAT(iods(OTHER), IsEmpty());
    EXPECT_THAT(iods(OTHER_VLAN), IsEmpty()) << "the VLAN belongs to the key";
}

TEST_F(ContractRoutes, LearnReplacesTheNextHopAndRefreshesTheTime)
{
    learn(HOST, interface(A));
    let_pass(milliseconds(1100));
    EXPECT_EQ(data_age(HOST), 0u);                           // the lead of a second
    let_pass(milliseconds(1000));
    EXPECT_EQ(data_age(HOST), 1u);
    learn(HOST, interface(B));
    EXPECT_THAT(iods(HOST), ElementsAre(B));
    EXPECT_EQ(data_age(HOST), 0u);
}

TEST_F(ContractRoutes, AgeWithdrawsTheLearntRoute)
{
    learn(HOST, interface(A));
    age(HOST);
    EXPECT_THAT(iods(HOST), IsEmpty());
}

TEST_F(ContractRoutes, TheBroadcastAddressIsLearntAsAnyOther)
{
    EXPECT_NE(learn(BROADCAST, interface(A)), 0);
    EXPECT_THAT(iods(BROADCAST), ElementsAre(A));
}

TEST_F(ContractRoutes, ABatchIsTakenWholeWhateverItsLengthArgumentSays)
{
    const rtab_addr a = interface(A), b = interface(B);
    EXPECT_NE(update({{HOST, 0, 1, 11, &a}, {OTHER, 0, 1, 11, &b}, {OTHER_VLAN, 0, 1, 11, &a}}, 4), 0);
    EXPECT_THAT(iods(HOST), ElementsAre(A));
    EXPECT_THAT(iods(OTHER), ElementsAre(B));
    EXPECT_THAT(iods(OTHER_VLAN), ElementsAre(A));
}

TEST_F(ContractRoutes, AnUpdateOfNothingIsRefused)
{
    EXPECT_EQ(update({}), 0);
}

// ---- an operator's routes

TEST_F(ContractRoutes, AnOperatorsRouteStandsBeforeALearntOneAndLetsItOutAgain)
{
    learn(HOST, interface(A));
    EXPECT_NE(operator_add(HOST, edge(0x01020304)), 0);
    rtab_addr chosen;
    const rtab_route *route = rtab_get_route(HOST, 0, chosen);
    ASSERT_NE(route, nullptr);
    EXPECT_TRUE(same(chosen, edge(0x01020304)));
    EXPECT_NE(route->is_static, 0);
    age(HOST);
    EXPECT_THAT(nexthops(HOST), testing::SizeIs(1)) << "ageing leaves it alone";
    learn(HOST, interface(B));
    operator_delete(HOST, nullptr);
    EXPECT_THAT(iods(HOST), ElementsAre(B));
}

TEST_F(ContractRoutes, AnOperatorsRouteIsAlwaysSeenNow)
{
    operator_add(HOST, interface(A));
    let_pass(milliseconds(1100));
    EXPECT_EQ(data_age(HOST), 0u);
}

TEST_F(ContractRoutes, OperatorsNextHopsAddUpAndGoOneByOne)
{
    operator_add(HOST, edge(1));
    operator_add(HOST, edge(2));
    operator_add(HOST, edge(2));
    EXPECT_EQ(nexthops(HOST).size(), 2u);
    const rtab_addr first = edge(1);
    operator_delete(HOST, &first);
    ASSERT_EQ(nexthops(HOST).size(), 1u);
    EXPECT_TRUE(same(nexthops(HOST)[0], edge(2)));
    operator_delete(HOST, nullptr);
    EXPECT_THAT(nexthops(HOST), IsEmpty());
}

TEST_F(ContractRoutes, FlowsAreSpreadOverEqualNextHopsAndKeepTheirs)
{
    operator_add(HOST, edge(1));
    operator_add(HOST, edge(2));
    std::set<std::uint32_t> seen;
    for (std::uint32_t flow = 0; flow < 64; ++flow) {
        rtab_addr chosen, again;
        ASSERT_NE(rtab_get_route(HOST, flow, chosen), nullptr);
        ASSERT_NE(rtab_get_route(HOST, flow, again), nullptr);
        EXPECT_TRUE(same(chosen, again));
        seen.insert(host<std::uint32_t>({chosen.body.begin(), chosen.body.end()}, 8));
    }
    EXPECT_THAT(seen, UnorderedElementsAre(1, 2));
}

TEST_F(ContractRoutes, SaysWhetherARouteHasANextHop)
{
    bool exists = true;
    EXPECT_EQ(rtab_does_nh_exist(HOST, interface(A), exists), nullptr);
    EXPECT_FALSE(exists);
    learn(HOST, interface(A));
    EXPECT_NE(rtab_does_nh_exist(HOST, interface(A), exists), nullptr);
    EXPECT_TRUE(exists);
    EXPECT_NE(rtab_does_nh_exist(HOST, interface(B), exists), nullptr);
    EXPECT_FALSE(exists);
}

TEST_F(ContractRoutes, ReResolutionMakesNextHopsPresentAndAbsent)
{
    built(HOST, 1, {interface(A), edge(9, iod(OVERLAY))});
    resolve(HOST, interface(A), false);
    ASSERT_EQ(nexthops(HOST).size(), 1u);
    EXPECT_TRUE(same(nexthops(HOST)[0], edge(9, iod(OVERLAY))));
    resolve(HOST, interface(A), true);
    EXPECT_EQ(nexthops(HOST).size(), 2u);
    resolve(OTHER, interface(B), true);
    EXPECT_THAT(iods(OTHER), ElementsAre(B)) << "one that was down when it was configured";
    resolve(OTHER_VLAN, interface(B), false);
    EXPECT_THAT(iods(OTHER_VLAN), IsEmpty());
}

TEST_F(ContractRoutes, ReResolutionUnderAnotherIodReplacesTheOldNextHop)
{
    constexpr std::uint32_t GONE = 700;                      // no interface has it
    operator_add(HOST, edge(9, GONE));
    resolve(HOST, edge(9, iod(OVERLAY)), true);
    ASSERT_EQ(nexthops(HOST).size(), 1u);
    EXPECT_EQ(iod_of(nexthops(HOST)[0]), iod(OVERLAY));
}

TEST_F(ContractRoutes, ABuiltAddReplacesTheOperatorsNextHopsAndKeepsTheLearntOne)
{
    learn(HOST, interface(B));
    EXPECT_NE(built(HOST, 1, {edge(1), edge(2)}), 0);
    EXPECT_NE(built(HOST, 1, {edge(3), edge(2)}), 0);
    std::set<std::uint32_t> ends;
    for (const rtab_addr &n : nexthops(HOST))
        ends.insert(host<std::uint32_t>({n.body.begin(), n.body.end()}, 8));
    EXPECT_THAT(ends, UnorderedElementsAre(2, 3));
    EXPECT_NE(built(HOST, 0, {edge(3)}), 0);
    ASSERT_EQ(nexthops(HOST).size(), 1u);
    built(HOST, 0, {edge(2)});
    EXPECT_THAT(iods(HOST), ElementsAre(B));
}

TEST_F(ContractRoutes, ABuiltAddLeavesOutNextHopsWithoutAnInterfaceUnlessThereAreNoOthers)
{
    constexpr std::uint32_t GONE = 700;                      // no interface has it
    EXPECT_NE(built(HOST, 1, {interface(GONE), edge(9, iod(OVERLAY)), edge(8, GONE)}), 0);
    ASSERT_EQ(nexthops(HOST).size(), 1u);
    EXPECT_TRUE(same(nexthops(HOST)[0], edge(9, iod(OVERLAY))));
    EXPECT_NE(built(HOST, 1, {interface(GONE)}), 0);
    EXPECT_THAT(iods(HOST), ElementsAre(GONE));
}

// ---- multicast

TEST_F(ContractRoutes, AGroupsInterfacesAddUpAndGoOneByOne)
{
    EXPECT_NE(built(GROUP, 1, {interface(A)}), 0);
    EXPECT_NE(built(GROUP, 1, {interface(TUNNEL)}), 0);
    EXPECT_THAT(oifs(GROUP), ElementsAre(A, TUNNEL));
    built(GROUP, 0, {interface(A)});
    EXPECT_THAT(oifs(GROUP), ElementsAre(TUNNEL));
    built(GROUP, 0, {interface(TUNNEL)});
    EXPECT_EQ(rtab_get_mroute(GROUP), nullptr);
}

TEST_F(ContractRoutes, IpGroupsOfOneMacShareItsRoute)
{
    built_ip(GROUP, 1, 0, 1, A);
    built_ip(GROUP, 1, 0, 2, B);
    EXPECT_THAT(oifs(GROUP), ElementsAre(A, B));
    built_ip(GROUP, 0, 0, 2, B);
    EXPECT_THAT(oifs(GROUP), ElementsAre(A));
    const rtab_mroute *route = rtab_get_mroute(GROUP);
    ASSERT_NE(route, nullptr);
    EXPECT_EQ(route->oifs->bits(), 768u);
}

TEST_F(ContractRoutes, AGroupHasNoUnicastRoute)
{
    built(GROUP, 1, {interface(A)});
    EXPECT_THAT(iods(GROUP), IsEmpty());
    EXPECT_EQ(rtab_get_mroute(HOST), nullptr);
    EXPECT_EQ(learn(GROUP, interface(A)), 0) << "nobody is behind a group address";
}

// ---- walks and the reader lock

TEST_F(ContractRoutes, AWalkMeetsEveryRouteOnce)
{
    learn(HOST, interface(A));
    learn(OTHER, interface(B));
    operator_add(OTHER_VLAN, edge(1));
    std::multiset<std::pair<std::uint32_t, std::uint8_t>> met;
    rtab_acquire_rdlock();
    rtab_cursor cursor;
    while (const rtab_route *route = rtab_get_each_route(cursor))
        met.insert({route->key.vlan, route->key.mac[5]});
    rtab_release_rdlock();
    EXPECT_THAT(met, UnorderedElementsAre(testing::Pair(10, 1), testing::Pair(10, 2), testing::Pair(11, 1)));
}

TEST_F(ContractRoutes, AWalkMaySendUpdatesUnderTheReaderLock)
{
    for (std::uint8_t i = 1; i <= 100; ++i)
        learn({12, {2, 0, 0, 0, 1, i}}, interface(A));
    rtab_acquire_rdlock();
    rtab_cursor cursor;
    std::size_t met = 0;
    while (const rtab_route *route = rtab_get_each_route(cursor)) {
        ++met;
        const rtab_mac_info key = route->key;
        EXPECT_NE(age(key), 0);
    }
    rtab_release_rdlock();
    EXPECT_EQ(met, 100u);
    rtab_cursor again;
    EXPECT_EQ(rtab_get_each_route(again), nullptr);
}

} // namespace
