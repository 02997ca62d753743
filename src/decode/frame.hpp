// What decoding any record consists of: copying values, allocating the members of
// sequences, resolving references.  In which order the elements come is the matter of
// fast.hpp and general.cpp.
#pragma once

#include "cache/object_cache.hpp"
#include "decode/decode.hpp"
#include "decode/exceptions.hpp"
#include "model/elements.hpp"
#include "model/trace.hpp"

#include <algorithm>

namespace zel {

// Whether no report about single elements goes anywhere.
inline bool is_quiet(const Source &in)
{
    return !reports_are_compiled_in || (in.handle.debug == 0 && in.handle.dbg_cb == nullptr);
}

// One record that is being decoded.
struct Frame {
    const Source &in;
    uint32_t &subtotal; // elements of contained records; at the end, all elements

    // The array of the record's sequence.  An array that was there before is not used.
    enum class Array { before, empty, filled, closed } array = Array::before;

    // The MAT type of the reference; 0 until its element comes.
    uint32_t reference_mat_type = 0;

    // Whether a service in the parameter area owns the array that it points to.
    bool is_sound = true;

    int32_t status = 0; // with which the record ended
};

// Decodes a record from behind its start marker on; with an own_start of 1, that marker
// is still to come.  Restrict: a record shares no bytes with the message, the handle or
// the cursor, so they need not be read again for every element.
using DecodeRecord = int32_t (*)(Frame &frame, void *__restrict object, uint32_t own_start);

// Decodes the members of a sequence, at the start marker of the first.
void decode_members(Frame &frame, const wire::Record &record, const wire::Member &sequence, void *object,
                    DecodeRecord decode_member);

// Reads the rest of a record, in any order, behind so many elements of its own.  The
// reader has pulled the next element already.
int32_t decode_in_any_order(Frame &frame, const wire::Record &record, void *__restrict object, uint32_t own_elements,
                            ElementReader reader);

// The decoder that reads this record fast, or null for records that have none.
DecodeRecord find_decoder(const wire::Record &record);

void begin(Frame &frame, const wire::Record &record, void *object);

// A reference to an object that the message has not carried.
void report_unresolved(const Frame &frame, const wire::Record &record, uint16_t mat_id);

// Copies no more than an object of this MAT type holds.
void copy_named_object(uint32_t mat_type, const wire::Record &record, void *object, const void *named);

// Allocates the array for as many members as the message claims.
void allocate_array(Frame &frame, const wire::Record &record, const wire::Member &sequence, void *object,
                    uint32_t claimed);

template <class T> T load(const void *value)
{
    T loaded;
    std::memcpy(&loaded, value, sizeof loaded);
    return loaded;
}

// A copy of constant size, in pieces of two words: compilers have better instructions for
// these than for a long copy.  Through a variable, because both places may be the same.
template <std::size_t Width> [[gnu::always_inline]] inline void copy_bytes(void *to, const void *from)
{
    constexpr std::size_t size = std::min(Width, 2 * sizeof(void *));
    char piece[size];
    std::memcpy(piece, from, size);
    std::memcpy(to, piece, size);
    if constexpr (size < Width)
        copy_bytes<Width - size>(wire::part(to, size), wire::part(from, size));
}

// Fills the record with a copy of the object that a reference names.  A reference may name
// an object of another kind.
[[gnu::always_inline]] inline void resolve(Frame &frame, const wire::Record &record, void *object, uint16_t mat_id)
{
    const uint32_t mat_type = frame.reference_mat_type;
    const zel_mat_cache_entry_t *const entry = find_in_cache(frame.in.handle, frame.in.app_type, mat_type, mat_id);
    if (entry == nullptr)
        return report_unresolved(frame, record, mat_id);
    if (!expect_true(mat_type == record.mat_type))
        copy_named_object(mat_type, record, object, entry->obj);
    else if (&record == &wire::match)
        copy_bytes<sizeof(zel_match_t)>(object, entry->obj);
    else
        copy_bytes<sizeof(zel_action_t)>(object, entry->obj);
    wire::cached_flag(record, object) = 1;
}

// An object that came in full is kept for the references to come.
[[gnu::always_inline]] inline void finish(Frame &frame, const wire::Record &record, void *object)
{
    if (record.is_shareable() && wire::cached_flag(record, object) == 0)
        store_in_cache(frame.in.handle, frame.in.app_type, record.mat_type, wire::id_of(record, object), object);
}

// match.param is a union, and only a service owns memory in it.  A match whose type says
// service and whose parameter is another one would make the releaser follow pointers that
// the sender chose.  The flag of a copy keeps the releaser away.
[[gnu::always_inline]] inline void disown_unsound(const Frame &frame, const wire::Record &record, void *object)
{
    if (&record != &wire::match || frame.is_sound)
        return;
    auto &match = *static_cast<zel_match_t *>(object);
    if (match.type == ZEL_MATCH_TYPE_SERVICE)
        match.cached = 1;
}

// Whether the parameter that was just decoded may be released as a service.  It may when
// its count element came, because the array is then the decoder's own, or when its pointer
// is still null.
[[gnu::always_inline]] inline bool is_sound_service(const Frame &frame, const wire::Record &record,
                                                    const void *parameter)
{
    return &record == &wire::match_service &&
           (frame.array != Frame::Array::before ||
            static_cast<const zel_match_service_t *>(parameter)->elements == nullptr);
}

} // namespace zel
