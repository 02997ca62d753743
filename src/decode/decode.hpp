// The door of the decoders: reads one record of any kind.
#pragma once

#include "decode/allocation_budget.hpp"
#include "wire/description.hpp"
#include "zel.h"

namespace zel {

// What all decoders of a message share.
struct Source {
    zel_api_handle_t &handle;
    const void *array;
    uint32_t *cursor;
    uint32_t app_type;
    AllocationBudget &budget;
};

// Decodes a record from behind its start marker on, or with the marker.  Returns 0 at the
// record's end marker, or the status of the element that could not be read.
int32_t decode(const Source &in, const wire::Record &record, void *object, uint32_t &subtotal);

} // namespace zel
