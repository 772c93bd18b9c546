// `| json`: any text through every schema. What comes out is JSON, whatever the text. Byte 0 chooses the schema.
#include "fuzz.h"

#include "../../platform/corvaned/cmdsrv_json.h"

#include <nlohmann/json.hpp>

#include <string_view>

using namespace corvaned;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size < 1)
        return 0;
    const auto schemas = json_schemas();
    const std::string_view text(reinterpret_cast<const char *>(data) + 1, size - 1);
    const std::string made = schemas[data[0] % schemas.size()].read(text);
    fuzz::require(nlohmann::json::accept(made));
    return 0;
}

std::vector<fuzz::input> fuzz::seeds()
{
    const std::string_view texts[] = {
        "Overlay Adjacency database\n\nOverlay-Interface Overlay1 :\n02:00:00:00:00:01    192.0.2.2            9\n",
        "VLAN/MAC Address      Uptime    Layer-3 Address\n10/02:00:00:00:00:0a  00:00:05  10.0.0.1\n",
        "interface eth1\n  switchport\nlum filter-fhrp\n",
        "unknown unicast: no route      12\n",
        "/etc/x.conf:3: \xFF\n",
        "eth0              5 up     1500  routed     192.0.2.1\n                                 2001:db8::1\n",
        "2026-11-21T11:19:02.671 lum[17]: <<%LUM-3-X>> text\n",
        "Overlay Interface Overlay1\n VPN Name                 : blue\n                          : Admin Down\n"
        "Overlay1       blue                        6    UP      None\n",
        "eth1           10  \neth2           trunk-port\n",
        "Overlay iod: 6, name: a, state: 2, Reason: 0\nExternal iod: 3\nIPv4 group: 239.1.1.1, IPv6 group: ::\n",
        "581     lum           down  0\n",
        " Site-VLAN                : 5\nOverlay: x, Adjacencies: 1\n* 02:00:00:00:00:01          -1          0\n",
        "Process    : lum\nBuild      : v1 : 3\n",
        "10       7/0            blue      Overlay1   eth0           239.1.1.1\n    eth1  20       1/0            \n",
    };
    std::vector<input> made;
    for (std::size_t i = 0; i < std::size(texts); ++i) {
        input &seed = made.emplace_back(1, static_cast<std::uint8_t>(i));
        seed.insert(seed.end(), texts[i].begin(), texts[i].end());
    }
    return made;
}
