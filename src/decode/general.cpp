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

void begin(Frame &frame, const Record &record, void *object)
{
    frame.subtotal = 0;
    if (record.is_shareable())
        wire::cached_flag(record, object) = 0;
}

// ---- Sequences

namespace {

void report_no_memory(const Frame &frame, const Record &record, uint32_t count, std::size_t size)
{
    trace(frame.in.handle, Severity::error, record.decoder, "cannot allocate, count: %d, size: %d"_trace, count, size);
}

void free_array(const Member &sequence, void *object)
{
    std::free(wire::array_of(object, sequence));
    wire::array_of(object, sequence) = nullptr;
}

// Decodes a record of any kind whose start marker has been read, or not.
int32_t decode_record(Frame &frame, const Record &record, void *object, uint32_t own_start)
{
    if (const DecodeRecord decode = find_decoder(record))
        return decode(frame, object, own_start);
    begin(frame, record, object);
    ElementReader reader(frame.in.array, frame.in.cursor);
    reader.pull();
    return decode_in_any_order(frame, record, object, 0, reader);
}

} // namespace

void allocate_array(Frame &frame, const Record &record, const Member &sequence, void *object, uint32_t claimed)
{
    using State = Frame::Array;
    if (frame.array == State::empty)
        free_array(sequence, object);
    frame.array = State::closed;
    wire::array_of(object, sequence) = nullptr;
    const uint32_t count = frame.in.budget.take(claimed);
    wire::set_count(object, sequence, count);
    if (count == 0)
        return;
    auto *const array = static_cast<wire::PointerArray>(std::calloc(count, sizeof(void *)));
    if (array == nullptr) {
        report_no_memory(frame, record, count, sizeof(void *));
        wire::set_count(object, sequence, 0);
        return;
    }
    wire::array_of(object, sequence) = array;
    frame.array = State::empty;
}

// When memory runs out, the count is lowered to the members that are there, and further
// ones are left to be skipped.
void decode_members(Frame &frame, const Record &record, const Member &sequence, void *object,
                    DecodeRecord decode_member)
{
    using State = Frame::Array;
    if (frame.array != State::empty && frame.array != State::filled)
        return;
    frame.array = State::filled;
    const Record &contained = *sequence.record;
    wire::Pointer *const array = wire::array_of(object, sequence);
    const uint32_t count = wire::count_of(object, sequence);
    for (uint32_t i = 0; i < count; ++i) {
        void *const member = std::calloc(1, contained.size);
        if (member == nullptr) {
            report_no_memory(frame, record, 1, contained.size);
            wire::set_count(object, sequence, i);
            if (i == 0) // the array of no members would be lost where a count of 0 says that there is none
                free_array(sequence, object);
            frame.array = State::closed;
            return;
        }
        array[i] = member;
        uint32_t elements = 0;
        Frame member_frame{frame.in, elements};
        decode_member(member_frame, member, i == 0 ? 0 : 1);
        frame.subtotal += elements;
    }
}

// ---- References

void report_unresolved(const Frame &frame, const Record &record, uint16_t mat_id)
{
    const char *const text = &record == &wire::action ? "a non-exisitng mat, app: %d, mat_type: %d, mat_id: %d"_trace
                                                      : "non-exisitng mat, app: %d, mat_type: %d, mat_id: %d"_trace;
    trace(frame.in.handle, Severity::error, record.decoder, text, frame.in.app_type, frame.reference_mat_type, mat_id);
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
        const uint32_t value = field.width == 1 ? load<uint8_t>(place) : wire::load_number(place, field.width);
        trace(frame.in.handle, Severity::detail, record.decoder, report.format, value & report.mask);
    }
}

// Decodes a record that lies in another one.
void decode_contained(Frame &frame, const Record &record, void *object)
{
    uint32_t elements = 0;
    Frame contained{frame.in, elements};
    decode_record(contained, record, object, 0);
    frame.subtotal += elements;
    frame.is_sound = is_sound_service(contained, record, object);
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
        std::memcpy(place, element.value, read_width(member));
        report_value(frame, record, member, place);
        return true;
    case Kind::embedded:
        if (member.record->start != element.id)
            return false;
        decode_contained(frame, *member.record, place);
        return true;
    case Kind::sequence:
        if (is_own_element)
            allocate_array(frame, record, member, object, wire::load_number(element.value, member.width));
        else if (member.record->start == element.id)
            decode_members(frame, record, member, object, find_decoder(*member.record));
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
    if (element.id == wire::reference_mat_type.id)
        frame.reference_mat_type = load<uint32_t>(element.value);
    else if (element.id == wire::reference_mat_id.id)
        resolve(frame, record, object, load<uint16_t>(element.value));
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

int32_t decode_in_any_order(Frame &frame, const Record &record, void *__restrict object, uint32_t own_elements,
                            ElementReader reader)
{
    const zel_api_handle_t &handle = frame.in.handle;
    const uint32_t &of_contained = frame.subtotal;
    for (;; reader.take_back(), reader.pull()) {
        reader.give_back();
        const TlvElement &element = reader.element;
        if (reader.status != 0) {
            frame.subtotal = own_elements + of_contained;
            trace(handle, Severity::error, record.decoder, "tlv-get failed, tlv_subtotal: %d\n"_trace, frame.subtotal);
            disown_unsound(frame, record, object);
            return reader.status;
        }
        trace(handle, Severity::detail, record.decoder, "tlv type: %d, tlv_subtotal: %d"_trace, element.id,
              own_elements + of_contained);
        ++own_elements;
        if (accept_any(frame, record, object, element))
            continue;
        if (element.id == record.end) {
            frame.subtotal = own_elements + of_contained;
            finish(frame, record, object);
            disown_unsound(frame, record, object);
            return 0;
        }
        // Members of a sequence, but for the first, find their own start marker here.
        if (element.id != record.start)
            trace(handle, Severity::warning, record.decoder, "unsupported TLV type: %d, ok if in ISSU"_trace,
                  element.id);
    }
}

int32_t decode(const Source &in, const Record &record, void *object, uint32_t &subtotal)
{
    Frame frame{in, subtotal};
    return decode_record(frame, record, object, 0);
}

} // namespace zel
