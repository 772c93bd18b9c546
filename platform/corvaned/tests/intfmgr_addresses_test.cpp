// Which address stands for an interface, and what is told when addresses come and go.
#include "intfmgr_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace corvaned {
namespace {

class InterfaceAddresses : public interface_manager_test {
protected:
    void SetUp() override
    {
        interface_manager_test::SetUp();
        manager->link(device(7, "eth1"));
    }
    void add(const std::string &text, std::uint32_t address_flags = IFA_F_PERMANENT,
             std::uint8_t scope = RT_SCOPE_UNIVERSE)
    {
        manager->address(address_of(7, text, address_flags, scope), true);
    }
    void remove(const std::string &text) { manager->address(address_of(7, text), false); }
    [[nodiscard]] std::string ipv4() const { return ipv4_text(record_of(1).ipv4); }
    [[nodiscard]] std::string ipv6() const { return ipv6_text(record_of(1).ipv6); }
};

TEST_F(InterfaceAddresses, AreTheFirstGlobalOneOfEachFamily)
{
    add("192.0.2.1");
    add("198.51.100.1");
    add("2001:db8::1");
    add("2001:db8::2");

    EXPECT_EQ(ipv4(), "192.0.2.1");
    EXPECT_EQ(ipv6(), "2001:db8::1");
    EXPECT_THAT(addresses, ElementsAre("eth1 + 192.0.2.1", "eth1 + 198.51.100.1 secondary", "eth1 :: -> 2001:db8::1"));
}

TEST_F(InterfaceAddresses, AreNotThoseOfTheLinkOrTheHost)
{
    add("169.254.1.1", IFA_F_PERMANENT, RT_SCOPE_LINK);
    add("127.0.0.1", IFA_F_PERMANENT, RT_SCOPE_HOST);
    add("fe80::1", IFA_F_PERMANENT, RT_SCOPE_LINK);

    EXPECT_EQ(ipv4(), "0.0.0.0");
    EXPECT_EQ(ipv6(), "::");
    EXPECT_THAT(addresses, IsEmpty());
}

TEST_F(InterfaceAddresses, PassToTheNextOneWhenTheFirstGoes)
{
    add("192.0.2.1");
    add("198.51.100.1");
    add("2001:db8::1");
    add("2001:db8::2");
    addresses.clear();
    remove("192.0.2.1");
    remove("2001:db8::1");

    EXPECT_THAT(addresses, ElementsAre("eth1 - 192.0.2.1", "eth1 + 198.51.100.1", "eth1 2001:db8::1 -> 2001:db8::2"));
    EXPECT_EQ(ipv4(), "198.51.100.1");
}

TEST_F(InterfaceAddresses, TellASecondOneThatGoesAsSecondary)
{
    add("192.0.2.1");
    add("198.51.100.1");
    addresses.clear();
    remove("198.51.100.1");

    EXPECT_THAT(addresses, ElementsAre("eth1 - 198.51.100.1 secondary"));
    EXPECT_EQ(ipv4(), "192.0.2.1");
}

TEST_F(InterfaceAddresses, SayNothingTwice)
{
    add("192.0.2.1");
    add("2001:db8::1");
    addresses.clear();
    add("192.0.2.1");
    add("2001:db8::1");

    EXPECT_THAT(addresses, IsEmpty());
}

TEST_F(InterfaceAddresses, StayWhenTheSameAddressIsThereWithAnotherPrefix)
{
    add("192.0.2.1");
    address_info wider = address_of(7, "192.0.2.1");
    wider.prefix_length = 16;
    manager->address(wider, true);
    addresses.clear();
    remove("192.0.2.1");

    EXPECT_EQ(ipv4(), "192.0.2.1");
    EXPECT_THAT(addresses, IsEmpty());
}

TEST_F(InterfaceAddresses, CountAnIpv6AddressFromTheEndOfItsProbing)
{
    add("2001:db8::1", IFA_F_PERMANENT | IFA_F_TENTATIVE);
    EXPECT_EQ(ipv6(), "::");
    add("2001:db8::1", IFA_F_PERMANENT);

    EXPECT_THAT(addresses, ElementsAre("eth1 :: -> 2001:db8::1"));
}

TEST_F(InterfaceAddresses, LeaveAnIpv6AddressThatTurnsOutToBeADouble)
{
    add("2001:db8::1");
    add("2001:db8::1", IFA_F_PERMANENT | IFA_F_TENTATIVE | IFA_F_DADFAILED);

    EXPECT_EQ(ipv6(), "::");
}

TEST_F(InterfaceAddresses, PreferLastingIpv6AddressesButKeepTheOneInUse)
{
    add("2001:db8::1");
    remove("2001:db8::1");
    manager->snapshot({{device(7, "eth1")},
                       {address_of(7, "2001:db8::7", IFA_F_TEMPORARY), address_of(7, "2001:db8::8", IFA_F_DEPRECATED)}});
    EXPECT_EQ(ipv6(), "2001:db8::7");
    add("2001:db8::9");
    EXPECT_EQ(ipv6(), "2001:db8::7");
    remove("2001:db8::7");
    EXPECT_EQ(ipv6(), "2001:db8::9");
}

TEST_F(InterfaceAddresses, PassToTheNewOneWhenASnapshotShowsThatTheOldIsGone)
{
    add("192.0.2.1");
    add("2001:db8::1");
    addresses.clear();
    manager->snapshot({{device(7, "eth1")}, {address_of(7, "192.0.2.2"), address_of(7, "2001:db8::2")}});

    EXPECT_EQ(ipv4(), "192.0.2.2");
    EXPECT_EQ(ipv6(), "2001:db8::2");
    EXPECT_THAT(addresses, ElementsAre("eth1 + 192.0.2.2 secondary", "eth1 - 192.0.2.1", "eth1 + 192.0.2.2",
                                       "eth1 2001:db8::1 -> 2001:db8::2"));
}

} // namespace
} // namespace corvaned
