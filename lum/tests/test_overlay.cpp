// Overlay records and the overlay table.
#include "control_test.h"

#include <cstring>

using namespace fake;
using namespace testing;

namespace
{

struct LumOverlayTable : ControlTest {};

TEST_F(LumOverlayTable, GivesANewRecordTheDefaults)
{
    lum_overlay *overlay = lum_create_overlay(OVERLAY);
    ASSERT_NE(overlay, nullptr);
    EXPECT_EQ(overlay->iod, 100u);
    EXPECT_EQ(overlay->ifindex, 1100u);
    EXPECT_EQ(overlay->vpn_id, 100u);
    EXPECT_STREQ(overlay->if_name, "Overlay1");
    EXPECT_STREQ(overlay->vpn_name, "");
    EXPECT_EQ(overlay->state, 1u);
    EXPECT_EQ(overlay->reason, 1u);
    EXPECT_EQ(overlay->encap_type, 2u);
    EXPECT_EQ(overlay->encap_family, 4u);
    EXPECT_EQ(overlay->suppress_arp, 1u);
    EXPECT_EQ(overlay->data_group.base, 0xE8C00000u);
    EXPECT_EQ(overlay->data_group.length, 10);
    EXPECT_EQ(overlay->data_group6.base, ipv6("ff02::1:0:0"));
    EXPECT_EQ(overlay->data_group6.length, 96);
    EXPECT_EQ(overlay->ext_if_count, 0u);
    EXPECT_EQ(overlay->ext_if[0].iod, 0u);
    EXPECT_EQ(overlay->delete_msg, mbus_msg{});
    EXPECT_EQ(overlay->vlans->bits(), 4096u);
    EXPECT_EQ(overlay->vlans->count(), 0u);
    EXPECT_EQ(overlay->local_ordinal, 0u);
    EXPECT_EQ(platform.memory_blocks(1), 1u);
}

TEST_F(LumOverlayTable, DefaultIpv6GroupRangeHasThreeBytesSetAndAnswersZero)
{
    lum_ipv6_range range;
    range.base.fill(0xAA);
    EXPECT_EQ(lum_get_default_ipv6_core_group(range), 0);
    EXPECT_EQ(range.base, (ipv6_address{0xFF, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0}));
    EXPECT_EQ(range.length, 96);
}

TEST_F(LumOverlayTable, CutsAnInterfaceNameToAHundredCharacters)
{
    platform.add_interface(200, std::string(120, 'x'), {.overlay = true});
    EXPECT_EQ(std::strlen(make_overlay(200).if_name), 100u);
}

TEST_F(LumOverlayTable, LeavesTheRecordAloneWhenTheInterfaceIsUnknown)
{
    lum_overlay overlay{};
    EXPECT_FALSE(lum_init_overlay(overlay, 300));
    EXPECT_EQ(overlay.iod, 0u);
    EXPECT_EQ(overlay.state, 0u);
    EXPECT_EQ(overlay.vlans, nullptr);
}

TEST_F(LumOverlayTable, FreesTheRecordOfAnUnknownInterface)
{
    EXPECT_EQ(lum_create_overlay(300), nullptr);
    EXPECT_EQ(platform.memory_blocks(1), 0u);
    EXPECT_EQ(avlt_count(lum_svr.overlays), 0u);
}

TEST_F(LumOverlayTable, CreatesNothingWithoutMemory)
{
    platform.fail("memacct_alloc");
    EXPECT_EQ(lum_create_overlay(OVERLAY), nullptr);
    EXPECT_EQ(avlt_count(lum_svr.overlays), 0u);
}

TEST_F(LumOverlayTable, ASecondRecordOfAnInterfaceIsRefusedAndTheFirstStays)
{
    lum_overlay &first = make_overlay();
    EXPECT_EQ(lum_create_overlay(OVERLAY), nullptr);
    EXPECT_EQ(lum_get_overlay(OVERLAY), &first);
    EXPECT_EQ(platform.memory_blocks(1), 1u);
}

TEST_F(LumOverlayTable, PublishesANewOverlayAndThenAnnouncesIt)
{
    lum_event_debug_flag = 1;
    ASSERT_NE(lum_add_overlay(OVERLAY), nullptr);
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78851"));
    EXPECT_TRUE(platform.traced("Creating overlay Overlay1\n"));
}

TEST_F(LumOverlayTable, PublishesNothingOfAnOverlayThatCannotBeCreated)
{
    EXPECT_EQ(lum_add_overlay(300), nullptr);
    EXPECT_THAT(told(), IsEmpty());
}

TEST_F(LumOverlayTable, CreatingAnOverlayTwiceMakesOneRecordAndReplaysItsConfigurationTwice)
{
    EXPECT_EQ(lum_create_or_init_overlay(OVERLAY), 1);
    const lum_overlay *record = lum_get_overlay(OVERLAY);
    EXPECT_EQ(lum_create_or_init_overlay(OVERLAY), 1);
    EXPECT_EQ(lum_get_overlay(OVERLAY), record);
    EXPECT_EQ(avlt_count(lum_svr.overlays), 1u);
    EXPECT_THAT(platform.call_texts({"cli_send_my_if_commands"}),
                ElementsAre("cli_send_my_if_commands(100)", "cli_send_my_if_commands(100)"));
    EXPECT_THAT(told(), ElementsAre("publish 2", "notify 78851"));
}

TEST_F(LumOverlayTable, SaysThatAnOverlayCouldNotBeAddedAndReplaysNothing)
{
    EXPECT_EQ(lum_create_or_init_overlay(300), 0);
    EXPECT_THAT(platform.syslog_texts(), ElementsAre("<<%LUM-3-OVLY_ADD>> Failed to add overlay entry"));
    EXPECT_EQ(platform.called("cli_send_my_if_commands"), 0u);
}

TEST_F(LumOverlayTable, IodZeroIsNeverAnOverlay)
{
    EXPECT_EQ(lum_get_overlay(0), nullptr);
    EXPECT_EQ(lum_create_or_init_overlay(0), 0);
    EXPECT_EQ(avlt_count(lum_svr.overlays), 0u);
}

TEST_F(LumOverlayTable, DestroyingTakesTheRecordOutOfTheTableAndClearsTheCallersPointer)
{
    lum_overlay *overlay = &make_overlay();
    lum_cache_arp_nd(*overlay, ipv4(10, 0, 0, 1), {}, 10, mac("02:00:00:00:00:01").data());
    EXPECT_EQ(platform.memory_blocks(6), 1u);
    lum_destroy_overlay(&overlay);
    EXPECT_EQ(overlay, nullptr);
    EXPECT_EQ(lum_get_overlay(OVERLAY), nullptr);
    EXPECT_EQ(platform.memory_blocks(1), 0u);
    EXPECT_EQ(platform.memory_blocks(6), 0u);    // its ARP/ND cache went with it
}

TEST_F(LumOverlayTable, DestroyingNothingDoesNothing)
{
    lum_destroy_overlay(nullptr);
    lum_overlay *none = nullptr;
    lum_destroy_overlay(&none);
    EXPECT_EQ(none, nullptr);
}

TEST_F(LumOverlayTable, DestroyingARecordWithoutIodLeavesTheTableAlone)
{
    const lum_overlay &kept = make_overlay();
    auto *bare = static_cast<lum_overlay *>(memacct_alloc(581, 1, sizeof(lum_overlay)));
    lum_destroy_overlay(&bare);
    EXPECT_EQ(lum_get_overlay(OVERLAY), &kept);
}

TEST_F(LumOverlayTable, IsWalkedInAscendingUnsignedOrderOfTheIods)
{
    // The interface manager gives out small iods; the order must not depend on that.
    std::vector<std::uint32_t> walked;
    std::array<lum_overlay, 4> records{};
    const std::array<std::uint32_t, 4> iods{0x80000001, 7, 0xFFFFFFFF, 0x7FFFFFFF};
    for (std::size_t i = 0; i < records.size(); ++i) {
        records[i].iod = iods[i];
        ASSERT_TRUE(avlt_insert(lum_svr.overlays, &records[i].node));
    }
    avlt_iterator iterator;
    avlt_iterator_init(iterator, lum_svr.overlays);
    while (avlt_node *node = avlt_next(iterator))
        walked.push_back(reinterpret_cast<lum_overlay *>(node)->iod);
    for (lum_overlay &record : records)
        avlt_remove(lum_svr.overlays, &record.node);
    EXPECT_THAT(walked, ElementsAre(7, 0x7FFFFFFF, 0x80000001, 0xFFFFFFFF));
}

struct LumOverlayNames : ControlTest {};

TEST_F(LumOverlayNames, DisplayNameIsTheVpnNameThenTheInterfaceNameThenNone)
{
    lum_overlay &overlay = make_overlay();
    EXPECT_STREQ(lum_overlay_display_name(&overlay), "Overlay1");
    std::strcpy(overlay.vpn_name, "blue");
    EXPECT_STREQ(lum_overlay_display_name(&overlay), "blue");
    EXPECT_STREQ(lum_overlay_display_name(nullptr), "[No overlay]");
}

TEST_F(LumOverlayNames, StatesAndReasonsHaveTheirTextsAndOthersAreInvalid)
{
    EXPECT_STREQ(lum_overlay_state_str(0), "None");
    EXPECT_STREQ(lum_overlay_state_str(1), "DOWN");
    EXPECT_STREQ(lum_overlay_state_str(2), "UP");
    EXPECT_STREQ(lum_overlay_state_str(3), "Invalid");
    EXPECT_STREQ(lum_overlay_reason_str(0), "None");
    EXPECT_STREQ(lum_overlay_reason_str(1), "Incomplete Parameters");
    EXPECT_STREQ(lum_overlay_reason_str(2), "Admin Down");
    EXPECT_STREQ(lum_overlay_reason_str(3), "Delete Holddown");
    EXPECT_STREQ(lum_overlay_reason_str(4), "Invalid");
    EXPECT_STREQ(lum_overlay_state_str(0xFFFFFFFF), "Invalid");
}

struct LumOverlayLookup : ControlTest {
    static lum_overlay *selected(const command_arguments &arguments)
    {
        static lum_overlay *found;
        found = nullptr;
        platform.command([](cli_cmd *cmd) {
            plock_assert_held();
            found = lum_exec_get_overlay(cmd);
            return 0;
        }, arguments);
        return found;
    }
};

TEST_F(LumOverlayLookup, ByVpnNameFindsNothingEvenWhenAnOverlayHasIt)
{
    lum_overlay &overlay = make_overlay();
    std::strcpy(overlay.vpn_name, "blue");
    EXPECT_EQ(lum_get_overlay_by_name(), nullptr);
    EXPECT_EQ(selected({{"<overlay-name>", "blue"}}), nullptr);
}

TEST_F(LumOverlayLookup, ByInterfaceNameFindsTheOverlayAndWinsOverTheVpnName)
{
    lum_overlay &overlay = make_overlay();
    EXPECT_EQ(selected({{"<if-name>", "Overlay1"}}), &overlay);
    EXPECT_EQ(selected({{"<if-name>", "Overlay1"}, {"<overlay-name>", "x"}}), &overlay);
    EXPECT_EQ(selected({{"<if-name>", "Overlay9"}}), nullptr);
    EXPECT_EQ(selected({{"<if-name>", "eth5"}}), nullptr);
    EXPECT_EQ(selected({}), nullptr);
}

TEST_F(LumOverlayLookup, GroupAddressFollowsTheEncapsulationFamily)
{
    lum_overlay &overlay = make_up_overlay();
    overlay.ipv6_group = lum_addr_next_hop(OVERLAY, ipv6("ff05::1"));
    std::uint32_t iod = 0;
    EXPECT_EQ(lum_get_group_address_from_overlay(&overlay, &iod), &overlay.ipv4_group);
    EXPECT_EQ(iod, CORE);
    overlay.encap_family = 5;
    EXPECT_EQ(lum_get_group_address_from_overlay(&overlay, &iod), &overlay.ipv6_group);
    overlay.encap_family = 6;
    EXPECT_EQ(lum_get_group_address_from_overlay(&overlay, &iod), nullptr);
}

TEST_F(LumOverlayLookup, GroupAddressIsNoneWithoutOverlayOrResolvedInterface)
{
    lum_overlay &overlay = make_up_overlay();
    std::uint32_t iod = 77;
    EXPECT_EQ(lum_get_group_address_from_overlay(nullptr, &iod), nullptr);
    EXPECT_EQ(lum_get_group_address_from_overlay(&overlay, nullptr), nullptr);
    overlay.ext_if[0].iod = 0;
    EXPECT_EQ(lum_get_group_address_from_overlay(&overlay, &iod), nullptr);
    EXPECT_EQ(iod, 77u);
}

TEST_F(LumOverlayLookup, EncapsulationTypeIsTheRecordsAndZeroForAnUnknownOverlay)
{
    make_overlay().encap_type = 1;
    EXPECT_EQ(lum_get_encap_type(OVERLAY), 1u);
    EXPECT_EQ(lum_get_encap_type(OVERLAY2), 0u);
    EXPECT_EQ(lum_get_encap_type(0), 0u);
}

} // namespace
