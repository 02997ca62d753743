// Texts as template arguments, and their concatenation at compile time.
#pragma once

#include <algorithm>
#include <cstddef>

namespace zel {

template <std::size_t N> struct FixedString {
    char text[N]{};

    constexpr FixedString() = default;
    // Implicit, so that a literal can be a template argument.
    consteval FixedString(const char (&literal)[N]) { std::copy_n(literal, N, text); }
};

template <std::size_t A, std::size_t B>
consteval FixedString<A + B - 1> operator+(const FixedString<A> &a, const FixedString<B> &b)
{
    FixedString<A + B - 1> sum;
    std::copy_n(a.text, A - 1, sum.text);
    std::copy_n(b.text, B, sum.text + A - 1);
    return sum;
}

// A string of N bytes with its NUL.
template <std::size_t N> consteval FixedString<N> fixed_string(const char *string)
{
    FixedString<N> fixed;
    std::copy_n(string, N, fixed.text);
    return fixed;
}

// The text with static storage, for interfaces that take a C string.
template <FixedString Text> inline constexpr const char *c_str = Text.text;

} // namespace zel
