// TLV arrays: the operations that run once per element of every message, as inline
// functions.  array.cpp exports them as the calls of zel/platform/tlv_array.h.  A program that
// is compiled together with its platform can include this header instead.
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

// ---- Appending

// The status for an element that append() did not take.
[[gnu::cold, gnu::noinline]] inline int32_t refusal_status(const void *array, uint32_t capacity)
{
    const bool is_sound = capacity < TLV_ARRAY_OVERHEAD || tlv_array_check(array, capacity) == TLV_OK;
    return is_sound ? TLV_NO_ROOM : TLV_DAMAGED;
}

// One 32-bit store when type and length are constants.  Otherwise two stores are quicker
// than joining the two.
[[gnu::always_inline]] inline void write_header(unsigned char *to, ElementHeader header)
{
    if (__builtin_constant_p(header.type) && __builtin_constant_p(header.length)) {
        std::memcpy(to, &header, sizeof header);
    } else {
        std::memcpy(to + offsetof(ElementHeader, type), &header.type, sizeof header.type);
        std::memcpy(to + offsetof(ElementHeader, length), &header.length, sizeof header.length);
    }
}

// Out of line, so that append() needs no stack frame.
[[gnu::noinline]] inline int32_t copy_long_value(unsigned char *to, const void *value, uint16_t length)
{
    std::memcpy(to, value, length);
    return TLV_OK;
}

// Nearly every value has 1, 2 or 4 bytes, which become a single store.
[[gnu::always_inline]] inline int32_t copy_value(unsigned char *to, const void *value, uint16_t length)
{
    switch (length) {
    case 0:
        return TLV_OK; // value may be null
    case 1:
        std::memcpy(to, value, 1);
        return TLV_OK;
    case 2:
        std::memcpy(to, value, 2);
        return TLV_OK;
    case 4:
        std::memcpy(to, value, 4);
        return TLV_OK;
    default:
        return copy_long_value(to, value, length);
    }
}

// As tlv_array_add_tlv().
[[gnu::always_inline]] inline int32_t append(void *array, uint32_t capacity, uint16_t type, uint16_t length,
                                             const void *value)
{
    const uint32_t size = TLV_ELEMENT_OVERHEAD + length;
    // In this order the compiler computes capacity - size once for many elements.
    if (!expect(capacity >= TLV_ARRAY_OVERHEAD + size))
        return refusal_status(array, capacity);
    const uint32_t used = used_bytes(array);
    if (!expect(used <= capacity - TLV_ARRAY_OVERHEAD - size))
        return refusal_status(array, capacity);

    // array + used first: the constant is then part of the address in each store.
    unsigned char *const element = static_cast<unsigned char *>(array) + used + TLV_ARRAY_OVERHEAD;
    write_header(element, {type, length});
    if (__builtin_constant_p(length) && length != 0) {
        // The store of the used bytes comes last, so that a compiler that inlines the next
        // append() as well does not load them again.
        std::memcpy(element + TLV_ELEMENT_OVERHEAD, value, length);
        set_used_bytes(array, used + size);
        return TLV_OK;
    }
    set_used_bytes(array, used + size);
    return copy_value(element + TLV_ELEMENT_OVERHEAD, value, length);
}

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
