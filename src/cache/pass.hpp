// One pass over a message or a graph, and the objects that it has met.
#pragma once

#include "cache/marks.hpp"
#include "cache/object_cache.hpp"

namespace zel {

struct Pass {
    zel_api_handle_t *handle; // read only when a match or an action comes, or something is reported
    uint32_t app_type;
    Marks *marks = nullptr; // null: the cache is used

    // The object with this id that the message has carried in full, or null.
    [[gnu::always_inline]] const void *find(uint32_t mat_type, uint16_t id) const
    {
        if (marks != nullptr && marks->are_on()) {
            const bool is_shareable = mat_type == ZEL_MAT_TYPE_MATCH || mat_type == ZEL_MAT_TYPE_ACTION;
            return is_shareable ? marks->find(mat_type, id) : nullptr;
        }
        const zel_mat_cache_entry_t *const entry = find_in_cache(*handle, app_type, mat_type, id);
        return entry != nullptr ? entry->obj : nullptr;
    }

    // Keeps an object for the references to come.  The first one with an id stays.
    [[gnu::always_inline]] void store(uint32_t mat_type, uint16_t id, void *object) const
    {
        if (marks != nullptr && marks->are_on() &&
            (marks->find(mat_type, id) != nullptr || marks->set(mat_type, id, object)))
            return;
        store_in_cache(*handle, app_type, mat_type, id, object);
    }

    // Whether the message has not carried the object yet.  Stores it if so.
    [[gnu::always_inline]] bool is_first_occurrence(const wire::Record &record, const void *object) const
    {
        const uint16_t id = wire::id_of(record, object);
        // Objects are given out as non-const; encoding never writes to them.
        auto *const stored = const_cast<void *>(object);
        if (marks != nullptr && marks->are_on()) {
            if (marks->find(record.mat_type, id) != nullptr)
                return false;
            if (expect_true(marks->set(record.mat_type, id, stored)))
                return true;
        } else if (find_in_cache(*handle, app_type, record.mat_type, id) != nullptr) {
            return false;
        }
        store_in_cache(*handle, app_type, record.mat_type, id, stored);
        return true;
    }
};

} // namespace zel
