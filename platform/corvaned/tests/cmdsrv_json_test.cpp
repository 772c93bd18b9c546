// Tables as JSON: the texts are those that the commands print, the results are read back by a JSON parser of another
// make and held against the shape that the documents promise.
#include "../cmdsrv_grammar.h"
#include "../cmdsrv_json.h"
#include "../cmdsrv_json_text.h"

#include "cmdsrv_installed.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <set>

using namespace corvaned;
using nlohmann::json;

namespace {

bool is_kind(const json &value, const std::string &kind)
{
    if (kind.ends_with(" or null"))
        return value.is_null() || is_kind(value, kind.substr(0, kind.size() - 8));
    return kind == "text"     ? value.is_string()
           : kind == "number" ? value.is_number_integer()
           : kind == "bool"   ? value.is_boolean()
                              : false;
}

// What is wrong with a value: "" = it is of this shape.
std::string misfit(const json &value, const json &shape, const std::string &where)
{
    if (shape.is_string())
        return is_kind(value, shape) ? "" : where + " is not " + shape.get<std::string>() + ": " + value.dump();
    if (value.type() != shape.type())
        return where + " is of another type: " + value.dump();
    if (shape.is_array()) {
        for (const auto &element : value)
            if (auto text = misfit(element, shape[0], where + "[]"); !text.empty())
                return text;
        return "";
    }
    std::set<std::string> known;
    for (const auto &[key, kind] : shape.items()) {
        const bool optional = key.ends_with('?');
        const std::string name = optional ? key.substr(0, key.size() - 1) : key;
        known.insert(name);
        if (!value.contains(name)) {
            if (!optional)
                return where + " has no " + name + ": " + value.dump();
        } else if (auto text = misfit(value[name], kind, where + "." + name); !text.empty()) {
            return text;
        }
    }
    for (const auto &[name, element] : value.items())
        if (!known.contains(name))
            return where + " has a member " + name + " that no document names";
    return "";
}

// Every line of the text is understood, and the result is what the documents say.
json read(const char *schema, const std::string &text)
{
    const auto *found = find_json_schema(schema);
    EXPECT_NE(found, nullptr) << schema;
    if (found == nullptr)
        return {};
    json result = json::parse(found->read(text), nullptr, false);
    EXPECT_FALSE(result.is_discarded()) << schema << ": " << text;
    EXPECT_EQ(misfit(result, json::parse(found->shape), schema), "");
    return result;
}

} // namespace

TEST(Json, ReadsOverlaysInEveryState)
{
    const json all = read("overlay", "LUM Overlay Information\n\n"
                                     "Overlay Interface Overlay1\n"
                                     " VPN Name                 : blue : sky\n"
                                     " VPN ID                   : 6\n"
                                     " State                    : UP\n"
                                     " IPv4 multicast group     : 239.1.1.1\n"
                                     " IPv6 multicast group     : [None]\n"
                                     " External interface(s)    : eth0\n"
                                     " External IPv4 address    : 192.0.2.1\n"
                                     " External IPv6 address    : ::\n"
                                     " Encapsulation format     : UDP/IPv4\n"
                                     " Site-vlan                : 5\n"
                                     "\n"
                                     "Overlay Interface Overlay2\n"
                                     " VPN Name                 : [None]\n"
                                     " VPN ID                   : 7\n"
                                     " State                    : DOWN\n"
                                     "                          : Delete Holddown\n"
                                     "                          : Notification pending\n"
                                     " IPv4 multicast group     : [None]\n"
                                     " IPv6 multicast group     : [None]\n"
                                     " External interface(s)    : \n");
    ASSERT_EQ(all["overlays"].size(), 2u);
    const auto &one = all["overlays"][0], &two = all["overlays"][1];
    EXPECT_EQ(one, json::parse(R"({"interface": "Overlay1", "name": "blue : sky", "vpn_id": 6, "state": "UP",
        "ipv4_group": "239.1.1.1", "ipv6_group": null, "external_interface": "eth0", "external_ipv4": "192.0.2.1",
        "external_ipv6": "::", "encapsulation": "UDP/IPv4", "site_vlan": 5})"));
    EXPECT_TRUE(two["name"].is_null());
    EXPECT_EQ(two["reason"], "Delete Holddown");
    EXPECT_EQ(two["notification_pending"], true);
    EXPECT_TRUE(two["external_interface"].is_null());
}

TEST(Json, ReadsTheSummaryWithNamesThatLeaveTheirColumn)
{
    const json all = read("overlay", "LUM Overlay Information\n\n"
                                     "Interface      Name                      IOD    State   Reason\n"
                                     "Overlay1       blue                        6    UP      None\n"
                                     "Overlay2       a name    UP and longer        7    DOWN    Incomplete Parameters\n"
                                     "Overlay3                                   8    DOWN    Admin Down\n"
                                     "Overlay65535   x                         767    None    None\n");
    ASSERT_EQ(all["overlays"].size(), 4u) << all.dump();
    EXPECT_EQ(all["overlays"][0], json::parse(R"({"interface": "Overlay1", "name": "blue", "iod": 6, "state": "UP"})"));
    EXPECT_EQ(all["overlays"][1]["name"], "a name    UP and longer");
    EXPECT_EQ(all["overlays"][1]["reason"], "Incomplete Parameters");
    EXPECT_TRUE(all["overlays"][2]["name"].is_null());
    EXPECT_EQ(all["overlays"][2]["iod"], 8);
    EXPECT_EQ(all["overlays"][3], json::parse(R"({"interface": "Overlay65535", "name": "x", "iod": 767, "state": "None",
                                                  "reason": "None"})"));
}

TEST(Json, ReadsVlansWithAndWithoutOverlay)
{
    const json all = read("vlan", "LUM VLAN Configuration Information\n"
                                  "VLAN-ID  Switchport/    VPN Name  Overlay    External       Overlay\n"
                                  "         Blocked Count            Interface  Interface      Group\n"
                                  "10       1/0            blue      Overlay1   eth0           239.1.1.1\n"
                                  "20       12/3           \n"
                                  "30       0/0            corporate-Overlay2   eth0           ff05::1\n"
                                  "40       0/0                      Overlay3                  0.0.0.0\n"
                                  "50       0/0            as Overlay7 wasOverlay65535a15charsIfName0239.1.1.2\n");
    ASSERT_EQ(all["vlans"].size(), 5u) << all.dump();
    EXPECT_EQ(all["vlans"][0], json::parse(R"({"vlan": 10, "ports": 1, "blocked": 0, "name": "blue",
        "overlay": "Overlay1", "external_interface": "eth0", "group": "239.1.1.1"})"));
    EXPECT_EQ(all["vlans"][1], json::parse(R"({"vlan": 20, "ports": 12, "blocked": 3, "name": null,
        "overlay": null, "external_interface": null, "group": null})"));
    EXPECT_EQ(all["vlans"][2]["name"], "corporate-");
    EXPECT_EQ(all["vlans"][2]["overlay"], "Overlay2");
    EXPECT_TRUE(all["vlans"][3]["name"].is_null());
    EXPECT_TRUE(all["vlans"][3]["external_interface"].is_null());
    EXPECT_EQ(all["vlans"][3]["group"], "0.0.0.0");
    EXPECT_EQ(all["vlans"][4], json::parse(R"({"vlan": 50, "ports": 0, "blocked": 0, "name": "as Overlay7 was",
        "overlay": "Overlay65535", "external_interface": "a15charsIfName0", "group": "239.1.1.2"})"));
}

TEST(Json, ReadsPortListsThatEndWithoutALineEnd)
{
    const json all = read("vlan", "10       7/0            blue      Overlay1   eth0           239.1.1.1\n"
                                  "    eth1  eth2  eth3  eth4  eth5  eth6  \n"
                                  "eth7  20       1/0            \n"
                                  "30       6/0            blue      Overlay1   eth0           239.1.1.1\n"
                                  "    eth1  eth2  eth3  eth4  eth5  eth6  \n\n"
                                  "40       0/0            blue      Overlay1   eth0           239.1.1.1\n"
                                  "    \n"
                                  "50       1/1            blue      Overlay1   eth0           239.1.1.1\n"
                                  "    eth1  60       1/0            blue      Overlay1   eth0           239.1.1.1\n"
                                  "    20  ");
    ASSERT_EQ(all["vlans"].size(), 6u) << all.dump();
    EXPECT_EQ(all["vlans"][0]["port_list"],
              json::parse(R"(["eth1", "eth2", "eth3", "eth4", "eth5", "eth6", "eth7"])"));
    EXPECT_FALSE(all["vlans"][1].contains("port_list"));
    EXPECT_EQ(all["vlans"][2]["port_list"].size(), 6u);
    EXPECT_EQ(all["vlans"][3]["port_list"].size(), 0u);
    EXPECT_EQ(all["vlans"][4]["port_list"], json::parse(R"(["eth1"])"));
    EXPECT_EQ(all["vlans"][5]["port_list"], json::parse(R"(["20"])"));
}

TEST(Json, ReadsPorts)
{
    const json all = read("port", "LUM Switchport Information\nInterface      VLAN ID\neth1           10  \n"
                                  "eth2           trunk-port\n");
    EXPECT_EQ(all, json::parse(R"({"ports": [{"interface": "eth1", "trunk": false, "vlan": 10},
                                             {"interface": "eth2", "trunk": true, "vlan": null}]})"));
}

TEST(Json, ReadsTheCacheOverlayByOverlay)
{
    const json all = read("arp-nd-cache", "LUM ARP/ND L3->L2 Address Mapping Cache\n"
                                          "VLAN/MAC Address      Uptime    Layer-3 Address\n"
                                          "10/02:00:00:00:00:0a  00:00:05  10.0.0.1\n"
                                          "VLAN/MAC Address      Uptime    Layer-3 Address\n"
                                          "20/02:00:00:00:00:0b  1d02h     2001:db8::1\n");
    ASSERT_EQ(all["entries"].size(), 2u) << all.dump();
    EXPECT_EQ(all["entries"][1], json::parse(R"({"overlay": 1, "vlan": 20, "mac": "02:00:00:00:00:0b",
                                                 "uptime": "1d02h", "address": "2001:db8::1"})"));
}

TEST(Json, ReadsAdjacencies)
{
    const json all = read("adjacency", "Overlay Adjacency database\n\nOverlay-Interface Overlay1 :\n"
                                       "System-ID            Address                                  Tunnel-IOD\n"
                                       "02:00:00:00:00:01    192.0.2.2                                         9\n");
    EXPECT_EQ(all, json::parse(R"({"adjacencies": [{"overlay": "Overlay1", "system_id": "02:00:00:00:00:01",
                                                    "address": "192.0.2.2", "tunnel_iod": 9}]})"));
}

TEST(Json, ReadsEdgeDevicesOfTheSiteAndOverlaysWithout)
{
    const json all = read("site", " Site-VLAN                : 5\n\nSite Adjacency database\n"
                                  "Overlay: two words, Adjacencies: 2\n"
                                  "  System-ID                   Priority    Ordinal\n"
                                  "* 02:00:00:00:00:01                 -1          0\n"
                                  "  02:00:00:00:00:02                  0          1\n"
                                  "Overlay: Overlay2, Adjacencies: 0\n"
                                  "  System-ID                   Priority    Ordinal\n");
    EXPECT_EQ(all["site_vlan"], 5);
    ASSERT_EQ(all["overlays"].size(), 2u) << all.dump();
    EXPECT_EQ(all["overlays"][0]["overlay"], "two words");
    EXPECT_EQ(all["overlays"][0]["adjacencies"][0],
              json::parse(R"({"system_id": "02:00:00:00:00:01", "local": true, "priority": -1, "ordinal": 0})"));
    EXPECT_EQ(all["overlays"][0]["adjacencies"][1]["local"], false);
    EXPECT_EQ(all["overlays"][1], json::parse(R"({"overlay": "Overlay2", "adjacencies": []})"));
}

TEST(Json, ReadsPublishedRecords)
{
    const json all = read("sdb", "Overlay iod: 6, name: a, state: b, name: c, state: 2, Reason: 0\nExternal iod: 3\n"
                                 "IPv4 group: 239.1.1.1, IPv6 group: ::\n"
                                 "Overlay iod: 7, name: , state: 1, Reason: 2\nExternal iod: 0\n"
                                 "IPv4 group: 0.0.0.0, IPv6 group: ::\n"
                                 "iod: 6, mac: 02:00:00:00:00:01, 192.0.2.2\n");
    ASSERT_EQ(all["records"].size(), 3u) << all.dump();
    EXPECT_EQ(all["records"][0], json::parse(R"({"iod": 6, "name": "a, state: b, name: c", "state": 2, "reason": 0,
        "external_iod": 3, "ipv4_group": "239.1.1.1", "ipv6_group": "::"})"));
    EXPECT_TRUE(all["records"][1]["name"].is_null());
    EXPECT_EQ(all["records"][2], json::parse(R"({"iod": 6, "mac": "02:00:00:00:00:01", "address": "192.0.2.2"})"));
}

TEST(Json, ReadsTheVersion)
{
    const json all = read("version", "Process    : lum\nVersion    : 1.0.0\nBuild      : v1 : 3\nRelease    : 1.0.0\n"
                                     "Built      : Jan  1 2026\nCompiler   : g++ 12.2.0\nRevision   : 0a1b2c3\n");
    EXPECT_EQ(all["version"]["process"], "lum");
    EXPECT_EQ(all["version"]["build"], "v1 : 3");
    EXPECT_EQ(all["version"]["revision"], "0a1b2c3");
}

TEST(Json, ReadsInterfacesWithWhatGoesOnBelowThem)
{
    const json all = read("interface", "Interface       Iod State   MTU  Mode       VLANs, addresses\n"
                                       "eth0              5 up     1500  routed     192.0.2.1\n"
                                       "                                            2001:db8::1\n"
                                       "eth1              3 up     1500  trunk      10,20-30,\n"
                                       "                                            40\n"
                                       "eth2              4 shut   1500  switchport -\n"
                                       "Overlay1          6 up        -  overlay    -\n");
    ASSERT_EQ(all["interfaces"].size(), 4u) << all.dump();
    EXPECT_EQ(all["interfaces"][0], json::parse(R"({"interface": "eth0", "iod": 5, "state": "up", "mtu": 1500,
        "mode": "routed", "vlans": null, "addresses": ["192.0.2.1", "2001:db8::1"]})"));
    EXPECT_EQ(all["interfaces"][1]["vlans"], "10,20-30,40");
    EXPECT_EQ(all["interfaces"][1]["addresses"].size(), 0u);
    EXPECT_EQ(all["interfaces"][2]["state"], "shut");
    EXPECT_TRUE(all["interfaces"][3]["mtu"].is_null());
}

TEST(Json, ReadsTheOtherTablesOfThePlatform)
{
    EXPECT_EQ(read("service", "Number  Service       State Process\n33      svcmgr        up    27143\n581     lum           down  0\n"),
              json::parse(R"({"services": [{"number": 33, "name": "svcmgr", "state": "up", "pid": 27143},
                                           {"number": 581, "name": "lum", "state": "down", "pid": 0}]})"));
    EXPECT_EQ(read("drop", "unknown unicast: no route      12\n"),
              json::parse(R"({"drops": [{"reason": "unknown unicast: no route", "count": 12}]})"));
    EXPECT_EQ(read("log", "2026-11-21T11:19:02.671 lum[17]: <<%LUM-3-X>> a[1]: text\n"),
              json::parse(R"({"log": [{"time": "2026-11-21T11:19:02.671", "process": "lum", "pid": 17,
                                       "text": "<<%LUM-3-X>> a[1]: text"}]})"));
    EXPECT_EQ(read("configuration", "chassis generic\ninterface eth1\n  switchport\nlum filter-fhrp\n"),
              json::parse(R"({"configuration": [{"interface": null, "line": "chassis generic"},
                                                {"interface": null, "line": "interface eth1"},
                                                {"interface": "eth1", "line": "switchport"},
                                                {"interface": null, "line": "lum filter-fhrp"}]})"));
    EXPECT_EQ(read("error", "/etc/x.conf:3: 'lum vpn-name': incomplete\n")["errors"].size(), 1u);
}

TEST(Json, KeepsLinesThatItCannotPlace)
{
    const json all = json::parse(find_json_schema("service")->read("33  svcmgr  up  27143\nno such thing\n"));
    EXPECT_EQ(all["services"].size(), 1u);
    EXPECT_EQ(all["other"], json::parse(R"(["no such thing"])"));
}

TEST(Json, IsValidForEmptyOutputAndForAnyOther)
{
    std::string odd = "a \"quoted\" \\ line\twith\x01control\nOverlay Interface \n : \n    \n*\n/\niod: ,\n"
                      "Overlay: , Adjacencies: \n10       /\n[\n[]: \nOverlay iod: , name: , state: , Reason: \n";
    for (int i = 0x20; i < 0x100; ++i)
        odd += static_cast<char>(i);
    for (const auto &schema : json_schemas()) {
        EXPECT_EQ(misfit(json::parse(schema.read("")), json::parse(schema.shape), schema.name),
                  std::string(schema.name) == "version" ? "version.version has no build: {}" : "");
        for (std::size_t cut = 0; cut <= odd.size(); ++cut)
            EXPECT_TRUE(json::accept(schema.read(odd.substr(cut)))) << schema.name << " from " << cut;
    }
}

TEST(Json, ReplacesBytesThatAreNotUtf8)
{
    EXPECT_EQ(json_text("p\xC3\xB6rt \xE2\x82\xAC \xF0\x9F\x98\x80"), "\"p\xC3\xB6rt \xE2\x82\xAC \xF0\x9F\x98\x80\"");
    EXPECT_EQ(json_text("\xFF"), "\"\xEF\xBF\xBD\"");
    EXPECT_EQ(json_text("\xC3"), "\"\xEF\xBF\xBD\"");
    EXPECT_EQ(json_text("\xC0\x80x"), "\"\xEF\xBF\xBD\xEF\xBF\xBDx\"");                                  // overlong
    EXPECT_EQ(json_text("\xED\xA0\x80"), "\"\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\"");                    // surrogate
    EXPECT_EQ(json_text("\xF4\x90\x80\x80").size(), 2 + 4 * 3u);                                         // too large
    EXPECT_TRUE(json::accept(json_text("\xE2\x82")));
    EXPECT_EQ(json_text(std::string_view("\x00\x7F\n", 3)), "\"\\u0000\\u007f\\u000a\"");
}

TEST(Json, HasTheSchemaOfEveryShowCommand)
{
    grammar g;
    for (const char *file : {"platform.cli", "lum.cli"})
        EXPECT_TRUE(g.add_file(corvaned_test::installed_grammar(file)).empty());
    std::set<std::string> used;
    for (const auto &command : g.all())
        if (command.shows()) {
            EXPECT_NE(find_json_schema(command.json), nullptr) << command.handler << ": '" << command.json << "'";
            used.insert(command.json);
        }
    EXPECT_EQ(used.size(), json_schemas().size());
}
