/*
 * Arrays: the bytes of all elements as a 32-bit number, then each element: 16 bits of type, 16
 * bits of length, the value.
 */
#include "zel/platform/tlv_array.h"
#include "port.h"

#include <string.h>

enum { OVERHEAD = 4, OK = 0, END = 1, DAMAGED = 2, NO_ROOM = 3 };

/* Arrays lie at any address, so numbers are copied instead of being read in place. */
static uint32_t used_bytes(const void *array)
{
    uint32_t used;
    memcpy(&used, array, sizeof used);
    return used;
}

uint32_t tlv_size_get(uint32_t length) { return OVERHEAD + length; }

int32_t tlv_array_add_tlv(void *array, uint32_t capacity, uint16_t type, uint16_t length, const void *value,
                          uintptr_t reserved)
{
    (void)reserved;
    const uint32_t size = tlv_size_get(length);
    if (capacity < OVERHEAD + size)
        return NO_ROOM;
    uint32_t used = used_bytes(array);
    if (used > capacity - OVERHEAD - size) /* a damaged array, too */
        return NO_ROOM;
    unsigned char *element = (unsigned char *)array + OVERHEAD + used;
    memcpy(element, &type, sizeof type);
    memcpy(element + 2, &length, sizeof length);
    memcpy(element + OVERHEAD, value, length);
    used += size;
    memcpy(array, &used, sizeof used);
    return OK;
}

/* A cursor is the number of bytes of the elements before it. */
int32_t tlv_array_get_next_tlv(const void *array, uint16_t *type, uint16_t *length, const void **value,
                               uintptr_t reserved, uint32_t *cursor)
{
    (void)reserved;
    const uint32_t used = used_bytes(array);
    if (*cursor >= used)
        return END;
    const uint32_t left = used - *cursor;
    const unsigned char *element = (const unsigned char *)array + OVERHEAD + *cursor;
    uint16_t bytes = 0;
    if (left >= OVERHEAD)
        memcpy(&bytes, element + 2, sizeof bytes);
    if (left < tlv_size_get(bytes))
        return DAMAGED;
    memcpy(type, element, sizeof *type);
    *length = bytes;
    *value = element + OVERHEAD;
    *cursor += tlv_size_get(bytes);
    return OK;
}

uint32_t tlv_array_get_num_tlvs(const void *array, uintptr_t reserved)
{
    uint16_t type, length;
    const void *value;
    uint32_t cursor = 0, count = 0;
    while (tlv_array_get_next_tlv(array, &type, &length, &value, reserved, &cursor) == OK)
        ++count;
    return count;
}

int loopback_is_array(const void *bytes, uint32_t size)
{
    return size >= OVERHEAD && used_bytes(bytes) <= size - OVERHEAD;
}
