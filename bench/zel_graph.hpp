// The library's records: the graph of its own rows and of the limit's.
#pragma once

#include "bench/model.hpp"
#include "zel.h"

namespace bench {

// The request that carries a message.
uint32_t api_type_of(const Message &message);

// A graph as a client allocates it: every occurrence of a match or action is a
// record of its own, with a content of its own.
void *to_zel(const Message &message);

Message from_zel(uint32_t mat_type, const void *root);

} // namespace bench
