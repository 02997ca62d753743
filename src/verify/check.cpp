// The check of a graph before it is sent.  It finds faults that the encoder cannot see: the message
// is well formed, but does not mean what the client intended.
#include "cache/object_cache.hpp"
#include "model/options.hpp"
#include "verify/path.hpp"
#include "wire/format.hpp"
#include "wire/graph.hpp"

#include <cstddef>

namespace zel {
namespace {

using wire::Kind;
using wire::Member;
using wire::Option;
using wire::Record;

// A value that has no effect under a mask of 0, and a length that its array limits.
struct Masked {
    uint16_t value;
    uint16_t mask;
};
struct Bounded {
    const Record *record;
    uint16_t length;
    uint16_t capacity;
};

#define MASKED(name)                                                                                                   \
    {                                                                                                                  \
        offsetof(zel_match_service_element_t, name), offsetof(zel_match_service_element_t, name##_mask)                \
    }
constexpr Masked masked_values[] = {MASKED(sip), MASKED(dip), MASKED(sport), MASKED(dport)};
#undef MASKED

constexpr Bounded bounded_lengths[] = {
    {&wire::match_label, offsetof(zel_match_label_t, length), ZEL_LABEL_SIZE},
    {&wire::action_label_param, offsetof(zel_action_label_param_t, label_length), ZEL_LABEL_SIZE},
};

struct Check {
    zel_verify_report_t &report;
    bool is_freed; // by the free traversal, which follows every pointer
    const PathStep *path = nullptr;
    zel_api_handle_t objects{};   // its cache: the first object of each kind and id
    zel_api_handle_t addresses{}; // its cache: the blocks that the graph owns, by address
};

bool refuse(Check &check, uint32_t rule, uint16_t element, uint32_t expected, uint32_t found)
{
    check.report.rule = rule;
    check.report.element_id = element;
    check.report.expected = expected;
    check.report.found = found;
    write_path(check.report, check.path);
    return false;
}

uint32_t value_at(const void *object, const Member &member)
{
    return member.width == 1 ? wire::at<uint8_t>(object, member.offset) : wire::number_at(object, member);
}

const Member &member_at(const Record &record, std::size_t offset)
{
    const Member *member = record.members.data();
    while (member->offset != offset)
        ++member;
    return *member;
}

// ---- Values

bool check_masks(Check &check, const Record &record, const void *object)
{
    for (const Masked &masked : masked_values) {
        const Member &value = member_at(record, masked.value);
        const uint32_t number = value_at(object, value);
        if (number != 0 && value_at(object, member_at(record, masked.mask)) == 0)
            return refuse(check, ZEL_CHECK_MASK, value.id, 0, number);
    }
    return true;
}

bool check_lengths(Check &check, const Record &record, const void *object)
{
    for (const Bounded &bounded : bounded_lengths) {
        if (bounded.record != &record)
            continue;
        const Member &length = member_at(record, bounded.length);
        if (const uint32_t number = value_at(object, length); number > bounded.capacity)
            return refuse(check, ZEL_CHECK_LENGTH, length.id, bounded.capacity, number);
    }
    return true;
}

// An action of any type travels; a match travels whole with a known type only.
bool check_match_type(Check &check, const zel_match_t &match)
{
    const Member &choice = wire::match.members.back();
    if (match.type == ZEL_MATCH_TYPE_NO_PARAM || wire::selected(&match, choice) != nullptr)
        return true;
    return refuse(check, ZEL_CHECK_TYPE, member_at(wire::match, offsetof(zel_match_t, type)).id, 0, match.type);
}

bool check_values(Check &check, const Record &record, const void *object)
{
    if (&record == &wire::match_service_element && !check_masks(check, record, object))
        return false;
    if (&record == &wire::match && !check_match_type(check, *static_cast<const zel_match_t *>(object)))
        return false;
    return check_lengths(check, record, object);
}

// ---- Records

bool check_record(Check &check, const Record &record, const void *object);

// A block of memory that the free traversal frees: once.
bool check_owner(Check &check, const Member &sequence, const void *block)
{
    if (!check.is_freed)
        return true;
    const auto address = reinterpret_cast<uintptr_t>(block);
    const auto low = static_cast<uint32_t>(address);
    const auto high = static_cast<uint32_t>(uint64_t{address} >> 32);
    if (zel_found_mat_cache(&check.addresses, low, high, 0) != nullptr)
        return refuse(check, ZEL_CHECK_SHARED, sequence.id, 0, sequence.record->mat_type);
    zel_store_mat_cache(&check.addresses, low, high, 0, nullptr);
    return check.addresses.faults.count == 0 || refuse(check, ZEL_CHECK_NO_MEMORY, sequence.id, 0, 0);
}

// An object whose id has come before must be the same, or equal to it.
bool check_identity(Check &check, const Record &record, const void *object)
{
    const uint16_t id = wire::id_of(record, object);
    const uint16_t element = member_at(record, record.sharing.id).id;
    if (const zel_mat_cache_entry_t *const entry = zel_found_mat_cache(&check.objects, 0, record.mat_type, id))
        return entry->obj == object || wire::equal(record, entry->obj, object) ||
               refuse(check, ZEL_CHECK_CONFLICT, element, record.mat_type, id);
    zel_store_mat_cache(&check.objects, 0, record.mat_type, id, const_cast<void *>(object)); // borrowed, and only read
    return check.objects.faults.count == 0 || refuse(check, ZEL_CHECK_NO_MEMORY, element, 0, 0);
}

// The step is that of the member that is being looked at.
bool check_members(Check &check, const Member &sequence, const void *object, PathStep &step)
{
    const uint32_t count = wire::count_of(object, sequence);
    while (step.position < count) {
        const void *const member = wire::array_of(object, sequence)[step.position++];
        if (member == nullptr)
            return refuse(check, ZEL_CHECK_NULL, sequence.id, count, step.position);
        if (!check_owner(check, sequence, member) || !check_record(check, *sequence.record, member))
            return false;
    }
    return true;
}

bool check_sequence(Check &check, const Member &sequence, const void *object)
{
    const uint32_t count = wire::count_of(object, sequence);
    const void *const array = wire::array_of(object, sequence);
    if (count != 0 && array == nullptr)
        return refuse(check, ZEL_CHECK_NULL, sequence.id, count, 0);
    if (array != nullptr && !check_owner(check, sequence, array))
        return false;
    PathStep step{check.path, sequence.record->noun, 0};
    check.path = &step;
    const bool is_right = check_members(check, sequence, object, step);
    check.path = step.container;
    return is_right;
}

bool check_member(Check &check, const Member &member, const void *object)
{
    switch (member.kind) {
    case Kind::field:
        return true;
    case Kind::embedded:
        return check_record(check, *member.record, wire::part(object, member.offset));
    case Kind::sequence:
        return check_sequence(check, member, object);
    case Kind::choice:
        const Option *const option = wire::selected(object, member);
        return option == nullptr || check_record(check, *option->record, wire::part(object, option->offset));
    }
    return true;
}

bool check_record(Check &check, const Record &record, const void *object)
{
    if (!check_values(check, record, object))
        return false;
    const bool is_copy = record.is_shareable() && wire::at<uint32_t>(object, record.sharing.cached) != 0;
    for (const Member &member : record.nested())
        if (!(is_copy && check.is_freed) && !check_member(check, member, object)) // a copy owns nothing
            return false;
    return !record.is_shareable() || check_identity(check, record, object);
}

void check_graph(Check &check, uint32_t mat_type, const void *object)
{
    const Record *const record = wire::object_of(mat_type);
    if (record == nullptr) {
        refuse(check, ZEL_CHECK_TYPE, 0, 0, mat_type);
        return;
    }
    const PathStep root{nullptr, record->noun, 0};
    check.path = &root;
    if (object == nullptr)
        refuse(check, ZEL_CHECK_NULL, record->start, 1, 1);
    else
        check_record(check, *record, object);
    check.path = nullptr;
    zel_empty_mat_cache(&check.objects);
    zel_empty_mat_cache(&check.addresses);
}

} // namespace
} // namespace zel

using namespace zel;

uint32_t zel_check_graph(uint32_t mat_type, const void *obj, const zel_check_options_t *options,
                         zel_verify_report_t *report)
{
    zel_verify_report_t full{};
    Check check{full, read_options(options).freed != 0};
    for (zel_api_handle_t *const handle : {&check.objects, &check.addresses})
        zel_api_init(handle, 0, 0, ZEL_KOB_NO_TRANSPORT, nullptr, nullptr, nullptr);
    check_graph(check, mat_type, obj);
    hand_out(full, report);
    return full.rule;
}
