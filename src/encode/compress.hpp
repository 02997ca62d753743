// What compress_mat() consists of, for callers who know the mode.
#pragma once

#include "model/records.hpp"
#include "zel.h"

#include <stdint.h>

namespace zel {

// False: the message has carried the object.  Otherwise that is remembered from now on.
inline bool is_first_occurrence(zel_api_handle_t *handle, uint32_t app_type, uint32_t mat_type, uint16_t id,
                                const void *record)
{
    if (zel_found_mat_cache(handle, app_type, mat_type, id) != nullptr)
        return false;
    // The cache lends its objects to its callers, hence a pointer to non-const; encoding never writes to them.
    zel_store_mat_cache(handle, app_type, mat_type, id, const_cast<void *>(record));
    return true;
}

void write_reference(zel_api_handle_t *handle, void *array, uint32_t size, const Reference &reference);

} // namespace zel
