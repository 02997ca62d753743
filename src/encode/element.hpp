// What one element costs, and how it is appended.
#pragma once

#include "platform/tlv_array.h"
#include "zel.h"

#include <stdint.h>

namespace zel {

// Encoded size of an element; the platform's result is a 16-bit quantity.
inline uint32_t element_size(uint32_t value_length) { return static_cast<uint16_t>(tlv_size_get(value_length)); }

// Reports an element that the platform did not take.
void report_failed_element(const zel_api_handle_t &handle, const char *field_name, int32_t status);

// tlv_add_element() for the encoders, small enough to be inlined into each.
[[gnu::always_inline]] inline int32_t add_element(const zel_api_handle_t &handle, void *array, uint32_t size,
                                                  uint16_t id, uint16_t length, const void *value,
                                                  const char *field_name)
{
    const int32_t status = tlv_array_add_tlv(array, size, id, length, value, 0);
    if (status != 0) [[unlikely]]
        report_failed_element(handle, field_name, status);
    return status;
}

} // namespace zel
