// A quick look at a message in one program with its platform.
#pragma once

namespace zel {

// Whether a message has exactly the elements that the encoder of this release writes.  False:
// the verifier finds out whether it can be accepted nevertheless, or why not.
bool is_as_encoded(const void *array);

} // namespace zel
