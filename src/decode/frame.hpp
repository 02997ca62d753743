// What decoding any record consists of: copying values, allocating the members of
// sequences, resolving references.  In which order the elements come is the matter of
// fast.cpp and general.cpp.
#pragma once

#include "decode/decode.hpp"
#include "decode/element_reader.hpp"
#include "model/trace.hpp"

#include <cstdlib>

namespace zel {

// One record that is being decoded.
struct Frame {
    const Source &in;
    uint32_t elements = 0; // of the record and of those that it contains, so far

    // The array of the record's sequence.  An array that was there before is not used.
    enum class Array { before, empty, filled, closed } array = Array::before;

    // The MAT type of the reference; 0 until its element comes.
    uint32_t reference_mat_type = 0;

    // Whether a service in the parameter area owns the array that it points to.
    bool is_sound = true;

    int32_t status = 0; // with which the record ended
};

// Where a record begins.
enum class Start {
    behind_marker, // the start marker has been taken
    shared_marker, // at the start marker, which the container counts
    own_marker     // at the start marker, which counts as an element of the record
};

// Restrict: a record shares no bytes with the message, the handle or the cursor, so they
// need not be read again for every element.
using DecodeRecord = void (*)(Frame &frame, void *__restrict object, Start start);

// Decodes a record fast while nothing is reported; null for a record without code for that.
DecodeRecord find_decoder(const wire::Record &record);

// Decodes a record of any kind.
void decode_record(Frame &frame, const wire::Record &record, void *object, Start start);

// The same with the elements in any order.
void decode_generally(Frame &frame, const wire::Record &record, void *object, Start start);

// Reads the rest of a record, in any order.  The reader has pulled the next element already.
void decode_rest(Frame &frame, const wire::Record &record, void *__restrict object, ElementReader reader);

// Allocates the array for as many members as the message claims.  Returns its state then.
Frame::Array allocate_array(const Source &in, const wire::Record &record, const wire::Member &sequence, void *object,
                            uint32_t claimed, Frame::Array before);

// Lowers the count to the members that are there.  Further ones are left to be skipped.
void close_array(const Source &in, const wire::Record &record, const wire::Member &sequence, void *object,
                 uint32_t count);

// Allocates a member; or returns null, and the array is closed.
[[gnu::always_inline]] inline void *allocate_member(const Source &in, const wire::Record &record,
                                                    const wire::Member &sequence, void *object, uint32_t index)
{
    void *const member = std::calloc(1, sequence.record->size);
    if (expect_true(member != nullptr))
        wire::array_of(object, sequence)[index] = member;
    else
        close_array(in, record, sequence, object, index);
    return member;
}

// Decodes the members of a sequence from one on, at or behind its start marker.
void decode_members(Frame &frame, const wire::Record &record, const wire::Member &sequence, void *object,
                    uint32_t first);

// A reference to an object that the message has not carried.
void report_unresolved(const Source &in, const wire::Record &record, const wire::Reference &reference);

// Copies no more than an object of this MAT type holds.
void copy_named_object(uint32_t mat_type, const wire::Record &record, void *object, const void *named);

// Fills the record with a copy of the object that a reference names.  A reference may name
// an object of another kind.
[[gnu::always_inline]] inline void resolve(const Source &in, const wire::Record &record, void *object,
                                           const wire::Reference &reference)
{
    const void *const named = in.pass.find(reference.mat_type, reference.mat_id);
    if (!expect_true(named != nullptr))
        return report_unresolved(in, record, reference);
    if (!expect_true(reference.mat_type == record.mat_type))
        copy_named_object(reference.mat_type, record, object, named);
    else if (&record == &wire::match)
        copy_bytes<sizeof(zel_match_t)>(object, named);
    else
        copy_bytes<sizeof(zel_action_t)>(object, named);
    wire::cached_flag(record, object) = 1;
}

// match.param is a union, and only a service owns memory in it.  A match whose type says
// service and whose parameter is another one would make the releaser follow pointers that
// the sender chose.  The flag of a copy keeps the releaser away.
[[gnu::always_inline]] inline void disown_unsound(bool is_sound, const wire::Record &record, void *object)
{
    if (&record != &wire::match || is_sound)
        return;
    auto &match = *static_cast<zel_match_t *>(object);
    if (match.type == ZEL_MATCH_TYPE_SERVICE)
        match.cached = 1;
}

// What follows the end marker.  An object that came in full is kept for the references to come.
[[gnu::always_inline]] inline void finish(const Source &in, bool is_sound, const wire::Record &record, void *object)
{
    if (record.is_shareable() && wire::cached_flag(record, object) == 0)
        in.pass.store(record.mat_type, wire::id_of(record, object), object);
    disown_unsound(is_sound, record, object);
}

// Whether the parameter that was just decoded may be released as a service.  It may when
// its count element came, because the array is then the decoder's own, or when its pointer
// is still null.
[[gnu::always_inline]] inline bool is_sound_service(Frame::Array array, const wire::Record &record,
                                                    const void *parameter)
{
    return &record == &wire::match_service &&
           (array != Frame::Array::before || static_cast<const zel_match_service_t *>(parameter)->elements == nullptr);
}

} // namespace zel
