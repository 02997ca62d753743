// The object cache: which matches and actions the current message has carried.  Inline,
// because every match and action passes through it twice on its way out.
#pragma once

#include "model/trace.hpp"
#include "wire/records.hpp"
#include "zel/platform/avl_tree.h"

#include <array>
#include <bit>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace zel {

// The bytes of a key.  Its padding is zero: keys that are equal have equal bytes.  Written
// as words, because a tree reads words: reading a word that was stored in parts stalls a processor.
[[gnu::always_inline]] inline std::array<uint32_t, 3> make_key(uint32_t app_type, uint32_t mat_type, uint16_t mat_id)
{
    static_assert(offsetof(zel_mat_cache_key_t, mat_type) == 4 && offsetof(zel_mat_cache_key_t, mat_id) == 8);
    return {app_type, mat_type, std::bit_cast<uint32_t>(std::array<uint16_t, 2>{mat_id, 0})};
}

[[gnu::always_inline]] inline zel_mat_cache_entry_t *find_in_cache(zel_api_handle_t &handle, uint32_t app_type,
                                                                   uint32_t mat_type, uint16_t mat_id)
{
    const auto key = make_key(app_type, mat_type, mat_id);
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
    const auto key = make_key(app_type, mat_type, mat_id);
    std::memcpy(&entry->key, &key, sizeof key);
    entry->obj = obj;
    if (ravl_insert(&handle.mat_cache, entry) != 0)
        trace(handle, Severity::notice, {function, 216}, "insert successful: type: %d, id: %d."_trace, mat_type,
              mat_id);
    else // by contract the refused entry is not freed
        trace(handle, Severity::notice, {function, 213}, "insert failed: type: %d, id: %d."_trace, mat_type, mat_id);
}

} // namespace zel
