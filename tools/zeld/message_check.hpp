// Whether a message has the shape that send_to_zel() gives messages.
//
// The library's parser is tolerant: of a message that is not well formed it makes
// a graph that is not, with counts that miss members, or with a parameter of one
// kind under the type of another.  Such a graph cannot even be freed safely, so
// nothing is parsed that has not passed here.
#pragma once

#include "zel.h"

namespace zeld {

// Checks the elements of an array that lies in readable memory: one header, then
// exactly the object that its request kind carries (none for a delete), every
// record with all of its elements in order, every reference to an object that
// came before, no object twice.  Returns the header; throws Refusal, whose text
// names the element and the place.
zel_kob_header_t check_message(const void *array);

} // namespace zeld
