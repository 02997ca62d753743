// Graphs of MAT records: owning pointers, copies, and changes to groups.
//
// The service keeps policies as the library's own records. Copying, comparing and
// measuring follow from the wire description. A copy shares no record, unlike a
// graph from the parser, so each part of it can be changed or freed alone.
#pragma once

#include "tools/message/graph.hpp"
#include "tools/zeld/refusal.hpp"
#include "wire/graph.hpp"
#include "wire/records.hpp"

#include <algorithm>
#include <limits>
#include <memory>
#include <span>
#include <tuple>
#include <utility>

namespace zeld {

// ---- The wire description of a record type, for the types that the service copies

template <class R> extern const zel::wire::Record &record_of;
template <> inline constexpr const zel::wire::Record &record_of<zel_if_element_t> = zel::wire::if_element;
template <> inline constexpr const zel::wire::Record &record_of<zel_if_group_t> = zel::wire::if_group;
template <>
inline constexpr const zel::wire::Record &record_of<zel_match_service_element_t> = zel::wire::match_service_element;
template <> inline constexpr const zel::wire::Record &record_of<zel_match_t> = zel::wire::match;
template <> inline constexpr const zel::wire::Record &record_of<zel_match_grp_t> = zel::wire::match_grp;
template <> inline constexpr const zel::wire::Record &record_of<zel_action_t> = zel::wire::action;
template <> inline constexpr const zel::wire::Record &record_of<zel_action_grp_t> = zel::wire::action_grp;
template <> inline constexpr const zel::wire::Record &record_of<zel_match_action_pair_t> = zel::wire::match_action_pair;
template <>
inline constexpr const zel::wire::Record &record_of<zel_match_action_pair_grp_t> = zel::wire::match_action_pair_grp;
template <> inline constexpr const zel::wire::Record &record_of<zel_policy_t> = zel::wire::policy;

// ---- Owning pointers

// Frees a graph whose MAT type is known at run time only.
struct FreeAnyGraph {
    uint32_t mat_type = ZEL_MAT_TYPE_NONE;
    void operator()(void *root) const noexcept { tools::free_graph(mat_type, root); }
};
using AnyGraph = std::unique_ptr<void, FreeAnyGraph>;

template <class R> struct FreeGraph {
    void operator()(R *root) const noexcept { tools::free_graph(record_of<R>.mat_type, root); }
};
template <class R> using Owned = std::unique_ptr<R, FreeGraph<R>>;

// ---- Memory

// Limits the memory that one request may take for graphs. The limit holds while
// the object exists. References and repeated objects make large graphs out of
// small messages, so a limit on the message's size is not enough.
class GraphBudget {
public:
    explicit GraphBudget(std::size_t bytes) : limit_(bytes) { current_ = this; }
    ~GraphBudget() { current_ = nullptr; }
    GraphBudget(const GraphBudget &) = delete;
    GraphBudget &operator=(const GraphBudget &) = delete;

    // Adds to what the request has taken. Throws Refusal above the limit.
    static void charge(std::size_t bytes);

private:
    static GraphBudget *current_;
    std::size_t limit_;
    std::size_t taken_ = 0;
};

// Bytes that the heap adds to each block, approximately.
constexpr std::size_t block_overhead = 16;

// Zero-filled memory that the library can free, charged to the budget.
template <class T> T *allocate(std::size_t count = 1)
{
    GraphBudget::charge(count * sizeof(T) + block_overhead);
    return tools::allocate<T>(count);
}

// Bytes of memory that a policy's graph takes, approximately.
std::size_t graph_size(const zel_policy_t &policy);

// ---- Copies

template <class R> bool equal(const R &a, const R &b) { return zel::wire::equal(record_of<R>, &a, &b); }

template <class R> Owned<R> clone(const R &from)
{
    Owned<R> copy(allocate<R>());
    zel::wire::copy(record_of<R>, copy.get(), &from,
                    [](std::size_t bytes) -> void * { return allocate<unsigned char>(bytes); });
    return copy;
}

// Overwrites a record with a copy of another. Frees the old content.
template <class R> void replace(R &old, const R &with)
{
    const Owned<R> copy = clone(with);
    std::swap(old, *copy);
}

// ---- Groups: records that hold a sequence

// The count and the array of a group.
inline auto sequence(zel_if_group_t &group) { return std::tie(group.num_if, group.if_elements); }
inline auto sequence(zel_match_service_t &service) { return std::tie(service.num_elements, service.elements); }
inline auto sequence(zel_match_grp_t &group) { return std::tie(group.num_match, group.matches); }
inline auto sequence(zel_action_grp_t &group) { return std::tie(group.num_action, group.actions); }
inline auto sequence(zel_match_action_pair_grp_t &group) { return std::tie(group.num_pair, group.pairs); }
inline auto sequence(zel_policy_list_t &list) { return std::tie(list.num_policy, list.policies); }
inline auto sequence(zel_stat_request_t &request) { return std::tie(request.num_requests, request.requests); }

// The type of a group's members.
template <class G>
using MemberOf = std::remove_pointer_t<
    std::remove_pointer_t<std::remove_reference_t<std::tuple_element_t<1, decltype(sequence(std::declval<G &>()))>>>>;

template <class G> std::span<MemberOf<G> *const> members(const G &group)
{
    const auto [count, array] = sequence(const_cast<G &>(group)); // only read here
    return {array, count};
}

template <class G> void append(G &group, Owned<MemberOf<G>> member)
{
    const auto [count, array] = sequence(group);
    if (count == std::numeric_limits<std::remove_reference_t<decltype(count)>>::max())
        throw Refusal(service::error_limit, "a group cannot have more than {} members", count);
    auto *const larger = allocate<MemberOf<G> *>(std::size_t{count} + 1);
    std::copy_n(array, count, larger);
    larger[count++] = member.release();
    std::free(static_cast<void *>(std::exchange(array, larger)));
}

// Removes and frees the members that a predicate selects.
template <class G, class Predicate> void erase_members(G &group, Predicate is_selected)
{
    const auto [count, array] = sequence(group);
    auto *const end = array + count;
    auto *const rest = std::stable_partition(array, end, [&](const auto *member) { return !is_selected(*member); });
    std::for_each(rest, end, [](auto *&member) { Owned<MemberOf<G>>(std::exchange(member, nullptr)); });
    count = static_cast<std::remove_reference_t<decltype(count)>>(rest - array);
}

} // namespace zeld
