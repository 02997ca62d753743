// TLV arrays.  These few lines run once per element of every message.
#include "platform/reference/contract.hpp"
#include "platform/reference/tlv_check.h"

#include <cstddef>
#include <cstring>

namespace {

struct ElementHeader {
    uint16_t type;
    uint16_t length;
};
static_assert(sizeof(ElementHeader) == TLV_ELEMENT_OVERHEAD);

// [[likely]] says nine in ten, which is too little for what is inlined by the dozen.
[[gnu::always_inline]] inline bool surely(bool condition)
{
    return __builtin_expect_with_probability(condition, true, 1.0) != 0;
}

// Arrays lie at any address, hence copies instead of pointers to integers.
uint32_t used_bytes(const void *array)
{
    uint32_t used;
    std::memcpy(&used, array, sizeof used);
    return used;
}

// With one store if the compiler knows what, otherwise with two instead of making one value.
[[gnu::always_inline]] inline void write_header(unsigned char *to, ElementHeader header)
{
    if (__builtin_constant_p(header.type) && __builtin_constant_p(header.length)) {
        std::memcpy(to, &header, sizeof header);
    } else {
        std::memcpy(to + offsetof(ElementHeader, type), &header.type, sizeof header.type);
        std::memcpy(to + offsetof(ElementHeader, length), &header.length, sizeof header.length);
    }
}

// Out of line, so that whoever gets by without it needs no stack.
[[gnu::noinline]] int32_t copy_long_value(unsigned char *to, const void *value, uint16_t length)
{
    std::memcpy(to, value, length);
    return TLV_OK;
}

// The lengths that nearly every element has become single stores.
[[gnu::always_inline]] inline int32_t copy_value(unsigned char *to, const void *value, uint16_t length)
{
    switch (length) {
    case 0:
        return TLV_OK; // and value may be null
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

uint16_t length_of(const unsigned char *element)
{
    uint16_t length;
    std::memcpy(&length, element + offsetof(ElementHeader, length), sizeof length);
    return length;
}

// What an element takes.  Where the next one begins depends on this one's length,
// and a count that waits for each length before it can load the next is slow.  A
// branch for each usual length lets the processor guess, and it guesses well.
uint32_t size_of_element(uint16_t length)
{
    // Or the compiler sees that all cases are the same, and removes the branches.
    const auto guessed = [](uint32_t size) {
        asm volatile("" : "+r"(size));
        return size;
    };
    if (length == 1)
        return guessed(TLV_ELEMENT_OVERHEAD + 1);
    if (length == 4)
        return guessed(TLV_ELEMENT_OVERHEAD + 4);
    if (length == 2)
        return guessed(TLV_ELEMENT_OVERHEAD + 2);
    return TLV_ELEMENT_OVERHEAD + length;
}

} // namespace

[[gnu::used, gnu::always_inline]] inline int32_t tlv_array_add_tlv(void *array, uint32_t capacity, uint16_t type,
                                                                   uint16_t length, const void *value, uintptr_t)
{
    if (!surely(capacity >= TLV_ARRAY_OVERHEAD))
        return TLV_NO_ROOM;
    const uint32_t room = capacity - TLV_ARRAY_OVERHEAD;
    const uint32_t used = used_bytes(array);
    const uint64_t end = uint64_t{used} + TLV_ELEMENT_OVERHEAD + length;
    if (!surely(end <= room))
        return used > room ? TLV_DAMAGED : TLV_NO_ROOM;

    const auto now_used = static_cast<uint32_t>(end);
    unsigned char *const element = static_cast<unsigned char *>(array) + TLV_ARRAY_OVERHEAD + used;
    unsigned char *const to = element + sizeof(ElementHeader);
    write_header(element, {type, length});
    if (__builtin_constant_p(length) && length != 0) {
        // What has been used comes last: a compiler that sees the next element, too, then
        // need not load it again.
        std::memcpy(to, value, length);
        std::memcpy(array, &now_used, sizeof now_used);
        return TLV_OK;
    }
    std::memcpy(array, &now_used, sizeof now_used);
    return copy_value(to, value, length);
}

uint32_t tlv_size_get(uint32_t length) { return length + TLV_ELEMENT_OVERHEAD; }

[[gnu::used, gnu::always_inline]] inline int32_t tlv_array_get_next_tlv(const void *array, uint16_t *type,
                                                                        uint16_t *length, const void **value, uintptr_t,
                                                                        uint32_t *cursor)
{
    // The cursor counts the bytes of the elements read, so 0 is the first element.
    const uint32_t used = used_bytes(array);
    const uint32_t at = *cursor;
    if (!surely(at < used))
        return TLV_END;
    const uint32_t left = used - at;
    if (!surely(left >= TLV_ELEMENT_OVERHEAD))
        return TLV_DAMAGED;
    const unsigned char *const element = static_cast<const unsigned char *>(array) + TLV_ARRAY_OVERHEAD + at;
    ElementHeader header;
    std::memcpy(&header, element, sizeof header);
    const uint32_t size = TLV_ELEMENT_OVERHEAD + header.length;
    if (!surely(size <= left))
        return TLV_DAMAGED;
    *type = header.type;
    *length = header.length;
    *value = element + sizeof header;
    *cursor = at + size;
    return TLV_OK;
}

// A damaged element ends the array and counts as its last, so that whoever reads
// as many as this comes across the damage instead of taking the array for whole.
uint32_t tlv_array_get_num_tlvs(const void *array, uintptr_t)
{
    const auto *element = static_cast<const unsigned char *>(array) + TLV_ARRAY_OVERHEAD;
    uint32_t left = used_bytes(array);
    uint32_t count = 0;
    while (left >= TLV_ELEMENT_OVERHEAD) {
        const uint32_t size = size_of_element(length_of(element));
        ++count;
        if (size > left)
            return count;
        element += size;
        left -= size;
    }
    return left != 0 ? count + 1 : count;
}

int32_t tlv_array_check(const void *array, uint32_t size)
{
    if (size < TLV_ARRAY_OVERHEAD || used_bytes(array) > size - TLV_ARRAY_OVERHEAD)
        return TLV_DAMAGED;
    return TLV_OK;
}
