// The one walk over a graph in wire order.  What happens to the elements is up
// to the sink: one writes them, another adds up their sizes, so that the two
// cannot disagree.  A sink has
//
//   Passed                    how it is handed on
//   Local                     what the walk of a record works with: the sink itself when it
//                             gathers something, otherwise a copy, which nothing that is
//                             written changes, so that it stays in registers
//   start(id), end(id)        the markers; end() gives the walk's result
//   value(id, value, text)    a field
//   is_first(object)          whether the message has not carried the match or action yet;
//                             from now on it has
//   no_parameter(record)      a choice found no option for the record's selector
//   member_done(group, i)     member i of a sequence has been walked
#pragma once

#include "wire/mat_objects.hpp"

#include <stdint.h>

namespace zel {

template <class Sink, class R> int32_t walk(typename Sink::Passed passed, const R &record);

// A sink on its way through a record.
template <class Sink> struct Way {
    typename Sink::Passed passed;
    typename Sink::Local sink = passed;
};

template <class Sink, class R> int32_t walk_in_place(Way<Sink> &way, const R &record);

template <class Sink, class R, uint16_t Id, auto Member>
[[gnu::always_inline]] inline void walk_member(Way<Sink> &way, const R &record, Field<Id, Member> field)
{
    way.sink.value(Id, record.*Member, field.text);
}

template <class Sink, class R, auto Member>
[[gnu::always_inline]] inline void walk_member(Way<Sink> &way, const R &record, Embedded<Member>)
{
    walk_in_place(way, record.*Member);
}

template <class Sink, class R, uint16_t Id, auto Count, auto Array>
[[gnu::always_inline]] inline void walk_member(Way<Sink> &way, const R &record, Sequence<Id, Count, Array> sequence)
{
    way.sink.value(Id, record.*Count, sequence.text);
    for (uint32_t i = 0; i < record.*Count; ++i) {
        // Members lie anywhere; the next may be on its way while this one is walked.
        if (i + 1 < record.*Count)
            __builtin_prefetch((record.*Array)[i + 1]);
        const Element<Array> &member = *(record.*Array)[i];
        if constexpr (is_leaf<Element<Array>>)
            walk_in_place(way, member);
        else
            walk<Sink>(way.passed, member);
        way.sink.member_done(record, i);
    }
}

template <class Sink, class R, uint32_t Value, auto... Path>
[[gnu::always_inline]] inline bool walk_option(Way<Sink> &way, const R &record, uint32_t selector,
                                               Option<Value, Path...>)
{
    if (selector != Value)
        return false;
    walk_in_place(way, follow<Path...>(record));
    return true;
}

template <class Sink, class R, auto Selector, class... O>
[[gnu::always_inline]] inline void walk_member(Way<Sink> &way, const R &record, Choice<Selector, O...>)
{
    if (!(walk_option(way, record, record.*Selector, O{}) || ...))
        way.sink.no_parameter(record);
}

// An object that the message has carried is named only.
template <class Elements, class R> void walk_reference(Elements &elements, const R &object)
{
    const Reference reference{MatObjectOf<R>::type, object.id};
    elements.start(Wire<R>::start);
    elements.value(reference_mat_type_id, reference.mat_type, "mat type");
    elements.value(reference_mat_id_id, reference.mat_id, "mat id");
    elements.end(Wire<R>::end);
}

// The whole record, within the walk of another or its own.
template <class Sink, class R> [[gnu::always_inline]] inline int32_t walk_in_place(Way<Sink> &way, const R &record)
{
    way.sink.start(Wire<R>::start);
    all_members<R>([&](auto member) __attribute__((always_inline)) {
        walk_member(way, record, member);
        return true;
    });
    return way.sink.end(Wire<R>::end);
}

template <class Sink, class R> int32_t walk(typename Sink::Passed passed, const R &record)
{
    Way<Sink> way{passed};
    if constexpr (is_shareable<R>) {
        if (!way.sink.is_first(record)) {
            walk_reference(way.sink, record);
            return 0;
        }
    }
    return walk_in_place(way, record);
}

} // namespace zel
