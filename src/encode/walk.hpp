// The one walk over a graph in wire order.  What happens to the elements is up
// to the sink: one writes them, another adds up their sizes, so that the two
// cannot disagree.  A sink has
//
//   start(id), end(id)        the markers; end() gives the walk's result
//   value(id, value, text)    a field
//   refer(object)             true: the match or action was dealt with as a reference
//   no_parameter(record)      a choice found no option for the record's selector
//   member_done(group, i)     member i of a sequence has been walked
#pragma once

#include "model/records.hpp"

#include <stdint.h>

namespace zel {

template <class Sink, class R> int32_t walk(Sink &sink, const R &record);

template <class Sink, class R, uint16_t Id, auto Member, FixedString Text>
void walk_member(Sink &sink, const R &record, Field<Id, Member, Text>)
{
    sink.value(Id, record.*Member, c_str<Text>);
}

template <class Sink, class R, auto Member> void walk_member(Sink &sink, const R &record, Embedded<Member>)
{
    walk(sink, record.*Member);
}

template <class Sink, class R, uint16_t Id, auto Count, auto Array, FixedString Text>
void walk_member(Sink &sink, const R &record, Sequence<Id, Count, Array, Text>)
{
    sink.value(Id, record.*Count, c_str<Text>);
    for (uint32_t i = 0; i < record.*Count; ++i) {
        walk(sink, *(record.*Array)[i]);
        sink.member_done(record, i);
    }
}

template <class Sink, class R, uint32_t Value, auto... Path>
bool walk_option(Sink &sink, const R &record, uint32_t selector, Option<Value, Path...>)
{
    if (selector != Value)
        return false;
    walk(sink, follow<Path...>(record));
    return true;
}

template <class Sink, class R, auto Selector, class... O>
void walk_member(Sink &sink, const R &record, Choice<Selector, O...>)
{
    if (!(walk_option(sink, record, record.*Selector, O{}) || ...))
        sink.no_parameter(record);
}

template <class Sink, class R, class... M> void walk_members(Sink &sink, const R &record, Members<M...>)
{
    (walk_member(sink, record, M{}), ...);
}

template <class Sink, class R> int32_t walk(Sink &sink, const R &record)
{
    if constexpr (is_shareable<R>) {
        if (sink.refer(record))
            return 0;
    }
    sink.start(Wire<R>::start);
    walk_members(sink, record, typename Wire<R>::members{});
    return sink.end(Wire<R>::end);
}

} // namespace zel
