// Elements of TLV arrays, as the library appends and reads them: through the platform's
// operations.  A program that contains the reference platform as well is optimised as a
// whole; it names that platform's inline functions in ZEL_INLINE_ELEMENTS, and they take
// the place of the calls.
#pragma once

#include "platform/tlv_array.h"

#include <stdint.h>

#ifdef ZEL_INLINE_ELEMENTS
#include ZEL_INLINE_ELEMENTS
#endif

namespace zel {

// Bytes that an array takes before its first element.
inline constexpr uint32_t array_overhead = 4;

// For a condition that holds in every sound message.  [[likely]] means 90 %; thirty such
// branches in a row give 4 %, and the compiler would move the whole path out of line.
// This says 100 %.
[[gnu::always_inline]] inline bool expect_true(bool condition)
{
    return __builtin_expect_with_probability(condition, true, 1.0) != 0;
}

[[gnu::always_inline]] inline int32_t append_element(void *array, uint32_t capacity, uint16_t id, uint16_t length,
                                                     const void *value)
{
#ifdef ZEL_INLINE_ELEMENTS
    return platform::append(array, capacity, id, length, value);
#else
    return tlv_array_add_tlv(array, capacity, id, length, value, 0);
#endif
}

// Without its length, which decoders do not look at: a field is read at its own width.
struct TlvElement {
    uint16_t id;
    const void *value;
};

// The header of the element that the encoder writes at a place.  Id 0: any.
struct ExpectedElement {
    uint16_t id = 0;
    uint16_t length = 0;
};

#ifdef ZEL_INLINE_ELEMENTS

// Pulls elements one by one.  The position is a copy of the caller's cursor, which then
// stays in a register; give_back() and take_back() stand around code that reads on its own.
class ElementReader {
public:
    ElementReader(const void *array, uint32_t *cursor) : array_(array), shared_(cursor), cursor_(*cursor) {}

    // Any element may come; an expected one is read faster.
    template <ExpectedElement Expected = ExpectedElement{}> [[gnu::always_inline]] bool pull()
    {
        if constexpr (Expected.id != 0) {
            if (expect_true(platform::next_is(array_, cursor_, Expected.id, Expected.length, element.value))) {
                element.id = Expected.id;
                status = 0;
                return true;
            }
        }
        uint16_t length = 0;
        status = platform::next(array_, cursor_, element.id, length, element.value);
        return status == 0;
    }

    void give_back() { *shared_ = cursor_; }
    void take_back() { cursor_ = *shared_; }

    int32_t status = 0; // of the last pull
    TlvElement element{};

private:
    const void *array_;
    uint32_t *shared_;
    uint32_t cursor_;
};

#else

// Pulls elements one by one, each with the caller's own cursor.
class ElementReader {
public:
    ElementReader(const void *array, uint32_t *cursor) : array_(array), cursor_(cursor) {}

    template <ExpectedElement Expected = ExpectedElement{}> [[gnu::always_inline]] bool pull()
    {
        uint16_t length = 0;
        status = tlv_array_get_next_tlv(array_, &element.id, &length, &element.value, 0, cursor_);
        return status == 0;
    }

    // The cursor is the caller's at all times.
    void give_back() {}
    void take_back() {}

    int32_t status = 0; // of the last pull
    TlvElement element{};

private:
    const void *array_;
    uint32_t *cursor_;
};

#endif

} // namespace zel
