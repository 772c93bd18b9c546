// The grammar reader: what a file defines, and what a file with mistakes leaves of it.
#include "../cmdsrv_grammar.h"
#include "../cmdsrv_syntax.h"

#include "cmdsrv_installed.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace corvaned;
using corvaned_test::installed_grammar;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

std::string syntax_error(const std::string &text)
{
    command_syntax syntax;
    std::string error;
    return compile_syntax(text, syntax, error) ? "" : error;
}

std::string one_command(const std::string &lines)
{
    return "client c\ncommand handler\n" + lines;
}

struct Grammar : ::testing::Test {
    grammar g;
    std::vector<grammar_error> add(const std::string &text) { return g.add(text, "t.cli"); }
};

} // namespace

TEST(GrammarSyntax, KeepsWordsInOrderAndWhatFollowsThem)
{
    command_syntax syntax;
    std::string error;
    ASSERT_TRUE(compile_syntax("a [b] <c:vlan>", syntax, error)) << error;
    ASSERT_THAT(syntax.elements, SizeIs(3));
    EXPECT_THAT(syntax.first, ElementsAre(0));
    EXPECT_THAT(syntax.elements[0].follow, ElementsAre(1, 2));
    EXPECT_THAT(syntax.elements[1].follow, ElementsAre(2));
    EXPECT_FALSE(syntax.elements[1].last);
    EXPECT_TRUE(syntax.elements[2].last);
    EXPECT_EQ(syntax.elements[2].word, "<c>");
    EXPECT_EQ(syntax.elements[2].most, 4095u);
}

TEST(GrammarSyntax, HandsAKeywordOnUnderAnotherName)
{
    command_syntax syntax;
    std::string error;
    ASSERT_TRUE(compile_syntax("test init=rtab_api_init", syntax, error)) << error;
    EXPECT_EQ(syntax.elements[1].word, "init");
    EXPECT_EQ(syntax.elements[1].argument, "rtab_api_init");
}

TEST(GrammarSyntax, ReadsLimitsOfNumbersAndTexts)
{
    command_syntax syntax;
    std::string error;
    ASSERT_TRUE(compile_syntax("a <n:integer(3-7)> <t:text(20)>", syntax, error)) << error;
    EXPECT_EQ(syntax.elements[1].least, 3u);
    EXPECT_EQ(syntax.elements[1].most, 7u);
    EXPECT_EQ(syntax.elements[2].most, 20u);
}

TEST(GrammarSyntax, LetsEachAlternativeOfAnAnyOrderGroupFollowTheOthers)
{
    command_syntax syntax;
    std::string error;
    ASSERT_TRUE(compile_syntax("a ( b | c <d:vlan> )", syntax, error)) << error;
    EXPECT_TRUE(syntax.elements[0].last);
    EXPECT_THAT(syntax.elements[1].follow, ElementsAre(2));
    EXPECT_THAT(syntax.elements[3].follow, ElementsAre(1));
    EXPECT_EQ(syntax.elements[1].enters, 0);
    EXPECT_EQ(syntax.elements[2].enters, 1);
    EXPECT_EQ(syntax.elements[3].enters, -1);
}

TEST(GrammarSyntax, SaysWhatIsWrongWithABrokenLine)
{
    EXPECT_EQ(syntax_error(""), "no words");
    EXPECT_EQ(syntax_error("a [b"), "']' is missing");
    EXPECT_EQ(syntax_error("a b]"), "unmatched ']'");
    EXPECT_EQ(syntax_error("a {b | }"), "an alternative that can be empty");
    EXPECT_EQ(syntax_error("a [ ]"), "an alternative that can be empty");
    EXPECT_EQ(syntax_error("a <b>"), "'<b>' is no <name:type>");
    EXPECT_EQ(syntax_error("a <b:nothing>"), "unknown type 'nothing'");
    EXPECT_EQ(syntax_error("a <b:integer(7-3)>"), "'7-3' is no range");
    EXPECT_EQ(syntax_error("a <b:integer(1-2>"), "')' is missing in '<b:integer(1-2>'");
    EXPECT_EQ(syntax_error("a <b:vlan"), "'<b:vlan' is no <name:type>");
    EXPECT_EQ(syntax_error("a ;b"), "';b' is no word");
    EXPECT_EQ(syntax_error("a (b) (c)"), "one group in any order a command, not inside another group");
    EXPECT_EQ(syntax_error("a [(b)]"), "one group in any order a command, not inside another group");
    EXPECT_EQ(syntax_error("a [[[[[[[[[b]]]]]]]]]"), "nested too deeply");
    std::string many;
    for (int i = 0; i < 70; ++i)
        many += "w ";
    EXPECT_EQ(syntax_error(many), "too many words");
}

TEST_F(Grammar, ReadsACommandWithItsProperties)
{
    ASSERT_THAT(add("# a comment\n"
                    "client c\n"
                    "words\n"
                    "  do      Common help\n"
                    "command the_handler\n"
                    "  mode    configure overlay\n"
                    "  syntax  do <what:text>\n"
                    "  no      do\n"
                    "  keep    once group\n"
                    "  place   first\n"
                    "  brief   Does it\n"
                    "  effect  This.\n"
                    "  effect  That.\n"
                    "  reject  \"No\"\n"
                    "  help    <what>  Own help\n"),
                IsEmpty());
    ASSERT_THAT(g.all(), SizeIs(1));
    const auto &c = g.all().front();
    EXPECT_EQ(c.client, "c");
    EXPECT_EQ(c.handler, "the_handler");
    EXPECT_TRUE(c.offered_in(mode::CONFIGURE));
    EXPECT_TRUE(c.offered_in(mode::OVERLAY));
    EXPECT_FALSE(c.offered_in(mode::EXEC));
    EXPECT_EQ(c.keep, keep_rule::ONCE);
    EXPECT_EQ(c.slot, "group");
    EXPECT_TRUE(c.place_first);
    EXPECT_EQ(c.plain.elements[0].help, "Common help");
    EXPECT_EQ(c.plain.elements[1].help, "Own help");
    EXPECT_THAT(c.effect, ElementsAre("This.", "That."));
    EXPECT_THAT(g.offered(mode::OVERLAY), SizeIs(1));
    EXPECT_THAT(g.offered(mode::EXEC), IsEmpty());
}

TEST_F(Grammar, TakesTheNoFormFromThePlainOne)
{
    ASSERT_THAT(add(one_command("  mode exec\n  no same\n  syntax a [b]\n")), IsEmpty());
    EXPECT_THAT(g.all().front().no.elements, SizeIs(2));
}

TEST_F(Grammar, LeavesOutABrokenCommandAndKeepsTheOthers)
{
    const auto errors = add("client c\n"
                            "command bad\n"
                            "  mode    exec\n"
                            "  syntax  a [b\n"
                            "command good\n"
                            "  mode    exec\n"
                            "  syntax  a\n");
    ASSERT_THAT(errors, SizeIs(1));
    EXPECT_EQ(errors[0].message(), "t.cli:4: ']' is missing");
    ASSERT_THAT(g.all(), SizeIs(1));
    EXPECT_EQ(g.all().front().handler, "good");
}

TEST_F(Grammar, ReportsEachKindOfMistakeWithItsLine)
{
    const auto text_of = [](const std::string &text) {
        grammar fresh;
        const auto errors = fresh.add(text, "t.cli");
        EXPECT_THAT(fresh.all(), IsEmpty()) << text;
        return errors.empty() ? "" : errors[0].text;
    };
    EXPECT_EQ(text_of("command x\n  mode exec\n  syntax a\n"), "no 'client' line before the first command");
    EXPECT_EQ(text_of(one_command("  mode nowhere\n  syntax a\n")), "unknown mode 'nowhere'");
    EXPECT_EQ(text_of(one_command("  syntax a\n")), "command 'handler' has no mode");
    EXPECT_EQ(text_of(one_command("  mode exec\n")), "command 'handler' has no syntax");
    EXPECT_EQ(text_of(one_command("  mode exec\n  syntax [a]\n")), "the syntax of 'handler' can be empty");
    EXPECT_EQ(text_of(one_command("  mode exec\n  syntax a\n  keep always\n")),
              "'once', 'once-per', 'list' or 'repeat' is expected here");
    EXPECT_EQ(text_of(one_command("  mode exec\n  syntax a\n  colour red\n")), "unknown property 'colour'");
    EXPECT_EQ(text_of("  mode exec\n"), "a line that belongs to no command");
    EXPECT_EQ(text_of("nonsense\n"), "'client', 'words' or 'command' is expected here, not 'nonsense'");
    EXPECT_EQ(text_of(one_command("  mode exec\n  syntax a\n  brief x\x01y\n")), "control character");
}

TEST_F(Grammar, RefusesCommandsThatAClientBringsForAnother)
{
    const auto errors = g.add("client other\ncommand x\n  mode exec\n  syntax a\n", "mine.cli", "mine");
    ASSERT_FALSE(errors.empty());
    EXPECT_EQ(errors[0].text, "commands of 'other' brought by 'mine'");
    EXPECT_THAT(g.all(), IsEmpty());
}

TEST_F(Grammar, SurvivesGarbageOfEveryByte)
{
    std::string garbage;
    for (int i = 0; i < 4096; ++i)
        garbage += static_cast<char>(i * 31 % 256);
    EXPECT_FALSE(add(garbage).empty());
    EXPECT_THAT(g.all(), IsEmpty());
}

TEST_F(Grammar, RefusesAFileThatIsTooLong)
{
    const auto errors = add(std::string(GRAMMAR_FILE_MAX + 1, 'x'));
    ASSERT_THAT(errors, SizeIs(1));
    EXPECT_EQ(errors[0].text, "too long for a grammar file");
}

TEST_F(Grammar, ReportsAFileThatIsNotThere)
{
    const auto errors = g.add_file("/nonexistent/x.cli");
    ASSERT_THAT(errors, SizeIs(1));
    EXPECT_THAT(errors[0].text, HasSubstr("No such file"));
}

TEST(InstalledGrammar, HasNoMistakes)
{
    grammar g;
    for (const char *file : {"platform.cli", "lum.cli"})
        for (const auto &error : g.add_file(installed_grammar(file)))
            ADD_FAILURE() << error.message();
    EXPECT_TRUE(g.has_client("lum"));
    EXPECT_TRUE(g.has_client("platform"));
}

TEST(InstalledGrammar, GivesEveryCommandAndEveryWordHelp)
{
    grammar g;
    (void)g.add_file(installed_grammar("platform.cli"));
    (void)g.add_file(installed_grammar("lum.cli"));
    for (const auto &c : g.all()) {
        EXPECT_FALSE(c.brief.empty()) << c.file << ":" << c.line;
        EXPECT_FALSE(c.effect.empty()) << c.file << ":" << c.line;
        for (const auto *syntax : {&c.plain, &c.no})
            for (const auto &e : syntax->elements)
                EXPECT_FALSE(e.help.empty()) << c.file << ":" << c.line << ": " << e.word;
    }
}

TEST(InstalledGrammar, TakesBackEverythingThatItConfigures)
{
    grammar g;
    (void)g.add_file(installed_grammar("platform.cli"));
    (void)g.add_file(installed_grammar("lum.cli"));
    std::size_t configuring = 0;
    for (const auto &c : g.all()) {
        configuring += c.configures() ? 1 : 0;
        EXPECT_EQ(c.no.elements.empty(), !c.configures() && !c.handler.starts_with("lum_debug_"))
            << c.file << ":" << c.line << ": " << c.plain.text;
    }
    EXPECT_GT(configuring, 20u);
}

// What the daemon's handlers ask for, by handler.
TEST(InstalledGrammar, NamesTheArgumentsAsTheHandlersReadThem)
{
    const std::multimap<std::string, std::string> read = {
        {"lum_show_overlay_cmd", "<if-name>"},       {"lum_show_overlay_cmd", "<overlay-name>"},
        {"lum_show_overlay_cmd", "summary"},         {"lum_show_vlan_cmd", "detail"},
        {"lum_show_vlan_cmd", "authoritative"},      {"lum_show_internal_sdb_cmd", "overlay"},
        {"lum_show_internal_sdb_cmd", "adjacency"},  {"lum_show_site_cmd", "<if-name>"},
        {"lum_show_site_cmd", "<overlay-name>"},     {"lum_vpn_name_cmd", "<vpn-name>"},
        {"lum_vpn_ext_if_cmd", "<ext_if>"},          {"lum_vpn_mgroup_addr_cmd", "<maddr>"},
        {"lum_vpn_mgroup_addr_cmd", "<maddr6>"},     {"lum_vpn_encap_format_cmd", "gre"},
        {"lum_vpn_encap_format_cmd", "udp"},         {"lum_vpn_encap_format_cmd", "ip"},
        {"lum_vpn_encap_format_cmd", "ipv6"},        {"lum_vpn_vlan_cmd", "<vlan-range>"},
        {"lum_vpn_site_vlan_cmd", "<vlan-id>"},      {"lum_vlan_cmd", "<vlan-id>"},
        {"lum_vlan_cmd", "trunk-port"},              {"lum_route_cmd", "<mac-info>"},
        {"lum_route_cmd", "<if-name>"},              {"lum_route_cmd", "<nh>"},
        {"lum_route_cmd", "<nh6>"},                  {"lum_mroute_cmd", "<vlan-id>"},
        {"lum_mroute_cmd", "<ga>"},                  {"lum_mroute_cmd", "<sa>"},
        {"lum_mroute_cmd", "<ga6>"},                 {"lum_mroute_cmd", "<if-name>"},
        {"lum_static_tunnel_cmd", "<nh>"},           {"lum_static_tunnel_cmd", "<nh6>"},
        {"lum_static_tunnel_cmd", "<if-name>"},      {"lum_anycast_arp_cmd", "<addr>"},
        {"lum_anycast_arp_cmd", "<addr6>"},          {"lum_core_group_cmd", "<prefix>"},
        {"lum_core_group_cmd", "<prefix6>"},         {"lum_debug_packet_command", "<smac-info>"},
        {"lum_debug_packet_command", "<dmac-info>"}, {"lum_debug_packet_command", "unicast"},
        {"lum_debug_packet_command", "multicast"},   {"lum_debug_packet_command", "broadcast"},
        {"lum_rtab_command", "<client-name>"},       {"lum_rtab_command", "<mac>"},
        {"lum_rtab_command", "<nh>"},                {"lum_rtab_command", "<nh6>"},
        {"lum_rtab_command", "<if-name>"},           {"lum_rtab_command", "rtab_api_init"},
        {"lum_rtab_command", "rtab_api_close"},      {"lum_rtab_command", "rtab_add_route"},
        {"lum_rtab_command", "rtab_delete_route"},
    };
    grammar g;
    (void)g.add_file(installed_grammar("lum.cli"));
    for (const auto &[handler, argument] : read) {
        bool offered = false;
        for (const auto &c : g.all())
            for (const auto &e : c.plain.elements)
                offered = offered || (c.handler == handler && e.argument == argument);
        EXPECT_TRUE(offered) << handler << " " << argument;
    }
}

TEST(InstalledGrammar, OffersEveryHandlerOfTheDaemon)
{
    grammar g;
    (void)g.add_file(installed_grammar("lum.cli"));
    std::set<std::string> handlers;
    for (const auto &c : g.all())
        handlers.insert(c.handler);
    EXPECT_THAT(handlers, SizeIs(29));
}
