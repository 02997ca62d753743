/*
 * tlv_array.h - arrays of TLV elements: the body of every message.
 *
 * An element is a 16-bit type, a 16-bit length and that many bytes of value.  How it is
 * laid out and padded is the platform's decision, the same on both sides.  The library
 * relies on this much:
 *
 *   - a zero-filled buffer is an empty array;
 *   - an array takes 4 bytes of its own and, for each element, the
 *     tlv_size_get(length) bytes of that element, and nothing else.
 *
 * Received arrays are not trusted.  Whatever bytes an array holds, the readers stay
 * inside it: value and length lie within the array, and a damaged array gives a non-zero
 * status.  The library's decoders themselves read up to 64 bytes from a value pointer,
 * whatever the length is; transport.h says which bytes must follow a received array.
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
 * Reads the element at *cursor (0: the first) and moves the cursor behind it.  Returns
 * 0, or non-zero at the end of the array or on a damaged element; what the status means
 * is the platform's, the library passes it on.  type, length and value are outputs and
 * are set when 0 is returned.  The value is not aligned and is borrowed from the array.
 * The library uses a cursor with the array that it came from only.  Called once per
 * element of a message: make it O(1).
 */
int32_t tlv_array_get_next_tlv(const void *array, uint16_t *type, uint16_t *length, const void **value,
                               uintptr_t reserved, uint32_t *cursor);

/*
 * Number of elements in the array.  May be wrong for a damaged array, but reading so many
 * elements must come to an end.
 */
uint32_t tlv_array_get_num_tlvs(const void *array, uintptr_t reserved);

#ifdef __cplusplus
}
#endif

#endif
