// The calls of zel/platform/tlv_array.h, and the check of a received array.
#include "reference/tlv/array.hpp"

#include "reference/contract.hpp"

using namespace zel::platform;

namespace {

// The status for an element that was not appended.
[[gnu::cold, gnu::noinline]] int32_t refusal_status(const void *array, uint32_t capacity)
{
    const bool is_sound = capacity < TLV_ARRAY_OVERHEAD || tlv_array_check(array, capacity) == TLV_OK;
    return is_sound ? TLV_NO_ROOM : TLV_DAMAGED;
}

[[gnu::always_inline]] inline int32_t append(void *array, uint32_t capacity, uint16_t type, uint16_t length,
                                             const void *value)
{
    const uint32_t needed = TLV_ARRAY_OVERHEAD + TLV_ELEMENT_OVERHEAD + length;
    if (!expect(capacity >= needed))
        return refusal_status(array, capacity);
    const uint32_t used = used_bytes(array);
    if (!expect(used <= capacity - needed))
        return refusal_status(array, capacity);
    // array + used first: the constant is then part of the address in each store.
    unsigned char *const element = static_cast<unsigned char *>(array) + used + TLV_ARRAY_OVERHEAD;
    std::memcpy(element + offsetof(ElementHeader, type), &type, sizeof type);
    std::memcpy(element + offsetof(ElementHeader, length), &length, sizeof length);
    if (length != 0) // value may be null
        std::memcpy(element + TLV_ELEMENT_OVERHEAD, value, length);
    set_used_bytes(array, used + TLV_ELEMENT_OVERHEAD + length);
    return TLV_OK;
}

[[gnu::noinline]] int32_t append_any(void *array, uint32_t capacity, uint16_t type, uint16_t length, const void *value)
{
    return append(array, capacity, type, length, value);
}

struct Count {
    std::size_t bytes;
    uint32_t elements;
};

// Counts elements up to the first whose value has another length than 1, 2 or 4 bytes, or
// which begins at limit or behind it.
//
// The position of an element depends on the length of the one before it.  Adding the length
// makes every step wait for a load; branching on it lets the processor predict the length
// and go on.  The function is short, and the number of cache lines that it lies in matters:
// hence the alignment.
[[gnu::noinline, gnu::aligned(64)]] Count count_short_elements(const unsigned char *elements, std::size_t limit)
{
    std::size_t at = 0;
    uint32_t count = 0;
    const auto skip = [&](std::size_t length) {
        at += TLV_ELEMENT_OVERHEAD + length;
        asm volatile("" : "+r"(at)); // keeps the compiler from joining the branches into one addition
    };
    for (; at < limit; ++count) {
        const uint16_t length = length_of(elements + at);
        if (length == 1)
            skip(1);
        else if (length == 4)
            skip(4);
        else if (length == 2)
            skip(2);
        else
            break;
    }
    return {at, count};
}

} // namespace

int32_t tlv_array_add_tlv(void *array, uint32_t capacity, uint16_t type, uint16_t length, const void *value, uintptr_t)
{
    // Nearly every value has one of these lengths.  A constant length saves a third of the instructions.
    if (length == 4)
        return append(array, capacity, type, 4, value);
    if (length == 1)
        return append(array, capacity, type, 1, value);
    if (length == 2)
        return append(array, capacity, type, 2, value);
    return append_any(array, capacity, type, length, value);
}

uint32_t tlv_size_get(uint32_t length) { return length + TLV_ELEMENT_OVERHEAD; }

int32_t tlv_array_get_next_tlv(const void *array, uint16_t *type, uint16_t *length, const void **value, uintptr_t,
                               uint32_t *cursor)
{
    return next(array, *cursor, *type, *length, *value);
}

// A damaged element counts as the last one, so that a caller who reads so many elements
// meets the damage.
uint32_t tlv_array_get_num_tlvs(const void *array, uintptr_t)
{
    constexpr std::size_t longest_short = TLV_ELEMENT_OVERHEAD + 4;
    const auto *element = static_cast<const unsigned char *>(array) + TLV_ARRAY_OVERHEAD;
    std::size_t left = used_bytes(array);
    uint32_t count = 0;
    for (;;) {
        const Count counted = count_short_elements(element, left < longest_short ? 0 : left - longest_short);
        count += counted.elements;
        element += counted.bytes;
        left -= counted.bytes;
        if (left < TLV_ELEMENT_OVERHEAD)
            return left != 0 ? count + 1 : count;
        ++count;
        const std::size_t size = TLV_ELEMENT_OVERHEAD + length_of(element);
        if (size > left)
            return count;
        element += size;
        left -= size;
    }
}

int32_t tlv_array_check(const void *array, uint32_t size)
{
    if (size < TLV_ARRAY_OVERHEAD || used_bytes(array) > size - TLV_ARRAY_OVERHEAD)
        return TLV_DAMAGED;
    return TLV_OK;
}
