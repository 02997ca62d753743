// The object cache: which matches and actions the current message has carried.
#include "model/trace.hpp"
#include "platform/avl_tree.h"
#include "zel.h"

#include <cstdlib>

using namespace zel;

namespace {

enum Order : uint32_t { equal = 0, after = 1, before = 2 };

// Without branches: a descent asks this at every level, and nobody can predict the answer.
template <class T> Order compare(T a, T b)
{
    return static_cast<Order>((a > b ? after : equal) | (a < b ? before : equal));
}

} // namespace

uint32_t zel_mat_cache_comp_func(const void *a, const void *b)
{
    const auto &x = *static_cast<const zel_mat_cache_key_t *>(a);
    const auto &y = *static_cast<const zel_mat_cache_key_t *>(b);
    if (x.app_type != y.app_type) [[unlikely]] // one message, one application
        return compare(x.app_type, y.app_type);
    constexpr int id_bits = 16;
    return compare(uint64_t{x.mat_type} << id_bits | x.mat_id, uint64_t{y.mat_type} << id_bits | y.mat_id);
}

zel_mat_cache_entry_t *zel_found_mat_cache(zel_api_handle_t *handle, uint32_t app_type, uint32_t mat_type,
                                           uint16_t mat_id)
{
    const zel_mat_cache_key_t key{app_type, mat_type, mat_id};
    return static_cast<zel_mat_cache_entry_t *>(ravl_lookup(&handle->mat_cache, &key));
}

void zel_store_mat_cache(zel_api_handle_t *handle, uint32_t app_type, uint32_t mat_type, uint16_t mat_id, void *obj)
{
    auto *const entry = static_cast<zel_mat_cache_entry_t *>(std::calloc(1, sizeof(zel_mat_cache_entry_t)));
    if (entry == nullptr) {
        trace(*handle, Severity::error, {__func__, 203}, "cannot allocate mat cache new_entry"_trace);
        return;
    }
    entry->key = {app_type, mat_type, mat_id};
    entry->obj = obj;
    if (ravl_insert(&handle->mat_cache, entry) != 0)
        trace(*handle, Severity::notice, {__func__, 216}, "insert successful: type: %d, id: %d."_trace, mat_type,
              mat_id);
    else // by contract the refused entry is not freed: a tree may hold on to what it refuses
        trace(*handle, Severity::notice, {__func__, 213}, "insert failed: type: %d, id: %d."_trace, mat_type, mat_id);
}

int32_t zel_del_mat_cache_entry(zel_api_handle_t *handle, zel_mat_cache_entry_t *entry)
{
    trace(*handle, Severity::notice, {__func__, 170}, "delete mat_cache, type: %d, id: %d"_trace, entry->key.mat_type,
          entry->key.mat_id);
    ravl_delete(&handle->mat_cache, entry);
    std::free(entry);
    return 0;
}

int32_t zel_empty_mat_cache(zel_api_handle_t *handle)
{
    int32_t empty = 0;
    while ((empty = ravl_is_empty(&handle->mat_cache)) == 0) {
        void *const root = handle->mat_cache.root;
        ravl_delete(&handle->mat_cache, root);
        std::free(root);
    }
    return empty;
}
