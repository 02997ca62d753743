// The general decoder: takes the elements of a record in any order.  It reads an element,
// counts it, and gives it to the member whose element it is, until the end marker; an
// element that belongs to no member is skipped with a warning.
#include "decode/frame.hpp"
#include "wire/format.hpp"

#include <algorithm>
#include <cstdlib>

namespace zel {

using wire::Kind;
using wire::Member;
using wire::Option;
using wire::Record;

// ---- Sequences

namespace {

void report_no_memory(const Source &in, const Record &record, uint32_t count, std::size_t size)
{
    trace(in.handle(), Severity::error, record.decoder, "cannot allocate, count: %d, size: %d"_trace, count, size);
}

void free_array(const Member &sequence, void *object)
{
    std::free(wire::array_of(object, sequence));
    wire::array_of(object, sequence) = nullptr;
}

} // namespace

Frame::Array allocate_array(const Source &in, const Record &record, const Member &sequence, void *object,
                            uint32_t claimed, Frame::Array before)
{
    using State = Frame::Array;
    if (before == State::empty)
        free_array(sequence, object);
    wire::array_of(object, sequence) = nullptr;
    const uint32_t count = in.budget.take(claimed);
    wire::set_count(object, sequence, count);
    if (count == 0)
        return State::closed;
    auto *const array = static_cast<wire::PointerArray>(std::calloc(count, sizeof(void *)));
    wire::array_of(object, sequence) = array;
    if (array != nullptr)
        return State::empty;
    report_no_memory(in, record, count, sizeof(void *));
    wire::set_count(object, sequence, 0);
    return State::closed;
}

void close_array(const Source &in, const Record &record, const Member &sequence, void *object, uint32_t count)
{
    report_no_memory(in, record, 1, sequence.record->size);
    wire::set_count(object, sequence, count);
    if (count == 0) // the array of no members would be lost where a count of 0 says that there is none
        free_array(sequence, object);
}

void decode_members(Frame &frame, const Record &record, const Member &sequence, void *object, uint32_t first)
{
    using State = Frame::Array;
    if (frame.array != State::empty && frame.array != State::filled)
        return;
    frame.array = State::filled;
    const uint32_t count = wire::count_of(object, sequence);
    for (uint32_t i = first; i < count; ++i) {
        void *const member = allocate_member(frame.in, record, sequence, object, i);
        if (member == nullptr) {
            frame.array = State::closed;
            return;
        }
        Frame member_frame{frame.in};
        decode_record(member_frame, *sequence.record, member, i == 0 ? Start::behind_marker : Start::own_marker);
        frame.elements += member_frame.elements;
    }
}

// ---- References

void report_unresolved(const Source &in, const Record &record, const wire::Reference &reference)
{
    const char *const text = &record == &wire::action ? "a non-exisitng mat, app: %d, mat_type: %d, mat_id: %d"_trace
                                                      : "non-exisitng mat, app: %d, mat_type: %d, mat_id: %d"_trace;
    trace(in.handle(), Severity::error, record.decoder, text, in.pass.app_type, reference.mat_type, reference.mat_id);
}

void copy_named_object(uint32_t mat_type, const Record &record, void *object, const void *named)
{
    const Record *const named_record = wire::object_of(mat_type);
    const std::size_t held = named_record != nullptr ? named_record->size : record.size;
    std::memmove(object, named, std::min<std::size_t>(held, record.size));
}

// ---- Elements of one record

namespace {

void report_value(const Frame &frame, const Record &record, const Member &field, const void *place)
{
    for (const ValueReport &report : value_reports) {
        if (report.id != field.id)
            continue;
        const uint32_t value =
            field.width == 1 ? *static_cast<const uint8_t *>(place) : wire::load_number(place, field.width);
        trace(frame.in.handle(), Severity::detail, record.decoder, report.format, value & report.mask);
    }
}

// Decodes a record that lies in another one.
void decode_contained(Frame &frame, const Record &record, void *object)
{
    Frame contained{frame.in};
    decode_record(contained, record, object, Start::behind_marker);
    frame.elements += contained.elements;
    frame.is_sound = is_sound_service(contained.array, record, object);
}

// The element that arrives decides, not the selector: the last record stands.
bool accept_option(Frame &frame, const Member &choice, void *object, uint16_t id)
{
    for (const Option &option : choice.options) {
        if (option.record->start != id)
            continue;
        decode_contained(frame, *option.record, wire::part(object, option.offset));
        return true;
    }
    return false;
}

// Takes the element if it belongs to the member.
bool accept(Frame &frame, const Record &record, const Member &member, void *object, const TlvElement &element)
{
    const bool is_own_element = member.id == element.id;
    void *const place = wire::part(object, member.offset);
    switch (member.kind) {
    case Kind::field:
        if (!is_own_element)
            return false;
        std::memcpy(place, element.value, read_width(member.id, member.width));
        report_value(frame, record, member, place);
        return true;
    case Kind::embedded:
        if (member.record->start != element.id)
            return false;
        decode_contained(frame, *member.record, place);
        return true;
    case Kind::sequence:
        if (is_own_element)
            frame.array = allocate_array(frame.in, record, member, object,
                                         wire::load_number(element.value, member.width), frame.array);
        else if (member.record->start == element.id)
            decode_members(frame, record, member, object, 0);
        else
            return false;
        return true;
    case Kind::choice:
        return accept_option(frame, member, object, element.id);
    }
    return false;
}

bool accept_reference(Frame &frame, const Record &record, void *object, const TlvElement &element)
{
    const auto value = [&](const Member &field) { return wire::load_number(element.value, field.width); };
    if (element.id == wire::reference_mat_type.id)
        frame.reference_mat_type = value(wire::reference_mat_type);
    else if (element.id == wire::reference_mat_id.id)
        resolve(frame.in, record, object,
                {frame.reference_mat_type, static_cast<uint16_t>(value(wire::reference_mat_id))});
    else
        return false;
    return true;
}

bool accept_any(Frame &frame, const Record &record, void *object, const TlvElement &element)
{
    if (record.is_shareable() && accept_reference(frame, record, object, element))
        return true;
    for (const Member &member : record.members)
        if (accept(frame, record, member, object, element))
            return true;
    return false;
}

} // namespace

void decode_rest(Frame &frame, const Record &record, void *__restrict object, ElementReader reader)
{
    const zel_api_handle_t &handle = frame.in.handle();
    for (;; reader.take_back(), reader.pull()) {
        reader.give_back();
        const TlvElement &element = reader.element;
        if (reader.status != 0) {
            trace(handle, Severity::error, record.decoder, "tlv-get failed, tlv_subtotal: %d\n"_trace, frame.elements);
            disown_unsound(frame.is_sound, record, object);
            frame.status = reader.status;
            return;
        }
        trace(handle, Severity::detail, record.decoder, "tlv type: %d, tlv_subtotal: %d"_trace, element.id,
              frame.elements);
        ++frame.elements;
        if (accept_any(frame, record, object, element))
            continue;
        if (element.id == record.end)
            return finish(frame.in, frame.is_sound, record, object);
        // Members of a sequence, but for the first, find their own start marker here.
        if (element.id != record.start)
            trace(handle, Severity::warning, record.decoder, "unsupported TLV type: %d, ok if in ISSU"_trace,
                  element.id);
    }
}

void decode_generally(Frame &frame, const Record &record, void *object, Start start)
{
    if (record.is_shareable())
        wire::cached_flag(record, object) = 0;
    ElementReader reader(frame.in.array, frame.in.cursor);
    if (start == Start::shared_marker)
        reader.skip_marker();
    reader.pull();
    decode_rest(frame, record, object, reader);
}

void decode_record(Frame &frame, const Record &record, void *object, Start start)
{
    const DecodeRecord decode = find_decoder(record);
    if (decode != nullptr)
        decode(frame, object, start);
    else
        decode_generally(frame, record, object, start);
}

int32_t decode(const Source &in, const Record &record, void *object, uint32_t &subtotal)
{
    Frame frame{in};
    decode_record(frame, record, object, Start::behind_marker);
    subtotal = frame.elements;
    return frame.status;
}

} // namespace zel
