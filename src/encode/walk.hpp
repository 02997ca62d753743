// The one walk over a graph in wire order.  What happens to the elements is up
// to the sink: one writes them, another adds up their sizes, so that the two
// cannot disagree.  A sink has
//
//   Passed                    how it is handed on: by reference when it gathers something,
//                             otherwise by value, so that nothing that is written changes it
//   start(id), end(id)        the markers; end() gives the walk's result
//   value(id, value, text)    a field
//   refer(object)             true: the match or action was dealt with as a reference
//   no_parameter(record)      a choice found no option for the record's selector
//   member_done(group, i)     member i of a sequence has been walked
#pragma once

#include "model/records.hpp"

#include <stdint.h>

namespace zel {

template <class Sink, class R> int32_t walk(typename Sink::Passed sink, const R &record);

template <class Sink, class R, uint16_t Id, auto Member>
void walk_member(typename Sink::Passed sink, const R &record, Field<Id, Member> field)
{
    sink.value(Id, record.*Member, field.text);
}

template <class Sink, class R, auto Member>
void walk_member(typename Sink::Passed sink, const R &record, Embedded<Member>)
{
    walk<Sink>(sink, record.*Member);
}

template <class Sink, class R, uint16_t Id, auto Count, auto Array>
void walk_member(typename Sink::Passed sink, const R &record, Sequence<Id, Count, Array> sequence)
{
    sink.value(Id, record.*Count, sequence.text);
    for (uint32_t i = 0; i < record.*Count; ++i) {
        // Members lie anywhere; the next may be on its way while this one is walked.
        if (i + 1 < record.*Count)
            __builtin_prefetch((record.*Array)[i + 1]);
        walk<Sink>(sink, *(record.*Array)[i]);
        sink.member_done(record, i);
    }
}

template <class Sink, class R, uint32_t Value, auto... Path>
bool walk_option(typename Sink::Passed sink, const R &record, uint32_t selector, Option<Value, Path...>)
{
    if (selector != Value)
        return false;
    walk<Sink>(sink, follow<Path...>(record));
    return true;
}

template <class Sink, class R, auto Selector, class... O>
void walk_member(typename Sink::Passed sink, const R &record, Choice<Selector, O...>)
{
    if (!(walk_option<Sink>(sink, record, record.*Selector, O{}) || ...))
        sink.no_parameter(record);
}

template <class Sink, class R> int32_t walk(typename Sink::Passed sink, const R &record)
{
    if constexpr (is_shareable<R>) {
        if (sink.refer(record))
            return 0;
    }
    sink.start(Wire<R>::start);
    all_members<R>([&](auto member) __attribute__((always_inline)) {
        walk_member<Sink>(sink, record, member);
        return true;
    });
    return sink.end(Wire<R>::end);
}

} // namespace zel
