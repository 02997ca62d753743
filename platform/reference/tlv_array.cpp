// TLV arrays.  These few lines run once per element of every message.
#include "platform/reference/contract.hpp"
#include "platform/reference/tlv_check.h"

#include <cstring>

namespace {

struct ElementHeader {
    uint16_t type;
    uint16_t length;
};
static_assert(sizeof(ElementHeader) == TLV_ELEMENT_OVERHEAD);

// Arrays lie at any address, hence copies instead of pointers to integers.
uint32_t used_bytes(const void *array)
{
    uint32_t used;
    std::memcpy(&used, array, sizeof used);
    return used;
}

// The lengths that nearly every element has become single stores.
void copy_value(unsigned char *to, const void *value, uint16_t length)
{
    switch (length) {
    case 0:
        return; // and value may be null
    case 1:
        std::memcpy(to, value, 1);
        return;
    case 2:
        std::memcpy(to, value, 2);
        return;
    case 4:
        std::memcpy(to, value, 4);
        return;
    default:
        std::memcpy(to, value, length);
    }
}

// What an element takes.  Where the next one begins depends on this one's length,
// and a count that waits for each length before it can load the next is slow.  A
// branch for each usual length lets the processor guess, and it guesses well.
uint32_t size_of_element(uint16_t length)
{
    // Or the compiler sees that all cases are the same, and removes the branches.
    const auto hidden = [](uint32_t size) {
        asm("" : "+r"(size));
        return size;
    };
    switch (length) {
    case 4:
        return hidden(TLV_ELEMENT_OVERHEAD + 4);
    case 2:
        return hidden(TLV_ELEMENT_OVERHEAD + 2);
    case 1:
        return hidden(TLV_ELEMENT_OVERHEAD + 1);
    default:
        return TLV_ELEMENT_OVERHEAD + length;
    }
}

} // namespace

int32_t tlv_array_add_tlv(void *array, uint32_t capacity, uint16_t type, uint16_t length, const void *value, uintptr_t)
{
    if (capacity < TLV_ARRAY_OVERHEAD) [[unlikely]]
        return TLV_NO_ROOM;
    const uint32_t used = used_bytes(array);
    const uint32_t room = capacity - TLV_ARRAY_OVERHEAD;
    if (used > room) [[unlikely]]
        return TLV_DAMAGED;
    const uint32_t size = TLV_ELEMENT_OVERHEAD + length;
    if (size > room - used) [[unlikely]]
        return TLV_NO_ROOM;

    unsigned char *const element = static_cast<unsigned char *>(array) + TLV_ARRAY_OVERHEAD + used;
    const ElementHeader header{type, length};
    std::memcpy(element, &header, sizeof header);
    copy_value(element + sizeof header, value, length);
    const uint32_t now_used = used + size;
    std::memcpy(array, &now_used, sizeof now_used);
    return TLV_OK;
}

uint32_t tlv_size_get(uint32_t length) { return length + TLV_ELEMENT_OVERHEAD; }

int32_t tlv_array_get_next_tlv(const void *array, uint16_t *type, uint16_t *length, const void **value, uintptr_t,
                               uint32_t *cursor)
{
    // The cursor counts the bytes of the elements read, so 0 is the first element.
    const uint32_t used = used_bytes(array);
    const uint64_t at = *cursor;
    if (at + TLV_ELEMENT_OVERHEAD > used) [[unlikely]]
        return at >= used ? TLV_END : TLV_DAMAGED;
    const unsigned char *const element = static_cast<const unsigned char *>(array) + TLV_ARRAY_OVERHEAD + at;
    ElementHeader header;
    std::memcpy(&header, element, sizeof header);
    const uint64_t end = at + TLV_ELEMENT_OVERHEAD + header.length;
    if (end > used) [[unlikely]]
        return TLV_DAMAGED;
    *type = header.type;
    *length = header.length;
    *value = element + sizeof header;
    *cursor = static_cast<uint32_t>(end);
    return TLV_OK;
}

// A damaged element ends the array and counts as its last, so that whoever reads
// as many as this comes across the damage instead of taking the array for whole.
uint32_t tlv_array_get_num_tlvs(const void *array, uintptr_t)
{
    const auto *const elements = static_cast<const unsigned char *>(array) + TLV_ARRAY_OVERHEAD;
    const uint32_t used = used_bytes(array);
    uint64_t at = 0;
    uint32_t count = 0;
    for (; at + TLV_ELEMENT_OVERHEAD <= used; ++count) {
        ElementHeader header;
        std::memcpy(&header, elements + at, sizeof header);
        at += size_of_element(header.length);
    }
    return at < used ? count + 1 : count;
}

int32_t tlv_array_check(const void *array, uint32_t size)
{
    if (size < TLV_ARRAY_OVERHEAD || used_bytes(array) > size - TLV_ARRAY_OVERHEAD)
        return TLV_DAMAGED;
    return TLV_OK;
}
