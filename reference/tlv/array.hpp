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

// The result of reading one element.
struct ReadResult {
    int32_t status;
    ElementHeader header{};
    const void *value = nullptr;
    uint32_t cursor = 0; // behind the element
};

// A cursor is the number of bytes of the elements read, so 0 is the first element.
[[gnu::always_inline]] inline ReadResult read_at(const void *array, uint32_t cursor)
{
    const uint32_t used = used_bytes(array);
    if (!expect(cursor < used))
        return {TLV_END};
    const uint32_t left = used - cursor;
    if (!expect(left >= TLV_ELEMENT_OVERHEAD))
        return {TLV_DAMAGED};
    const unsigned char *const element = static_cast<const unsigned char *>(array) + TLV_ARRAY_OVERHEAD + cursor;
    ElementHeader header;
    std::memcpy(&header, element, sizeof header);
    const uint32_t size = TLV_ELEMENT_OVERHEAD + header.length;
    if (!expect(size <= left))
        return {TLV_DAMAGED};
    return {TLV_OK, header, element + sizeof header, cursor + size};
}

// Out of line and by value, for the rare path: no caller's variable needs an address.
[[gnu::noinline]] inline ReadResult read_rarely(const void *array, uint32_t cursor) { return read_at(array, cursor); }

// As tlv_array_get_next_tlv().
[[gnu::always_inline]] inline int32_t next(const void *array, uint32_t &cursor, uint16_t &type, uint16_t &length,
                                           const void *&value)
{
    const ReadResult result = read_at(array, cursor);
    if (!expect(result.status == TLV_OK))
        return result.status;
    type = result.header.type;
    length = result.header.length;
    value = result.value;
    cursor = result.cursor;
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
