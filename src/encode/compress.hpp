// Compression: an object that the message has carried in full becomes a reference.
#pragma once

#include "cache/object_cache.hpp"
#include "wire/mat_objects.hpp"
#include "zel.h"

#include <stdint.h>

namespace zel {

// Whether the message has not carried the object yet; from now on it has.
template <class R>
[[gnu::always_inline]] inline bool is_first_occurrence(zel_api_handle_t *handle, uint32_t app_type, const R &object)
{
    constexpr uint32_t mat_type = MatObjectOf<R>::type;
    if (find_in_cache(*handle, app_type, mat_type, object.id) != nullptr)
        return false;
    // The cache lends its objects to its callers, hence a pointer to non-const; encoding never writes to them.
    store_in_cache(*handle, app_type, mat_type, object.id, const_cast<R *>(&object));
    return true;
}

} // namespace zel
