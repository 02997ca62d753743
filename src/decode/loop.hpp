// The decoder loop, derived for every record from its description.  It pulls an
// element, counts it, and offers it to the record's members until the end marker;
// what no member knows is skipped with a warning.
#pragma once

#include "decode/frame.hpp"

namespace zel {

template <class R, class C> void decode_child(Frame<R> &frame, C &child)
{
    uint32_t count = 0;
    decode(frame.in, child, count);
    frame.subtotal += count;
}

template <auto Count, auto Array, class R> void decode_members(Frame<R> &frame, R &record);

// Each takes an element that is a member's.  False: it is not.

template <class R, uint16_t Id, auto Member>
[[gnu::always_inline]] inline bool accept(Frame<R> &frame, R &record, uint32_t &, const TlvElement &element,
                                          Field<Id, Member>)
{
    if (element.type != Id)
        return false;
    copy<Member>(record, element);
    constexpr ValueReport report = value_report<Member>;
    if constexpr (report.wanted)
        trace(frame.in.handle, Severity::detail, decoder_name<R>, report.format, record.*Member & report.bits);
    return true;
}

template <class R, auto Member>
[[gnu::always_inline]] inline bool accept(Frame<R> &frame, R &record, uint32_t &cursor, const TlvElement &element,
                                          Embedded<Member>)
{
    if (element.type != Wire<Value<Member>>::start)
        return false;
    hand_over(frame, cursor, [&] { decode_child(frame, record.*Member); });
    return true;
}

template <class R, uint32_t Value, auto... Path>
[[gnu::always_inline]] inline bool accept_option(Frame<R> &frame, R &record, uint32_t &cursor,
                                                 const TlvElement &element, Option<Value, Path...>)
{
    using Child = Target<Path...>;
    if (element.type != Wire<Child>::start)
        return false;
    uint32_t count = 0;
    Child &child = follow<Path...>(record);
    Frame<Child> child_frame{frame.in, count};
    hand_over(frame, cursor, [&] { decode(child_frame, &child); });
    frame.subtotal += count;
    frame.is_sound = is_sound(child_frame, child);
    return true;
}

// The element that arrives decides, not the selector: the last one stands.
template <class R, auto Selector, class... O>
[[gnu::always_inline]] inline bool accept(Frame<R> &frame, R &record, uint32_t &cursor, const TlvElement &element,
                                          Choice<Selector, O...>)
{
    return (accept_option(frame, record, cursor, element, O{}) || ...);
}

template <class R, uint16_t Id, auto Count, auto Array>
[[gnu::always_inline]] inline bool accept(Frame<R> &frame, R &record, uint32_t &cursor, const TlvElement &element,
                                          Sequence<Id, Count, Array>)
{
    if (element.type == Id) {
        allocate_array<Count, Array>(frame, record, load<Value<Count>>(element));
        return true;
    }
    if (element.type != Wire<Element<Array>>::start)
        return false;
    hand_over(frame, cursor, [&] { decode_members<Count, Array>(frame, record); });
    return true;
}

template <class R>
[[gnu::always_inline]] inline bool accept(Frame<R> &frame, R &record, uint32_t &, const TlvElement &element, Reference)
{
    if (element.type == reference_mat_type_id)
        frame.reference_mat_type = load<uint32_t>(element);
    else if (element.type == reference_mat_id_id)
        resolve(frame, record, load<uint16_t>(element));
    else
        return false;
    return true;
}

// Offers an element to the members in turn.
template <class R>
[[gnu::always_inline]] inline bool offer(Frame<R> &frame, R &record, uint32_t &cursor, const TlvElement &element)
{
    if constexpr (is_shareable<R>) {
        if (accept(frame, record, cursor, element, Reference{}))
            return true;
    }
    return !all_members<R>([&](auto member) __attribute__((always_inline)) {
        return !accept(frame, record, cursor, element, member);
    });
}

// Goes on behind so many elements with the one that was pulled last.
template <class R>
[[gnu::noinline]] int32_t decode_in_any_order(Frame<R> &frame, R *__restrict record, uint32_t own_elements,
                                              TlvElement pulled, int32_t status)
{
    const zel_api_handle_t &handle = frame.in.handle;
    Reader reader{frame.in.array, frame.in.cursor, status, pulled};
    uint32_t &of_children = frame.subtotal;
    for (;; reader.pull()) {
        const TlvElement &element = reader.element;
        if (reader.status != 0) [[unlikely]] {
            frame.in.cursor = reader.cursor;
            frame.subtotal = own_elements + of_children;
            trace(handle, Severity::error, decoder_name<R>, "tlv-get failed, tlv_subtotal: %d\n"_trace, frame.subtotal);
            disown_unsound(frame, *record);
            return reader.status;
        }
        trace(handle, Severity::detail, decoder_name<R>, "tlv type: %d, tlv_subtotal: %d"_trace, element.type,
              own_elements + of_children);
        ++own_elements;
        if (offer(frame, *record, reader.cursor, element))
            continue;
        if (element.type == Wire<R>::end) {
            frame.in.cursor = reader.cursor;
            frame.subtotal = own_elements + of_children;
            finish(frame, *record);
            disown_unsound(frame, *record);
            return 0;
        }
        // A member of a sequence finds its own start marker here, unless it is the first.
        if (element.type != Wire<R>::start)
            trace(handle, Severity::warning, decoder_name<R>, "unsupported TLV type: %d, ok if in ISSU"_trace,
                  element.type);
    }
}

} // namespace zel
