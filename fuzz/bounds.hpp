// How much memory reading a message may take at any time: bytes asked for, not
// counting what the allocator adds.
#pragma once

#include "wire/format.hpp"
#include "zel-platform/tlv_check.h"

#include <algorithm>
#include <cstddef>

namespace fuzz {

constexpr std::size_t largest_record()
{
    std::size_t largest = 0;
    for (const zel::wire::Record *const object : zel::wire::mat_objects)
        largest = std::max<std::size_t>(largest, object->size);
    return largest;
}

// A member that a count is allowed takes a place in an array, and a record.
constexpr std::size_t member_cost = sizeof(void *) + largest_record();

// Any element may raise by one what the message is allowed, and may besides begin
// a record at the top of the message or put an object into the cache.
constexpr std::size_t element_cost = member_cost + std::max(largest_record(), sizeof(zel_mat_cache_entry_t));

// Counts are accepted as they are up to this sum, whatever the message's size.
constexpr std::size_t fixed_cost = 131072 * member_cost;

// Elements are as long as an element's header at least; a damaged one counts, too.
constexpr std::size_t parse_bound(std::size_t message_size)
{
    return fixed_cost + (message_size / TLV_ELEMENT_OVERHEAD + 1) * element_cost;
}

// The same in numbers: 16.5 MiB and 64 times the message, or 16 MiB and 63 times.
static_assert(fixed_cost == (sizeof(void *) == 8 ? 17301504 : 16777216));
static_assert(element_cost == TLV_ELEMENT_OVERHEAD * (sizeof(void *) == 8 ? 64 : 63));

// Statistics become one block.  An entry of it costs its sender an element's header
// and an array's: less than 9 times the message, and the record before the entries.
constexpr std::size_t statistics_bound(std::size_t message_size)
{
    constexpr std::size_t least_entry = TLV_ELEMENT_OVERHEAD + TLV_ARRAY_OVERHEAD;
    return sizeof(zel_stat_results_t) + message_size / least_entry * sizeof(zel_stat_result_entry_t);
}
static_assert(sizeof(zel_stat_result_entry_t) < 9 * (TLV_ELEMENT_OVERHEAD + TLV_ARRAY_OVERHEAD));

} // namespace fuzz
