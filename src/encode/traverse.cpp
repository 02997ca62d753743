// Traversal: one graph, three modes.  Sizing and encoding hand the whole graph to the size
// functions and the encoders; only releasing walks the members here.
#include "encode/encode.hpp"
#include "model/trace.hpp"
#include "wire/format.hpp"

#include <array>
#include <cstdlib>

namespace zel {
namespace {

using wire::Kind;
using wire::Member;
using wire::Record;

// ---- Releasing

template <const Record &R> void release(void *object);

// Members in ascending order, each after what it owns.  The index is signed like
// the comparison that peers make, so that a count of 2^31 and more has no members.
template <const Record &R, std::size_t I> [[gnu::always_inline]] inline void release_members(void *object)
{
    constexpr const Member &sequence = R.members[I];
    wire::Pointer *const members = wire::array_of(object, sequence);
    const auto end = static_cast<int32_t>(wire::count_of(object, sequence));
    for (int32_t i = 0; members != nullptr && i < end; ++i) {
        // Members lie anywhere; this loads the next one while the current one is released.
        if (i + 1 < end)
            __builtin_prefetch(members[i + 1]);
        if (members[i] == nullptr)
            continue;
        if constexpr (sequence.record->owns_memory)
            release<*sequence.record>(members[i]);
        std::free(members[i]);
        members[i] = nullptr;
    }
}

template <const Record &R, std::size_t I> void release_array(void *object)
{
    wire::PointerArray &array = wire::array_of(object, R.members[I]);
    std::free(array);
    array = nullptr;
}

// Both groups' members before either array.
void release_pair(zel_match_action_pair_t &pair)
{
    constexpr std::size_t matches = wire::match_grp.first_nested;
    constexpr std::size_t actions = wire::action_grp.first_nested;
    release_members<wire::match_grp, matches>(&pair.match_group);
    release_members<wire::action_grp, actions>(&pair.action_group);
    release_array<wire::match_grp, matches>(&pair.match_group);
    release_array<wire::action_grp, actions>(&pair.action_group);
}

// The interfaces before the pairs.
void release_policy(zel_policy_t &policy)
{
    release<wire::if_group>(&policy.if_group);
    release<wire::match_action_pair_grp>(&policy.match_action_pair_group);
}

// The option that is selected, if it owns something.
template <const Record &R, std::size_t I, std::size_t O> void release_option(void *object)
{
    constexpr const wire::Option &option = R.members[I].options[O];
    if constexpr (option.record->owns_memory) {
        if (wire::number_at(object, R.members[I]) == option.value)
            release<*option.record>(wire::part(object, option.offset));
    }
}

template <const Record &R, std::size_t I> [[gnu::always_inline]] inline void release_nested(void *object)
{
    constexpr const Member &member = R.members[I];
    if constexpr (member.kind == Kind::sequence) {
        // The array of a group is freed even when its count is 0; that of a statistics request is not.
        if (R == wire::stat_request && wire::count_of(object, member) == 0)
            return;
        release_members<R, I>(object);
        release_array<R, I>(object);
    } else if constexpr (member.kind == Kind::choice) {
        [&]<std::size_t... O>(std::index_sequence<O...>) { (release_option<R, I, O>(object), ...); }
        (std::make_index_sequence<member.options.size()>{});
    }
}

// What the record owns.  An object that was filled from the cache shares its parameter with
// the object that owns it.
template <const Record &R> void release(void *object)
{
    if constexpr (R == wire::match_action_pair)
        return release_pair(*static_cast<zel_match_action_pair_t *>(object));
    if constexpr (R == wire::policy)
        return release_policy(*static_cast<zel_policy_t *>(object));
    if constexpr (R.is_shareable()) {
        if (wire::cached_flag(R, object) != 0)
            return;
    }
    [&]<std::size_t... I>(std::index_sequence<I...>) { (release_nested<R, R.first_nested + I>(object), ...); }
    (std::make_index_sequence<R.members.size() - R.first_nested>{});
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
            release<R>(object);
        break;
    default:
        if constexpr (!R.is_shareable())
            trace(*call.pass.handle, Severity::error, call.function, "unsurported mode: %d"_trace, call.mode);
    }
    return 0;
}

// A statistics request has no traversal function of its own, does not report unknown modes, and
// sets *value to its size instead of adding it.
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
        return traverse<wire::record>({__func__, {handle, app}, buffer, value, mode}, obj);                            \
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

// What a message may carry, by MAT type, each with the name of its traversal in reports.
struct Row {
    const char *function;
    uint32_t (*traverse)(const Call &, void *);
};

using Rows = std::array<Row, wire::num_mat_types>;

template <const Record &R> constexpr void enter(Rows &rows, const char *function)
{
    rows[R.mat_type] = {function, traverse<R>};
}

constexpr Rows rows = [] {
    Rows table{};
    table[ZEL_MAT_TYPE_NONE] = {"", traverse_nothing};
    table[ZEL_MAT_TYPE_STAT_REQUEST] = {"", traverse_stat_request};
    enter<wire::policy_list>(table, "traverse_mat_policy_list_obj");
    enter<wire::policy>(table, "traverse_mat_policy_obj");
    enter<wire::match_action_pair_grp>(table, "traverse_mat_match_action_pair_grp_obj");
    enter<wire::match_action_pair>(table, "traverse_mat_match_action_pair_obj");
    enter<wire::match_grp>(table, "traverse_mat_match_grp_obj");
    enter<wire::action_grp>(table, "traverse_mat_action_grp_obj");
    enter<wire::match>(table, "traverse_mat_match_obj");
    enter<wire::action>(table, "traverse_mat_action_obj");
    enter<wire::if_group>(table, "traverse_mat_if_group_obj");
    return table;
}();

} // namespace
} // namespace zel

// The cache is emptied whatever happened: the encode pass must meet the same
// first occurrences as the size pass before it, or the sizes would not fit.
uint32_t traverse_mat_obj(zel_api_handle_t *handle, void *buffer, uint32_t *value, uint32_t mat_type, void *obj,
                          uint32_t app, uint32_t mode)
{
    uint32_t result = 1;
    if (mat_type < rows.size() && rows[mat_type].traverse != nullptr) {
        Marks marks(*handle, app);
        result = rows[mat_type].traverse({rows[mat_type].function, {handle, app, &marks}, buffer, value, mode}, obj);
    }
    zel_empty_mat_cache(handle);
    return result;
}
