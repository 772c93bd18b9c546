// The parser: words, abbreviations, values, positions of mistakes, completion.
#include "../cmdsrv_parser.h"

#include "cmdsrv_installed.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace corvaned;
using corvaned_test::installed_grammar;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::Pair;
using ::testing::SizeIs;
using ::testing::StartsWith;

namespace {

struct Parser : ::testing::Test {
    grammar g;
    live_values live;
    mode current = mode::EXEC;

    void SetUp() override
    {
        ASSERT_THAT(g.add_file(installed_grammar("platform.cli")), IsEmpty());
        ASSERT_THAT(g.add_file(installed_grammar("lum.cli")), IsEmpty());
        live.known = [](value_type, const std::string &name) { return name == "Overlay1" || name == "n"; };
        live.list = [](value_type type) {
            std::vector<std::pair<std::string, std::string>> values;
            if (type == value_type::INTERFACE)
                values = {{"eth0", "up"}, {"eth1", "down"}, {"Overlay1", "overlay, up"}};
            if (type == value_type::OVERLAY)
                values = {{"Overlay1", "overlay, up"}};
            if (type == value_type::VLAN)
                values = {{"10", "configured VLAN"}};
            return values;
        };
    }

    parse_result parse_line(const std::string &line) { return parse({&g, current, true, false, &live}, line); }
    std::string error(const std::string &line) { return parse_line(line).error.text; }
    // The command in full, with its mistake where it has one.
    std::string full(const std::string &line)
    {
        const auto result = parse_line(line);
        if (result.error)
            return "error: " + result.error.text;
        return (result.command.no ? "no " : "") + result.command.text;
    }
    std::vector<std::string> words(const std::string &line)
    {
        std::vector<std::string> found;
        for (const auto &c : complete({&g, current, true, false, &live}, line).choices)
            found.push_back(c.word.empty() ? "<cr>" : c.word);
        return found;
    }
};

} // namespace

TEST(SplitLine, CutsAtBlanksAndKeepsPositions)
{
    const auto line = split("  show\tlum  vlan ");
    ASSERT_THAT(line.words, SizeIs(3));
    EXPECT_EQ(line.words[0].at, 2u);
    EXPECT_EQ(line.words[1].text, "lum");
    EXPECT_EQ(line.words[2].at, 12u);
    EXPECT_EQ(line.end, 16u);
}

TEST(SplitLine, EndsAtAComment)
{
    EXPECT_THAT(split("! all of it").words, IsEmpty());
    EXPECT_THAT(split("show ! rest").words, SizeIs(1));
    EXPECT_THAT(split("name a!b").words, SizeIs(2));
}

TEST(SplitLine, TakesQuotedTextsAsOneWord)
{
    const auto line = split(R"(name "a \"b\" \\ c" x)");
    ASSERT_THAT(line.words, SizeIs(3));
    EXPECT_EQ(line.words[1].text, R"(a "b" \ c)");
    EXPECT_TRUE(line.words[1].quoted);
    EXPECT_EQ(split("name \"open").error.text, "the closing '\"' is missing");
    EXPECT_EQ(split("name \"a\"b").error.text, "a blank is missing behind the '\"'");
}

TEST(SplitLine, FindsTheBarOfAFilter)
{
    EXPECT_EQ(split("show x | include y").filter, 7u);
    EXPECT_EQ(split("name a|b").filter, std::string::npos);
    EXPECT_EQ(split("name \"|\"").filter, std::string::npos);
}

TEST(SplitLine, RefusesControlCharactersAtTheirPlace)
{
    const auto line = split(std::string("show \x1b[31m"));
    EXPECT_EQ(line.error.at, 5u);
    EXPECT_EQ(line.error.text, "control character");
    EXPECT_EQ(split(std::string("a\0b", 3)).error.at, 1u);
    EXPECT_EQ(split("a\x7f").error.text, "control character");
}

TEST(SplitLine, TakesUtf8AndRefusesOtherBytes)
{
    EXPECT_FALSE(split("name gr\xc3\xbcn").error);
    for (const char *bad : {"\xff", "\xc3", "\xc0\x80", "\xe2\x82", "\xf5\x80\x80\x80", "\x80"})
        EXPECT_EQ(split(bad).error.text, "not a UTF-8 text");
}

TEST(SplitLine, RefusesALineThatIsTooLong)
{
    EXPECT_FALSE(split(std::string(LINE_MAX_BYTES, 'a')).error);
    const auto line = split(std::string(1024 * 1024, 'a'));
    EXPECT_EQ(line.error.text, "the line is too long: 1048576 bytes, at most 4096");
    EXPECT_THAT(line.words, IsEmpty());
}

TEST(Quoted, QuotesOnlyWhatNeedsIt)
{
    EXPECT_EQ(quoted("blue"), "blue");
    EXPECT_EQ(quoted("a b"), "\"a b\"");
    EXPECT_EQ(quoted(""), "\"\"");
    EXPECT_EQ(quoted("!x"), "\"!x\"");
    EXPECT_EQ(quoted("|"), "\"|\"");
    EXPECT_EQ(quoted("what?"), "\"what?\"");
    EXPECT_EQ(quoted("a\"\\"), "\"a\\\"\\\\\"");
    EXPECT_EQ(split(quoted("a \"\\ b")).words[0].text, "a \"\\ b");
}

TEST_F(Parser, SaysWhichOtherModeALineIsMeantFor)
{
    EXPECT_THAT(error("lum vpn-site-vlan 5"), EndsWith("; this is a command of configure mode"));
    EXPECT_THAT(error("lum vpn-name x"), EndsWith("; this is a command of the mode of an overlay interface"));
    current = mode::OVERLAY;
    EXPECT_THAT(error("switchport access vlan 5"), EndsWith("; this is a command of the mode of a device"));
    EXPECT_THAT(error("switchport access vlan x"), Not(HasSubstr("this is a command")));
}

TEST_F(Parser, OffersThoseWhoOnlyLookWhatTheyMayDo)
{
    std::vector<std::string> found;
    for (const auto &c : complete({&g, current, true, true, &live}, "").choices)
        found.push_back(c.word);
    EXPECT_THAT(found, ElementsAre("exit", "help", "show"));
}

TEST_F(Parser, FindsACommandAndItsArguments)
{
    const auto result = parse_line("show lum overlay Overlay1 summary");
    ASSERT_FALSE(result.error) << result.error.text;
    EXPECT_EQ(result.command.command->handler, "lum_show_overlay_cmd");
    EXPECT_THAT(result.command.arguments,
                ElementsAre(Pair("show", "show"), Pair("lum", "lum"), Pair("overlay", "overlay"),
                            Pair("<if-name>", "Overlay1"), Pair("summary", "summary")));
}

TEST_F(Parser, TakesUnambiguousAbbreviations)
{
    EXPECT_EQ(full("sh lum ov su"), "show lum overlay summary");
    EXPECT_EQ(full("sh lu arp"), "show lum arp-nd-cache");
    EXPECT_EQ(full("conf t"), "configure terminal");
    EXPECT_EQ(full("sh run"), "show running-config");
}

TEST_F(Parser, NamesTheMeaningsOfAnAmbiguousWord)
{
    const auto result = parse_line("show l");
    EXPECT_EQ(result.error.text, "\"l\" is ambiguous: logging or lum");
    EXPECT_EQ(result.error.at, 5u);
    EXPECT_EQ(result.error.length, 1u);
    EXPECT_THAT(error("show lum int"), HasSubstr("ambiguous: interface or internal"));
}

TEST_F(Parser, PrefersAWordWrittenOutOverOneItAbbreviates)
{
    ASSERT_THAT(g.add("client lum\ncommand a\n  mode exec\n  syntax show lum overlays\n", "t"), IsEmpty());
    EXPECT_EQ(full("show lum overlay"), "show lum overlay");
    EXPECT_THAT(error("show lum overla"), HasSubstr("ambiguous"));
}

TEST_F(Parser, PrefersTheNameOfAnInterfaceOverAnAbbreviation)
{
    live.known = [](value_type type, const std::string &name) { return type == value_type::TEXT && name == "n"; };
    ASSERT_THAT(g.add("client lum\ncommand a\n  mode exec\n  syntax look {name | <if:interface>}\n", "t"), IsEmpty());
    EXPECT_EQ(parse_line("look n").command.arguments.back().first, "name");
    live.known = [](value_type type, const std::string &name) { return type == value_type::INTERFACE && name == "n"; };
    EXPECT_EQ(parse_line("look n").command.arguments.back(), (std::pair<std::string, std::string>("<if>", "n")));
    EXPECT_EQ(parse_line("look name").command.arguments.back().first, "name");
}

TEST_F(Parser, PointsAtTheWordThatIsUnknownAndSaysWhatWasExpected)
{
    const auto result = parse_line("show lum ovrlay detail");
    EXPECT_EQ(result.error.at, 9u);
    EXPECT_EQ(result.error.length, 6u);
    EXPECT_EQ(result.error.text, "unknown word \"ovrlay\"; expected adjacency, arp-nd-cache, interface, internal, "
                                 "overlay, site, version or vlan");
}

TEST_F(Parser, SaysWhatIsMissingAtTheEnd)
{
    const auto result = parse_line("show lum internal sdb  ");
    EXPECT_EQ(result.error.at, 21u);
    EXPECT_EQ(result.error.text, "incomplete command; expected adjacency or overlay");
    current = mode::CONFIGURE;
    EXPECT_EQ(error("lum vpn-site-vlan"), "incomplete command; expected <vlan-id> (a VLAN id, 0 to 4095, as 10)");
}

TEST_F(Parser, RefusesWordsBehindTheEnd)
{
    const auto result = parse_line("show lum version now");
    EXPECT_EQ(result.error.at, 17u);
    EXPECT_EQ(result.error.text, "nothing more is expected here");
}

TEST_F(Parser, TakesOptionsInAnyOrderEachOnce)
{
    EXPECT_EQ(full("debug lum packet broadcast unicast source 10/02:00:00:00:00:01"),
              "debug lum packet source 10/02:00:00:00:00:01 unicast broadcast");
    EXPECT_EQ(full("debug lum packet"), "debug lum packet");
    EXPECT_THAT(error("debug lum packet unicast unicast"), StartsWith("unknown word \"unicast\"; expected broadcast"));
    EXPECT_EQ(full("show lum vlan authoritative detail"), "show lum vlan detail authoritative");
    EXPECT_THAT(error("debug lum packet source"), StartsWith("incomplete command; expected <smac-info>"));
}

TEST_F(Parser, TakesAlternativesByTheFamilyOfTheAddress)
{
    current = mode::CONFIGURE;
    EXPECT_EQ(*parse_line("lum static-tunnel 192.0.2.1 interface eth0").command.get("<nh>"), "192.0.2.1");
    EXPECT_EQ(*parse_line("lum static-tunnel 2001:DB8::1 interface eth0").command.get("<nh6>"), "2001:db8::1");
    EXPECT_THAT(error("lum static-tunnel 192.0.2 interface eth0"), HasSubstr("unknown word \"192.0.2\"; expected <nh> "));
}

TEST_F(Parser, ReadsTheNoForm)
{
    current = mode::OVERLAY;
    EXPECT_EQ(full("no lum vpn-name"), "no lum vpn-name");
    EXPECT_EQ(full("no lum vpn-name blue"), "no lum vpn-name blue");
    EXPECT_THAT(error("lum vpn-name"), StartsWith("incomplete command"));
    EXPECT_THAT(error("no"), StartsWith("incomplete command; expected"));
    EXPECT_EQ(full("no debug lum learn"), "no debug lum learn");
    current = mode::EXEC;
    EXPECT_THAT(error("no show"), StartsWith("unknown word \"show\"; expected debug"));
}

TEST_F(Parser, FindsCommandsOfTheModesAround)
{
    current = mode::OVERLAY;
    EXPECT_EQ(parse_line("lum vpn-name x").command.found_in, mode::OVERLAY);
    EXPECT_EQ(parse_line("lum filter-fhrp").command.found_in, mode::CONFIGURE);
    EXPECT_EQ(parse_line("show lum version").command.found_in, mode::EXEC);
    EXPECT_EQ(parse_line("exit").command.found_in, mode::OVERLAY);
    current = mode::EXEC;
    EXPECT_THAT(error("lum filter-fhrp"), StartsWith("unknown word \"lum\""));
}

TEST_F(Parser, ReportsTheMistakeOfTheModeThatUnderstoodMost)
{
    current = mode::OVERLAY;
    EXPECT_THAT(error("show lum vlan x"), HasSubstr("expected authoritative or detail"));
    EXPECT_THAT(error("lum vpn-vlan x"), HasSubstr("VLAN ids and ranges"));
}

TEST_F(Parser, MakesOverlaysByNumber)
{
    current = mode::CONFIGURE;
    const auto result = parse_line("interface overlay7");
    ASSERT_FALSE(result.error) << result.error.text;
    EXPECT_EQ(result.command.command->handler, "interface_overlay");
    EXPECT_EQ(*result.command.get("<N>"), "7");
    EXPECT_EQ(result.command.text, "interface Overlay7");
    EXPECT_THAT(result.command.interfaces, ElementsAre("Overlay7"));
    EXPECT_EQ(parse_line("interface eth1").command.command->handler, "interface_device");
    EXPECT_THAT(error("no interface eth1"), HasSubstr("expected an overlay interface, as Overlay1"));
}

TEST_F(Parser, BoundsVlanIds)
{
    current = mode::CONFIGURE;
    EXPECT_EQ(full("lum vpn-site-vlan 0"), "lum vpn-site-vlan 0");
    EXPECT_EQ(full("lum vpn-site-vlan 4095"), "lum vpn-site-vlan 4095");
    const auto result = parse_line("lum vpn-site-vlan 4096");
    EXPECT_EQ(result.error.text, "expected a VLAN id, 0 to 4095");
    EXPECT_EQ(result.error.at, 18u);
    EXPECT_EQ(error("lum vpn-site-vlan -1"), "expected a VLAN id, 0 to 4095");
    EXPECT_EQ(error("lum vpn-site-vlan 99999999999"), "expected a VLAN id, 0 to 4095");
    EXPECT_EQ(full("lum vpn-site-vlan 0010"), "lum vpn-site-vlan 10");
}

TEST_F(Parser, LeavesTheVlanOfAMacToTheDaemon)
{
    current = mode::CONFIGURE;
    EXPECT_EQ(full("lum route 5000/02:00:00:00:00:0A interface eth0"),
              "lum route 5000/02:00:00:00:00:0a interface eth0");
    for (const char *bad : {"10", "10/", "/02:00:00:00:00:0a", "10/02:00:00:00:00", "10/02:00:00:00:00:0a:0b",
                            "10/2:0:0:0:0:a", "10/02-00-00-00-00-0a", "x/02:00:00:00:00:0a"})
        EXPECT_THAT(error(std::string("lum route ") + bad), StartsWith("expected a VLAN and MAC address")) << bad;
}

TEST_F(Parser, BoundsTextsAtAHundredCharacters)
{
    current = mode::OVERLAY;
    EXPECT_FALSE(parse_line("lum vpn-name " + std::string(100, 'x')).error);
    EXPECT_EQ(error("lum vpn-name " + std::string(101, 'x')), "expected a text of 1 to 100 characters");
    EXPECT_EQ(error("lum vpn-name \"\""), "expected a text of 1 to 100 characters");
    EXPECT_EQ(full("lum vpn-name \"two words\""), "lum vpn-name \"two words\"");
}

TEST_F(Parser, KeepsVlanListsAsTheyWereWritten)
{
    current = mode::OVERLAY;
    EXPECT_EQ(*parse_line("lum vpn-vlan 20,10,30-40").command.get("<vlan-range>"), "20,10,30-40");
    for (const char *bad : {",", "10,", "10-", "-10", "20-10", "4096", "1-5000", "a", "10,,20", "10 20"})
        EXPECT_TRUE(parse_line(std::string("lum vpn-vlan ") + bad).error) << bad;
}

TEST_F(Parser, ChecksPrefixes)
{
    current = mode::OVERLAY;
    EXPECT_EQ(*parse_line("lum core-group 232.1.0.0/16").command.get("<prefix>"), "232.1.0.0/16");
    EXPECT_EQ(*parse_line("lum core-group FF05::/96").command.get("<prefix6>"), "ff05::/96");
    EXPECT_TRUE(parse_line("lum core-group 232.1.0.0/33").error);
    EXPECT_TRUE(parse_line("lum core-group ff05::/129").error);
    EXPECT_TRUE(parse_line("lum core-group 232.1.0.0").error);
}

TEST_F(Parser, HandsKeywordsOfTheTestCommandOnUnderTheirOwnNames)
{
    EXPECT_NE(parse_line("test lum rtab init me").command.get("rtab_api_init"), nullptr);
    EXPECT_NE(parse_line("test lum rtab close").command.get("rtab_api_close"), nullptr);
    const auto add = parse_line("test lum rtab add 10/02:00:00:00:00:01 next-hop 192.0.2.1 interface eth0").command;
    EXPECT_NE(add.get("rtab_add_route"), nullptr);
    EXPECT_EQ(*add.get("<nh>"), "192.0.2.1");
    EXPECT_EQ(*add.get("<if-name>"), "eth0");
    EXPECT_NE(parse_line("test lum rtab delete 10/02:00:00:00:00:01").command.get("rtab_delete_route"), nullptr);
}

TEST_F(Parser, KnowsAnEmptyLine)
{
    for (const char *line : {"", "   ", "! comment", "\t! comment"})
        EXPECT_TRUE(parse_line(line).empty) << line;
}

TEST_F(Parser, LooksForTheCommandBeforeTheFilter)
{
    EXPECT_EQ(full("show lum vlan | include 10"), "show lum vlan");
}

TEST_F(Parser, OffersOnlyWhatShowsToThoseWhoMayLook)
{
    const parse_context viewer{&g, mode::EXEC, true, true, &live};
    EXPECT_FALSE(parse(viewer, "show lum vlan").error);
    EXPECT_TRUE(parse(viewer, "write").error);
    EXPECT_TRUE(parse(viewer, "debug lum learn").error);
}

TEST_F(Parser, AnswersLinesMadeOfEveryByte)
{
    std::string line;
    for (int i = 0; i < 3000; ++i) {
        line += static_cast<char>(i * 37 % 251);
        (void)parse_line(line);
        (void)words(line);
    }
}

TEST_F(Parser, CompletesWordsWithTheirHelp)
{
    const auto result = complete({&g, mode::EXEC, true, false, &live}, "show lum v");
    ASSERT_THAT(result.choices, SizeIs(2));
    EXPECT_EQ(result.from, 9u);
    EXPECT_EQ(result.choices[0].word, "version");
    EXPECT_EQ(result.choices[0].help, "Version of the daemon");
    EXPECT_EQ(result.choices[1].word, "vlan");
    EXPECT_TRUE(result.choices[1].insertable);
}

TEST_F(Parser, CompletesNothingWhereTheLineWentWrong)
{
    const auto result = complete({&g, mode::EXEC, true, false, &live}, "show lmu v");
    EXPECT_THAT(result.choices, IsEmpty());
    EXPECT_EQ(result.error.at, 5u);
    EXPECT_THAT(result.error.text, StartsWith("unknown word \"lmu\""));
}

TEST_F(Parser, OffersTheEndOfTheLineWhereItMayEnd)
{
    EXPECT_THAT(words("show lum vlan "), ElementsAre("authoritative", "detail", "<cr>"));
    EXPECT_THAT(words("show lum internal sdb "), ElementsAre("adjacency", "overlay"));
    EXPECT_THAT(words("show lum version "), ElementsAre("<cr>"));
}

TEST_F(Parser, CompletesLiveValues)
{
    EXPECT_THAT(words("show lum overlay "), ElementsAre("Overlay1", "name", "summary", "<if-name>", "<cr>"));
    EXPECT_THAT(words("show lum overlay O"), ElementsAre("Overlay1"));
    current = mode::OVERLAY;
    EXPECT_THAT(words("lum vpn-ext-if "), ElementsAre("Overlay1", "eth0", "eth1", "<ext_if>"));
    EXPECT_THAT(words("lum vpn-ext-if eth"), ElementsAre("eth0", "eth1"));
    current = mode::DEVICE;
    EXPECT_THAT(words("lum vlan "), ElementsAre("10", "<vlan-id>"));
}

TEST_F(Parser, OffersNoOnlyAsTheFirstWord)
{
    EXPECT_THAT(words("n"), ElementsAre("no"));
    EXPECT_THAT(words("no "), ElementsAre("debug"));
    EXPECT_THAT(words("no n"), IsEmpty());
}

TEST_F(Parser, CompletesFromTheModesAroundWhereTheOwnHasNothing)
{
    current = mode::DEVICE;
    EXPECT_THAT(words("sw"), ElementsAre("switchport"));
    EXPECT_THAT(words("show lum ver"), ElementsAre("version"));
}
