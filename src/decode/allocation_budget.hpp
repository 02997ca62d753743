// How many members one message may have memory allocated for.
#pragma once

#include "zel/platform/tlv_array.h"

#include <algorithm>
#include <stdint.h>

namespace zel {

// A count costs the sender a few bytes and the reader an array.  So the counts of a message
// are accepted as they are until their sum reaches 131,072, more than any single count of 16
// bits.  After that a count is cut to the number of elements that the message still has for
// members.
struct AllocationBudget {
    const void *array;
    uint32_t free_members = 131072;
    uint32_t members_left = 0; // what the message can contain; known once it is needed
    bool is_counted = false;

    // The part of a count that is accepted.
    uint32_t take(uint32_t count)
    {
        if (count <= free_members) {
            free_members -= count;
            return count;
        }
        if (!is_counted) {
            is_counted = true;
            members_left = tlv_array_get_num_tlvs(array, 0);
        }
        const uint32_t taken = std::min(count, members_left);
        members_left -= taken;
        return taken;
    }
};

} // namespace zel
