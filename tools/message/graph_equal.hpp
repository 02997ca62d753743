// Comparison of graphs, by the wire description.
#pragma once

#include "wire/records.hpp"

#include <algorithm>
#include <cstring>

namespace tools {

// Whether two graphs have the same content, whichever records they share.
template <class R> bool equal(const R &a, const R &b);

template <class R, uint16_t Id, auto Member> bool equal_member(const R &a, const R &b, zel::Field<Id, Member>)
{
    return std::memcmp(&(a.*Member), &(b.*Member), sizeof(a.*Member)) == 0;
}

template <class R, auto Member> bool equal_member(const R &a, const R &b, zel::Embedded<Member>)
{
    return equal(a.*Member, b.*Member);
}

template <class R, uint16_t Id, auto Count, auto Array>
bool equal_member(const R &a, const R &b, zel::Sequence<Id, Count, Array>)
{
    return a.*Count == b.*Count && std::equal(a.*Array, a.*Array + a.*Count, b.*Array,
                                              [](const auto *x, const auto *y) { return equal(*x, *y); });
}

template <class R, uint32_t Value, auto... Path>
bool equal_option(const R &a, const R &b, uint32_t selector, zel::Option<Value, Path...>)
{
    return selector != Value || equal(zel::follow<Path...>(a), zel::follow<Path...>(b));
}

template <class R, auto Selector, class... O> bool equal_member(const R &a, const R &b, zel::Choice<Selector, O...>)
{
    return (equal_option(a, b, a.*Selector, O{}) && ...);
}

template <class R> bool equal(const R &a, const R &b)
{
    return std::apply([&](auto... member) { return (equal_member(a, b, member) && ...); }, zel::Wire<R>::members);
}

} // namespace tools
