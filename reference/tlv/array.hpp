// TLV arrays: their layout, and reading as inline functions.  array.cpp exports the calls of
// zel/platform/tlv_array.h.  A program that is compiled together with its platform can include
// this header instead.
//
// An array is a 32-bit number of used bytes, then elements: 16 bits of type, 16 bits of
// length, the value.  Arrays lie at any address, hence memcpy() instead of integers.
#pragma once

#include "reference/expect.hpp"
#include "zel-platform/tlv_check.h"

#include <cstddef>
#include <cstring>
#include <stdint.h>

namespace zel::platform {

struct ElementHeader {
    uint16_t type;
    uint16_t length;
};
static_assert(sizeof(ElementHeader) == TLV_ELEMENT_OVERHEAD);

inline uint32_t used_bytes(const void *array)
{
    uint32_t used;
    std::memcpy(&used, array, sizeof used);
    return used;
}

inline void set_used_bytes(void *array, uint32_t used) { std::memcpy(array, &used, sizeof used); }

// ---- Reading

inline uint16_t length_of(const unsigned char *element)
{
    uint16_t length;
    std::memcpy(&length, element + offsetof(ElementHeader, length), sizeof length);
    return length;
}

// As tlv_array_get_next_tlv().  A cursor is the number of bytes of the elements read, so 0 is the first element.
[[gnu::always_inline]] inline int32_t next(const void *array, uint32_t &cursor, uint16_t &type, uint16_t &length,
                                           const void *&value)
{
    const uint32_t used = used_bytes(array);
    const uint32_t at = cursor;
    if (!expect(at < used))
        return TLV_END;
    const uint32_t left = used - at;
    if (!expect(left >= TLV_ELEMENT_OVERHEAD))
        return TLV_DAMAGED;
    // array + at first: the constants are then part of the address in each load.
    const unsigned char *const element = static_cast<const unsigned char *>(array) + at + TLV_ARRAY_OVERHEAD;
    const uint16_t found = length_of(element);
    if (!expect(found <= left - TLV_ELEMENT_OVERHEAD))
        return TLV_DAMAGED;
    std::memcpy(&type, element + offsetof(ElementHeader, type), sizeof type);
    length = found;
    value = element + TLV_ELEMENT_OVERHEAD;
    cursor = at + TLV_ELEMENT_OVERHEAD + found;
    return TLV_OK;
}

// Reads the next element if it has this type and length.  False, and nothing has changed, if
// it has not, or if the array ends before it or is damaged.  With a constant type and length
// this is one comparison, and the next cursor does not depend on what is read.
[[gnu::always_inline]] inline bool next_is(const void *array, uint32_t &cursor, uint16_t type, uint16_t length,
                                           const void *&value)
{
    const ElementHeader expected{type, length};
    const std::size_t size = TLV_ELEMENT_OVERHEAD + length;
    const std::size_t end = cursor + size;
    const unsigned char *const element = static_cast<const unsigned char *>(array) + cursor + TLV_ARRAY_OVERHEAD;
    const bool fits = size <= end && end <= used_bytes(array); // the sum wraps on 32-bit
    if (!expect(fits) || !expect(std::memcmp(element, &expected, sizeof expected) == 0))
        return false;
    value = element + TLV_ELEMENT_OVERHEAD;
    cursor = static_cast<uint32_t>(end);
    return true;
}

} // namespace zel::platform
