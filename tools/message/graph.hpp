// Graphs on the heap, laid out as the library expects them, and freed by it.
#pragma once

#include "wire/mat_objects.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <tuple>
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
template <class T> T *allocate(std::size_t count = 1)
{
    void *const block = std::calloc(count, sizeof(T));
    if (block == nullptr)
        throw std::bad_alloc();
    return static_cast<T *>(block);
}

// Owns a root record and everything below it.
class Graph {
public:
    Graph() = default;
    explicit Graph(uint32_t mat_type, void *root) : mat_type_(mat_type), root_(root) {}
    template <class R> static Graph make() { return Graph(zel::MatObjectOf<R>::type, allocate<R>()); }

    Graph(Graph &&other) noexcept : mat_type_(other.mat_type_), root_(std::exchange(other.root_, nullptr)) {}
    Graph &operator=(Graph &&other) noexcept
    {
        std::swap(mat_type_, other.mat_type_);
        std::swap(root_, other.root_);
        return *this;
    }
    ~Graph() { free_graph(mat_type_, root_); }

    uint32_t mat_type() const { return mat_type_; }
    void *root() const { return root_; }
    void *release() { return std::exchange(root_, nullptr); }
    // The root as the record that its MAT type says it is.
    template <class R> R &as() const { return *static_cast<R *>(root_); }

private:
    uint32_t mat_type_ = ZEL_MAT_TYPE_NONE;
    void *root_ = nullptr;
};

// Calls visit with a null pointer to the record of a MAT type; false when no
// record has it.
template <class Visit, class... O> bool visit_mat_type(uint32_t mat_type, Visit visit, zel::MatObjectList<O...>)
{
    return ((mat_type == O::type && (visit(static_cast<typename O::record *>(nullptr)), true)) || ...);
}
template <class Visit> bool visit_mat_type(uint32_t mat_type, Visit visit)
{
    return visit_mat_type(mat_type, visit, zel::MatObjects{});
}

// Appends a member to a sequence; the caller has made room for it.
template <auto Count, auto Array, class R> zel::Element<Array> &append_member(R &record)
{
    auto *const member = allocate<zel::Element<Array>>();
    (record.*Array)[record.*Count] = member;
    ++(record.*Count);
    return *member;
}

template <auto Array, class R> void make_room(R &record, std::size_t members)
{
    if (members != 0)
        record.*Array = allocate<zel::Element<Array> *>(members);
}

} // namespace tools
