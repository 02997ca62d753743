// The verifier: one pass over the elements along the wire description.  It takes each
// element that has to come, and stops at the first that does not.
#include "wire/verify.hpp"

#include "model/elements.hpp"
#include "verify/accept.hpp"
#include "verify/id_set.hpp"
#include "verify/path.hpp"

#include <cstring>

namespace zel {
namespace {

using wire::Kind;
using wire::load_number;
using wire::Member;
using wire::Option;
using wire::Record;

struct Verification {
    const wire::MessageFormat &format;
    const void *array;
    bool strict;
    zel_verify_report_t &report;

    // The element that comes next, if there is one.
    bool at_end = false;
    uint16_t type = 0;
    uint16_t length = 0;
    const void *value = nullptr;
    uint32_t index = 0;  // its place in the array, from 0
    uint32_t offset = 0; // its first byte in the array
    uint32_t cursor = 0;

    const PathStep *path = nullptr;

    // The ids of the objects that have come in full.
    IdSet matches{};
    IdSet actions{};
};

// ---- The report

// Refuses the next element.  There may be a simpler reason than the rule: the element is
// missing, or its id is unknown.
bool refuse(Verification &v, uint32_t rule, uint32_t expected, uint32_t found)
{
    zel_verify_report_t &report = v.report;
    if (v.at_end) {
        const bool is_cut_short = v.index < tlv_array_get_num_tlvs(v.array, 0);
        rule = is_cut_short ? ZEL_VERIFY_DAMAGED : ZEL_VERIFY_INCOMPLETE;
        found = 0;
    } else if (!v.format.is_known(v.type)) {
        rule = ZEL_VERIFY_UNKNOWN;
        found = v.type;
    }
    report.rule = rule;
    report.offset = v.offset;
    report.element_index = v.index;
    report.element_id = v.at_end ? 0 : v.type;
    report.expected = expected;
    report.found = found;
    write_path(report, v.path);
    return false;
}

// ---- Elements

void read_element(Verification &v)
{
    v.at_end = tlv_array_get_next_tlv(v.array, &v.type, &v.length, &v.value, 0, &v.cursor) != 0;
}

void step_over(Verification &v)
{
    v.offset += static_cast<uint16_t>(tlv_size_get(v.length));
    ++v.index;
    read_element(v);
}

// An unknown element may come from a newer peer.
void skip_unknown(Verification &v)
{
    while (!v.at_end && !v.strict && !v.format.is_known(v.type)) {
        ++v.report.unknown_elements;
        step_over(v);
    }
}

void begin(Verification &v)
{
    v.offset = array_overhead;
    read_element(v);
    skip_unknown(v);
}

void advance(Verification &v)
{
    step_over(v);
    skip_unknown(v);
}

bool is_next(const Verification &v, uint16_t id) { return !v.at_end && v.type == id; }

// Whether the next element is this one and has this width.  A rule other than PLACE says
// why it has to be this one.
bool expect(Verification &v, uint16_t id, uint16_t width, uint32_t rule = ZEL_VERIFY_PLACE)
{
    if (!is_next(v, id))
        return refuse(v, rule, id, v.type);
    return v.length == width || refuse(v, ZEL_VERIFY_WIDTH, width, v.length);
}

bool take_marker(Verification &v, uint16_t id, uint32_t rule = ZEL_VERIFY_PLACE)
{
    uint8_t value = 0;
    if (!expect(v, id, sizeof value, rule))
        return false;
    std::memcpy(&value, v.value, sizeof value);
    if (value != 0)
        return refuse(v, ZEL_VERIFY_MARKER, 0, value);
    advance(v);
    return true;
}

// ---- Members

bool verify_record(Verification &v, const Record &record, uint32_t rule = ZEL_VERIFY_PLACE);

IdSet &ids_of(Verification &v, const Record &record)
{
    return record.mat_type == ZEL_MAT_TYPE_MATCH ? v.matches : v.actions;
}

// The id of a match or action; each comes in full once.
bool verify_identity(Verification &v, const Record &record)
{
    const uint32_t id = load_number(v.value, sizeof(uint16_t));
    return ids_of(v, record).insert(id) || refuse(v, ZEL_VERIFY_REPEATED, record.mat_type, id);
}

bool verify_request_kind(Verification &v)
{
    const uint32_t kind = load_number(v.value, sizeof(uint32_t));
    return get_mat_obj_type(kind) != ZEL_MAT_TYPE_NONE || refuse(v, ZEL_VERIFY_REQUEST_KIND, ZEL_API_STATS_PULL, kind);
}

// Whether a member that older peers do not know is missing.
bool is_absent(const Verification &v, const Member &member)
{
    const uint16_t first = member.id != 0 ? member.id : member.has_record() ? member.record->start : 0;
    return member.may_be_absent() && !is_next(v, first);
}

// Numbers of a record that decide what follows.
struct Numbers {
    uint32_t selector = 0;
    uint32_t request_kind = 0;
};

bool verify_field(Verification &v, const Record &record, const Member &field, Numbers &numbers)
{
    if (!expect(v, field.id, field.width))
        return false;
    if (record.is_shareable() && field.offset == record.sharing.id && !verify_identity(v, record))
        return false;
    const Member &last = record.members.back();
    if (last.kind == Kind::choice && field.offset == last.offset)
        numbers.selector = load_number(v.value, field.width);
    if (&record == v.format.header && field.offset == offsetof(zel_kob_header_t, api_type)) {
        if (!verify_request_kind(v))
            return false;
        numbers.request_kind = load_number(v.value, field.width);
    }
    advance(v);
    return true;
}

bool verify_sequence(Verification &v, const Record &record, const Member &sequence)
{
    const Record &contained = *sequence.record;
    if (!expect(v, sequence.id, sequence.width))
        return false;
    const uint32_t count = load_number(v.value, sequence.width);
    advance(v);
    PathStep step{v.path, contained.noun, 0};
    while (step.position < count) {
        if (is_next(v, record.end))
            return refuse(v, ZEL_VERIFY_COUNT, count, step.position);
        ++step.position;
        v.path = &step;
        if (!verify_record(v, contained))
            return false;
        v.path = step.container;
    }
    return !is_next(v, contained.start) || refuse(v, ZEL_VERIFY_COUNT, count, count + 1);
}

bool verify_choice(Verification &v, const Member &choice, uint32_t selector)
{
    for (const Option &option : choice.options)
        if (option.value == selector)
            return verify_record(v, *option.record, ZEL_VERIFY_PARAMETER);
    for (const Option &option : choice.options)
        if (is_next(v, option.record->start))
            return refuse(v, ZEL_VERIFY_PARAMETER, 0, v.type);
    return true;
}

bool verify_member(Verification &v, const Record &record, const Member &member, Numbers &numbers)
{
    if (is_absent(v, member))
        return true;
    switch (member.kind) {
    case Kind::field:
        return verify_field(v, record, member, numbers);
    case Kind::embedded:
        return verify_record(v, *member.record);
    case Kind::sequence:
        return verify_sequence(v, record, member);
    case Kind::choice:
        return verify_choice(v, member, numbers.selector);
    }
    return false;
}

// ---- Records

bool verify_reference(Verification &v, const Record &record)
{
    if (!expect(v, wire::reference_mat_type.id, wire::reference_mat_type.width))
        return false;
    const uint32_t mat_type = load_number(v.value, wire::reference_mat_type.width);
    if (mat_type != record.mat_type)
        return refuse(v, ZEL_VERIFY_REFERENCE_KIND, record.mat_type, mat_type);
    advance(v);
    if (!expect(v, wire::reference_mat_id.id, wire::reference_mat_id.width))
        return false;
    const uint32_t mat_id = load_number(v.value, wire::reference_mat_id.width);
    if (!ids_of(v, record).contains(mat_id))
        return refuse(v, ZEL_VERIFY_REFERENCE, record.mat_type, mat_id);
    advance(v);
    return true;
}

bool verify_content(Verification &v, const Record &record, Numbers &numbers)
{
    if (record.is_shareable() && is_next(v, wire::reference_mat_type.id))
        return verify_reference(v, record);
    for (const Member &member : record.members)
        if (!verify_member(v, record, member, numbers))
            return false;
    return true;
}

bool verify_record(Verification &v, const Record &record, Numbers &numbers, uint32_t rule)
{
    return take_marker(v, record.start, rule) && verify_content(v, record, numbers) && take_marker(v, record.end);
}

bool verify_record(Verification &v, const Record &record, uint32_t rule)
{
    Numbers numbers;
    return verify_record(v, record, numbers, rule);
}

// The header or the object of the message.
bool verify_top(Verification &v, const Record &record, Numbers &numbers, uint32_t rule)
{
    const PathStep step{nullptr, record.noun, 0};
    v.path = &step;
    const bool is_verified = verify_record(v, record, numbers, rule);
    v.path = nullptr;
    return is_verified;
}

bool verify_end(Verification &v)
{
    if (v.at_end && v.index == tlv_array_get_num_tlvs(v.array, 0))
        return true;
    return refuse(v, ZEL_VERIFY_TRAILING, 0, v.type);
}

bool verify_header_and_object(Verification &v)
{
    Numbers numbers;
    if (!verify_top(v, *v.format.header, numbers, ZEL_VERIFY_HEADER))
        return false;
    const bool may_lack_object = numbers.request_kind == ZEL_API_POLICY_DELETE;
    const Record &object = *v.format.object(get_mat_obj_type(numbers.request_kind));
    if (!(may_lack_object && v.at_end) && !verify_top(v, object, numbers, ZEL_VERIFY_OBJECT))
        return false;
    return verify_end(v);
}

} // namespace

uint32_t wire::verify(const MessageFormat &format, const void *array, bool strict, zel_verify_report_t &report)
{
    report = {};
    if (array == nullptr)
        return report.rule = ZEL_VERIFY_NO_MESSAGE;
    if (platform_is_inline && &format == &message_format && is_as_encoded(array))
        return report.rule;
    Verification v{format, array, strict, report};
    begin(v);
    verify_header_and_object(v);
    return report.rule;
}

} // namespace zel
