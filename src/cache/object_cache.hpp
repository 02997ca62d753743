// The object cache: which matches and actions the current message has carried.  Every one
// of them comes by here, twice on its way out, hence in place and not by a call.
#pragma once

#include "model/trace.hpp"
#include "platform/avl_tree.h"
#include "zel.h"

#include <cstdlib>

namespace zel {

[[gnu::always_inline]] inline zel_mat_cache_entry_t *find_in_cache(zel_api_handle_t &handle, uint32_t app_type,
                                                                   uint32_t mat_type, uint16_t mat_id)
{
    const zel_mat_cache_key_t key{app_type, mat_type, mat_id};
    return static_cast<zel_mat_cache_entry_t *>(ravl_lookup(&handle.mat_cache, &key));
}

[[gnu::always_inline]] inline void store_in_cache(zel_api_handle_t &handle, uint32_t app_type, uint32_t mat_type,
                                                  uint16_t mat_id, void *obj)
{
    constexpr const char *function = "zel_store_mat_cache"; // under which field tooling knows it
    auto *const entry = static_cast<zel_mat_cache_entry_t *>(std::calloc(1, sizeof(zel_mat_cache_entry_t)));
    if (entry == nullptr) {
        trace(handle, Severity::error, {function, 203}, "cannot allocate mat cache new_entry"_trace);
        return;
    }
    entry->key.app_type = app_type;
    entry->key.mat_type = mat_type;
    entry->key.mat_id = mat_id;
    entry->obj = obj;
    if (ravl_insert(&handle.mat_cache, entry) != 0)
        trace(handle, Severity::notice, {function, 216}, "insert successful: type: %d, id: %d."_trace, mat_type,
              mat_id);
    else // by contract the refused entry is not freed: a tree may hold on to what it refuses
        trace(handle, Severity::notice, {function, 213}, "insert failed: type: %d, id: %d."_trace, mat_type, mat_id);
}

} // namespace zel
