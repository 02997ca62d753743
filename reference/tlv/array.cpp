// TLV arrays.  These few lines run once per element of every message.
#include "reference/contract.hpp"
#include "zel-platform/tlv_check.h"

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

[[gnu::cold, gnu::noinline]] int32_t why_refused(const void *array, uint32_t capacity)
{
    const bool is_sound = capacity < TLV_ARRAY_OVERHEAD || tlv_array_check(array, capacity) == TLV_OK;
    return is_sound ? TLV_NO_ROOM : TLV_DAMAGED;
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

struct Passed {
    std::size_t bytes;
    uint32_t elements;
};

// Passes over elements of the usual lengths.  Where the next one begins depends on this
// one's length, and a count that waits for each length before it can load the next is
// slow.  A branch for each lets the processor guess, and it guesses well.  Aligned,
// because it matters to these few instructions in how many cache lines they lie.
[[gnu::noinline, gnu::aligned(64)]] Passed pass_usual(const unsigned char *elements, std::size_t size)
{
    std::size_t at = 0;
    uint32_t count = 0;
    // Or the compiler sees that all branches do the same, and removes them.
    const auto pass = [&](std::size_t length) {
        at += TLV_ELEMENT_OVERHEAD + length;
        asm volatile("" : "+r"(at));
    };
    for (; at < size; ++count) {
        const uint16_t length = length_of(elements + at);
        if (length == 1)
            pass(1);
        else if (length == 4)
            pass(4);
        else if (length == 2)
            pass(2);
        else
            break;
    }
    return {at, count};
}

// What reading an element gives.
struct Step {
    int32_t status;
    ElementHeader header{};
    const unsigned char *value = nullptr;
    uint32_t cursor = 0;
};

// The cursor counts the bytes of the elements read, so 0 is the first element.
[[gnu::always_inline]] inline Step next_step(const void *array, uint32_t cursor)
{
    const uint32_t used = used_bytes(array);
    if (!surely(cursor < used))
        return {TLV_END};
    const uint32_t left = used - cursor;
    if (!surely(left >= TLV_ELEMENT_OVERHEAD))
        return {TLV_DAMAGED};
    const unsigned char *const element = static_cast<const unsigned char *>(array) + TLV_ARRAY_OVERHEAD + cursor;
    ElementHeader header;
    std::memcpy(&header, element, sizeof header);
    const uint32_t size = TLV_ELEMENT_OVERHEAD + header.length;
    if (!surely(size <= left))
        return {TLV_DAMAGED};
    return {TLV_OK, header, element + sizeof header, cursor + size};
}

// By value: whoever takes a variable's address keeps it out of a register.
[[gnu::noinline]] Step unforeseen_step(const void *array, uint32_t cursor) { return next_step(array, cursor); }

[[gnu::always_inline]] inline bool has_header(const unsigned char *element, ElementHeader header)
{
    return std::memcmp(element, &header, sizeof header) == 0;
}

} // namespace

[[gnu::used, gnu::always_inline]] inline int32_t tlv_array_add_tlv(void *array, uint32_t capacity, uint16_t type,
                                                                   uint16_t length, const void *value, uintptr_t)
{
    const uint32_t size = TLV_ELEMENT_OVERHEAD + length;
    // For one element after the other, compilers subtract but once for all of a size.
    if (!surely(capacity >= TLV_ARRAY_OVERHEAD + size))
        return why_refused(array, capacity);
    const uint32_t used = used_bytes(array);
    if (!surely(used <= capacity - TLV_ARRAY_OVERHEAD - size))
        return why_refused(array, capacity);

    const uint32_t now_used = used + size;
    unsigned char *const before = static_cast<unsigned char *>(array) + used;
    unsigned char *const element = before + TLV_ARRAY_OVERHEAD;
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
    Step step;
    if (__builtin_constant_p(*type) && __builtin_constant_p(*length) && *type != 0) {
        // Where the next element is then does not depend on what is read.
        const std::size_t size = TLV_ELEMENT_OVERHEAD + *length;
        const std::size_t end = *cursor + size;
        const unsigned char *const before = static_cast<const unsigned char *>(array) + *cursor;
        if (surely(size <= end && end <= used_bytes(array)) &&
            surely(has_header(before + TLV_ARRAY_OVERHEAD, {*type, *length}))) {
            *value = before + TLV_ARRAY_OVERHEAD + TLV_ELEMENT_OVERHEAD;
            *cursor = static_cast<uint32_t>(end);
            return TLV_OK;
        }
        step = unforeseen_step(array, *cursor);
    } else {
        step = next_step(array, *cursor);
    }
    if (!surely(step.status == TLV_OK))
        return step.status;
    *type = step.header.type;
    *length = step.header.length;
    *value = step.value;
    *cursor = step.cursor;
    return TLV_OK;
}

// A damaged element ends the array and counts as its last, so that whoever reads
// as many as this comes across the damage instead of taking the array for whole.
uint32_t tlv_array_get_num_tlvs(const void *array, uintptr_t)
{
    constexpr std::size_t longest_usual = TLV_ELEMENT_OVERHEAD + 4;
    const auto *element = static_cast<const unsigned char *>(array) + TLV_ARRAY_OVERHEAD;
    std::size_t left = used_bytes(array);
    uint32_t count = 0;
    for (;;) {
        const Passed passed = pass_usual(element, left < longest_usual ? 0 : left - longest_usual);
        count += passed.elements;
        element += passed.bytes;
        left -= passed.bytes;
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
