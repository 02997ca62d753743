// The object cache: which matches and actions the current message has carried.  Inline,
// because every match and action passes through it twice on its way out.
#pragma once

#include "model/trace.hpp"
#include "platform/avl_tree.h"
#include "wire/records.hpp"

#include <cstdlib>

namespace zel {

[[gnu::always_inline]] inline zel_mat_cache_entry_t *find_in_cache(zel_api_handle_t &handle, uint32_t app_type,
                                                                   uint32_t mat_type, uint16_t mat_id)
{
    // The padding of a key is zero: keys that are equal have equal bytes.  Set here and not in
    // a function that returns the key, because a copy need not keep padding.
    zel_mat_cache_key_t key;
    std::memset(&key, 0, sizeof key);
    key.app_type = app_type;
    key.mat_type = mat_type;
    key.mat_id = mat_id;
    return static_cast<zel_mat_cache_entry_t *>(ravl_lookup(&handle.mat_cache, &key));
}

[[gnu::always_inline]] inline void store_in_cache(zel_api_handle_t &handle, uint32_t app_type, uint32_t mat_type,
                                                  uint16_t mat_id, void *obj)
{
    constexpr const char *function = "zel_store_mat_cache"; // field tooling knows the reports by this name
    auto *const entry = static_cast<zel_mat_cache_entry_t *>(std::calloc(1, sizeof(zel_mat_cache_entry_t)));
    if (entry == nullptr) {
        trace(handle, Severity::error, {function, 203}, "cannot allocate mat cache new_entry"_trace);
        return;
    }
    // Member by member: the key's padding stays zero.
    entry->key.app_type = app_type;
    entry->key.mat_type = mat_type;
    entry->key.mat_id = mat_id;
    entry->obj = obj;
    if (ravl_insert(&handle.mat_cache, entry) != 0)
        trace(handle, Severity::notice, {function, 216}, "insert successful: type: %d, id: %d."_trace, mat_type,
              mat_id);
    else // by contract the refused entry is not freed
        trace(handle, Severity::notice, {function, 213}, "insert failed: type: %d, id: %d."_trace, mat_type, mat_id);
}

} // namespace zel
