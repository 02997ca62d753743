// The exported operations of the object cache, and the order of its keys.
#include "cache/object_cache.hpp"

using namespace zel;

namespace {

// 1 when a key sorts after another, 2 when before, by the sign of their difference.
// Without branches: a search of a tree compares at every level, and the result cannot be
// predicted.
uint32_t order_of(int64_t difference)
{
    constexpr int sign_bit = 63;
    const auto is_after = static_cast<uint64_t>(-difference) >> sign_bit;
    const auto is_before = static_cast<uint64_t>(difference) >> sign_bit;
    return static_cast<uint32_t>(is_after + 2 * is_before);
}

} // namespace

uint32_t zel_mat_cache_comp_func(const void *a, const void *b)
{
    const auto &x = *static_cast<const zel_mat_cache_key_t *>(a);
    const auto &y = *static_cast<const zel_mat_cache_key_t *>(b);
    if (x.app_type != y.app_type) [[unlikely]] // a message has one application
        return order_of(int64_t{x.app_type} - y.app_type);
    const auto joined = [](const zel_mat_cache_key_t &key) { return int64_t{key.mat_type} << 16 | key.mat_id; };
    return order_of(joined(x) - joined(y));
}

zel_mat_cache_entry_t *zel_found_mat_cache(zel_api_handle_t *handle, uint32_t app_type, uint32_t mat_type,
                                           uint16_t mat_id)
{
    return find_in_cache(*handle, app_type, mat_type, mat_id);
}

void zel_store_mat_cache(zel_api_handle_t *handle, uint32_t app_type, uint32_t mat_type, uint16_t mat_id, void *obj)
{
    store_in_cache(*handle, app_type, mat_type, mat_id, obj);
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
