// Elements of TLV arrays, as the library appends and reads them: through the platform's
// operations.  A program that contains the reference platform as well is optimised as a
// whole; it names that platform's inline functions in ZEL_INLINE_ELEMENTS, and they take
// the place of the calls.
#pragma once

#include "zel/platform/tlv_array.h"

#include <stdint.h>

#ifdef ZEL_INLINE_ELEMENTS
#include ZEL_INLINE_ELEMENTS
#endif

namespace zel {

// Bytes that an array takes before its first element.
inline constexpr uint32_t array_overhead = 4;

// Whether the layout of elements is known when the library is compiled.
#ifdef ZEL_INLINE_ELEMENTS
inline constexpr bool platform_is_inline = true;
#else
inline constexpr bool platform_is_inline = false;
#endif

// For a condition that holds in every sound message.  [[likely]] means 90 %; thirty such
// branches in a row give 4 %, and the compiler would move the whole path out of line.
// This says 100 %.
[[gnu::always_inline]] inline bool expect_true(bool condition)
{
#ifdef __clang_analyzer__ // does not know the function
    return condition;
#else
    return __builtin_expect_with_probability(condition, true, 1.0) != 0;
#endif
}

// Without its length, which decoders do not look at: a field is read at its own width.
struct TlvElement {
    uint16_t id;
    const void *value;
};

} // namespace zel
