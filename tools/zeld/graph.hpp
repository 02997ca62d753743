// Graphs of MAT records: owning pointers, copies, and the members of groups. Copying,
// comparing and measuring follow from the wire description.
#pragma once

#include "tools/records/graph.hpp"
#include "tools/zeld/budget.hpp"
#include "wire/graph.hpp"
#include "wire/records.hpp"

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

// ---- Copies

template <class R> bool equal(const R &a, const R &b) { return zel::wire::equal(record_of<R>, &a, &b); }

// A copy that shares nothing, charged to the budget of the request.
template <class R> Owned<R> clone(const R &from)
{
    const auto allocate = [](std::size_t bytes) {
        Budget::charge(bytes + block_overhead);
        return tools::allocate_bytes(bytes);
    };
    Owned<R> copy(static_cast<R *>(allocate(sizeof(R))));
    zel::wire::copy(record_of<R>, copy.get(), &from, allocate);
    return copy;
}

// Bytes on the heap that a record and what it owns take.
template <class R> std::size_t heap_size(const R &record)
{
    return sizeof(R) + block_overhead + zel::wire::heap_size(record_of<R>, &record, block_overhead);
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

} // namespace zeld
