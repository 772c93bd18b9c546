// Tunnelled TCP segments that the kernel's receive offload merged before the socket saw them. Pure.
#pragma once

#include "offload.h"
#include "tag.h"

namespace corvane {

// What it takes to cut a tagged frame (as on the wire) into segments again, for super_frame; nothing to do with any frame
// that is not the kernel's work. The kernel does not tell a socket the size of the segments, so they are made small
// enough for any link that carries IPv6: no host between the sites has asked for smaller ones.
[[nodiscard]] offload_meta merged_in_tunnel(const frame_ref &frame);

} // namespace corvane
