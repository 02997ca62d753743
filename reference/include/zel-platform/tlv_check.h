/*
 * tlv_check.h - what this platform's TLV arrays answer, and the check of an array that was received.
 *
 * An array is a 32-bit number of bytes that are used behind it, then elements of
 * a 16-bit type, a 16-bit length and the value, without padding, all in host order.
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

/* Status of the calls in platform/tlv_array.h. */
enum {
    TLV_OK = 0,
    TLV_END = 1,     /* the array has no further element */
    TLV_DAMAGED = 2, /* an element, or the array itself, does not fit in its surroundings */
    TLV_NO_ROOM = 3  /* the buffer has no room for the element */
};

/*
 * Holds an array against the size bytes that are really there, which the calls
 * of platform/tlv_array.h cannot know.  Whoever receives an array does this once;
 * after that no reader leaves those bytes.  Returns TLV_OK, or TLV_DAMAGED when
 * the array claims more.  Reads nothing outside.  Reentrant.
 */
int32_t tlv_array_check(const void *array, uint32_t size);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
