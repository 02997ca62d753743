// Ranges of ports as pairs of value and mask.
#include "zel.h"

#include <algorithm>
#include <bit>

// The largest block that begins at a port is limited by the port's alignment and by the end
// of the range.
uint32_t zel_split_port_range(uint16_t first, uint16_t last, zel_port_mask_t *pairs)
{
    const uint32_t end = uint32_t{last} + 1;
    uint32_t num_pairs = 0;
    for (uint32_t port = first; port < end;) {
        const uint32_t alignment = port != 0 ? port & (0 - port) : 0x10000;
        const uint32_t block = std::min(alignment, std::bit_floor(end - port));
        pairs[num_pairs++] = {static_cast<uint16_t>(port), static_cast<uint16_t>(0 - block)};
        port += block;
    }
    return num_pairs;
}
