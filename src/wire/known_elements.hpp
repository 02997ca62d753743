// The element ids that records have.  Any other may come from a newer peer.
#pragma once

#include "wire/mat_objects.hpp"

#include <array>
#include <stdint.h>

namespace zel {

using KnownElements = std::array<bool, 256>;

template <class R> constexpr void mark_record(KnownElements &known);

template <uint16_t Id, auto Member> constexpr void mark(KnownElements &known, Field<Id, Member>) { known[Id] = true; }

template <auto Member> constexpr void mark(KnownElements &known, Embedded<Member>)
{
    mark_record<Value<Member>>(known);
}

template <uint16_t Id, auto Count, auto Array> constexpr void mark(KnownElements &known, Sequence<Id, Count, Array>)
{
    known[Id] = true;
    mark_record<Element<Array>>(known);
}

template <uint32_t Value, auto... Path> constexpr void mark(KnownElements &known, Option<Value, Path...>)
{
    mark_record<Target<Path...>>(known);
}

template <auto Selector, class... O> constexpr void mark(KnownElements &known, Choice<Selector, O...>)
{
    (mark(known, O{}), ...);
}

template <class R> constexpr void mark_record(KnownElements &known)
{
    known[Wire<R>::start] = true;
    known[Wire<R>::end] = true;
    std::apply([&known](auto... member) { (mark(known, member), ...); }, Wire<R>::members);
}

template <class... O> constexpr KnownElements mark_all(MatObjectList<O...>)
{
    KnownElements known{};
    known[reference_mat_type_id] = true;
    known[reference_mat_id_id] = true;
    mark_record<zel_kob_header_t>(known);
    (mark_record<typename O::record>(known), ...);
    return known;
}

inline constexpr KnownElements known_elements = mark_all(MatObjects{});

constexpr bool is_known_element(uint16_t id) { return id < known_elements.size() && known_elements[id]; }

} // namespace zel
