// What decoding any record consists of: pulling elements, copying values, filling the
// arrays of sequences, resolving references.  In which order the elements come is up to
// loop.hpp and expected.hpp.
#pragma once

#include "cache/object_cache.hpp"
#include "decode/peculiarities.hpp"
#include "model/trace.hpp"
#include "wire/mat_objects.hpp"

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

// Whether nobody wants the details.
inline bool is_quiet(const Source &in)
{
    return !reports_are_compiled_in || (in.handle.debug == 0 && in.handle.dbg_cb == nullptr);
}

// Without its length, which nobody looks at: a field is read at its own width.
struct TlvElement {
    uint16_t type;
    const void *value;
};

// An element that is expected; a type of 0 expects nothing in particular.
template <uint16_t Type = 0, uint16_t Length = 0> struct Foreseen {};

template <uint16_t Id> using ForeseenMarker = Foreseen<Id, sizeof zel_tlv_struct_start>;

// Pulls elements one by one.
struct Reader {
    const void *array;
    uint32_t cursor;
    int32_t status = 0; // of the last pull
    TlvElement element{};

    // Whatever is foreseen, any element may come.
    template <uint16_t Type = 0, uint16_t Length = 0> [[gnu::always_inline]] bool pull(Foreseen<Type, Length> = {})
    {
        element.type = Type;
        uint16_t length = Length;
        status = tlv_array_get_next_tlv(array, &element.type, &length, &element.value, 0, &cursor);
        return status == 0;
    }
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

    int32_t status = 0; // with which the record ended
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

// Decodes a record from behind its start marker on; with an own_start of 1, that marker
// is still to come.  Restricted: a record shares no bytes with the message, the handle
// or the cursor, so that these need not be read anew for every element.
template <class R> int32_t decode(Frame<R> &frame, R *__restrict record, uint32_t own_start = 0);

template <class R> void begin(Frame<R> &frame, R &record)
{
    frame.subtotal = 0;
    if constexpr (is_shareable<R>)
        record.cached = 0;
}

// The same as its callers outside know it.
template <class R> int32_t decode(const Source &in, R &record, uint32_t &subtotal)
{
    Frame<R> frame{in, subtotal};
    return decode(frame, &record);
}

template <class T> T load(const TlvElement &element)
{
    T value;
    std::memcpy(&value, element.value, sizeof value);
    return value;
}

// A long copy in pieces of two words, for which compilers have better instructions.  By
// way of registers, because both may be the same.
template <std::size_t Width> [[gnu::always_inline]] inline void copy_bytes(char *to, const char *from)
{
    constexpr std::size_t size = std::min(Width, 2 * sizeof(void *));
    char piece[size];
    std::memcpy(piece, from, size);
    std::memcpy(to, piece, size);
    if constexpr (size < Width)
        copy_bytes<Width - size>(to + size, from + size);
}

template <auto Member, class R> void copy(R &record, const TlvElement &element)
{
    auto &field = record.*Member;
    constexpr std::size_t width = shortened_width<Member> != 0 ? shortened_width<Member> : sizeof field;
    copy_bytes<width>(reinterpret_cast<char *>(&field), static_cast<const char *>(element.value));
}

// A service is the one parameter that owns something.  Records share the area, so
// its array is the decoder's own only if it is the last that came there, and its
// count came, too, unless nothing was there before.
inline bool is_sound(const Frame<zel_match_service_t> &frame, const zel_match_service_t &service)
{
    return frame.array != Frame<zel_match_service_t>::Array::before || service.elements == nullptr;
}

template <class C> bool is_sound(const Frame<C> &, const C &) { return false; }

template <class R> void report_no_memory(const Frame<R> &frame, std::size_t count, std::size_t size)
{
    trace(frame.in.handle, Severity::error, decoder_name<R>, "cannot allocate, count: %d, size: %d"_trace,
          static_cast<uint32_t>(count), static_cast<uint32_t>(size));
}

// For as many members as the message claims.  By value, so that the element stays where it is.
template <auto Count, auto Array, class R> void allocate_array(Frame<R> &frame, R &record, Value<Count> claimed)
{
    using State = typename Frame<R>::Array;
    auto &count = record.*Count;
    auto &array = record.*Array;
    if (frame.array == State::empty)
        std::free(static_cast<void *>(array));
    frame.array = State::closed;
    array = nullptr;
    count = static_cast<Value<Count>>(grant(frame.in.claims, claimed));
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
    const zel_mat_cache_entry_t *const entry = find_in_cache(frame.in.handle, frame.in.app_type, mat_type, mat_id);
    if (entry == nullptr) {
        trace(frame.in.handle, Severity::error, decoder_name<R>, unresolved_text(record), frame.in.app_type, mat_type,
              mat_id);
        return;
    }
    if (mat_type == MatObjectOf<R>::type) [[likely]] {
        copy_bytes<sizeof(R)>(reinterpret_cast<char *>(&record), static_cast<const char *>(entry->obj));
    } else {
        const std::size_t held = facts_of(mat_type).record_size;
        std::memmove(&record, entry->obj, held != 0 ? std::min(held, sizeof(R)) : sizeof(R));
    }
    record.cached = 1;
}

// An object that came in full is remembered for the references to come.
template <class R> void finish(Frame<R> &frame, R &record)
{
    if constexpr (is_shareable<R>) {
        if (record.cached == 0)
            store_in_cache(frame.in.handle, frame.in.app_type, MatObjectOf<R>::type, record.id, &record);
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

} // namespace zel
