// Whether the core takes an overlay's full frames in one piece. Where it does not they leave in fragments, which costs
// speed and is lost wherever the way drops fragments: an operator has to learn of it, from the log.
#pragma once

#include "overlays.h"

#include <span>
#include <string>
#include <vector>

namespace corvane {

struct interface_table;

// Bytes of the core packet that carries a full frame: 1514 bytes and a VLAN tag, behind the headers of the format.
[[nodiscard]] std::uint32_t overlay_full_packet(const overlay_config &overlay);

class overlay_size_notices {
public:
    // A line for each overlay that is up over an interface too small for it. None is given again, not after a flap
    // either, until one of its numbers or its interface has changed.
    [[nodiscard]] std::vector<std::string> look(std::span<const overlay_config> overlays, const interface_table &table);

private:
    struct notice {
        std::uint32_t overlay_iod = 0, core_iod = 0, needed = 0, mtu = 0;
        bool operator==(const notice &) const = default;
    };
    [[nodiscard]] bool is_news(const notice &now);
    void forget(std::uint32_t overlay_iod);

    std::vector<notice> given_;              // at most one an overlay
};

} // namespace corvane
