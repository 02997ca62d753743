// The entry point of the decoders: reads one record of any kind.
#pragma once

#include "cache/pass.hpp"
#include "decode/allocation_budget.hpp"

namespace zel {

// What all decoders of a message share.
struct Source {
    Pass pass;
    const void *array;
    uint32_t *cursor;
    AllocationBudget &budget;

    zel_api_handle_t &handle() const { return *pass.handle; }
};

// Decodes a record from behind its start marker on.  Returns 0 at the record's end marker,
// or the status of the element that could not be read.
int32_t decode(const Source &in, const wire::Record &record, void *object, uint32_t &subtotal);

} // namespace zel
