// The values of the service's own requests, which are the elements of an array.
#pragma once

#include "platform/tlv_array.h"
#include "tools/zeld/refusal.hpp"

#include <cstring>
#include <vector>

namespace zeld {

// Reads the values of an array whose elements are all of one kind; null has none. Throws
// Refusal.
template <class V> std::vector<V> read_values(const void *array, uint16_t type)
{
    if (array == nullptr)
        return {};
    std::vector<V> values;
    uint32_t cursor = 0;
    const uint32_t num_elements = tlv_array_get_num_tlvs(array, 0);
    values.reserve(num_elements);
    for (uint32_t i = 1; i <= num_elements; ++i) {
        uint16_t found = 0;
        uint16_t length = 0;
        const void *value = nullptr;
        if (tlv_array_get_next_tlv(array, &found, &length, &value, 0, &cursor) != 0)
            throw Refusal(service::error_malformed, "element {} is damaged", i);
        if (found != type || length != sizeof(V))
            throw Refusal(service::error_malformed, "element {}: type {} of {} bytes where type {} of {} belongs", i,
                          found, length, type, sizeof(V));
        std::memcpy(&values.emplace_back(), value, sizeof(V));
    }
    return values;
}

} // namespace zeld
