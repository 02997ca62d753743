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

// A key is written as three words, because a tree reads words: a processor stalls when it
// reads a word that was stored in parts, or two words at once.  The padding is zero: keys that
// are equal have equal bytes.
[[gnu::always_inline]] inline void write_key(zel_mat_cache_key_t &key, uint32_t app_type, uint32_t mat_type,
                                             uint16_t mat_id)
{
    const auto id_and_padding = std::bit_cast<uint32_t>(std::array<uint16_t, 2>{mat_id, 0});
    static_assert(sizeof key == offsetof(zel_mat_cache_key_t, mat_id) + sizeof id_and_padding);
    key.app_type = app_type;
    key.mat_type = mat_type;
    std::memcpy(reinterpret_cast<char *>(&key) + offsetof(zel_mat_cache_key_t, mat_id), &id_and_padding,
                sizeof id_and_padding);
}

[[gnu::always_inline]] inline zel_mat_cache_entry_t *find_in_cache(zel_api_handle_t &handle, uint32_t app_type,
                                                                   uint32_t mat_type, uint16_t mat_id)
{
    zel_mat_cache_key_t key;
    write_key(key, app_type, mat_type, mat_id);
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
    write_key(entry->key, app_type, mat_type, mat_id);
    entry->obj = obj;
    if (ravl_insert(&handle.mat_cache, entry) != 0)
        trace(handle, Severity::notice, {function, 216}, "insert successful: type: %d, id: %d."_trace, mat_type,
              mat_id);
    else // by contract the refused entry is not freed
        trace(handle, Severity::notice, {function, 213}, "insert failed: type: %d, id: %d."_trace, mat_type, mat_id);
}

} // namespace zel
