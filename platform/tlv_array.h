/*
 * tlv_array.h - arrays of TLV elements: the body of every message.
 *
 * An element is a 16-bit type, a 16-bit length and that many bytes of value; how
 * it is laid out and padded is the platform's, and the same on both sides.  An
 * array costs 4 bytes of its own, and a zero-filled buffer is an empty array.
 *
 * Whatever bytes an array holds, the readers must stay inside it: a value
 * pointer plus length lies within the array, and an array that is damaged gives
 * a non-zero status.  The library trusts nothing else about a received array,
 * but its decoders read up to 64 bytes from a value pointer whatever the length
 * says (see transport.h for the bytes that must follow).
 *
 * "reserved" is a machine word that the library always gives as 0.
 */
#ifndef ZEL_PLATFORM_TLV_ARRAY_H
#define ZEL_PLATFORM_TLV_ARRAY_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Appends an element to the array in a buffer of capacity bytes.  Returns 0, or
 * a non-zero status when it does not fit or the array is damaged, and then the
 * array is unchanged.  Called once per element of a message: make it O(1).
 */
int32_t tlv_array_add_tlv(void *array, uint32_t capacity, uint16_t type, uint16_t length, const void *value,
                          uintptr_t reserved);

/*
 * Bytes that an element with a value of this length takes in an array, header
 * and padding included.  Constant for a length; only the low 16 bits are used.
 */
uint32_t tlv_size_get(uint32_t length);

/*
 * Reads the element at *cursor (0: the first) and moves the cursor behind it.
 * Returns 0, or non-zero at the end of the array or on a damaged element; what
 * the status means is the platform's, the library passes it on.  The value is
 * not aligned.  A cursor of one array is only ever used with that array.
 *
 * Beforehand, *type and *length may hold a guess at what comes; a type of 0 is
 * none.  A platform can be quicker about an element that was guessed right.  The
 * result is the same whatever was guessed.
 */
int32_t tlv_array_get_next_tlv(const void *array, uint16_t *type, uint16_t *length, const void **value,
                               uintptr_t reserved, uint32_t *cursor);

/* Number of elements in the array; reading that many must terminate. */
uint32_t tlv_array_get_num_tlvs(const void *array, uintptr_t reserved);

#ifdef __cplusplus
}
#endif

#endif
