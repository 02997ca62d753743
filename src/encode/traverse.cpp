// Traversal: one graph, three modes.  Sizing and encoding hand the whole graph to
// the size functions and the encoders; only releasing walks the members here.
#include "encode/walk.hpp"
#include "model/trace.hpp"

#include <cstdlib>
#include <type_traits>

namespace zel {
namespace {

template <class M> void release_array(M **&members)
{
    std::free(static_cast<void *>(members));
    members = nullptr;
}

// Records that own nothing, actions among them: a redirect holds its records by value.
void release(zel_if_element_t &) {}
void release(zel_stat_request_entry_t &) {}
void release(zel_match_service_element_t &) {}
void release(zel_action_param_redirect_t &) {}
void release(zel_action_t &) {}

void release(zel_match_t &match);
void release(zel_match_action_pair_t &pair);
void release(zel_policy_t &policy);

// Members in ascending order, each after what it owns.  The index is signed like
// the comparison that peers make, so that a count of 2^31 and more has no members.
template <class Count, class M> void release_members(Count count, M **members)
{
    const auto end = static_cast<int32_t>(count);
    for (int32_t i = 0; members != nullptr && i < end; ++i) {
        // Members lie anywhere; the next may be on its way while this one is released.
        if (i + 1 < end)
            __builtin_prefetch(members[i + 1]);
        if (members[i] == nullptr)
            continue;
        release(*members[i]);
        std::free(members[i]);
        members[i] = nullptr;
    }
}

// The array goes even when the count is 0.
template <class Count, class M> void release_group(Count count, M **&members)
{
    release_members(count, members);
    release_array(members);
}

// Unlike a group's, the array of a request without entries is left alone.
void release(zel_stat_request_t &request)
{
    if (request.num_requests != 0)
        release_group(request.num_requests, request.requests);
}

// An object that was filled from the cache shares its parameter with the object
// that owns it.
void release(zel_match_t &match)
{
    if (match.cached == 0 && match.type == ZEL_MATCH_TYPE_SERVICE)
        release_group(match.param.service.num_elements, match.param.service.elements);
}

void release(zel_match_grp_t &group) { release_group(group.num_match, group.matches); }

void release(zel_action_grp_t &group) { release_group(group.num_action, group.actions); }

void release(zel_if_group_t &group) { release_group(group.num_if, group.if_elements); }

// Both groups' members before either array.
void release(zel_match_action_pair_t &pair)
{
    release_members(pair.match_group.num_match, pair.match_group.matches);
    release_members(pair.action_group.num_action, pair.action_group.actions);
    release_array(pair.match_group.matches);
    release_array(pair.action_group.actions);
}

void release(zel_match_action_pair_grp_t &group) { release_group(group.num_pair, group.pairs); }

void release(zel_policy_t &policy)
{
    release(policy.if_group);
    release(policy.match_action_pair_group);
}

void release(zel_policy_list_t &list) { release_group(list.num_policy, list.policies); }

struct Call {
    const char *function;
    zel_api_handle_t *handle;
    void *buffer;
    uint32_t *value;
    uint32_t mode;
    uint32_t app;
};

template <class R, class Encode, class Size> uint32_t traverse(const Call &call, R *obj, Encode encode, Size size)
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
            release(*obj);
        break;
    default:
        if constexpr (!is_shareable<R>)
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
        return traverse({__func__, handle, buffer, value, mode, app}, obj, zel_add_##object##_to_tlv,                  \
                        zel_##object##_get_tlv_sz);                                                                    \
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
            release(*obj);
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
