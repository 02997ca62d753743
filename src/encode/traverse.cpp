// Traversal: one graph, three modes.  Sizing and encoding hand the whole graph to the size
// functions and the encoders; only releasing walks the members here.
#include "model/trace.hpp"
#include "wire/records.hpp"

#include <cstdlib>
#include <type_traits>

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
    zel_api_handle_t *handle;
    void *buffer;
    uint32_t *value;
    uint32_t mode;
    uint32_t app;
};

template <const Record &Description, class R, class Encode, class Size>
uint32_t traverse(const Call &call, R *obj, Encode encode, Size size)
{
    switch (call.mode) {
    case MAT_TRAVERSE_ENCODE:
        encode(call.handle, call.buffer, *call.value, obj, call.app);
        break;
    case MAT_TRAVERSE_SIZE:
        if constexpr (std::is_invocable_v<Size, zel_api_handle_t *, const R *, uint32_t>)
            *call.value += size(call.handle, obj, call.app);
        else
            *call.value += size(obj, call.app);
        break;
    case MAT_TRAVERSE_FREE:
        if (obj != nullptr)
            release(Description, obj);
        break;
    default:
        if constexpr (!Description.is_shareable())
            trace(*call.handle, Severity::error, call.function, "unsurported mode: %d"_trace, call.mode);
    }
    return 0;
}

} // namespace
} // namespace zel

using namespace zel;

// C names cannot come from a template, so this makes them.
#define TRAVERSAL(name, object)                                                                                        \
    uint32_t traverse_mat_##name##_obj(zel_api_handle_t *handle, void *buffer, uint32_t *value, zel_##object##_t *obj, \
                                       uint32_t mode, uint32_t app)                                                    \
    {                                                                                                                  \
        return traverse<wire::object>({__func__, handle, buffer, value, mode, app}, obj, zel_add_##object##_to_tlv,    \
                                      zel_##object##_get_tlv_sz);                                                      \
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

// Has no traversal of its own, and says nothing about unknown modes.
void traverse_stat_request(const Call &call, zel_stat_request_t *obj)
{
    switch (call.mode) {
    case MAT_TRAVERSE_ENCODE:
        zel_add_stat_request_to_tlv(call.handle, call.buffer, *call.value, obj, call.app);
        break;
    case MAT_TRAVERSE_SIZE:
        *call.value = zel_stat_request_get_tlv_sz(obj, call.app);
        break;
    case MAT_TRAVERSE_FREE:
        if (obj != nullptr)
            release(wire::stat_request, obj);
        break;
    }
}

template <class R> using Traversal = uint32_t (*)(zel_api_handle_t *, void *, uint32_t *, R *, uint32_t, uint32_t);

template <class R> uint32_t traverse_as(Traversal<R> traverse_one, const Call &call, void *obj)
{
    return traverse_one(call.handle, call.buffer, call.value, static_cast<R *>(obj), call.mode, call.app);
}

// Inlined, so that a call stays in registers instead of being written and read again.
[[gnu::always_inline]] inline uint32_t traverse_root(const Call &call, uint32_t mat_type, void *obj)
{
    switch (mat_type) {
    case ZEL_MAT_TYPE_POLICY_LIST:
        return traverse_as(traverse_mat_policy_list_obj, call, obj);
    case ZEL_MAT_TYPE_POLICY:
        return traverse_as(traverse_mat_policy_obj, call, obj);
    case ZEL_MAT_TYPE_MATCH_ACTION_PAIR_GROUP:
        return traverse_as(traverse_mat_match_action_pair_grp_obj, call, obj);
    case ZEL_MAT_TYPE_MATCH_ACTION_PAIR:
        return traverse_as(traverse_mat_match_action_pair_obj, call, obj);
    case ZEL_MAT_TYPE_MATCH_GROUP:
        return traverse_as(traverse_mat_match_grp_obj, call, obj);
    case ZEL_MAT_TYPE_ACTION_GROUP:
        return traverse_as(traverse_mat_action_grp_obj, call, obj);
    case ZEL_MAT_TYPE_MATCH:
        return traverse_as(traverse_mat_match_obj, call, obj);
    case ZEL_MAT_TYPE_ACTION:
        return traverse_as(traverse_mat_action_obj, call, obj);
    case ZEL_MAT_TYPE_IF_GROUP:
        return traverse_as(traverse_mat_if_group_obj, call, obj);
    case ZEL_MAT_TYPE_STAT_REQUEST:
        traverse_stat_request(call, static_cast<zel_stat_request_t *>(obj));
        return 0;
    case ZEL_MAT_TYPE_NONE:
        return 0;
    default:
        return 1;
    }
}

} // namespace
} // namespace zel

// The cache is emptied whatever happened: the encode pass must meet the same
// first occurrences as the size pass before it, or the sizes would not fit.
uint32_t traverse_mat_obj(zel_api_handle_t *handle, void *buffer, uint32_t *value, uint32_t mat_type, void *obj,
                          uint32_t app, uint32_t mode)
{
    const uint32_t result = traverse_root({__func__, handle, buffer, value, mode, app}, mat_type, obj);
    zel_empty_mat_cache(handle);
    return result;
}
