// Graphs on the heap, laid out as the library expects them, and freed by it.
#pragma once

#include "wire/format.hpp"

#include <cstddef>
#include <cstdlib>
#include <new>
#include <span>
#include <utility>

namespace tools {

// Frees a root and all that it owns; null is ignored.
inline void free_graph(uint32_t mat_type, void *root) noexcept
{
    if (root == nullptr)
        return;
    zel_api_handle_t handle{};
    zel_api_init(&handle, 0, 0, ZEL_KOB_NO_TRANSPORT, nullptr, nullptr, nullptr);
    free_contained_mat_obj_mem(&handle, 0, mat_type, root);
    std::free(root);
}

// Zero-filled memory that the library can free.
inline void *allocate_bytes(std::size_t bytes, std::size_t count = 1)
{
    void *const block = std::calloc(count, bytes);
    if (block == nullptr)
        throw std::bad_alloc();
    return block;
}

template <class T> T *allocate(std::size_t count = 1) { return static_cast<T *>(allocate_bytes(sizeof(T), count)); }

// The members of a group.
template <class R, class Count> std::span<R *const> members(R *const *array, Count count) { return {array, count}; }
inline std::span<zel_match_action_pair_t *const> pairs_of(const zel_policy_t &policy)
{
    return members(policy.match_action_pair_group.pairs, policy.match_action_pair_group.num_pair);
}

// Fills an empty sequence with n zero-filled members.
template <class R, class Count> std::span<R *> make_members(R **&array, Count &count, std::size_t n)
{
    if (n == 0)
        return {};
    array = allocate<R *>(n);
    const std::span<R *> members(array, n);
    for (R *&member : members) {
        member = allocate<R>();
        ++count;
    }
    return members;
}

// Owns a root record and everything below it.
class Graph {
public:
    Graph() = default;
    // A zero-filled root.
    explicit Graph(const zel::wire::Record &record) : record_(&record), root_(allocate_bytes(record.size)) {}
    // Becomes the owner of a root.
    Graph(uint32_t mat_type, void *root) : record_(zel::wire::object_of(mat_type)), root_(root) {}

    Graph(Graph &&other) noexcept : record_(other.record_), root_(std::exchange(other.root_, nullptr)) {}
    Graph &operator=(Graph &&other) noexcept
    {
        std::swap(record_, other.record_);
        std::swap(root_, other.root_);
        return *this;
    }
    ~Graph() { free_graph(mat_type(), root_); }

    const zel::wire::Record *record() const { return record_; }
    uint32_t mat_type() const { return record_ != nullptr ? record_->mat_type : uint32_t{ZEL_MAT_TYPE_NONE}; }
    void *root() const { return root_; }
    void *release() { return std::exchange(root_, nullptr); }
    // The root as its C type, which is up to the caller.
    template <class R> R &as() const { return *static_cast<R *>(root_); }

private:
    const zel::wire::Record *record_ = nullptr;
    void *root_ = nullptr;
};

} // namespace tools
