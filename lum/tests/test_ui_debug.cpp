// Debug commands and the filters of packet traces.
#include "control_test.h"

#include <cstring>

using namespace fake;
using namespace testing;

namespace
{

struct LumDebugFlags : ControlTest {};

TEST_F(LumDebugFlags, EachCommandSetsItsFlagAndRecordsItUnderItsNumber)
{
    struct row {
        cli_handler handler;
        std::uint32_t *flag;
        const char *element;
    };
    for (const row &r : {row{lum_debug_packet_command, &lum_packet_debug_flag, "117"},
                         row{lum_debug_learn_command, &lum_learn_debug_flag, "118"},
                         row{lum_debug_internal_command, &lum_internal_debug_flag, "119"},
                         row{lum_debug_event_command, &lum_event_debug_flag, "120"},
                         row{lum_debug_arp_nd_command, &lum_arp_nd_debug_flag, "121"}}) {
        platform.forget();
        EXPECT_EQ(platform.command(r.handler).status, 0);
        EXPECT_EQ(*r.flag, 1u);
        EXPECT_EQ(platform.command(r.handler, {}, true).status, 0);
        EXPECT_EQ(*r.flag, 0u);
        EXPECT_THAT(platform.call_texts({"hakit_evhist_set_elem"}),
                    ElementsAre(std::string("hakit_evhist_set_elem(") + r.element + ", 1)",
                                std::string("hakit_evhist_set_elem(") + r.element + ", 0)"));
    }
}

TEST_F(LumDebugFlags, TheInternalOneSwitchesTheDebuggingOfTheHaKitToo)
{
    platform.command(lum_debug_internal_command);
    EXPECT_EQ(platform.called("hakit_ha_enable_debug"), 1u);
    EXPECT_EQ(platform.called("hakit_ha_disable_debug"), 0u);
    platform.command(lum_debug_internal_command, {}, true);
    EXPECT_EQ(platform.called("hakit_ha_disable_debug"), 1u);
    platform.forget();
    platform.command(lum_debug_event_command);
    EXPECT_EQ(platform.called("hakit_ha_enable_debug"), 0u);
}

struct LumDebugPacket : ControlTest {
    const lum_mac_info source{10, mac("02:00:00:00:00:01")}, destination{20, mac("02:00:00:00:00:02")};
    static constexpr char SOURCE[] = "10/02:00:00:00:00:01", DESTINATION[] = "20/02:00:00:00:00:02";

    struct filters {
        std::uint32_t flag, source_kind, destination_kind, unicast, multicast, broadcast;
        bool operator==(const filters &) const = default;
    };
    static filters current()
    {
        return {lum_packet_debug_flag,    lum_packet_debug_sa.kind,   lum_packet_debug_da.kind,
                lum_packet_debug_unicast, lum_packet_debug_multicast, lum_packet_debug_broadcast};
    }
    static command_result debug(const command_arguments &arguments, bool no = false)
    {
        platform.forget();
        return platform.command(lum_debug_packet_command, arguments, no);
    }
    void set_everything()
    {
        lum_packet_debug_flag = 1;
        lum_packet_debug_sa = lum_addr_mac(source);
        lum_packet_debug_da = lum_addr_mac(destination);
        lum_packet_debug_unicast = lum_packet_debug_multicast = lum_packet_debug_broadcast = 1;
    }
};

TEST_F(LumDebugPacket, WithoutArgumentsTracesEveryKind)
{
    EXPECT_EQ(debug({}).output, "");
    EXPECT_EQ(current(), (filters{1, 0, 0, 1, 1, 1}));
}

TEST_F(LumDebugPacket, KindsAreThoseGivenAndReplaceTheEarlierOnes)
{
    set_everything();
    debug({{"multicast", ""}});
    EXPECT_EQ(current(), (filters{1, 0, 0, 0, 1, 0}));
    debug({{"unicast", ""}, {"broadcast", ""}});
    EXPECT_EQ(current(), (filters{1, 0, 0, 1, 0, 1}));
}

TEST_F(LumDebugPacket, AMacFilterAloneSetsNoKind)
{
    debug({{"<smac-info>", SOURCE}});
    EXPECT_EQ(current(), (filters{1, 3, 0, 0, 0, 0}));
    EXPECT_TRUE(lum_addr_equal(lum_packet_debug_sa, lum_addr_mac(source)));
    debug({{"<dmac-info>", DESTINATION}});
    EXPECT_EQ(current(), (filters{1, 0, 3, 0, 0, 0}));
    EXPECT_TRUE(lum_addr_equal(lum_packet_debug_da, lum_addr_mac(destination)));
}

TEST_F(LumDebugPacket, BothFiltersAndAKindGoTogether)
{
    debug({{"<smac-info>", SOURCE}, {"<dmac-info>", DESTINATION}, {"unicast", ""}});
    EXPECT_EQ(current(), (filters{1, 3, 3, 1, 0, 0}));
}

TEST_F(LumDebugPacket, TheNoFormClearsFlagAndFilters)
{
    for (const command_arguments &arguments :
         {command_arguments{}, command_arguments{{"<smac-info>", SOURCE}},
          command_arguments{{"<dmac-info>", DESTINATION}}, command_arguments{{"unicast", ""}}}) {
        set_everything();
        EXPECT_EQ(debug(arguments, true).status, 0);
        EXPECT_EQ(current(), (filters{0, 0, 0, 0, 0, 0}));
        EXPECT_THAT(platform.call_texts({"hakit_evhist_set_elem"}), ElementsAre("hakit_evhist_set_elem(117, 0)"));
    }
}

TEST_F(LumDebugPacket, AMalformedSourceClearsTheFiltersAndLeavesTheFlag)
{
    for (const bool no : {false, true}) {
        set_everything();
        const command_result result = debug({{"<smac-info>", "4096/02:00:00:00:00:01"}}, no);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.output, "Illegal VLAN-id\n");
        EXPECT_EQ(current(), (filters{1, 0, 0, 0, 0, 0}));
        EXPECT_EQ(platform.called("hakit_evhist_set_elem"), 0u);
    }
}

TEST_F(LumDebugPacket, AMalformedDestinationLeavesTheSourceThatWasGivenBeforeItAndNoKind)
{
    set_everything();
    lum_packet_debug_flag = 0;
    const command_result result = debug({{"<smac-info>", SOURCE}, {"<dmac-info>", "20/02"}, {"unicast", ""}});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "Illegal VLAN-id\n");
    EXPECT_EQ(current(), (filters{0, 3, 0, 0, 0, 0}));
    EXPECT_EQ(platform.called("hakit_evhist_set_elem"), 0u);
}

TEST_F(LumDebugPacket, AMalformedDestinationLeavesTheFlagToo)
{
    set_everything();
    const command_result result = debug({{"<dmac-info>", "nonsense"}}, true);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "Illegal VLAN-id\n");
    EXPECT_EQ(current(), (filters{1, 0, 0, 0, 0, 0}));
}

} // namespace
