/*
 * tlv_check.h - layout and status codes of this platform's TLV arrays, and the check of a
 * received array.
 *
 * An array is a 32-bit number, the bytes of all elements, followed by the elements.  An
 * element is a 16-bit type, a 16-bit length and the value.  There is no padding, and
 * numbers are in host order.
 */
#ifndef ZEL_PLATFORM_REFERENCE_TLV_CHECK_H
#define ZEL_PLATFORM_REFERENCE_TLV_CHECK_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/* Bytes that an array costs before its first element, and that an element costs before its value. */
#define TLV_ARRAY_OVERHEAD 4u
#define TLV_ELEMENT_OVERHEAD 4u

/* Status codes of the calls in zel/platform/tlv_array.h. */
enum {
    TLV_OK = 0,
    TLV_END = 1,     /* the array has no further element */
    TLV_DAMAGED = 2, /* an element, or the array itself, does not fit in its surroundings */
    TLV_NO_ROOM = 3  /* the buffer has no room for the element */
};

/*
 * Checks a received array of size bytes.  Returns TLV_OK, or TLV_DAMAGED when the array
 * claims to be larger.  The calls of zel/platform/tlv_array.h do not have the size, so every
 * receiver of an array must call this once; after TLV_OK no call reads beyond size bytes.
 * Reads nothing outside the size bytes itself.  Reentrant.
 */
int32_t tlv_array_check(const void *array, uint32_t size);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
