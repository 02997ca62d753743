// What each kind of update changes in one policy.
#pragma once

#include "tools/zeld/policy.hpp"

namespace zeld {

// Applies an update of a part of a policy, ZEL_API_MATCH_ACTION_PAIR_GROUP_UPDATE
// to ZEL_API_INTERFACE_GROUP_UPDATE. object is the record that the kind carries.
// When it throws Refusal, the policy may be changed in part: give it a copy.
void update_policy(Policy &policy, uint32_t api_type, uint32_t op_code, const void *object);

} // namespace zeld
