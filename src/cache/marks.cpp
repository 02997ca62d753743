// The rare operations on marks: growing, and giving up.
#include "cache/marks.hpp"

#ifdef ZEL_INLINE_ELEMENTS

#include "cache/object_cache.hpp"

#include <algorithm>
#include <cstdlib>
#include <iterator>

namespace zel {
namespace {

// The pass of the thread that uses marks.  There is one at most: another one can only begin
// in a callback, and before that the marks are given up.
constinit thread_local Marks *current = nullptr;

// The memory of a new node, with this in every place.
template <class Node, class Pointers> Node *make_node(Pointers Node::*places, std::remove_all_extents_t<Pointers> none)
{
    auto *const node = static_cast<Node *>(std::malloc(sizeof(Node)));
    if (node != nullptr)
        std::fill(std::begin(node->*places), std::end(node->*places), none);
    return node;
}

} // namespace

Marks::Leaf Marks::no_leaf = {};
Marks::Branch Marks::no_branch = [] {
    Branch branch{};
    for (Leaf *&leaf : branch.leaves)
        leaf = &no_leaf;
    return branch;
}();

Marks::Marks(zel_api_handle_t &handle, uint32_t app_type)
{
    if (!is_quiet(handle) || ravl_is_empty(&handle.mat_cache) == 0)
        return;
    handle_ = &handle;
    app_type_ = app_type;
    current = this;
}

void Marks::end()
{
    handle_ = nullptr;
    current = nullptr;
    if (is_indexed_)
        free_index();
}

void Marks::free_index()
{
    for (Branch *const branch : root_) {
        if (branch == &no_branch)
            continue;
        for (Leaf *const leaf : branch->leaves)
            if (leaf != &no_leaf)
                std::free(leaf);
        std::free(branch);
    }
    is_indexed_ = false;
}

// False: no memory.
bool Marks::set_in_index(Key key, void *object)
{
    Branch *&branch = root_[key / leaf_size / branch_size];
    if (branch == &no_branch) {
        auto *const made = make_node(&Branch::leaves, &no_leaf);
        if (made == nullptr)
            return false;
        branch = made;
    }
    Leaf *&leaf = branch->leaves[key / leaf_size % branch_size];
    if (leaf == &no_leaf) {
        auto *const made = make_node(&Leaf::objects, nullptr);
        if (made == nullptr)
            return false;
        leaf = made;
    }
    leaf->objects[key % leaf_size] = object;
    return true;
}

// False: no memory, and the list holds all marks.
bool Marks::make_index()
{
    std::fill(std::begin(root_), std::end(root_), &no_branch);
    is_indexed_ = true;
    for (uint32_t i = 0; i < length_; ++i) {
        if (!set_in_index(keys_[i], objects_[i])) {
            free_index();
            return false;
        }
    }
    return true;
}

bool Marks::set_rarely(Key key, void *object)
{
    if ((is_indexed_ || make_index()) && set_in_index(key, object))
        return true;
    become_entries();
    return false;
}

void Marks::become_entries()
{
    zel_api_handle_t &handle = *handle_;
    handle_ = nullptr; // from here on the cache is used, by callbacks too
    current = nullptr;
    const auto store = [&](Key key, void *object) {
        const uint32_t mat_type = (key & action_bit) != 0 ? ZEL_MAT_TYPE_ACTION : ZEL_MAT_TYPE_MATCH;
        store_in_cache(handle, app_type_, mat_type, static_cast<uint16_t>(key), object);
    };
    for (uint32_t i = 0; !is_indexed_ && i < length_; ++i)
        store(keys_[i], objects_[i]);
    for (Key key = 0; is_indexed_ && key < num_keys; ++key)
        if (void *const object = leaf_of(key).objects[key % leaf_size])
            store(key, object);
    if (is_indexed_)
        free_index();
}

void Marks::set_application(uint32_t app_type)
{
    if (are_on() && (length_ != 0 && app_type != app_type_))
        become_entries();
    app_type_ = app_type;
}

void Marks::give_up(const zel_api_handle_t &handle)
{
    if (current != nullptr && current->handle_ == &handle)
        current->become_entries();
}

void give_up_marks(const zel_api_handle_t &handle) { Marks::give_up(handle); }

} // namespace zel

#endif
