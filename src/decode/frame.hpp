// The decoder frame: one loop, derived for every record from its description.
// It pulls an element, counts it, and offers it to the record's members until
// the end marker; what no member knows is skipped with a warning.
#pragma once

#include "decode/peculiarities.hpp"
#include "model/mat_objects.hpp"
#include "model/trace.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace zel {

// What all decoders of a message share.
struct Source {
    zel_api_handle_t &handle;
    const void *array;
    uint32_t &cursor;
    uint32_t app_type;
    Claims &claims;
};

struct TlvElement {
    uint16_t type;
    uint16_t length; // never looked at: a field is read at its own width
    const void *value;
};

// One record being decoded.
template <class R> struct Frame {
    const Source &in;
    uint32_t &subtotal;

    // The array of the record's sequence.  One that was there before is never used.
    enum class Array { before, empty, filled, closed } array = Array::before;

    // The MAT type that a reference named; 0 until it does.
    uint32_t reference_mat_type = 0;

    // Whether the parameter area may be taken for what the type says it owns.
    bool is_sound = true;
};

template <class R>
inline constexpr const char *decoder_name = c_str<FixedString("zel_parse_") + Wire<R>::name + FixedString("_from_tlv")>;

// Members are read from where this record stands, and it goes on behind them.
template <class R, class Read>
[[gnu::always_inline]] inline void hand_over(const Frame<R> &frame, uint32_t &cursor, Read read)
{
    frame.in.cursor = cursor;
    read();
    cursor = frame.in.cursor;
}

// Restricted: a record shares no bytes with the message, the handle or the cursor,
// so that these need not be read anew for every element.
template <class R> int32_t decode(Frame<R> &frame, R *__restrict record);

template <class R> int32_t decode(const Source &in, R &record, uint32_t &subtotal)
{
    Frame<R> frame{in, subtotal};
    return decode(frame, &record);
}

template <class R, class C> void decode_child(Frame<R> &frame, C &child)
{
    uint32_t count = 0;
    decode(frame.in, child, count);
    frame.subtotal += count;
}

template <class T> T load(const TlvElement &element)
{
    T value;
    std::memcpy(&value, element.value, sizeof value);
    return value;
}

template <class R, uint16_t Id, auto Member>
[[gnu::always_inline]] inline bool accept(Frame<R> &frame, R &record, uint32_t &, const TlvElement &element,
                                          Field<Id, Member>)
{
    if (element.type != Id)
        return false;
    auto &field = record.*Member;
    constexpr std::size_t width = shortened_width<Member> != 0 ? shortened_width<Member> : sizeof field;
    std::memcpy(&field, element.value, width);
    constexpr ValueReport report = value_report<Member>;
    if constexpr (report.wanted)
        trace(frame.in.handle, Severity::detail, decoder_name<R>, report.format, field & report.bits);
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

// A service is the one parameter that owns something.  Records share the area, so
// its array is the decoder's own only if it is the last that came there, and its
// count came, too, unless nothing was there before.
inline bool is_sound(const Frame<zel_match_service_t> &frame, const zel_match_service_t &service)
{
    return frame.array != Frame<zel_match_service_t>::Array::before || service.elements == nullptr;
}

template <class C> bool is_sound(const Frame<C> &, const C &) { return false; }

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

template <class R> void report_no_memory(const Frame<R> &frame, std::size_t count, std::size_t size)
{
    trace(frame.in.handle, Severity::error, decoder_name<R>, "cannot allocate, count: %d, size: %d"_trace,
          static_cast<uint32_t>(count), static_cast<uint32_t>(size));
}

template <auto Count, auto Array, class R> void allocate_array(Frame<R> &frame, R &record, const TlvElement &element)
{
    using State = typename Frame<R>::Array;
    auto &count = record.*Count;
    auto &array = record.*Array;
    if (frame.array == State::empty)
        std::free(static_cast<void *>(array));
    frame.array = State::closed;
    array = nullptr;
    count = static_cast<Value<Count>>(grant(frame.in.claims, load<Value<Count>>(element)));
    if (count == 0)
        return;
    array = static_cast<Value<Array>>(std::calloc(count, sizeof *array));
    if (array == nullptr) {
        report_no_memory(frame, count, sizeof *array);
        count = 0;
        return;
    }
    frame.array = State::empty;
}

// All members at the first one's start marker.  When memory runs out, the count
// shrinks to the members that are there, and further ones are left to be skipped.
template <auto Count, auto Array, class R> void decode_members(Frame<R> &frame, R &record)
{
    using State = typename Frame<R>::Array;
    auto &count = record.*Count;
    if (frame.array != State::empty && frame.array != State::filled)
        return;
    frame.array = State::filled;
    for (uint32_t i = 0; i < count; ++i) {
        auto *const member = static_cast<Element<Array> *>(std::calloc(1, sizeof(Element<Array>)));
        if (member == nullptr) {
            report_no_memory(frame, 1, sizeof(Element<Array>));
            count = static_cast<Value<Count>>(i);
            frame.array = State::closed;
            return;
        }
        (record.*Array)[i] = member;
        decode_child(frame, *member);
    }
}

template <class R, uint16_t Id, auto Count, auto Array>
[[gnu::always_inline]] inline bool accept(Frame<R> &frame, R &record, uint32_t &cursor, const TlvElement &element,
                                          Sequence<Id, Count, Array>)
{
    if (element.type == Id) {
        allocate_array<Count, Array>(frame, record, element);
        return true;
    }
    if (element.type != Wire<Element<Array>>::start)
        return false;
    hand_over(frame, cursor, [&] { decode_members<Count, Array>(frame, record); });
    return true;
}

inline constexpr const char *unresolved_text(const zel_action_t &)
{
    return "a non-exisitng mat, app: %d, mat_type: %d, mat_id: %d"_trace;
}

inline constexpr const char *unresolved_text(const zel_match_t &)
{
    return "non-exisitng mat, app: %d, mat_type: %d, mat_id: %d"_trace;
}

// Fills the record with a copy of the object that the cache holds.  A reference
// may name the other kind of object: then no more is copied than that one holds.
template <class R> void resolve(Frame<R> &frame, R &record, uint16_t mat_id)
{
    const uint32_t mat_type = frame.reference_mat_type;
    const zel_mat_cache_entry_t *const entry =
        zel_found_mat_cache(&frame.in.handle, frame.in.app_type, mat_type, mat_id);
    if (entry == nullptr) {
        trace(frame.in.handle, Severity::error, decoder_name<R>, unresolved_text(record), frame.in.app_type, mat_type,
              mat_id);
        return;
    }
    const std::size_t held = facts_of(mat_type).record_size;
    std::memmove(&record, entry->obj, held != 0 ? std::min(held, sizeof(R)) : sizeof(R));
    record.cached = 1;
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

// An object that came in full is remembered for the references to come.
template <class R> void finish(Frame<R> &frame, R &record)
{
    if constexpr (is_shareable<R>) {
        if (record.cached == 0)
            zel_store_mat_cache(&frame.in.handle, frame.in.app_type, MatObjectOf<R>::type, record.id, &record);
    }
}

// A match that says service and carries something else would have its releaser
// follow pointers that the sender chose.  The mark of a copy keeps it away.
template <class R> void disown_unsound(const Frame<R> &frame, R &record)
{
    if constexpr (std::is_same_v<R, zel_match_t>) {
        if (record.type == ZEL_MATCH_TYPE_SERVICE && !frame.is_sound)
            record.cached = 1;
    }
}

// Offers an element to the members in turn.
template <class R>
[[gnu::always_inline]] inline bool offer(Frame<R> &frame, R &record, uint32_t &cursor, const TlvElement &element)
{
    if constexpr (is_shareable<R>) {
        if (accept(frame, record, cursor, element, Reference{}))
            return true;
    }
    return std::apply([&](auto... member) { return (accept(frame, record, cursor, element, member) || ...); },
                      Wire<R>::members);
}

template <class R> int32_t decode(Frame<R> &frame, R *__restrict record)
{
    const zel_api_handle_t &handle = frame.in.handle;
    const void *const array = frame.in.array;
    uint32_t cursor = frame.in.cursor;
    uint32_t own_elements = 0;
    uint32_t &of_children = frame.subtotal;
    of_children = 0;
    if constexpr (is_shareable<R>)
        record->cached = 0;
    for (;;) {
        TlvElement element;
        const int32_t status =
            tlv_array_get_next_tlv(array, &element.type, &element.length, &element.value, 0, &cursor);
        if (status != 0) [[unlikely]] {
            frame.in.cursor = cursor;
            frame.subtotal = own_elements + of_children;
            trace(handle, Severity::error, decoder_name<R>, "tlv-get failed, tlv_subtotal: %d\n"_trace, frame.subtotal);
            disown_unsound(frame, *record);
            return status;
        }
        trace(handle, Severity::detail, decoder_name<R>, "tlv type: %d, tlv_subtotal: %d"_trace, element.type,
              own_elements + of_children);
        ++own_elements;
        if (offer(frame, *record, cursor, element))
            continue;
        if (element.type == Wire<R>::end) {
            frame.in.cursor = cursor;
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
