// Which VLANs are held back for another edge of the site. What is followed is of the whole process, so each test has
// an overlay and VLANs of its own and takes its adjacencies back.
#include "../packet/authority.h"

#include <gtest/gtest.h>

#include <vector>

using namespace corvane;

namespace {

constexpr std::uint32_t OVERLAY = 100, OTHER = 101;
constexpr adjacency_id OURS{2, 0, 0, 0, 0, 1}, THEIRS{2, 0, 0, 0, 0, 2};

class Authority : public ::testing::Test {
protected:
    ~Authority() override
    {
        authority_site_vlan(0);
        for (const std::uint32_t overlay : {OVERLAY, OTHER})
            for (const adjacency_id &id : {OURS, THEIRS})
                authority_adjacency(overlay, id, false);
        elected({{10, 0, false}, {11, 0, false}, {20, 0, false}});
    }
    static void elected(const std::vector<vlan_authority> &vlans) { authority_vlans(vlans, true); }
    static void configured(const std::vector<vlan_authority> &vlans) { authority_vlans(vlans, false); }
    static void adjacent(std::uint32_t overlay, const adjacency_id &id) { authority_adjacency(overlay, id, true); }
    static std::vector<int> held()
    {
        std::vector<int> vlans;
        for (const std::uint16_t vlan : std::initializer_list<std::uint16_t>{10, 11, 20})
            if (authority_holds_back(vlan))
                vlans.push_back(vlan);
        return vlans;
    }
    using list = std::vector<int>;
};

TEST_F(Authority, HoldsNothingBackWithoutASiteAdjacency)
{
    elected({{10, OVERLAY, false}, {11, OVERLAY, true}});
    EXPECT_EQ(held(), list{});
}

TEST_F(Authority, HoldsBackWhatAnotherEdgeIsElectedFor)
{
    adjacent(OVERLAY, OURS);
    adjacent(OVERLAY, THEIRS);
    elected({{10, OVERLAY, false}, {11, OVERLAY, true}});
    EXPECT_EQ(held(), list{10});
    elected({{10, OVERLAY, true}, {11, OVERLAY, false}});
    EXPECT_EQ(held(), list{11});
}

TEST_F(Authority, CountsAnAdjacencyFromTheResultOfItsElectionOn)
{
    configured({{10, OVERLAY, false}});
    adjacent(OVERLAY, THEIRS);
    EXPECT_EQ(held(), list{});
    configured({{11, OVERLAY, false}});
    EXPECT_EQ(held(), list{});
    elected({});
    EXPECT_EQ(held(), (list{10, 11}));
}

TEST_F(Authority, LetsEverythingPassWhenTheLastAdjacencyIsGone)
{
    adjacent(OVERLAY, OURS);
    adjacent(OVERLAY, THEIRS);
    elected({{10, OVERLAY, false}});
    authority_adjacency(OVERLAY, OURS, false);
    elected({});
    EXPECT_EQ(held(), list{10});
    authority_adjacency(OVERLAY, THEIRS, false);
    elected({});
    EXPECT_EQ(held(), list{});
}

TEST_F(Authority, TakesAnAdjacencyThatIsToldTwiceForOne)
{
    adjacent(OVERLAY, THEIRS);
    adjacent(OVERLAY, THEIRS);
    elected({{10, OVERLAY, false}});
    authority_adjacency(OVERLAY, THEIRS, false);
    elected({});
    EXPECT_EQ(held(), list{});
}

TEST_F(Authority, KeepsOverlaysApart)
{
    adjacent(OTHER, THEIRS);
    elected({{10, OVERLAY, false}, {20, OTHER, false}});
    EXPECT_EQ(held(), list{20});
    configured({{20, OVERLAY, false}});
    EXPECT_EQ(held(), list{});
    configured({{20, 0, false}});
    EXPECT_EQ(held(), list{});
}

TEST_F(Authority, NeverHoldsTheSiteVlanBack)
{
    adjacent(OVERLAY, THEIRS);
    elected({{10, OVERLAY, false}, {11, OVERLAY, false}});
    authority_site_vlan(10);
    EXPECT_EQ(held(), list{11});
    authority_site_vlan(11);
    EXPECT_EQ(held(), list{10});
    authority_site_vlan(0);
    EXPECT_EQ(held(), (list{10, 11}));
}

TEST_F(Authority, KnowsNoVlanBeyondTheTable)
{
    adjacent(OVERLAY, THEIRS);
    elected({{4096, OVERLAY, false}, {0xFFFF, OVERLAY, false}, {0, OVERLAY, false}});
    for (const std::uint16_t vlan : std::initializer_list<std::uint16_t>{0, 4096, 0xFFFF})
        EXPECT_FALSE(authority_holds_back(vlan));
}

// ---- the VLAN of a frame

class VlanOfFrame : public ::testing::Test {
protected:
    static constexpr std::uint32_t PORT = 7;
    VlanOfFrame() { port_vlan_set(PORT, 300); }
    ~VlanOfFrame() override { port_vlan_clear(PORT, 300); }
    // Addresses, then these bytes.
    static std::uint16_t vlan_of(std::vector<std::uint8_t> rest, std::uint32_t iod = PORT)
    {
        rest.insert(rest.begin(), 12, 2);
        return vlan_of_frame(iod, rest.data(), rest.size());
    }
};

TEST_F(VlanOfFrame, IsThatOfItsTagLowByteFirstWithoutThePriority)
{
    EXPECT_EQ(vlan_of({0x81, 0x00, 0x2C, 0x01, 0x08, 0x00}), 300);
    EXPECT_EQ(vlan_of({0x81, 0x00, 0xFF, 0xEF, 0x08, 0x00}), 4095);
    EXPECT_EQ(vlan_of({0x81, 0x00, 0x0A, 0xE0, 0x08, 0x00}, 999), 10);
}

TEST_F(VlanOfFrame, IsThatOfTheTagBehindASnapHeader)
{
    EXPECT_EQ(vlan_of({0x00, 0x20, 0xAA, 0xAA, 0x03, 0, 0, 0, 0x81, 0x00, 0x0A, 0x00}), 10);
}

TEST_F(VlanOfFrame, IsThePortsForAFrameWithoutATag)
{
    EXPECT_EQ(vlan_of({0x08, 0x00, 0x81, 0x00, 0x0A, 0x00}), 300);
    EXPECT_EQ(vlan_of({0x08, 0x00, 0, 0}, 8), 0);
    EXPECT_EQ(vlan_of({0x08, 0x00, 0, 0}, 768), 0);
}

TEST_F(VlanOfFrame, ReadsNothingBehindTheEnd)
{
    EXPECT_EQ(vlan_of({0x81, 0x00}), 300);
    EXPECT_EQ(vlan_of({0x81, 0x00, 0x0A}), 300);
    EXPECT_EQ(vlan_of({0x00, 0x20, 0xAA, 0xAA, 0x03, 0, 0, 0, 0x81, 0x00, 0x0A}), 300);
    EXPECT_EQ(vlan_of({0x81}), 0);
    EXPECT_EQ(vlan_of({}), 0);
}

TEST_F(VlanOfFrame, OfAPortFollowsItsConfiguration)
{
    port_vlan_configured("lum_vlan_cmd", 8, false, {{"<vlan-id>", "20"}});
    EXPECT_EQ(port_vlan(8), 20);
    port_vlan_configured("lum_vlan_cmd", 8, true, {{"<vlan-id>", "21"}});           // not the one it has
    port_vlan_configured("lum_vlan_cmd", 8, false, {{"<vlan-id>", "30"}, {"trunk-port", ""}});
    port_vlan_configured("lum_vpn_vlan_cmd", 8, false, {{"<vlan-id>", "40"}});
    EXPECT_EQ(port_vlan(8), 20);
    port_vlan_configured("lum_vlan_cmd", 8, true, {{"<vlan-id>", "20"}});
    EXPECT_EQ(port_vlan(8), 0);
}

} // namespace
