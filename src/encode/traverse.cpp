// Traversal: one graph, three modes.  Sizing and encoding hand the whole graph to the size
// functions and the encoders; only releasing walks the members here.
#include "encode/encode.hpp"
#include "model/trace.hpp"

#include <cstdlib>

namespace zel {
namespace {

using wire::Kind;
using wire::Member;
using wire::Record;

// ---- Releasing

void release(const Record &record, void *object);

// Members in ascending order, each after what it owns.  The index is signed like
// the comparison that peers make, so that a count of 2^31 and more has no members.
void release_members(const Member &sequence, void *object)
{
    wire::Pointer *const members = wire::array_of(object, sequence);
    const auto end = static_cast<int32_t>(wire::count_of(object, sequence));
    for (int32_t i = 0; members != nullptr && i < end; ++i) {
        // Members lie anywhere; this loads the next one while the current one is released.
        if (i + 1 < end)
            __builtin_prefetch(members[i + 1]);
        if (members[i] == nullptr)
            continue;
        if (sequence.record->owns_memory)
            release(*sequence.record, members[i]);
        std::free(members[i]);
        members[i] = nullptr;
    }
}

void release_array(const Member &sequence, void *object)
{
    wire::PointerArray &array = wire::array_of(object, sequence);
    std::free(array);
    array = nullptr;
}

// The array of a group is freed even when its count is 0; that of a statistics request is not.
bool keeps_array(const Record &record, const Member &sequence, const void *object)
{
    return &record == &wire::stat_request && wire::count_of(object, sequence) == 0;
}

// Both groups' members before either array.
void release_pair(zel_match_action_pair_t &pair)
{
    const Member &matches = wire::match_grp.members.back();
    const Member &actions = wire::action_grp.members.back();
    release_members(matches, &pair.match_group);
    release_members(actions, &pair.action_group);
    release_array(matches, &pair.match_group);
    release_array(actions, &pair.action_group);
}

// The interfaces before the pairs.
void release_policy(zel_policy_t &policy)
{
    release(wire::if_group, &policy.if_group);
    release(wire::match_action_pair_grp, &policy.match_action_pair_group);
}

void release_nested(const Record &record, const Member &member, void *object)
{
    if (member.kind == Kind::sequence && !keeps_array(record, member, object)) {
        release_members(member, object);
        release_array(member, object);
    } else if (member.kind == Kind::choice) {
        const wire::Option *const option = wire::selected(object, member);
        if (option != nullptr && option->record->owns_memory)
            release(*option->record, wire::part(object, option->offset));
    }
}

// What the record owns.  An object that was filled from the cache shares its parameter with
// the object that owns it.
void release(const Record &record, void *object)
{
    if (&record == &wire::match_action_pair)
        return release_pair(*static_cast<zel_match_action_pair_t *>(object));
    if (&record == &wire::policy)
        return release_policy(*static_cast<zel_policy_t *>(object));
    if (record.is_shareable() && wire::cached_flag(record, object) != 0)
        return;
    for (const Member &member : record.nested())
        release_nested(record, member, object);
}

// ---- The traversal of each type

struct Call {
    const char *function;
    Pass pass;
    void *buffer;
    uint32_t *value;
    uint32_t mode;
};

template <const Record &R> uint32_t traverse(const Call &call, void *object)
{
    switch (call.mode) {
    case MAT_TRAVERSE_ENCODE:
        encode<R>(call.pass, {call.pass.handle, call.buffer, *call.value}, object);
        break;
    case MAT_TRAVERSE_SIZE:
        *call.value += encoded_size<R>(call.pass, object);
        break;
    case MAT_TRAVERSE_FREE:
        if (object != nullptr)
            release(R, object);
        break;
    default:
        if constexpr (!R.is_shareable())
            trace(*call.pass.handle, Severity::error, call.function, "unsurported mode: %d"_trace, call.mode);
    }
    return 0;
}

// Has no traversal of its own, says nothing about unknown modes, and its size is not added
// to anything.
uint32_t traverse_stat_request(const Call &call, void *object)
{
    if (call.mode == MAT_TRAVERSE_SIZE)
        *call.value = 0;
    const bool is_known =
        call.mode == MAT_TRAVERSE_SIZE || call.mode == MAT_TRAVERSE_ENCODE || call.mode == MAT_TRAVERSE_FREE;
    return is_known ? traverse<wire::stat_request>(call, object) : 0;
}

uint32_t traverse_nothing(const Call &, void *) { return 0; }

} // namespace
} // namespace zel

using namespace zel;

// C names cannot come from a template, so this makes them.
#define TRAVERSAL(name, record)                                                                                        \
    uint32_t traverse_mat_##name##_obj(zel_api_handle_t *handle, void *buffer, uint32_t *value, zel_##record##_t *obj, \
                                       uint32_t mode, uint32_t app)                                                    \
    {                                                                                                                  \
        Marks none;                                                                                                    \
        return traverse<wire::record>({__func__, {handle, app, none}, buffer, value, mode}, obj);                      \
    }

TRAVERSAL(policy_list, policy_list)
TRAVERSAL(policy, policy)
TRAVERSAL(match_action_pair_grp, match_action_pair_grp)
TRAVERSAL(match_action_pair, match_action_pair)
TRAVERSAL(match_grp, match_grp)
TRAVERSAL(action_grp, action_grp)
TRAVERSAL(match, match)
TRAVERSAL(action, action)
TRAVERSAL(if_group, if_group)
TRAVERSAL(action_redirect, action_param_redirect)

namespace zel {
namespace {

// The types that a message may carry, each with the name of its traversal in reports.
struct Row {
    uint32_t mat_type;
    const char *function;
    uint32_t (*traverse)(const Call &, void *);
};

template <const Record &R> constexpr Row row(const char *function) { return {R.mat_type, function, traverse<R>}; }

constexpr Row rows[] = {
    row<wire::policy_list>("traverse_mat_policy_list_obj"),
    row<wire::policy>("traverse_mat_policy_obj"),
    row<wire::match_action_pair_grp>("traverse_mat_match_action_pair_grp_obj"),
    row<wire::match_action_pair>("traverse_mat_match_action_pair_obj"),
    row<wire::match_grp>("traverse_mat_match_grp_obj"),
    row<wire::action_grp>("traverse_mat_action_grp_obj"),
    row<wire::match>("traverse_mat_match_obj"),
    row<wire::action>("traverse_mat_action_obj"),
    row<wire::if_group>("traverse_mat_if_group_obj"),
    {ZEL_MAT_TYPE_STAT_REQUEST, "", traverse_stat_request},
    {ZEL_MAT_TYPE_NONE, "", traverse_nothing},
};

const Row *find_row(uint32_t mat_type)
{
    for (const Row &row : rows)
        if (row.mat_type == mat_type)
            return &row;
    return nullptr;
}

} // namespace
} // namespace zel

// The cache is emptied whatever happened: the encode pass must meet the same
// first occurrences as the size pass before it, or the sizes would not fit.
uint32_t traverse_mat_obj(zel_api_handle_t *handle, void *buffer, uint32_t *value, uint32_t mat_type, void *obj,
                          uint32_t app, uint32_t mode)
{
    uint32_t result = 1;
    if (const Row *const row = find_row(mat_type)) {
        Marks marks(*handle, app);
        result = row->traverse({row->function, {handle, app, marks}, buffer, value, mode}, obj);
    }
    zel_empty_mat_cache(handle);
    return result;
}
