// The entry point of the encoders: sizes and encodes one record of any kind.
#pragma once

#include "cache/pass.hpp"
#include "encode/element.hpp"
#include "wire/record_names.hpp"

namespace zel {

// Members of a sequence that get code of their own.  In one program with its platform, all
// that lies in a policy is written and sized within the policy, from registers.
template <const wire::Record &R>
inline constexpr bool is_apart = !R.is_leaf() && (!platform_is_inline || R == wire::policy);

// Appends a record.  Returns the status of its end marker.  A null object is an empty graph.
template <const wire::Record &R> int32_t encode(const Pass &pass, const TargetArray &to, const void *object);

// The bytes that encode() appends.
template <const wire::Record &R> uint32_t encoded_size(const Pass &pass, const void *object);

} // namespace zel
