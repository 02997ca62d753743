// Compression: an object that the message has carried in full becomes a reference.
#pragma once

#include "cache/object_cache.hpp"
#include "wire/records.hpp"

namespace zel {

// Whether the message has not carried the object yet.  Enters it into the cache if so.
[[gnu::always_inline]] inline bool is_first_occurrence(zel_api_handle_t *handle, uint32_t app_type,
                                                       const wire::Record &record, const void *object)
{
    const uint16_t id = wire::id_of(record, object);
    if (find_in_cache(*handle, app_type, record.mat_type, id) != nullptr)
        return false;
    // The cache gives its objects out as non-const; encoding never writes to them.
    store_in_cache(*handle, app_type, record.mat_type, id, const_cast<void *>(object));
    return true;
}

} // namespace zel
