// The table of known edges: what is published is found, nothing else, also while it changes.
#include "../../wire/peers.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <memory>
#include <set>
#include <thread>
#include <vector>

namespace {

using namespace corvane;

struct KnownPeers : testing::Test {
    std::unique_ptr<peers_page> page = std::make_unique<peers_page>();
};

peer_address ipv6(const char *text)
{
    in6_addr address{};
    inet_pton(AF_INET6, text, &address);
    return peer_ipv6(address.s6_addr);
}

TEST_F(KnownPeers, KnowsNobodyAtFirst)
{
    EXPECT_FALSE(peers_contain(*page, peer_ipv4(0xC6120101)));
    EXPECT_FALSE(peers_contain(*page, ipv6("2001:db8::1")));
}

TEST_F(KnownPeers, FindsWhatWasPublishedAndNothingElse)
{
    peers_publish(*page, std::set<peer_address>{peer_ipv4(0xC6120101), ipv6("2001:db8::1")});
    EXPECT_TRUE(peers_contain(*page, peer_ipv4(0xC6120101)));
    EXPECT_TRUE(peers_contain(*page, ipv6("2001:db8::1")));
    EXPECT_FALSE(peers_contain(*page, peer_ipv4(0xC6120102)));
    EXPECT_FALSE(peers_contain(*page, ipv6("2001:db8::2")));
}

TEST_F(KnownPeers, ForgetsWhatIsNotPublishedAgain)
{
    peers_publish(*page, std::set<peer_address>{peer_ipv4(1)});
    peers_publish(*page, std::set<peer_address>{peer_ipv4(2)});
    EXPECT_FALSE(peers_contain(*page, peer_ipv4(1)));
    EXPECT_TRUE(peers_contain(*page, peer_ipv4(2)));
    peers_publish(*page, std::set<peer_address>{});
    EXPECT_FALSE(peers_contain(*page, peer_ipv4(2)));
}

TEST_F(KnownPeers, HoldsAsManyAsItSays)
{
    std::vector<peer_address> many;
    for (std::uint32_t i = 1; i <= PEERS_MAX; ++i)
        many.push_back(peer_ipv4(0x0A000000 + i));
    peers_publish(*page, many);
    for (const peer_address &address : many)
        ASSERT_TRUE(peers_contain(*page, address));
    for (std::uint32_t i = PEERS_MAX + 1; i < PEERS_MAX + 2000; ++i)
        ASSERT_FALSE(peers_contain(*page, peer_ipv4(0x0A000000 + i)));
}

TEST_F(KnownPeers, NeverLosesWhatStaysWhileTheRestChanges)
{
    const peer_address stays = peer_ipv4(0xC6120101), never = peer_ipv4(0xC6120102);
    peers_publish(*page, std::vector{stays});
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (std::uint32_t round = 0; !stop; ++round) {
            std::vector<peer_address> peers{stays};
            for (std::uint32_t i = 0; i < round % 50; ++i)
                peers.push_back(peer_ipv4(0x0A000000 + round * 50 + i));
            peers_publish(*page, peers);
        }
    });
    for (int i = 0; i < 20'000; ++i) {
        EXPECT_TRUE(peers_contain(*page, stays));
        EXPECT_FALSE(peers_contain(*page, never));
    }
    stop = true;
    writer.join();
}

} // namespace
