// The rare operations on marks: growing, and giving up.
#include "cache/marks.hpp"

#ifdef ZEL_INLINE_ELEMENTS

#include "cache/object_cache.hpp"

#include <cstdlib>

namespace zel {
namespace {

// The pass of the thread that uses marks.  There is one at most: another one can only begin
// in a callback, and before that the marks are given up.
constinit thread_local Marks *current = nullptr;

} // namespace

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
    free_index();
}

void Marks::free_index()
{
    for (uint32_t i = 0; index_ != nullptr && i < num_pages; ++i)
        std::free(index_[i]);
    std::free(index_);
    index_ = nullptr;
}

// False: no memory.
bool Marks::set_in_index(Key key, void *object)
{
    void **&page = index_[key / page_size];
    if (page == nullptr)
        page = static_cast<void **>(std::calloc(page_size, sizeof *page));
    if (page == nullptr)
        return false;
    page[key % page_size] = object;
    return true;
}

// False: no memory, and the list holds all marks.
bool Marks::make_index()
{
    index_ = static_cast<void ***>(std::calloc(num_pages, sizeof *index_));
    if (index_ == nullptr)
        return false;
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
    if ((index_ != nullptr || make_index()) && set_in_index(key, object))
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
    for (uint32_t i = 0; index_ == nullptr && i < length_; ++i)
        store(keys_[i], objects_[i]);
    for (Key key = 0; index_ != nullptr && key < num_pages * page_size; ++key)
        if (void **const page = index_[key / page_size]; page != nullptr && page[key % page_size] != nullptr)
            store(key, page[key % page_size]);
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

} // namespace zel

#endif
