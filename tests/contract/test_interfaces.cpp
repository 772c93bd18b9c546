// Interface manager, addresses, groups, VLAN manager.
#include "contract_test.h"

#include "ip.h"
#include "ipv6.h"
#include "svcmgr.h"
#include "vlanmgr.h"
#include "vrfmgr.h"

#include <array>
#include <net/if.h>

using namespace contract;

namespace {

constexpr std::uint32_t SAP = 640, PACKET_SAP = 641;
constexpr const char *DEVICE = "dev7";

class ContractInterfaces : public ContractTest {
protected:
    ContractInterfaces() : queue(bind(SAP, 1024))
    {
        const char *error = nullptr;
        EXPECT_EQ(intfmgr_ext_sbcr_init(SERVICE, queue, "contract", &error), 0u) << error;
        for (const std::uint32_t opcode :
             {INTFMGR_OPC_CREATE, INTFMGR_OPC_DELETE, INTFMGR_OPC_L3_STATE, INTFMGR_OPC_L3_PARAM})
            EXPECT_EQ(mbus_options_set(queue, opcode, 16), 0);
    }
    ~ContractInterfaces() override { remove_device(DEVICE); }
    std::uint32_t add()
    {
        add_device(DEVICE);
        EXPECT_TRUE(eventually([] { return iod(DEVICE) != 0; }));
        return iod(DEVICE);
    }
    // Whether a notification of that opcode tells of the interface; others are skipped.
    bool told(std::uint32_t opcode, std::uint32_t of)
    {
        mbus_msg msg;
        while (receive(queue, msg)) {
            bool found = false;
            intfmgr_change_iterator iterator;
            intfmgr_change change;
            if (mbus_opc_get(msg) == opcode && intfmgr_parse_change_iterator_init(iterator, msg))
                while (intfmgr_parse_change_iterate(iterator, change))
                    found = found || change.iod == of;
            mbus_drop(queue, msg);
            if (found)
                return true;
        }
        return false;
    }
    mbus_q queue;
};

TEST_F(ContractInterfaces, KnowADeviceByNameIodAndIfindex)
{
    const std::uint32_t known = iod(CORE);
    ASSERT_NE(known, 0u);
    EXPECT_LE(known, INTFMGR_IOD_MAX);
    std::array<char, INTFMGR_NAME_SIZE> name{};
    EXPECT_TRUE(intfmgr_get_if_name(known, name.data(), name.size()));
    EXPECT_STREQ(name.data(), CORE);
    std::uint32_t ifindex = 0;
    ASSERT_TRUE(intfmgr_get_ifindex(known, ifindex));
    EXPECT_EQ(intfmgr_get_iod_frm_ifindex(ifindex), known);
    EXPECT_TRUE(intfmgr_is_if_up(known));
    EXPECT_FALSE(intfmgr_is_switchport(known));
    EXPECT_FALSE(intfmgr_is_tunnel(known));
}

TEST_F(ContractInterfaces, CutANameToTheRoomThereIs)
{
    std::array<char, 4> name{'x', 'x', 'x', 'x'};
    EXPECT_TRUE(intfmgr_get_if_name(iod(CORE), name.data(), name.size()));
    EXPECT_STREQ(name.data(), "cor");
}

TEST_F(ContractInterfaces, KnowNothingOfAnUnknownOne)
{
    std::array<char, 8> name{'x'};
    std::uint32_t ifindex = 0;
    for (const std::uint32_t unknown : {0u, 766u, 768u, 0xFFFFFFFFu}) {
        EXPECT_FALSE(intfmgr_get_if_name(unknown, name.data(), name.size()));
        EXPECT_STREQ(name.data(), "");
        EXPECT_FALSE(intfmgr_get_ifindex(unknown, ifindex));
        EXPECT_FALSE(intfmgr_is_if_up(unknown) || intfmgr_is_switchport(unknown) || intfmgr_is_lum_tunnel(unknown));
        EXPECT_EQ(ip_if_address_get(unknown), 0u);
        EXPECT_EQ(ipv6_if_address_get(unknown), ipv6_address{});
    }
    EXPECT_EQ(intfmgr_get_if_by_name("nowhere"), 0u);
    EXPECT_EQ(intfmgr_get_if_by_name(""), 0u);
    EXPECT_EQ(intfmgr_get_iod_frm_ifindex(0x7FFFFFFF), 0u);
}

TEST_F(ContractInterfaces, TellSwitchportsAndOverlaysApart)
{
    EXPECT_TRUE(intfmgr_is_switchport(iod(SWITCHPORT)));
    EXPECT_FALSE(intfmgr_is_lum_tunnel(iod(SWITCHPORT)));
    EXPECT_TRUE(intfmgr_is_lum_tunnel(iod(OVERLAY)));
    EXPECT_TRUE(intfmgr_is_tunnel(iod(OVERLAY)));
    EXPECT_FALSE(intfmgr_is_switchport(iod(OVERLAY)));
    EXPECT_TRUE(intfmgr_is_if_up(iod(OVERLAY))) << "an overlay interface starts up";
}

TEST_F(ContractInterfaces, AnnounceCreationStateAndRemoval)
{
    const std::uint32_t added = add();
    EXPECT_TRUE(told(INTFMGR_OPC_CREATE, added));
    EXPECT_FALSE(intfmgr_is_if_up(added));
    set_link(DEVICE, true);
    EXPECT_TRUE(told(INTFMGR_OPC_L3_STATE, added));
    EXPECT_TRUE(eventually([&] { return intfmgr_is_if_up(added); }));
    remove_device(DEVICE);
    EXPECT_TRUE(told(INTFMGR_OPC_DELETE, added));
    EXPECT_TRUE(eventually([] { return iod(DEVICE) == 0; }));
}

TEST_F(ContractInterfaces, GiveADeviceThatComesBackItsIodAgain)
{
    const std::uint32_t first = add();
    remove_device(DEVICE);
    ASSERT_TRUE(eventually([] { return iod(DEVICE) == 0; }));
    EXPECT_EQ(add(), first);
}

TEST_F(ContractInterfaces, HaveTheAddressesOfTheirDevices)
{
    EXPECT_EQ(ip_if_address_get(iod(CORE)), CORE_ADDRESS);
    EXPECT_EQ(ipv6_if_address_get(iod(CORE)), CORE_ADDRESS6);
    EXPECT_EQ(ip_if_address_get(iod(SWITCHPORT)), 0u);
    EXPECT_TRUE(vrfmgr_api_init());
    (void)vrfmgr_if_get_context_id(iod(CORE));
}

TEST_F(ContractInterfaces, AnnounceAddressesThatComeAndGo)
{
    const mbus_q packets = bind(PACKET_SAP);
    const ip_client client = ip_api_init();
    ASSERT_NE(client, 0u);
    ASSERT_TRUE(ip_register("contract", packets, queue, 0, 65535, client, 0, 0));
    const std::uint32_t added = add();
    set_link(DEVICE, true);
    add_address(DEVICE, "198.51.100.7", 24);
    const auto change = [&](std::uint32_t wanted) {
        mbus_msg msg;
        ip_address_change got{};
        while (receive(queue, msg)) {
            const bytes data = payload(msg);
            const bool of_ip = mbus_opc_get(msg) == IP_NOTIFY_OPCODE && data.size() >= sizeof got;
            mbus_drop(queue, msg);
            if (!of_ip)
                continue;
            std::memcpy(&got, data.data(), sizeof got);
            if (got.msg_class == IP_MSG_CLASS && got.iod == added && got.change == wanted)
                return got;
        }
        return ip_address_change{};
    };
    ip_address_change got = change(1);
    EXPECT_EQ(got.kind, IP_MSG_ADDRESS_CHANGE);
    EXPECT_EQ(got.address, 0xC6336407u);
    EXPECT_EQ(got.secondary, 0u);
    EXPECT_TRUE(eventually([&] { return ip_if_address_get(added) == 0xC6336407; }));
    remove_address(DEVICE, "198.51.100.7", 24);
    got = change(0);
    EXPECT_EQ(got.address, 0xC6336407u);
    EXPECT_TRUE(eventually([&] { return ip_if_address_get(added) == 0; }));
    ip_api_close(client);
}

TEST_F(ContractInterfaces, JoinAndLeaveGroups)
{
    constexpr std::uint32_t GROUP = 0xEF010101;
    const ipv6_address group6{0xFF, 0x05, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1};
    const ip_client client = ip_api_init();
    const ipv6_client client6 = ipv6_api_init();
    ip_group_join(iod(CORE), GROUP);
    ip_group_join(iod(CORE), GROUP);
    EXPECT_TRUE(eventually([&] { return group_joined(CORE, GROUP); }));
    ipv6_group_join(iod(CORE), group6);
    EXPECT_TRUE(eventually([&] { return group_joined(CORE, group6); }));
    ip_group_leave(iod(CORE), GROUP);
    EXPECT_TRUE(eventually([&] { return !group_joined(CORE, GROUP); })) << "joining twice is joining once";
    ipv6_group_leave(iod(CORE), group6);
    EXPECT_TRUE(eventually([&] { return !group_joined(CORE, group6); }));
    ipv6_api_close(client6);
    ip_api_close(client);
}

TEST_F(ContractInterfaces, TheVlanManagerAnswersForAVlanWithoutPorts)
{
    const std::array<std::uint32_t, 1> vlans{77};
    vlan_memb_payload query;
    ASSERT_TRUE(vlan_get_per_vlan_memb_info_build_mbus_local(vlans, query));
    ASSERT_EQ(mbus_options_set(queue, VLANMGR_OPC_MEMBERSHIP, 17), 0);
    ASSERT_EQ(mbus_send(queue, {0, VLANMGR_SAP}, VLANMGR_OPC_MEMBERSHIP, query.data, query.length, {}), 0);
    vlan_memb_payload_free(query);
    mbus_msg msg;
    std::uint32_t opcode = 0;
    while (opcode != VLANMGR_OPC_MEMBERSHIP) {
        ASSERT_TRUE(receive(queue, msg));
        opcode = mbus_opc_get(msg);
        if (opcode != VLANMGR_OPC_MEMBERSHIP)
            mbus_drop(queue, msg);
    }
    std::array<vlan_memb_pair, VLAN_MEMB_PAIRS_MAX> pairs{};
    std::uint32_t vlan = 0;
    std::size_t count = 9;
    EXPECT_TRUE(vlan_get_per_vlan_memb_info_parse_reply_local(msg, vlan, pairs, count));
    EXPECT_EQ(vlan, 77u);
    EXPECT_EQ(count, 0u);
    mbus_drop(queue, msg);
}

} // namespace
