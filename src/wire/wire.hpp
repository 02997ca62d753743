// The vocabulary of the wire description: a record is its markers and a list of
// members, and four kinds of member are all that occur.  The descriptions
// themselves are in records.hpp; sizes, encoders and decoders are derived from
// them by overloading on the kind of member.
#pragma once

#include "wire/fixed_string.hpp"

#include <stdint.h>
#include <tuple>
#include <type_traits>
#include <utility>

namespace zel {

// The markers of a record.
template <uint16_t Start, uint16_t End> struct Record {
    static constexpr uint16_t start = Start;
    static constexpr uint16_t end = End;
};

// The description of a record: a Record with the middle part of its exported
// functions' names, and its members in the order in which they are written.
template <class R> struct Wire;

// A value: one element with the bytes of a member, as they lie in memory.  The
// text names the field in failure reports.
template <uint16_t Id, auto Member> struct Field {
    const char *text;
};

// A record held by value.
template <auto Member> struct Embedded {};

// A count element, then that many records, each reached by a pointer.
template <uint16_t Id, auto Count, auto Array> struct Sequence {
    const char *text;
};

// At most one record out of several that share an area.  The selector picks it
// when writing, the start marker that arrives when reading.
template <auto Selector, class... O> struct Choice {};

// A record of a choice: the selector's value, and the path of members to it.
template <uint32_t Value, auto... Path> struct Option {};

template <class R>
inline constexpr std::size_t num_members = std::tuple_size_v<std::remove_const_t<decltype(Wire<R>::members)>>;

// Visits the members of a record in order until a visit returns false.  Unlike
// std::apply(), this is never a call.
template <class R, class Visit> [[gnu::always_inline]] inline bool all_members(Visit visit)
{
    return [&]<std::size_t... I>(std::index_sequence<I...>) __attribute__((always_inline))
    {
        return (visit(std::get<I>(Wire<R>::members)) && ...);
    }
    (std::make_index_sequence<num_members<R>>{});
}

// Records of fields alone.
template <class M> inline constexpr bool is_field = false;
template <uint16_t Id, auto Member> inline constexpr bool is_field<Field<Id, Member>> = true;
template <class R>
inline constexpr bool is_leaf = std::apply([](auto... member) { return (is_field<decltype(member)> && ...); },
                                           Wire<R>::members);

template <auto First, auto... Rest, class R> constexpr auto &follow(R &record)
{
    if constexpr (sizeof...(Rest) == 0)
        return record.*First;
    else
        return follow<Rest...>(record.*First);
}

template <class T> struct MemberPointer;
template <class R, class V> struct MemberPointer<V R::*> {
    using record = R;
    using value = V;
};

// What a member pointer points to.
template <auto Member> using Value = typename MemberPointer<decltype(Member)>::value;

// The record type of a sequence's members.
template <auto Array> using Element = std::remove_pointer_t<std::remove_pointer_t<Value<Array>>>;

// The record type at the end of a path.
template <auto First, auto... Rest> struct PathEnd {
    using type = typename PathEnd<Rest...>::type;
};
template <auto Last> struct PathEnd<Last> {
    using type = Value<Last>;
};
template <auto... Path> using Target = typename PathEnd<Path...>::type;

} // namespace zel
