// Graphs of MAT records that free themselves, and what the service does with them
// whatever they are: copy, compare, take members in and out.
//
// The service keeps the library's own records.  A second set of types would need a
// conversion for every record in both directions; copying and comparing follow
// from the wire description.  A copy owns everything that it reaches: unlike a
// graph from the parser, it shares nothing, so that its parts may be moved about.
#pragma once

#include "tools/message/graph.hpp"
#include "tools/message/graph_equal.hpp"
#include "tools/zeld/refusal.hpp"
#include "wire/mat_objects.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <span>

namespace zeld {

using tools::equal;
using tools::free_graph;

struct FreeGraph {
    template <class R> void operator()(R *root) const noexcept { free_graph(zel::MatObjectOf<R>::type, root); }
};
template <class R> using Owned = std::unique_ptr<R, FreeGraph>;

// A graph whose kind is known at run time only.
struct FreeAnyGraph {
    uint32_t mat_type = ZEL_MAT_TYPE_NONE;
    void operator()(void *root) const noexcept { free_graph(mat_type, root); }
};
using AnyGraph = std::unique_ptr<void, FreeAnyGraph>;

// The memory that one request may take for graphs, while an object of this stands.
// A few bytes that refer to an object stand for a copy of it, and one object may
// go to many places, so a request's size says nothing about what it makes.
class GraphBudget {
public:
    explicit GraphBudget(std::size_t bytes) : limit_(bytes) { current_ = this; }
    ~GraphBudget() { current_ = nullptr; }
    GraphBudget(const GraphBudget &) = delete;
    GraphBudget &operator=(const GraphBudget &) = delete;

    // Throws Refusal when that is too much.
    static void take(std::size_t bytes);

private:
    static GraphBudget *current_;
    std::size_t limit_;
    std::size_t taken_ = 0;
};

// What the heap takes for a block besides its bytes, about.
constexpr std::size_t block_overhead = 16;

// Zero-filled storage that the library can free.
template <class T> T *allocate(std::size_t count)
{
    GraphBudget::take(count * sizeof(T) + block_overhead);
    void *const storage = std::calloc(count, sizeof(T));
    if (storage == nullptr)
        throw std::bad_alloc();
    return static_cast<T *>(storage);
}

// ---- Copies

template <class R> void copy_members(R &to, const R &from);

template <class R> Owned<R> clone(const R &from)
{
    Owned<R> copy(allocate<R>(1));
    copy_members(*copy, from);
    return copy;
}

template <class R, uint16_t Id, auto Member> void copy_member(R &to, const R &from, zel::Field<Id, Member>)
{
    std::memcpy(&(to.*Member), &(from.*Member), sizeof(to.*Member));
}

template <class R, auto Member> void copy_member(R &to, const R &from, zel::Embedded<Member>)
{
    copy_members(to.*Member, from.*Member);
}

// The array is in place before its members, so that a copy that runs out of memory can be freed.
template <class R, uint16_t Id, auto Count, auto Array>
void copy_member(R &to, const R &from, zel::Sequence<Id, Count, Array>)
{
    using Member = zel::Element<Array>;
    if (from.*Count == 0)
        return;
    to.*Array = allocate<Member *>(from.*Count);
    to.*Count = from.*Count;
    for (uint32_t i = 0; i < from.*Count; ++i)
        (to.*Array)[i] = clone(*(from.*Array)[i]).release();
}

template <class R, uint32_t Value, auto... Path>
void copy_option(R &to, const R &from, uint32_t selector, zel::Option<Value, Path...>)
{
    if (selector == Value)
        copy_members(zel::follow<Path...>(to), zel::follow<Path...>(from));
}

template <class R, auto Selector, class... O> void copy_member(R &to, const R &from, zel::Choice<Selector, O...>)
{
    (copy_option(to, from, from.*Selector, O{}), ...);
}

template <class R> void copy_members(R &to, const R &from)
{
    std::apply([&](auto... member) { (copy_member(to, from, member), ...); }, zel::Wire<R>::members);
}

// Puts a copy of a record in the place of another, whose content goes.
template <class R> void replace(R &old, const R &with)
{
    const Owned<R> copy = clone(with);
    std::swap(old, *copy);
}

// ---- Memory that a graph takes below a record, about

template <class R> std::size_t footprint(const R &record);

template <class R, uint16_t Id, auto Member> std::size_t member_footprint(const R &, zel::Field<Id, Member>)
{
    return 0;
}

template <class R, auto Member> std::size_t member_footprint(const R &record, zel::Embedded<Member>)
{
    return footprint(record.*Member);
}

template <class R, uint16_t Id, auto Count, auto Array>
std::size_t member_footprint(const R &record, zel::Sequence<Id, Count, Array>)
{
    std::size_t bytes = block_overhead;
    for (uint32_t i = 0; i < record.*Count; ++i)
        bytes += sizeof(void *) + sizeof(zel::Element<Array>) + block_overhead + footprint(*(record.*Array)[i]);
    return bytes;
}

template <class R, uint32_t Value, auto... Path>
std::size_t option_footprint(const R &record, uint32_t selector, zel::Option<Value, Path...>)
{
    return selector == Value ? footprint(zel::follow<Path...>(record)) : 0;
}

template <class R, auto Selector, class... O> std::size_t member_footprint(const R &record, zel::Choice<Selector, O...>)
{
    return (option_footprint(record, record.*Selector, O{}) + ...);
}

template <class R> std::size_t footprint(const R &record)
{
    return std::apply([&](auto... member) { return (member_footprint(record, member) + ...); }, zel::Wire<R>::members);
}

// ---- Groups: records whose last member is a sequence

template <class S> struct SequenceMembers;
template <uint16_t Id, auto Count, auto Array> struct SequenceMembers<zel::Sequence<Id, Count, Array>> {
    using Member = zel::Element<Array>;
    static constexpr auto count = Count;
    static constexpr auto array = Array;
};

template <class G>
using GroupOf =
    SequenceMembers<std::remove_cvref_t<decltype(std::get<std::tuple_size_v<decltype(zel::Wire<G>::members)> - 1>(
        zel::Wire<G>::members))>>;

template <class G> using MemberOf = typename GroupOf<G>::Member;

template <class G> std::span<MemberOf<G> *const> members(const G &group)
{
    return {group.*GroupOf<G>::array, group.*GroupOf<G>::count};
}

template <class G> void append(G &group, Owned<MemberOf<G>> member)
{
    auto &count = group.*GroupOf<G>::count;
    auto &array = group.*GroupOf<G>::array;
    if (count == std::numeric_limits<std::remove_reference_t<decltype(count)>>::max())
        throw Refusal(service::error_limit, "a group cannot have more than {} members", count);
    auto *const larger = allocate<MemberOf<G> *>(std::size_t{count} + 1);
    std::copy_n(array, count, larger);
    larger[count++] = member.release();
    std::free(static_cast<void *>(std::exchange(array, larger)));
}

// Removes the members that a predicate picks.  Returns how many there were.
template <class G, class Predicate> std::size_t erase_members(G &group, Predicate is_picked)
{
    auto &count = group.*GroupOf<G>::count;
    auto *const begin = group.*GroupOf<G>::array;
    auto *const end = begin + count;
    auto *const rest = std::stable_partition(begin, end, [&](const auto *member) { return !is_picked(*member); });
    const auto num_removed = static_cast<std::size_t>(end - rest);
    std::for_each(rest, end, [](auto *&member) { Owned<MemberOf<G>>(std::exchange(member, nullptr)); });
    count = static_cast<std::remove_reference_t<decltype(count)>>(count - num_removed);
    return num_removed;
}

} // namespace zeld
