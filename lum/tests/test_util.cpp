// Texts for messages and traces, and the hex dump.
#include "control_test.h"

#include "lum_msgs.h"
#include "lum_syslog_def.h"

#include <cstdio>
#include <numeric>

using namespace fake;
using namespace testing;

namespace
{

struct LumHexDump : ControlTest {
    std::array<std::uint8_t, 200> data{};
    LumHexDump()
    {
        std::iota(data.begin(), data.end(), std::uint8_t{0});
        lum_internal_debug_flag = 1;
    }
    // What was traced behind the headline.
    std::vector<std::string> dump(std::uint32_t length)
    {
        platform.forget();
        lum_hex_dump(1, data.data(), length);
        std::vector<std::string> lines = platform.trace_texts();
        char headline[80];
        std::snprintf(headline, sizeof headline, "Hexdump at %p, %d bytes:\n", static_cast<void *>(data.data()),
                      static_cast<int>(std::min(length, 160u)));
        EXPECT_FALSE(lines.empty());
        EXPECT_EQ(lines.at(0), headline);
        lines.erase(lines.begin());
        return lines;
    }
};

TEST_F(LumHexDump, DoesNothingUnlessEnabled)
{
    lum_hex_dump(0, data.data(), 16);
    EXPECT_THAT(platform.traces, IsEmpty());
}

TEST_F(LumHexDump, DoesNothingUnderAClearFlag)
{
    lum_internal_debug_flag = 0;
    lum_hex_dump(1, data.data(), 16);
    EXPECT_THAT(platform.traces, IsEmpty());
    EXPECT_THAT(platform.events, IsEmpty());
}

TEST_F(LumHexDump, AFullLineHasSixteenBytesInFourGroupsAndNoEmptyLineFollows)
{
    EXPECT_THAT(dump(16), ElementsAre("     00010203 04050607 08090A0B 0C0D0E0F\n"));
}

TEST_F(LumHexDump, APartialLineEndsWhereItsBytesDo)
{
    EXPECT_THAT(dump(1), ElementsAre("     00\n"));
    EXPECT_THAT(dump(5), ElementsAre("     00010203 04\n"));
    EXPECT_THAT(dump(17), ElementsAre("     00010203 04050607 08090A0B 0C0D0E0F\n", "     10\n"));
}

TEST_F(LumHexDump, AGroupThatEndsAPartialLineKeepsItsSpace)
{
    EXPECT_THAT(dump(4), ElementsAre("     00010203 \n"));
    EXPECT_THAT(dump(12), ElementsAre("     00010203 04050607 08090A0B \n"));
}

TEST_F(LumHexDump, NoBytesMakeOneLineOfFiveSpaces)
{
    EXPECT_THAT(dump(0), ElementsAre("     \n"));
}

TEST_F(LumHexDump, StopsAfterAHundredAndSixtyBytes)
{
    const std::vector<std::string> lines = dump(200);
    ASSERT_THAT(lines, SizeIs(10));
    EXPECT_EQ(lines.back(), "     90919293 94959697 98999A9B 9C9D9E9F\n");
}

struct LumTexts : ControlTest {
    lum_text out;
};

TEST_F(LumTexts, MacAndMacInfo)
{
    EXPECT_STREQ(lum_print_mac(mac("02:00:00:00:00:0a").data(), out), "02:00:00:00:00:0a");
    EXPECT_STREQ(lum_print_mac_info({100, mac("02:00:00:00:00:0a")}, out), "100/02:00:00:00:00:0a");
}

TEST_F(LumTexts, Addresses)
{
    EXPECT_STREQ(lum_print_ipv4(ipv4(239, 1, 1, 255), out), "239.1.1.255");
    EXPECT_STREQ(lum_print_ipv4(0, out), "0.0.0.0");
    EXPECT_STREQ(lum_print_ipv6(ipv6("2001:db8::1"), out), "2001:db8::1");
    EXPECT_STREQ(lum_print_ipv6({}, out), "::");
}

TEST_F(LumTexts, TaggedAddressesOfEveryKind)
{
    EXPECT_STREQ(lum_print_addr({}, out), "[None]");
    EXPECT_STREQ(lum_print_addr(lum_addr_iod(PORT), out), "eth1");
    EXPECT_STREQ(lum_print_addr(local_ifindex(1001), out), "ifindex 1001");
    EXPECT_STREQ(lum_print_addr(lum_addr_mac({100, mac("02:00:00:00:00:0a")}), out), "100/02:00:00:00:00:0a");
    EXPECT_STREQ(lum_print_addr(lum_addr_ipv4(CORE_IPV4), out), "192.0.2.1");
    EXPECT_STREQ(lum_print_addr(lum_addr_ipv6(ipv6("ff05::1")), out), "ff05::1");
    EXPECT_STREQ(lum_print_addr(lum_addr_next_hop(OVERLAY, CORE_IPV4), out), "192.0.2.1");
    EXPECT_STREQ(lum_print_addr(lum_addr_next_hop(OVERLAY, ipv6("ff05::1")), out), "ff05::1");
}

TEST_F(LumTexts, InterfaceNamesAreEmptyForUnknownOnes)
{
    EXPECT_STREQ(lum_if_name(PORT, out), "eth1");
    EXPECT_STREQ(lum_if_name(300, out), "");
}

struct LumMacInfoText : ControlTest {
    static bool parses(const char *text)
    {
        lum_mac_info info{7, mac("02:00:00:00:00:07")};
        const bool parsed = lum_copy_from_mac_info_string(text, info);
        if (!parsed) {
            EXPECT_EQ(info, (lum_mac_info{7, mac("02:00:00:00:00:07")})) << "changed by " << text;
        }
        return parsed;
    }
};

TEST_F(LumMacInfoText, ReadsVlanAndMac)
{
    lum_mac_info info;
    ASSERT_TRUE(lum_copy_from_mac_info_string("100/02:00:00:00:00:0A", info));
    EXPECT_EQ(info, (lum_mac_info{100, mac("02:00:00:00:00:0a")}));
    EXPECT_TRUE(parses("0/00:00:00:00:00:00"));
    EXPECT_TRUE(parses("4095/ff:ff:ff:ff:ff:ff"));
}

TEST_F(LumMacInfoText, RefusesWhatIsNeitherVlanNorMac)
{
    for (const char *text : {"", "/", "100", "100/", "/02:00:00:00:00:0a", "4096/02:00:00:00:00:0a",
                             "99999999999/02:00:00:00:00:0a", "-1/02:00:00:00:00:0a", "1 /02:00:00:00:00:0a",
                             "x/02:00:00:00:00:0a", "100/02:00:00:00:00", "100/02:00:00:00:00:0a:0b",
                             "100/02-00-00-00-00-0a", "100/0200:0000:000a", "100/02:00:00:00:00:0g",
                             "100/02:00:00:00:00:0", "100/2:0:0:0:0:a", "100//02:00:00:00:00:0a",
                             "100/02:00:00:00:00:+a", "100/02:00:00:00:00: a"})
        EXPECT_FALSE(parses(text)) << text;
}

struct LumSyslogDef : ControlTest {};

TEST_F(LumSyslogDef, NamesEveryMessageAsItsRecordHasIt)
{
    const auto records = std::to_array<const syslog_msg_full *>({
#define RECORD(tag, severity, format) &msg_error_LUM_##tag,
        LUM_MESSAGES(RECORD)
#undef RECORD
    });
    ASSERT_EQ(lum_syslog_messages.size(), 30u);
    ASSERT_EQ(records.size(), 30u);
    for (std::size_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(lum_syslog_messages[i].tag, records[i]->tag);
        EXPECT_EQ(lum_syslog_messages[i].format, records[i]->format);
        EXPECT_EQ(lum_syslog_messages[i].severity, records[i]->severity & 0xFF);
    }
}

} // namespace
